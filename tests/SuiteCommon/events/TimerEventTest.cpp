// Timers, events and execution contexts on the simulated clock (one test on the real clock, bounded one way).
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include "Clock.h"
#include "ExecutionContext.h"
#include "InstanceSmartPtr.h"

using namespace std::chrono_literals;
using Ids = std::vector<unsigned long>;

namespace {

constexpr uint32_t kStart = 1700000000;

struct Recorder : ITimerCB, IEventCB {
  Ids fired;
  std::vector<void*> contexts;
  std::function<void(unsigned long)> onFire;

  void OnTimerExpired(void* context, unsigned long id) override { OnEventSignaled(context, id); }
  void OnEventSignaled(void* context, unsigned long id) override {
    fired.push_back(id);
    contexts.push_back(context);
    if (onFire) onFire(id);
  }
};

class RuntimeEvents : public ::testing::Test {
 protected:
  void SetUp() override { SuiteClock::UseSimulated(kStart); }
  void TearDown() override { SuiteClock::UseRealTime(); }
  std::unique_ptr<CTimer> Timer(unsigned long id) {
    long err = -1;
    auto timer = std::make_unique<CTimer>(err, &timers, &cb, &cb, id);
    EXPECT_EQ(err, 0);
    return timer;
  }
  std::pair<long, unsigned int> Wait() {  // TimeToExpired's result and wait, the wait starting at 12345
    unsigned int wait = 12345;
    return {timers.TimeToExpired(wait), wait};
  }
  Ids Pass() {  // one CheckExpired pass: every timer fired so far
    EXPECT_EQ(timers.CheckExpired(), 0);
    return cb.fired;
  }
  CTimerList timers;
  Recorder cb;
};

}  // namespace

TEST_F(RuntimeEvents, TimersExpireByDeadlineThenArmingOrder) {
  std::vector<std::unique_ptr<CTimer>> t;
  for (unsigned long id = 1; id <= 6; ++id) t.push_back(Timer(id));
  // Timer 4 has timer 2's deadline but is armed later; re-arming timer 5 replaces its deadline.
  const std::pair<int, unsigned int> arms[] = {{1, 300}, {2, 100}, {3, 200}, {4, 100}, {5, 100}, {5, 400}, {6, 50}};
  for (const auto& [id, ms] : arms) t[id - 1]->StartTimer(ms);
  EXPECT_EQ(t[5]->StopTimer(), 0);
  EXPECT_EQ(t[5]->StopTimer(), 0);

  EXPECT_EQ(Wait(), std::make_pair(0L, 100u));
  SuiteClock::AdvanceBy(99ms);
  EXPECT_EQ(Pass(), Ids{});
  SuiteClock::AdvanceBy(401ms);
  EXPECT_EQ(Pass(), (Ids{2, 4, 3, 1, 5}));
  EXPECT_EQ(cb.contexts[0], &cb);
  EXPECT_EQ(Wait(), std::make_pair(EVT_E_NO_TIMER, 12345u)) << "no armed timer must leave the wait alone";
}

TEST_F(RuntimeEvents, CallbacksMayRearmStopAndDestroyTimersDuringAPass) {
  auto a = Timer(1), b = Timer(2), c = Timer(3), d = Timer(4);
  long nested = 0;
  cb.onFire = [&](unsigned long id) {
    if (id == 1 && cb.fired.size() == 1) {
      a->StartTimer(0);  // due at once, but only on the next pass
      c->StopTimer();
      d.reset();
      nested = timers.CheckExpired();
    }
    if (id == 2) b->StartTimer(1000);
  };
  for (CTimer* timer : {a.get(), b.get(), c.get(), d.get()}) timer->StartTimer(100);

  SuiteClock::AdvanceBy(100ms);
  EXPECT_EQ(Pass(), (Ids{1, 2}));
  EXPECT_EQ(nested, EVT_E_BUSY);
  EXPECT_EQ(Wait(), std::make_pair(0L, 0u));
  EXPECT_EQ(Pass(), (Ids{1, 2, 1}));
  EXPECT_EQ(Wait(), std::make_pair(0L, 1000u));
}

TEST_F(RuntimeEvents, TimeToExpiredAndDeadlineCapping) {
  struct Row { uint32_t start; unsigned int armMs; long long advanceMs; unsigned int wait; } rows[] = {
      {kStart, 5000, 7000, 0},            // overdue
      {kStart, UINT_MAX, 0, UINT_MAX},    // the longest wait still fits
      {0xFFFFFFFFu, 10000, 0, 999},       // capped at the clock's last millisecond
      {0xFFFFFFFFu, 10000, 86400000, 0},  // the clock stops there, so the timer still comes due
  };
  for (const Row& row : rows) {
    SuiteClock::UseSimulated(row.start);
    cb.fired.clear();
    auto timer = Timer(9);
    timer->StartTimer(row.armMs);
    SuiteClock::AdvanceBy(std::chrono::milliseconds(row.advanceMs));
    EXPECT_EQ(Wait(), std::make_pair(0L, row.wait)) << row.start << " " << row.armMs << " " << row.advanceMs;
    EXPECT_EQ(Pass().size(), row.wait == 0 ? 1u : 0u) << row.start << " " << row.armMs;
  }
  EXPECT_EQ(GetCurrentTimeSeconds(), 0xFFFFFFFFu);
}

TEST_F(RuntimeEvents, SignalsAreDeliveredByTypeAndOrder) {
  CEventList list;
  long err = -1;
  CCEvent autoEvent(err, &list, EVENT_TYPE_AUTO_RESET, &cb, &cb, 7, 0, EVENT_HANDLE_NONE, nullptr);
  CCEvent manual(err, &list, EVENT_TYPE_MANUAL_RESET, &cb, nullptr, 8, 0, EVENT_HANDLE_NONE, "manual");
  ASSERT_EQ(err, 0);

  EXPECT_EQ(list.WaitOnEvents(5000, true), EVT_E_TIMEOUT);
  EXPECT_EQ(SuiteClock::NowMilliseconds(), uint64_t{kStart} * 1000 + 5000) << "an idle wait advances time";
  autoEvent.SetEvent(false);
  manual.SetEvent(false);
  EXPECT_EQ(list.WaitOnEvents(5000, false), 0);  // only the first registered
  EXPECT_EQ(list.WaitOnEvents(5000, true), 0);   // the manual one, still set
  EXPECT_EQ(list.WaitOnEvents(5000, true), 0);   // and again
  EXPECT_EQ(cb.fired, (Ids{7, 8, 8}));
  EXPECT_EQ(cb.contexts, (std::vector<void*>{&cb, nullptr, nullptr}));
  EXPECT_EQ(SuiteClock::NowMilliseconds(), uint64_t{kStart} * 1000 + 5000) << "a delivered wait keeps time";

  manual.ResetEvent();
  autoEvent.SetEvent(true);  // a pulse with no loop blocked is dropped
  EXPECT_EQ(list.WaitOnEvents(0, true), EVT_E_TIMEOUT);

  long nested = 0;
  auto doomed = std::make_unique<CCEvent>(err, &list, EVENT_TYPE_AUTO_RESET, &cb, nullptr, 9, 1, -1, nullptr);
  cb.onFire = [&](unsigned long) {
    nested = list.WaitOnEvents(0, true);
    doomed.reset();
  };
  autoEvent.SetEvent(false);
  EXPECT_EQ(list.WaitOnEvents(0, true), 0);
  EXPECT_EQ(cb.fired.back(), 7u) << "an event destroyed by an earlier handler is skipped";
  EXPECT_EQ(nested, EVT_E_BUSY);
}

TEST_F(RuntimeEvents, ConstructionFailuresLeaveObjectsDetached) {
  CEventList list;
  long err[3] = {0, 0, 0};
  CCEvent noList(err[0], nullptr, EVENT_TYPE_AUTO_RESET, &cb, nullptr, 1, 0, -1, nullptr);
  CCEvent badType(err[1], &list, 2, &cb, nullptr, 1, 0, -1, nullptr);
  CTimer noCallback(err[2], &timers, nullptr, nullptr, 1);
  EXPECT_EQ(std::vector<long>(err, err + 3), std::vector<long>(3, EVT_E_INVALIDARG));
  EXPECT_EQ(noList.SetEvent(false), EVT_E_NOT_ATTACHED);
  EXPECT_EQ(noCallback.StartTimer(10), EVT_E_NOT_ATTACHED);
}

TEST(RuntimeEventsRealClock, SetEventFromAnotherThreadWakesALongWait) {
  SuiteClock::UseRealTime();
  CEventList list;
  Recorder cb;
  long err = -1;
  CCEvent event(err, &list, EVENT_TYPE_AUTO_RESET, &cb, nullptr, 1, 0, EVENT_HANDLE_NONE, nullptr);
  ASSERT_EQ(err, 0);
  for (bool pulse : {false, true}) {
    std::atomic<bool> done{false};
    std::thread signaler([&] {  // a pulse counts only while the loop is blocked, so keep pulsing until it is
      do {
        std::this_thread::sleep_for(pulse ? 5ms : 20ms);
        event.SetEvent(pulse);
      } while (pulse && !done);
    });
    EXPECT_EQ(list.WaitOnEvents(600000, true), 0) << "pulse " << pulse;
    done = true;
    signaler.join();
  }
  EXPECT_EQ(cb.fired, (Ids{1, 1}));
}

TEST(RuntimeExecutionContext, OneReferenceCountedContextPerId) {
  CExecutionContext *first = nullptr, *second = nullptr;
  ASSERT_EQ(CExecutionContext::CreateMultitonInstance(first, 901), 0);
  ASSERT_EQ(CExecutionContext::CreateMultitonInstance(second, 901), 0);
  EXPECT_EQ(first, second);
  {
    CInstanceSmartPtr<CExecutionContext> scoped(901);
    EXPECT_EQ(scoped.get(), first);
    EXPECT_FALSE(CInstanceSmartPtr<CExecutionContext>(902));
  }
  CExecutionContext* poisoned = reinterpret_cast<CExecutionContext*>(0x1);
  EXPECT_EQ(CExecutionContext::CreateMultitonInstance(poisoned, -1), EVT_E_INVALIDARG);
  EXPECT_EQ(poisoned, reinterpret_cast<CExecutionContext*>(0x1));

  Recorder cb;
  long err = -1;
  CTimer survivor(err, first->GetTimerList(), &cb, nullptr, 1);
  ASSERT_EQ(err, 0);
  EXPECT_EQ(CExecutionContext::acquireInstance(901), first);
  EXPECT_EQ(first->release(), 0);
  EXPECT_EQ(CExecutionContext::releaseInstance(901), 0);
  EXPECT_EQ(survivor.StartTimer(10), 0) << "still alive with one reference";
  EXPECT_EQ(CExecutionContext::releaseInstance(901), 0);
  EXPECT_EQ(CExecutionContext::acquireInstance(901), nullptr);
  EXPECT_EQ(CExecutionContext::releaseInstance(901), EVT_E_NO_INSTANCE);
  EXPECT_EQ(survivor.StartTimer(10), EVT_E_NOT_ATTACHED) << "the timer outlived its list";
}
