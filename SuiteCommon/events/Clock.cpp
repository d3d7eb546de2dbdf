// The runtime's clock in its three modes, and the waits that event lists make on it.
#include "Clock.h"

#include <time.h>

#include <algorithm>
#include <cmath>
#include <condition_variable>
#include <mutex>

#include "ClockWait.h"

namespace {

using SuiteClock::EMode;
using SteadyClock = std::chrono::steady_clock;

// The clock never reads past the last second that GetCurrentTimeSeconds can express, so every deadline and
// every reading fits the 32-bit seconds the rest of the suite works in.
constexpr uint64_t kMaxClockMs = uint64_t{0xFFFFFFFF} * 1000 + 999;
// A real wait longer than this is cut short (a time-out the loop simply repeats), which keeps the absolute
// deadline handed to the condition variable far from the steady clock's range limit.
constexpr auto kMaxRealWait = std::chrono::hours(24 * 365);

struct ClockState {
  std::mutex mutex;
  std::condition_variable wake;    // event waits sleep here
  std::condition_variable parked;  // WaitUntilParked sleeps here, apart, so parking never wakes other loops
  EMode mode = EMode::eReal;
  double factor = 1.0;
  uint64_t scaledStartMs = 0;
  SteadyClock::time_point scaledStartReal;
  uint64_t simulatedMs = 0;
  bool held = false;
  uint64_t holdMs = 0;
  uint64_t modeEpoch = 0;  // bumped by every mode change and every setting of the time: waits in progress end
  uint64_t holdEpoch = 0;  // bumped by every hold change: earlier parks stop counting
  unsigned int parkedWaits = 0;
};

ClockState& State() {
  static ClockState* state = new ClockState;  // never destroyed: loops may still wait during process exit
  return *state;
}

uint64_t CapAdd(uint64_t base, uint64_t step) {
  return step > kMaxClockMs - std::min(base, kMaxClockMs) ? kMaxClockMs : base + step;
}

uint64_t RealNowMs() {
  timespec ts{};
  clock_gettime(CLOCK_REALTIME, &ts);
  if (ts.tv_sec < 0) return 0;
  return std::min(kMaxClockMs, static_cast<uint64_t>(ts.tv_sec) * 1000 + static_cast<uint64_t>(ts.tv_nsec) / 1000000);
}

uint64_t ScaledNowMs(const ClockState& s) {
  const double realMs = std::chrono::duration<double, std::milli>(SteadyClock::now() - s.scaledStartReal).count();
  const double clockMs = realMs * s.factor;
  // Compare in floating point first: converting an out-of-range double to an integer is undefined.
  if (!(clockMs < static_cast<double>(kMaxClockMs))) return kMaxClockMs;
  return CapAdd(s.scaledStartMs, static_cast<uint64_t>(std::max(0.0, clockMs)));
}

uint64_t NowLocked(const ClockState& s) {
  switch (s.mode) {
    case EMode::eScaled: return ScaledNowMs(s);
    case EMode::eSimulated: return s.simulatedMs;
    case EMode::eReal: break;
  }
  return RealNowMs();
}

void ChangeMode(ClockState& s, EMode mode) {
  s.mode = mode;
  s.held = false;
  ++s.modeEpoch;
  ++s.holdEpoch;
  s.parkedWaits = 0;
}

// Real and scaled waits sleep on the steady clock, so a wall-clock step during a wait neither cuts it short
// nor stretches it; the timers compare against the wall clock once the wait is over.
bool WaitReal(ClockState& s, std::unique_lock<std::mutex>& lock, unsigned int waitMs,
              const std::function<bool()>& take, unsigned int& blocked) {
  const uint64_t epoch = s.modeEpoch;
  const double realMs = waitMs / (s.mode == EMode::eScaled ? s.factor : 1.0);
  const auto wait = std::min<std::chrono::duration<double, std::milli>>(
      std::chrono::duration<double, std::milli>(realMs), kMaxRealWait);
  const auto deadline = SteadyClock::now() + std::chrono::ceil<SteadyClock::duration>(wait);
  for (;;) {
    if (take()) return true;
    if (s.modeEpoch != epoch || SteadyClock::now() >= deadline) return false;
    ++blocked;
    s.wake.wait_until(lock, deadline);
    --blocked;
  }
}

// A simulated wait with nothing to deliver jumps time to its deadline, or as far as the hold allows and parks
// there until an event, a hold change or a mode change wakes it.
bool WaitSimulated(ClockState& s, std::unique_lock<std::mutex>& lock, unsigned int waitMs,
                   const std::function<bool()>& take, unsigned int& blocked) {
  const uint64_t epoch = s.modeEpoch;
  const uint64_t deadline = CapAdd(s.simulatedMs, waitMs);
  for (;;) {
    if (take()) return true;
    if (s.modeEpoch != epoch) return false;
    uint64_t target = deadline;
    if (s.held) target = std::min(target, std::max(s.holdMs, s.simulatedMs));
    s.simulatedMs = std::max(s.simulatedMs, target);
    if (s.simulatedMs >= deadline) return false;

    const uint64_t holdEpoch = s.holdEpoch;
    ++s.parkedWaits;
    s.parked.notify_all();
    ++blocked;
    s.wake.wait(lock);
    --blocked;
    if (s.holdEpoch == holdEpoch) --s.parkedWaits;
  }
}

}  // namespace

unsigned int GetCurrentTimeSeconds() { return static_cast<unsigned int>(SuiteClock::NowMilliseconds() / 1000); }

namespace SuiteClock {

void UseRealTime() {
  ClockState& s = State();
  {
    std::lock_guard<std::mutex> lock(s.mutex);
    ChangeMode(s, EMode::eReal);
  }
  s.wake.notify_all();
}

bool UseScaled(double factor) {
  if (!std::isfinite(factor) || factor <= 0.0) return false;
  ClockState& s = State();
  {
    std::lock_guard<std::mutex> lock(s.mutex);
    ChangeMode(s, EMode::eScaled);
    s.factor = factor;
    s.scaledStartMs = RealNowMs();
    s.scaledStartReal = SteadyClock::now();
  }
  s.wake.notify_all();
  return true;
}

void UseSimulated(uint32_t startSeconds) {
  ClockState& s = State();
  {
    std::lock_guard<std::mutex> lock(s.mutex);
    ChangeMode(s, EMode::eSimulated);
    s.simulatedMs = uint64_t{startSeconds} * 1000;
  }
  s.wake.notify_all();
}

EMode CurrentMode() {
  ClockState& s = State();
  std::lock_guard<std::mutex> lock(s.mutex);
  return s.mode;
}

uint64_t NowMilliseconds() {
  ClockState& s = State();
  std::lock_guard<std::mutex> lock(s.mutex);
  return NowLocked(s);
}

bool HoldAt(uint32_t moment) {
  ClockState& s = State();
  {
    std::lock_guard<std::mutex> lock(s.mutex);
    if (s.mode != EMode::eSimulated) return false;
    s.held = true;
    s.holdMs = uint64_t{moment} * 1000;
    ++s.holdEpoch;
    s.parkedWaits = 0;
  }
  s.wake.notify_all();
  return true;
}

void ReleaseHold() {
  ClockState& s = State();
  {
    std::lock_guard<std::mutex> lock(s.mutex);
    s.held = false;
    ++s.holdEpoch;
    s.parkedWaits = 0;
  }
  s.wake.notify_all();
}

bool WaitUntilParked(std::chrono::milliseconds realBound) {
  ClockState& s = State();
  std::unique_lock<std::mutex> lock(s.mutex);
  return s.parked.wait_for(lock, realBound, [&s] { return s.parkedWaits > 0; });
}

bool AdvanceBy(std::chrono::milliseconds step) {
  ClockState& s = State();
  std::lock_guard<std::mutex> lock(s.mutex);
  if (s.mode != EMode::eSimulated || step.count() < 0) return false;
  uint64_t target = CapAdd(s.simulatedMs, static_cast<uint64_t>(step.count()));
  if (s.held) target = std::min(target, std::max(s.holdMs, s.simulatedMs));
  s.simulatedMs = std::max(s.simulatedMs, target);
  return true;
}

bool SetSimulatedTime(uint32_t moment) {
  ClockState& s = State();
  {
    std::lock_guard<std::mutex> lock(s.mutex);
    if (s.mode != EMode::eSimulated) return false;
    s.simulatedMs = uint64_t{moment} * 1000;
    if (s.held) s.holdMs = s.simulatedMs;
    // A wait's deadline was reckoned from the old time; ending it makes the loop reckon again.
    ++s.modeEpoch;
    ++s.holdEpoch;
    s.parkedWaits = 0;
  }
  s.wake.notify_all();
  return true;
}

namespace detail {

bool WaitFor(unsigned int waitMs, const std::function<bool()>& take, unsigned int& blocked) {
  ClockState& s = State();
  std::unique_lock<std::mutex> lock(s.mutex);
  if (s.mode == EMode::eSimulated) return WaitSimulated(s, lock, waitMs, take, blocked);
  return WaitReal(s, lock, waitMs, take, blocked);
}

void Notify(const std::function<void()>& update) {
  ClockState& s = State();
  {
    std::lock_guard<std::mutex> lock(s.mutex);
    if (update) update();
  }
  s.wake.notify_all();
}

}  // namespace detail
}  // namespace SuiteClock
