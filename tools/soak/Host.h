// The soak's host side: the plug-in loaded with dlopen, the feedback service run by StartPhoneHome on a host
// thread and stopped from another, the settings callback answering for the suite's modules, and the log sink
// that keeps what the soak reads from the records.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <future>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "AppLog.h"
#include "IPhoneHomePlugin.h"
#include "IPhoneHomePluginCB.h"
#include "Plugin.h"

class CExecutionContext;

namespace soak {

// The shared library and its entry points, found by their plain names.
class PluginLibrary {
 public:
  explicit PluginLibrary(const std::string& path);
  ~PluginLibrary();
  PluginLibrary(const PluginLibrary&) = delete;
  PluginLibrary& operator=(const PluginLibrary&) = delete;
  // Empty when loaded, else what went wrong.
  const std::string& Error() const { return m_error; }
  IPhoneHomePlugin* CreateService() const;
  void Dispose(Plugin* plugin) const { m_dispose(plugin); }

 private:
  void* m_handle = nullptr;
  PFN_CreatePlugin m_create = nullptr;
  PFN_DisposePlugin m_dispose = nullptr;
  std::string m_error;
};

// What the suite's modules hand the agent: each data file's path under its settings key, and crash-dump
// patterns under module names.
class SettingsHost : public IPhoneHomePluginCB {
 public:
  long GetSettingsCB(IBencodeSettings* settings) override;
  std::map<std::string, std::string> entries;  // written before a service starts, read on its loop thread
};

// Log records as the soak uses them: counts of chosen texts and the simulated moments at which post passes
// logged, plus the latest lines for a report of what broke.
class LogWatch {
 public:
  LogWatch();
  ~LogWatch();
  // Records whose text begins with `prefix` so far.
  uint64_t Count(const std::string& prefix) const;
  // Simulated seconds at which posting logged anything, each moment once, taken since the last call.
  std::vector<uint32_t> TakePostMoments();
  std::string Tail() const;

 private:
  void Take(const LogRecord& record);
  mutable std::mutex m_mutex;
  std::map<std::string, uint64_t> m_counts;
  std::vector<uint32_t> m_postMoments;
  std::deque<std::string> m_tail;
};

// One feedback service object and the host thread inside its StartPhoneHome.
class Service {
 public:
  Service(const PluginLibrary& library, SettingsHost& host);
  // Stops (if needed) and disposes.
  ~Service();
  Service(const Service&) = delete;
  Service& operator=(const Service&) = delete;
  bool Ok() const { return m_service != nullptr; }
  void Start();
  // Whether StartPhoneHome has returned.
  bool Returned() const;
  // StopPhoneHome, then waits for StartPhoneHome's return; the real time each took. False when it had not
  // returned `bound` after the stop (the thread is then waited for without a bound).
  bool Stop(std::chrono::milliseconds bound, double& stopSeconds, double& returnSeconds);

 private:
  const PluginLibrary& m_library;
  IPhoneHomePlugin* m_service;
  std::future<long> m_result;
};

// Execution context 3 as a host watches it; holding it keeps the pass count across service objects.
class LoopView {
 public:
  LoopView();
  ~LoopView();
  // Milliseconds to the earliest armed timer, or -1 when none is armed.
  long long NextExpiryMs() const;
  uint64_t Passes() const;

 private:
  CExecutionContext* m_context;
};

}  // namespace soak
