// Result codes of the runtime's execution contexts, events, timers and clock waits; 0 is success.
#pragma once

// Null list or callback, unknown event type, negative instance id.
constexpr long EVT_E_INVALIDARG = 0xFE010002L;
// The event or timer is not registered: its construction failed or its list was destroyed before it.
constexpr long EVT_E_NOT_ATTACHED = 0xFE010003L;
// A release named an instance id that has no live execution context.
constexpr long EVT_E_NO_INSTANCE = 0xFE010004L;
// CTimerList::TimeToExpired: no timer of the list is armed, so there is no wait to compute.
constexpr long EVT_E_NO_TIMER = 0xFE010005L;
// A wait or an expiry pass of this list is already running (another thread, or re-entered from a handler).
constexpr long EVT_E_BUSY = 0xFE010007L;
// CEventList::WaitOnEvents: the wait ended on the clock with no event signaled.
constexpr long EVT_E_TIMEOUT = 0xFE01000CL;
// What a caller reports when acquireInstance hands back no context (the smart pointer over the instance
// found none): the instance it expected has not been created or was already released.
constexpr long EXECCTX_E_NO_INSTANCE = 0xFE8D000AL;
