// The agent's feedback payload: the three-level header tree, OS details and locale, machine identity and UDID.
#include <openssl/evp.h>

#include <clocale>
#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

#include "AppLog.h"
#include "BuildConfig.h"
#include "Clock.h"
#include "DeviceIDInfo.h"
#include "DeviceInfo/DeviceInfo.h"
#include "OsVersion.h"
#include "PhoneHome/PhoneHomeAgent.h"

namespace {

const char kUnit[] = "PhoneHomeAgent";
const long kMessageTypesId = 7;
const long kProtocolVersionNumber = 3;
const char kQualityKey[] = "QualityImprovementData";
const char kFormatVersion[] = "1.0";
// The UDID's 40 hexadecimal digits and a NUL: what CDeviceInfo is first asked to fill.
const unsigned int kUdidBufferSize = 41;

struct DigestContextFree {
  void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};
using DigestContext = std::unique_ptr<EVP_MD_CTX, DigestContextFree>;

// The first platform query that holds names the system; on this Linux-only runtime that is always "Linux".
const char* OsName() {
  static const struct {
    bool (*test)();
    const char* name;
  } kNames[] = {
      {IsOs_LINUX, "Linux"},         {IsOs_MAC, "Mac"},
      {IsOs_WINNT_XP_Only, "WinXP"}, {IsOs_WIN_VISTA_Only, "Vista"},
      {IsOs_WIN_7_Only, "Win7"},     {IsOs_WIN_8_Only, "Win8"},
      {IsOs_WIN_8Point10_Only, "Win8.1"}, {IsOs_WIN_10_Only, "Win10"},
  };
  for (const auto& entry : kNames) {
    if (entry.test()) return entry.name;
  }
  return "Unknown";
}

void LogError(const char* function, int line, const char* text) {
  CAppLog::LogDebugMessage(function, kUnit, line, APPLOG_ERROR, "%s", text);
}

}  // namespace

bool CPhoneHomeAgent::InitPhoneHomePayload() {
  payload.Reset();
  qualityDict = nullptr;  // it pointed into what Reset just freed

  if (!BuildLevel1Payload(payload)) {
    LogError(__FUNCTION__, __LINE__, "Failed to create level 1 payload");
    return false;
  }
  CBencodeList* level2 = nullptr;
  if (!payload.Append(level2) || level2 == nullptr || !BuildLevel2Payload(*level2)) {
    LogError(__FUNCTION__, __LINE__, "Failed to create level 2 payload");
    return false;
  }
  CBencodeDictionary* level3 = nullptr;
  if (!level2->Append(level3) || level3 == nullptr) {
    LogError(__FUNCTION__, __LINE__, "Failed to create level 3 payload");
    return false;
  }
  if (!level3->Get(kQualityKey, qualityDict, true) || qualityDict == nullptr) {
    qualityDict = nullptr;
    LogError(__FUNCTION__, __LINE__, "Failed to create QualityImprovementData dictionary");
    return false;
  }
  return BuildLevel3Payload(*qualityDict);
}

bool CPhoneHomeAgent::BuildLevel1Payload(CBencodeList& list) {
  if (!list.Append(kMessageTypesId)) {
    LogError(__FUNCTION__, __LINE__, "Failed to append message_types_id to list");
    return false;
  }
  if (!list.Append(machineId)) {
    LogError(__FUNCTION__, __LINE__, "Failed to append authentication_string to list");
    return false;
  }
  if (!list.Append(kProtocolVersionNumber)) {
    LogError(__FUNCTION__, __LINE__, "Failed to append protocol_version_number to list");
    return false;
  }
  return true;
}

bool CPhoneHomeAgent::BuildLevel2Payload(CBencodeList& level2) {
  // A first report ever covers no time: its period starts when it ends.
  if (lastReportedTime == 0) lastReportedTime = GetCurrentTimeSeconds();
  if (!level2.Append(static_cast<long>(lastReportedTime))) {
    LogError(__FUNCTION__, __LINE__, "Failed to append unix_timestamp_of_collection_period_start to list");
    return false;
  }
  // The end of this period is where the next one starts.
  lastReportedTime = GetCurrentTimeSeconds();
  if (!level2.Append(static_cast<long>(lastReportedTime))) {
    LogError(__FUNCTION__, __LINE__, "Failed to append unix_timestamp_of_collection_period_end to list");
    return false;
  }
  return true;
}

bool CPhoneHomeAgent::UpdateLevel2Payload(CBencodeList& level2) {
  CBencode* start = level2[0];
  if (start == nullptr || !start->Set(static_cast<long>(lastReportedTime))) {
    LogError(__FUNCTION__, __LINE__, "Failed to update timestamp of the last report sent");
    return false;
  }
  // Advanced before the file is written, so a failed write still closes this period.
  lastReportedTime = GetCurrentTimeSeconds();
  CBencode* end = level2[1];
  if (end == nullptr || !end->Set(static_cast<long>(lastReportedTime))) {
    LogError(__FUNCTION__, __LINE__, "Failed to update timestamp of the current report sent");
    return false;
  }
  return true;
}

bool CPhoneHomeAgent::BuildLevel3Payload(CBencodeDictionary& quality) {
  if (!InsertOSDetails(quality)) {
    LogError(__FUNCTION__, __LINE__, "Failed to insert OS details to level 3 dictionary");
    return false;
  }
  if (!quality.Insert("PhoneHomeFormatVersion", std::string(kFormatVersion))) {
    LogError(__FUNCTION__, __LINE__, "Failed to insert \"PhoneHomeFormatVersion\" to level 3 dictionary");
    return false;
  }
  if (!quality.Insert("OvVersion", std::string(OVF_BUILD_VERSION))) {
    LogError(__FUNCTION__, __LINE__, "Failed to insert \"OvVersion\" to level 3 dictionary");
    return false;
  }
  if (!quality.Insert("MachineId", machineId)) {
    LogError(__FUNCTION__, __LINE__, "Failed to insert \"MachineId\" to level 3 dictionary");
    return false;
  }
  // Optional identity keys are left out rather than written empty.
  if (!udid.empty() && !quality.Insert("UDID", udid)) {
    LogError(__FUNCTION__, __LINE__, "Failed to insert \"UDID\" to level 3 dictionary");
    return false;
  }
  if (!customerId.empty() && !quality.Insert("CustomerId", customerId)) {
    LogError(__FUNCTION__, __LINE__, "Failed to insert \"CustomerId\" to level 3 dictionary");
    return false;
  }
  // The message has always spelt the key in capitals; the key itself is "DNSHash".
  if (!dnsHash.empty() && !quality.Insert("DNSHash", dnsHash)) {
    LogError(__FUNCTION__, __LINE__, "Failed to insert \"DNSHASH\" to level 3 dictionary");
    return false;
  }
  return true;
}

bool CPhoneHomeAgent::InsertOSDetails(CBencodeDictionary& quality) {
  CBencodeDictionary* details = nullptr;
  if (!quality.Get("OSDetails", details, true) || details == nullptr) {
    LogError(__FUNCTION__, __LINE__, "Failed to get OSDetails dictionary");
    return false;
  }
  const OSVersionInfo os = GetOsVersion();
  if (!details->Insert("OSType", os.type)) {
    LogError(__FUNCTION__, __LINE__, "Failed to insert OSType into dictionary");
    return false;
  }
  if (!details->Insert("OSMajorVersion", static_cast<long>(os.majorVersion))) {
    LogError(__FUNCTION__, __LINE__, "Failed to insert OSMajorVersion into dictionary");
    return false;
  }
  if (!details->Insert("OSMinorVersion", static_cast<long>(os.minorVersion))) {
    LogError(__FUNCTION__, __LINE__, "Failed to insert OSMinorVersion into dictionary");
    return false;
  }
  if (!details->Insert("OSBuildVersion", static_cast<long>(os.buildNumber))) {
    LogError(__FUNCTION__, __LINE__, "Failed to insert OSBuildVersion into dictionary");
    return false;
  }
  if (!details->Insert("OSVersionDetails", os.details)) {
    LogError(__FUNCTION__, __LINE__, "Failed to insert OSVersionDetails into dictionary");
    return false;
  }
  if (!details->Insert("OSName", std::string(OsName()))) {
    LogError(__FUNCTION__, __LINE__, "Failed to insert OSName into dictionary");
    return false;
  }

  // The environment's locale is what the user chose; asking for it means selecting it for a moment, so the
  // process's own locale is put back straight after.
  const char* current = setlocale(LC_ALL, nullptr);
  const std::string saved = current != nullptr ? current : "C";
  const char* selected = setlocale(LC_ALL, "");
  if (selected == nullptr) {
    LogError(__FUNCTION__, __LINE__, "Failed to get System Locale information");
    return false;
  }
  const std::string locale = selected;
  if (setlocale(LC_ALL, saved.c_str()) == nullptr) {
    LogError(__FUNCTION__, __LINE__, "Failed to restore Locale");
  }
  if (!details->Insert("OSLocale", locale)) {
    LogError(__FUNCTION__, __LINE__, "Failed to insert OSLocale into dictionary");
    return false;
  }
  return true;
}

bool CPhoneHomeAgent::GetMachineID(std::string& out) {
  std::string id;
  if (!DeviceIDInfo::GetDeviceID(id)) return false;
  return SHA1Hash(id, out);
}

bool CPhoneHomeAgent::GetUDID(std::string& out) {
  std::vector<char> buffer(kUdidBufferSize, '\0');
  unsigned int size = kUdidBufferSize;
  CDeviceInfo deviceInfo;
  char* data = buffer.data();
  long code = deviceInfo.GetUDID(data, size);
  if (code == DEVICEINFO_ERR_MORE_DATA) {
    // The call wrote back the size it needs; one more try with exactly that.
    buffer.assign(size, '\0');
    data = buffer.data();
    code = deviceInfo.GetUDID(data, size);
    if (code != 0) {
      CAppLog::LogDebugMessage(__FUNCTION__, kUnit, __LINE__, APPLOG_ERROR, "Error (%x) in getting UDID",
                               static_cast<unsigned int>(code));
      return false;
    }
  } else if (code != 0) {
    CAppLog::LogDebugMessage(__FUNCTION__, kUnit, __LINE__, APPLOG_WARNING, "Error (%x) in getting UDID",
                             static_cast<unsigned int>(code));
    return false;
  }
  out.assign(buffer.data(), strnlen(buffer.data(), buffer.size()));
  return true;
}

bool CPhoneHomeAgent::SHA1Hash(const std::string& in, std::string& out) {
  DigestContext context(EVP_MD_CTX_new());
  if (!context) {
    LogError(__FUNCTION__, __LINE__, "EVP_MD_CTX_new failed");
    return false;
  }
  if (EVP_DigestInit_ex(context.get(), EVP_sha1(), nullptr) != 1) {
    LogError(__FUNCTION__, __LINE__, "EVP_DigestInit_ex failed");
    return false;
  }
  if (EVP_DigestUpdate(context.get(), in.data(), in.size()) != 1) {
    LogError(__FUNCTION__, __LINE__, "EVP_DigestUpdate failed");
    return false;
  }
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (EVP_DigestFinal_ex(context.get(), digest, &length) != 1) {
    LogError(__FUNCTION__, __LINE__, "EVP_DigestFinal_ex failed");
    return false;
  }
  if (length != static_cast<unsigned int>(EVP_MD_size(EVP_sha1()))) {
    LogError(__FUNCTION__, __LINE__, "EVP_DigestFinal_ex returned unexpected length");
    return false;
  }
  std::string hex(2 * length, '0');
  static const char kDigits[] = "0123456789abcdef";
  for (unsigned int i = 0; i < length; ++i) {
    hex[2 * i] = kDigits[digest[i] >> 4];
    hex[2 * i + 1] = kDigits[digest[i] & 0x0F];
  }
  out.swap(hex);
  return true;
}
