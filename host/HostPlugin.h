// The plug-in as the host holds it: the loaded library, its two objects and the host's settings callback.
#pragma once

#include <string>

#include "IPhoneHomePluginCB.h"
#include "Plugin.h"

class CHostSettings;
class IComponentStatus;
class IPhoneHomePlugin;

// The loaded libovfeedback.so. Objects created through it must be disposed of through it before it goes away,
// which unloads the library.
class CHostPlugin {
 public:
  static constexpr const char* kFeedbackId = "com.velmar.orvane.service.customer.feedback";
  static constexpr const char* kStatusId = "com.velmar.orvane.component.status";
  static constexpr unsigned int kInterfaceVersion = 1;

  CHostPlugin() = default;
  ~CHostPlugin();
  CHostPlugin(const CHostPlugin&) = delete;
  CHostPlugin& operator=(const CHostPlugin&) = delete;

  // Loads the library, logs the interfaces it offers and checks that both of ours are among them. On failure
  // returns false with `problem` set and nothing loaded.
  bool Load(const std::string& path, std::string& problem);

  // Null when the plug-in cannot create the object or the object does not answer for its interface; the
  // failure is logged. The caller owns the object and gives it back through Dispose.
  IPhoneHomePlugin* CreateService();
  IComponentStatus* CreateStatus();
  void Dispose(Plugin* plugin);

 private:
  Plugin* Create(const char* id);

  void* m_handle = nullptr;
  PFN_CreatePlugin m_create = nullptr;
  PFN_DisposePlugin m_dispose = nullptr;
};

// Answers the service's settings query from the host settings file.
class CHostCallback : public IPhoneHomePluginCB {
 public:
  explicit CHostCallback(const CHostSettings& settings) : m_settings(settings) {}
  // 0 when every entry went in; -1 when the adapter is missing or refused one (each refusal is logged).
  long GetSettingsCB(IBencodeSettings* settings) override;

 private:
  const CHostSettings& m_settings;  // borrowed; outlives the callback
};

// Prints "<display name>: enabled|disabled" on standard output, as the status object reads the administrator
// profile. False when the object fails to answer (logged).
bool PrintComponentStatus(IComponentStatus& status);
