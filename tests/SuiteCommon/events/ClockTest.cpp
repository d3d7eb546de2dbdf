// The clock's three modes, and a loop shaped like the feedback agent's running months of schedule under a hold.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <mutex>
#include <thread>
#include <vector>

#include "Clock.h"
#include "EventList.h"
#include "TimerList.h"

namespace {

constexpr uint32_t kStart = 1700000000;
constexpr uint32_t kDay = 86400;
constexpr uint32_t kInterval = 30 * kDay;

class RuntimeClock : public ::testing::Test {
 protected:
  void TearDown() override { SuiteClock::UseRealTime(); }
};

// The agent's loop: a starter timer after 5 minutes, a feedback timer first after 10 minutes and then every
// 30 days, a wake-up event for stop.
class Loop : public ITimerCB, public IEventCB {
 public:
  Loop() {
    long err = -1;
    m_starter = std::make_unique<CTimer>(err, &m_timers, this, nullptr, 2);
    m_feedback = std::make_unique<CTimer>(err, &m_timers, this, nullptr, 3);
    m_wakeup = std::make_unique<CCEvent>(err, &m_events, EVENT_TYPE_AUTO_RESET, this, nullptr, 1, 0, -1, nullptr);
  }
  void OnTimerExpired(void*, unsigned long id) override {
    std::lock_guard<std::mutex> lock(m_mutex);
    (id == 2 ? m_starterAt : m_feedbackAt).push_back(GetCurrentTimeSeconds());
    if (id == 3) m_feedback->StartTimer(kInterval * 1000);
  }
  void OnEventSignaled(void*, unsigned long) override {}

  long Run() {
    m_starter->StartTimer(300000);
    m_feedback->StartTimer(600000);
    for (;;) {
      unsigned int wait = 0;
      if (m_timers.TimeToExpired(wait) != 0) wait = 86400;
      long rc = m_events.WaitOnEvents(wait, true);
      if (rc != 0 && rc != EVT_E_TIMEOUT) return rc;
      if ((rc = m_timers.CheckExpired()) != 0) return rc;
      if (m_stop) return 0;
    }
  }
  void Stop() {
    m_stop = true;
    m_wakeup->SetEvent(false);
  }
  std::vector<uint32_t> Starts() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_starterAt;
  }
  std::vector<uint32_t> Feedbacks() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_feedbackAt;
  }

 private:
  CTimerList m_timers;
  CEventList m_events;
  std::unique_ptr<CTimer> m_starter, m_feedback;
  std::unique_ptr<CCEvent> m_wakeup;
  std::atomic<bool> m_stop{false};
  std::mutex m_mutex;
  std::vector<uint32_t> m_starterAt, m_feedbackAt;
};

}  // namespace

TEST_F(RuntimeClock, RealTimeIsTheWallClock) {
  SuiteClock::UseRealTime();
  // Not time(): it reads a coarse clock that can lag the precise one by a tick.
  auto wallSeconds = [] {
    using namespace std::chrono;
    return duration_cast<seconds>(system_clock::now().time_since_epoch()).count();
  };
  const auto before = wallSeconds();
  const unsigned int now = GetCurrentTimeSeconds();
  const auto after = wallSeconds();
  EXPECT_LE(before, static_cast<long long>(now));
  EXPECT_LE(static_cast<long long>(now), after);
  EXPECT_EQ(SuiteClock::CurrentMode(), SuiteClock::EMode::eReal);
  EXPECT_FALSE(SuiteClock::HoldAt(now + 10)) << "only a simulated clock can be held";
  EXPECT_FALSE(SuiteClock::AdvanceBy(std::chrono::milliseconds(1)));
}

TEST_F(RuntimeClock, ScaledTimeRunsFactorTimesFaster) {
  for (double bad : {0.0, -2.0, double(NAN), double(INFINITY)}) EXPECT_FALSE(SuiteClock::UseScaled(bad)) << bad;
  ASSERT_TRUE(SuiteClock::UseScaled(1000.0));
  const uint64_t t0 = SuiteClock::NowMilliseconds();
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_GE(SuiteClock::NowMilliseconds() - t0, 19999u) << "20 ms of real time are at least 20 s of clock";

  // A wait of one clock minute lasts at least 60 real milliseconds and ends at least a minute later.
  CEventList list;
  const uint64_t t1 = SuiteClock::NowMilliseconds();
  const auto real = std::chrono::steady_clock::now();
  EXPECT_EQ(list.WaitOnEvents(60000, true), EVT_E_TIMEOUT);
  EXPECT_GE(std::chrono::steady_clock::now() - real, std::chrono::milliseconds(60));
  EXPECT_GE(SuiteClock::NowMilliseconds() - t1, 59999u);
}

TEST_F(RuntimeClock, SimulatedTimeMovesOnlyThroughWaitsAndStopsAtTheHold) {
  SuiteClock::UseSimulated(kStart);
  EXPECT_EQ(GetCurrentTimeSeconds(), kStart);
  std::this_thread::sleep_for(std::chrono::milliseconds(2));
  EXPECT_EQ(SuiteClock::NowMilliseconds(), uint64_t{kStart} * 1000) << "real time does not move it";
  ASSERT_TRUE(SuiteClock::HoldAt(kStart + 10));
  EXPECT_TRUE(SuiteClock::AdvanceBy(std::chrono::hours(1)));
  EXPECT_EQ(GetCurrentTimeSeconds(), kStart + 10);
  SuiteClock::ReleaseHold();
  SuiteClock::AdvanceBy(std::chrono::hours(1));
  EXPECT_EQ(GetCurrentTimeSeconds(), kStart + 10 + 3600);
}

TEST_F(RuntimeClock, WaitUntilParkedTimesOutWhenNothingParks) {
  for (bool simulated : {false, true}) {
    if (simulated) {
      SuiteClock::UseSimulated(kStart);
      SuiteClock::HoldAt(kStart + kDay);
    } else {
      SuiteClock::UseRealTime();
    }
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_FALSE(SuiteClock::WaitUntilParked(std::chrono::milliseconds(30))) << simulated;
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(30)) << simulated;
  }
}

TEST_F(RuntimeClock, LoopRunsMonthsOfScheduleUpToEachHold) {
  SuiteClock::UseSimulated(kStart);
  ASSERT_TRUE(SuiteClock::HoldAt(kStart + 65 * kDay));
  Loop loop;
  long result = -1;
  std::thread worker([&] { result = loop.Run(); });

  ASSERT_TRUE(SuiteClock::WaitUntilParked(std::chrono::seconds(30)));
  EXPECT_EQ(GetCurrentTimeSeconds(), kStart + 65 * kDay);
  EXPECT_EQ(loop.Starts(), (std::vector<uint32_t>{kStart + 300}));
  EXPECT_EQ(loop.Feedbacks(), (std::vector<uint32_t>{kStart + 600, kStart + 600 + kInterval,
                                                     kStart + 600 + 2 * kInterval}));

  // A hold on the very moment a timer is due: it has run by the time the loop parks.
  const uint32_t hold = kStart + 600 + 3 * kInterval;
  ASSERT_TRUE(SuiteClock::HoldAt(hold));
  ASSERT_TRUE(SuiteClock::WaitUntilParked(std::chrono::seconds(30)));
  EXPECT_EQ(loop.Feedbacks().size(), 4u);
  EXPECT_EQ(loop.Feedbacks().back(), hold);

  loop.Stop();  // the wake-up event reaches the parked loop without moving time
  worker.join();
  EXPECT_EQ(result, 0);
  EXPECT_EQ(GetCurrentTimeSeconds(), hold);
  EXPECT_EQ(loop.Starts().size(), 1u);
}
