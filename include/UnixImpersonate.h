// Process-owner lookup of the host runtime.
#pragma once

#include <sys/types.h>

#include <string>

#include "ApiExport.h"

class SC_API CUnixImpersonate {
 public:
  // The login name of the user owning process `pid` (from /proc and the password database). On failure
  // returns a non-zero code and leaves userName as the numeric uid when that much is known, else empty.
  static long GetUsernameOwningProcess(pid_t pid, std::string& userName);
};
