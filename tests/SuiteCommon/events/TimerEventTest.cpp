// Timers, events and execution contexts on the simulated clock (one test on the real clock, bounded one way).
#include <gtest/gtest.h>

#include <chrono>
#include <climits>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include "Clock.h"
#include "ExecutionContext.h"
#include "InstanceSmartPtr.h"

namespace {

constexpr uint32_t kStart = 1700000000;

struct Recorder : ITimerCB, IEventCB {
  std::vector<unsigned long> fired;
  std::vector<void*> contexts;
  std::function<void(unsigned long)> onFire;

  void OnTimerExpired(void* context, unsigned long id) override { Record(context, id); }
  void OnEventSignaled(void* context, unsigned long id) override { Record(context, id); }
  void Record(void* context, unsigned long id) {
    fired.push_back(id);
    contexts.push_back(context);
    if (onFire) onFire(id);
  }
};

class RuntimeEvents : public ::testing::Test {
 protected:
  void SetUp() override { SuiteClock::UseSimulated(kStart); }
  void TearDown() override { SuiteClock::UseRealTime(); }
};

std::unique_ptr<CTimer> MakeTimer(CTimerList& list, Recorder& cb, unsigned long id) {
  long err = -1;
  auto timer = std::make_unique<CTimer>(err, &list, &cb, &cb, id);
  EXPECT_EQ(err, 0);
  return timer;
}

}  // namespace

TEST_F(RuntimeEvents, TimersExpireByDeadlineThenArmingOrder) {
  CTimerList list;
  Recorder cb;
  std::vector<std::unique_ptr<CTimer>> t;
  for (unsigned long id = 1; id <= 6; ++id) t.push_back(MakeTimer(list, cb, id));
  t[0]->StartTimer(300);
  t[1]->StartTimer(100);
  t[2]->StartTimer(200);
  t[3]->StartTimer(100);  // same deadline as timer 2, armed later
  t[4]->StartTimer(100);
  t[4]->StartTimer(400);  // re-arming replaces the deadline
  t[5]->StartTimer(50);
  EXPECT_EQ(t[5]->StopTimer(), 0);
  EXPECT_EQ(t[5]->StopTimer(), 0);

  unsigned int wait = 0;
  ASSERT_EQ(list.TimeToExpired(wait), 0);
  EXPECT_EQ(wait, 100u);
  SuiteClock::AdvanceBy(std::chrono::milliseconds(99));
  EXPECT_EQ(list.CheckExpired(), 0);
  EXPECT_TRUE(cb.fired.empty());
  SuiteClock::AdvanceBy(std::chrono::milliseconds(401));
  EXPECT_EQ(list.CheckExpired(), 0);
  EXPECT_EQ(cb.fired, (std::vector<unsigned long>{2, 4, 3, 1, 5}));
  EXPECT_EQ(cb.contexts[0], &cb);

  wait = 12345;
  EXPECT_EQ(list.TimeToExpired(wait), EVT_E_NO_TIMER);
  EXPECT_EQ(wait, 12345u) << "no armed timer must leave the wait alone";
  for (auto& timer : t) EXPECT_FALSE(timer->IsArmed());
}

TEST_F(RuntimeEvents, CallbacksMayRearmStopAndDestroyTimersDuringAPass) {
  CTimerList list;
  Recorder cb;
  auto a = MakeTimer(list, cb, 1), b = MakeTimer(list, cb, 2), c = MakeTimer(list, cb, 3), d = MakeTimer(list, cb, 4);
  long nested = 0;
  cb.onFire = [&](unsigned long id) {
    if (id == 1 && cb.fired.size() == 1) {
      a->StartTimer(0);  // due at once, but only on the next pass
      c->StopTimer();
      d.reset();
      nested = list.CheckExpired();
    }
    if (id == 2) b->StartTimer(1000);
  };
  for (CTimer* timer : {a.get(), b.get(), c.get(), d.get()}) timer->StartTimer(100);

  SuiteClock::AdvanceBy(std::chrono::milliseconds(100));
  EXPECT_EQ(list.CheckExpired(), 0);
  EXPECT_EQ(cb.fired, (std::vector<unsigned long>{1, 2}));
  EXPECT_EQ(nested, EVT_E_BUSY);
  unsigned int wait = 99;
  ASSERT_EQ(list.TimeToExpired(wait), 0);
  EXPECT_EQ(wait, 0u);
  EXPECT_EQ(list.CheckExpired(), 0);
  EXPECT_EQ(cb.fired, (std::vector<unsigned long>{1, 2, 1}));
  ASSERT_EQ(list.TimeToExpired(wait), 0);
  EXPECT_EQ(wait, 1000u);
}

TEST_F(RuntimeEvents, TimeToExpiredAndDeadlineCapping) {
  struct Row {
    uint32_t start;
    unsigned int armMs;
    long long advanceMs;
    unsigned int expectedWait;
  } rows[] = {
      {kStart, 5000, 0, 5000},
      {kStart, 5000, 7000, 0},                       // overdue
      {kStart, UINT_MAX, 0, UINT_MAX},               // the longest wait still fits
      {0xFFFFFFFFu, 10000, 0, 999},                  // capped at the clock's last millisecond
      {0xFFFFFFFFu, 10000, 86400000, 0},             // the clock stops there, so the timer still comes due
  };
  for (const Row& row : rows) {
    SuiteClock::UseSimulated(row.start);
    CTimerList list;
    Recorder cb;
    auto timer = MakeTimer(list, cb, 9);
    timer->StartTimer(row.armMs);
    SuiteClock::AdvanceBy(std::chrono::milliseconds(row.advanceMs));
    unsigned int wait = 7;
    ASSERT_EQ(list.TimeToExpired(wait), 0) << row.start << " " << row.armMs;
    EXPECT_EQ(wait, row.expectedWait) << row.start << " " << row.armMs << " " << row.advanceMs;
    EXPECT_EQ(list.CheckExpired(), 0);
    EXPECT_EQ(cb.fired.size(), row.expectedWait == 0 ? 1u : 0u) << row.start << " " << row.armMs;
  }
  EXPECT_EQ(GetCurrentTimeSeconds(), 0xFFFFFFFFu);
}

TEST_F(RuntimeEvents, SignalsAreDeliveredByTypeAndOrder) {
  CEventList list;
  Recorder cb;
  long err = -1;
  CCEvent autoEvent(err, &list, EVENT_TYPE_AUTO_RESET, &cb, &cb, 7, 0, EVENT_HANDLE_NONE, nullptr);
  ASSERT_EQ(err, 0);
  CCEvent manual(err, &list, EVENT_TYPE_MANUAL_RESET, &cb, nullptr, 8, 0, EVENT_HANDLE_NONE, "manual");
  ASSERT_EQ(err, 0);

  EXPECT_EQ(list.WaitOnEvents(5000, true), EVT_E_TIMEOUT);
  EXPECT_EQ(SuiteClock::NowMilliseconds(), uint64_t{kStart} * 1000 + 5000) << "an idle wait advances time";

  autoEvent.SetEvent(false);
  manual.SetEvent(false);
  EXPECT_EQ(list.WaitOnEvents(5000, false), 0);  // only the first registered
  EXPECT_EQ(list.WaitOnEvents(5000, true), 0);   // the manual one, still set
  EXPECT_EQ(list.WaitOnEvents(5000, true), 0);   // and again
  EXPECT_EQ(cb.fired, (std::vector<unsigned long>{7, 8, 8}));
  EXPECT_EQ(cb.contexts[0], &cb);
  EXPECT_EQ(cb.contexts[1], nullptr);
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
  CTimerList timers;
  Recorder cb;
  long err = 0;
  CCEvent noList(err, nullptr, EVENT_TYPE_AUTO_RESET, &cb, nullptr, 1, 0, -1, nullptr);
  EXPECT_EQ(err, EVT_E_INVALIDARG);
  EXPECT_EQ(noList.SetEvent(false), EVT_E_NOT_ATTACHED);
  CCEvent badType(err, &list, 2, &cb, nullptr, 1, 0, -1, nullptr);
  EXPECT_EQ(err, EVT_E_INVALIDARG);
  CTimer noCallback(err, &timers, nullptr, nullptr, 1);
  EXPECT_EQ(err, EVT_E_INVALIDARG);
  EXPECT_EQ(noCallback.StartTimer(10), EVT_E_NOT_ATTACHED);
  unsigned int wait = 0;
  EXPECT_EQ(timers.TimeToExpired(wait), EVT_E_NO_TIMER);
}

TEST(RuntimeEventsRealClock, SetEventFromAnotherThreadWakesALongWait) {
  SuiteClock::UseRealTime();
  CEventList list;
  Recorder cb;
  long err = -1;
  CCEvent event(err, &list, EVENT_TYPE_AUTO_RESET, &cb, nullptr, 1, 0, EVENT_HANDLE_NONE, nullptr);
  ASSERT_EQ(err, 0);
  const auto begin = std::chrono::steady_clock::now();
  std::thread latched([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    event.SetEvent(false);
  });
  EXPECT_EQ(list.WaitOnEvents(600000, true), 0);
  latched.join();

  std::atomic<bool> done{false};
  std::thread pulser([&] {  // a pulse counts only while the loop is blocked, so keep pulsing until it is
    while (!done) {
      event.SetEvent(true);
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
  });
  EXPECT_EQ(list.WaitOnEvents(600000, true), 0);
  done = true;
  pulser.join();
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::minutes(5));
  EXPECT_EQ(cb.fired, (std::vector<unsigned long>{1, 1}));
}

TEST(RuntimeExecutionContext, OneReferenceCountedContextPerId) {
  CExecutionContext* first = nullptr;
  CExecutionContext* second = nullptr;
  ASSERT_EQ(CExecutionContext::CreateMultitonInstance(first, 901), 0);
  ASSERT_EQ(CExecutionContext::CreateMultitonInstance(second, 901), 0);
  EXPECT_EQ(first, second);
  EXPECT_EQ(first->GetInstanceId(), 901);
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
