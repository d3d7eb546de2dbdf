// Narrow insert interface through which the host's modules hand their feedback settings to the agent.
#pragma once

// Deliberately without a virtual destructor: the host never owns or deletes the object it is given.
class IBencodeSettings {
 public:
  virtual bool Insert(char const* key, long value) = 0;
  virtual bool Insert(char const* key, char const* value, bool appendToList) = 0;
};
