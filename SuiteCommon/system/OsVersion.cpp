// The operating-system version record from the kernel release and the distribution's os-release file.
#include "OsVersion.h"

#include <sys/utsname.h>

#include <cctype>
#include <climits>
#include <sstream>

#include "PosixFile.h"

namespace {

constexpr char kDefaultName[] = "Linux";
constexpr size_t kMaxOsReleaseSize = 65536;

// Reads the decimal number at `pos`; false when there is none or it does not fit an unsigned 32-bit value.
bool ReadNumber(const std::string& text, size_t& pos, unsigned int& value) {
  const size_t begin = pos;
  unsigned int result = 0;
  while (pos < text.size() && isdigit(static_cast<unsigned char>(text[pos]))) {
    const unsigned int digit = static_cast<unsigned int>(text[pos] - '0');
    if (result > (UINT_MAX - digit) / 10) return false;
    result = result * 10 + digit;
    ++pos;
  }
  if (pos == begin) return false;
  value = result;
  return true;
}

// "6.1.0-18-amd64" gives 6, 1 and 0; whatever follows the third number (or ends the dotted part early) is
// the distribution's and is not read.
void ParseKernelRelease(const std::string& release, OSVersionInfo& info) {
  unsigned int* const fields[] = {&info.majorVersion, &info.minorVersion, &info.buildNumber};
  size_t pos = 0;
  for (size_t i = 0; i < 3; ++i) {
    if (i > 0 && (pos >= release.size() || release[pos++] != '.')) return;
    if (!ReadNumber(release, pos, *fields[i])) return;
  }
}

// One os-release value: quoted the way a shell would read it, with \ escaping inside double quotes.
std::string Unquote(const std::string& raw) {
  if (raw.empty() || (raw[0] != '"' && raw[0] != '\'')) return raw;
  const char quote = raw[0];
  std::string value;
  for (size_t i = 1; i < raw.size() && raw[i] != quote; ++i) {
    if (quote == '"' && raw[i] == '\\' && i + 1 < raw.size()) ++i;
    value += raw[i];
  }
  return value;
}

std::string PrettyName(const std::string& osRelease) {
  std::istringstream lines(osRelease);
  std::string line;
  std::string pretty;
  while (std::getline(lines, line)) {
    const size_t first = line.find_first_not_of(" \t");
    if (first == std::string::npos || line[first] == '#') continue;
    const size_t last = line.find_last_not_of(" \t\r");
    line = line.substr(first, last - first + 1);
    const size_t equals = line.find('=');
    if (equals == std::string::npos || line.compare(0, equals, "PRETTY_NAME") != 0) continue;
    pretty = Unquote(line.substr(equals + 1));  // a later assignment wins, as in the shell
  }
  return pretty.empty() ? kDefaultName : pretty;
}

}  // namespace

OSVersionInfo MakeOsVersion(const std::string& sysName, const std::string& kernelRelease,
                            const std::string& osReleaseText) {
  OSVersionInfo info;
  info.type = sysName.empty() ? kDefaultName : sysName;
  ParseKernelRelease(kernelRelease, info);
  info.details = PrettyName(osReleaseText);
  return info;
}

OSVersionInfo GetOsVersion() {
  utsname names{};
  const bool known = uname(&names) == 0;
  std::string osRelease;
  if (SuiteSystem::ReadSmallFile("/etc/os-release", kMaxOsReleaseSize, osRelease) != 0) {
    SuiteSystem::ReadSmallFile("/usr/lib/os-release", kMaxOsReleaseSize, osRelease);
  }
  return MakeOsVersion(known ? names.sysname : "", known ? names.release : "", osRelease);
}

bool IsOs_LINUX() { return true; }
bool IsOs_MAC() { return false; }
bool IsOs_WINNT_XP_Only() { return false; }
bool IsOs_WIN_VISTA_Only() { return false; }
bool IsOs_WIN_7_Only() { return false; }
bool IsOs_WIN_8_Only() { return false; }
bool IsOs_WIN_8Point10_Only() { return false; }
bool IsOs_WIN_10_Only() { return false; }
