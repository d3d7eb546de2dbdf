// The agent's crash and threat reports: new crash dumps and a given threat report, each into a feedback file.
#include <glob.h>

#include <cstdint>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "AppLog.h"
#include "PhoneHome/PhoneHomeAgent.h"
#include "lBase64.h"

namespace {

const char kUnit[] = "PhoneHomeAgent";
// Modules whose crash-dump patterns the settings may name, in the order they are looked at.
const char* const kCrashModules[] = {"TunnelModule",  "AccessModule",  "WebFilterModule",
                                     "FlowModule",    "ResolverModule", "UiModule",
                                     "UpdaterModule", "PostureModule",  "PostureAgentModule"};
// Largest dump sent, in bytes; a dump of exactly this size still goes.
const std::streamoff kMaxCrashDumpSize = 16777216;
const unsigned int kPostRetries = 3;
const unsigned int kPostRetrySeconds = 1800;

#define LOG_AT(importance, ...) CAppLog::LogDebugMessage(__FUNCTION__, kUnit, __LINE__, importance, __VA_ARGS__)

// Seeks to the end, takes the size and seeks back. The crash path logs the threat report's wording too, as it
// always has.
bool TakeSize(const char* function, std::ifstream& file, const std::string& path, std::streamoff& size) {
  if (!file.seekg(0, std::ios::end)) {
    CAppLog::LogDebugMessage(function, kUnit, __LINE__, APPLOG_ERROR, "Failed to seek in threat report file %s",
                             path.c_str());
    return false;
  }
  size = file.tellg();
  if (size < 0) {
    CAppLog::LogDebugMessage(function, kUnit, __LINE__, APPLOG_ERROR,
                             "Failed to get file size of threat report file %s", path.c_str());
    return false;
  }
  if (!file.seekg(0, std::ios::beg)) {
    CAppLog::LogDebugMessage(function, kUnit, __LINE__, APPLOG_ERROR, "Failed to seek in threat report file %s",
                             path.c_str());
    return false;
  }
  return true;
}

}  // namespace

bool CPhoneHomeAgent::CheckCrashDumps() {
  bool found = false;
  for (const char* module : kCrashModules) {
    CBencode::EContentType type = CBencode::eInteger;
    if (!moduleSettings.GetContentType(module, type)) continue;
    if (type == CBencode::eString) {
      std::string pattern;
      if (moduleSettings.Get(module, pattern)) found |= CheckCrashDumps(pattern, module);
    } else if (type == CBencode::eList) {
      CBencodeList* patterns = nullptr;
      if (!moduleSettings.Get(module, patterns, false) || patterns == nullptr) continue;
      for (CBencode* item : patterns->Items()) {
        std::string pattern;
        if (item == nullptr || item->GetType() != CBencode::eString || !item->Get(pattern)) {
          LOG_AT(APPLOG_ERROR, "Invalid bencode list content");
          continue;
        }
        found |= CheckCrashDumps(pattern, module);
      }
    } else {
      LOG_AT(APPLOG_ERROR, "Unexpected content type (%d) in settings dictionary", static_cast<int>(type));
    }
  }
  if (!found) return true;

  // Stamped with now, not with the newest dump's time: a dump is new when it changed after the last report.
  UpdateTimeInHistory("last_crash_report");
  retryCount = kPostRetries;
  if (!ScanAndPostFile(kPostRetrySeconds)) {
    LOG_AT(APPLOG_ERROR, "ScanAndPostFile failed");
    return false;
  }
  return true;
}

bool CPhoneHomeAgent::CheckCrashDumps(const std::string& pattern, const std::string& moduleName) {
  // The low 32 bits of what strtol reads; empty or not a number is 0, so every dump is new.
  const uint32_t threshold =
      static_cast<uint32_t>(strtol(history["last_crash_report"].c_str(), nullptr, 10));

  glob_t matches{};
  if (glob(pattern.c_str(), 0, nullptr, &matches) != 0) {  // no match included
    globfree(&matches);
    return false;
  }
  bool stored = false;
  for (size_t i = 0; i < matches.gl_pathc; ++i) {
    const std::string path = matches.gl_pathv[i];
    unsigned int modified = 0;
    if (!GetFileCreationTime(path, modified)) {
      LOG_AT(APPLOG_WARNING, "Failed to get creation time of %s", path.c_str());
      continue;
    }
    if (modified > threshold && SaveCrashReportToDataFile(path, moduleName)) stored = true;
  }
  globfree(&matches);
  return stored;
}

bool CPhoneHomeAgent::SaveCrashReportToDataFile(const std::string& dumpPath, const std::string& moduleName) {
  std::ifstream file(dumpPath, std::ios::in | std::ios::binary);
  if (!file.is_open()) {
    CAppLog::LogReturnCode(__FUNCTION__, kUnit, __LINE__, APPLOG_WARNING, "CPhoneHomeAgent::SaveCrashReportToDataFile",
                           0, "Can't open crash file %s", dumpPath.c_str());
    return false;
  }
  std::streamoff size = 0;
  if (!TakeSize(__FUNCTION__, file, dumpPath, size)) return false;
  if (size > kMaxCrashDumpSize) {
    file.close();
    LOG_AT(APPLOG_ERROR, "Crash dump file size (%u) exceeds maximum limit (%u) \n", static_cast<unsigned int>(size),
           static_cast<unsigned int>(kMaxCrashDumpSize));
    return false;
  }

  // The hint only sizes the encoder's chunks: about the length of the text.
  std::ostringstream encoded;
  const bool read = lBase64::Encode(file, encoded, static_cast<int>(static_cast<double>(size) * 1.4));
  file.close();
  if (!read) {
    // A dump that cannot be read whole is not sent in part.
    CAppLog::LogReturnCode(__FUNCTION__, kUnit, __LINE__, APPLOG_ERROR, "lBase64::Encode", 0, "%s",
                           dumpPath.c_str());
    return false;
  }

  CBencodeDictionary* reports = nullptr;
  if (qualityDict == nullptr || !qualityDict->Get("CrashReports", reports, true) || reports == nullptr) {
    LOG_AT(APPLOG_ERROR, "Unable to get crash report dictionary");
    return false;
  }
  CBencodeDictionary* moduleDict = nullptr;
  if (!reports->Get(moduleName, moduleDict, true) || moduleDict == nullptr) {
    LOG_AT(APPLOG_ERROR, "Unable to get %s dictionary", moduleName.c_str());
    return false;
  }
  if (!moduleDict->Insert("CrashData", encoded.str())) {
    LOG_AT(APPLOG_ERROR, "Failed to insert crash data into dictionary");
    return false;
  }
  return CreateBencodeFile(outboundDir + "crash_report");
}

bool CPhoneHomeAgent::SaveThreatReportToFile(const std::string& reportPath) {
  std::ifstream file(reportPath, std::ios::in | std::ios::binary);
  if (!file.is_open()) {
    CAppLog::LogReturnCode(__FUNCTION__, kUnit, __LINE__, APPLOG_WARNING, "SaveThreatReportToFile", 0, "Can't open %s",
                           reportPath.c_str());
    return false;
  }
  std::streamoff size = 0;
  if (!TakeSize(__FUNCTION__, file, reportPath, size)) return false;

  // No size limit: a report too large to hold in memory is a report that could not be read.
  std::vector<char> text;
  try {
    text.assign(static_cast<size_t>(size) + 1, '\0');
  } catch (const std::exception&) {
    text.clear();
  }
  if (text.empty() || !file.read(text.data(), size)) {
    LOG_AT(APPLOG_ERROR, "Failed to read threat report file %s", reportPath.c_str());
    return false;
  }
  file.close();

  CBencodeDictionary* reports = nullptr;
  if (qualityDict == nullptr || !qualityDict->Get("ThreatReports", reports, true) || reports == nullptr) {
    LOG_AT(APPLOG_ERROR, "Unable to get threat report dictionary");
    return false;
  }
  // The report is text: it ends at its first NUL byte.
  if (!reports->Insert("ThreatIncident", std::string(text.data()))) {
    LOG_AT(APPLOG_ERROR, "Failed to insert threat data into dictionary");
    return false;
  }
  UpdateTimeInHistory("last_threat_report");
  return CreateBencodeFile(outboundDir + "threat_report");
}
