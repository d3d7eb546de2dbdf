// The runtime's one clock. GetCurrentTimeSeconds, timer deadlines and event waits all read it, so a host can
// run the schedule faster (scaled) and a test can run it deterministically (simulated, optionally held).
#pragma once

#include <chrono>
#include <cstdint>

#include "ApiExport.h"

// Seconds since the Unix epoch on the runtime's clock, saturated at 0xFFFFFFFF.
SC_API unsigned int GetCurrentTimeSeconds();

namespace SuiteClock {

enum class EMode { eReal, eScaled, eSimulated };

// Switching the mode ends every wait in progress with a time-out and drops any hold. Armed timers keep their
// absolute deadlines, so a host chooses the mode before it arms timers.
SC_API void UseRealTime();
// Time = the real time of this call + factor x the real time elapsed since. False (clock unchanged) unless
// factor is finite and positive.
SC_API bool UseScaled(double factor);
// Time stands at startSeconds and moves only when an event wait has nothing to deliver: such a wait advances
// time at once to its own deadline (or to the hold, see HoldAt). Timer handlers and the work they start run in
// real time while simulated time stands still. Meant for one loop; several loops share the one simulated time.
SC_API void UseSimulated(uint32_t startSeconds);
SC_API EMode CurrentMode();
// Milliseconds since the Unix epoch on the runtime's clock, at most 0xFFFFFFFF seconds and 999 ms.
SC_API uint64_t NowMilliseconds();

// Simulated clock only (false otherwise): time runs up to `moment` (its first millisecond) and no further. A
// wait whose deadline lies beyond it parks the loop there, every timer due at or before the moment having run;
// a signaled event still wakes it. Moving the hold (another HoldAt, ReleaseHold) lets parked loops go on.
SC_API bool HoldAt(uint32_t moment);
SC_API void ReleaseHold();
// Waits, for at most realBound of real time, until a loop is parked at the current hold. A park that happened
// before the latest HoldAt does not count. False when the bound passes first (nothing parks in real or scaled
// mode, nor with no hold).
SC_API bool WaitUntilParked(std::chrono::milliseconds realBound);
// Simulated clock only (false otherwise): moves time forward by `step`, stopping at the hold when one is set.
SC_API bool AdvanceBy(std::chrono::milliseconds step);
// Simulated clock only (false otherwise): sets time to `moment`, earlier or later, as when a machine's clock is
// set; a held clock is held at `moment`. Waits in progress end with a time-out, so a loop measures its timers'
// absolute deadlines against the new time at once: those now past run, the others are further off or nearer.
// A park before the change does not count for WaitUntilParked.
SC_API bool SetSimulatedTime(uint32_t moment);

}  // namespace SuiteClock
