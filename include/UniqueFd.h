// A file descriptor owned by one object and closed on every way out, and open() as every part of the suite
// wants it. Header-only, so the plug-in, the runtime and the tools share it without an export.
#pragma once

#include <fcntl.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>

class UniqueFd {
 public:
  explicit UniqueFd(int fd = -1) noexcept : m_iFd(fd) {}
  ~UniqueFd() { Reset(); }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;

  int Get() const noexcept { return m_iFd; }
  bool Valid() const noexcept { return m_iFd >= 0; }
  int Release() noexcept {
    int fd = m_iFd;
    m_iFd = -1;
    return fd;
  }
  // Closes the descriptor held, if any, and takes `fd`. close() is not retried on EINTR: on Linux the
  // descriptor is gone either way.
  void Reset(int fd = -1) noexcept {
    if (m_iFd >= 0) close(m_iFd);
    m_iFd = fd;
  }

 private:
  int m_iFd;
};

// One read() or write() call, repeated only when a signal interrupted it before anything moved: callers that
// must make a single call (a whole file in one read) still do.
inline ssize_t ReadRetrying(int fd, void* buffer, size_t count) {
  ssize_t n;
  do {
    n = read(fd, buffer, count);
  } while (n < 0 && errno == EINTR);
  return n;
}

inline ssize_t WriteRetrying(int fd, const void* buffer, size_t count) {
  ssize_t n;
  do {
    n = write(fd, buffer, count);
  } while (n < 0 && errno == EINTR);
  return n;
}

// open() with O_CLOEXEC added, retried on EINTR; -1 with errno set on failure.
inline int OpenCloexec(const char* path, int flags, mode_t mode = 0) {
  int fd;
  do {
    fd = open(path, flags | O_CLOEXEC, mode);
  } while (fd < 0 && errno == EINTR);
  return fd;
}
