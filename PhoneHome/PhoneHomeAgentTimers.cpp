// The agent's schedule: which timer expired, and how long the first feedback waits after a start.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "AppLog.h"
#include "Clock.h"
#include "IPhoneHomePluginCB.h"
#include "PhoneHome/BencodeSettings.h"
#include "PhoneHome/PhoneHomeAgent.h"
#include "PhoneHome/PhoneHomePluginImp.h"
#include "SystemCodes.h"

namespace {

const char kUnit[] = "PhoneHomeAgent";
// The first run after a start never comes sooner than this, however little of the interval is left.
const int32_t kMinimumFirstDelaySeconds = 600;
const unsigned int kRetrySeconds = 1800;

enum : unsigned long {
  kStarterTimerId = 2,
  kFeedbackTimerId = 3,
  kCrashTimerId = 4,
  kRetryTimerId = 5,
};

}  // namespace

void CPhoneHomeAgent::OnTimerExpired(void* /*context*/, unsigned long timerId) {
  switch (timerId) {
    case kFeedbackTimerId:
      OnFeedbackTimer();
      break;
    case kCrashTimerId:
      CheckCrashDumps();
      RearmTimer(crashTimer, crashCheckInterval);
      break;
    case kStarterTimerId:
      OnStarterTimer();
      break;
    case kRetryTimerId: {
      // Each expiry spends one unit and may arm the next retry; with none left, a last attempt that arms
      // nothing. A server that keeps failing thus sees the first attempt and four retries.
      unsigned int nextRetrySeconds = 0;
      if (retryCount > 0) {
        --retryCount;
        nextRetrySeconds = kRetrySeconds;
      }
      if (!ScanAndPostFile(nextRetrySeconds)) {
        CAppLog::LogDebugMessage(__FUNCTION__, kUnit, __LINE__, APPLOG_ERROR, "ScanAndPostFile failed");
      }
      break;
    }
    default:
      CAppLog::LogDebugMessage(__FUNCTION__, kUnit, __LINE__, APPLOG_ERROR, "Unexpected timer");
      break;
  }
}

void CPhoneHomeAgent::OnStarterTimer() {
  // The host's modules name their data files and dump patterns through this view of the agent's dictionary.
  CBencodeSettings settings(moduleSettings);
  IPhoneHomePluginCB* callback = owner.GetPhoneHomePluginCB();
  long rc = SYS_E_INVALIDARG;  // a host that unset its callback has no settings to give
  if (callback != nullptr) {
    try {
      rc = callback->GetSettingsCB(&settings);
    } catch (...) {
      rc = SYS_E_SYSTEM;
    }
  }
  if (rc != 0) {
    CAppLog::LogReturnCode("OnTimerExpired", kUnit, __LINE__, APPLOG_ERROR, "GetSettingsCB", rc,
                           "Failed to retrieve PhoneHome settings from modules");
  }
  // Leftovers of an earlier run go once; a failure waits for the next cycle rather than a retry.
  if (!ScanAndPostFile(0)) {
    CAppLog::LogDebugMessage("OnTimerExpired", kUnit, __LINE__, APPLOG_ERROR, "ScanAndPostFile failed");
  }
}

void CPhoneHomeAgent::OnFeedbackTimer() {
  if (moduleFiles.empty()) {
    // Rows in this order; only the service module hands over two files.
    static const std::pair<const char*, std::vector<std::string>> kModules[] = {
        {"AccessModule", {"AccessPhoneHomeFile"}},
        {"WebFilterModule", {"WebFilterPhoneHomeFile"}},
        {"TunnelModule", {"TunnelPhoneHomeFile"}},
        {"ResolverModule", {"ResolverPhoneHomeFile"}},
        {"FlowModule", {"FlowPhoneHomeFile"}},
        {"PostureCheckModule", {"PosturePhoneHomeFile"}},
        {"ServiceModule", {"BasePosture", "ElevatedPosture"}},
    };
    for (const auto& row : kModules) moduleFiles[row.first] = row.second;
    collectAttempts = 4;
  }
  // The skeleton is rebuilt only while a DNS hash is known; this coupling is deliberate.
  if (!dnsHash.empty()) InitPhoneHomePayload();
  bool waiting = false;
  if (!CollectPhoneHomeDataAndSend(waiting)) {
    CAppLog::LogDebugMessage("OnTimerExpired", kUnit, __LINE__, APPLOG_ERROR,
                             "Failed to collect phoneHome data from modules");
  }
  // A pass that waits for locked module files has re-armed this timer with its short wait already.
  if (waiting) return;
  RearmTimer(feedbackTimer, feedbackInterval);
}

void CPhoneHomeAgent::RearmTimer(CTimer* timer, unsigned int intervalSeconds) {
  // Seconds become milliseconds in 32-bit arithmetic, as every interval of the schedule does.
  const long err = timer->StartTimer(intervalSeconds * 1000u);
  if (err != 0) CAppLog::LogReturnCode("OnTimerExpired", kUnit, __LINE__, APPLOG_ERROR, "CTimer::StartTimer", err);
}

unsigned int CPhoneHomeAgent::CalcRemainingSeconds(const char* historyKey, unsigned int interval) {
  // The recorded time is the low 32 bits of what strtol reads, taken as signed; the differences below wrap as
  // 32-bit signed values do, so a time set far ahead or far back behaves as on the 32-bit clock it came from.
  const int32_t last = static_cast<int32_t>(static_cast<uint32_t>(strtol(history[historyKey].c_str(), nullptr, 10)));
  if (last == 0) return kMinimumFirstDelaySeconds;
  const int32_t elapsed = static_cast<int32_t>(GetCurrentTimeSeconds() - static_cast<uint32_t>(last));
  if (elapsed < 0) return interval;  // recorded in the future: the clock was set back, wait a whole interval
  const int32_t remaining = static_cast<int32_t>(interval - static_cast<uint32_t>(elapsed));
  return remaining < kMinimumFirstDelaySeconds ? kMinimumFirstDelaySeconds : static_cast<unsigned int>(remaining);
}
