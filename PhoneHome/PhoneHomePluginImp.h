// The plug-in frame: the objects the host creates by interface identifier and the enable test for other modules.
#pragma once

#include <string>

#include "ApiExport.h"
#include "IComponentStatus.h"

// Interface identifiers of the plug-in's objects, exactly as the host asks for them.
inline constexpr char PHONEHOME_SERVICE_INTERFACE_ID[] = "com.velmar.orvane.service.customer.feedback";
inline constexpr char PHONEHOME_STATUS_INTERFACE_ID[] = "com.velmar.orvane.component.status";
inline constexpr unsigned int PHONEHOME_INTERFACE_VERSION = 1;

// Name of the marker file that the agent leaves in its moduledata directory while the profile disables it.
extern OVF_API const char* const PHONEHOME_STATUS_FILENAME;

// The component status the host shows: enabled state and display name, both from the administrator profile,
// read afresh on every call.
class CPhoneHomeStatus : public IComponentStatus {
 public:
  CPhoneHomeStatus();
  ~CPhoneHomeStatus() override;
  CPhoneHomeStatus(const CPhoneHomeStatus&) = delete;
  CPhoneHomeStatus& operator=(const CPhoneHomeStatus&) = delete;

  bool SupportsInterface(const char* id, unsigned int version) override;
  // Always returns 0; a missing or unreadable profile reports enabled.
  long IsEnabled(bool& enabled) override;
  // Returns 0, or -3 with size set to the length needed (terminator included) for a null or small buffer.
  long GetDisplayName(char* buffer, unsigned long& size) override;

  // Sets enabled from the profile's ServiceDisable; on any failure both flags keep what the caller put in.
  // crashDumpEnabled is never written, whatever the profile says.
  void LoadStatusFromConfigFile(bool& enabled, bool& crashDumpEnabled);

 private:
  std::string m_strConfigFile;
};

// A cheap test for the suite's other modules, based only on the marker file's existence.
class OVF_API CPhoneHomeUtility {
 public:
  // False when directory + "/" + marker can be opened for reading, true otherwise. Callers pass the feedback
  // moduledata directory.
  static bool IsPhoneHomeEnabled(const std::string& directory);
  static const char* GetPhoneHomeStatusFileName();
};
