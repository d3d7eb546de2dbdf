// Events of the host runtime. One loop thread waits on an event list for the next signal or for the end of a
// wait on the runtime's clock; any thread may signal an event of the list.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "ApiExport.h"
#include "EventCodes.h"

// Receives the signals of an event, on the thread that runs CEventList::WaitOnEvents.
class SC_API IEventCB {
 public:
  virtual void OnEventSignaled(void* context, unsigned long eventId) = 0;
  virtual ~IEventCB() = default;
};

// Event types.
enum : int {
  EVENT_TYPE_MANUAL_RESET = 0,  // stays signaled, and is delivered by every wait, until ResetEvent
  EVENT_TYPE_AUTO_RESET = 1,    // delivering the signal clears it
};
// Handle type of an event with no OS handle behind it; no event of this runtime exposes one.
enum : int { EVENT_HANDLE_NONE = -1 };

class CEventList;

class SC_API CCEvent {
 public:
  // Registers the event with `list`. cb and context are borrowed; cb may be null for an event that only ends a
  // wait. initialState non-zero creates it signaled. handleType is recorded, name (may be null) is copied.
  // err: 0, or EVT_E_INVALIDARG (null list, unknown type); a failed event stays unregistered.
  CCEvent(long& err, CEventList* list, int eventType, IEventCB* cb, void* context, unsigned long eventId,
          int initialState, int handleType, const char* name);
  // Unregisters; must not race with a SetEvent on this object.
  ~CCEvent();
  CCEvent(const CCEvent&) = delete;
  CCEvent& operator=(const CCEvent&) = delete;

  // Safe from any thread. pulse false: the signal stays until a wait delivers it, so a signal sent while the
  // loop runs a handler is seen by its next wait. pulse true: the signal reaches a loop that is blocked in
  // WaitOnEvents at this moment and is dropped when none is. 0, or EVT_E_NOT_ATTACHED.
  long SetEvent(bool pulse);
  long ResetEvent();

  unsigned long GetEventId() const { return m_ulEventId; }
  int GetHandleType() const { return m_iHandleType; }
  const std::string& GetName() const { return m_strName; }

 private:
  friend class CEventList;

  CEventList* m_pList = nullptr;  // borrowed; cleared when the list goes first
  IEventCB* m_pCallback;          // borrowed
  void* m_pvContext;              // borrowed, handed back untouched
  unsigned long m_ulEventId;
  int m_iEventType;
  int m_iHandleType;
  std::string m_strName;
  uint64_t m_ullRegistration = 0;  // tells a live event from a new one at a reused address
  bool m_bSignaled = false;        // guarded by the list's mutex
};

class SC_API CEventList {
 public:
  CEventList();
  // Detaches the events still registered; they then report EVT_E_NOT_ATTACHED.
  ~CEventList();
  CEventList(const CEventList&) = delete;
  CEventList& operator=(const CEventList&) = delete;

  // Waits until an event of the list is signaled or waitMs milliseconds pass on the runtime's clock.
  // Delivers the signaled events, in registration order, to their callbacks on this thread: all of them when
  // dispatchAll is set, else the first (the others stay signaled for the next wait). Returns 0 when events
  // were delivered, EVT_E_TIMEOUT when the wait ended without one (also when the clock's mode changed during
  // the wait), EVT_E_BUSY when a wait on this list is already running.
  long WaitOnEvents(unsigned int waitMs, bool dispatchAll);
  // WaitOnEvents calls made on this list so far, busy ones excepted: one per pass of the loop that serves it,
  // so a host or a test can see how often a loop wakes (an idle loop should pass once per timer expiry).
  uint64_t GetWaitCount() const { return m_ullWaitCount.load(); }

 private:
  friend class CCEvent;
  struct Signal {
    CCEvent* event;
    uint64_t registration;
  };

  void Register(CCEvent* event);
  void Unregister(CCEvent* event);
  bool TakeSignaled(bool dispatchAll, std::vector<Signal>& taken);
  void Deliver(const Signal& signal);

  std::mutex m_mutex;
  std::vector<CCEvent*> m_events;  // registration order; guarded by m_mutex
  uint64_t m_ullNextRegistration = 1;
  unsigned int m_uiBlocked = 0;  // waits blocked on the clock right now; guarded by the clock's lock
  std::atomic<bool> m_bWaiting{false};
  std::atomic<uint64_t> m_ullWaitCount{0};
};
