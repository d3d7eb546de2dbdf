// Log capture for tests.
#include "LogCapture.h"

#include <algorithm>

LogCapture::LogCapture() {
  previous_ = CAppLog::SetSink([this](const LogRecord& record) {
    std::lock_guard<std::mutex> lock(mutex_);
    records_.push_back(record);
  });
}

LogCapture::~LogCapture() { CAppLog::SetSink(std::move(previous_)); }

std::vector<LogRecord> LogCapture::Records() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return records_;
}

void LogCapture::Clear() {
  std::lock_guard<std::mutex> lock(mutex_);
  records_.clear();
}

size_t LogCapture::Count(const std::string& text) const {
  std::lock_guard<std::mutex> lock(mutex_);
  return std::count_if(records_.begin(), records_.end(), [&](const LogRecord& r) { return r.text == text; });
}

const LogRecord* LogCapture::Find(const std::string& text) const {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = std::find_if(records_.begin(), records_.end(), [&](const LogRecord& r) { return r.text == text; });
  return it == records_.end() ? nullptr : &*it;
}

const LogRecord* LogCapture::FindCall(const std::string& failingCall) const {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = std::find_if(records_.begin(), records_.end(), [&](const LogRecord& r) {
    return r.kind == LogRecord::eReturnCode && r.failingCall == failingCall;
  });
  return it == records_.end() ? nullptr : &*it;
}

std::string LogCapture::Lines(const std::string& file) const {
  std::string out;
  for (const LogRecord& r : Records()) {
    if (!file.empty() && r.file != file) continue;
    out += std::string(1, static_cast<char>(r.importance)) + " " +
           (r.kind == LogRecord::eReturnCode ? r.failingCall + " " + std::to_string(r.code) : r.text) + "\n";
  }
  return out;
}

std::string LogCapture::Dump() const {
  std::string out;
  for (const LogRecord& r : Records()) out += CAppLog::FormatRecord(r) + "\n";
  return out;
}
