// File descriptors and small whole-file reads for the system helpers; private to the system component.
#pragma once

#include <cstddef>
#include <string>

namespace SuiteSystem {

// Owns one file descriptor and closes it on every way out.
class UniqueFd {
 public:
  explicit UniqueFd(int fd = -1) : m_iFd(fd) {}
  ~UniqueFd();
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;
  int Get() const { return m_iFd; }
  bool Valid() const { return m_iFd >= 0; }
  int Release();

 private:
  int m_iFd;
};

// open() with O_CLOEXEC added, retried on EINTR. -1 with errno set on failure.
int OpenCloexec(const char* path, int flags);

// Reads all of a small file into `text`. 0, or an errno value (EFBIG when the file holds more than `limit`
// bytes); `text` is assigned only on success.
int ReadSmallFile(const std::string& path, size_t limit, std::string& text);

// The runtime's code for an errno value.
long CodeFromErrno(int error);

}  // namespace SuiteSystem
