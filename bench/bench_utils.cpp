// Wildcard matching: time and peak memory of MatchPattern on a file name against a glob, and on the worst case
// the matcher has to fill completely, a long text against as many stars.
#include <malloc.h>

#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdlib>
#include <new>
#include <string>

#include "Utils/Utils.h"

// ---- Allocation accounting: the most bytes held at once while counting is on --------------------------------
namespace {
std::atomic<bool> g_counting{false};
std::atomic<long> g_held{0}, g_peak{0};

void Count(long delta) {
  if (!g_counting.load(std::memory_order_relaxed)) return;
  long held = g_held.fetch_add(delta) + delta;
  for (long peak = g_peak.load(); held > peak && !g_peak.compare_exchange_weak(peak, held);) {
  }
}
}  // namespace

void* operator new(size_t size) {
  void* p = malloc(size ? size : 1);
  if (p == nullptr) throw std::bad_alloc();
  Count(static_cast<long>(malloc_usable_size(p)));
  return p;
}
void operator delete(void* p) noexcept {
  if (p != nullptr) Count(-static_cast<long>(malloc_usable_size(p)));
  free(p);
}
void operator delete(void* p, size_t) noexcept { operator delete(p); }

namespace {

// Reports the peak bytes that one call of `match` allocates, on top of what the case already holds.
template <class Fn>
void ReportPeak(benchmark::State& state, Fn match) {
  g_held = 0;
  g_peak = 0;
  g_counting = true;
  benchmark::DoNotOptimize(match());
  g_counting = false;
  state.counters["peak_KB"] = static_cast<double>(g_peak.load()) / 1024.0;
}

void StarsAgainstText(benchmark::State& state) {
  const std::string text(static_cast<size_t>(state.range(0)), 'a');
  const std::string pattern(static_cast<size_t>(state.range(0)), '*');
  for (auto _ : state) {
    bool matched = OvRuntime::Utils::MatchPattern(text, pattern);
    if (!matched) state.SkipWithError("stars must match any text");
    benchmark::DoNotOptimize(matched);
  }
  state.counters["cells"] = benchmark::Counter(static_cast<double>(state.range(0)) * static_cast<double>(state.range(0)),
                                               benchmark::Counter::kIsIterationInvariantRate);
  ReportPeak(state, [&] { return OvRuntime::Utils::MatchPattern(text, pattern); });
}
BENCHMARK(StarsAgainstText)->Arg(1000)->Arg(20000)->Unit(benchmark::kMillisecond);

void DumpNameAgainstGlob(benchmark::State& state) {
  const std::string text = "ovfeedback-host.12345.1700000000.dmp", pattern = "ovfeedback-*.*.dmp";
  for (auto _ : state) benchmark::DoNotOptimize(OvRuntime::Utils::MatchPattern(text, pattern));
  ReportPeak(state, [&] { return OvRuntime::Utils::MatchPattern(text, pattern); });
}
BENCHMARK(DumpNameAgainstGlob);

}  // namespace

BENCHMARK_MAIN();
