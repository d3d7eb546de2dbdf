// Payload checks over the exported bencode classes.
#include "Payload.h"

#include <map>
#include <memory>

#include "BuildConfig.h"
#include "Modules.h"
#include "PhoneHome/Bencode.h"

namespace soak {
namespace {

const char* const kSkeletonKeys[] = {"PhoneHomeFormatVersion", "OvVersion", "MachineId", "UDID", "CustomerId",
                                     "OSDetails"};

std::string CustomerId() { return *OVF_BUILD_LABEL ? OVF_BUILD_LABEL : "Unofficial"; }

bool IsHex(const std::string& text, size_t length) {
  if (text.size() != length) return false;
  for (char c : text) {
    if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) return false;
  }
  return true;
}

bool AsInt(CBencode* value, long& out) { return value != nullptr && value->GetType() == CBencode::eInteger && value->Get(out); }
bool AsString(CBencode* value, std::string& out) {
  return value != nullptr && value->GetType() == CBencode::eString && value->Get(out);
}
CBencodeDictionary* AsDict(CBencode* value) {
  return value != nullptr && value->GetType() == CBencode::eDictionary ? static_cast<CBencodeDictionary*>(value)
                                                                        : nullptr;
}
CBencode* Find(const CBencodeDictionary& dict, const std::string& key) {
  auto it = dict.Items().find(key);
  return it == dict.Items().end() ? nullptr : it->second;
}

bool Fail(std::string& why, const std::string& text) {
  why = text;
  return false;
}

// The records of one module's dictionary as it reached the server.
bool TakeRecords(const CBencodeDictionary& data, const std::string& module, const std::string& tag,
                 PayloadFacts& facts, std::string& why) {
  for (const auto& [key, value] : data.Items()) {
    uint64_t id = 0;
    long number = 0;
    if (key == "Network") return Fail(why, module + " data still holds its Network entry");
    if (!ParseRecordKey(key, id) || !AsInt(value, number)) return Fail(why, module + " holds a stray entry " + key);
    facts.records.push_back({id, module, tag, number});
  }
  return true;
}

bool CheckModuleData(CBencodeDictionary& modules, PayloadFacts& facts, std::string& why) {
  for (const auto& [module, value] : modules.Items()) {
    CBencodeDictionary* data = AsDict(value);
    bool known = false;
    for (const ModuleFile& file : kModuleFiles) known = known || module == file.module;
    if (!known || data == nullptr) return Fail(why, "ModuleData holds " + module);
    if (module != "ServiceModule") {
      if (!TakeRecords(*data, module, "", facts, why)) return false;
      continue;
    }
    for (const auto& [tag, posture] : data->Items()) {
      CBencodeDictionary* tagged = AsDict(posture);
      if ((tag != "BasePosture" && tag != "ElevatedPosture") || tagged == nullptr) {
        return Fail(why, "ServiceModule holds " + tag);
      }
      if (!TakeRecords(*tagged, module, tag, facts, why)) return false;
    }
  }
  return true;
}

bool CheckSkeleton(CBencodeDictionary& quality, const std::string& machineId, std::string& why) {
  std::string text;
  if (!AsString(Find(quality, "PhoneHomeFormatVersion"), text) || text != "1.0") return Fail(why, "PhoneHomeFormatVersion");
  if (!AsString(Find(quality, "OvVersion"), text) || text != OVF_BUILD_VERSION) return Fail(why, "OvVersion");
  if (!AsString(Find(quality, "MachineId"), text) || text != machineId) return Fail(why, "MachineId");
  if (!AsString(Find(quality, "UDID"), text) || text.empty()) return Fail(why, "UDID");
  if (!AsString(Find(quality, "CustomerId"), text) || text != CustomerId()) return Fail(why, "CustomerId");
  CBencodeDictionary* os = AsDict(Find(quality, "OSDetails"));
  if (os == nullptr || os->Items().size() != 7) return Fail(why, "OSDetails");
  long number = 0;
  for (const char* key : {"OSMajorVersion", "OSMinorVersion", "OSBuildVersion"}) {
    if (!AsInt(Find(*os, key), number) || number < 0) return Fail(why, std::string("OSDetails.") + key);
  }
  for (const char* key : {"OSType", "OSVersionDetails", "OSLocale"}) {
    if (!AsString(Find(*os, key), text)) return Fail(why, std::string("OSDetails.") + key);
  }
  if (!AsString(Find(*os, "OSName"), text) || text != "Linux") return Fail(why, "OSDetails.OSName");
  return true;
}

}  // namespace

bool CheckPayload(const std::string& bytes, PayloadRules& rules, PayloadFacts& facts, std::string& why) {
  facts = PayloadFacts{};
  for (const std::string& domain : rules.domains) {
    if (bytes.find(domain) != std::string::npos) return Fail(why, "the DNS domain " + domain + " left the machine");
  }
  CBencodeStream stream(std::string(), false);
  stream.Write(bytes.data(), bytes.size());
  stream.Seekg(0, std::ios_base::beg);
  CBencodeList payload(false);
  if (bytes.empty() || bytes[0] != 'l' || !payload.Internalize(stream)) return Fail(why, "not a bencode list");
  if (payload.Items().size() != 4) return Fail(why, "the payload list has " + std::to_string(payload.Items().size()) + " items");
  long number = 0;
  std::string auth;
  if (!AsInt(payload[0], number) || number != 7) return Fail(why, "message_types_id is not 7");
  if (!AsString(payload[1], auth) || !IsHex(auth, 40)) return Fail(why, "authentication_string");
  if (!AsInt(payload[2], number) || number != 3) return Fail(why, "protocol_version_number is not 3");
  if (rules.machineId.empty()) rules.machineId = auth;
  if (auth != rules.machineId) return Fail(why, "authentication_string changed");
  CBencode* level2Item = payload[3];
  if (level2Item == nullptr || level2Item->GetType() != CBencode::eList) return Fail(why, "level 2 is not a list");
  CBencodeList& level2 = *static_cast<CBencodeList*>(level2Item);
  long start = 0, end = 0;
  if (level2.Items().size() != 3 || !AsInt(level2[0], start) || !AsInt(level2[1], end)) return Fail(why, "level 2");
  for (long moment : {start, end}) {
    if (moment < rules.earliest || moment > rules.latest) {
      return Fail(why, "collection period time " + std::to_string(moment) + " outside the clock's range");
    }
  }
  CBencodeDictionary* level3 = AsDict(level2[2]);
  CBencodeDictionary* quality = level3 != nullptr && level3->Items().size() == 1
                                    ? AsDict(Find(*level3, "QualityImprovementData"))
                                    : nullptr;
  if (quality == nullptr) return Fail(why, "level 3 is not one QualityImprovementData dictionary");

  size_t skeletonKeys = 0;
  for (const char* key : kSkeletonKeys) skeletonKeys += Find(*quality, key) != nullptr ? 1 : 0;
  if (skeletonKeys != 0 && skeletonKeys != std::size(kSkeletonKeys)) return Fail(why, "a partial identity skeleton");
  facts.skeleton = skeletonKeys != 0;
  if (facts.skeleton && !CheckSkeleton(*quality, rules.machineId, why)) return false;
  for (const auto& [key, value] : quality->Items()) {
    bool allowed = key == "ModuleData" || key == "DNSHash";
    for (const char* skeletonKey : kSkeletonKeys) allowed = allowed || key == skeletonKey;
    // Crash and threat reports come only from paths no host reaches in this configuration.
    if (!allowed) return Fail(why, "QualityImprovementData holds " + key);
  }
  if (CBencode* hash = Find(*quality, "DNSHash")) {
    if (!facts.skeleton) return Fail(why, "a DNSHash without the skeleton it is rebuilt with");
    if (!AsString(hash, facts.dnsHash) || !IsHex(facts.dnsHash, 20) || rules.dnsHashes.count(facts.dnsHash) == 0) {
      return Fail(why, "DNSHash " + facts.dnsHash + " is no domain's hash");
    }
  }
  if (CBencode* modules = Find(*quality, "ModuleData")) {
    CBencodeDictionary* dict = AsDict(modules);
    if (dict == nullptr) return Fail(why, "ModuleData is not a dictionary");
    if (!CheckModuleData(*dict, facts, why)) return false;
  }
  return true;
}

bool ModuleFileRecords(const std::string& bytes, std::vector<uint64_t>& ids, bool& hasNetwork) {
  ids.clear();
  hasNetwork = false;
  CBencodeStream stream(std::string(), false);
  stream.Write(bytes.data(), bytes.size());
  stream.Seekg(0, std::ios_base::beg);
  CBencodeDictionary data(false);
  if (!bytes.empty() && (bytes[0] != 'd' || !data.Internalize(stream))) return false;
  for (const auto& item : data.Items()) {
    uint64_t id = 0;
    if (ParseRecordKey(item.first, id)) ids.push_back(id);
    hasNetwork = hasNetwork || item.first == "Network";
  }
  return true;
}

}  // namespace soak
