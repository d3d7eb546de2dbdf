// Device identity on fake trees in a temporary directory, and what holds on any real machine.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "DeviceInfo/DeviceInfo.h"
#include "DeviceInfo/DeviceInfoFiles.h"
#include "TempDir.h"

namespace {

constexpr char kEmptyUdid[] = "da39a3ee5e6b4b0d3255bfef95601890afd80709";
const std::string kUuid = "4f3c9a1e-2b7d-4c55-9e0a-1d2f3b4c5d6e";
constexpr char kUuidSha1[] = "8fdce318c5cab2d5b79a2be61c0e421d7786d9c0";
const std::string kPoison(42, 'Z');

// "mtab", "by-uuid/", "sys_vendor" and "dev/" in a temporary directory, with caches of its own. In a mount
// table written here "@" stands for the tree's root directory.
struct FakeMachine {
  TempDir dir;
  CDeviceInfoFiles::Sources sources{dir.File("mtab"), dir.File("by-uuid"), dir.File("sys_vendor")};
  std::string vendorCache;
  std::vector<unsigned char> idCache;
  CDeviceInfoFiles files{sources, vendorCache, idCache};

  void MountTable(const std::string& text) {
    std::string root, out;
    for (char c : dir.path()) root += c == ' ' ? std::string("\\040") : std::string(1, c);  // mtab escaping
    for (char c : text) out += c == '@' ? root : std::string(1, c);
    dir.Write("mtab", out);
  }
  void Link(const std::string& name, const std::string& target) {
    std::filesystem::create_directories(std::filesystem::path(dir.File(name)).parent_path());
    ASSERT_EQ(symlink(target.c_str(), dir.File(name).c_str()), 0) << name;
  }
  std::optional<std::string> Id() {  // none: the lookup failed (and emptied the id)
    std::vector<unsigned char> id = {'x'};
    const long rc = files.getDeviceID(id);
    EXPECT_TRUE(rc == 0 || (rc == DEVICEINFO_ERR_FAILED && id.empty())) << rc;
    return rc == 0 ? std::optional<std::string>(std::string(id.begin(), id.end())) : std::nullopt;
  }
  // GetUDID into a poisoned buffer: the result, the size after and the buffer's first 42 bytes.
  std::tuple<long, unsigned int, std::string> Udid(bool nullBuffer, unsigned int size) {
    char udid[64];
    memset(udid, 'Z', sizeof udid);
    char* buffer = nullBuffer ? nullptr : udid;
    const long rc = files.GetUDID(buffer, size);
    return {rc, size, std::string(udid, 42)};
  }
};

// op(buffer, size) on a poisoned buffer of `size` bytes: the result, the size after and the buffer's text.
template <class T>
std::tuple<long, unsigned int, std::string> Answer(T& object, long (T::*op)(char*, unsigned int&), unsigned int size) {
  std::string buffer(size, 'Z');
  const long rc = (object.*op)(buffer.data(), size);
  return {rc, size, buffer.c_str()};
}

}  // namespace

TEST(DeviceInfoFiles, RootDeviceIdAndUdid) {
  // With a by-uuid directory: kUuid links to uuidTarget among decoys (another disk, a target without a slash, a
  // longer name and a regular file named like a device).
  struct Row { const char *name, *mountTable, *aliasTarget, *uuidTarget, *root; std::optional<std::string> id; };
  const Row rows[] = {  // aliasTarget: where dev/mapper/vg-root links; id none: getDeviceID and GetUDID fail
      {"plain", "proc /proc proc rw 0 0\n@/dev/sda1 / ext4 rw 0 0\n", nullptr, "../../sda1", "sda1", kUuid},
      {"mapper alias", "@/dev/mapper/vg-root / ext4 rw 0 0\n", "../dm-0", "../../dm-0", "dm-0", kUuid},
      {"alias text without a slash", "@/dev/mapper/vg-root / ext4 rw 0 0\n", "dm-0", nullptr, "", std::nullopt},
      {"pseudo then real", "rootfs / rootfs rw 0 0\n@/dev/vda1 / xfs rw 0 0\n", nullptr, "../../vda1", "vda1", kUuid},
      {"real then pseudo, no by-uuid dir", "@/dev/sda1 / ext4 rw 0 0\noverlay / overlay rw 0 0\n", nullptr, nullptr,
       "sda1", ""},
      {"first real kept", "@/dev/sda1 / ext4 rw 0 0\n@/dev/sdc1 / ext4 rw 0 0\n", nullptr, "../../sdc1", "sda1", ""},
      {"pseudo only", "overlay / overlay rw 0 0\n", nullptr, "../../sda1", "", std::nullopt},
      {"no root entry", "@/dev/sda1 /home ext4 rw 0 0\n", nullptr, "../../sda1", "", std::nullopt},
      {"empty mount table", "", nullptr, "../../sda1", "", std::nullopt},
      {"no mount table", nullptr, nullptr, "../../sda1", "", std::nullopt},
  };
  for (const Row& r : rows) {
    FakeMachine m;
    if (r.mountTable) m.MountTable(r.mountTable);
    if (r.aliasTarget) m.Link("dev/mapper/vg-root", r.aliasTarget);
    if (r.uuidTarget) {
      int n = 0;
      for (const char* decoy : {"../../sdb1", "sda1", "vda1", "../../sda10", "../../dm-01", "../../vda"}) {
        m.Link("by-uuid/decoy" + std::to_string(n++), decoy);
      }
      m.Link("by-uuid/" + kUuid, r.uuidTarget);
      m.dir.Write("by-uuid/sda1", "");
    }
    EXPECT_EQ(m.files.getDeviceNameForRoot(), r.root) << r.name;
    EXPECT_EQ(m.Id(), r.id) << r.name;
    const std::string udid = !r.id ? kPoison : (r.id->empty() ? kEmptyUdid : kUuidSha1) + std::string("\0Z", 2);
    EXPECT_EQ(m.Udid(false, 41), std::make_tuple(r.id ? 0L : DEVICEINFO_ERR_FAILED, 41u, udid)) << r.name;
    // The lookup comes before the buffer check.
    const long rc = r.id ? DEVICEINFO_ERR_MORE_DATA : DEVICEINFO_ERR_FAILED;
    EXPECT_EQ(m.Udid(true, 64), std::make_tuple(rc, r.id ? 41u : 64u, kPoison)) << r.name;
  }
}

TEST(DeviceInfoFiles, IdCacheAndUdidBufferSizes) {
  FakeMachine m;
  m.MountTable("@/dev/sda1 / ext4 rw 0 0\n");
  m.Link("by-uuid/7A1B-22C3", "../../sdb1");
  EXPECT_EQ(m.Id(), "");
  m.Link("by-uuid/" + kUuid, "../../sda1");
  EXPECT_EQ(m.Id(), kUuid) << "no match caches nothing, so the next call searches again";
  ASSERT_EQ(unlink(m.dir.File("by-uuid/" + kUuid).c_str()), 0);
  EXPECT_EQ(m.Id(), kUuid) << "a found identifier is kept";
  EXPECT_EQ(m.Udid(false, 40), std::make_tuple(DEVICEINFO_ERR_MORE_DATA, 41u, kPoison));
  EXPECT_EQ(m.Udid(false, 64), std::make_tuple(0L, 64u, kUuidSha1 + std::string("\0Z", 2)));
}

TEST(DeviceInfoFiles, VendorFirstLineAndCache) {
  const std::string longLine(600, 'v');
  struct Row { const char* name; std::optional<std::string> content; long rc; std::string vendor; } rows[] = {
      {"line", "Acme Inc\n", 0, "Acme Inc"},
      {"no newline", "Acme Inc", DEVICEINFO_ERR_NO_VENDOR, ""},
      {"empty first line", "\nAcme\n", 0, ""},
      {"over 512 bytes, short first line", "Big Vendor\n" + longLine, 0, "Big Vendor"},
      // Only the first 512 bytes are read: a first line running past them has no newline to end it.
      {"first line over 512 bytes", longLine + "\n", DEVICEINFO_ERR_NO_VENDOR, ""},
  };
  for (const Row& r : rows) {
    FakeMachine m;
    if (r.content) m.dir.Write("sys_vendor", *r.content);
    EXPECT_EQ(Answer(m.files, &CDeviceInfoFiles::GetManufacturerName, 32),
              std::make_tuple(r.rc, r.rc ? 32u : r.vendor.size() + 1, r.rc ? std::string(32, 'Z') : r.vendor))
        << r.name;
    EXPECT_EQ(m.vendorCache.empty(), r.vendor.empty()) << r.name;
  }

  FakeMachine m;  // no vendor file yet
  const auto vendor = [&m](unsigned int size) { return Answer(m.files, &CDeviceInfoFiles::GetManufacturerName, size); };
  EXPECT_EQ(vendor(16), std::make_tuple(DEVICEINFO_ERR_NO_VENDOR, 16u, std::string(16, 'Z')));
  m.dir.Write("sys_vendor", "Acme Inc\n");
  // The failure was not cached; 8 bytes are the text's length, with no room for the NUL.
  EXPECT_EQ(vendor(8), std::make_tuple(DEVICEINFO_ERR_MORE_DATA, 9u, std::string(8, 'Z')));
  m.dir.Write("sys_vendor", "Other\n");
  EXPECT_EQ(vendor(9), std::make_tuple(0L, 9u, std::string("Acme Inc"))) << "the vendor found is kept";
  unsigned int size = 9;
  EXPECT_EQ(m.files.GetManufacturerName(nullptr, size), DEVICEINFO_ERR_NULL_BUFFER);
}

TEST(DeviceInfo, PathFreeOperationsAndThisMachine) {
  CDeviceInfo info;
  for (unsigned int capacity : {3u, 4u, 100u}) {
    EXPECT_EQ(Answer(info, &CDeviceInfo::GetSystemType, capacity),
              capacity < 4 ? std::make_tuple(DEVICEINFO_ERR_MORE_DATA, 4u, std::string(capacity, 'Z'))
                           : std::make_tuple(0L, 4u, std::string("x64")))
        << capacity;
  }

  std::string hex = "poison";  // the digest's hex form is checked through the UDIDs above
  EXPECT_EQ(info.getSHA1Hash(nullptr, 0, hex), DEVICEINFO_ERR_NO_INPUT);
  EXPECT_EQ(hex, "poison");

  TempDir dir;
  ASSERT_EQ(symlink("../../sda1", dir.File("link").c_str()), 0);
  dir.Write("file", "x");
  for (const auto& [path, text] : {std::pair{dir.File("link"), "../../sda1"}, {dir.File("file"), ""},
                                    {dir.File("missing"), ""}, {std::string(), ""}}) {
    EXPECT_EQ(info.getTargetPath(path), text) << path;
  }

  // This machine's name; its UDID over the fixed paths is what the agent reports, and is checked there.
  char host[256] = {};
  ASSERT_EQ(gethostname(host, sizeof host - 1), 0);
  const unsigned int length = static_cast<unsigned int>(strlen(host));
  EXPECT_EQ(Answer(info, &CDeviceInfo::GetHostName, length),
            std::make_tuple(DEVICEINFO_ERR_MORE_DATA, length + 1, std::string(length, 'Z')));
  EXPECT_EQ(Answer(info, &CDeviceInfo::GetHostName, length + 1), std::make_tuple(0L, length + 1, std::string(host)));
  unsigned int size = 64;
  EXPECT_EQ(info.GetHostName(nullptr, size), DEVICEINFO_ERR_NULL_BUFFER);
}
