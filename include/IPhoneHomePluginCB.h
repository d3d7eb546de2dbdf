// The host's callback object for the feedback service.
#pragma once

class IBencodeSettings;

class IPhoneHomePluginCB {
 public:
  // Lets the host's modules insert their settings (data-file paths, crash-dump patterns). 0 is success.
  virtual long GetSettingsCB(IBencodeSettings* settings) = 0;
  virtual ~IPhoneHomePluginCB() = default;
};
