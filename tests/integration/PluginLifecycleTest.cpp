// The feedback service's whole life as a host drives it, from the interface table to a stop from another thread.
#include "PluginHarness.h"
#include "TlsTestEnv.h"

using namespace harness;

namespace {

const fs::path kMarker = kModuleDir / "cefdisable";

class PluginLifecycle : public PluginTest {};

// Calls the operation in an object's virtual slot as a separately built host does.
template <typename R, typename... A>
R Call(void* object, int slot, A... args) {
  return reinterpret_cast<R (*)(void*, A...)>((*static_cast<void***>(object))[slot])(object, args...);
}

}  // namespace

// A host built apart from this library finds the objects through the table and reaches them only by slot
// number: Plugin's SupportsInterface, its two destructors, then each interface's own operations in their
// declared order.
TEST_F(PluginLifecycle, TableAndTheSlotsAHostCalls) {
  const PluginInterfaceList list = m_plugin.list();
  ASSERT_EQ(list.count, 2u);
  EXPECT_EQ(list.interfaces, m_plugin.table);
  EXPECT_STREQ(list.interfaces[0].id, kFeedbackId);
  EXPECT_EQ(list.interfaces[0].version, 1u);
  EXPECT_STREQ(list.interfaces[1].id, kStatusId);
  EXPECT_EQ(list.interfaces[1].version, 1u);
  for (const char* id : {"COM.VELMAR.ORVANE.SERVICE.CUSTOMER.FEEDBACK", "com.velmar.orvane.component.Status",
                         "com.velmar.orvane.service.customer.feedback ", "", "com.velmar.orvane"}) {
    EXPECT_EQ(m_plugin.create(id), nullptr) << '"' << id << '"';
  }
  EXPECT_TRUE(m_plugin.dispose(nullptr));

  // The status object is made without any agent: no execution context comes into being for it, so nothing
  // the feedback agent needs can keep the host from showing the component.
  void* status = m_plugin.create(kStatusId);
  ASSERT_NE(status, nullptr);
  EXPECT_EQ(CExecutionContext::acquireInstance(3), nullptr);
  void* service = m_plugin.create(kFeedbackId);
  ASSERT_NE(service, nullptr);
  const struct { void* object; const char* id; unsigned int version; bool supported; } supports[] = {
      {service, kFeedbackId, 1, true}, {service, kFeedbackId, 2, false}, {service, kStatusId, 1, false},
      {status, kStatusId, 1, true},    {status, kStatusId, 0, false},    {status, kStatusId, 2, false},
      {status, kFeedbackId, 1, false}, {status, "com.velmar.orvane.component.Status", 1, false},
      {status, "", 1, false},          {status, nullptr, 1, false}};
  for (const auto& row : supports) {
    EXPECT_EQ(Call<bool>(row.object, 0, row.id, row.version), row.supported)
        << (row.id ? row.id : "null") << ' ' << row.version;
  }
  EXPECT_EQ(Call<unsigned int>(service, 5), kNotRunning);                           // IsPhoneHomeRunning
  EXPECT_EQ(Call<long>(service, 6, static_cast<IPhoneHomePluginCB*>(nullptr)), -6);  // SetPhoneHomePluginCB
  EXPECT_EQ(Call<long>(service, 7), 0);                                             // UnSetPhoneHomePluginCB
  EXPECT_EQ(Call<long>(service, 4), 0);  // StopPhoneHome: harmless on a service that never started
  bool enabled = false;
  EXPECT_EQ((Call<long, bool&>(status, 3, enabled)), 0);  // IsEnabled
  EXPECT_TRUE(enabled);
  unsigned long size = 0;
  EXPECT_EQ((Call<long, char*, unsigned long&>(status, 4, nullptr, size)), -3);  // GetDisplayName
  EXPECT_GT(size, 1u);
  // Slot 2 is what DisposePlugin calls: the deleting destructor frees the object and its agent.
  Call<void>(service, 2);
  Call<void>(status, 2);
}

// A disabled run leaves an empty marker for the other modules. Once the profile enables the service again, the
// marker fails the next start once, removing it; the start after that runs the service on the host thread until
// a stop from another thread. An agent whose start ended early, disabled or failed, stays marked as running.
TEST_F(PluginLifecycle, ADisabledRunsMarkerFailsOneStartThenTheServiceRunsUntilStoppedFromAnotherThread) {
  const fs::path profile = kFeedbackDir / "CustomerExperience_Feedback.xml";
  WriteFile(profile, "<Feedback><ServiceDisable>true</ServiceDisable></Feedback>");
  {
    Service disabled(m_plugin);
    EXPECT_EQ(disabled->StartPhoneHome(), 0);  // returns on the calling thread
    EXPECT_TRUE(fs::exists(kMarker) && fs::file_size(kMarker) == 0u);
    EXPECT_TRUE(m_log.Has("Customer Experience Feedback module is disabled")) << m_log.Dump();
    EXPECT_EQ(disabled->IsPhoneHomeRunning(), kNotRunning);
    EXPECT_EQ(disabled->StartPhoneHome(), 0);
    EXPECT_EQ(m_log.Count("Customer Experience Feedback module is already running"), 1u) << m_log.Dump();
  }
  fs::remove(profile);
  m_log.Clear();
  {
    Service failed(m_plugin);
    failed.Start();  // on a thread of its own, so a start that wrongly goes on cannot hold up the test
    EXPECT_EQ(failed.Returned(kBound), 0);
    EXPECT_FALSE(fs::exists(kMarker));
    EXPECT_TRUE(m_log.Has("Failed to remove phoneHome status file")) << m_log.Dump();
    EXPECT_TRUE(m_log.Has("PhoneHomeAgent initialization failed")) << m_log.Dump();
    EXPECT_FALSE(m_log.Has("Starting Customer Experience Feedback module")) << m_log.Dump();
    failed.Start();
    EXPECT_EQ(failed.Returned(kBound), 0);
    EXPECT_EQ(m_log.Count("Customer Experience Feedback module is already running"), 1u) << m_log.Dump();
  }
  fs::remove(kFeedbackDir / "history");  // the running service's own is looked for at the end
  m_log.Clear();
  {
    Service service(m_plugin, &m_host);
    ASSERT_TRUE(StartAndRunTo(service, kStart + 60)) << m_log.Dump();
    EXPECT_EQ(service->IsPhoneHomeRunning(), 0u);
    EXPECT_TRUE(m_log.Has("Starting Customer Experience Feedback module")) << m_log.Dump();

    // A second start on this thread while the first runs is refused by the agent and returns at once.
    EXPECT_EQ(service->StartPhoneHome(), 0);
    EXPECT_EQ(m_log.Count("Customer Experience Feedback module is already running"), 1u) << m_log.Dump();
    EXPECT_EQ(service.Returned(0ms), -1);

    service.Stop();
    EXPECT_EQ(service->IsPhoneHomeRunning(), kNotRunning);  // cleared at once, before the loop has ended
    EXPECT_EQ(service.Returned(kBound), 0);
    EXPECT_TRUE(m_log.Has("Send stop event to PhoneHome agent")) << m_log.Dump();
    EXPECT_TRUE(m_log.Has("Customer Experience Feedback module stopped")) << m_log.Dump();
    // The stop reached the parked loop without moving simulated time.
    EXPECT_EQ(GetCurrentTimeSeconds(), kStart + 60);
  }
  EXPECT_FALSE(fs::exists(kMarker));
  EXPECT_TRUE(fs::exists(kFeedbackDir / "history"));
}

// The first "Phone Home" expiry after a start, from the history's "last_feedback" (the ten-minute floor on an
// old entry is the schedule suite's). The service is run until it parks a second before: the next deadline is
// then a second away, moving the hold onto it takes the loop through exactly one more pass, and that pass arms
// the next cycle. The cycle's post goes to a receiver that takes it, so no retry is armed before the next cycle.
TEST_F(PluginLifecycle, FirstFeedbackFollowsTheLastOneInTheHistory) {
  auto last = [](uint32_t at) { return "last_feedback:" + std::to_string(at) + "\n"; };
  const struct {
    std::string history;
    uint32_t expiry;
  } rows[] = {
      {"", kFirstFeedbackAt},                          // a fresh install: after ten minutes
      {last(kStart - 10 * kDay), kStart + 20 * kDay},  // the rest of the interval
      {last(kStart + 3600), kStart + kInterval},       // the last lies ahead: a whole interval
  };
  TlsTestEnv receiver;
  for (const auto& row : rows) {
    SCOPED_TRACE(row.history);
    Fresh();
    if (!row.history.empty()) WriteFile(kFeedbackDir / "history", row.history);
    Service service(m_plugin, &m_host);
    ASSERT_TRUE(StartAndRunTo(service, row.expiry - 1)) << m_log.Dump();
    LoopView loop;
    ASSERT_NE(loop.context, nullptr);
    EXPECT_EQ(GetCurrentTimeSeconds(), row.expiry - 1);
    EXPECT_EQ(loop.NextExpiryMs(), 1000);
    const uint64_t passes = loop.Passes();
    ASSERT_TRUE(RunTo(row.expiry));
    EXPECT_EQ(loop.Passes(), passes + 1);
    // The handler arms the next cycle a whole interval on, whatever the first delay was.
    EXPECT_EQ(loop.NextExpiryMs(), static_cast<long long>(kInterval) * 1000);
  }
}
