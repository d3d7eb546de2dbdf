// The uploader's log lines as LogCapture::Lines("FileUploader") gives them.
#pragma once

#include <string>

inline std::string Line(char importance, const std::string& text) {
  return std::string(1, importance) + " " + text + "\n";
}
inline std::string Line(char importance, const std::string& call, long code) {
  return Line(importance, call + " " + std::to_string(code));
}
