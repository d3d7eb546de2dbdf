// The feedback service driven as a host drives it: the plug-in loaded with dlopen, its entry points found by
// name, its objects called through their virtual slots, the service run on a thread of its own and stopped
// from another, all on the runtime's held simulated clock.
//
// The test links libsuitecommon.so, the same file the plug-in names, so the loader gives both one runtime: one
// clock, one log sink, one set of execution contexts. Every agent in the process shares execution context 3
// and with it one event list and one timer list, which a single loop serves; the tests therefore run at most
// one agent at a time, dispose of every feedback object before the test ends, and check that context 3 is gone
// afterwards, so no agent of one test can run timers or take events of the next.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>

#include "BuildConfig.h"
#include "Clock.h"
#include "ExecutionContext.h"
#include "IBencodeSettings.h"
#include "IComponentStatus.h"
#include "IPhoneHomePlugin.h"
#include "IPhoneHomePluginCB.h"
#include "LogCapture.h"
#include "Plugin.h"
#include "TlsTestEnv.h"

using namespace std::chrono_literals;
namespace fs = std::filesystem;

namespace {

const char kFeedbackId[] = "com.velmar.orvane.service.customer.feedback";
const char kStatusId[] = "com.velmar.orvane.component.status";
constexpr uint32_t kStart = 1700000000;
constexpr uint32_t kDay = 86400;
constexpr uint32_t kInterval = 30 * kDay;
constexpr unsigned int kNotRunning = 0xFFFFFFFF;
constexpr auto kBound = 30s;  // real time allowed for the loop to reach a hold

const fs::path kFeedbackDir = fs::path(OVF_INSTALL_ROOT) / "CustomerExperienceFeedback";
const fs::path kMarker = kFeedbackDir / "moduledata" / "cefdisable";

// The host's side of the settings query: answers with one module's data file, as a module would.
class HostCallback : public IPhoneHomePluginCB {
 public:
  long GetSettingsCB(IBencodeSettings* settings) override {
    ++m_calls;
    return settings != nullptr && settings->Insert("AccessPhoneHomeFile", "/nonexistent/access.cef", false) ? 0 : -1;
  }
  std::atomic<int> m_calls{0};
};

// The plug-in as a host holds it: the library handle and the three entry points.
class LoadedPlugin {
 public:
  LoadedPlugin() : m_handle(dlopen(OVF_PLUGIN_PATH, RTLD_NOW | RTLD_LOCAL)) {
    if (m_handle == nullptr) return;
    m_create = reinterpret_cast<PFN_CreatePlugin>(dlsym(m_handle, "CreatePlugin"));
    m_dispose = reinterpret_cast<PFN_DisposePlugin>(dlsym(m_handle, "DisposePlugin"));
    m_list = reinterpret_cast<PFN_GetAvailableInterfaces>(dlsym(m_handle, "GetAvailableInterfaces"));
    m_table = static_cast<const PluginInterface*>(dlsym(m_handle, "g_AvailableInterfaces"));
  }
  ~LoadedPlugin() {
    if (m_handle != nullptr) dlclose(m_handle);
  }
  bool Ok() const { return m_create && m_dispose && m_list && m_table; }

  IPhoneHomePlugin* CreateFeedback() { return static_cast<IPhoneHomePlugin*>(m_create(kFeedbackId)); }
  IComponentStatus* CreateStatus() { return static_cast<IComponentStatus*>(m_create(kStatusId)); }

  void* m_handle;
  PFN_CreatePlugin m_create = nullptr;
  PFN_DisposePlugin m_dispose = nullptr;
  PFN_GetAvailableInterfaces m_list = nullptr;
  const PluginInterface* m_table = nullptr;
};

// StartPhoneHome on a host thread of its own, for as long as the service runs.
class ServiceThread {
 public:
  explicit ServiceThread(IPhoneHomePlugin* service)
      : m_thread([this, service] { m_result = service->StartPhoneHome(); m_done = true; }) {}
  ~ServiceThread() { Join(); }
  void Join() {
    if (m_thread.joinable()) m_thread.join();
  }
  std::atomic<long> m_result{-1};
  std::atomic<bool> m_done{false};

 private:
  std::thread m_thread;
};

// The loop's context as a host may watch it: the timer list's next deadline and the event list's passes.
struct LoopView {
  LoopView() : context(CExecutionContext::acquireInstance(3)) {}
  ~LoopView() {
    if (context != nullptr) context->release();
  }
  // Milliseconds to the earliest armed timer, or -1 when none is armed.
  long long NextExpiryMs() {
    unsigned int ms = 0;
    return context->GetTimerList()->TimeToExpired(ms) == 0 ? static_cast<long long>(ms) : -1;
  }
  uint64_t Passes() { return context->GetEventList()->GetWaitCount(); }
  CExecutionContext* context;
};

class PluginLifecycle : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(m_plugin.Ok()) << dlerror();
    fs::remove_all(kFeedbackDir);
    SuiteClock::UseSimulated(kStart);
  }
  void TearDown() override {
    SuiteClock::UseRealTime();
    // No agent of this test survives it: the next test's agent gets a context of its own.
    CExecutionContext* left = CExecutionContext::acquireInstance(3);
    EXPECT_EQ(left, nullptr) << "an agent outlived its test";
    if (left != nullptr) left->release();
    fs::remove_all(kFeedbackDir);
  }
  static void WriteFile(const fs::path& path, const std::string& text) {
    fs::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << text;
  }
  // Runs a service with the given history until it parks at `hold`; then checks the first expiry of "Phone
  // Home" is exactly `expiry`: at one second before, the next deadline is a second away, moving the hold onto
  // it takes the loop through exactly one more pass, and that pass arms the next cycle. The cycle's post goes
  // to a receiver that takes it, so no retry is armed before the next cycle.
  void ExpectFirstFeedbackAt(const std::string& history, uint32_t expiry) {
    SCOPED_TRACE(history);
    TlsTestEnv receiver;
    fs::remove_all(kFeedbackDir);
    SuiteClock::UseSimulated(kStart);
    if (!history.empty()) WriteFile(kFeedbackDir / "history", history);
    IPhoneHomePlugin* service = m_plugin.CreateFeedback();
    ASSERT_NE(service, nullptr);
    HostCallback host;
    ASSERT_EQ(service->SetPhoneHomePluginCB(&host), 0);
    ASSERT_TRUE(SuiteClock::HoldAt(expiry - 1));
    {
      ServiceThread thread(service);
      ASSERT_TRUE(SuiteClock::WaitUntilParked(kBound));
      {
        LoopView loop;
        ASSERT_NE(loop.context, nullptr);
        EXPECT_EQ(GetCurrentTimeSeconds(), expiry - 1);
        EXPECT_EQ(loop.NextExpiryMs(), 1000);
        const uint64_t passes = loop.Passes();
        ASSERT_TRUE(SuiteClock::HoldAt(expiry));
        ASSERT_TRUE(SuiteClock::WaitUntilParked(kBound));
        EXPECT_EQ(loop.Passes(), passes + 1);
        // The handler arms the next cycle a whole interval on, whatever the first delay was.
        EXPECT_EQ(loop.NextExpiryMs(), static_cast<long long>(kInterval) * 1000);
      }
      EXPECT_EQ(service->StopPhoneHome(), 0);
    }
    EXPECT_TRUE(m_plugin.m_dispose(service));
  }

  LoadedPlugin m_plugin;
  LogCapture m_log;  // every record of the test, kept off standard error
};

}  // namespace

TEST_F(PluginLifecycle, TableAndObjectsAreWhatTheHostAsksFor) {
  const PluginInterfaceList list = m_plugin.m_list();
  ASSERT_EQ(list.count, 2u);
  EXPECT_EQ(list.interfaces, m_plugin.m_table);
  EXPECT_STREQ(list.interfaces[0].id, kFeedbackId);
  EXPECT_EQ(list.interfaces[0].version, 1u);
  EXPECT_STREQ(list.interfaces[1].id, kStatusId);
  EXPECT_EQ(list.interfaces[1].version, 1u);

  for (const char* id : {"COM.VELMAR.ORVANE.SERVICE.CUSTOMER.FEEDBACK", "com.velmar.orvane.component.Status",
                         "com.velmar.orvane.service.customer.feedback ", "", "com.velmar.orvane"}) {
    EXPECT_EQ(m_plugin.m_create(id), nullptr) << '"' << id << '"';
  }
  EXPECT_TRUE(m_plugin.m_dispose(nullptr));

  // The status object is made without any agent: no execution context comes into being for it, so nothing
  // the feedback agent needs can keep the host from showing the component.
  IComponentStatus* status = m_plugin.CreateStatus();
  ASSERT_NE(status, nullptr);
  EXPECT_EQ(CExecutionContext::acquireInstance(3), nullptr);
  EXPECT_TRUE(status->SupportsInterface(kStatusId, 1));
  EXPECT_FALSE(status->SupportsInterface(kFeedbackId, 1));
  bool enabled = false;
  EXPECT_EQ(status->IsEnabled(enabled), 0);
  EXPECT_TRUE(enabled);

  IPhoneHomePlugin* service = m_plugin.CreateFeedback();
  ASSERT_NE(service, nullptr);
  EXPECT_TRUE(service->SupportsInterface(kFeedbackId, 1));
  EXPECT_FALSE(service->SupportsInterface(kFeedbackId, 2));
  EXPECT_FALSE(service->SupportsInterface(kStatusId, 1));
  EXPECT_EQ(service->IsPhoneHomeRunning(), kNotRunning);
  HostCallback host;
  EXPECT_EQ(service->SetPhoneHomePluginCB(nullptr), -6);
  EXPECT_EQ(service->SetPhoneHomePluginCB(&host), 0);
  EXPECT_EQ(service->SetPhoneHomePluginCB(nullptr), -6);
  EXPECT_EQ(service->UnSetPhoneHomePluginCB(), 0);
  // Stopping a service that never started is harmless.
  EXPECT_EQ(service->StopPhoneHome(), 0);
  EXPECT_TRUE(m_plugin.m_dispose(service));
  EXPECT_TRUE(m_plugin.m_dispose(status));
}

// A host built apart from this library reaches the objects only by slot number: Plugin's SupportsInterface,
// its two destructors, then each interface's own operations in their declared order.
TEST_F(PluginLifecycle, OperationsSitInTheSlotsAHostCalls) {
  IPhoneHomePlugin* service = m_plugin.CreateFeedback();
  IComponentStatus* status = m_plugin.CreateStatus();
  ASSERT_NE(service, nullptr);
  ASSERT_NE(status, nullptr);
  auto slot = [](void* object, int index) { return (*static_cast<void***>(object))[index]; };

  using Supports = bool (*)(void*, const char*, unsigned int);
  EXPECT_TRUE(reinterpret_cast<Supports>(slot(service, 0))(service, kFeedbackId, 1));
  EXPECT_TRUE(reinterpret_cast<Supports>(slot(status, 0))(status, kStatusId, 1));
  using Running = unsigned int (*)(void*);
  EXPECT_EQ(reinterpret_cast<Running>(slot(service, 5))(service), kNotRunning);
  using SetCallback = long (*)(void*, IPhoneHomePluginCB*);
  EXPECT_EQ(reinterpret_cast<SetCallback>(slot(service, 6))(service, nullptr), -6);
  using UnSetCallback = long (*)(void*);
  EXPECT_EQ(reinterpret_cast<UnSetCallback>(slot(service, 7))(service), 0);
  using Stop = long (*)(void*);
  EXPECT_EQ(reinterpret_cast<Stop>(slot(service, 4))(service), 0);

  using Enabled = long (*)(void*, bool&);
  bool enabled = false;
  EXPECT_EQ(reinterpret_cast<Enabled>(slot(status, 3))(status, enabled), 0);
  EXPECT_TRUE(enabled);
  using DisplayName = long (*)(void*, char*, unsigned long&);
  unsigned long size = 0;
  EXPECT_EQ(reinterpret_cast<DisplayName>(slot(status, 4))(status, nullptr, size), -3);
  EXPECT_GT(size, 1u);

  // Slot 2 is what DisposePlugin calls: the deleting destructor frees the object and its agent.
  using DeletingDestructor = void (*)(void*);
  reinterpret_cast<DeletingDestructor>(slot(service, 2))(service);
  reinterpret_cast<DeletingDestructor>(slot(status, 2))(status);
}

TEST_F(PluginLifecycle, RunsOnTheHostThreadUntilStoppedFromAnother) {
  IPhoneHomePlugin* service = m_plugin.CreateFeedback();
  ASSERT_NE(service, nullptr);
  HostCallback host;
  ASSERT_EQ(service->SetPhoneHomePluginCB(&host), 0);
  ASSERT_TRUE(SuiteClock::HoldAt(kStart + 60));
  EXPECT_EQ(service->IsPhoneHomeRunning(), kNotRunning);
  {
    ServiceThread thread(service);
    ASSERT_TRUE(SuiteClock::WaitUntilParked(kBound)) << m_log.Dump();
    EXPECT_EQ(service->IsPhoneHomeRunning(), 0u);
    EXPECT_TRUE(m_log.Has("Starting Customer Experience Feedback module")) << m_log.Dump();
    EXPECT_FALSE(thread.m_done);

    // A second start on this thread while the first runs is refused by the agent and returns at once.
    EXPECT_EQ(service->StartPhoneHome(), 0);
    EXPECT_EQ(m_log.Count("Customer Experience Feedback module is already running"), 1u) << m_log.Dump();
    EXPECT_FALSE(thread.m_done);

    EXPECT_EQ(service->StopPhoneHome(), 0);
    EXPECT_EQ(service->IsPhoneHomeRunning(), kNotRunning);  // cleared at once, before the loop has ended
    thread.Join();
    EXPECT_EQ(thread.m_result, 0);
  }
  EXPECT_EQ(service->IsPhoneHomeRunning(), kNotRunning);
  EXPECT_TRUE(m_log.Has("Send stop event to PhoneHome agent")) << m_log.Dump();
  EXPECT_TRUE(m_log.Has("Customer Experience Feedback module stopped")) << m_log.Dump();
  // The stop reached the parked loop without moving simulated time.
  EXPECT_EQ(GetCurrentTimeSeconds(), kStart + 60);
  EXPECT_EQ(service->UnSetPhoneHomePluginCB(), 0);
  EXPECT_TRUE(m_plugin.m_dispose(service));
  EXPECT_TRUE(fs::exists(kFeedbackDir / "history"));
}

TEST_F(PluginLifecycle, DisabledProfileLeavesTheMarkerAndAMarkerFailsTheNextStartOnce) {
  WriteFile(kFeedbackDir / "CustomerExperience_Feedback.xml",
            "<Feedback><ServiceDisable>true</ServiceDisable></Feedback>");
  IPhoneHomePlugin* service = m_plugin.CreateFeedback();
  ASSERT_NE(service, nullptr);
  // Disabled: the start returns on the calling thread, leaving the marker for the other modules.
  EXPECT_EQ(service->StartPhoneHome(), 0);
  EXPECT_TRUE(fs::exists(kMarker));
  EXPECT_EQ(fs::file_size(kMarker), 0u);
  EXPECT_TRUE(m_log.Has("Customer Experience Feedback module is disabled")) << m_log.Dump();
  EXPECT_EQ(service->IsPhoneHomeRunning(), kNotRunning);
  // The agent stays marked as running after a disabled start.
  EXPECT_EQ(service->StartPhoneHome(), 0);
  EXPECT_TRUE(m_log.Has("Customer Experience Feedback module is already running")) << m_log.Dump();
  EXPECT_TRUE(m_plugin.m_dispose(service));

  // Enabled again: the first start removes the marker and fails.
  fs::remove(kFeedbackDir / "CustomerExperience_Feedback.xml");
  m_log.Clear();
  service = m_plugin.CreateFeedback();
  ASSERT_NE(service, nullptr);
  EXPECT_EQ(service->StartPhoneHome(), 0);
  EXPECT_FALSE(fs::exists(kMarker));
  EXPECT_TRUE(m_log.Has("Failed to remove phoneHome status file")) << m_log.Dump();
  EXPECT_TRUE(m_log.Has("PhoneHomeAgent initialization failed")) << m_log.Dump();
  EXPECT_FALSE(m_log.Has("Starting Customer Experience Feedback module")) << m_log.Dump();
  EXPECT_TRUE(m_plugin.m_dispose(service));

  // A new service object starts normally.
  m_log.Clear();
  service = m_plugin.CreateFeedback();
  ASSERT_NE(service, nullptr);
  ASSERT_TRUE(SuiteClock::HoldAt(kStart + 1));
  {
    ServiceThread thread(service);
    ASSERT_TRUE(SuiteClock::WaitUntilParked(kBound)) << m_log.Dump();
    EXPECT_TRUE(m_log.Has("Starting Customer Experience Feedback module")) << m_log.Dump();
    EXPECT_EQ(service->StopPhoneHome(), 0);
  }
  EXPECT_FALSE(fs::exists(kMarker));
  EXPECT_TRUE(m_plugin.m_dispose(service));
}

// The first "Phone Home" expiry after a start, from the history's "last_feedback".
TEST_F(PluginLifecycle, FirstFeedbackOfAFreshInstallAfterTenMinutes) { ExpectFirstFeedbackAt("", kStart + 600); }

TEST_F(PluginLifecycle, FirstFeedbackAfterTheRestOfTheInterval) {
  ExpectFirstFeedbackAt("last_feedback:" + std::to_string(kStart - 10 * kDay) + "\n", kStart + 20 * kDay);
}

TEST_F(PluginLifecycle, FirstFeedbackNeverSoonerThanTenMinutes) {
  // Five minutes of the interval left, and one interval long gone.
  ExpectFirstFeedbackAt("last_feedback:" + std::to_string(kStart - kInterval + 300) + "\n", kStart + 600);
  ExpectFirstFeedbackAt("last_feedback:" + std::to_string(kStart - 40 * kDay) + "\n", kStart + 600);
}

TEST_F(PluginLifecycle, FirstFeedbackAfterAWholeIntervalWhenTheLastLiesAhead) {
  ExpectFirstFeedbackAt("last_feedback:" + std::to_string(kStart + 3600) + "\n", kStart + kInterval);
}
