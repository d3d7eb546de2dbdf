// The runtime's application log: formats each call into a record and hands it to the current sink.
#include "AppLog.h"

#include <syslog.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <vector>

namespace {

// The runtime's message catalogue. The conversions of each text are the contract with its callers.
struct CatalogueEntry {
  unsigned int id;
  const char* text;
};
constexpr CatalogueEntry kCatalogue[] = {
    {MSG_PHONEHOME_STARTED,
     "Customer Experience Feedback module %s: machine ID %s, customer ID %s, server %s, include crash "
     "report %s, crash check interval %u s, feedback interval %u s, sequence number %u"},
};

struct SinkState {
  std::mutex mutex;
  LogSink sink;
  bool syslog = false;
};

SinkState& State() {
  static SinkState* state = new SinkState;  // never destroyed: records may arrive during process exit
  return *state;
}

std::string FormatV(const char* format, va_list args) {
  if (format == nullptr) return {};
  char small[512];
  va_list copy;
  va_copy(copy, args);
  int n = vsnprintf(small, sizeof small, format, copy);
  va_end(copy);
  if (n < 0) return format;
  if (static_cast<size_t>(n) < sizeof small) return std::string(small, static_cast<size_t>(n));
  std::vector<char> big(static_cast<size_t>(n) + 1);
  vsnprintf(big.data(), big.size(), format, args);
  return std::string(big.data(), static_cast<size_t>(n));
}

int SyslogPriority(int importance) {
  switch (importance) {
    case APPLOG_ERROR: return LOG_ERR;
    case APPLOG_WARNING: return LOG_WARNING;
    case APPLOG_DEBUG: return LOG_DEBUG;
    default: return LOG_INFO;
  }
}

int Rank(int importance) {
  switch (importance) {
    case APPLOG_DEBUG: return 0;
    case APPLOG_WARNING: return 2;
    case APPLOG_ERROR: return 3;
    default: return 1;
  }
}

std::atomic<int> g_minimumRank{0};

bool Wanted(int importance) { return Rank(importance) >= g_minimumRank.load(std::memory_order_relaxed); }

void Deliver(const LogRecord& record) {
  SinkState& state = State();
  std::lock_guard<std::mutex> lock(state.mutex);
  if (state.sink) {
    state.sink(record);
    return;
  }
  std::string line = CAppLog::FormatRecord(record);
  if (state.syslog) {
    syslog(SyslogPriority(record.importance), "%s", line.c_str());
  } else {
    line += '\n';
    fwrite(line.data(), 1, line.size(), stderr);
  }
}

}  // namespace

void CAppLog::LogDebugMessage(const char* function, const char* file, int line, int importance,
                              const char* format, ...) {
  if (!Wanted(importance)) return;
  LogRecord record;
  record.kind = LogRecord::eDebugMessage;
  record.importance = importance;
  record.function = function ? function : "";
  record.file = file ? file : "";
  record.line = line;
  va_list args;
  va_start(args, format);
  record.text = FormatV(format, args);
  va_end(args);
  Deliver(record);
}

void CAppLog::LogReturnCode(const char* function, const char* file, int line, int importance,
                            const char* failingCall, long code, const char* format, ...) {
  if (!Wanted(importance)) return;
  LogRecord record;
  record.kind = LogRecord::eReturnCode;
  record.importance = importance;
  record.function = function ? function : "";
  record.file = file ? file : "";
  record.line = line;
  record.failingCall = failingCall ? failingCall : "";
  record.code = code;
  va_list args;
  va_start(args, format);
  record.text = FormatV(format, args);
  va_end(args);
  Deliver(record);
}

void CAppLog::LogMessage(unsigned int messageId, ...) {
  if (!Wanted(APPLOG_INFO)) return;
  LogRecord record;
  record.kind = LogRecord::eCatalogueMessage;
  record.importance = APPLOG_INFO;
  record.messageId = messageId;
  const char* text = nullptr;
  for (const CatalogueEntry& entry : kCatalogue) {
    if (entry.id == messageId) text = entry.text;
  }
  if (text != nullptr) {
    va_list args;
    va_start(args, messageId);
    record.text = FormatV(text, args);
    va_end(args);
  } else {
    record.text = "message " + std::to_string(messageId);
  }
  Deliver(record);
}

LogSink CAppLog::SetSink(LogSink sink) {
  SinkState& state = State();
  std::lock_guard<std::mutex> lock(state.mutex);
  LogSink previous = std::move(state.sink);
  state.sink = std::move(sink);
  return previous;
}

void CAppLog::SetMinimumImportance(int importance) {
  g_minimumRank.store(Rank(importance), std::memory_order_relaxed);
}

void CAppLog::UseSyslog(const char* ident) {
  SinkState& state = State();
  std::lock_guard<std::mutex> lock(state.mutex);
  openlog(ident, LOG_PID, LOG_DAEMON);
  state.syslog = true;
}

std::string CAppLog::FormatRecord(const LogRecord& record) {
  char head[64];
  snprintf(head, sizeof head, "%c ", static_cast<char>(record.importance));
  std::string line = head;
  if (record.kind == LogRecord::eCatalogueMessage) {
    snprintf(head, sizeof head, "[%u] ", record.messageId);
    return line + head + record.text;
  }
  line += record.file + ":" + std::to_string(record.line) + " " + record.function + ": ";
  if (record.kind == LogRecord::eReturnCode) {
    snprintf(head, sizeof head, " failed with 0x%08lX", static_cast<unsigned long>(record.code) & 0xFFFFFFFFUL);
    line += record.failingCall + head;
    if (!record.text.empty()) line += ": ";
  }
  return line + record.text;
}
