// The plug-in frame: the objects the host creates by interface identifier and the enable test for other modules.
#pragma once

#include <atomic>
#include <string>

#include "ApiExport.h"
#include "IComponentStatus.h"
#include "IPhoneHomePlugin.h"
#include "Plugin.h"

class CPhoneHomeAgent;
class IPhoneHomePluginCB;

// Interface identifiers of the plug-in's objects, exactly as the host asks for them.
inline constexpr char PHONEHOME_SERVICE_INTERFACE_ID[] = "com.velmar.orvane.service.customer.feedback";
inline constexpr char PHONEHOME_STATUS_INTERFACE_ID[] = "com.velmar.orvane.component.status";
inline constexpr unsigned int PHONEHOME_INTERFACE_VERSION = 1;

// Name of the marker file that the agent leaves in its moduledata directory while the profile disables it.
extern OVF_API const char* const PHONEHOME_STATUS_FILENAME;

// The host's entry points: plain C symbols it finds with dlsym, and the table of the interfaces offered.
extern "C" {
OVF_API extern const PluginInterface g_AvailableInterfaces[2];
OVF_API PluginInterfaceList GetAvailableInterfaces();
// Null for an unknown identifier (compared exactly, letter case included) and when the feedback agent could
// not be built.
OVF_API Plugin* CreatePlugin(const char* interfaceId);
// Always true; null is accepted.
OVF_API bool DisposePlugin(Plugin* plugin);
}

// The feedback service the host starts and stops. It owns the agent, built with the object; a host thread
// spends the agent's whole life inside StartPhoneHome while others stop it, ask whether it runs, or change the
// callback, so the two fields they share are atomics.
class CPhoneHomePlugin : public IPhoneHomePlugin {
 public:
  // err: what the agent's constructor reported; non-zero means the object must be discarded.
  explicit CPhoneHomePlugin(long& err);
  // Stops the agent, if any, and destroys it.
  ~CPhoneHomePlugin() override;
  CPhoneHomePlugin(const CPhoneHomePlugin&) = delete;
  CPhoneHomePlugin& operator=(const CPhoneHomePlugin&) = delete;

  bool SupportsInterface(const char* id, unsigned int version) override;
  // Blocks for the agent's whole life; always 0.
  long StartPhoneHome() override;
  // Asks the agent to stop and returns at once; always 0.
  long StopPhoneHome() override;
  // 0 while StartPhoneHome runs and no stop was asked, 0xFFFFFFFF otherwise: the inverted sense is the host's.
  unsigned int IsPhoneHomeRunning() override;
  // -6 (callback unchanged) for null, else 0.
  long SetPhoneHomePluginCB(IPhoneHomePluginCB* callback) override;
  long UnSetPhoneHomePluginCB() override;

  // The host's callback, borrowed; null until set. The agent hands the modules' settings view to it.
  IPhoneHomePluginCB* GetPhoneHomePluginCB() const { return m_pCallback.load(); }

 private:
  std::atomic<IPhoneHomePluginCB*> m_pCallback{nullptr};
  std::atomic<bool> m_bRunning{false};
  CPhoneHomeAgent* m_pAgent = nullptr;  // owned; null only when it could not even be allocated
};

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
