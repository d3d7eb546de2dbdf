// The agent's lifecycle: construction, initialisation of its directory tree and state, the loop, stop.
#include "PhoneHome/PhoneHomeAgent.h"

#include <cstdio>
#include <sstream>

#include "AppLog.h"
#include "BuildConfig.h"
#include "Directory.h"
#include "EventCodes.h"
#include "ExecutionContext.h"
#include "InstanceSmartPtr.h"
#include "PhoneHome/FileUploader.h"
#include "PhoneHome/PhoneHomePluginImp.h"
#include "UniqueFd.h"

namespace {

const char kUnit[] = "PhoneHomeAgent";
const int kExecutionContextId = 3;
const unsigned long kWakeupEventId = 1;
const unsigned int kStarterDelayMs = 300000;
// A day's seconds used as milliseconds when the timer list cannot say how long to wait; kept as it always was.
const unsigned int kDefaultEventWaitMs = 86400;

// An unsigned decimal that must fill the whole text, as a stream reads it.
bool ParseWholeUnsigned(const std::string& text, unsigned int& value) {
  std::istringstream in(text);
  unsigned int parsed = 0;
  in >> parsed;
  if (in.fail() || !in.eof()) return false;
  value = parsed;
  return true;
}

}  // namespace

CPhoneHomeAgent::CPhoneHomeAgent(long& err, CPhoneHomePlugin& owner)
    : owner(owner), serverUrl(OVF_PRIMARY_URL), customerId(OVF_BUILD_LABEL) {
  err = CExecutionContext::CreateMultitonInstance(executionContext, kExecutionContextId);
  if (err != 0) {
    executionContext = nullptr;
    CAppLog::LogReturnCode(__FUNCTION__, kUnit, __LINE__, APPLOG_ERROR, "CExecutionContext::CreateMultitonInstance",
                           err);
    return;
  }
  wakeupEvent = new CCEvent(err, executionContext->GetEventList(), EVENT_TYPE_AUTO_RESET, this, nullptr,
                            kWakeupEventId, 0, EVENT_HANDLE_NONE, nullptr);
  if (err != 0) {
    CAppLog::LogReturnCode(__FUNCTION__, kUnit, __LINE__, APPLOG_ERROR, "CCEvent", err,
                           "wakeup event handler creation failed");
    return;
  }
  if (customerId.empty()) customerId = "Unofficial";
  err = 0;
}

CPhoneHomeAgent::~CPhoneHomeAgent() {
  try {
    SaveHistoryFile();
  } catch (...) {
    // Out of memory while formatting a line: the history keeps what it held before, as for a failed write.
  }
  {
    std::lock_guard<std::mutex> guard(uploaderGuard);
    delete uploader;
    uploader = nullptr;
  }
  delete retryTimer;
  delete crashTimer;
  delete feedbackTimer;
  delete starterTimer;
  delete wakeupEvent;
  if (executionContext != nullptr) executionContext->release();
}

bool CPhoneHomeAgent::InitPhoneHomeAgent() {
  baseDir = std::string(OVF_INSTALL_ROOT) + "/" + "CustomerExperienceFeedback" + "/";
  outboundDir = baseDir + "outbound" + "/";
  const std::string moduleDataDir = baseDir + "moduledata" + "/";
  historyFile = baseDir + "history";
  configFile = baseDir + "config";
  profileFile = baseDir + "CustomerExperience_Feedback.xml";

  for (const std::string& dir : {moduleDataDir, baseDir, outboundDir}) {
    if (!MakeSureDirectoryPathExists(dir)) {
      CAppLog::LogDebugMessage(__FUNCTION__, kUnit, __LINE__, APPLOG_ERROR, "Failed to create %s Directory",
                               dir.c_str());
      return false;
    }
  }

  LoadSettingsFromXmlFile();
  LoadSettingsFromConfigFile();

  if (!GetMachineID(machineId)) {
    SHA1Hash("DefaultMachineID", machineId);
    CAppLog::LogDebugMessage(__FUNCTION__, kUnit, __LINE__, APPLOG_WARNING,
                             "Unable to retrieve machineID, using default: %s", machineId.c_str());
  }
  if (!GetUDID(udid)) {
    udid = "Unknown";
    CAppLog::LogDebugMessage(__FUNCTION__, kUnit, __LINE__, APPLOG_WARNING, "Unable to retrieve UDID");
  }

  const std::string statusFile = moduleDataDir + CPhoneHomeUtility::GetPhoneHomeStatusFileName();
  if (serviceDisabled) {
    UniqueFd marker(OpenCloexec(statusFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644));
    if (!marker.Valid()) {
      CAppLog::LogDebugMessage(__FUNCTION__, kUnit, __LINE__, APPLOG_ERROR, "Failed to create phoneHome status file");
      return false;
    }
    return true;
  }
  // Inverted on purpose, as the module has always behaved: a start that deletes a marker left by a disabled run
  // fails once; the next start (with a new agent) goes on.
  if (remove(statusFile.c_str()) == 0) {
    CAppLog::LogDebugMessage(__FUNCTION__, kUnit, __LINE__, APPLOG_ERROR, "Failed to remove phoneHome status file");
    return false;
  }

  LoadFileToMap(historyFile, history);
  ApplyHistory();
  return InitPhoneHomePayload();
}

void CPhoneHomeAgent::ApplyHistory() {
  auto found = history.find("last_sequence_number");
  if (found != history.end()) {
    unsigned int value = 0;
    if (ParseWholeUnsigned(found->second, value) && value <= 99) {
      sequenceNumber = value;
    } else {
      CAppLog::LogDebugMessage(__FUNCTION__, kUnit, __LINE__, APPLOG_ERROR,
                               "Illegal sequence number, using default value (%d)", static_cast<int>(sequenceNumber));
    }
  }
  // Absent means empty here, which never parses: a history without "last_post" reports it on every start.
  if (!ParseWholeUnsigned(history["last_post"], lastReportedTime)) {
    CAppLog::LogDebugMessage(__FUNCTION__, kUnit, __LINE__, APPLOG_ERROR,
                             "Illegal last reported time, using default value (%d)",
                             static_cast<int>(lastReportedTime));
  }

  CAppLog::LogMessage(MSG_PHONEHOME_STARTED, serviceDisabled ? "Disabled" : "Enabled", machineId.c_str(),
                      customerId.c_str(), serverUrl.c_str(), includeCrashReport ? "Yes" : "No", crashCheckInterval,
                      feedbackInterval, sequenceNumber);

  auto version = history.find("last_version_number");
  if (version != history.end() && !version->second.empty() && version->second != OVF_BUILD_VERSION) {
    history.clear();
    CAppLog::LogDebugMessage(__FUNCTION__, kUnit, __LINE__, APPLOG_WARNING,
                             "Orvane version changed, current version is %s.", OVF_BUILD_VERSION);
  }
}

bool CPhoneHomeAgent::Start() {
  if (running) {
    CAppLog::LogDebugMessage(__FUNCTION__, kUnit, __LINE__, APPLOG_WARNING,
                             "Customer Experience Feedback module is already running");
    return false;
  }
  // Cleared only when the loop ends: a failed or disabled start leaves the agent marked as running, so a
  // second Start on the same agent reports it as already running.
  running = true;
  if (!InitPhoneHomeAgent()) {
    CAppLog::LogDebugMessage(__FUNCTION__, kUnit, __LINE__, APPLOG_WARNING, "PhoneHomeAgent initialization failed");
    return false;
  }
  if (serviceDisabled) {
    CAppLog::LogDebugMessage(__FUNCTION__, kUnit, __LINE__, APPLOG_WARNING,
                             "Customer Experience Feedback module is disabled");
    return true;
  }
  CAppLog::LogDebugMessage(__FUNCTION__, kUnit, __LINE__, APPLOG_INFO, "Starting Customer Experience Feedback module");

  CInstanceSmartPtr<CExecutionContext> context(kExecutionContextId);
  if (!context) {
    CAppLog::LogReturnCode(__FUNCTION__, kUnit, __LINE__, APPLOG_ERROR, "CInstanceSmartPtr<CExecutionContext>",
                           EXECCTX_E_NO_INSTANCE);
    return false;
  }
  const unsigned int feedbackMs = CalcRemainingSeconds("last_feedback", feedbackInterval) * 1000;
  if (!CreateTimer(feedbackTimer, *context.get(), 3, "Phone Home", &feedbackMs)) return false;
  if (includeCrashReport) {
    const unsigned int crashMs = CalcRemainingSeconds("last_crash_report", crashCheckInterval) * 1000;
    if (!CreateTimer(crashTimer, *context.get(), 4, "Check Crash", &crashMs)) return false;
  }
  if (!CreateTimer(retryTimer, *context.get(), 5, "Post Retry", nullptr)) return false;
  if (!CreateTimer(starterTimer, *context.get(), 2, "Phone Home starter", &kStarterDelayMs)) return false;

  bool result = RunLoop(*context.get());
  CAppLog::LogDebugMessage(__FUNCTION__, kUnit, __LINE__, APPLOG_INFO, "Customer Experience Feedback module stopped");
  running = false;
  return result;
}

bool CPhoneHomeAgent::CreateTimer(CTimer*& timer, CExecutionContext& context, unsigned long timerId,
                                  const char* name, const unsigned int* ms) {
  long err = 0;
  delete timer;  // a timer of an earlier start on the same agent
  timer = new CTimer(err, context.GetTimerList(), this, nullptr, timerId);
  if (err != 0) {
    CAppLog::LogReturnCode(__FUNCTION__, kUnit, __LINE__, APPLOG_ERROR, "CTimer", err, "%s", name);
    return false;
  }
  if (ms == nullptr) return true;
  err = timer->StartTimer(*ms);
  if (err != 0) {
    CAppLog::LogReturnCode(__FUNCTION__, kUnit, __LINE__, APPLOG_ERROR, "CTimer::StartTimer", err, "%s", name);
    return false;
  }
  return true;
}

bool CPhoneHomeAgent::RunLoop(CExecutionContext& context) {
  CTimerList* timers = context.GetTimerList();
  CEventList* events = context.GetEventList();
  for (;;) {
    unsigned int waitMs = 0;
    long rc = timers->TimeToExpired(waitMs);
    if (rc != 0) {
      CAppLog::LogReturnCode(__FUNCTION__, kUnit, __LINE__, APPLOG_WARNING, "CTimerList::TimeToExpired", rc,
                             "Defaulting to %d ms event wait", static_cast<int>(kDefaultEventWaitMs));
      waitMs = kDefaultEventWaitMs;
    }
    rc = events->WaitOnEvents(waitMs, true);
    if (rc != 0 && rc != EVT_E_TIMEOUT) {
      CAppLog::LogReturnCode(__FUNCTION__, kUnit, __LINE__, APPLOG_ERROR, "CEventList::WaitOnEvents", rc);
      return false;
    }
    rc = timers->CheckExpired();
    if (rc != 0) {
      CAppLog::LogReturnCode(__FUNCTION__, kUnit, __LINE__, APPLOG_ERROR, "CTimerList::CheckExpired", rc);
      return false;
    }
    if (stopRequested) return true;
  }
}

bool CPhoneHomeAgent::Stop() {
  if (!running) return false;
  {
    // The loop thread creates and deletes the uploader under the same guard, so this one is still alive.
    std::lock_guard<std::mutex> guard(uploaderGuard);
    if (uploader != nullptr) uploader->TerminateSession();
    // Set under the guard too: a post that makes its uploader after this reads the flag there and never
    // starts, and one made before was aborted just now.
    stopRequested = true;
  }
  CAppLog::LogDebugMessage(__FUNCTION__, kUnit, __LINE__, APPLOG_INFO, "Send stop event to PhoneHome agent");
  if (wakeupEvent == nullptr || wakeupEvent->SetEvent(false) != 0) {
    CAppLog::LogDebugMessage(__FUNCTION__, kUnit, __LINE__, APPLOG_ERROR, "SetEvent Failed");
    return false;
  }
  return true;
}

void CPhoneHomeAgent::OnEventSignaled(void* /*context*/, unsigned long eventId) {
  // The wake-up event only ends the wait; the loop reads stopRequested itself.
  if (eventId == kWakeupEventId) return;
  CAppLog::LogDebugMessage(__FUNCTION__, kUnit, __LINE__, APPLOG_ERROR, "Unexpected event");
}
