// Loading the plug-in as the suite's service process does, its objects, and the host's settings callback.
#include "HostPlugin.h"

#include <dlfcn.h>

#include <cstdio>
#include <cstring>
#include <vector>

#include "AppLog.h"
#include "HostSettings.h"
#include "IComponentStatus.h"
#include "IPhoneHomePlugin.h"

namespace {

constexpr const char* kUnit = "HostPlugin";

}  // namespace

CHostPlugin::~CHostPlugin() {
  if (m_handle != nullptr) dlclose(m_handle);
}

bool CHostPlugin::Load(const std::string& path, std::string& problem) {
  void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (handle == nullptr) {
    const char* why = dlerror();
    problem = why != nullptr ? why : ("cannot load " + path);
    return false;
  }
  auto create = reinterpret_cast<PFN_CreatePlugin>(dlsym(handle, "CreatePlugin"));
  auto dispose = reinterpret_cast<PFN_DisposePlugin>(dlsym(handle, "DisposePlugin"));
  auto list = reinterpret_cast<PFN_GetAvailableInterfaces>(dlsym(handle, "GetAvailableInterfaces"));
  if (create == nullptr || dispose == nullptr || list == nullptr) {
    problem = path + " lacks the entry points CreatePlugin, DisposePlugin and GetAvailableInterfaces";
    dlclose(handle);
    return false;
  }

  const PluginInterfaceList offered = list();
  bool feedback = false, status = false;
  for (uint32_t i = 0; offered.interfaces != nullptr && i < offered.count; ++i) {
    const PluginInterface& entry = offered.interfaces[i];
    const char* id = entry.id != nullptr ? entry.id : "";
    CAppLog::LogDebugMessage(__FUNCTION__, kUnit, __LINE__, APPLOG_INFO, "Interface %s version %u", id,
                             static_cast<unsigned int>(entry.version));
    feedback = feedback || (strcmp(id, kFeedbackId) == 0 && entry.version == kInterfaceVersion);
    status = status || (strcmp(id, kStatusId) == 0 && entry.version == kInterfaceVersion);
  }
  if (!feedback || !status) {
    problem = path + " does not offer " + (feedback ? kStatusId : kFeedbackId) + " version " +
              std::to_string(kInterfaceVersion);
    dlclose(handle);
    return false;
  }
  m_handle = handle;
  m_create = create;
  m_dispose = dispose;
  return true;
}

Plugin* CHostPlugin::Create(const char* id) {
  Plugin* plugin = m_create(id);
  if (plugin == nullptr) {
    CAppLog::LogDebugMessage(__FUNCTION__, kUnit, __LINE__, APPLOG_ERROR, "The plug-in could not create %s", id);
    return nullptr;
  }
  if (!plugin->SupportsInterface(id, kInterfaceVersion)) {
    CAppLog::LogDebugMessage(__FUNCTION__, kUnit, __LINE__, APPLOG_ERROR, "The object created for %s does not support it",
                             id);
    Dispose(plugin);
    return nullptr;
  }
  return plugin;
}

// Each object's class derives from its interface alone, so the plug-in's root pointer is the interface's.
IPhoneHomePlugin* CHostPlugin::CreateService() { return static_cast<IPhoneHomePlugin*>(Create(kFeedbackId)); }
IComponentStatus* CHostPlugin::CreateStatus() { return static_cast<IComponentStatus*>(Create(kStatusId)); }

void CHostPlugin::Dispose(Plugin* plugin) {
  if (plugin != nullptr) m_dispose(plugin);
}

long CHostCallback::GetSettingsCB(IBencodeSettings* settings) {
  if (settings == nullptr) {
    CAppLog::LogDebugMessage(__FUNCTION__, kUnit, __LINE__, APPLOG_ERROR, "The service gave no settings adapter");
    return -1;
  }
  const size_t refused = m_settings.InsertInto(*settings);
  CAppLog::LogDebugMessage(__FUNCTION__, kUnit, __LINE__, refused == 0 ? APPLOG_INFO : APPLOG_ERROR,
                           "Handed %zu of %zu settings to the service", m_settings.Entries().size() - refused,
                           m_settings.Entries().size());
  return refused == 0 ? 0 : -1;
}

bool PrintComponentStatus(IComponentStatus& status) {
  std::vector<char> name(64);
  unsigned long size = name.size();
  long rc = status.GetDisplayName(name.data(), size);
  if (rc == -3 && size > name.size()) {  // too small: size now holds what is needed
    name.resize(size);
    rc = status.GetDisplayName(name.data(), size);
  }
  if (rc != 0) {
    CAppLog::LogReturnCode(__FUNCTION__, kUnit, __LINE__, APPLOG_ERROR, "IComponentStatus::GetDisplayName", rc);
    return false;
  }
  bool enabled = true;
  rc = status.IsEnabled(enabled);
  if (rc != 0) {
    CAppLog::LogReturnCode(__FUNCTION__, kUnit, __LINE__, APPLOG_ERROR, "IComponentStatus::IsEnabled", rc);
    return false;
  }
  printf("%s: %s\n", name.data(), enabled ? "enabled" : "disabled");
  return fflush(stdout) == 0;
}
