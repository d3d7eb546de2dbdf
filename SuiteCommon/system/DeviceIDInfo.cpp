// The machine id as the platform's device identifier.
#include "DeviceIDInfo.h"

#include "PosixFile.h"

namespace {

constexpr char kMachineIdFile[] = "/etc/machine-id";
// Older systems keep the id only where the message bus put it.
constexpr char kDbusMachineIdFile[] = "/var/lib/dbus/machine-id";
// A machine id is 32 hexadecimal digits; anything far larger is not one.
constexpr size_t kMaxIdFileSize = 4096;

bool ReadId(const std::string& path, std::string& id) {
  std::string text;
  if (SuiteSystem::ReadSmallFile(path, kMaxIdFileSize, text) != 0) return false;
  text.erase(text.find_last_not_of(" \t\r\n") + 1);  // npos + 1 == 0 clears an all-blank text
  if (text.empty()) return false;
  id.swap(text);
  return true;
}

}  // namespace

bool DeviceIDInfo::GetDeviceID(std::string& id) { return GetDeviceIDFromFiles(kMachineIdFile, kDbusMachineIdFile, id); }

bool DeviceIDInfo::GetDeviceIDFromFiles(const std::string& primary, const std::string& fallback, std::string& id) {
  return ReadId(primary, id) || ReadId(fallback, id);
}
