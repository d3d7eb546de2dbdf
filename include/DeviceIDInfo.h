// The platform's device identifier: on Linux, the machine id that the system generated at installation.
#pragma once

#include <string>

#include "ApiExport.h"

class SC_API DeviceIDInfo {
 public:
  // The text of /etc/machine-id, or of /var/lib/dbus/machine-id when the first is missing, unreadable or
  // empty, without trailing white space. True on success; false (id unchanged) when neither gives a text.
  static bool GetDeviceID(std::string& id);
  // The same over the two files given, so the choice between them can be exercised on any tree.
  static bool GetDeviceIDFromFiles(const std::string& primary, const std::string& fallback, std::string& id);
};
