// The agent with its operations and fields opened to the suites, and the setups the suites share.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <memory>
#include <string>
#include <vector>

#include "Bencoded.h"
#include "ExecutionContext.h"
#include "LogCapture.h"
#include "PhoneHome/PhoneHomeAgent.h"
#include "PhoneHome/PhoneHomePluginImp.h"
#include "TempDir.h"

class AgentUnderTest : public CPhoneHomeAgent {
 public:
  AgentUnderTest(long& err, CPhoneHomePlugin& owner) : CPhoneHomeAgent(err, owner) {}

  using CPhoneHomeAgent::ApplyHistory, CPhoneHomeAgent::CalcRemainingSeconds, CPhoneHomeAgent::CheckCrashDumps,
        CPhoneHomeAgent::CollectPhoneHomeDataAndSend, CPhoneHomeAgent::CreateBencodeFile,
        CPhoneHomeAgent::GetMachineID, CPhoneHomeAgent::GetModuleData, CPhoneHomeAgent::GetUDID,
        CPhoneHomeAgent::InitPhoneHomeAgent, CPhoneHomeAgent::InitPhoneHomePayload,
        CPhoneHomeAgent::LoadSettingsFromConfigFile, CPhoneHomeAgent::LoadSettingsFromXmlFile,
        CPhoneHomeAgent::PostDataFile, CPhoneHomeAgent::SaveHistoryFile, CPhoneHomeAgent::ScanAndPostFile,
        CPhoneHomeAgent::UpdateLevel2Payload;
  using CPhoneHomeAgent::baseDir, CPhoneHomeAgent::compressPost, CPhoneHomeAgent::configFile,
        CPhoneHomeAgent::crashCheckInterval, CPhoneHomeAgent::customerId, CPhoneHomeAgent::dnsHash,
        CPhoneHomeAgent::executionContext, CPhoneHomeAgent::feedbackInterval, CPhoneHomeAgent::history,
        CPhoneHomeAgent::historyFile, CPhoneHomeAgent::lastReportedTime, CPhoneHomeAgent::machineId,
        CPhoneHomeAgent::moduleFiles, CPhoneHomeAgent::moduleSettings, CPhoneHomeAgent::outboundDir,
        CPhoneHomeAgent::payload, CPhoneHomeAgent::profileFile, CPhoneHomeAgent::qualityDict,
        CPhoneHomeAgent::retryCount, CPhoneHomeAgent::retryTimer, CPhoneHomeAgent::sequenceNumber,
        CPhoneHomeAgent::serviceDisabled, CPhoneHomeAgent::stopRequested, CPhoneHomeAgent::udid;

  CBencodeList& Level2() { return *static_cast<CBencodeList*>(payload[3]); }
};

// An owner service object and an agent of its own beside the owner's, both built without error.
struct AgentFixture {
  AgentFixture() : owner(std::make_unique<CPhoneHomePlugin>(ownerErr)), agent(std::make_unique<AgentUnderTest>(err, *owner)) {}
  long ownerErr = -1;
  long err = -1;
  std::unique_ptr<CPhoneHomePlugin> owner;
  std::unique_ptr<AgentUnderTest> agent;
};

// An agent writing into an outbound directory of the test's own, with the retry timer the post pass arms.
class AgentOverDir : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(m_err, 0);
    a.outboundDir = m_dir.path() + "/out/";
    a.historyFile = m_dir.File("history");
    mkdir(a.outboundDir.c_str(), 0755);
    long err = 0;
    a.retryTimer = new CTimer(err, a.executionContext->GetTimerList(), &a, nullptr, 5);
  }
  std::string Out(const std::string& name) { return TempDir::Read(a.outboundDir + name); }
  // What the agent itself logged at `importance`, leaving out the records of the classes it uses.
  std::vector<std::string> AgentTexts(int importance) {
    std::vector<std::string> texts;
    for (const LogRecord& r : m_log.Records()) {
      if (r.file == "PhoneHomeAgent" && r.kind == LogRecord::eDebugMessage && r.importance == importance) {
        texts.push_back(r.text);
      }
    }
    return texts;
  }
  long long NextExpiryMs() {
    unsigned int ms = 0;
    return a.executionContext->GetTimerList()->TimeToExpired(ms) == 0 ? static_cast<long long>(ms) : -1;
  }

  TempDir m_dir;
  LogCapture m_log;
  long m_ownerErr = -1, m_err = -1;
  CPhoneHomePlugin m_owner{m_ownerErr};
  AgentUnderTest a{m_err, m_owner};
};
