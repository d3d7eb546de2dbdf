// One seeded soak run: the service on the held simulated clock, driven through the seed's schedule, every
// invariant checked after every step of the clock.
#pragma once

#include <chrono>
#include <memory>
#include <queue>
#include <set>
#include <string>
#include <unordered_set>
#include <vector>

#include "Host.h"
#include "Ledger.h"
#include "Modules.h"
#include "Observe.h"
#include "Payload.h"
#include "Receivers.h"
#include "Report.h"
#include "Schedule.h"

namespace soak {

// What every run of a process shares: the plug-in, the two receivers, the log sink and the loop's context.
struct Bench {
  PluginLibrary& plugin;
  Receiver& primary;
  Receiver& secondary;
  LogWatch& log;
  LoopView& loop;
  std::string workDir;
  bool verbose = false;
};

class SoakRun {
 public:
  SoakRun(Bench& bench, uint64_t seed, unsigned years);
  ~SoakRun();
  // Runs the seed; false at the first broken invariant, which Violation() then describes.
  bool Run();
  const std::string& Violation() const { return m_violation; }
  const std::vector<WeekRow>& Rows() const { return m_rows; }
  const std::vector<YearSample>& Years() const { return m_yearSamples; }
  const Totals& Result() const { return m_totals; }

 private:
  enum class ServiceState { eNone, eLooping, eReturned };
  struct Ending {
    uint64_t at;
    EventKind kind;
    uint32_t target;
    bool operator>(const Ending& other) const { return at > other.at; }
  };
  struct Lock {
    bool active = false;
    uint32_t passes = 0;
    uint64_t failuresAtStart = 0;
    uint64_t until = 0;
  };
  struct BadFileRequest {
    bool pending = false;
    uint32_t kind = 0;
    uint64_t lasting = 0;  // how long the broken file stays once placed
  };
  struct Drop {
    std::string path;
    uint64_t size;
  };

  // Setup and the clock.
  bool Prepare();
  uint32_t Clock() const;
  uint64_t RunNow() const;
  uint32_t ClockAt(uint64_t runTime) const { return static_cast<uint32_t>(m_clockBase + runTime + m_clockOffset); }

  // The service as the host runs it.
  bool StartService();
  bool StopService(bool duringPost = false);
  bool RestartService() { return StopService() && StartService(); }
  bool DisposeService();

  // Steps of the clock and the events.
  bool Step(uint32_t target, bool expiry);
  bool AwaitLoop(bool& parked);
  bool ApplyDue();
  bool Apply(const Event& event);
  bool End(const Ending& ending);
  bool SetClock(int64_t delta);
  void WriteProfile(bool disabled);
  void WriteConfig(uint64_t interval);
  void Control(uint32_t target, const std::string& command);

  // Invariants.
  bool Check(bool expiry);
  bool CheckDeliveries();
  bool CheckPlaces(unsigned& queue);
  bool CheckDrops();
  bool CheckMemory(const ProcessSample& sample);
  void ReleaseLocks();
  bool PlaceRequestedBadFiles();
  uint64_t LockFailures(size_t writer) const;
  bool Fail(const std::string& what);
  void Sample(bool yearEnd);

  Bench& m_bench;
  uint64_t m_seed;
  unsigned m_years;
  std::vector<Event> m_schedule;
  size_t m_nextEvent = 0;
  uint64_t m_steps = 0;  // moves of the clock so far
  std::priority_queue<Ending, std::vector<Ending>, std::greater<Ending>> m_endings;

  uint32_t m_clockBase;
  int64_t m_clockOffset = 0;
  std::string m_baseDir, m_moduleDir, m_outboundDir;
  SettingsHost m_host;
  std::unique_ptr<Service> m_service;
  ServiceState m_state = ServiceState::eNone;
  bool m_profileDisabled = false;
  uint64_t m_expectedPasses = 0, m_passesAtStart = 0;
  uint32_t m_startedAt = 0;

  std::vector<std::unique_ptr<ModuleWriter>> m_writers;
  Lock m_locks[kWriterCount];
  BadFileRequest m_badFileRequests[kWriterCount];
  uint64_t m_nextRecord = 1;
  bool m_tunnelDataHasDomain = false, m_tunnelFileHasDomain = false, m_dnsKnown = false;
  Ledger m_ledger;
  PayloadRules m_rules;
  SequenceRule m_sequence;
  std::unique_ptr<OutboundWatch> m_watch;
  LossCauses m_causes;
  uint64_t m_failuresSeen[kWriterCount] = {};
  uint64_t m_finalsSeen = 0;
  unsigned m_lastQueue = 0;
  bool m_collectionWaiting = false;
  std::set<uint32_t> m_passMoments;  // starters and collections: post passes that are not retries
  int m_receiverFault[2] = {-1, -1};  // the fault each receiver is answering with, or -1
  bool m_stopMidPostArmed = false;
  size_t m_hungSeen = 0;
  std::unordered_set<size_t> m_postedBodies;  // hashes of the bodies the receivers stored
  std::vector<Drop> m_drops;
  uint64_t m_dropSerial = 0;
  bool m_oversizeLeft = false;

  std::chrono::steady_clock::time_point m_realStart, m_yearStart;
  uint64_t m_nextWeek = 0, m_nextYear = 0;
  bool m_haveBaseline = false;
  ProcessSample m_baseline;
  std::vector<WeekRow> m_rows;
  std::vector<YearSample> m_yearSamples;
  Totals m_totals;
  uint64_t m_logBase[4] = {};  // the watch's counts of the post texts when the run began
  std::string m_violation;
};

}  // namespace soak
