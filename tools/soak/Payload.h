// What a feedback file must hold: the payload tree every file carries, decoded with the project's own
// classes and checked key by key, and the module records found in it.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

namespace soak {

struct FoundRecord {
  uint64_t id;
  std::string module;
  std::string tag;  // the settings key for a module of several files, else empty
  long value;
};

// Facts of the whole run that every file must agree with.
struct PayloadRules {
  std::string machineId;             // learnt from the first file, then fixed
  std::set<std::string> dnsHashes;   // the hashes of every domain the tunnel module named
  std::vector<std::string> domains;  // which must never leave the machine
  uint32_t earliest = 0, latest = 0;  // the clock's range so far
};

struct PayloadFacts {
  bool skeleton = false;  // the identity and OS keys
  std::string dnsHash;
  std::vector<FoundRecord> records;
};

// Decodes and checks one file; false with the reason when it breaks a rule.
bool CheckPayload(const std::string& bytes, PayloadRules& rules, PayloadFacts& facts, std::string& why);

// The records of a module data file (a dictionary), or false when it does not decode.
bool ModuleFileRecords(const std::string& bytes, std::vector<uint64_t>& ids, bool& hasNetwork);

}  // namespace soak
