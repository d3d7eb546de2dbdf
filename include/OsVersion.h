// The operating system's identity as the suite reports it: a version record and the platform queries.
#pragma once

#include <string>

#include "ApiExport.h"

struct SC_API OSVersionInfo {
  std::string type;               // the kernel's name, "Linux"
  unsigned int majorVersion = 0;  // from the kernel release "major.minor.patch-..."
  unsigned int minorVersion = 0;
  unsigned int buildNumber = 0;   // the kernel's patch level
  std::string details;            // the distribution's PRETTY_NAME, "Linux" when it names none
};

// The record for this machine: uname() and /etc/os-release (or /usr/lib/os-release).
SC_API OSVersionInfo GetOsVersion();
// The record built from given texts: the kernel's name and release (as uname reports them) and the content of
// an os-release file (empty when there is none). Numbers that are missing or do not fit 32 bits come out 0,
// together with every number after them.
SC_API OSVersionInfo MakeOsVersion(const std::string& sysName, const std::string& kernelRelease,
                                   const std::string& osReleaseText);

// Which platform the suite runs on; this runtime is built for Linux only.
SC_API bool IsOs_LINUX();
SC_API bool IsOs_MAC();
SC_API bool IsOs_WINNT_XP_Only();
SC_API bool IsOs_WIN_VISTA_Only();
SC_API bool IsOs_WIN_7_Only();
SC_API bool IsOs_WIN_8_Only();
SC_API bool IsOs_WIN_8Point10_Only();
SC_API bool IsOs_WIN_10_Only();
