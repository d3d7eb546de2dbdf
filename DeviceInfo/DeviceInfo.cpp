// Device identity from the host name, the DMI vendor file, the mount table and the by-uuid disk links.
#include "DeviceInfo/DeviceInfo.h"

#include <dirent.h>
#include <mntent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "DeviceInfo/DeviceInfoFiles.h"
#include "SafeString.h"
#include "Utils/Utils.h"

namespace {

constexpr unsigned int kHostNameBufferSize = 256;
constexpr unsigned int kVendorReadSize = 512;
constexpr unsigned int kSystemTypeSize = 4;
constexpr unsigned int kUdidSize = 41;
// The same line limit as the C library's own getmntent.
constexpr size_t kMountEntryBufferSize = 4096;
constexpr char kSystemType[] = "x64";
// Deliberately the SHA-1 of empty input: a machine without a matching disk entry reports the same UDID as
// hashing nothing would give.
constexpr char kEmptyInputUdid[] = "da39a3ee5e6b4b0d3255bfef95601890afd80709";

struct MountTableClose {
  void operator()(FILE* table) const { endmntent(table); }
};
using MountTable = std::unique_ptr<FILE, MountTableClose>;

struct DirClose {
  void operator()(DIR* dir) const { closedir(dir); }
};
using Dir = std::unique_ptr<DIR, DirClose>;

const CDeviceInfoFiles::Sources& SystemSources() {
  static const CDeviceInfoFiles::Sources sources{"/etc/mtab", "/dev/disk/by-uuid",
                                                 "/sys/class/dmi/id/sys_vendor"};
  return sources;
}

std::string& VendorCache() {
  static std::string cache;
  return cache;
}

std::vector<unsigned char>& DeviceIdCache() {
  static std::vector<unsigned char> cache;
  return cache;
}

CDeviceInfoFiles SystemFiles() { return CDeviceInfoFiles(SystemSources(), VendorCache(), DeviceIdCache()); }

// The answer and its NUL into the caller's buffer, or the required size back when they do not fit.
long CopyAnswer(const std::string& answer, char* buffer, unsigned int& size) {
  const size_t required = answer.size() + 1;
  if (required > size) {
    size = static_cast<unsigned int>(required);
    return DEVICEINFO_ERR_MORE_DATA;
  }
  size = static_cast<unsigned int>(safe_strlcpyA(buffer, answer.c_str(), size) + 1);
  return 0;
}

// The text after the last "/", or "" when there is no "/".
std::string AfterLastSlash(const std::string& text) {
  const size_t slash = text.rfind('/');
  return slash == std::string::npos ? std::string() : text.substr(slash + 1);
}

// The text of a symbolic link as stored, or "" for anything that is not a readable link.
std::string TargetPath(const std::string& path) {
  if (path.empty()) return "";

  struct stat st;
  int rc;
  do {
    rc = lstat(path.c_str(), &st);
  } while (rc != 0 && errno == EINTR);
  if (rc != 0 || !S_ISLNK(st.st_mode)) return "";

  const size_t linkSize = static_cast<size_t>(st.st_size);
  std::vector<char> text(linkSize + 1, 0);
  ssize_t read;
  do {
    read = readlink(path.c_str(), text.data(), text.size());
  } while (read < 0 && errno == EINTR);
  if (read < 0) return "";
  text[linkSize] = '\0';
  return std::string(text.data());
}

// SHA-1 of `length` bytes as 40 lower-case hex digits.
long Sha1Hex(const unsigned char* data, unsigned long length, std::string& hex) {
  if (data == nullptr) return DEVICEINFO_ERR_NO_INPUT;
  std::string digest;
  if (OvRuntime::Utils::GetSHA1Hash(data, length, digest) != OvRuntime::Utils::UTILS_OK) {
    return DEVICEINFO_ERR_FAILED;
  }
  hex = OvRuntime::Utils::EncodeToHex(digest);
  return 0;
}

}  // namespace

long CDeviceInfoFiles::GetManufacturerName(char* buffer, unsigned int& size) {
  if (buffer == nullptr) return DEVICEINFO_ERR_NULL_BUFFER;

  if (m_rVendorCache.empty()) {
    std::vector<char> text(kVendorReadSize, 0);
    unsigned int length = kVendorReadSize;
    int rc = OvRuntime::Utils::GetFileTextContent(m_sources.vendorFile, text.data(), length);
    // Kept for a read that reports a larger file; given a buffer, GetFileTextContent reads what fits and
    // succeeds, so in practice only the first 512 bytes are looked at.
    if (rc == OvRuntime::Utils::UTILS_ERR_MORE_DATA && length > kVendorReadSize) {
      text.resize(length, 0);
      rc = OvRuntime::Utils::GetFileTextContent(m_sources.vendorFile, text.data(), length);
    }
    const char* newline =
        rc == OvRuntime::Utils::UTILS_OK ? static_cast<const char*>(memchr(text.data(), '\n', length)) : nullptr;
    if (rc != OvRuntime::Utils::UTILS_OK || length == 0 || newline == nullptr) {
      return DEVICEINFO_ERR_NO_VENDOR;
    }
    m_rVendorCache.assign(text.data(), static_cast<size_t>(newline - text.data()));
  }
  return CopyAnswer(m_rVendorCache, buffer, size);
}

std::string CDeviceInfoFiles::getDeviceNameForRoot() {
  // "e" adds close-on-exec to the read mode.
  FILE* raw;
  do {
    raw = setmntent(m_sources.mountTable.c_str(), "re");
  } while (raw == nullptr && errno == EINTR);
  MountTable table(raw);
  if (!table) return "";

  // A pseudo device without a path is kept only until a "/" entry with a real device path follows.
  std::string name;
  struct mntent entry;
  char line[kMountEntryBufferSize];
  while (getmntent_r(table.get(), &entry, line, sizeof line) != nullptr) {
    if (strcmp(entry.mnt_dir, "/") != 0) continue;
    if (name.empty() || name.find('/') == std::string::npos) name = entry.mnt_fsname;
    if (name.find('/') != std::string::npos) break;
  }
  table.reset();

  // An alias such as /dev/mapper/vg-root is a link whose text (../dm-0) names the kernel device.
  if (name.find('/') != std::string::npos) {
    std::string target = TargetPath(name);
    if (!target.empty()) name = target;
  }
  return AfterLastSlash(name);
}

long CDeviceInfoFiles::getDeviceID(std::vector<unsigned char>& id) {
  id.clear();

  if (m_rDeviceIdCache.empty()) {
    const std::string root = getDeviceNameForRoot();
    if (root.empty()) return DEVICEINFO_ERR_FAILED;

    DIR* raw;
    do {
      raw = opendir(m_sources.byUuidDir.c_str());
    } while (raw == nullptr && errno == EINTR);
    Dir dir(raw);
    while (dir) {
      const struct dirent* entry = readdir(dir.get());
      if (entry == nullptr) break;
      // Some file systems leave d_type unknown; TargetPath's own lstat then rejects what is not a link.
      if (entry->d_type != DT_LNK && entry->d_type != DT_UNKNOWN) continue;
      const std::string target = TargetPath(m_sources.byUuidDir + "/" + entry->d_name);
      if (target.find('/') == std::string::npos) continue;
      if (AfterLastSlash(target) == root) {
        m_rDeviceIdCache.assign(entry->d_name, entry->d_name + strlen(entry->d_name));
        break;
      }
    }
  }

  // An empty cache means no entry matched: 0 with an empty id, and the next call searches again.
  id = m_rDeviceIdCache;
  return 0;
}

long CDeviceInfoFiles::GetUDID(char*& buffer, unsigned int& size) {
  std::vector<unsigned char> bytes;
  if (getDeviceID(bytes) != 0) return DEVICEINFO_ERR_FAILED;

  if (buffer == nullptr || size < kUdidSize) {
    size = kUdidSize;
    return DEVICEINFO_ERR_MORE_DATA;
  }

  std::string udid;
  if (bytes.empty()) {
    udid = kEmptyInputUdid;
  } else if (Sha1Hex(bytes.data(), bytes.size(), udid) != 0) {
    return DEVICEINFO_ERR_FAILED;
  }
  safe_strlcpyA(buffer, udid.c_str(), size);
  return 0;
}

CDeviceInfo::CDeviceInfo() = default;

CDeviceInfo::~CDeviceInfo() = default;

long CDeviceInfo::GetHostName(char* buffer, unsigned int& size) try {
  if (buffer == nullptr) return DEVICEINFO_ERR_NULL_BUFFER;
  char name[kHostNameBufferSize] = {};
  if (gethostname(name, kHostNameBufferSize - 1) != 0) return DEVICEINFO_ERR_FAILED;
  return CopyAnswer(name, buffer, size);
} catch (...) {
  return DEVICEINFO_ERR_FAILED;
}

long CDeviceInfo::GetManufacturerName(char* buffer, unsigned int& size) try {
  return SystemFiles().GetManufacturerName(buffer, size);
} catch (...) {
  return DEVICEINFO_ERR_NO_VENDOR;
}

long CDeviceInfo::GetSystemType(char* buffer, unsigned int& size) {
  if (size < kSystemTypeSize) {
    size = kSystemTypeSize;
    return DEVICEINFO_ERR_MORE_DATA;
  }
  // The buffer is not checked for null: the bounded copy writes nothing through a null pointer.
  safe_strlcpyA(buffer, kSystemType, size);
  size = kSystemTypeSize;
  return 0;
}

long CDeviceInfo::GetUDID(char*& buffer, unsigned int& size) try {
  return SystemFiles().GetUDID(buffer, size);
} catch (...) {
  return DEVICEINFO_ERR_FAILED;
}

long CDeviceInfo::getDeviceID(std::vector<unsigned char>& id) try {
  return SystemFiles().getDeviceID(id);
} catch (...) {
  return DEVICEINFO_ERR_FAILED;
}

std::string CDeviceInfo::getDeviceNameForRoot() try {
  return SystemFiles().getDeviceNameForRoot();
} catch (...) {
  return "";
}

std::string CDeviceInfo::getTargetPath(const std::string& path) try {
  return TargetPath(path);
} catch (...) {
  return "";
}

long CDeviceInfo::getSHA1Hash(const unsigned char* data, unsigned long length, std::string& hex) try {
  return Sha1Hex(data, length, hex);
} catch (...) {
  return DEVICEINFO_ERR_FAILED;
}
