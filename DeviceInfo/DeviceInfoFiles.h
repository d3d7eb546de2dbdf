// The device-identity lookups over a given mount table, by-uuid directory and vendor file, filling caches
// the caller owns. CDeviceInfo runs them over the system's files and its process-wide caches; tests run them
// over fake trees with caches of their own. Internal to the library: not exported.
#pragma once

#include <string>
#include <vector>

class CDeviceInfoFiles {
 public:
  struct Sources {
    std::string mountTable;  // "/etc/mtab"
    std::string byUuidDir;   // "/dev/disk/by-uuid"
    std::string vendorFile;  // "/sys/class/dmi/id/sys_vendor"
  };

  // The sources and both caches are borrowed and must outlive the object.
  CDeviceInfoFiles(const Sources& sources, std::string& vendorCache, std::vector<unsigned char>& deviceIdCache)
      : m_sources(sources), m_rVendorCache(vendorCache), m_rDeviceIdCache(deviceIdCache) {}

  // The operations of CDeviceInfo of the same names, reading the sources given here.
  long GetManufacturerName(char* buffer, unsigned int& size);
  long GetUDID(char*& buffer, unsigned int& size);
  long getDeviceID(std::vector<unsigned char>& id);
  std::string getDeviceNameForRoot();

 private:
  const Sources& m_sources;
  std::string& m_rVendorCache;
  std::vector<unsigned char>& m_rDeviceIdCache;
};
