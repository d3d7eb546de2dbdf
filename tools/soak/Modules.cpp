// Module writers over the exported bencode classes, and the files that modules leave for the agent.
#include "Modules.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <fstream>

#include "PhoneHome/Bencode.h"

namespace soak {
namespace {

const char kRecordPrefix[] = "soak.r";
constexpr int kNestedDepth = 300;  // past the reader's nesting limit

}  // namespace

std::string RecordKey(uint64_t id) {
  char key[32];
  snprintf(key, sizeof key, "%s%010" PRIu64, kRecordPrefix, id);
  return key;
}

bool ParseRecordKey(const std::string& key, uint64_t& id) {
  const size_t prefix = sizeof kRecordPrefix - 1;
  if (key.size() != prefix + 10 || key.compare(0, prefix, kRecordPrefix) != 0) return false;
  id = 0;
  for (size_t i = prefix; i < key.size(); ++i) {
    if (key[i] < '0' || key[i] > '9') return false;
    id = id * 10 + static_cast<uint64_t>(key[i] - '0');
  }
  return true;
}

long RecordValue(uint64_t id, size_t writer) { return static_cast<long>(id * 8 + writer); }

ModuleWriter::ModuleWriter(size_t index, const std::string& path)
    : m_index(index), m_path(path), m_data(new CBencodeDictionary(true)) {
  m_data->SetBencodeFileName(path);
}

ModuleWriter::~ModuleWriter() { Unlock(); }

bool ModuleWriter::Write(uint64_t firstId, unsigned count, const std::string& domain, bool& failed) {
  for (uint64_t id = firstId; id < firstId + count; ++id) m_data->Insert(RecordKey(id), RecordValue(id, m_index));
  if (!domain.empty()) {
    CBencodeDictionary* network = nullptr;
    CBencodeDictionary* trusted = nullptr;
    if (m_data->Get("Network", network, true) && network->Get("TrustedInterface", trusted, true)) {
      trusted->Insert("DNSDomain", domain);
    }
  }
  failed = m_data->Externalize(true) != eBencodeOk;
  // A hand-over empties the dictionary; data written to the side file stays in it for the next flush.
  return !failed && m_data->Items().empty();
}

std::vector<uint64_t> ModuleWriter::Unsent() const {
  std::vector<uint64_t> ids;
  for (const auto& item : m_data->Items()) {
    uint64_t id = 0;
    if (ParseRecordKey(item.first, id)) ids.push_back(id);
  }
  return ids;
}

bool ModuleWriter::Lock() {
  if (m_lockFd >= 0) return true;
  m_lockFd = open(m_path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
  if (m_lockFd < 0) return false;
  if (flock(m_lockFd, LOCK_EX | LOCK_NB) != 0) {
    close(m_lockFd);
    m_lockFd = -1;
    return false;
  }
  return true;
}

void ModuleWriter::Unlock() {
  if (m_lockFd < 0) return;
  flock(m_lockFd, LOCK_UN);
  close(m_lockFd);
  m_lockFd = -1;
}

bool ModuleWriter::PlaceBadFile(BadFile kind) {
  if (access(m_path.c_str(), F_OK) == 0) return false;
  std::string bytes;
  switch (kind) {
    case BadFile::eCorrupt: bytes = "d6:soak.ri1e8:trunc"; break;  // a string cut short
    case BadFile::eEmpty: break;
    case BadFile::eNested: bytes = std::string(kNestedDepth, 'l') + std::string(kNestedDepth, 'e'); break;
  }
  std::ofstream(m_path, std::ios::binary | std::ios::trunc) << bytes;
  // An empty file is taken like any other; only the broken ones stay until the module clears them.
  m_hasBadFile = kind != BadFile::eEmpty;
  return true;
}

void ModuleWriter::ClearBadFile() {
  if (!m_hasBadFile) return;
  unlink(m_path.c_str());
  m_hasBadFile = false;
}

bool WriteSparseFile(const std::string& path, uint64_t size, const std::string& head) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return false;
  const bool ok = write(fd, head.data(), head.size()) == static_cast<ssize_t>(head.size()) &&
                  ftruncate(fd, static_cast<off_t>(size)) == 0;
  close(fd);
  return ok;
}

}  // namespace soak
