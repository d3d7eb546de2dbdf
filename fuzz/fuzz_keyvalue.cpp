// Fuzzes the key/value line reader of the history and config files: any bytes, read from a file and from the
// same text in memory, must give the same map, never crash, and give a map that reads back unchanged when
// written out as the history writer writes lines.
#include <stdlib.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <map>
#include <string>

#include "AppLog.h"
#include "PhoneHome/PhoneHomeAgent.h"

namespace {

using Map = std::map<std::string, std::string>;

std::string g_path;  // one scratch file, rewritten for every input
int g_fd = -1;

[[noreturn]] void Fail(const char* what) {
  fprintf(stderr, "key/value reader: %s\n", what);
  abort();
}

void CheckShape(const Map& map) {
  for (const auto& [key, value] : map) {
    for (char c : key) {
      if (c >= 'A' && c <= 'Z') Fail("a key keeps an upper-case letter");
      if (c == ':' || c == '\n') Fail("a key holds a colon or a line feed");
    }
    if (!key.empty() && key[0] == '#') Fail("a comment line became a key");
    if (value.find_first_of("\r\n") != std::string::npos) Fail("a value runs past its line end");
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  CAppLog::SetSink([](const LogRecord&) {});
  char path[] = "/tmp/fuzz_keyvalue.XXXXXX";
  g_fd = mkstemp(path);
  if (g_fd < 0) Fail("no scratch file");
  g_path = path;
  atexit([] { unlink(g_path.c_str()); });
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  Map fromText;
  CPhoneHomeAgent::LoadTextToMap(text, fromText);
  CheckShape(fromText);

  if (ftruncate(g_fd, 0) != 0 || pwrite(g_fd, data, size, 0) != static_cast<ssize_t>(size)) Fail("scratch write");
  Map fromFile;
  if (!CPhoneHomeAgent::LoadFileToMap(g_path, fromFile)) Fail("the scratch file does not open");
  if (fromFile != fromText) Fail("the file and its text read differently");

  std::string written;
  for (const auto& [key, value] : fromText) written += key + ":" + value + "\n";
  Map again;
  CPhoneHomeAgent::LoadTextToMap(written, again);
  if (again != fromText) Fail("a map written as lines does not read back unchanged");
  return 0;
}
