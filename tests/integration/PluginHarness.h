// The plug-in as a host drives it: loaded with dlopen, the service run by StartPhoneHome on a host thread and
// stopped from another, on the runtime's held simulated clock. The suites link the libsuitecommon.so the plug-in
// names, so both share one clock, one log sink and execution context 3, whose one loop serves every agent: a test
// runs one agent at a time and disposes of it before it ends, which TearDown checks.
#pragma once

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <future>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "BuildConfig.h"
#include "Clock.h"
#include "ExecutionContext.h"
#include "IBencodeSettings.h"
#include "IComponentStatus.h"
#include "IPhoneHomePlugin.h"
#include "IPhoneHomePluginCB.h"
#include "LogCapture.h"
#include "Plugin.h"
#include "TempDir.h"
#include "WaitFor.h"

namespace harness {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

inline const char kFeedbackId[] = "com.velmar.orvane.service.customer.feedback";
inline const char kStatusId[] = "com.velmar.orvane.component.status";
constexpr uint32_t kStart = 1700000000;
constexpr uint32_t kDay = 86400;
constexpr uint32_t kInterval = 30 * kDay;
constexpr uint32_t kSettingsAt = kStart + 300;
constexpr uint32_t kFirstFeedbackAt = kStart + 600;
constexpr unsigned int kNotRunning = 0xFFFFFFFF;
constexpr auto kBound = 30s;  // real time allowed for the loop to reach a hold

inline const fs::path kFeedbackDir = fs::path(OVF_INSTALL_ROOT) / "CustomerExperienceFeedback";
inline const fs::path kOutbound = kFeedbackDir / "outbound";
inline const fs::path kModuleDir = kFeedbackDir / "moduledata";

inline void WriteFile(const fs::path& path, const std::string& bytes) {
  fs::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary) << bytes;
}

inline std::vector<std::string> Outbound() {
  std::vector<std::string> names;
  std::error_code none;  // a missing directory lists as empty
  for (const auto& entry : fs::directory_iterator(kOutbound, none)) names.push_back(entry.path().filename());
  std::sort(names.begin(), names.end());
  return names;
}

// The host's side of the settings query: each module's data-file path, as the modules would insert them.
class HostCallback : public IPhoneHomePluginCB {
 public:
  long GetSettingsCB(IBencodeSettings* settings) override {
    ++calls;
    for (const auto& [key, path] : files) {
      if (!settings->Insert(key.c_str(), path.c_str(), false)) return -1;
    }
    return 0;
  }
  std::map<std::string, std::string> files;
  std::atomic<int> calls{0};
};

struct LoadedPlugin {
  LoadedPlugin() : handle(dlopen(OVF_PLUGIN_PATH, RTLD_NOW | RTLD_LOCAL)) {
    if (handle == nullptr) return;
    create = reinterpret_cast<PFN_CreatePlugin>(dlsym(handle, "CreatePlugin"));
    dispose = reinterpret_cast<PFN_DisposePlugin>(dlsym(handle, "DisposePlugin"));
    list = reinterpret_cast<PFN_GetAvailableInterfaces>(dlsym(handle, "GetAvailableInterfaces"));
    table = static_cast<const PluginInterface*>(dlsym(handle, "g_AvailableInterfaces"));
  }
  ~LoadedPlugin() { if (handle != nullptr) dlclose(handle); }
  bool Ok() const { return create && dispose && list && table; }
  void* handle;
  PFN_CreatePlugin create = nullptr;
  PFN_DisposePlugin dispose = nullptr;
  PFN_GetAvailableInterfaces list = nullptr;
  const PluginInterface* table = nullptr;
};

// One feedback object; Start runs StartPhoneHome on a host thread, which the end stops before disposing.
class Service {
 public:
  explicit Service(LoadedPlugin& plugin, HostCallback* host = nullptr)
      : m_plugin(plugin), m_service(static_cast<IPhoneHomePlugin*>(plugin.create(kFeedbackId))) {
    if (m_service != nullptr && host != nullptr) {
      EXPECT_EQ(m_service->SetPhoneHomePluginCB(host), 0);
    }
  }
  ~Service() {
    if (m_result.valid()) {
      m_service->StopPhoneHome();
      m_result.wait();
    }
    EXPECT_TRUE(m_service == nullptr || m_plugin.dispose(m_service));
  }
  bool Ok() const { return m_service != nullptr; }
  IPhoneHomePlugin* operator->() const { return m_service; }
  void Start() { m_result = std::async(std::launch::async, [this] { return m_service->StartPhoneHome(); }); }
  void Stop() { EXPECT_EQ(m_service->StopPhoneHome(), 0); }
  // StartPhoneHome's result, or -1 when it does not return within `bound` of real time.
  long Returned(std::chrono::milliseconds bound) {
    return m_result.wait_for(bound) == std::future_status::ready ? m_result.get() : -1;
  }

 private:
  LoadedPlugin& m_plugin;
  IPhoneHomePlugin* m_service;
  std::future<long> m_result;
};

// The loop's context as a host may watch it.
struct LoopView {
  CExecutionContext* context = CExecutionContext::acquireInstance(3);
  ~LoopView() { if (context != nullptr) context->release(); }
  // Milliseconds to the earliest armed timer, or -1 when none is armed.
  long long NextExpiryMs() {
    unsigned int ms = 0;
    return context->GetTimerList()->TimeToExpired(ms) == 0 ? static_cast<long long>(ms) : -1;
  }
  uint64_t Passes() { return context->GetEventList()->GetWaitCount(); }
};

// A clean install root and simulated time held at kStart for every test, and for every row that calls Fresh.
class PluginTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(m_plugin.Ok()) << dlerror();
    Fresh();
  }
  void TearDown() override {
    SuiteClock::UseRealTime();
    CExecutionContext* left = CExecutionContext::acquireInstance(3);
    EXPECT_EQ(left, nullptr) << "an agent outlived its test";
    if (left != nullptr) left->release();
    fs::remove_all(kFeedbackDir);
  }
  void Fresh() {
    fs::remove_all(kFeedbackDir);
    SuiteClock::UseSimulated(kStart);
    SuiteClock::HoldAt(kStart);  // simulated time never runs free, whatever a start does
    m_log.Clear();
  }
  bool RunTo(uint32_t moment) { return SuiteClock::HoldAt(moment) && SuiteClock::WaitUntilParked(kBound); }
  // Starts a service with simulated time held at `moment` before its loop runs, and waits for the loop to park.
  bool StartAndRunTo(Service& service, uint32_t moment) {
    if (!service.Ok() || !SuiteClock::HoldAt(moment)) return false;
    service.Start();
    return SuiteClock::WaitUntilParked(kBound);
  }

  LoadedPlugin m_plugin;
  LogCapture m_log;
  HostCallback m_host;
};

}  // namespace harness
