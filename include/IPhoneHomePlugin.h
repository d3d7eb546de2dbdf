// Host interface of the feedback service.
#pragma once

#include "Plugin.h"

class IPhoneHomePluginCB;

class IPhoneHomePlugin : public Plugin {
 public:
  virtual long StartPhoneHome() = 0;
  virtual long StopPhoneHome() = 0;
  // 0 while the service runs, 0xFFFFFFFF otherwise.
  virtual unsigned int IsPhoneHomeRunning() = 0;
  virtual long SetPhoneHomePluginCB(IPhoneHomePluginCB* callback) = 0;
  virtual long UnSetPhoneHomePluginCB() = 0;
};
