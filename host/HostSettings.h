// The host settings file: the module settings the host hands the feedback service when it asks for them.
#pragma once

#include <string>
#include <vector>

class IBencodeSettings;

// One entry of the service's module-settings dictionary.
struct HostSetting {
  enum EKind { eInteger, eString, eList };

  std::string key;
  EKind kind = eString;
  long integer = 0;
  std::string text;
  std::vector<std::string> list;
};

class CHostSettings {
 public:
  // The longest key the service's settings adapter accepts.
  static constexpr size_t kMaxKeySize = 256;
  // A settings file names a few dozen paths; anything near this size is a mistake, not a configuration.
  static constexpr size_t kMaxFileSize = 1u << 20;

  // Reads and checks the JSON settings file at `path`. On failure returns false, sets `problem` to what is
  // wrong (without the file's name) and leaves the entries as they were.
  bool Load(const std::string& path, std::string& problem);

  // Inserts every entry through `target`, lists element by element. Returns how many the target refused; each
  // refusal is logged with its key and the other entries are still inserted.
  size_t InsertInto(IBencodeSettings& target) const;

  const std::vector<HostSetting>& Entries() const { return m_entries; }

 private:
  std::vector<HostSetting> m_entries;
};
