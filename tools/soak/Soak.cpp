// The soak run: the service loaded and started as a host does, the schedule's events applied on the held
// simulated clock, the clock moved from one timer expiry or event to the next, and every invariant checked
// after each move.
#include "Soak.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "BuildConfig.h"
#include "Clock.h"
#include "PhoneHome/PhoneHomeAgent.h"
#include "PhoneHome/PhoneHomePluginImp.h"

namespace soak {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using SteadyClock = std::chrono::steady_clock;

constexpr uint32_t kClockBase = 1700000000;
constexpr auto kParkBound = 60s;  // real time for the loop to reach a hold, posts and time-outs included
constexpr auto kStopBound = 1s;   // real time from StopPhoneHome to StartPhoneHome's return
constexpr uint32_t kStarterDelay = 300;
constexpr long long kCollectWaitMs = 20000;
const char kSoakMark[] = ".ovfeedback-soak";  // marks a feedback tree the soak made and may wipe
const char kOversizeName[] = "leftover-oversize.cef";
const char kBothRefused[] = "Failed to post customer experence feedback data (";
const char kSizeRefused[] = "File size exceeds maximum size limit";
const char kGaveUp[] = "post failed, give up this time.";
const char kAllComponents[] = "Failed to collect phoneHome data from all the components";
const char kMarkerRemoved[] = "Failed to remove phoneHome status file";
// Limits the heap and RSS may grow by after the first year (or half of a shorter run).
constexpr uint64_t kHeapAllowance = 1u << 20;
constexpr uint64_t kRssAllowance = 16u << 20;

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

bool Exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

}  // namespace

SoakRun::SoakRun(Bench& bench, uint64_t seed, unsigned years)
    : m_bench(bench), m_seed(seed), m_years(years), m_schedule(DrawSchedule(seed, years)), m_clockBase(kClockBase) {
  m_totals.seeds = 1;
  m_totals.years = years;
}

SoakRun::~SoakRun() {
  m_service.reset();
  m_writers.clear();
}

uint32_t SoakRun::Clock() const { return GetCurrentTimeSeconds(); }

uint64_t SoakRun::RunNow() const {
  return static_cast<uint64_t>(static_cast<int64_t>(Clock()) - m_clockBase - m_clockOffset);
}

bool SoakRun::Fail(const std::string& what) {
  if (!m_violation.empty()) return false;
  std::ostringstream text;
  text << "seed " << m_seed << ", step " << m_steps << " at run day " << static_cast<double>(RunNow()) / kDaySeconds
       << " (clock " << Clock() << "), after event " << m_nextEvent << " of " << m_schedule.size() << ": " << what
       << "\n  latest log records:\n"
       << m_bench.log.Tail();
  m_violation = text.str();
  return false;
}

bool SoakRun::Prepare() {
  m_baseDir = std::string(OVF_INSTALL_ROOT) + "/CustomerExperienceFeedback/";
  m_moduleDir = m_baseDir + "moduledata/";
  m_outboundDir = m_baseDir + "outbound/";
  if (Exists(m_baseDir) && !Exists(m_baseDir + kSoakMark)) {
    return Fail(m_baseDir + " exists and was not made by the soak; it would be wiped, so remove it yourself");
  }
  std::error_code ec;
  fs::remove_all(m_baseDir, ec);
  const std::string seedDir = m_bench.workDir + "/seed-" + std::to_string(m_seed);
  fs::remove_all(seedDir, ec);
  fs::create_directories(m_moduleDir, ec);
  fs::create_directories(m_outboundDir, ec);
  std::ofstream(m_baseDir + kSoakMark) << "made by ovfeedback-soak\n";
  for (const char* module : kCrashModules) {
    fs::create_directories(seedDir + "/dumps/" + module, ec);
    m_host.entries[module] = seedDir + "/dumps/" + module + "/*.dmp";
  }
  fs::create_directories(seedDir + "/threats", ec);
  for (size_t w = 0; w < kWriterCount; ++w) {
    const std::string path = m_moduleDir + kModuleFiles[w].key + ".cef";
    m_writers.emplace_back(new ModuleWriter(w, path));
    m_host.entries[kModuleFiles[w].key] = path;
  }
  for (const char* domain : kDomains) {
    std::string hash;
    CPhoneHomeAgent::SHA1Hash(domain, hash);
    m_rules.dnsHashes.insert(hash.substr(20));
    m_rules.domains.push_back(domain);
  }
  m_watch.reset(new OutboundWatch(m_outboundDir));
  if (!m_watch->Ok()) return Fail("cannot watch " + m_outboundDir);
  for (Receiver* receiver : {&m_bench.primary, &m_bench.secondary}) {
    receiver->Control("reset");
    receiver->TakeNewPosts();  // an earlier seed's
  }
  m_hungSeen = m_bench.primary.HungPosts();
  m_logBase[0] = m_bench.log.Count(kBothRefused);
  m_logBase[1] = m_bench.log.Count(kSizeRefused);
  m_logBase[2] = m_bench.log.Count(kGaveUp);
  m_bench.log.TakePostMoments();
  SuiteClock::UseSimulated(m_clockBase);
  SuiteClock::HoldAt(m_clockBase);
  m_rules.earliest = m_rules.latest = m_clockBase;
  m_expectedPasses = m_passesAtStart = m_bench.loop.Passes();
  m_totals.first = SampleProcess();
  return true;
}

// --- the service -------------------------------------------------------------------------------------------

bool SoakRun::StartService() {
  for (int attempt = 0; attempt < 2; ++attempt) {
    const uint64_t markerRemovals = m_bench.log.Count(kMarkerRemoved);
    m_service.reset(new Service(m_bench.plugin, m_host));
    if (!m_service->Ok()) return Fail("CreatePlugin gave no feedback service");
    m_startedAt = Clock();
    SuiteClock::HoldAt(m_startedAt);  // a park of an earlier loop must not count
    m_sequence.Restarted();
    m_service->Start();
    ++m_totals.starts;
    const auto until = SteadyClock::now() + kParkBound;
    bool parked = false;
    while (!(parked = SuiteClock::WaitUntilParked(5ms)) && !m_service->Returned()) {
      if (SteadyClock::now() > until) return Fail("a new service neither parked nor returned within 60 s");
    }
    if (parked) {
      m_state = ServiceState::eLooping;
      ++m_expectedPasses;
      m_passMoments.insert(m_startedAt + kStarterDelay);
      return true;
    }
    m_state = ServiceState::eReturned;
    if (m_profileDisabled) return true;
    // Enabled again: the first start removes the marker an earlier disabled start left and reports that as a
    // failure, as described; the host starts a new service object, which runs.
    if (attempt == 1 || m_bench.log.Count(kMarkerRemoved) == markerRemovals) {
      return Fail("StartPhoneHome returned on its own while the profile enables the service");
    }
    ++m_totals.refusedStarts;
    if (!DisposeService()) return false;
  }
  return false;
}

bool SoakRun::StopService(bool duringPost) {
  if (m_state == ServiceState::eNone) return true;
  double call = 0, back = 0;
  const bool inTime = m_service->Stop(kStopBound, call, back);
  ++m_totals.stops;
  m_totals.maxStopCall = std::max(m_totals.maxStopCall, call);
  m_totals.maxStopReturn = std::max(m_totals.maxStopReturn, back);
  if (duringPost) {
    ++m_totals.midPostStops;
    m_totals.maxMidPostReturn = std::max(m_totals.maxMidPostReturn, back);
  }
  if (!inTime) {
    char text[160];
    snprintf(text, sizeof text, "StartPhoneHome returned %.3f s after StopPhoneHome (call took %.3f s): over 1 s",
             back, call);
    return Fail(text);
  }
  if (m_collectionWaiting) ++m_causes.stopsWhileWaiting;
  return DisposeService();
}

bool SoakRun::DisposeService() {
  const bool returnedEarly = m_state == ServiceState::eReturned;
  m_service.reset();  // the agent saves its history as it goes
  m_state = ServiceState::eNone;
  // An agent that ended before it read the history saved its defaults over it.
  if (returnedEarly) m_sequence.HistoryReset();
  m_collectionWaiting = false;
  m_dnsKnown = false;
  return true;
}

// --- moving the clock ----------------------------------------------------------------------------------------

// Waits for the loop to park at the hold; while a stop mid-post is armed, a post the primary holds is stopped
// instead and the service started anew. `parked` says which.
bool SoakRun::AwaitLoop(bool& parked) {
  const auto until = SteadyClock::now() + kParkBound;
  for (;;) {
    if (SuiteClock::WaitUntilParked(m_stopMidPostArmed ? 5ms : 50ms)) {
      parked = true;
      return true;
    }
    if (m_stopMidPostArmed && m_bench.primary.HungPosts() > m_hungSeen) {
      m_hungSeen = m_bench.primary.HungPosts();
      m_stopMidPostArmed = false;
      parked = false;
      return StopService(true) && StartService();
    }
    if (SteadyClock::now() > until) {
      return Fail("the loop did not park at clock " + std::to_string(Clock()) + " within 60 s of real time");
    }
  }
}

bool SoakRun::Step(uint32_t target, bool expiry) {
  ++m_steps;
  m_rules.latest = std::max(m_rules.latest, target);
  SuiteClock::HoldAt(target);
  if (m_state == ServiceState::eLooping) {
    bool parked = false;
    if (!AwaitLoop(parked)) return false;
    // One pass per expiry moment: the parked wait ends at the deadline and the next one parks.
    if (parked && expiry) ++m_expectedPasses;
  } else {
    SuiteClock::AdvanceBy(std::chrono::milliseconds((static_cast<uint64_t>(target) - Clock()) * 1000));
  }
  return Check(expiry);
}

bool SoakRun::SetClock(int64_t delta) {
  const uint32_t moment = static_cast<uint32_t>(static_cast<int64_t>(Clock()) + delta);
  m_clockOffset += delta;
  m_rules.earliest = std::min(m_rules.earliest, moment);
  m_rules.latest = std::max(m_rules.latest, moment);
  SuiteClock::SetSimulatedTime(moment);
  if (m_state == ServiceState::eLooping) {
    bool parked = false;
    if (!AwaitLoop(parked)) return false;
    if (parked) ++m_expectedPasses;  // the change ends the wait once
  }
  // Set forward, timers now past run in that pass; set back, nothing runs.
  return Check(delta > 0);
}

// --- events ----------------------------------------------------------------------------------------------------

void SoakRun::Control(uint32_t target, const std::string& command) {
  if (target != 1) m_bench.primary.Control(command);
  if (target != 0) m_bench.secondary.Control(command);
}

void SoakRun::WriteProfile(bool disabled) {
  std::ofstream(m_baseDir + "CustomerExperience_Feedback.xml")
      << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<Feedback>\n  <ServiceDisable>" << (disabled ? "true" : "false")
      << "</ServiceDisable>\n</Feedback>\n";
}

void SoakRun::WriteConfig(uint64_t interval) {
  const std::string path = m_baseDir + "config";
  if (interval == 0) {
    unlink(path.c_str());
  } else {
    std::ofstream(path) << "feedback_interval:" << interval << "\n";
  }
}

bool SoakRun::ApplyDue() {
  for (;;) {
    const uint64_t now = RunNow();
    const bool eventDue = m_nextEvent < m_schedule.size() && m_schedule[m_nextEvent].at <= now;
    const bool endingDue = !m_endings.empty() && m_endings.top().at <= now;
    if (!eventDue && !endingDue) return true;
    bool ok;
    if (endingDue && (!eventDue || m_endings.top().at <= m_schedule[m_nextEvent].at)) {
      const Ending ending = m_endings.top();
      m_endings.pop();
      ok = End(ending);
    } else {
      ok = Apply(m_schedule[m_nextEvent++]);
    }
    if (!ok) return false;
  }
}

bool SoakRun::Apply(const Event& event) {
  const size_t kind = static_cast<size_t>(event.kind);
  ++m_totals.events[kind];
  auto skip = [&] {
    --m_totals.events[kind];
    ++m_totals.skipped[kind];
    return true;
  };
  if (m_bench.verbose && event.kind != EventKind::eModuleWrite) {
    printf("  seed %llu day %.2f: %s\n", static_cast<unsigned long long>(m_seed),
           static_cast<double>(event.at) / kDaySeconds, EventName(event.kind));
  }
  switch (event.kind) {
    case EventKind::eModuleWrite: {
      // The suite's modules produce nothing while the marker says the feedback module is off.
      if (!CPhoneHomeUtility::IsPhoneHomeEnabled(m_moduleDir)) return skip();
      PlaceRequestedBadFiles();  // before the write, where the agent has just taken the file
      ModuleWriter& writer = *m_writers[event.target];
      std::vector<uint64_t> handing = writer.Unsent();
      for (uint32_t i = 0; i < event.count; ++i) {
        m_ledger.Written(m_nextRecord + i, event.target);
        handing.push_back(m_nextRecord + i);
      }
      bool failed = false;
      const bool handed = writer.Write(m_nextRecord, event.count, event.domain, failed);
      m_nextRecord += event.count;
      if (failed) return Fail(std::string("the module could not write ") + writer.Path());
      if (event.target == kTunnelWriter) m_tunnelDataHasDomain = m_tunnelDataHasDomain || !event.domain.empty();
      if (handed) {
        m_ledger.HandedOver(handing, m_causes);
        if (event.target == kTunnelWriter) {
          m_tunnelFileHasDomain = m_tunnelDataHasDomain;
          m_tunnelDataHasDomain = false;
        }
      }
      return true;
    }
    case EventKind::eLock: {
      Lock& lock = m_locks[event.target];
      ModuleWriter& writer = *m_writers[event.target];
      if (lock.active || writer.HasBadFile() || !writer.Lock()) return skip();
      lock = Lock{true, event.count, LockFailures(event.target), event.until};
      return true;
    }
    case EventKind::eBadFile: {
      // Left at the module's next write after the agent has taken its file, so that no data file is replaced.
      BadFileRequest& request = m_badFileRequests[event.target];
      if (request.pending || m_writers[event.target]->HasBadFile()) return skip();
      request = BadFileRequest{true, event.count, event.until - event.at};
      return PlaceRequestedBadFiles();
    }
    case EventKind::eReceiverFault: {
      const bool primary = event.target != 1, secondary = event.target != 0;
      if ((primary && m_receiverFault[0] >= 0) || (secondary && m_receiverFault[1] >= 0)) return skip();
      if (primary && m_stopMidPostArmed) return skip();  // the primary's queue holds the hang for the stop
      std::string command;
      switch (event.fault) {
        case Fault::eClientError:
        case Fault::eServerError: command = "status code=" + std::to_string(event.status) + " count=1000"; break;
        case Fault::eHang: command = "hang count=2"; break;  // each costs the request limit in real time
        case Fault::eClose: command = "close count=1000"; break;
        case Fault::eLongBody: command = "body length=1048576 count=1000"; break;
        case Fault::eTrickleInTime: command = "trickle interval=20 length=10 count=1000"; break;
        case Fault::eTrickleTooSlow: command = "trickle interval=400 length=10 count=2"; break;
        case Fault::eCount: break;
      }
      Control(event.target, command);
      if (primary) m_receiverFault[0] = static_cast<int>(event.fault);
      if (secondary) m_receiverFault[1] = static_cast<int>(event.fault);
      ++m_totals.faults[static_cast<size_t>(event.fault)];
      m_endings.push({event.until, EventKind::eReceiverFault, event.target});
      return true;
    }
    case EventKind::eCrashDump:
    case EventKind::eThreatReport: {
      const bool dump = event.kind == EventKind::eCrashDump;
      const std::string dir = m_bench.workDir + "/seed-" + std::to_string(m_seed) +
                              (dump ? std::string("/dumps/") + kCrashModules[event.target] : std::string("/threats"));
      const std::string path = dir + "/" + (dump ? "dump-" : "threat-") + std::to_string(++m_dropSerial) +
                               (dump ? ".dmp" : ".txt");
      if (!WriteSparseFile(path, event.size, dump ? "MDMP" : "threat incident")) return Fail("cannot write " + path);
      m_drops.push_back({path, event.size});
      if (event.size > (16u << 20)) ++(dump ? m_totals.oversizeDumps : m_totals.oversizeThreats);
      return true;
    }
    case EventKind::eCleanDrops:
      for (const Drop& drop : m_drops) unlink(drop.path.c_str());
      m_drops.clear();
      return true;
    case EventKind::eRestart:
      if (m_state != ServiceState::eLooping) return skip();
      return RestartService();
    case EventKind::eStopMidPost:
      if (m_state != ServiceState::eLooping || m_receiverFault[0] >= 0 || m_stopMidPostArmed) return skip();
      m_bench.primary.Control("hang count=1");
      m_hungSeen = m_bench.primary.HungPosts();  // hangs of earlier faults are not this one
      m_stopMidPostArmed = true;
      return true;
    case EventKind::eDisable:
      if (m_profileDisabled || m_state != ServiceState::eLooping) return skip();
      WriteProfile(true);
      m_profileDisabled = true;
      m_endings.push({event.until, EventKind::eDisable, 0});
      return RestartService();
    case EventKind::eConfigInterval:
      WriteConfig(event.size);
      if (event.until != 0) m_endings.push({event.until, EventKind::eConfigInterval, 0});
      return m_state == ServiceState::eLooping ? RestartService() : true;
    case EventKind::eClockSet:
      return SetClock(event.delta);
    case EventKind::eOversizeLeftover:
      if (m_oversizeLeft) return skip();
      if (!WriteSparseFile(m_outboundDir + kOversizeName, kOverLimit, "d")) return Fail("cannot write the leftover");
      m_oversizeLeft = true;
      m_endings.push({event.until, EventKind::eOversizeLeftover, 0});
      return true;
    case EventKind::eCount:
      break;
  }
  return true;
}

bool SoakRun::End(const Ending& ending) {
  switch (ending.kind) {
    case EventKind::eBadFile:
      m_writers[ending.target]->ClearBadFile();
      return true;
    case EventKind::eReceiverFault:
      Control(ending.target, "reset");
      if (ending.target != 1) m_receiverFault[0] = -1;
      if (ending.target != 0) m_receiverFault[1] = -1;
      if (m_stopMidPostArmed && ending.target != 1) m_bench.primary.Control("hang count=1");
      return true;
    case EventKind::eDisable:
      WriteProfile(false);
      m_profileDisabled = false;
      return StopService() && StartService();
    case EventKind::eConfigInterval:
      WriteConfig(0);
      return m_state == ServiceState::eLooping ? RestartService() : true;
    case EventKind::eOversizeLeftover:
      unlink((m_outboundDir + kOversizeName).c_str());
      m_oversizeLeft = false;
      return true;
    default:
      return true;
  }
}

// --- invariants ------------------------------------------------------------------------------------------------

bool SoakRun::PlaceRequestedBadFiles() {
  for (size_t w = 0; w < kWriterCount; ++w) {
    BadFileRequest& request = m_badFileRequests[w];
    ModuleWriter& writer = *m_writers[w];
    if (!request.pending || writer.Locked() || !writer.PlaceBadFile(static_cast<BadFile>(request.kind))) continue;
    request.pending = false;
    ++m_totals.badFiles[request.kind];
    if (writer.HasBadFile()) m_endings.push({RunNow() + request.lasting, EventKind::eBadFile, static_cast<uint32_t>(w)});
  }
  return true;
}

uint64_t SoakRun::LockFailures(size_t writer) const {
  const ModuleFile& file = kModuleFiles[writer];
  if (std::string(file.module) == "ServiceModule") {
    return m_bench.log.Count(std::string("Failed to Internalize ServiceModule Module data for tag ") + file.key + " ");
  }
  return m_bench.log.Count(std::string("Failed to internalize ") + file.module + " Module data");
}

void SoakRun::ReleaseLocks() {
  for (size_t w = 0; w < kWriterCount; ++w) {
    Lock& lock = m_locks[w];
    if (!lock.active) continue;
    if (LockFailures(w) - lock.failuresAtStart >= lock.passes || RunNow() >= lock.until) {
      m_writers[w]->Unlock();
      lock.active = false;
    }
  }
}

bool SoakRun::Check(bool expiry) {
  const uint64_t passes = m_bench.loop.Passes();
  if (passes != m_expectedPasses) {
    return Fail("the loop has made " + std::to_string(passes) + " passes where " + std::to_string(m_expectedPasses) +
                " were due: it woke without a timer or event");
  }
  std::vector<std::string> names;
  if (!m_watch->Take(names)) return Fail("the outbound watch overflowed");
  bool wroteFeedback = false;
  for (const std::string& name : names) {
    if (name == kOversizeName) continue;
    std::string why;
    if (!m_sequence.Written(name, why)) return Fail(why);
    wroteFeedback = true;
  }
  if (wroteFeedback) m_passMoments.insert(Clock());
  for (uint32_t moment : m_bench.log.TakePostMoments()) {
    if (m_passMoments.count(moment) == 0) ++m_totals.retries;
  }

  // Collection passes that found files locked: whether the collection now waits, and the moments that make a
  // later missing record a described loss.
  if (expiry) {
    if (m_collectionWaiting && m_dnsKnown) ++m_causes.rebuildsAfterWaiting;
    bool waiting = false;
    for (size_t w = 0; w < kWriterCount; ++w) {
      // BasePosture's status is overwritten by ElevatedPosture's load: it never keeps the module waiting.
      if (m_locks[w].active && w != kBasePostureWriter && LockFailures(w) > m_failuresSeen[w]) waiting = true;
    }
    const uint64_t finals = m_bench.log.Count(kAllComponents);
    if (finals > m_finalsSeen) waiting = false;
    m_finalsSeen = finals;
    m_collectionWaiting = waiting && m_state == ServiceState::eLooping &&
                          m_bench.loop.NextExpiryMs() <= kCollectWaitMs;
  }
  m_causes.elevatedLockedPasses += LockFailures(kElevatedPostureWriter) - m_failuresSeen[kElevatedPostureWriter];
  for (size_t w = 0; w < kWriterCount; ++w) m_failuresSeen[w] = LockFailures(w);

  unsigned queue = 0;
  if (!CheckDeliveries() || !CheckPlaces(queue)) return false;
  std::string why;
  if (!CheckHistory(m_baseDir + "history", m_sequence, why)) return Fail(why);
  const bool marker = Exists(m_moduleDir + "cefdisable");
  if (m_state == ServiceState::eLooping && marker) return Fail("the marker file stays while the service runs");
  if (m_state == ServiceState::eReturned && m_profileDisabled && !marker) {
    return Fail("the profile disables the service but no marker file tells the modules");
  }
  if (!CheckDrops()) return false;
  ReleaseLocks();
  PlaceRequestedBadFiles();

  while (RunNow() >= m_nextWeek) {
    m_lastQueue = queue;
    Sample(false);
    m_nextWeek += kWeekSeconds;
  }
  m_lastQueue = queue;
  if (RunNow() >= m_nextYear) {
    Sample(true);
    m_nextYear += kYearSeconds;
    if (!CheckMemory(m_yearSamples.back().process)) return false;
  }
  return true;
}

bool SoakRun::CheckDeliveries() {
  for (Receiver* receiver : {&m_bench.primary, &m_bench.secondary}) {
    for (const std::string& body : receiver->TakeNewPosts()) {
      ++m_totals.posts;
      // Every file's period differs from every other's, so the same bytes twice are one file sent again.
      if (!m_postedBodies.insert(std::hash<std::string>()(body)).second) ++m_totals.duplicates;
      PayloadFacts facts;
      std::string why;
      if (!CheckPayload(body, m_rules, facts, why)) {
        return Fail("a post to " + receiver->HostName() + " breaks the payload: " + why);
      }
      for (const FoundRecord& record : facts.records) {
        bool duplicate = false;
        if (!m_ledger.Delivered(record.id, record.module, record.tag, record.value, duplicate, why)) return Fail(why);
      }
    }
  }
  return true;
}

bool SoakRun::CheckPlaces(unsigned& queue) {
  Ledger::Where where;
  for (size_t w = 0; w < kWriterCount; ++w) {
    ModuleWriter& writer = *m_writers[w];
    for (uint64_t id : writer.Unsent()) where.withModules.push_back(id);
    if (writer.HasBadFile() || !Exists(writer.Path())) {
      if (w == kTunnelWriter && m_tunnelFileHasDomain && m_state == ServiceState::eLooping) {
        m_dnsKnown = true;  // the agent took the file that named the domain
        m_tunnelFileHasDomain = false;
      }
      continue;
    }
    std::vector<uint64_t> ids;
    bool hasNetwork = false;
    if (!ModuleFileRecords(ReadFile(writer.Path()), ids, hasNetwork)) {
      return Fail(writer.Path() + " does not decode");
    }
    if (w == kTunnelWriter && m_tunnelFileHasDomain && !hasNetwork && m_state == ServiceState::eLooping) {
      m_dnsKnown = true;
      m_tunnelFileHasDomain = false;
    }
    where.inDataFiles.insert(where.inDataFiles.end(), ids.begin(), ids.end());
  }
  std::error_code ec;
  for (const auto& entry : fs::directory_iterator(m_outboundDir, ec)) {
    ++queue;
    const std::string name = entry.path().filename();
    if (name == kOversizeName) continue;
    PayloadFacts facts;
    std::string why;
    if (!CheckPayload(ReadFile(entry.path()), m_rules, facts, why)) {
      return Fail("outbound file " + name + " breaks the payload: " + why);
    }
    std::vector<uint64_t>& ids = where.outbound[name];
    for (const FoundRecord& record : facts.records) ids.push_back(record.id);
  }
  std::string why;
  if (!m_ledger.Reconcile(where, m_watch->Writes(), m_causes, m_collectionWaiting, why)) return Fail(why);
  return true;
}

bool SoakRun::CheckDrops() {
  for (const Drop& drop : m_drops) {
    struct stat st {};
    if (stat(drop.path.c_str(), &st) != 0 || static_cast<uint64_t>(st.st_size) != drop.size) {
      return Fail("the service moved or changed " + drop.path + ", which it only ever reads");
    }
  }
  return true;
}

bool SoakRun::CheckMemory(const ProcessSample& sample) {
  // The first year (half of a one-year run) warms up: caches, the allocator's arenas, TLS sessions.
  if (!m_haveBaseline) return true;
  char text[200];
  if (sample.fds > m_baseline.fds) {
    snprintf(text, sizeof text, "open descriptors grew from %u to %u", m_baseline.fds, sample.fds);
    return Fail(text);
  }
  if (sample.heapBytes > m_baseline.heapBytes + kHeapAllowance) {
    snprintf(text, sizeof text, "live heap grew from %.2f to %.2f MiB", m_baseline.heapBytes / 1048576.0,
             sample.heapBytes / 1048576.0);
    return Fail(text);
  }
  if (RssIsMeaningful() && sample.rssBytes > m_baseline.rssBytes + kRssAllowance) {
    snprintf(text, sizeof text, "RSS grew from %.1f to %.1f MiB", m_baseline.rssBytes / 1048576.0,
             sample.rssBytes / 1048576.0);
    return Fail(text);
  }
  return true;
}

void SoakRun::Sample(bool yearEnd) {
  WeekRow row;
  row.seed = m_seed;
  row.runDays = static_cast<double>(RunNow()) / kDaySeconds;
  row.clock = Clock();
  row.posts = m_totals.posts;
  row.bothRefused = m_bench.log.Count(kBothRefused) - m_logBase[0];
  row.sizeRefused = m_bench.log.Count(kSizeRefused) - m_logBase[1];
  row.gaveUp = m_bench.log.Count(kGaveUp) - m_logBase[2];
  row.retries = m_totals.retries;
  row.queue = m_lastQueue;
  row.pendingRecords = m_ledger.Pending();
  for (size_t i = 0; i < static_cast<size_t>(Loss::eCount); ++i) row.lostRecords += m_ledger.Lost(static_cast<Loss>(i));
  row.process = SampleProcess();
  // The modules' held locks are the soak's own descriptors, not the service's.
  for (const auto& writer : m_writers) row.process.fds -= writer->Locked() ? 1 : 0;
  if (!yearEnd) {
    m_rows.push_back(row);
    const bool warm = m_years >= 2 ? RunNow() >= kYearSeconds : RunNow() >= kYearSeconds / 2;
    if (warm && !m_haveBaseline) {
      m_haveBaseline = true;
      m_baseline = row.process;
    }
    return;
  }
  const auto now = SteadyClock::now();
  m_yearSamples.push_back({static_cast<unsigned>(m_yearSamples.size() + 1),
                           std::chrono::duration<double>(now - m_yearStart).count(), row.process});
  m_yearStart = now;
}

// --- the run -----------------------------------------------------------------------------------------------------

bool SoakRun::Run() {
  m_realStart = m_yearStart = SteadyClock::now();
  if (!Prepare() || !StartService()) return false;
  const uint64_t end = static_cast<uint64_t>(m_years) * kYearSeconds;
  m_nextWeek = kWeekSeconds;
  m_nextYear = kYearSeconds;
  for (;;) {
    if (!ApplyDue()) return false;
    const uint64_t now = RunNow();
    if (now >= end) break;
    uint64_t next = std::min({end, m_nextWeek, m_nextYear});
    if (m_nextEvent < m_schedule.size()) next = std::min(next, m_schedule[m_nextEvent].at);
    if (!m_endings.empty()) next = std::min(next, m_endings.top().at);
    for (const Lock& lock : m_locks) {
      if (lock.active) next = std::min(next, std::max(lock.until, now + 1));
    }
    uint32_t target = ClockAt(next);
    bool expiry = false;
    if (m_state == ServiceState::eLooping) {
      const long long ms = m_bench.loop.NextExpiryMs();
      if (ms >= 0) {
        const uint64_t due = (SuiteClock::NowMilliseconds() + static_cast<uint64_t>(ms) + 999) / 1000;
        if (due <= target) {
          target = static_cast<uint32_t>(due);
          expiry = true;
        }
      }
    }
    if (!Step(target, expiry)) return false;
  }
  if (!StopService() || !Check(false)) return false;
  if (m_yearSamples.size() < m_years) {
    Sample(true);
    if (!CheckMemory(m_yearSamples.back().process)) return false;
  }
  m_totals.realSeconds = std::chrono::duration<double>(SteadyClock::now() - m_realStart).count();
  m_totals.duplicateRecords = m_ledger.Duplicates();
  m_totals.feedbackFiles = m_sequence.Files();
  m_totals.bothRefused = m_bench.log.Count(kBothRefused) - m_logBase[0];
  m_totals.sizeRefused = m_bench.log.Count(kSizeRefused) - m_logBase[1];
  m_totals.gaveUp = m_bench.log.Count(kGaveUp) - m_logBase[2];
  m_totals.written = m_ledger.WrittenCount();
  m_totals.delivered = m_ledger.DeliveredCount();
  m_totals.pending = m_ledger.Pending();
  for (size_t i = 0; i < static_cast<size_t>(Loss::eCount); ++i) m_totals.lost[i] = m_ledger.Lost(static_cast<Loss>(i));
  m_totals.loopPasses = m_expectedPasses - m_passesAtStart;
  m_totals.last = SampleProcess();
  SuiteClock::UseRealTime();
  return true;
}

}  // namespace soak
