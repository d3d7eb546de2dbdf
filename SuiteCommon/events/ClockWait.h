// How the runtime's event waits sleep on its clock; private to the events component.
#pragma once

#include <functional>

namespace SuiteClock {
namespace detail {

// Waits for at most waitMs milliseconds of the runtime's clock until take() returns true; take() runs under
// the clock's lock, so a signal published through Notify() is never missed. `blocked` (guarded by the same
// lock) counts this call while it sleeps. True when take() succeeded, false on time-out or mode change.
bool WaitFor(unsigned int waitMs, const std::function<bool()>& take, unsigned int& blocked);

// Runs `update` (may be empty) under the clock's lock, then wakes every wait so it calls its take() again.
void Notify(const std::function<void()>& update);

}  // namespace detail
}  // namespace SuiteClock
