// The clock's three modes, and a simulated clock set back and forward under a loop shaped like the feedback
// agent's. How a loop parks at a hold over weeks of schedule is seen on the agent's own loop (tests/integration).
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <thread>
#include <utility>
#include <vector>

#include "Clock.h"
#include "EventList.h"
#include "TimerList.h"

using namespace std::chrono_literals;

namespace {

constexpr uint32_t kStart = 1700000000;
constexpr uint32_t kDay = 86400;
constexpr uint32_t kInterval = 30 * kDay;
using Fired = std::vector<std::pair<unsigned long, uint32_t>>;  // timer id, clock seconds

class RuntimeClock : public ::testing::Test {
 protected:
  void TearDown() override { SuiteClock::UseRealTime(); }
};

// The agent's loop: starter timer 2 after 5 minutes, feedback timer 3 after 10 minutes and then every 30 days,
// a wake-up event for stop.
struct Loop : ITimerCB, IEventCB {
  CTimerList timers;
  CEventList events;
  long err = -1;
  CTimer starter{err, &timers, this, nullptr, 2}, feedback{err, &timers, this, nullptr, 3};
  CCEvent wakeup{err, &events, EVENT_TYPE_AUTO_RESET, this, nullptr, 1, 0, -1, nullptr};
  std::atomic<bool> stop{false};
  Fired fired;  // read only while the loop is parked (the clock's lock orders it) or joined

  void OnTimerExpired(void*, unsigned long id) override {
    fired.emplace_back(id, GetCurrentTimeSeconds());
    if (id == 3) feedback.StartTimer(kInterval * 1000);
  }
  void OnEventSignaled(void*, unsigned long) override {}
  long Run() {
    starter.StartTimer(300000);
    feedback.StartTimer(600000);
    for (;;) {
      unsigned int wait = 0;
      if (timers.TimeToExpired(wait) != 0) wait = 86400;
      long rc = events.WaitOnEvents(wait, true);
      if (rc != 0 && rc != EVT_E_TIMEOUT) return rc;
      if ((rc = timers.CheckExpired()) != 0 || stop) return rc;
    }
  }
};

}  // namespace

TEST_F(RuntimeClock, RealTimeIsTheWallClock) {
  SuiteClock::UseRealTime();
  // Not time(): it reads a coarse clock that can lag the precise one by a tick.
  auto wallSeconds = [] { return std::chrono::system_clock::now().time_since_epoch() / 1s; };
  const auto before = wallSeconds();
  const unsigned int now = GetCurrentTimeSeconds();
  const auto after = wallSeconds();
  EXPECT_TRUE(before <= now && now <= after) << before << " " << now << " " << after;
  EXPECT_EQ(SuiteClock::CurrentMode(), SuiteClock::EMode::eReal);
  EXPECT_FALSE(SuiteClock::HoldAt(now + 10)) << "only a simulated clock can be held";
  EXPECT_FALSE(SuiteClock::AdvanceBy(1ms));
}

TEST_F(RuntimeClock, ScaledTimeRunsFactorTimesFaster) {
  for (double bad : {0.0, -2.0, double(NAN), double(INFINITY)}) EXPECT_FALSE(SuiteClock::UseScaled(bad)) << bad;
  ASSERT_TRUE(SuiteClock::UseScaled(1000.0));
  const uint64_t start = SuiteClock::NowMilliseconds();
  std::this_thread::sleep_for(20ms);
  EXPECT_GE(SuiteClock::NowMilliseconds() - start, 19999u) << "20 ms of real time are at least 20 s of clock";
  // A wait of one clock minute lasts at least 60 real milliseconds and ends at least a minute later.
  CEventList list;
  const uint64_t t0 = SuiteClock::NowMilliseconds();
  const auto real = std::chrono::steady_clock::now();
  EXPECT_EQ(list.WaitOnEvents(60000, true), EVT_E_TIMEOUT);
  EXPECT_GE(std::chrono::steady_clock::now() - real, 60ms);
  EXPECT_GE(SuiteClock::NowMilliseconds() - t0, 59999u);
}

TEST_F(RuntimeClock, SimulatedTimeMovesOnlyThroughWaitsAndStopsAtTheHold) {
  SuiteClock::UseSimulated(kStart);
  std::this_thread::sleep_for(2ms);
  EXPECT_EQ(SuiteClock::NowMilliseconds(), uint64_t{kStart} * 1000) << "real time does not move it";
  ASSERT_TRUE(SuiteClock::HoldAt(kStart + 10));
  EXPECT_TRUE(SuiteClock::AdvanceBy(1h));
  EXPECT_EQ(GetCurrentTimeSeconds(), kStart + 10);
  SuiteClock::ReleaseHold();
  SuiteClock::AdvanceBy(1h);
  EXPECT_EQ(GetCurrentTimeSeconds(), kStart + 10 + 3600);
  // Nothing parks at a hold unless a loop waits: the bound passes, in simulated as in real time.
  ASSERT_TRUE(SuiteClock::HoldAt(kStart + kDay));
  for (bool simulated : {true, false}) {
    if (!simulated) SuiteClock::UseRealTime();
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_FALSE(SuiteClock::WaitUntilParked(30ms)) << simulated;
    EXPECT_GE(std::chrono::steady_clock::now() - begin, 30ms) << simulated;
  }
}

// Setting a held simulated clock back and forward, as an administrator sets a machine's clock: the parked loop
// wakes once, measures its absolute deadlines against the new time and parks at it; a timer that is now past
// runs at once, one that lies further off waits the longer.
TEST_F(RuntimeClock, SettingSimulatedTimeBackAndForwardWakesTheLoopOnce) {
  SuiteClock::UseRealTime();
  EXPECT_FALSE(SuiteClock::SetSimulatedTime(kStart)) << "only a simulated clock can be set";
  SuiteClock::UseSimulated(kStart);
  ASSERT_TRUE(SuiteClock::HoldAt(kStart + 700));
  Loop loop;
  ASSERT_EQ(loop.err, 0);
  std::thread worker([&] { loop.Run(); });
  ASSERT_TRUE(SuiteClock::WaitUntilParked(30s));
  Fired expected = {{2, kStart + 300}, {3, kStart + 600}};
  ASSERT_EQ(loop.fired, expected);
  const uint64_t passes = loop.events.GetWaitCount();

  // A day back: the next feedback, due at kStart + 600 + kInterval, is a day further off; nothing runs.
  ASSERT_TRUE(SuiteClock::SetSimulatedTime(kStart - kDay));
  ASSERT_TRUE(SuiteClock::WaitUntilParked(30s));
  EXPECT_EQ(GetCurrentTimeSeconds(), kStart - kDay) << "held at the new moment";
  EXPECT_EQ(loop.fired, expected);
  EXPECT_EQ(loop.events.GetWaitCount(), passes + 1);
  ASSERT_TRUE(SuiteClock::HoldAt(kStart + 600 + kInterval - 1));
  ASSERT_TRUE(SuiteClock::WaitUntilParked(30s));
  EXPECT_EQ(loop.fired, expected);

  // Forward past that deadline: the overdue timer runs in the one pass the change causes.
  ASSERT_TRUE(SuiteClock::SetSimulatedTime(kStart + 600 + kInterval + kDay));
  ASSERT_TRUE(SuiteClock::WaitUntilParked(30s));
  expected.emplace_back(3, kStart + 600 + kInterval + kDay);
  EXPECT_EQ(loop.fired, expected);
  EXPECT_EQ(loop.events.GetWaitCount(), passes + 2);

  loop.stop = true;
  loop.wakeup.SetEvent(false);
  worker.join();
}
