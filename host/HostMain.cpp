// ovfeedback-host: the reference host of the feedback module. Options, logging, signals and the service's run.
#include <limits.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>
#include <thread>
#include <vector>

#include "AppLog.h"
#include "Clock.h"
#include "HostPlugin.h"
#include "HostSettings.h"
#include "IComponentStatus.h"
#include "IPhoneHomePlugin.h"
#include "RuntimeConfig.h"

namespace {

constexpr const char* kUnit = "HostMain";
constexpr const char* kIdent = "ovfeedback-host";

// Exit status, documented in host/README.md.
constexpr int kExitOk = 0;
constexpr int kExitInternal = 1;
constexpr int kExitUsage = 2;
constexpr int kExitSettings = 3;
constexpr int kExitPlugin = 4;
constexpr int kExitService = 5;

// Sent by the service's thread to the main thread when StartPhoneHome has returned.
constexpr int kServiceEndedSignal = SIGUSR1;

struct Options {
  std::string plugin;
  std::string settings;
  std::string log = "stderr";
  std::string logLevel = "info";
  std::string caFile;
  std::vector<std::string> connectTo;
  double clockScale = 1.0;
  bool status = false;
};

bool g_syslog = false;

// A fatal problem: one line on standard error, and in syslog too when the log goes there.
int Fail(int status, const std::string& message) {
  fprintf(stderr, "%s: %s\n", kIdent, message.c_str());
  if (g_syslog) CAppLog::LogDebugMessage("main", kUnit, __LINE__, APPLOG_ERROR, "%s", message.c_str());
  return status;
}

std::string ExecutableDir() {
  char path[PATH_MAX];
  const ssize_t n = readlink("/proc/self/exe", path, sizeof path - 1);
  if (n <= 0) return ".";
  const std::string exe(path, static_cast<size_t>(n));
  const size_t slash = exe.rfind('/');
  return slash == std::string::npos ? "." : exe.substr(0, slash);
}

// Where the build tree and an installation put the plug-in, relative to this executable.
std::string DefaultPlugin() {
  const std::string dir = ExecutableDir();
  const std::string installed = dir + "/" OVF_HOST_LIBDIR_FROM_BINDIR "/libovfeedback.so";
  if (access(installed.c_str(), F_OK) == 0) return installed;
  return dir + "/../lib/libovfeedback.so";
}

// Returns -1 when the host should go on, otherwise the exit status.
int ParseOptions(int argc, char** argv, Options& options) {
  CLI::App app("Runs the Customer Experience Feedback service as the suite's service process does: loads the "
               "plug-in, answers its settings query from the settings file, and stops it on SIGTERM or SIGINT.",
               kIdent);
  app.add_option("--plugin", options.plugin,
                 "The plug-in to load (default: ../lib/libovfeedback.so beside this executable)")
      ->type_name("PATH");
  app.add_option("--settings", options.settings,
                 "JSON settings file: module data files, crash-dump patterns, further settings (see README)")
      ->type_name("FILE");
  app.add_option("--log", options.log, "Where log records go: stderr (default) or syslog")
      ->check(CLI::IsMember({"stderr", "syslog"}))
      ->type_name("WHERE");
  app.add_option("--log-level", options.logLevel, "Least importance logged: error, warning, info (default), debug")
      ->check(CLI::IsMember({"error", "warning", "info", "debug"}))
      ->type_name("LEVEL");
  app.add_option("--ca-file", options.caFile,
                 "PEM file of CA certificates trusted instead of the system store for the feedback servers")
      ->type_name("FILE")
      ->check([](const std::string& path) {
        return access(path.c_str(), R_OK) == 0 ? std::string() : "cannot read " + path + ": " + strerror(errno);
      });
  app.add_option("--connect-to", options.connectTo,
                 "HOST:PORT:ADDR:PORT: connect to ADDR:PORT for HOST:PORT, keeping HOST for TLS; repeatable")
      ->type_name("HOST:PORT:ADDR:PORT")
      ->expected(1)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
      ->check([](const std::string& entry) {
        return std::count(entry.begin(), entry.end(), ':') >= 3 ? std::string()
                                                                : "expected HOST:PORT:ADDR:PORT, got " + entry;
      });
  app.add_option("--clock-scale", options.clockScale,
                 "Run the service's clock N times faster than real time (N > 0; default 1)")
      ->type_name("N")
      ->check([](const std::string& text) {
        char* end = nullptr;
        const double factor = strtod(text.c_str(), &end);
        return end != text.c_str() && *end == '\0' && std::isfinite(factor) && factor > 0
                   ? std::string()
                   : "expected a finite number above 0, got " + text;
      });
  app.add_flag("--status", options.status,
               "Print the component's display name and whether the administrator profile enables it, and exit");
  app.footer("Exit status: 0 stopped by a signal, disabled by the profile, or --status done; 1 internal failure; "
             "2 wrong command line; 3 bad settings file; 4 plug-in not loadable; 5 the service failed.");
  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    return Fail(kExitUsage, std::string(e.what()) + " (see --help)");
  }
  if (options.plugin.empty()) options.plugin = DefaultPlugin();
  return -1;
}

void ConfigureLog(const Options& options) {
  const int level = options.logLevel == "error"     ? APPLOG_ERROR
                    : options.logLevel == "warning" ? APPLOG_WARNING
                    : options.logLevel == "debug"   ? APPLOG_DEBUG
                                                    : APPLOG_INFO;
  CAppLog::SetMinimumImportance(level);
  if (options.log == "syslog") {
    CAppLog::UseSyslog(kIdent);
    g_syslog = true;
  }
}

int ShowStatus(const Options& options) {
  CHostPlugin plugin;
  std::string problem;
  if (!plugin.Load(options.plugin, problem)) return Fail(kExitPlugin, problem);
  IComponentStatus* status = plugin.CreateStatus();
  if (status == nullptr) return Fail(kExitPlugin, "the plug-in could not create its component status");
  const bool shown = PrintComponentStatus(*status);
  plugin.Dispose(status);
  return shown ? kExitOk : kExitService;
}

// The next of `waited`, or 0 when `timeoutMs` (negative: none) passes first.
int NextSignal(const sigset_t& waited, long timeoutMs) {
  for (;;) {
    int received = 0;
    if (timeoutMs < 0) {
      if (sigwait(&waited, &received) == 0) return received;
      continue;
    }
    const timespec wait = {timeoutMs / 1000, (timeoutMs % 1000) * 1000000};
    received = sigtimedwait(&waited, nullptr, &wait);
    if (received > 0) return received;
    if (errno == EAGAIN) return 0;
  }
}

// Runs the service until a stop signal or its own end. Returns the exit status.
int RunService(IPhoneHomePlugin& service, IComponentStatus& status, const sigset_t& waited) {
  std::atomic<bool> ended{false};
  long result = 0;
  const pthread_t mainThread = pthread_self();
  std::thread worker([&] {
    result = service.StartPhoneHome();
    ended = true;
    pthread_kill(mainThread, kServiceEndedSignal);
  });

  bool stopping = false;
  while (!ended) {
    // A stop that lands before the agent has marked itself running is not taken, so it is repeated each second
    // until the service has ended. The stop itself reaches a post in any phase, a hung upload included.
    const int received = NextSignal(waited, stopping ? 1000 : -1);
    if (received == SIGTERM || received == SIGINT) {
      if (!stopping) {
        CAppLog::LogDebugMessage(__FUNCTION__, kUnit, __LINE__, APPLOG_INFO, "Stopping the service on %s",
                                 received == SIGTERM ? "SIGTERM" : "SIGINT");
      }
      stopping = true;
      service.StopPhoneHome();
    } else if (received == 0 && stopping && !ended) {
      service.StopPhoneHome();
    }
  }
  worker.join();

  if (result != 0) {
    CAppLog::LogReturnCode(__FUNCTION__, kUnit, __LINE__, APPLOG_ERROR, "IPhoneHomePlugin::StartPhoneHome", result);
    return kExitService;
  }
  if (stopping) {
    CAppLog::LogDebugMessage(__FUNCTION__, kUnit, __LINE__, APPLOG_INFO, "The service stopped");
    return kExitOk;
  }
  bool enabled = true;
  status.IsEnabled(enabled);
  if (!enabled) {
    CAppLog::LogDebugMessage(__FUNCTION__, kUnit, __LINE__, APPLOG_INFO,
                             "The administrator profile disables the service; nothing to run");
    return kExitOk;
  }
  CAppLog::LogDebugMessage(__FUNCTION__, kUnit, __LINE__, APPLOG_ERROR,
                           "The service ended without being asked to; see the log above");
  return kExitService;
}

int Serve(const Options& options, const CHostSettings& settings, const sigset_t& waited) {
  SuiteRuntime::SetTrustedCAFile(options.caFile);
  SuiteRuntime::SetConnectTo(options.connectTo);
  // Before the service arms a timer: armed timers keep their deadlines across a change of clock.
  if (options.clockScale != 1.0 && !SuiteClock::UseScaled(options.clockScale)) {
    return Fail(kExitUsage, "--clock-scale: the runtime refuses " + std::to_string(options.clockScale));
  }

  CHostPlugin plugin;
  std::string problem;
  if (!plugin.Load(options.plugin, problem)) return Fail(kExitPlugin, problem);
  IComponentStatus* status = plugin.CreateStatus();
  IPhoneHomePlugin* service = status != nullptr ? plugin.CreateService() : nullptr;
  if (service == nullptr) {
    plugin.Dispose(status);
    return Fail(kExitPlugin, "the plug-in could not create its feedback service and component status");
  }

  CHostCallback callback(settings);
  int exitStatus = kExitService;
  const long rc = service->SetPhoneHomePluginCB(&callback);
  if (rc != 0) {
    CAppLog::LogReturnCode(__FUNCTION__, kUnit, __LINE__, APPLOG_ERROR, "IPhoneHomePlugin::SetPhoneHomePluginCB", rc);
  } else {
    exitStatus = RunService(*service, *status, waited);
    service->UnSetPhoneHomePluginCB();
  }
  plugin.Dispose(service);
  plugin.Dispose(status);
  return exitStatus;
}

}  // namespace

int main(int argc, char** argv) {
  // Blocked before any thread exists, so every thread the runtime or the plug-in starts inherits the mask and
  // the stop signals are taken only by the main thread's wait.
  sigset_t waited;
  sigemptyset(&waited);
  for (int signal : {SIGTERM, SIGINT, kServiceEndedSignal}) sigaddset(&waited, signal);
  pthread_sigmask(SIG_BLOCK, &waited, nullptr);
  // A feedback server that closes its end mid-post must cost a failed post, not the process.
  signal(SIGPIPE, SIG_IGN);

  try {
    Options options;
    const int parsed = ParseOptions(argc, argv, options);
    if (parsed >= 0) return parsed;
    ConfigureLog(options);
    if (options.status) return ShowStatus(options);

    // Checked before anything is loaded or started, so a bad file changes nothing anywhere.
    CHostSettings settings;
    std::string problem;
    if (!options.settings.empty() && !settings.Load(options.settings, problem)) {
      return Fail(kExitSettings, "settings file \"" + options.settings + "\": " + problem);
    }
    return Serve(options, settings, waited);
  } catch (const std::exception& e) {
    return Fail(kExitInternal, e.what());
  } catch (...) {
    return Fail(kExitInternal, "unexpected failure");
  }
}
