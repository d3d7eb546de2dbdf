// The host's plug-in interface: the root of every plug-in object and the interface table records.
#pragma once

#include <cstdint>

class Plugin {
 public:
  virtual bool SupportsInterface(const char* id, unsigned int version) = 0;
  virtual ~Plugin() = default;
};

// One entry of a plug-in's interface table: identifier, then version.
struct PluginInterface {
  const char* id;
  uint32_t version;
};

// What GetAvailableInterfaces returns: the table, then its entry count.
struct PluginInterfaceList {
  const PluginInterface* interfaces;
  uint32_t count;
};

extern "C" {
typedef Plugin* (*PFN_CreatePlugin)(const char* interfaceId);
typedef bool (*PFN_DisposePlugin)(Plugin* plugin);
typedef PluginInterfaceList (*PFN_GetAvailableInterfaces)();
}
