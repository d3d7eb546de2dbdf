// inotify on the outbound directory, the sequence number rule, the history file and /proc/self.
#include "Observe.h"

#include <dirent.h>
#include <fcntl.h>
#include <malloc.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

#include "BuildConfig.h"
#include "PhoneHome/PhoneHomeAgent.h"

#if defined(__SANITIZE_ADDRESS__)
#define OVF_SOAK_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define OVF_SOAK_ASAN 1
#endif
#endif

#ifdef OVF_SOAK_ASAN
// The sanitizer runtime's count of live heap bytes (its allocator interface; GCC installs no header for it).
extern "C" size_t __sanitizer_get_current_allocated_bytes();
#endif

namespace soak {
namespace {

const char kFeedbackPrefix[] = "feedback_data";

// A number of the history's form: all of the text, decimal, within 32 bits.
bool WholeNumber(const std::string& text, uint32_t& value) {
  if (text.empty() || text.size() > 10) return false;
  uint64_t v = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
    v = v * 10 + static_cast<uint64_t>(c - '0');
  }
  if (v > 0xFFFFFFFFu) return false;
  value = static_cast<uint32_t>(v);
  return true;
}

}  // namespace

OutboundWatch::OutboundWatch(const std::string& dir) : m_fd(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
  if (m_fd >= 0) m_watch = inotify_add_watch(m_fd, dir.c_str(), IN_CLOSE_WRITE | IN_MOVED_TO);
}

OutboundWatch::~OutboundWatch() {
  if (m_fd >= 0) close(m_fd);
}

bool OutboundWatch::Take(std::vector<std::string>& names) {
  names.clear();
  alignas(inotify_event) char buffer[64 * 1024];
  bool complete = true;
  for (;;) {
    const ssize_t n = read(m_fd, buffer, sizeof buffer);
    if (n <= 0) break;
    for (ssize_t at = 0; at < n;) {
      const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
      if (event->mask & IN_Q_OVERFLOW) complete = false;
      if (event->len > 0) {
        names.emplace_back(event->name);
        ++m_writes[event->name];
      }
      at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
    }
  }
  return complete;
}

void SequenceRule::Restarted() {
  // The history keeps the next number; its reader takes 0 to 99 only.
  m_saved = m_next;
  if (m_next > 99) m_next = 1;
  m_wroteSinceStart = false;
}

bool SequenceRule::Written(const std::string& name, std::string& why) {
  const std::string expected = kFeedbackPrefix + std::to_string(m_next) + ".cef";
  if (name != expected) {
    why = "the agent wrote " + name + " where " + expected + " was due";
    return false;
  }
  m_next = m_next + 1 <= 100 ? m_next + 1 : 1;
  m_wroteSinceStart = true;
  ++m_files;
  return true;
}

bool CheckHistory(const std::string& path, const SequenceRule& rule, std::string& why) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return true;  // not saved yet
  std::ostringstream text;
  text << in.rdbuf();
  std::map<std::string, std::string> map;
  if (!CPhoneHomeAgent::LoadFileToMap(path, map)) {
    why = "the history file does not load";
    return false;
  }
  const char* const keys[] = {"last_version_number", "last_sequence_number", "last_post",
                              "last_feedback",       "last_crash_report",    "last_threat_report"};
  std::istringstream lines(text.str());
  std::string line;
  for (const char* key : keys) {
    if (!std::getline(lines, line) || line.compare(0, std::string(key).size() + 1, std::string(key) + ":") != 0) {
      why = std::string("history line for ") + key + " missing or out of order";
      return false;
    }
  }
  if (std::getline(lines, line)) {
    why = "history has more than six lines";
    return false;
  }
  uint32_t value = 0;
  if (map["last_version_number"] != OVF_BUILD_VERSION) {
    why = "history version " + map["last_version_number"];
    return false;
  }
  if (!WholeNumber(map["last_sequence_number"], value) || !rule.HistoryMayHold(value)) {
    why = "history sequence number " + map["last_sequence_number"] + " where " + std::to_string(rule.Next()) +
          " is due";
    return false;
  }
  for (const char* key : {"last_post", "last_feedback", "last_crash_report", "last_threat_report"}) {
    if (!map[key].empty() && !WholeNumber(map[key], value)) {
      why = std::string("history ") + key + " is " + map[key];
      return false;
    }
  }
  if (!map["last_crash_report"].empty() || !map["last_threat_report"].empty()) {
    why = "history records a crash or threat report no path of this configuration sends";
    return false;
  }
  return true;
}

ProcessSample SampleProcess() {
  ProcessSample sample;
  unsigned long sizePages = 0, residentPages = 0;
  if (std::ifstream("/proc/self/statm") >> sizePages >> residentPages) {
    sample.rssBytes = static_cast<uint64_t>(residentPages) * static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
  }
  if (DIR* dir = opendir("/proc/self/fd")) {
    while (dirent* entry = readdir(dir)) sample.fds += entry->d_name[0] != '.' ? 1 : 0;
    closedir(dir);
    --sample.fds;  // the listing's own
  }
#ifdef OVF_SOAK_ASAN
  sample.heapBytes = __sanitizer_get_current_allocated_bytes();
#else
  // Summed over every arena, with the large blocks malloc maps on its own.
  const struct mallinfo2 info = mallinfo2();
  sample.heapBytes = info.uordblks + info.hblkhd;
#endif
  return sample;
}

bool RssIsMeaningful() {
#ifdef OVF_SOAK_ASAN
  return false;
#else
  return true;
#endif
}

}  // namespace soak
