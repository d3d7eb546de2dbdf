// How the feedback service behaves, loaded with dlopen as a host loads it: how often its loop wakes over
// months of idle simulated time, how long a simulated year of feedback cycles takes in real time, and how long
// a host waits for StopPhoneHome to return and for the thread in StartPhoneHome to come back, from an idle loop
// and from a post that the server holds. bench/README.md says how to read the figures.
#include <dlfcn.h>

#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <thread>

#include "AppLog.h"
#include "BuildConfig.h"
#include "RuntimeConfig.h"
#include "TlsTestEnv.h"
#include "Clock.h"
#include "ExecutionContext.h"
#include "IPhoneHomePlugin.h"
#include "IPhoneHomePluginCB.h"
#include "Plugin.h"

namespace {

using SteadyClock = std::chrono::steady_clock;
constexpr uint32_t kStart = 1700000000;
constexpr uint32_t kDay = 86400;
const std::filesystem::path kFeedbackDir = std::filesystem::path(OVF_INSTALL_ROOT) / "CustomerExperienceFeedback";

class HostCallback : public IPhoneHomePluginCB {
 public:
  long GetSettingsCB(IBencodeSettings*) override { return 0; }
};

struct Plugin {
  Plugin() : handle(dlopen(OVF_PLUGIN_PATH, RTLD_NOW | RTLD_LOCAL)) {
    if (handle == nullptr) return;
    create = reinterpret_cast<PFN_CreatePlugin>(dlsym(handle, "CreatePlugin"));
    dispose = reinterpret_cast<PFN_DisposePlugin>(dlsym(handle, "DisposePlugin"));
  }
  ~Plugin() {
    if (handle != nullptr) dlclose(handle);
  }
  void* handle;
  PFN_CreatePlugin create = nullptr;
  PFN_DisposePlugin dispose = nullptr;
};

Plugin& Loaded() {
  static Plugin plugin;
  return plugin;
}

// One service, started on its own host thread; the loop's context stays referenced so its event list can be
// read after the agent is gone.
class RunningService {
 public:
  RunningService() {
    std::filesystem::remove_all(kFeedbackDir);
    m_service = static_cast<IPhoneHomePlugin*>(Loaded().create("com.velmar.orvane.service.customer.feedback"));
    if (m_service == nullptr) return;
    m_service->SetPhoneHomePluginCB(&m_host);
    m_context = CExecutionContext::acquireInstance(3);
    m_thread = std::thread([this] {
      m_service->StartPhoneHome();
      m_returned = SteadyClock::now();
    });
  }
  ~RunningService() {
    if (m_thread.joinable()) {
      m_service->StopPhoneHome();
      m_thread.join();
    }
    if (m_service != nullptr) Loaded().dispose(m_service);
    if (m_context != nullptr) m_context->release();
  }
  bool Ok() const { return m_service != nullptr && m_context != nullptr; }
  // Stops the service; how long StopPhoneHome took and how long until StartPhoneHome had returned.
  void Stop(double& stopSeconds, double& returnSeconds) {
    const auto begin = SteadyClock::now();
    m_service->StopPhoneHome();
    const auto stopped = SteadyClock::now();
    m_thread.join();
    stopSeconds = std::chrono::duration<double>(stopped - begin).count();
    returnSeconds = std::chrono::duration<double>(m_returned - begin).count();
  }
  uint64_t Passes() const { return m_context->GetEventList()->GetWaitCount(); }

 private:
  HostCallback m_host;
  IPhoneHomePlugin* m_service = nullptr;
  CExecutionContext* m_context = nullptr;
  std::thread m_thread;
  SteadyClock::time_point m_returned;  // written by the host thread, read after it is joined
};

// Passes of the loop over `days` idle simulated days after a fresh start: the starter, then only the feedback
// timer. A loop that wakes only for its timers passes once per expiry, plus the wait it is parked in.
// Real times of one stop from another thread: StopPhoneHome's own return, and the host thread's StartPhoneHome.
struct StopTimes {
  template <typename ServiceT>
  void Measure(ServiceT& service, benchmark::State& state) {
    double stopSeconds = 0, returnSeconds = 0;
    service.Stop(stopSeconds, returnSeconds);
    state.SetIterationTime(returnSeconds);
    stopTotal += stopSeconds;
    returnTotal += returnSeconds;
    if (returnSeconds > returnMax) returnMax = returnSeconds;
  }
  void Report(benchmark::State& state) const {
    const double n = static_cast<double>(state.iterations());
    state.counters["stop_call_us"] = n > 0 ? stopTotal / n * 1e6 : 0;
    state.counters["start_returns_us"] = n > 0 ? returnTotal / n * 1e6 : 0;
    state.counters["start_returns_max_us"] = returnMax * 1e6;
  }
  double stopTotal = 0, returnTotal = 0, returnMax = 0;
};

void IdleLoopPasses(benchmark::State& state) {
  const uint32_t days = static_cast<uint32_t>(state.range(0));
  uint64_t passes = 0;
  for (auto _ : state) {
    TlsTestEnv receiver;  // takes each cycle's post, so no retry wakes the loop
    SuiteClock::UseSimulated(kStart);
    SuiteClock::HoldAt(kStart + days * kDay);
    RunningService service;
    if (!service.Ok() || !SuiteClock::WaitUntilParked(std::chrono::minutes(5))) {
      state.SkipWithError("the service did not reach the hold");
      break;
    }
    passes = service.Passes();
  }
  SuiteClock::UseRealTime();
  state.counters["loop_passes"] = static_cast<double>(passes);
  state.counters["passes_per_day"] = static_cast<double>(passes) / days;
}

// Real time for StopPhoneHome to return and for StartPhoneHome to come back, from a loop idle in its wait:
// parked at a hold on the simulated clock (arg 0), or waiting out the starter's five minutes on the real
// clock (arg 1).
void StopFromIdle(benchmark::State& state) {
  const bool realClock = state.range(0) == 1;
  StopTimes times;
  for (auto _ : state) {
    if (realClock) {
      SuiteClock::UseRealTime();
    } else {
      SuiteClock::UseSimulated(kStart);
      SuiteClock::HoldAt(kStart + 60);
    }
    RunningService service;
    if (!service.Ok()) {
      state.SkipWithError("no service");
      break;
    }
    if (realClock) {
      // Nothing parks on the real clock; give the loop ample time to reach its wait.
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    } else if (!SuiteClock::WaitUntilParked(std::chrono::minutes(1))) {
      state.SkipWithError("the service did not reach the hold");
      break;
    }
    times.Measure(service, state);
  }
  SuiteClock::UseRealTime();
  times.Report(state);
}

// Real time for a year of the schedule after a fresh start: the starter, then 12 feedback cycles 30 days apart,
// each writing its feedback file and posting it. Arg 0: to the receiver over TLS, each post a connection and
// handshake of its own. Arg 1: the feedback hosts lead to a local port where nothing listens, so every post
// fails at connect and no TLS work is done at all; the schedule then also runs each cycle's four retry passes.
void SimulatedYear(benchmark::State& state) {
  const bool withTls = state.range(0) == 0;
  const uint32_t lastCycle = kStart + 600 + 11 * 30 * kDay;
  size_t posts = 0;
  for (auto _ : state) {
    TlsTestEnv receiver;
    if (!withTls) SuiteRuntime::SetConnectTo({"feedback.velmar.example:443:127.0.0.1:1",
                                              "feedback2.velmar.example:443:127.0.0.1:1"});
    SuiteClock::UseSimulated(kStart);
    SuiteClock::HoldAt(lastCycle + 3 * kDay);
    const auto begin = SteadyClock::now();
    RunningService service;
    if (!service.Ok() || !SuiteClock::WaitUntilParked(std::chrono::minutes(5))) {
      state.SkipWithError("the service did not reach the hold");
      break;
    }
    state.SetIterationTime(std::chrono::duration<double>(SteadyClock::now() - begin).count());
    posts = receiver.Posts().size();
  }
  SuiteClock::UseRealTime();
  state.counters["posts_received"] = static_cast<double>(posts);
}

// StopPhoneHome while the receiver holds a post: a leftover file is posted by the starter, the receiver takes
// the connection and the handshake and then neither reads nor answers. Timed: StopPhoneHome's return (counter
// stop_call_us) and StartPhoneHome's return (the iteration time, start_returns_*).
void StopMidPost(benchmark::State& state) {
  TlsTestEnv receiver;
  std::mutex mutex;
  bool handshakeDone = false;
  CAppLog::SetSink([&](const LogRecord& record) {
    // The module logs its certificate decision, with code 0, once the server is accepted.
    if (record.failingCall == "CCertHelper::VerifyServerCertificate" && record.code == 0) {
      std::lock_guard<std::mutex> lock(mutex);
      handshakeDone = true;
    }
  });
  StopTimes times;
  for (auto _ : state) {
    SuiteClock::UseSimulated(kStart);
    SuiteClock::HoldAt(kStart + 60);
    RunningService service;
    if (!service.Ok() || !SuiteClock::WaitUntilParked(std::chrono::minutes(1))) {
      state.SkipWithError("the service did not reach the hold");
      break;
    }
    std::ofstream(kFeedbackDir / "outbound" / "feedback_data1.cef", std::ios::binary) << std::string(4096, 'x');
    receiver.Hang();
    {
      std::lock_guard<std::mutex> lock(mutex);
      handshakeDone = false;
    }
    SuiteClock::HoldAt(kStart + 300);
    const auto until = SteadyClock::now() + std::chrono::seconds(30);
    for (;;) {
      {
        std::lock_guard<std::mutex> lock(mutex);
        if (handshakeDone) break;
      }
      if (SteadyClock::now() > until) break;
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    // Give the request time to be sent and held by the receiver.
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    times.Measure(service, state);
    receiver.ResetBehaviour();
  }
  CAppLog::SetSink([](const LogRecord&) {});
  SuiteClock::UseRealTime();
  times.Report(state);
}

BENCHMARK(IdleLoopPasses)->Arg(90)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(StopFromIdle)->Arg(0)->Arg(1)->Iterations(50)->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(SimulatedYear)->Arg(0)->Arg(1)->Iterations(3)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(StopMidPost)->Iterations(10)->UseManualTime()->Unit(benchmark::kMicrosecond);

}  // namespace

int main(int argc, char** argv) {
  // The service writes its feedback tree below the install root; only a build whose root lies in its own tree
  // (the test preset) may be used for that.
  if (std::strncmp(OVF_INSTALL_ROOT, "/opt/", 5) == 0) {
    std::fprintf(stderr, "bench_agent: built with the production install root %s; use a test-preset build\n",
                 OVF_INSTALL_ROOT);
    return 2;
  }
  if (Loaded().create == nullptr || Loaded().dispose == nullptr) {
    std::fprintf(stderr, "bench_agent: cannot load %s: %s\n", OVF_PLUGIN_PATH, dlerror());
    return 1;
  }
  CAppLog::SetSink([](const LogRecord&) {});  // the service's log lines are not what is measured
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  std::filesystem::remove_all(kFeedbackDir);
  return 0;
}
