// Application log of the host runtime: every module reports through CAppLog, and the host (or a test)
// chooses where the records go by replacing the sink.
#pragma once

#include <functional>
#include <string>

#include "ApiExport.h"

// Importance letters, passed as the log calls' importance argument. (Not LOG_*: <syslog.h> owns those names.)
enum : int {
  APPLOG_ERROR = 'E',
  APPLOG_WARNING = 'W',
  APPLOG_INFO = 'I',
  APPLOG_DEBUG = 'D',
};

// Catalogue message ids of the runtime's message catalogue.
enum : unsigned int {
  MSG_PHONEHOME_STARTED = 6300,
};

struct SC_API LogRecord {
  enum EKind { eDebugMessage, eReturnCode, eCatalogueMessage };

  EKind kind = eDebugMessage;
  int importance = APPLOG_INFO;  // one of the LOG_* letters
  std::string function;
  std::string file;           // the unit's log name, e.g. "Bencode"
  int line = 0;
  std::string text;           // the formatted message; for catalogue messages the catalogue text filled in
  std::string failingCall;    // LogReturnCode only: the callee that failed
  long code = 0;              // LogReturnCode only
  unsigned int messageId = 0; // LogMessage only
};

using LogSink = std::function<void(const LogRecord&)>;

class SC_API CAppLog {
 public:
  // One record per call. `format` is printf-style and may be null.
  static void LogDebugMessage(const char* function, const char* file, int line, int importance,
                              const char* format, ...) __attribute__((format(printf, 5, 6)));
  static void LogReturnCode(const char* function, const char* file, int line, int importance,
                            const char* failingCall, long code, const char* format = nullptr, ...)
      __attribute__((format(printf, 7, 8)));
  // A message of the runtime's catalogue; the arguments fill the catalogue text's conversions.
  static void LogMessage(unsigned int messageId, ...);

  // Replaces the sink for every later record; an empty sink restores the default (standard error).
  // Returns the sink that was installed before. Records reach the sink one at a time, under the log's own lock,
  // so that lines never interleave: a sink must not wait for another thread that may log meanwhile.
  static LogSink SetSink(LogSink sink);
  // Records less important than `importance` (debug < info < warning < error; an unknown letter counts as info)
  // are dropped before they are formatted, whatever the sink. APPLOG_DEBUG, the default, keeps every record.
  static void SetMinimumImportance(int importance);
  // Makes the default sink write to syslog under `ident` instead of standard error.
  static void UseSyslog(const char* ident);
  // The default sink's rendering of a record as one line.
  static std::string FormatRecord(const LogRecord& record);
};
