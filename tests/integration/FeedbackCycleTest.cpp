// Whole feedback cycles as a host runs them: the plug-in loaded with dlopen, its loop on the held simulated
// clock, its posts going over real TLS under the product's server names to a local receiver. One agent at a
// time (execution context 3 is process-wide), as in the lifecycle suite.
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "AppLog.h"
#include "BuildConfig.h"
#include "Clock.h"
#include "ExecutionContext.h"
#include "IBencodeSettings.h"
#include "IPhoneHomePlugin.h"
#include "IPhoneHomePluginCB.h"
#include "LogCapture.h"
#include "Plugin.h"
#include "TlsTestEnv.h"

using namespace std::chrono_literals;
namespace fs = std::filesystem;
using SteadyClock = std::chrono::steady_clock;

namespace {

constexpr uint32_t kStart = 1700000000;
constexpr uint32_t kInterval = 30 * 86400;
constexpr uint32_t kSettingsAt = kStart + 300;
constexpr uint32_t kFirstFeedbackAt = kStart + 600;
constexpr uint32_t kRetrySeconds = 1800;
constexpr auto kBound = 30s;  // real time allowed for the loop to reach a hold
const char kBothFailed[] = "Failed to post customer experence feedback data (";

const fs::path kFeedbackDir = fs::path(OVF_INSTALL_ROOT) / "CustomerExperienceFeedback";
const fs::path kOutbound = kFeedbackDir / "outbound";
const fs::path kModuleDir = kFeedbackDir / "moduledata";

// A bencoded string as it appears inside a file.
std::string B(const std::string& text) { return std::to_string(text.size()) + ":" + text; }

void WriteFile(const fs::path& path, const std::string& bytes) {
  fs::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary) << bytes;
}

std::string ReadFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

std::vector<std::string> Outbound() {
  std::vector<std::string> names;
  if (fs::exists(kOutbound)) {
    for (const auto& entry : fs::directory_iterator(kOutbound)) names.push_back(entry.path().filename());
  }
  std::sort(names.begin(), names.end());
  return names;
}

// The host's side of the settings query: every module's data-file path, as the modules would insert them.
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
  }
  ~LoadedPlugin() {
    if (handle != nullptr) dlclose(handle);
  }
  void* handle;
  PFN_CreatePlugin create = nullptr;
  PFN_DisposePlugin dispose = nullptr;
};

// One service object run by StartPhoneHome on a host thread of its own; stopped and disposed at the end.
class Service {
 public:
  Service(LoadedPlugin& plugin, HostCallback& host)
      : m_plugin(plugin),
        m_service(static_cast<IPhoneHomePlugin*>(plugin.create("com.velmar.orvane.service.customer.feedback"))) {
    if (m_service == nullptr) return;
    m_service->SetPhoneHomePluginCB(&host);
    m_thread = std::thread([this] {
      m_service->StartPhoneHome();
      m_returned = SteadyClock::now();
      m_done = true;
    });
  }
  ~Service() {
    if (m_thread.joinable()) {
      m_service->StopPhoneHome();
      m_thread.join();
    }
    if (m_service != nullptr) m_plugin.dispose(m_service);
  }
  bool Ok() const { return m_service != nullptr; }
  // The service's own answer, which a stop clears first thing.
  bool Running() const { return m_service->IsPhoneHomeRunning() == 0; }
  void Stop() {
    m_stopAt = SteadyClock::now();
    m_service->StopPhoneHome();
  }
  // Real time from Stop (or from `since`, when later) to StartPhoneHome's return, waiting for at most `bound`;
  // -1 when it did not return.
  double SecondsToReturn(std::chrono::milliseconds bound, const SteadyClock::time_point& since = {}) {
    const auto until = SteadyClock::now() + bound;
    while (!m_done && SteadyClock::now() < until) std::this_thread::sleep_for(1ms);
    if (!m_done) return -1;
    m_thread.join();
    return std::chrono::duration<double>(m_returned - std::max(m_stopAt, since)).count();
  }

 private:
  LoadedPlugin& m_plugin;
  IPhoneHomePlugin* m_service;
  std::thread m_thread;
  std::atomic<bool> m_done{false};
  SteadyClock::time_point m_stopAt, m_returned;
};

class FeedbackCycle : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_NE(m_plugin.create, nullptr) << dlerror();
    fs::remove_all(kFeedbackDir);
    SuiteClock::UseSimulated(kStart);
  }
  void TearDown() override {
    SuiteClock::UseRealTime();
    CExecutionContext* left = CExecutionContext::acquireInstance(3);
    EXPECT_EQ(left, nullptr) << "an agent outlived its test";
    if (left != nullptr) left->release();
    fs::remove_all(kFeedbackDir);
  }
  // Lets simulated time run to `moment` and waits until the loop is parked there.
  bool RunTo(uint32_t moment) { return SuiteClock::HoldAt(moment) && SuiteClock::WaitUntilParked(kBound); }
  // Records whose text begins with `prefix`.
  size_t CountStarting(const std::string& prefix) const {
    size_t count = 0;
    for (const LogRecord& record : m_log.Records()) count += record.text.rfind(prefix, 0) == 0 ? 1 : 0;
    return count;
  }

  LoadedPlugin m_plugin;
  LogCapture m_log;
  TlsTestEnv m_env;
  HostCallback m_host;
};

}  // namespace

// A fresh install: the settings query at 5 minutes, the first feedback at 10 with every module's data and the
// identity keys; the module files go, the history follows. The next cycle, 30 days on, carries what the
// rebuild rule leaves: with no DNS hash an empty ModuleData and nothing else; with one, the whole skeleton again.
TEST_F(FeedbackCycle, FreshInstallFirstAndNextCycle) {
  const std::string kModules[][2] = {
      {"AccessModule", "AccessPhoneHomeFile"},       {"WebFilterModule", "WebFilterPhoneHomeFile"},
      {"TunnelModule", "TunnelPhoneHomeFile"},       {"ResolverModule", "ResolverPhoneHomeFile"},
      {"FlowModule", "FlowPhoneHomeFile"},           {"PostureCheckModule", "PosturePhoneHomeFile"},
      {"ServiceModule", "BasePosture"},              {"ServiceModule", "ElevatedPosture"},
  };
  const std::string kIdentity[] = {"PhoneHomeFormatVersion", "OvVersion", "MachineId", "UDID", "CustomerId",
                                   "OSDetails"};
  for (const bool withDns : {false, true}) {
    SCOPED_TRACE(withDns ? "tunnel data names a DNS domain" : "no DNS domain");
    fs::remove_all(kFeedbackDir);
    SuiteClock::UseSimulated(kStart);
    const size_t postsBefore = m_env.Posts().size();
    m_host.calls = 0;
    for (const auto& module : kModules) {
      const fs::path file = kModuleDir / (module[1] + ".cef");
      std::string data = "d" + B("Source") + B(module[1]) + "e";
      if (module[0] == "TunnelModule" && withDns) {
        data = "d7:Networkd16:TrustedInterfaced9:DNSDomain11:example.orgee" + B("Source") + B(module[1]) + "e";
      }
      WriteFile(file, data);
      m_host.files[module[1]] = file.string();
    }
    {
      ASSERT_TRUE(SuiteClock::HoldAt(kStart));  // held before the loop starts
      Service service(m_plugin, m_host);
      ASSERT_TRUE(service.Ok());
      ASSERT_TRUE(RunTo(kSettingsAt)) << m_log.Dump();
      EXPECT_EQ(m_host.calls, 1);
      EXPECT_EQ(m_env.Posts().size(), postsBefore);
      ASSERT_TRUE(RunTo(kFirstFeedbackAt)) << m_log.Dump();
      std::vector<ReceivedPost> posts = m_env.Posts();
      ASSERT_EQ(posts.size(), postsBefore + 1) << m_log.Dump();
      const std::string first = posts.back().body;
      EXPECT_FALSE(posts.back().hasZip);
      for (const auto& module : kModules) {
        EXPECT_NE(first.find(B(module[0])), std::string::npos) << module[0];
        EXPECT_NE(first.find(B("Source") + B(module[1])), std::string::npos) << module[1];
        EXPECT_FALSE(fs::exists(kModuleDir / (module[1] + ".cef"))) << module[1];
      }
      for (const std::string& key : kIdentity) EXPECT_NE(first.find(B(key)), std::string::npos) << key;
      // The domain never leaves the machine; its hash joins the skeleton only when that is rebuilt.
      EXPECT_EQ(first.find("example.org"), std::string::npos);
      EXPECT_EQ(first.find(B("DNSHash")), std::string::npos);
      EXPECT_TRUE(Outbound().empty());

      ASSERT_TRUE(RunTo(kFirstFeedbackAt + kInterval)) << m_log.Dump();
      posts = m_env.Posts();
      ASSERT_EQ(posts.size(), postsBefore + 2) << m_log.Dump();
      const std::string second = posts.back().body;
      // The module files are gone, and loading a missing file makes it anew, empty: each module hands over an
      // empty dictionary.
      std::map<std::string, std::string> empty;
      for (const auto& module : kModules) empty[module[0]] += B(module[1]) + "de";
      std::string modules = B("ModuleData") + "d";
      for (const auto& [name, keys] : empty) modules += B(name) + (name == "ServiceModule" ? "d" + keys + "e" : "de");
      modules += "e";
      if (withDns) {
        for (const std::string& key : kIdentity) EXPECT_NE(second.find(B(key)), std::string::npos) << key;
        EXPECT_NE(second.find(B("DNSHash") + "20:"), std::string::npos);
        EXPECT_NE(second.find(modules), std::string::npos) << second;
      } else {
        // Nothing else: the skeleton's keys went with the first file.
        const std::string level3 = "d" + B("QualityImprovementData") + "d" + modules + "eeee";
        ASSERT_GE(second.size(), level3.size());
        EXPECT_EQ(second.substr(second.size() - level3.size()), level3) << second;
      }
      EXPECT_TRUE(Outbound().empty());
    }
    std::map<std::string, std::string> history;
    std::istringstream lines(ReadFile(kFeedbackDir / "history"));
    for (std::string line; std::getline(lines, line);) history[line.substr(0, line.find(':'))] = line.substr(line.find(':') + 1);
    EXPECT_EQ(history["last_sequence_number"], "3");
    EXPECT_EQ(history["last_feedback"], std::to_string(kFirstFeedbackAt + kInterval));
    EXPECT_EQ(history["last_post"], std::to_string(kFirstFeedbackAt + kInterval));
  }
}

// Leftovers posted by the starter, once and without retry: a primary that refuses and a secondary that takes
// the post count as posted; two refusals keep the file and arm nothing.
TEST_F(FeedbackCycle, StarterPostsLeftoversToTheSecondaryWhenThePrimaryRefuses) {
  struct Row {
    int refusals;
    bool posted;
  } rows[] = {{1, true}, {2, false}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.refusals);
    fs::remove_all(kFeedbackDir);
    SuiteClock::UseSimulated(kStart);
    m_log.Clear();
    const size_t postsBefore = m_env.Posts().size();
    WriteFile(kOutbound / "feedback_data7.cef", "d4:leftie");
    m_env.RespondStatus(503, row.refusals);
    ASSERT_TRUE(SuiteClock::HoldAt(kStart));  // held before the loop starts
    Service service(m_plugin, m_host);
    ASSERT_TRUE(RunTo(kSettingsAt)) << m_log.Dump();
    const std::vector<ReceivedPost> posts = m_env.Posts();
    ASSERT_EQ(posts.size(), postsBefore + (row.posted ? 1 : 0));
    if (row.posted) EXPECT_EQ(posts.back().body, "d4:leftie");
    EXPECT_EQ(Outbound().empty(), row.posted);
    EXPECT_EQ(m_log.Count(" File posted to PhoneHome server"), row.posted ? 1u : 0u) << m_log.Dump();
    EXPECT_EQ(CountStarting(kBothFailed) + m_log.Count("post failed, give up this time."), row.posted ? 0u : 2u);
    // Nothing but the first feedback is due: no retry was armed.
    ASSERT_TRUE(RunTo(kFirstFeedbackAt - 1));
    EXPECT_EQ(m_log.Count("post failed, give up this time."), row.posted ? 0u : 1u);
  }
}

// Both servers refusing: the cycle's attempt and four retries 1800 s apart, the file kept; the next cycle
// posts the backlog and its own file in one pass.
TEST_F(FeedbackCycle, RefusedPostsAreRetriedFourTimesThenTheNextCyclePostsTheBacklog) {
  const size_t postsBefore = m_env.Posts().size();
  m_env.RespondStatus(503, 10);  // two servers, five passes
  ASSERT_TRUE(SuiteClock::HoldAt(kStart));  // held before the loop starts
  Service service(m_plugin, m_host);
  ASSERT_TRUE(RunTo(kFirstFeedbackAt)) << m_log.Dump();
  EXPECT_EQ(CountStarting(kBothFailed), 1u) << m_log.Dump();
  for (uint32_t retry = 1; retry <= 4; ++retry) {
    const uint32_t due = kFirstFeedbackAt + retry * kRetrySeconds;
    ASSERT_TRUE(RunTo(due - 1));
    EXPECT_EQ(CountStarting(kBothFailed), retry) << "before retry " << retry;
    ASSERT_TRUE(RunTo(due));
    EXPECT_EQ(CountStarting(kBothFailed), retry + 1) << "at retry " << retry;
  }
  ASSERT_TRUE(RunTo(kFirstFeedbackAt + kInterval - 1));
  EXPECT_EQ(CountStarting(kBothFailed), 5u);
  EXPECT_EQ(m_log.Count("post failed, give up this time."), 1u);
  EXPECT_EQ(Outbound(), std::vector<std::string>{"feedback_data1.cef"});
  EXPECT_EQ(m_env.Posts().size(), postsBefore);

  ASSERT_TRUE(RunTo(kFirstFeedbackAt + kInterval)) << m_log.Dump();
  EXPECT_EQ(m_env.Posts().size(), postsBefore + 2);
  EXPECT_TRUE(Outbound().empty());
  EXPECT_EQ(m_log.Count(" File posted to PhoneHome server"), 2u);
}

// A stop during a post ends the loop promptly and leaves the file for the next start: once while the receiver
// hangs, once when the stop comes after the primary's refusal, before the secondary's uploader exists, so that
// only the check made right after an uploader is created can keep the secondary post from going out.
TEST_F(FeedbackCycle, AStopDuringAPostEndsTheLoopAndKeepsTheFile) {
  for (const bool whileHanging : {true, false}) {
    SCOPED_TRACE(whileHanging ? "receiver hangs" : "stop before the secondary's uploader");
    fs::remove_all(kFeedbackDir);
    SuiteClock::UseSimulated(kStart);
    m_log.Clear();
    const size_t postsBefore = m_env.Posts().size();
    WriteFile(kOutbound / "feedback_data3.cef", "d4:keepi1ee");
    if (whileHanging) {
      m_env.Hang();
    } else {
      m_env.RespondStatus(503);
    }
    ASSERT_TRUE(SuiteClock::HoldAt(kSettingsAt));
    double seconds = -1;
    {
      Service service(m_plugin, m_host);
      ASSERT_TRUE(service.Ok());
      if (whileHanging) {
        // The handshake is done once the certificate decision is logged; the receiver then holds the post.
        const auto until = SteadyClock::now() + kBound;
        while (m_log.FindCall("CCertHelper::VerifyServerCertificate") == nullptr && SteadyClock::now() < until) {
          std::this_thread::sleep_for(5ms);
        }
        ASSERT_NE(m_log.FindCall("CCertHelper::VerifyServerCertificate"), nullptr) << m_log.Dump();
        std::this_thread::sleep_for(200ms);
        service.Stop();
      } else {
        // The primary's refusal is logged on the loop thread, which the sink holds there while the stop is
        // made. The stop's own log line waits for the sink (the log delivers one record at a time), but by
        // then the stop has aborted the primary's uploader and set its flag, so the loop resumes with a stop
        // in force and the secondary's uploader still to be made.
        std::atomic<bool> stopped{false};
        std::thread stopper;
        SteadyClock::time_point resumed;
        LogSink capture = CAppLog::SetSink(nullptr);
        CAppLog::SetSink([&](const LogRecord& record) {
          capture(record);
          if (record.failingCall == "CFileUploader::SendHttpRequest" && !stopped.exchange(true)) {
            stopper = std::thread([&] { service.Stop(); });
            // The stop clears the running answer, then aborts and sets the flag a few instructions later.
            const auto until = SteadyClock::now() + kBound;
            while (service.Running() && SteadyClock::now() < until) std::this_thread::sleep_for(1ms);
            std::this_thread::sleep_for(100ms);
            resumed = SteadyClock::now();
          }
        });
        const auto until = SteadyClock::now() + kBound;
        while (!stopped && SteadyClock::now() < until) std::this_thread::sleep_for(5ms);
        ASSERT_TRUE(stopped) << m_log.Dump();
        seconds = service.SecondsToReturn(kBound, resumed);
        CAppLog::SetSink(capture);
        if (stopper.joinable()) stopper.join();
      }
      if (whileHanging) seconds = service.SecondsToReturn(kBound);
      ASSERT_GE(seconds, 0) << m_log.Dump();
      // A second of real time is the goal; the bound here only catches a stop that is not honoured at all.
      EXPECT_LT(seconds, 5.0);
      std::cout << "[ measured ] stop to StartPhoneHome's return: " << seconds * 1000 << " ms\n";
    }
    EXPECT_EQ(m_env.Posts().size(), postsBefore) << m_log.Dump();
    EXPECT_EQ(Outbound(), std::vector<std::string>{"feedback_data3.cef"});

    // The next start posts it.
    m_env.ResetBehaviour();
    const uint32_t now = GetCurrentTimeSeconds();
    Service next(m_plugin, m_host);
    ASSERT_TRUE(RunTo(now + 300)) << m_log.Dump();
    ASSERT_EQ(m_env.Posts().size(), postsBefore + 1);
    EXPECT_EQ(m_env.Posts().back().body, "d4:keepi1ee");
    EXPECT_TRUE(Outbound().empty());
  }
}

// A module's writer holding its file's lock through a real cycle: the pass comes back every 20 s, four times,
// then writes and posts the file without that module.
TEST_F(FeedbackCycle, LockedModuleFilesAreWaitedForFourTimesThenLeftOut) {
  m_host.files = {{"AccessPhoneHomeFile", (kModuleDir / "access.cef").string()},
                  {"FlowPhoneHomeFile", (kModuleDir / "flow.cef").string()}};
  WriteFile(kModuleDir / "access.cef", "d1:ai1ee");
  WriteFile(kModuleDir / "flow.cef", "d1:fi1ee");
  const int writer = open((kModuleDir / "flow.cef").c_str(), O_RDONLY);
  ASSERT_EQ(flock(writer, LOCK_EX), 0);
  ASSERT_TRUE(SuiteClock::HoldAt(kStart));  // before the loop starts, or simulated time runs on unheld
  Service service(m_plugin, m_host);
  for (uint32_t pass = 0; pass < 5; ++pass) {
    ASSERT_TRUE(RunTo(kFirstFeedbackAt + 20 * pass - 1)) << m_log.Dump();
    EXPECT_EQ(m_log.Count("Failed to internalize FlowModule Module data"), pass);
    ASSERT_TRUE(RunTo(kFirstFeedbackAt + 20 * pass)) << m_log.Dump();
    EXPECT_FALSE(fs::exists(kModuleDir / "access.cef"));  // taken at the first pass, waiting in the payload
    EXPECT_EQ(m_env.Posts().size(), pass == 4 ? 1u : 0u);
  }
  close(writer);
  EXPECT_EQ(m_log.Count("Failed to collect phoneHome data from all the components"), 1u) << m_log.Dump();
  const std::string body = m_env.Posts().back().body;
  EXPECT_NE(body.find("10:ModuleDatad12:AccessModuled1:ai1eee9:OSDetails"), std::string::npos) << body;
  EXPECT_TRUE(fs::exists(kModuleDir / "flow.cef"));
  ASSERT_TRUE(RunTo(kFirstFeedbackAt + kInterval - 1));  // the cycle is over: no pass before the next interval
  EXPECT_EQ(m_env.Posts().size(), 1u);
}

// The sequence number goes on across a restart through the history; a saved 100 (the number after
// feedback_data99.cef) is not taken back, so the next file is feedback_data1.cef. Posts are refused
// throughout, so the files stay to be seen.
TEST_F(FeedbackCycle, ARestartGoesOnWithTheSequenceNumberOfTheHistory) {
  const struct {
    const char *history, *first, *saved, *second;
  } rows[] = {{"", "feedback_data1.cef", "2", "feedback_data2.cef"},
              {"last_sequence_number:99\n", "feedback_data99.cef", "100", "feedback_data1.cef"}};
  m_env.RespondStatus(503, 1000);
  for (const auto& row : rows) {
    SCOPED_TRACE(row.first);
    fs::remove_all(kFeedbackDir);
    SuiteClock::UseSimulated(kStart);
    m_log.Clear();
    WriteFile(kFeedbackDir / "history", row.history);
    for (const uint32_t cycleAt : {kFirstFeedbackAt, kFirstFeedbackAt + kInterval}) {
      ASSERT_TRUE(SuiteClock::HoldAt(GetCurrentTimeSeconds()));
      Service service(m_plugin, m_host);
      ASSERT_TRUE(RunTo(cycleAt)) << m_log.Dump();
    }
    std::vector<std::string> expected = {row.first, row.second};
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(Outbound(), expected);
    EXPECT_EQ(m_log.Count("Illegal sequence number, using default value (1)"), *row.history ? 1u : 0u);
  }
}
