// Events and the event list's wait on the runtime's clock.
#include "EventList.h"

#include <algorithm>

#include "ClockWait.h"

namespace {

// Clears the list's busy mark on every way out of a wait.
class WaitingMark {
 public:
  explicit WaitingMark(std::atomic<bool>& flag) : m_flag(flag), m_bOwned(!flag.exchange(true)) {}
  ~WaitingMark() {
    if (m_bOwned) m_flag.store(false);
  }
  WaitingMark(const WaitingMark&) = delete;
  WaitingMark& operator=(const WaitingMark&) = delete;
  bool Owned() const { return m_bOwned; }

 private:
  std::atomic<bool>& m_flag;
  bool m_bOwned;
};

}  // namespace

CCEvent::CCEvent(long& err, CEventList* list, int eventType, IEventCB* cb, void* context, unsigned long eventId,
                 int initialState, int handleType, const char* name)
    : m_pCallback(cb),
      m_pvContext(context),
      m_ulEventId(eventId),
      m_iEventType(eventType),
      m_iHandleType(handleType),
      m_strName(name != nullptr ? name : ""),
      m_bSignaled(initialState != 0) {
  if (list == nullptr || (eventType != EVENT_TYPE_MANUAL_RESET && eventType != EVENT_TYPE_AUTO_RESET)) {
    err = EVT_E_INVALIDARG;
    return;
  }
  list->Register(this);
  err = 0;
}

CCEvent::~CCEvent() {
  if (m_pList != nullptr) m_pList->Unregister(this);
}

long CCEvent::SetEvent(bool pulse) {
  CEventList* list = m_pList;
  if (list == nullptr) return EVT_E_NOT_ATTACHED;
  if (!pulse) {
    {
      std::lock_guard<std::mutex> lock(list->m_mutex);
      m_bSignaled = true;
    }
    SuiteClock::detail::Notify(nullptr);
    return 0;
  }
  // Deciding under the clock's lock means "blocked right now" cannot change while we look.
  SuiteClock::detail::Notify([this, list] {
    if (list->m_uiBlocked == 0) return;
    std::lock_guard<std::mutex> lock(list->m_mutex);
    m_bSignaled = true;
  });
  return 0;
}

long CCEvent::ResetEvent() {
  CEventList* list = m_pList;
  if (list == nullptr) return EVT_E_NOT_ATTACHED;
  std::lock_guard<std::mutex> lock(list->m_mutex);
  m_bSignaled = false;
  return 0;
}

CEventList::CEventList() = default;

CEventList::~CEventList() {
  std::lock_guard<std::mutex> lock(m_mutex);
  for (CCEvent* event : m_events) event->m_pList = nullptr;
  m_events.clear();
}

void CEventList::Register(CCEvent* event) {
  std::lock_guard<std::mutex> lock(m_mutex);
  event->m_pList = this;
  event->m_ullRegistration = m_ullNextRegistration++;
  m_events.push_back(event);
}

void CEventList::Unregister(CCEvent* event) {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_events.erase(std::remove(m_events.begin(), m_events.end(), event), m_events.end());
  event->m_pList = nullptr;
}

bool CEventList::TakeSignaled(bool dispatchAll, std::vector<Signal>& taken) {
  std::lock_guard<std::mutex> lock(m_mutex);
  for (CCEvent* event : m_events) {
    if (!event->m_bSignaled) continue;
    if (event->m_iEventType == EVENT_TYPE_AUTO_RESET) event->m_bSignaled = false;
    taken.push_back({event, event->m_ullRegistration});
    if (!dispatchAll) break;
  }
  return !taken.empty();
}

// A handler may destroy another event of the same pass; such an event is skipped, never touched.
void CEventList::Deliver(const Signal& signal) {
  IEventCB* callback = nullptr;
  void* context = nullptr;
  unsigned long id = 0;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = std::find(m_events.begin(), m_events.end(), signal.event);
    if (it == m_events.end() || (*it)->m_ullRegistration != signal.registration) return;
    callback = signal.event->m_pCallback;
    context = signal.event->m_pvContext;
    id = signal.event->m_ulEventId;
  }
  if (callback != nullptr) callback->OnEventSignaled(context, id);
}

long CEventList::WaitOnEvents(unsigned int waitMs, bool dispatchAll) {
  WaitingMark mark(m_bWaiting);
  if (!mark.Owned()) return EVT_E_BUSY;
  ++m_ullWaitCount;
  std::vector<Signal> taken;
  if (!SuiteClock::detail::WaitFor(waitMs, [&] { return TakeSignaled(dispatchAll, taken); }, m_uiBlocked)) {
    return EVT_E_TIMEOUT;
  }
  for (const Signal& signal : taken) Deliver(signal);
  return 0;
}
