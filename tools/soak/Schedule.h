// The events of a soak run, drawn from its seed before it starts: what the modules write, which faults come
// when and for how long, and what the host and the administrator do to the service.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace soak {

enum class EventKind {
  eModuleWrite,     // writer, count records, domain (tunnel only, may be empty)
  eLock,            // writer holds its lock for `count` blocked collection passes (or until `until`)
  eBadFile,         // writer leaves a broken file of kind `count` (BadFile), cleared at `until`
  eReceiverFault,   // receiver(s) `target` answer with fault `fault` until `until`
  eCrashDump,       // a dump of module `target` (index into the crash modules), `size` bytes
  eThreatReport,    // a threat report of `size` bytes
  eCleanDrops,      // the modules clear their old dumps and reports
  eRestart,         // the host stops the service and starts a new one
  eStopMidPost,     // the host stops the service while the receiver holds a post, then starts a new one
  eDisable,         // the profile disables the service until `until`
  eConfigInterval,  // the config file's feedback interval becomes `size` seconds (0: the key goes), restart
  eClockSet,        // the clock is set by `delta` seconds, back or forward
  eOversizeLeftover,  // a file over 16 MiB lies in the outbound directory until `until`
  eCount
};
const char* EventName(EventKind kind);

enum class Fault { eClientError, eServerError, eHang, eClose, eLongBody, eTrickleInTime, eTrickleTooSlow, eCount };
const char* FaultName(Fault fault);

struct Event {
  uint64_t at = 0;  // seconds of run time (the simulated time the run has lasted, whatever the clock shows)
  EventKind kind = EventKind::eCount;
  uint32_t target = 0;  // writer, receiver (0 primary, 1 secondary, 2 both), crash module
  uint32_t count = 0;
  uint64_t size = 0;
  uint64_t until = 0;  // run time when a lasting event ends
  int64_t delta = 0;
  Fault fault = Fault::eCount;
  int status = 0;
  std::string domain;
};

// The whole run's events, in time order (ties in draw order).
std::vector<Event> DrawSchedule(uint64_t seed, unsigned years);

inline constexpr uint64_t kDaySeconds = 86400;
inline constexpr uint64_t kWeekSeconds = 7 * kDaySeconds;
inline constexpr uint64_t kYearSeconds = 365 * kDaySeconds;
inline constexpr uint64_t kOverLimit = (16u << 20) + 1;  // one byte past the post and crash-dump limit
inline constexpr const char* kCrashModules[] = {"TunnelModule",  "AccessModule",  "WebFilterModule",
                                                "FlowModule",    "ResolverModule", "UiModule",
                                                "UpdaterModule", "PostureModule", "PostureAgentModule"};
inline constexpr const char* kDomains[] = {"corp.example.net", "branch7.example.org", "vpn.example.com"};

}  // namespace soak
