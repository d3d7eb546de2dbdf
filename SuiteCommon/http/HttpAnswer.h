// The part of an HTTP answer's body that the session keeps for its reader: no more than the reader takes.
#pragma once

#include <cstddef>
#include <string>

class HttpAnswer {
 public:
  // Forgets what was kept; at most `limit` bytes are kept from now on.
  void Reset(size_t limit);
  // libcurl's write callback (`self` is the HttpAnswer). Keeps what fits; once the limit is reached, or no
  // memory is left to keep a piece, it ends the transfer by taking nothing. Never throws: an exception must
  // not unwind through libcurl's C frames.
  static size_t OnBody(char* data, size_t size, size_t count, void* self) noexcept;
  // Copies the next at most `capacity` kept bytes into `buffer`; the count copied, 0 at the end.
  size_t Read(char* buffer, size_t capacity);

  // The transfer was ended because the reader will look no further: a complete answer as far as it goes.
  bool Full() const { return full_; }
  // The transfer was ended because a piece could not be kept.
  bool OutOfMemory() const { return outOfMemory_; }

 private:
  std::string kept_;
  size_t limit_ = 0;
  size_t readOffset_ = 0;
  bool full_ = false;
  bool outOfMemory_ = false;
};

// Test seam: while set, keeping a piece of an answer fails as it would on an exhausted heap (std::bad_alloc
// thrown where the buffer grows), so tests see the session and its callers survive it. Never set otherwise.
void SetHttpAnswerAllocationFailure(bool fail);
