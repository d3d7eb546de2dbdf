// One-shot timers of the host runtime, on the runtime's clock. The loop asks its timer list how long it may
// wait and then runs what has expired; callbacks run on that loop thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <utility>
#include <vector>

#include "ApiExport.h"
#include "EventCodes.h"

class SC_API ITimerCB {
 public:
  virtual void OnTimerExpired(void* context, unsigned long timerId) = 0;
  virtual ~ITimerCB() = default;
};

class CTimerList;

class SC_API CTimer {
 public:
  // Registers the timer, not armed, with `list`. cb and context are borrowed. err: 0, or EVT_E_INVALIDARG
  // (null list or callback); a failed timer stays unregistered.
  CTimer(long& err, CTimerList* list, ITimerCB* cb, void* context, unsigned long timerId);
  // Unregisters; safe from inside any timer callback of the same list.
  ~CTimer();
  CTimer(const CTimer&) = delete;
  CTimer& operator=(const CTimer&) = delete;

  // Arms the timer to expire `ms` milliseconds from now on the runtime's clock, replacing any earlier
  // deadline; allowed from inside its own callback. Deadlines past the clock's range are capped at its end.
  // A timer armed from another thread takes effect at the loop's next pass, not during a wait in progress.
  // 0, or EVT_E_NOT_ATTACHED.
  long StartTimer(unsigned int ms);
  // Disarms; 0 also when it was not armed, EVT_E_NOT_ATTACHED when unregistered.
  long StopTimer();
  bool IsArmed() const;
  unsigned long GetTimerId() const { return m_ulTimerId; }

 private:
  friend class CTimerList;

  CTimerList* m_pList = nullptr;  // borrowed; cleared when the list goes first
  ITimerCB* m_pCallback;          // borrowed
  void* m_pvContext;              // borrowed, handed back untouched
  unsigned long m_ulTimerId;
  bool m_bArmed = false;        // these three are guarded by the list's mutex
  uint64_t m_ullDeadlineMs = 0;
  uint64_t m_ullArmSequence = 0;
};

class SC_API CTimerList {
 public:
  CTimerList();
  // Detaches the timers still registered; they then report EVT_E_NOT_ATTACHED.
  ~CTimerList();
  CTimerList(const CTimerList&) = delete;
  CTimerList& operator=(const CTimerList&) = delete;

  // Milliseconds until the earliest armed deadline (0 when overdue, at most 0xFFFFFFFF). With no armed timer
  // it returns EVT_E_NO_TIMER and leaves waitMs unchanged: the caller picks its own idle wait.
  long TimeToExpired(unsigned int& waitMs);
  // Reads the clock once and calls OnTimerExpired for every timer due at that moment, by deadline and, for
  // equal deadlines, in the order they were armed. A timer is disarmed just before its callback; one that is
  // re-armed, stopped or destroyed by an earlier callback of the pass is not called with its old deadline,
  // and timers armed during the pass wait for the next one. 0, or EVT_E_BUSY when re-entered.
  long CheckExpired();

 private:
  friend class CTimer;
  using Key = std::pair<uint64_t, uint64_t>;  // deadline, arming sequence

  void Register(CTimer* timer);
  void Unregister(CTimer* timer);
  void Arm(CTimer* timer, unsigned int ms);
  void Disarm(CTimer* timer);  // caller holds m_mutex

  mutable std::mutex m_mutex;
  std::map<Key, CTimer*> m_armed;  // guarded by m_mutex
  std::vector<CTimer*> m_timers;   // every registered timer; guarded by m_mutex
  uint64_t m_ullNextSequence = 1;
  std::atomic<bool> m_bChecking{false};
};
