// Process-wide HTTPS settings of the runtime, read by every new session and certificate helper.
#include "RuntimeConfig.h"

#include <mutex>

namespace {

constexpr unsigned long kDefaultRequestTimeLimitMs = 1800000;

struct Settings {
  std::mutex mutex;
  std::string caFile;
  std::vector<std::string> connectTo;
  unsigned long requestTimeLimitMs = kDefaultRequestTimeLimitMs;
};

Settings& Current() {
  static Settings* settings = new Settings;  // never destroyed: sessions may still read it during exit
  return *settings;
}

}  // namespace

namespace SuiteRuntime {

void SetTrustedCAFile(const std::string& path) {
  std::lock_guard<std::mutex> lock(Current().mutex);
  Current().caFile = path;
}

std::string GetTrustedCAFile() {
  std::lock_guard<std::mutex> lock(Current().mutex);
  return Current().caFile;
}

void SetConnectTo(const std::vector<std::string>& entries) {
  std::lock_guard<std::mutex> lock(Current().mutex);
  Current().connectTo = entries;
}

std::vector<std::string> GetConnectTo() {
  std::lock_guard<std::mutex> lock(Current().mutex);
  return Current().connectTo;
}

void SetRequestTimeLimitMs(unsigned long milliseconds) {
  std::lock_guard<std::mutex> lock(Current().mutex);
  Current().requestTimeLimitMs = milliseconds != 0 ? milliseconds : kDefaultRequestTimeLimitMs;
}

unsigned long GetRequestTimeLimitMs() {
  std::lock_guard<std::mutex> lock(Current().mutex);
  return Current().requestTimeLimitMs;
}

}  // namespace SuiteRuntime
