// The owner of a process, from /proc and the password database.
#include "UnixImpersonate.h"

#include <errno.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <sstream>
#include <vector>

#include "PosixFile.h"
#include "SystemCodes.h"

namespace {

constexpr size_t kMaxStatusSize = 65536;
constexpr size_t kMaxPasswdBuffer = 1 << 20;

// The effective uid: the one that decides what the process may do, which is what its owner means here.
bool EffectiveUidFromStatus(const std::string& status, uid_t& uid) {
  std::istringstream lines(status);
  std::string line;
  while (std::getline(lines, line)) {
    if (line.compare(0, 4, "Uid:") != 0) continue;
    std::istringstream fields(line.substr(4));
    unsigned long real = 0, effective = 0;
    if (!(fields >> real >> effective)) return false;
    uid = static_cast<uid_t>(effective);
    return true;
  }
  return false;
}

long OwnerUid(pid_t pid, uid_t& uid) {
  const std::string dir = "/proc/" + std::to_string(pid);
  std::string status;
  const int error = SuiteSystem::ReadSmallFile(dir + "/status", kMaxStatusSize, status);
  if (error == ENOENT || error == ESRCH) return SYS_E_NOT_FOUND;
  if (error == 0 && EffectiveUidFromStatus(status, uid)) return 0;
  // /proc/<pid> itself belongs to the process's effective uid while the process is dumpable.
  struct stat st {};
  if (stat(dir.c_str(), &st) != 0) return SuiteSystem::CodeFromErrno(errno);
  uid = st.st_uid;
  return 0;
}

long NameOfUid(uid_t uid, std::string& name) {
  const long suggested = sysconf(_SC_GETPW_R_SIZE_MAX);
  std::vector<char> buffer(suggested > 0 ? static_cast<size_t>(suggested) : 1024);
  for (;;) {
    passwd entry{};
    passwd* found = nullptr;
    const int error = getpwuid_r(uid, &entry, buffer.data(), buffer.size(), &found);
    if (error == EINTR) continue;
    if (error == ERANGE && buffer.size() < kMaxPasswdBuffer) {
      buffer.resize(buffer.size() * 2);
      continue;
    }
    if (error != 0) return SuiteSystem::CodeFromErrno(error);
    if (found == nullptr) return SYS_E_NOT_FOUND;
    name = found->pw_name;
    return 0;
  }
}

}  // namespace

long CUnixImpersonate::GetUsernameOwningProcess(pid_t pid, std::string& userName) {
  userName.clear();
  if (pid <= 0) return SYS_E_INVALIDARG;
  uid_t uid = 0;
  long rc = OwnerUid(pid, uid);
  if (rc != 0) return rc;
  std::string name;
  rc = NameOfUid(uid, name);
  userName = rc == 0 ? name : std::to_string(uid);
  return rc;
}
