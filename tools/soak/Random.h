// The soak's one source of chance: a seeded 64-bit generator with distributions of our own, so that a seed
// draws the same schedule with any standard library.
#pragma once

#include <cstdint>
#include <random>

namespace soak {

class Random {
 public:
  explicit Random(uint64_t seed) : m_engine(seed) {}

  // Uniform in [0, bound); 0 for a bound of 0. Rejection keeps it unbiased.
  uint64_t Below(uint64_t bound) {
    if (bound == 0) return 0;
    const uint64_t limit = UINT64_MAX - UINT64_MAX % bound;
    uint64_t value;
    do value = m_engine(); while (value >= limit);
    return value % bound;
  }
  // Uniform in [low, high].
  uint64_t Between(uint64_t low, uint64_t high) { return low + Below(high - low + 1); }
  // True with probability `p`, resolved to a millionth.
  bool Chance(double p) { return Below(1000000) < static_cast<uint64_t>(p * 1000000.0); }
  template <typename T, size_t N>
  const T& Pick(const T (&items)[N]) {
    return items[Below(N)];
  }

 private:
  std::mt19937_64 m_engine;  // its output sequence is fixed by the standard; its distributions are not
};

}  // namespace soak
