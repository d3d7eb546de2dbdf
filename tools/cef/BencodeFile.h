// Loading a bencode file through the system's own classes, keeping the log records that the load produced.
#pragma once

#include <memory>
#include <utility>
#include <string>
#include <vector>

#include "AppLog.h"
#include "FileList.h"
#include "PhoneHome/Bencode.h"

namespace cef {

// Collects the log records made while it lives, as lines (see RecordText); the sink in place before is
// restored afterwards. A record repeated back to back is kept once with its count: a file that fails deep
// inside its nesting logs the same line for every level around the failure.
class LogCollector {
 public:
  LogCollector();
  ~LogCollector();
  LogCollector(const LogCollector&) = delete;
  LogCollector& operator=(const LogCollector&) = delete;
  std::vector<std::string> Take();

 private:
  std::vector<std::pair<std::string, size_t>> lines_;
  LogSink previous_;
};

// One line for a record: its text, and the system's error text when it carries an errno.
std::string RecordText(const LogRecord& record);

// The name of a file-level result, e.g. "illegal data (-3)".
std::string ResultText(EBencodeResult result);

struct LoadedFile {
  enum EKind { eEmpty, eDictionary, eList, eOther };

  EKind kind = eEmpty;
  unsigned char firstByte = 0;
  unsigned long long size = 0;
  EBencodeResult result = eBencodeOk;
  std::unique_ptr<CBencodeDictionary> dictionary;
  std::unique_ptr<CFileList> list;
  std::vector<std::string> records;  // what the library logged during the load

  bool Loaded() const { return (kind == eDictionary || kind == eList) && result == eBencodeOk; }
  const CBencode* Root() const;
  // "dictionary of 3 entries", "list of 1 item", ...
  std::string Summary() const;
  // Why the file does not load, in one line; with `withReason` the first log record is added.
  std::string Failure(bool withReason) const;
};

// Loads `path` as a dictionary or a list according to its first byte. False, with a one-line `error`, when
// the file cannot be examined at all: it is missing, not a regular file or unreadable. (The library would
// create a missing file; cef never does.)
bool LoadBencodeFile(const std::string& path, LoadedFile& file, std::string& error);

// The whole content of a file, or false with a one-line `error`.
bool ReadWholeFile(const std::string& path, std::string& bytes, std::string& error);

// The canonical text of a value, as the system writes it.
std::string CanonicalText(const CBencode& value);

}  // namespace cef
