// The agent's history file, and the key/value line reader that the history and config files share.
#include <sys/stat.h>

#include <cctype>
#include <cstring>
#include <string>

#include "AppLog.h"
#include "BuildConfig.h"
#include "Clock.h"
#include "PhoneHome/PhoneHomeAgent.h"
#include "UniqueFd.h"

namespace {

const char kUnit[] = "PhoneHomeAgent";

// The records written, in this order; the version comes from the running build, the rest from the map.
const char* const kHistoryKeys[] = {"last_sequence_number", "last_post", "last_feedback", "last_crash_report",
                                    "last_threat_report"};

// The whole file, or as much as could be read before an error, which ends the text as its end would.
bool ReadWholeFile(const std::string& path, std::string& text) {
  UniqueFd file(OpenCloexec(path.c_str(), O_RDONLY));
  if (!file.Valid()) return false;
  char block[4096];
  ssize_t n;
  while ((n = ReadRetrying(file.Get(), block, sizeof block)) > 0) text.append(block, static_cast<size_t>(n));
  return true;
}

bool WriteAll(int fd, const std::string& bytes) {
  size_t done = 0;
  while (done < bytes.size()) {
    ssize_t n = WriteRetrying(fd, bytes.data() + done, bytes.size() - done);
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

}  // namespace

bool CPhoneHomeAgent::LoadFileToMap(const std::string& path, std::map<std::string, std::string>& map) {
  std::string text;
  if (!ReadWholeFile(path, text)) {
    CAppLog::LogDebugMessage(__FUNCTION__, kUnit, __LINE__, APPLOG_WARNING, "Can't open file %s", path.c_str());
    return false;
  }
  LoadTextToMap(text, map);
  return true;
}

void CPhoneHomeAgent::LoadTextToMap(const std::string& text, std::map<std::string, std::string>& map) {
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    const std::string line = text.substr(start, end - start);
    start = end + 1;

    if (line.empty() || line[0] == '#') continue;
    const size_t colon = line.find(':');
    if (colon == std::string::npos) continue;
    std::string key = line.substr(0, colon);
    for (char& c : key) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    // Nothing is trimmed, but a value ends at a carriage return, so files with CR LF line ends read the same.
    const size_t valueEnd = line.find('\r', colon + 1);
    map[key] = line.substr(colon + 1, valueEnd == std::string::npos ? std::string::npos : valueEnd - colon - 1);
  }
}

bool CPhoneHomeAgent::SaveHistoryFile() {
  // Truncated in place, with no temporary file and no lock: only this agent writes it.
  UniqueFd file(OpenCloexec(historyFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644));
  if (!file.Valid()) {
    CAppLog::LogDebugMessage(__FUNCTION__, kUnit, __LINE__, APPLOG_WARNING, "Can't open hostory file for write");
    return false;
  }
  history["last_sequence_number"] = std::to_string(sequenceNumber);

  // Like a stream, the first failed write leaves every later line unwritten and is reported at the end.
  bool written = WriteAll(file.Get(), std::string("last_version_number:") + OVF_BUILD_VERSION + "\n");
  for (const char* key : kHistoryKeys) {
    std::string line = std::string(key) + ":" + history[key] + "\n";
    written = written && WriteAll(file.Get(), line);
  }
  if (close(file.Release()) != 0) written = false;
  if (!written) {
    CAppLog::LogDebugMessage(__FUNCTION__, kUnit, __LINE__, APPLOG_WARNING, "Failed to update history file");
    return false;
  }
  return true;
}

void CPhoneHomeAgent::UpdateTimeInHistory(const char* key) {
  if (key == nullptr) return;
  history[key] = std::to_string(GetCurrentTimeSeconds());
}

bool CPhoneHomeAgent::GetFileCreationTime(const std::string& path, unsigned int& time) {
  // The modification time: what a dump's writer last touched is what makes it new.
  struct stat info;
  if (stat(path.c_str(), &info) != 0) {
    time = 0;
    return false;
  }
  time = static_cast<unsigned int>(info.st_mtime);
  return true;
}
