// Directory listings and directory path creation.
#include "Directory.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>

#include "AppLog.h"
#include "PosixFile.h"

using SuiteSystem::CodeFromErrno;

void Directory::Closer::operator()(DIR* dir) const { closedir(dir); }

Directory::Directory() = default;
Directory::~Directory() = default;

long Directory::Open(const std::string& path) {
  Close();
  if (path.empty()) return m_lLastError = SYS_E_INVALIDARG;
  UniqueFd fd(OpenCloexec(path.c_str(), O_RDONLY | O_DIRECTORY));
  if (!fd.Valid()) return m_lLastError = CodeFromErrno(errno);
  DIR* dir = fdopendir(fd.Get());
  if (dir == nullptr) return m_lLastError = CodeFromErrno(errno);
  fd.Release();  // the listing owns the descriptor now
  m_dir.reset(dir);
  return m_lLastError = 0;
}

bool Directory::Next(std::string& name) {
  if (!m_dir) return false;
  errno = 0;
  const dirent* entry = readdir(m_dir.get());
  if (entry == nullptr) {
    // Without this record a failing read would look exactly like the end of the listing to the caller.
    if (errno != 0) {
      m_lLastError = CodeFromErrno(errno);
      CAppLog::LogReturnCode("Directory::Next", "Directory", __LINE__, APPLOG_WARNING, "readdir", m_lLastError,
                             "listing ended early");
    }
    return false;
  }
  name = entry->d_name;
  return true;
}

void Directory::Close() {
  m_dir.reset();
  m_lLastError = 0;
}

namespace {

bool IsDirectory(const std::string& path) {
  struct stat st {};
  return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

int MakeDirectory(const std::string& path) {
  int rc;
  do {
    rc = mkdir(path.c_str(), 0755);
  } while (rc != 0 && errno == EINTR);
  return rc == 0 ? 0 : errno;
}

}  // namespace

bool MakeSureDirectoryPathExists(const char* path) {
  if (path == nullptr || *path == '\0') return false;
  const std::string full(path);
  if (IsDirectory(full)) return true;
  // Each prefix that ends just before a "/" (and the whole path) names one directory to have; a prefix that
  // ends in "/" itself comes from a doubled separator and names nothing new.
  for (size_t end = full.find('/', 1);; end = full.find('/', end + 1)) {
    const std::string prefix = full.substr(0, end);
    if (!prefix.empty() && prefix.back() != '/') {
      int error = MakeDirectory(prefix);
      if (error != 0 && !(error == EEXIST && IsDirectory(prefix))) return false;
    }
    if (end == std::string::npos) return true;
  }
}

bool MakeSureDirectoryPathExists(const std::string& path) { return MakeSureDirectoryPathExists(path.c_str()); }
