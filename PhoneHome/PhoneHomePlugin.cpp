// The host's entry points, the interface table and the feedback service object that owns the agent.
#include <cstring>
#include <new>
#include <string>

#include "AppLog.h"
#include "PhoneHome/PhoneHomeAgent.h"
#include "PhoneHome/PhoneHomePluginImp.h"

namespace {

const char kUnit[] = "PhoneHomePluginImp";
const long kNullCallback = -6;  // 0xFFFFFFFA in the host's 32-bit view
const unsigned int kNotRunning = 0xFFFFFFFF;

}  // namespace

extern "C" {

const PluginInterface g_AvailableInterfaces[2] = {
    {PHONEHOME_SERVICE_INTERFACE_ID, PHONEHOME_INTERFACE_VERSION},
    {PHONEHOME_STATUS_INTERFACE_ID, PHONEHOME_INTERFACE_VERSION},
};

PluginInterfaceList GetAvailableInterfaces() {
  return PluginInterfaceList{g_AvailableInterfaces, sizeof g_AvailableInterfaces / sizeof g_AvailableInterfaces[0]};
}

Plugin* CreatePlugin(const char* interfaceId) {
  if (interfaceId == nullptr) return nullptr;
  try {
    const std::string id(interfaceId);
    if (id == PHONEHOME_SERVICE_INTERFACE_ID) {
      long err = 0;
      Plugin* plugin = new CPhoneHomePlugin(err);
      if (err != 0) {
        CAppLog::LogReturnCode(__FUNCTION__, kUnit, __LINE__, APPLOG_WARNING, "CreatePlugin", err);
        delete plugin;
        return nullptr;
      }
      return plugin;
    }
    if (id == PHONEHOME_STATUS_INTERFACE_ID) return new CPhoneHomeStatus();
  } catch (...) {
    // Out of memory: the host sees the same null as for a failed agent.
    CAppLog::LogDebugMessage(__FUNCTION__, kUnit, __LINE__, APPLOG_ERROR, "Out of memory creating \"%s\".",
                             interfaceId);
  }
  return nullptr;
}

bool DisposePlugin(Plugin* plugin) {
  delete plugin;
  return true;
}

}  // extern "C"

CPhoneHomePlugin::CPhoneHomePlugin(long& err) {
  // Kept even when err is set, so that the destructor of the discarded object cleans the agent up.
  m_pAgent = new CPhoneHomeAgent(err, *this);
}

CPhoneHomePlugin::~CPhoneHomePlugin() {
  if (m_pAgent == nullptr) return;
  m_pAgent->Stop();
  delete m_pAgent;
  m_pAgent = nullptr;
}

bool CPhoneHomePlugin::SupportsInterface(const char* id, unsigned int version) {
  return id != nullptr && strcmp(id, PHONEHOME_SERVICE_INTERFACE_ID) == 0 && version == PHONEHOME_INTERFACE_VERSION;
}

long CPhoneHomePlugin::StartPhoneHome() {
  if (m_pAgent == nullptr) return 0;
  m_bRunning = true;
  // The agent's own result is deliberately not passed on: the host only learns that the service ended.
  try {
    m_pAgent->Start();
  } catch (...) {
    // Nothing may reach the host's thread; the agent has logged what it could.
  }
  m_bRunning = false;
  return 0;
}

long CPhoneHomePlugin::StopPhoneHome() {
  m_bRunning = false;
  // Stop only sets a flag and signals an event; it has nothing that throws.
  if (m_pAgent != nullptr) m_pAgent->Stop();
  return 0;
}

unsigned int CPhoneHomePlugin::IsPhoneHomeRunning() { return m_bRunning ? 0 : kNotRunning; }

long CPhoneHomePlugin::SetPhoneHomePluginCB(IPhoneHomePluginCB* callback) {
  if (callback == nullptr) return kNullCallback;
  m_pCallback = callback;
  return 0;
}

long CPhoneHomePlugin::UnSetPhoneHomePluginCB() {
  m_pCallback = nullptr;
  return 0;
}
