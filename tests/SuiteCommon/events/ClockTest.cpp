// The clock's three modes. How a loop parks at a hold, with every timer due by then run, is seen where the
// feedback agent's own loop runs weeks of its schedule (tests/integration).
#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <thread>

#include "Clock.h"
#include "EventList.h"

using namespace std::chrono_literals;

namespace {

constexpr uint32_t kStart = 1700000000;
constexpr uint32_t kDay = 86400;

class RuntimeClock : public ::testing::Test {
 protected:
  void TearDown() override { SuiteClock::UseRealTime(); }
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
