// The agent's settings: the administrator profile first, then the config file, whose intervals win.
#include <cstdlib>

#include "AppLog.h"
#include "PhoneHome/PhoneHomeAgent.h"
#include "PhoneHome/PhoneHomeXmlMgr.h"
#include "XmlParser.h"

namespace {

const char kUnit[] = "PhoneHomeAgent";

// A config value as strtol reads it, cut to 32 bits: no bounds, so 0 and negative values (which wrap) and
// trailing text are taken as they come. The schedule's only floor is the first run's 600 seconds.
void TakeInterval(const std::map<std::string, std::string>& config, const char* key, unsigned int& interval) {
  auto found = config.find(key);
  if (found == config.end() || found->second.empty()) return;
  interval = static_cast<unsigned int>(strtol(found->second.c_str(), nullptr, 10));
}

}  // namespace

void CPhoneHomeAgent::LoadSettingsFromXmlFile() {
  PhoneHomeXmlMgr profile;
  XmlParser parser(profile);
  long result = parser.parseFile(profileFile, false);
  if (result != 0) {
    CAppLog::LogReturnCode(__FUNCTION__, kUnit, __LINE__, APPLOG_ERROR, "XmlParser::parseFile", result);
    return;
  }
  serviceDisabled = profile.GetServiceDisable();
  if (!profile.GetCustomerID().empty()) customerId = profile.GetCustomerID();
  if (profile.GetFeedbackInterval() != 0) feedbackInterval = profile.GetFeedbackInterval();
  if (profile.GetCheckCrashInterval() != 0) crashCheckInterval = profile.GetCheckCrashInterval();
  // The profile's IncludeCrashReport is read but deliberately not taken over: includeCrashReport stays false.
}

void CPhoneHomeAgent::LoadSettingsFromConfigFile() {
  if (!LoadFileToMap(configFile, config)) return;
  TakeInterval(config, "feedback_interval", feedbackInterval);
  TakeInterval(config, "check_crash_interval", crashCheckInterval);
}
