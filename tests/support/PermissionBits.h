// Makes file permission bits bind the calling thread even when the tests run as root.
#pragma once

#include <linux/capability.h>
#include <sys/syscall.h>
#include <unistd.h>

// While an object lives, the thread that made it works without CAP_DAC_OVERRIDE and CAP_DAC_READ_SEARCH, the
// capabilities that let root open files whatever their mode. Capabilities belong to one thread, so nothing else
// in the process is affected; the destructor puts them back (they stay in the permitted set). For a process
// without those capabilities both steps change nothing.
class PermissionBits {
 public:
  PermissionBits() {
    syscall(SYS_capget, &m_header, m_saved);
    __user_cap_data_struct reduced[2] = {m_saved[0], m_saved[1]};
    reduced[0].effective &= ~((1u << CAP_DAC_OVERRIDE) | (1u << CAP_DAC_READ_SEARCH));
    syscall(SYS_capset, &m_header, reduced);
  }
  ~PermissionBits() { syscall(SYS_capset, &m_header, m_saved); }
  PermissionBits(const PermissionBits&) = delete;
  PermissionBits& operator=(const PermissionBits&) = delete;

 private:
  __user_cap_header_struct m_header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct m_saved[2] = {};
};
