// Device identity: host name, hardware vendor, system type and the UDID of the root file system's disk.
#pragma once

#include <string>
#include <vector>

#include "ApiExport.h"

// Result codes: 32-bit values, returned zero-extended in a long; 0 is success.
constexpr long DEVICEINFO_ERR_FAILED = 0xFFFFD8F1L;       // host name, hashing or root device failed
constexpr long DEVICEINFO_ERR_NO_VENDOR = 0xFFFFD8F5L;    // vendor not available
constexpr long DEVICEINFO_ERR_NO_INPUT = 0xFFFFD8F6L;     // nothing to hash
constexpr long DEVICEINFO_ERR_MORE_DATA = 0xFFFFD8F8L;    // buffer too small; the required size was written back
constexpr long DEVICEINFO_ERR_NULL_BUFFER = 0xFFFFD8F9L;  // null output buffer

// Stateless: every object answers alike. The vendor and the root-disk identifier are cached process-wide the
// first time they are found and kept for the life of the process; a failed lookup caches nothing, so the
// next call looks again. Filling the caches is not locked: callers on more than one thread serialise
// GetManufacturerName, GetUDID and getDeviceID themselves.
//
// The (char* buffer, unsigned int& size) operations take the buffer's capacity in `size`. When the answer and
// its NUL do not fit, `size` becomes the required size and DEVICEINFO_ERR_MORE_DATA is returned with the
// buffer untouched; otherwise the answer is copied and `size` becomes the characters copied plus one.
class OVF_API CDeviceInfo {
 public:
  CDeviceInfo();
  ~CDeviceInfo();

  long GetHostName(char* buffer, unsigned int& size);
  // The first line of "/sys/class/dmi/id/sys_vendor".
  long GetManufacturerName(char* buffer, unsigned int& size);
  // Always "x64"; needs a capacity of 4.
  long GetSystemType(char* buffer, unsigned int& size);
  // The 40 lower-case hex digits of the SHA-1 of the root file system's UUID text, and a NUL; needs a
  // capacity of 41 and leaves `size` unchanged on success.
  long GetUDID(char*& buffer, unsigned int& size);

  // The name of the "/dev/disk/by-uuid" entry that links to the root device (its bytes, no NUL); empty
  // with 0 when no entry matches.
  long getDeviceID(std::vector<unsigned char>& id);
  // The kernel name of the root file system's device (for example sda1), or "".
  std::string getDeviceNameForRoot();
  // The text of a symbolic link as stored (usually relative, not resolved further), or "".
  std::string getTargetPath(const std::string& path);
  // SHA-1 of `length` bytes as 40 lower-case hex digits.
  long getSHA1Hash(const unsigned char* data, unsigned long length, std::string& hex);
};
