// Execution contexts of the host runtime: one per instance id, shared by reference count, each owning the
// event list and timer list that one loop thread serves.
#pragma once

#include "ApiExport.h"
#include "EventCodes.h"
#include "EventList.h"
#include "TimerList.h"

class SC_API CExecutionContext {
 public:
  // The context of `id`, created when it does not exist yet; counts one reference either way. 0, or
  // EVT_E_INVALIDARG for a negative id (instance then unchanged).
  static long CreateMultitonInstance(CExecutionContext*& instance, int id);
  // The existing context of `id` with one more reference, or null when there is none.
  static CExecutionContext* acquireInstance(int id);
  // Drops one reference; the last one destroys the context, its lists and their registrations (events and
  // timers still alive become detached). 0, or EVT_E_NO_INSTANCE.
  static long releaseInstance(int id);
  // releaseInstance(GetInstanceId()); the object may be gone when it returns.
  long release();

  int GetInstanceId() const { return m_iInstanceId; }
  // Valid while the caller holds a reference.
  CEventList* GetEventList() { return &m_eventList; }
  CTimerList* GetTimerList() { return &m_timerList; }

 private:
  explicit CExecutionContext(int id) : m_iInstanceId(id) {}
  ~CExecutionContext() = default;
  CExecutionContext(const CExecutionContext&) = delete;
  CExecutionContext& operator=(const CExecutionContext&) = delete;

  const int m_iInstanceId;
  CEventList m_eventList;
  CTimerList m_timerList;
};
