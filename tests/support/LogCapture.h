// Captures every log record for the lifetime of the object, so a test can assert on what was logged.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "AppLog.h"

class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<LogRecord> Records() const;
  void Clear();
  // Number of records whose text equals `text` exactly.
  size_t Count(const std::string& text) const;
  bool Has(const std::string& text) const { return Count(text) > 0; }
  // The first record whose text equals `text`, or null; the pointer is valid until the next log call.
  const LogRecord* Find(const std::string& text) const;
  // The first return-code record naming `failingCall`, or null.
  const LogRecord* FindCall(const std::string& failingCall) const;
  // One line a record of `file` (of every file when empty), in order: "<importance> <text>", or for a return
  // code "<importance> <failing call> <code>"; so a test compares a unit's whole log at once.
  std::string Lines(const std::string& file = "") const;
  // All texts, one per line, for failure messages.
  std::string Dump() const;

 private:
  mutable std::mutex mutex_;
  std::vector<LogRecord> records_;
  LogSink previous_;
};
