// The component status object and the marker-file test.
#include <fcntl.h>
#include <unistd.h>

#include <cstring>

#include "AppLog.h"
#include "BuildConfig.h"
#include "PhoneHome/PhoneHomePluginImp.h"
#include "PhoneHome/PhoneHomeXmlMgr.h"
#include "SafeString.h"
#include "UITranslator.h"
#include "UniqueFd.h"
#include "XmlParser.h"

const char* const PHONEHOME_STATUS_FILENAME = "cefdisable";

namespace {

const char kUnit[] = "PhoneHomePluginImp";
const char kFeedbackDirName[] = "CustomerExperienceFeedback";
const char kProfileFileName[] = "CustomerExperience_Feedback.xml";
const long kBufferTooSmall = -3;

// O_NONBLOCK: opening a FIFO put in the file's place must not wait for a writer.
bool CanOpenForReading(const std::string& path) {
  UniqueFd file(OpenCloexec(path.c_str(), O_RDONLY | O_NONBLOCK));
  return file.Valid();
}

}  // namespace

CPhoneHomeStatus::CPhoneHomeStatus()
    : m_strConfigFile(std::string(OVF_INSTALL_ROOT) + "/" + kFeedbackDirName + "/" + kProfileFileName) {}

CPhoneHomeStatus::~CPhoneHomeStatus() = default;

bool CPhoneHomeStatus::SupportsInterface(const char* id, unsigned int version) {
  return id != nullptr && strcmp(id, PHONEHOME_STATUS_INTERFACE_ID) == 0 && version == PHONEHOME_INTERFACE_VERSION;
}

void CPhoneHomeStatus::LoadStatusFromConfigFile(bool& enabled, bool& /*crashDumpEnabled*/) {
  try {
    if (!CanOpenForReading(m_strConfigFile)) {
      CAppLog::LogDebugMessage(__FUNCTION__, kUnit, __LINE__, APPLOG_WARNING, "Config file \"%s\" not exist.",
                               m_strConfigFile.c_str());
      return;
    }
    PhoneHomeXmlMgr profile;
    XmlParser parser(profile);
    long result = parser.parseFile(m_strConfigFile, false);
    if (result != 0) {
      CAppLog::LogReturnCode(__FUNCTION__, kUnit, __LINE__, APPLOG_ERROR, "XmlParser::parseFile", result,
                             "Cannot parse \"%s\".", m_strConfigFile.c_str());
      return;
    }
    // The profile's IncludeCrashReport is deliberately not consulted: the display name stays the plain
    // component's and callers keep their crash-report default.
    enabled = !profile.GetServiceDisable();
  } catch (...) {
    // Only an allocation can fail here; the caller's defaults stand, as for any other failure.
    CAppLog::LogDebugMessage(__FUNCTION__, kUnit, __LINE__, APPLOG_ERROR, "Out of memory reading the profile.");
  }
}

long CPhoneHomeStatus::IsEnabled(bool& enabled) {
  enabled = true;
  bool crashDumpEnabled = false;
  LoadStatusFromConfigFile(enabled, crashDumpEnabled);
  return 0;
}

long CPhoneHomeStatus::GetDisplayName(char* buffer, unsigned long& size) {
  bool enabled = true;
  bool crashDumpEnabled = false;
  LoadStatusFromConfigFile(enabled, crashDumpEnabled);

  const char* text = !enabled || !crashDumpEnabled
                         ? UITranslator::translate(UITranslator::PhoneHomeComponentName)
                         : UITranslator::translate(UITranslator::PhoneHomeWithCrashDumpName);
  unsigned long needed = strlen(text) + 1;
  if (buffer == nullptr || needed > size) {
    size = needed;
    return kBufferTooSmall;
  }
  safe_strlcpyA(buffer, text, size);
  return 0;
}

bool CPhoneHomeUtility::IsPhoneHomeEnabled(const std::string& directory) {
  // Only existence counts; a directory or a FIFO of that name opens for reading too and so also disables.
  try {
    return !CanOpenForReading(directory + "/" + PHONEHOME_STATUS_FILENAME);
  } catch (...) {
    return true;  // the path could not even be built: no marker was seen
  }
}

const char* CPhoneHomeUtility::GetPhoneHomeStatusFileName() { return PHONEHOME_STATUS_FILENAME; }
