// Drawing the schedule: per simulated week, each kind of event with its own chance, and every kind at least
// once a year so that even a one-year run meets them all.
#include "Schedule.h"

#include <algorithm>

#include "Modules.h"
#include "Random.h"

namespace soak {
namespace {

// Chance per week of each kind (module writes are drawn per writer).
struct Rate {
  EventKind kind;
  double perWeek;
};
constexpr Rate kRates[] = {
    {EventKind::eLock, 0.10},          {EventKind::eBadFile, 0.04},       {EventKind::eReceiverFault, 0.12},
    {EventKind::eCrashDump, 0.06},     {EventKind::eThreatReport, 0.04},  {EventKind::eCleanDrops, 0.04},
    {EventKind::eRestart, 0.03},       {EventKind::eStopMidPost, 0.02},   {EventKind::eDisable, 0.012},
    {EventKind::eConfigInterval, 0.03}, {EventKind::eClockSet, 0.025},    {EventKind::eOversizeLeftover, 0.01},
};

Event At(uint64_t at, EventKind kind) {
  Event event;
  event.at = at;
  event.kind = kind;
  return event;
}

Event Draw(Random& random, EventKind kind, uint64_t at) {
  Event event = At(at, kind);
  switch (kind) {
    case EventKind::eModuleWrite:
    case EventKind::eCount:
      break;
    case EventKind::eLock:
      event.target = static_cast<uint32_t>(random.Below(kWriterCount));
      event.count = static_cast<uint32_t>(random.Between(1, 6));  // 5 passes make a whole collection
      event.until = at + random.Between(1, 40) * kDaySeconds;
      break;
    case EventKind::eBadFile:
      event.target = static_cast<uint32_t>(random.Below(kWriterCount));
      event.count = static_cast<uint32_t>(random.Below(3));
      event.until = at + random.Between(1, 6) * kWeekSeconds;
      break;
    case EventKind::eReceiverFault: {
      static const int kClientErrors[] = {400, 403, 404, 413};
      static const int kServerErrors[] = {500, 502, 503};
      event.target = static_cast<uint32_t>(random.Below(3));
      event.fault = static_cast<Fault>(random.Below(static_cast<uint64_t>(Fault::eCount)));
      event.status = event.fault == Fault::eClientError ? random.Pick(kClientErrors) : random.Pick(kServerErrors);
      event.until = at + random.Between(3600, 14 * kDaySeconds);
      break;
    }
    case EventKind::eCrashDump:
      event.target = static_cast<uint32_t>(random.Below(std::size(kCrashModules)));
      event.size = random.Chance(0.25) ? kOverLimit : random.Between(1, 256 * 1024);
      break;
    case EventKind::eThreatReport:
      event.size = random.Chance(0.25) ? kOverLimit : random.Between(1, 64 * 1024);
      break;
    case EventKind::eCleanDrops:
    case EventKind::eRestart:
    case EventKind::eStopMidPost:
      break;
    case EventKind::eDisable:
      event.until = at + random.Between(1, 8) * kWeekSeconds;
      break;
    case EventKind::eConfigInterval: {
      static const uint64_t kIntervals[] = {kDaySeconds, kWeekSeconds, 2 * kWeekSeconds, 30 * kDaySeconds, 0};
      event.size = random.Pick(kIntervals);
      // A daily schedule is a short episode: the host's administrator sets it back within weeks.
      if (event.size == kDaySeconds) event.until = at + random.Between(1, 4) * kWeekSeconds;
      break;
    }
    case EventKind::eClockSet: {
      const int64_t magnitude = static_cast<int64_t>(random.Between(3600, 10 * kDaySeconds));
      event.delta = random.Chance(0.5) ? -magnitude : magnitude;
      break;
    }
    case EventKind::eOversizeLeftover:
      event.until = at + random.Between(1, 6) * kWeekSeconds;
      break;
  }
  return event;
}

}  // namespace

const char* EventName(EventKind kind) {
  switch (kind) {
    case EventKind::eModuleWrite: return "module writes";
    case EventKind::eLock: return "module file locks";
    case EventKind::eBadFile: return "broken module files";
    case EventKind::eReceiverFault: return "receiver faults";
    case EventKind::eCrashDump: return "crash dumps";
    case EventKind::eThreatReport: return "threat reports";
    case EventKind::eCleanDrops: return "dump clean-ups";
    case EventKind::eRestart: return "restarts";
    case EventKind::eStopMidPost: return "stops mid-post";
    case EventKind::eDisable: return "profile disables";
    case EventKind::eConfigInterval: return "interval changes";
    case EventKind::eClockSet: return "clock settings";
    case EventKind::eOversizeLeftover: return "oversize outbound files";
    case EventKind::eCount: break;
  }
  return "?";
}

const char* FaultName(Fault fault) {
  switch (fault) {
    case Fault::eClientError: return "4xx";
    case Fault::eServerError: return "5xx";
    case Fault::eHang: return "hang";
    case Fault::eClose: return "close";
    case Fault::eLongBody: return "long body";
    case Fault::eTrickleInTime: return "trickle";
    case Fault::eTrickleTooSlow: return "trickle past the limit";
    case Fault::eCount: break;
  }
  return "?";
}

std::vector<Event> DrawSchedule(uint64_t seed, unsigned years) {
  Random random(seed);
  std::vector<Event> events;
  for (unsigned year = 0; year < years; ++year) {
    bool seen[static_cast<size_t>(EventKind::eCount)] = {};
    const uint64_t yearStart = year * kYearSeconds;
    for (uint64_t week = 0; week * kWeekSeconds < kYearSeconds; ++week) {
      const uint64_t base = yearStart + week * kWeekSeconds;
      const uint64_t span = std::min(kWeekSeconds, kYearSeconds - week * kWeekSeconds);
      for (size_t writer = 0; writer < kWriterCount; ++writer) {
        if (!random.Chance(0.85)) continue;
        Event write = At(base + random.Below(span), EventKind::eModuleWrite);
        write.target = static_cast<uint32_t>(writer);
        write.count = static_cast<uint32_t>(random.Between(1, 3));
        if (writer == kTunnelWriter && random.Chance(0.3)) write.domain = random.Pick(kDomains);
        events.push_back(write);
      }
      for (const Rate& rate : kRates) {
        if (!random.Chance(rate.perWeek)) continue;
        events.push_back(Draw(random, rate.kind, base + random.Below(span)));
        seen[static_cast<size_t>(rate.kind)] = true;
      }
    }
    for (const Rate& rate : kRates) {
      if (!seen[static_cast<size_t>(rate.kind)]) {
        events.push_back(Draw(random, rate.kind, yearStart + random.Below(kYearSeconds)));
      }
    }
  }
  std::stable_sort(events.begin(), events.end(), [](const Event& a, const Event& b) { return a.at < b.at; });
  return events;
}

}  // namespace soak
