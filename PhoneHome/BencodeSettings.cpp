// The settings adapter: the host's modules insert plain strings and integers, within the size limits.
#include "PhoneHome/BencodeSettings.h"

#include <cstring>
#include <string>

#include "AppLog.h"
#include "PhoneHome/Bencode.h"

namespace {

// The adapter belongs to the agent's unit and logs as it does.
const char kUnit[] = "PhoneHomeAgent";

}  // namespace

const unsigned int CBencodeSettings::m_uiMaxKeySize = 256;
const unsigned int CBencodeSettings::m_uiMaxValueStringSize = 1024;

CBencodeSettings::CBencodeSettings(CBencodeDictionary& target) : m_target(target) {}

CBencodeSettings::~CBencodeSettings() = default;

// The host's modules call in here, so nothing may be thrown back at them; an allocation failure is a refusal.
bool CBencodeSettings::Insert(char const* key, long value) try {
  if (key == nullptr) {
    CAppLog::LogDebugMessage(__FUNCTION__, kUnit, __LINE__, APPLOG_ERROR, "NULL parameter passed");
    return false;
  }
  if (strnlen(key, m_uiMaxKeySize + 1) > m_uiMaxKeySize) {
    CAppLog::LogDebugMessage(__FUNCTION__, kUnit, __LINE__, APPLOG_ERROR,
                             "Keysize greater than maximum permitted limit (%d)", static_cast<int>(m_uiMaxKeySize));
    return false;
  }
  const bool inserted = m_target.Insert(std::string(key), value);
  if (!inserted) {
    CAppLog::LogDebugMessage(__FUNCTION__, kUnit, __LINE__, APPLOG_ERROR, "Failed to insert integer into dictionary");
  }
  return inserted;
} catch (...) {
  return false;
}

bool CBencodeSettings::Insert(char const* key, char const* value, bool appendToList) try {
  if (key == nullptr || value == nullptr) {
    CAppLog::LogDebugMessage(__FUNCTION__, kUnit, __LINE__, APPLOG_ERROR, "NULL parameter passed");
    return false;
  }
  if (strnlen(key, m_uiMaxKeySize + 1) > m_uiMaxKeySize) {
    CAppLog::LogDebugMessage(__FUNCTION__, kUnit, __LINE__, APPLOG_ERROR,
                             "Key size greater than maximum permitted limit (%d)", static_cast<int>(m_uiMaxKeySize));
    return false;
  }
  // Measured on the key, not the value, as the modules have always been served: behind the key limit above it
  // never refuses, so values of any length pass. Modules hand over long paths and patterns that rely on it.
  if (strnlen(key, m_uiMaxValueStringSize) >= m_uiMaxValueStringSize) {
    CAppLog::LogDebugMessage(__FUNCTION__, kUnit, __LINE__, APPLOG_ERROR,
                             "Value string size greater than maximum permitted limit (%d)",
                             static_cast<int>(m_uiMaxValueStringSize));
    return false;
  }
  if (!appendToList) {
    const bool inserted = m_target.Insert(std::string(key), std::string(value));
    if (!inserted) {
      CAppLog::LogDebugMessage(__FUNCTION__, kUnit, __LINE__, APPLOG_ERROR, "Failed to insert string into dictionary");
    }
    return inserted;
  }
  CBencodeList* list = nullptr;
  if (!m_target.Get(std::string(key), list, true) || list == nullptr) {
    CAppLog::LogDebugMessage(__FUNCTION__, kUnit, __LINE__, APPLOG_ERROR,
                             "Failed to get CBencodeList instance with key (%s)", key);
    return false;
  }
  if (!list->Append(std::string(value))) {
    CAppLog::LogDebugMessage(__FUNCTION__, kUnit, __LINE__, APPLOG_ERROR, "Failed to insert string into list");
    return false;
  }
  return true;
} catch (...) {
  return false;
}
