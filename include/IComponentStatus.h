// Host interface through which a component reports its enabled state and display name.
#pragma once

#include "Plugin.h"

class IComponentStatus : public Plugin {
 public:
  virtual long IsEnabled(bool& enabled) = 0;
  // size: capacity on entry; on a missing or small buffer the size needed, terminator included.
  virtual long GetDisplayName(char* buffer, unsigned long& size) = 0;
};
