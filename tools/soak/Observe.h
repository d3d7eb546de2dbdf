// What the soak watches besides the records: the feedback files as the agent writes them (for the sequence
// number rule), the history file, and the process's own memory and descriptors.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace soak {

// Every file the agent finishes writing in the outbound directory, in order, through inotify, so that files
// posted and removed within one step are seen too.
class OutboundWatch {
 public:
  explicit OutboundWatch(const std::string& dir);
  ~OutboundWatch();
  OutboundWatch(const OutboundWatch&) = delete;
  OutboundWatch& operator=(const OutboundWatch&) = delete;
  bool Ok() const { return m_fd >= 0 && m_watch >= 0; }
  // Names written since the last call, in order; false when the kernel's queue overflowed.
  bool Take(std::vector<std::string>& names);
  // How often each name has been written so far.
  const std::map<std::string, uint64_t>& Writes() const { return m_writes; }

 private:
  int m_fd = -1;
  int m_watch = -1;
  std::map<std::string, uint64_t> m_writes;
};

// The sequence number rule: files numbered 1 to 100 and round again; a restart goes on from the number the
// history kept, except that a kept 100 comes back as 1.
class SequenceRule {
 public:
  // A new agent starts; remembers the number its history holds.
  void Restarted();
  // An agent that stopped before it read the history (a disabled or refused start) saved its defaults: the
  // history now holds 1.
  void HistoryReset() {
    m_next = 1;
    m_saved = 1;
  }
  // One written file's name; false with why when it is not the one due.
  bool Written(const std::string& name, std::string& why);
  uint32_t Next() const { return m_next; }
  // The numbers the history may hold now: the next one due, or the one the last agent saved before this one
  // wrote anything.
  bool HistoryMayHold(uint32_t value) const { return value == m_next || (!m_wroteSinceStart && value == m_saved); }
  uint64_t Files() const { return m_files; }

 private:
  uint32_t m_next = 1;
  uint32_t m_saved = 1;
  bool m_wroteSinceStart = false;
  uint64_t m_files = 0;
};

// The history file loads with the agent's own reader and holds the six records in their order, the build's
// version and a sequence number the rule allows. Absent before the first save.
bool CheckHistory(const std::string& path, const SequenceRule& rule, std::string& why);

struct ProcessSample {
  uint64_t rssBytes = 0;
  uint64_t heapBytes = 0;  // live heap: the sanitizer's allocator count under ASan, malloc's otherwise
  unsigned fds = 0;
};
ProcessSample SampleProcess();
// Whether RSS says anything about leaks in this build (not under ASan, whose quarantine holds freed memory).
bool RssIsMeaningful();

}  // namespace soak
