// The agent with its operations and fields opened to the suites, and the service object it needs as owner.
#pragma once

#include <memory>

#include "PhoneHome/PhoneHomeAgent.h"
#include "PhoneHome/PhoneHomePluginImp.h"

class AgentUnderTest : public CPhoneHomeAgent {
 public:
  AgentUnderTest(long& err, CPhoneHomePlugin& owner) : CPhoneHomeAgent(err, owner) {}

  using CPhoneHomeAgent::ApplyHistory;
  using CPhoneHomeAgent::CalcRemainingSeconds;
  using CPhoneHomeAgent::GetFileCreationTime;
  using CPhoneHomeAgent::InitPhoneHomeAgent;
  using CPhoneHomeAgent::LoadSettingsFromConfigFile;
  using CPhoneHomeAgent::LoadSettingsFromXmlFile;
  using CPhoneHomeAgent::SaveHistoryFile;
  using CPhoneHomeAgent::UpdateTimeInHistory;

  using CPhoneHomeAgent::baseDir;
  using CPhoneHomeAgent::config;
  using CPhoneHomeAgent::configFile;
  using CPhoneHomeAgent::crashCheckInterval;
  using CPhoneHomeAgent::customerId;
  using CPhoneHomeAgent::feedbackInterval;
  using CPhoneHomeAgent::history;
  using CPhoneHomeAgent::historyFile;
  using CPhoneHomeAgent::lastReportedTime;
  using CPhoneHomeAgent::outboundDir;
  using CPhoneHomeAgent::profileFile;
  using CPhoneHomeAgent::sequenceNumber;
  using CPhoneHomeAgent::serviceDisabled;
  using CPhoneHomeAgent::stopRequested;
};

// An owner service object and an agent of its own beside the owner's, both built without error.
struct AgentFixture {
  AgentFixture() : owner(std::make_unique<CPhoneHomePlugin>(ownerErr)), agent(std::make_unique<AgentUnderTest>(err, *owner)) {}
  long ownerErr = -1;
  long err = -1;
  std::unique_ptr<CPhoneHomePlugin> owner;
  std::unique_ptr<AgentUnderTest> agent;
};
