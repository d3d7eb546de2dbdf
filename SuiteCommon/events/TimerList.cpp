// One-shot timers and the timer list's expiry pass on the runtime's clock.
#include "TimerList.h"

#include <algorithm>
#include <limits>

#include "Clock.h"

namespace {

// Clears the list's busy mark on every way out of an expiry pass.
class PassMark {
 public:
  explicit PassMark(std::atomic<bool>& flag) : m_flag(flag), m_bOwned(!flag.exchange(true)) {}
  ~PassMark() {
    if (m_bOwned) m_flag.store(false);
  }
  PassMark(const PassMark&) = delete;
  PassMark& operator=(const PassMark&) = delete;
  bool Owned() const { return m_bOwned; }

 private:
  std::atomic<bool>& m_flag;
  bool m_bOwned;
};

// The clock never reads past this, so a deadline capped here is still reached.
constexpr uint64_t kMaxDeadlineMs = uint64_t{0xFFFFFFFF} * 1000 + 999;

}  // namespace

CTimer::CTimer(long& err, CTimerList* list, ITimerCB* cb, void* context, unsigned long timerId)
    : m_pCallback(cb), m_pvContext(context), m_ulTimerId(timerId) {
  if (list == nullptr || cb == nullptr) {
    err = EVT_E_INVALIDARG;
    return;
  }
  list->Register(this);
  err = 0;
}

CTimer::~CTimer() {
  if (m_pList != nullptr) m_pList->Unregister(this);
}

long CTimer::StartTimer(unsigned int ms) {
  if (m_pList == nullptr) return EVT_E_NOT_ATTACHED;
  m_pList->Arm(this, ms);
  return 0;
}

long CTimer::StopTimer() {
  if (m_pList == nullptr) return EVT_E_NOT_ATTACHED;
  std::lock_guard<std::mutex> lock(m_pList->m_mutex);
  m_pList->Disarm(this);
  return 0;
}

bool CTimer::IsArmed() const {
  if (m_pList == nullptr) return false;
  std::lock_guard<std::mutex> lock(m_pList->m_mutex);
  return m_bArmed;
}

CTimerList::CTimerList() = default;

CTimerList::~CTimerList() {
  std::lock_guard<std::mutex> lock(m_mutex);
  for (CTimer* timer : m_timers) {
    timer->m_pList = nullptr;
    timer->m_bArmed = false;
  }
  m_timers.clear();
  m_armed.clear();
}

void CTimerList::Register(CTimer* timer) {
  std::lock_guard<std::mutex> lock(m_mutex);
  timer->m_pList = this;
  m_timers.push_back(timer);
}

void CTimerList::Unregister(CTimer* timer) {
  std::lock_guard<std::mutex> lock(m_mutex);
  Disarm(timer);
  m_timers.erase(std::remove(m_timers.begin(), m_timers.end(), timer), m_timers.end());
  timer->m_pList = nullptr;
}

void CTimerList::Arm(CTimer* timer, unsigned int ms) {
  const uint64_t now = SuiteClock::NowMilliseconds();
  const uint64_t deadline = ms > kMaxDeadlineMs - std::min(now, kMaxDeadlineMs) ? kMaxDeadlineMs : now + ms;
  std::lock_guard<std::mutex> lock(m_mutex);
  Disarm(timer);
  timer->m_bArmed = true;
  timer->m_ullDeadlineMs = deadline;
  timer->m_ullArmSequence = m_ullNextSequence++;
  m_armed.emplace(Key{deadline, timer->m_ullArmSequence}, timer);
}

void CTimerList::Disarm(CTimer* timer) {
  if (!timer->m_bArmed) return;
  m_armed.erase(Key{timer->m_ullDeadlineMs, timer->m_ullArmSequence});
  timer->m_bArmed = false;
}

long CTimerList::TimeToExpired(unsigned int& waitMs) {
  const uint64_t now = SuiteClock::NowMilliseconds();
  std::lock_guard<std::mutex> lock(m_mutex);
  if (m_armed.empty()) return EVT_E_NO_TIMER;
  const uint64_t deadline = m_armed.begin()->first.first;
  const uint64_t remaining = deadline > now ? deadline - now : 0;
  waitMs = static_cast<unsigned int>(std::min<uint64_t>(remaining, std::numeric_limits<unsigned int>::max()));
  return 0;
}

long CTimerList::CheckExpired() {
  PassMark mark(m_bChecking);
  if (!mark.Owned()) return EVT_E_BUSY;

  // One reading of the clock decides the whole pass, and the keys taken now decide who runs: a key that an
  // earlier callback removed (stop, re-arm, destruction) is simply not found any more.
  const uint64_t now = SuiteClock::NowMilliseconds();
  std::vector<Key> due;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    for (auto it = m_armed.begin(); it != m_armed.end() && it->first.first <= now; ++it) due.push_back(it->first);
  }
  for (const Key& key : due) {
    ITimerCB* callback = nullptr;
    void* context = nullptr;
    unsigned long id = 0;
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      auto it = m_armed.find(key);
      if (it == m_armed.end()) continue;
      CTimer* timer = it->second;
      Disarm(timer);
      callback = timer->m_pCallback;
      context = timer->m_pvContext;
      id = timer->m_ulTimerId;
    }
    callback->OnTimerExpired(context, id);
  }
  return 0;
}
