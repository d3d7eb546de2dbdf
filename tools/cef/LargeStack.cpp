// Threads with large stacks for deep value trees (see LargeStack.h).
#include "LargeStack.h"

#include <pthread.h>

#include <algorithm>

namespace cef {

namespace {

// Measured need of one nesting level across parse, write and destruction is under 100 bytes in an optimised
// build; unoptimised and sanitizer builds take several times that.
constexpr size_t kBytesPerLevel = 1024;
constexpr size_t kBaseStack = size_t{16} << 20;

struct Job {
  const std::function<int()>* work;
  int result;
};

void* RunJob(void* argument) {
  Job* job = static_cast<Job*>(argument);
  job->result = (*job->work)();
  return nullptr;
}

}  // namespace

size_t StackForDepth(size_t depth) { return kBaseStack + depth * kBytesPerLevel; }

size_t DepthBound(std::string_view bytes) {
  return static_cast<size_t>(std::count_if(bytes.begin(), bytes.end(), [](char c) { return c == 'l' || c == 'd'; }));
}

int RunWithStack(size_t stackBytes, const std::function<int()>& work, int fallback) {
  pthread_attr_t attributes;
  if (pthread_attr_init(&attributes) != 0) return fallback;
  Job job{&work, fallback};
  pthread_t thread;
  bool started = pthread_attr_setstacksize(&attributes, stackBytes) == 0 &&
                 pthread_create(&thread, &attributes, RunJob, &job) == 0;
  pthread_attr_destroy(&attributes);
  if (!started) return fallback;
  pthread_join(thread, nullptr);
  return job.result;
}

}  // namespace cef
