// Waiting with a bound of real time on what another thread or process does.
#pragma once

#include <chrono>
#include <thread>

// Polls `done` every millisecond until it holds or `bound` has passed; whether it holds.
template <typename Done>
bool WaitFor(Done done, std::chrono::milliseconds bound = std::chrono::seconds(30)) {
  for (const auto until = std::chrono::steady_clock::now() + bound; !done();) {
    if (std::chrono::steady_clock::now() >= until) return done();
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}
