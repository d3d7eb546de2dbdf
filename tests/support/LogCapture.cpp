// Log capture for tests.
#include "LogCapture.h"

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
  size_t n = 0;
  for (const LogRecord& r : records_) n += r.text == text;
  return n;
}

const LogRecord* LogCapture::Find(const std::string& text) const {
  std::lock_guard<std::mutex> lock(mutex_);
  for (const LogRecord& r : records_) {
    if (r.text == text) return &r;
  }
  return nullptr;
}

const LogRecord* LogCapture::FindCall(const std::string& failingCall) const {
  std::lock_guard<std::mutex> lock(mutex_);
  for (const LogRecord& r : records_) {
    if (r.kind == LogRecord::eReturnCode && r.failingCall == failingCall) return &r;
  }
  return nullptr;
}

std::string LogCapture::Dump() const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::string out;
  for (const LogRecord& r : records_) out += CAppLog::FormatRecord(r) + "\n";
  return out;
}
