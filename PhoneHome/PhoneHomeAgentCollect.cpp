// The agent's collection pass: module data files into the payload, then the payload into a feedback file.
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "AppLog.h"
#include "EventCodes.h"
#include "PhoneHome/PhoneHomeAgent.h"

namespace {

const char kUnit[] = "PhoneHomeAgent";
// How long a pass waits for a writer still holding a module's file, and how many such waits one pass makes.
const unsigned int kCollectWaitMs = 20000;
const unsigned int kCollectAttempts = 4;
// Sequence numbers run 1..100 and then start again at 1.
const unsigned int kLastSequenceNumber = 100;
// Post retries a collection grants, and their interval in seconds.
const unsigned int kPostRetries = 3;
const unsigned int kPostRetrySeconds = 1800;

const char kTunnelModule[] = "TunnelModule";

#define LOG_ERROR(...) CAppLog::LogDebugMessage(__FUNCTION__, kUnit, __LINE__, APPLOG_ERROR, __VA_ARGS__)

using Dictionary = std::unique_ptr<CBencodeDictionary>;

void RemoveModuleFile(const char* function, const std::string& path) {
  // The data is in the payload already; the same file is simply read again at the next pass.
  if (remove(path.c_str()) != 0) {
    CAppLog::LogDebugMessage(function, kUnit, __LINE__, APPLOG_ERROR,
                             "Failed to remove %s module specific dictionary file", path.c_str());
  }
}

}  // namespace

bool CPhoneHomeAgent::CollectPhoneHomeDataAndSend(bool& retry) {
  retry = false;
  CBencodeDictionary* moduleData = nullptr;
  if (qualityDict == nullptr || !qualityDict->Get("ModuleData", moduleData, true) || moduleData == nullptr) {
    LOG_ERROR("Failed to get \"ModuleData\" dictionary");
    return false;
  }

  // A module is tried once per pass; only one whose file is still locked by its writer stays for the next.
  for (auto entry = moduleFiles.begin(); entry != moduleFiles.end();) {
    if (GetModuleData(entry->first, entry->second, *moduleData) == eBencodeLockError) {
      ++entry;
    } else {
      entry = moduleFiles.erase(entry);
    }
  }

  if (!moduleFiles.empty()) {
    if (collectAttempts > 0) {
      // The feedback timer brings the pass back here; the file is written once the writers let go.
      const long err = feedbackTimer != nullptr ? feedbackTimer->StartTimer(kCollectWaitMs) : EVT_E_NOT_ATTACHED;
      if (err != 0) {
        CAppLog::LogReturnCode(__FUNCTION__, kUnit, __LINE__, APPLOG_ERROR, "StartTimer", err,
                               "Failure in starting phoneHome timer");
        return false;
      }
      --collectAttempts;
      retry = true;
      return true;
    }
    LOG_ERROR("Failed to collect phoneHome data from all the components");
    collectAttempts = kCollectAttempts;
  }
  moduleFiles.clear();

  UpdateTimeInHistory("last_feedback");
  if (!CreateBencodeFile(outboundDir + "feedback_data")) {
    LOG_ERROR("Failure to create phoneHome bencode file");
    return false;
  }
  retryCount = kPostRetries;
  if (!ScanAndPostFile(kPostRetrySeconds)) {
    LOG_ERROR("ScanAndPostFile failed");
    return false;
  }
  return true;
}

int CPhoneHomeAgent::GetModuleData(const std::string& module, const std::vector<std::string>& keys,
                                   CBencodeDictionary& moduleData) {
  if (keys.size() == 1) {
    std::string path;
    if (!moduleSettings.Get(keys[0], path)) return 0;  // nothing to give this time

    EBencodeResult result = eBencodeOk;
    Dictionary loaded(new CBencodeDictionary(path, result, false));
    if (result != eBencodeOk) {
      LOG_ERROR("Failed to internalize %s Module data", module.c_str());
      return result;
    }

    if (module == kTunnelModule) {
      // The domain itself never leaves the machine: only half of its digest goes out, as "DNSHash".
      CBencodeDictionary* network = nullptr;
      CBencodeDictionary* trusted = nullptr;
      std::string domain;
      if (loaded->Get("Network", network, false) && network->Get("TrustedInterface", trusted, false) &&
          trusted->Get("DNSDomain", domain)) {
        std::string digest;
        if (SHA1Hash(domain, digest)) dnsHash = digest.substr(20, 20);
        if (loaded->Remove("Network")) {
          CAppLog::LogDebugMessage(__FUNCTION__, kUnit, __LINE__, APPLOG_INFO, "Removed Network dict");
        }
      }
    }

    if (!moduleData.Insert(module, loaded.get())) {
      LOG_ERROR("Failed to insert %s module dictionary", module.c_str());
      return eBencodeError;
    }
    loaded.release();  // owned by moduleData now
    RemoveModuleFile(__FUNCTION__, path);
    return 0;
  }

  // Several files: the status is whatever the last key's load or insert left, so only the last key decides
  // whether the module stays pending. Earlier keys' files are deleted all the same; kept as it always was.
  int status = 0;
  Dictionary gathered(new CBencodeDictionary(false));
  for (const std::string& key : keys) {
    std::string path;
    if (!moduleSettings.Get(key, path)) return 0;  // what was gathered is dropped with `gathered`

    EBencodeResult result = eBencodeOk;
    Dictionary loaded(new CBencodeDictionary(path, result, false));
    status = result;
    if (result != eBencodeOk) {
      LOG_ERROR("Failed to Internalize %s Module data for tag %s from file %s", module.c_str(), key.c_str(),
                path.c_str());
      continue;
    }
    if (!gathered->Insert(key, loaded.get())) {
      status = eBencodeError;
      LOG_ERROR("Failed to insert %s module dictionary for tag %s from file %s", module.c_str(), key.c_str(),
                path.c_str());
      continue;
    }
    loaded.release();
    RemoveModuleFile(__FUNCTION__, path);
  }
  if (status == 0) {
    if (moduleData.Insert(module, gathered.get())) {
      gathered.release();
    } else {
      LOG_ERROR("Failed to insert %s module dictionary", module.c_str());
      status = eBencodeError;
    }
  }
  return status;
}

bool CPhoneHomeAgent::CreateBencodeFile(const std::string& prefix) {
  CBencode* last = payload.Items().empty() ? nullptr : payload.Items().back();
  if (last == nullptr || last->GetType() != CBencode::eList) {
    LOG_ERROR("Failure in retrieving Bencoded phoneHome payload structure");
    return false;
  }
  if (!UpdateLevel2Payload(*static_cast<CBencodeList*>(last))) {
    LOG_ERROR("Failure in updating current time in Bencoded phoneHome payload structure");
    return false;
  }
  char number[16];
  const int length = snprintf(number, sizeof number, "%u", sequenceNumber);
  if (length <= 0 || static_cast<size_t>(length) >= sizeof number) {
    LOG_ERROR("Failed to create phoneHome outbound filename");
    return false;
  }

  // Not spooled: a file of the same name still waiting to be posted (possible once the numbers wrap) is
  // overwritten.
  payload.SetBencodeFileName(prefix + number + ".cef");
  const EBencodeResult written = payload.Externalize(true);
  // Each file carries its module data, reports and identity once; the next file starts from an empty
  // dictionary unless the payload is rebuilt first.
  if (qualityDict != nullptr) qualityDict->Reset();
  if (written != eBencodeOk) {
    CAppLog::LogReturnCode(__FUNCTION__, kUnit, __LINE__, APPLOG_ERROR, "CBencodeList::Externalize", written,
                           "Failed to externalize phoneHome payload");
    return false;
  }

  sequenceNumber = sequenceNumber + 1 <= kLastSequenceNumber ? sequenceNumber + 1 : 1;
  if (!SaveHistoryFile()) {
    LOG_ERROR("SaveHistoryFile Failed");
    return false;
  }
  return true;
}
