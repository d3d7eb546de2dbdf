// File descriptors and small whole-file reads for the system helpers.
#include "PosixFile.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include "SystemCodes.h"

namespace SuiteSystem {

int ReadSmallFile(const std::string& path, size_t limit, std::string& text) {
  UniqueFd fd(OpenCloexec(path.c_str(), O_RDONLY));
  if (!fd.Valid()) return errno;
  std::string content;
  char buffer[4096];
  for (;;) {
    ssize_t n = read(fd.Get(), buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return errno;
    if (n == 0) break;
    if (static_cast<size_t>(n) > limit - content.size()) return EFBIG;
    content.append(buffer, static_cast<size_t>(n));
  }
  text.swap(content);
  return 0;
}

long CodeFromErrno(int error) {
  switch (error) {
    case 0: return 0;
    case ENOENT:
    case ESRCH: return SYS_E_NOT_FOUND;
    case EACCES:
    case EPERM: return SYS_E_ACCESS_DENIED;
    case ENOTDIR: return SYS_E_NOT_DIRECTORY;
    case EINVAL:
    case ENAMETOOLONG: return SYS_E_INVALIDARG;
    default: return SYS_E_SYSTEM;
  }
}

}  // namespace SuiteSystem
