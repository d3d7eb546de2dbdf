// Answer buffering of the HTTP session: keeps the first bytes of a body, up to what the reader takes.
#include "SuiteCommon/http/HttpAnswer.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <new>

namespace {

std::atomic<bool> g_failAllocation{false};

}  // namespace

void SetHttpAnswerAllocationFailure(bool fail) { g_failAllocation = fail; }

void HttpAnswer::Reset(size_t limit) {
  std::string().swap(kept_);
  limit_ = limit;
  readOffset_ = 0;
  full_ = false;
  outOfMemory_ = false;
}

size_t HttpAnswer::OnBody(char* data, size_t size, size_t count, void* self) noexcept {
  auto* answer = static_cast<HttpAnswer*>(self);
  const size_t bytes = size * count;
  const size_t taken = std::min(bytes, answer->limit_ - answer->kept_.size());
  try {
    if (taken > 0 && g_failAllocation) throw std::bad_alloc();
    answer->kept_.append(data, taken);
  } catch (...) {
    answer->outOfMemory_ = true;
    return 0;
  }
  if (taken < bytes) {
    // The reader never looks past the limit, so the rest is not worth waiting for.
    answer->full_ = true;
    return 0;
  }
  return bytes;
}

size_t HttpAnswer::Read(char* buffer, size_t capacity) {
  const size_t piece = std::min(capacity, kept_.size() - readOffset_);
  if (piece > 0) memcpy(buffer, kept_.data() + readOffset_, piece);
  readOffset_ += piece;
  return piece;
}
