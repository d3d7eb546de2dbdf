// Loading bencode files through the system's classes, with the library's log records kept (see BencodeFile.h).
#include "BencodeFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "JsonForm.h"
#include "UniqueFd.h"

namespace cef {

namespace {

// Opens `path` for reading if it is a regular file, and reports its size.
int OpenRegular(const std::string& path, unsigned long long& size, std::string& error) {
  int fd = OpenCloexec(path.c_str(), O_RDONLY | O_NONBLOCK);
  if (fd < 0) {
    error = path + ": " + std::strerror(errno);
    return -1;
  }
  struct stat st;
  if (fstat(fd, &st) != 0) {
    error = path + ": " + std::strerror(errno);
    close(fd);
    return -1;
  }
  if (!S_ISREG(st.st_mode)) {
    error = path + ": not a regular file";
    close(fd);
    return -1;
  }
  size = static_cast<unsigned long long>(st.st_size);
  return fd;
}

}  // namespace

LogCollector::LogCollector() {
  previous_ = CAppLog::SetSink([this](const LogRecord& record) {
    std::string line = RecordText(record);
    if (!lines_.empty() && lines_.back().first == line) {
      ++lines_.back().second;
    } else {
      lines_.emplace_back(std::move(line), 1);
    }
  });
}

LogCollector::~LogCollector() { CAppLog::SetSink(previous_); }

// cef logs from one thread only, so the lines need no lock of their own.
std::vector<std::string> LogCollector::Take() {
  std::vector<std::string> taken;
  for (auto& [line, count] : lines_) {
    taken.push_back(count == 1 ? std::move(line) : line + " (" + std::to_string(count) + " times)");
  }
  lines_.clear();
  return taken;
}

std::string RecordText(const LogRecord& record) { return record.text; }

std::string ResultText(EBencodeResult result) {
  const char* name = "unknown result";
  switch (result) {
    case eBencodeOk: name = "ok"; break;
    case eBencodeError: name = "file error"; break;
    case eBencodeLockError: name = "locked by another process"; break;
    case eBencodeIllegalData: name = "illegal data"; break;
    case eBencodeNoStream: name = "no file bound"; break;
  }
  return std::string(name) + " (" + std::to_string(static_cast<int>(result)) + ")";
}

const CBencode* LoadedFile::Root() const {
  if (dictionary) return dictionary.get();
  return list.get();
}

std::string LoadedFile::Summary() const {
  if (kind == eDictionary) {
    size_t n = dictionary->Items().size();
    return "dictionary of " + std::to_string(n) + (n == 1 ? " entry" : " entries");
  }
  if (kind == eList) {
    size_t n = list->Items().size();
    return "list of " + std::to_string(n) + (n == 1 ? " item" : " items");
  }
  return "no value";
}

std::string LoadedFile::Failure(bool withReason) const {
  switch (kind) {
    case eEmpty:
      return "empty file, it holds no value";
    case eOther: {
      std::string byte = Printable(std::string(1, static_cast<char>(firstByte)));
      return "first byte " + byte + " starts neither a dictionary (\"d\") nor a list (\"l\")";
    }
    case eDictionary:
    case eList:
      break;
  }
  std::string what = std::string("does not load as a ") + (kind == eDictionary ? "dictionary" : "list") + ": " +
                     ResultText(result);
  // The innermost record says what was wrong with the bytes; the others say where it was met.
  if (withReason && !records.empty()) what += ": " + records.front();
  return what;
}

bool ReadWholeFile(const std::string& path, std::string& bytes, std::string& error) {
  unsigned long long size = 0;
  int fd = OpenRegular(path, size, error);
  if (fd < 0) return false;
  UniqueFd file(fd);
  std::string content;
  char buffer[1 << 16];
  for (;;) {
    ssize_t n = ReadRetrying(file.Get(), buffer, sizeof buffer);
    if (n < 0) {
      error = path + ": " + std::strerror(errno);
      return false;
    }
    if (n == 0) break;
    content.append(buffer, static_cast<size_t>(n));
  }
  bytes = std::move(content);
  return true;
}

bool LoadBencodeFile(const std::string& path, LoadedFile& file, std::string& error) {
  unsigned long long size = 0;
  int fd = OpenRegular(path, size, error);
  if (fd < 0) return false;
  {
    UniqueFd probe(fd);
    char first = 0;
    ssize_t n = ReadRetrying(probe.Get(), &first, 1);
    if (n < 0) {
      error = path + ": " + std::strerror(errno);
      return false;
    }
    file.size = size;
    file.firstByte = static_cast<unsigned char>(first);
    if (n == 0) {
      file.kind = LoadedFile::eEmpty;
    } else if (first == 'd') {
      file.kind = LoadedFile::eDictionary;
    } else if (first == 'l') {
      file.kind = LoadedFile::eList;
    } else {
      file.kind = LoadedFile::eOther;
    }
  }
  if (file.kind != LoadedFile::eDictionary && file.kind != LoadedFile::eList) return true;

  LogCollector collector;
  EBencodeResult result = eBencodeOk;
  if (file.kind == LoadedFile::eDictionary) {
    file.dictionary = std::make_unique<CBencodeDictionary>(path, result, false);
  } else {
    file.list = std::make_unique<CFileList>(path, result, false);
  }
  file.result = result;
  file.records = collector.Take();
  return true;
}

std::string CanonicalText(const CBencode& value) {
  CBencodeStream stream(std::string(), false);
  // Externalize does not change the value; it is not declared const.
  if (!const_cast<CBencode&>(value).Externalize(stream)) return {};
  long size = stream.Tellp();
  if (size <= 0 || !stream.Seekg(0, std::ios_base::beg)) return {};
  std::string text(static_cast<size_t>(size), '\0');
  if (!stream.Read(text.data(), text.size())) return {};
  return text;
}

}  // namespace cef
