// The uploader's own log lines as text, so a test compares a whole log at once.
#pragma once

#include <string>

#include "LogCapture.h"

// "<importance> <failing call> <code>" or "<importance> <text>" per line, in order.
inline std::string OwnLog(const LogCapture& log) {
  std::string out;
  for (const LogRecord& r : log.Records()) {
    if (r.file != "FileUploader") continue;
    out += std::string(1, static_cast<char>(r.importance)) + " " +
           (r.kind == LogRecord::eReturnCode ? r.failingCall + " " + std::to_string(r.code) : r.text) + "\n";
  }
  return out;
}
inline std::string Line(char importance, const std::string& text) {
  return std::string(1, importance) + " " + text + "\n";
}
inline std::string Line(char importance, const std::string& call, long code) {
  return Line(importance, call + " " + std::to_string(code));
}
