// The bounded settings view that the host's modules write into while the agent asks for their settings.
#pragma once

#include "ApiExport.h"
#include "IBencodeSettings.h"

class CBencodeDictionary;

// Writes into a dictionary it borrows; the dictionary must outlive the view and no other thread may touch it
// while the host's modules insert. Every refusal is logged and reported as false; nothing throws.
class OVF_API CBencodeSettings : public IBencodeSettings {
 public:
  explicit CBencodeSettings(CBencodeDictionary& target);
  // Leaves the target as it is.
  virtual ~CBencodeSettings();
  CBencodeSettings(const CBencodeSettings&) = delete;
  CBencodeSettings& operator=(const CBencodeSettings&) = delete;

  bool Insert(char const* key, long value) override;
  // appendToList false stores the string under key, replacing what was there; true appends it to the list
  // under key, creating the list when the key is missing.
  bool Insert(char const* key, char const* value, bool appendToList) override;

  static const unsigned int m_uiMaxKeySize;          // 256 bytes
  static const unsigned int m_uiMaxValueStringSize;  // 1024

 private:
  CBencodeDictionary& m_target;
};
