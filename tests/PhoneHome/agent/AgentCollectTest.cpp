// Module data into feedback files, and crash and threat reports into report files, through the agent itself.
// Posts go to a closed local port, so every file written stays in the outbound directory to be read back.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/time.h>
#include <unistd.h>

#include "AgentUnderTest.h"
#include "Clock.h"
#include "RuntimeConfig.h"

namespace {

constexpr uint32_t kStart = 1700000000;

// The writer's lock on a module file, held by the test for as long as the object lives.
struct HeldLock {
  explicit HeldLock(const std::string& path) : fd(open(path.c_str(), O_RDONLY)) { flock(fd, LOCK_EX); }
  ~HeldLock() { close(fd); }
  int fd;
};

class AgentCollect : public AgentOverDir {
 protected:
  void SetUp() override {
    SuiteClock::UseSimulated(kStart);
    SuiteRuntime::SetConnectTo({"feedback.velmar.example:443:127.0.0.1:1", "feedback2.velmar.example:443:127.0.0.1:1"});
    AgentOverDir::SetUp();
    ASSERT_TRUE(a.InitPhoneHomePayload());
  }
  void TearDown() override {
    SuiteRuntime::SetConnectTo({});
    SuiteClock::UseRealTime();
  }
  // A module data file in the test's directory, named in the module settings under `key`.
  std::string Module(const std::string& key, const std::string& text) {
    const std::string path = m_dir.Write(key + ".cef", text);
    a.moduleSettings.Insert(key, path);
    return path;
  }
};

}  // namespace

TEST_F(AgentCollect, ModuleStatusRules) {
  const std::string kDomainHash = "a9993e364706816aba3e25717850c26c9cd0d89d";  // SHA-1 of "abc"
  // files: per key, "" absent, "#text" locked, else the file's text; stored: "ModuleData" afterwards; removed:
  // per key whose file exists; message: the start of the one line logged, its importance first.
  struct Row {
    const char* name;
    std::string module;
    std::vector<std::string> keys, files;
    int rc;
    std::string stored;
    std::vector<bool> removed;
    std::string dnsHash;
    const char* message;
  } rows[] = {
      {"absent", "AccessModule", {"AccessPhoneHomeFile"}, {""}, 0, "de", {false}, "old", nullptr},
      {"tunnel domain", "TunnelModule", {"TunnelPhoneHomeFile"},
       {"d1:ai1e7:Networkd16:TrustedInterfaced9:DNSDomain3:abceee"}, 0, "d12:TunnelModuled1:ai1eee", {true},
       kDomainHash.substr(20), "I Removed Network dict"},
      {"tunnel without domain", "TunnelModule", {"TunnelPhoneHomeFile"}, {"d7:Networkd1:bi2eee"}, 0,
       "d12:TunnelModuled7:Networkd1:bi2eeee", {true}, "old", nullptr},
      {"two files", "ServiceModule", {"BasePosture", "ElevatedPosture"}, {"d1:bi1ee", "d1:ei2ee"}, 0,
       "d13:ServiceModuled11:BasePostured1:bi1ee15:ElevatedPostured1:ei2eeee", {true, true}, "old", nullptr},
      {"first key absent", "ServiceModule", {"BasePosture", "ElevatedPosture"}, {"", "d1:ei2ee"}, 0, "de",
       {false, false}, "old", nullptr},
      {"first locked", "ServiceModule", {"BasePosture", "ElevatedPosture"}, {"#d1:bi1ee", "d1:ei2ee"}, 0,
       "d13:ServiceModuled15:ElevatedPostured1:ei2eeee", {false, true}, "old",
       "E Failed to Internalize ServiceModule Module data for tag BasePosture from file "},
      // The last key decides: pending, and the first key's data is dropped though its file is gone.
      {"second locked", "ServiceModule", {"BasePosture", "ElevatedPosture"}, {"d1:bi1ee", "#d1:ei2ee"}, -2, "de",
       {true, false}, "old", "E Failed to Internalize ServiceModule Module data for tag ElevatedPosture from file "},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    a.moduleSettings.Reset();
    a.dnsHash = "old";
    std::vector<std::string> paths;
    std::vector<std::unique_ptr<HeldLock>> locks;
    for (size_t i = 0; i < row.keys.size(); ++i) {
      if (row.files[i].empty()) continue;
      const bool locked = row.files[i][0] == '#';
      paths.push_back(Module(row.keys[i], locked ? row.files[i].substr(1) : row.files[i]));
      if (locked) locks.push_back(std::make_unique<HeldLock>(paths.back()));
    }
    CBencodeDictionary moduleData(false);
    m_log.Clear();
    EXPECT_EQ(a.GetModuleData(row.module, row.keys, moduleData), row.rc);
    EXPECT_EQ(Bencoded(moduleData), row.stored);
    for (size_t i = 0; i < paths.size(); ++i) EXPECT_EQ(!TempDir::Exists(paths[i]), row.removed[i]) << paths[i];
    EXPECT_EQ(a.dnsHash, row.dnsHash);
    const std::string logged = m_log.Lines("PhoneHomeAgent");
    const bool oneLine = logged.find('\n') + 1 == logged.size();
    EXPECT_TRUE(row.message ? oneLine && logged.rfind(row.message, 0) == 0 : logged.empty()) << logged;
  }
}

TEST_F(AgentCollect, ModulesAreVisitedInMapOrder) {
  // The table as the feedback timer fills it; every file unreadable, so each module logs once, in map order.
  a.moduleFiles = {{"AccessModule", {"AccessPhoneHomeFile"}}, {"WebFilterModule", {"WebFilterPhoneHomeFile"}},
                   {"TunnelModule", {"TunnelPhoneHomeFile"}}, {"ResolverModule", {"ResolverPhoneHomeFile"}},
                   {"FlowModule", {"FlowPhoneHomeFile"}},     {"PostureCheckModule", {"PosturePhoneHomeFile"}},
                   {"ServiceModule", {"BasePosture", "ElevatedPosture"}}};
  for (const auto& module : a.moduleFiles) Module(module.second.back(), "x");
  Module("BasePosture", "d1:bi1ee");
  bool retry = true;
  EXPECT_TRUE(a.CollectPhoneHomeDataAndSend(retry));
  EXPECT_FALSE(retry);
  std::vector<std::string> order;
  for (const std::string& text : AgentTexts(APPLOG_ERROR)) order.push_back(text.substr(22, text.find(' ', 22) - 22));
  const std::vector<std::string> expected = {"AccessModule", "FlowModule",   "PostureCheckModule", "ResolverModule",
                                             "ServiceModule", "TunnelModule", "WebFilterModule"};
  EXPECT_EQ(order, expected) << m_log.Dump();
  EXPECT_NE(Out("feedback_data1.cef").find("10:ModuleDatade9:OSDetails"), std::string::npos);
  EXPECT_FALSE(TempDir::Exists(m_dir.File("BasePosture.cef")));  // taken, then dropped with its module
}

TEST_F(AgentCollect, FileNamesRunFromOneToAHundredAndEachWriteEmptiesTheQualityDictionary) {
  const struct {
    unsigned int number;
    const char* name;
    unsigned int next;
  } rows[] = {{1, "feedback_data1.cef", 2}, {100, "feedback_data100.cef", 1}, {1, "feedback_data1.cef", 2}};
  a.dnsHash = "fedcba9876543210fedc";
  ASSERT_TRUE(a.InitPhoneHomePayload());
  m_dir.Write("out/feedback_data1.cef", std::string(4096, 'o'));  // not posted yet when the numbers come round
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    a.sequenceNumber = row.number;
    ASSERT_TRUE(a.CreateBencodeFile(a.outboundDir + "feedback_data"));
    EXPECT_EQ(a.sequenceNumber, row.next);
    EXPECT_TRUE(a.qualityDict->Items().empty());
    const std::string file = Out(row.name);
    EXPECT_EQ(std::string({file.front(), file.back()}), "le");
    EXPECT_EQ(file.find("DNSHash") != std::string::npos, &row == &rows[0]);
    EXPECT_NE(TempDir::Read(a.historyFile).find("last_sequence_number:" + std::to_string(row.next) + "\n"),
              std::string::npos);
  }
  // An outbound directory that is gone: nothing written, the number kept, the dictionary emptied all the same.
  a.outboundDir = m_dir.File("gone/");
  a.qualityDict->Insert("ModuleData", "x");
  EXPECT_FALSE(a.CreateBencodeFile(a.outboundDir + "feedback_data"));
  EXPECT_EQ(a.sequenceNumber, 2u);
  EXPECT_TRUE(a.qualityDict->Items().empty());
  ASSERT_NE(m_log.FindCall("CBencodeList::Externalize"), nullptr) << m_log.Dump();
  EXPECT_EQ(m_log.FindCall("CBencodeList::Externalize")->text, "Failed to externalize phoneHome payload");
}

TEST_F(AgentCollect, CrashDumpsNewerThanTheLastReportUpToSixteenMebibytes) {
  auto dump = [&](const std::string& name, const std::string& text, off_t size, uint32_t modified) {
    const std::string path = m_dir.Write(name, text);
    EXPECT_TRUE(size == 0 || truncate(path.c_str(), size) == 0);
    // Read since: only the modification time counts.
    const timeval times[2] = {{static_cast<time_t>(kStart + 50), 0}, {static_cast<time_t>(modified), 0}};
    EXPECT_EQ(utimes(path.c_str(), times), 0);
  };
  const uint32_t last = kStart - 100;
  a.history["last_crash_report"] = std::to_string(last);
  dump("t0.dmp", "old", 0, last);  // modified in the very second of the last report: not sent
  dump("t1.dmp", "dump-one", 0, last + 1);
  dump("t2.dmp", "dump-two", 0, last + 1);
  dump("a1.dmp", "", 16777216, kStart);
  dump("a2.dmp", "", 16777217, kStart);
  a.moduleSettings.Insert("TunnelModule", m_dir.File("t*.dmp"));
  CBencodeList* list = nullptr;
  a.moduleSettings.Get("AccessModule", list, true);
  list->Append(m_dir.File("a2.dmp"));
  list->Append(5L);
  list->Append(m_dir.File("a1.dmp"));
  a.moduleSettings.Get("UiModule", list, true);  // empty: nothing, and nothing logged
  a.moduleSettings.Insert("ResolverModule", m_dir.File("none*.dmp"));
  a.moduleSettings.Insert("FlowModule", 7L);

  EXPECT_TRUE(a.CheckCrashDumps());
  EXPECT_NE(Out("crash_report1.cef").find("12:TunnelModuled9:CrashData12:ZHVtcC1vbmU=ee"), std::string::npos);
  EXPECT_NE(Out("crash_report2.cef").find("12:TunnelModuled9:CrashData12:ZHVtcC10d28=ee"), std::string::npos);
  EXPECT_EQ(Out("crash_report2.cef").find("ZHVtcC1vbmU="), std::string::npos);
  // Tunnel and access come before flow in the modules' order; 16 MiB of zero bytes are 22369624 characters.
  EXPECT_NE(Out("crash_report3.cef").find("9:CrashData22369624:AAAA"), std::string::npos);
  EXPECT_FALSE(TempDir::Exists(a.outboundDir + "crash_report4.cef"));
  const std::vector<std::string> logged = {"Crash dump file size (16777217) exceeds maximum limit (16777216) \n",
                                           "Invalid bencode list content",
                                           "Unexpected content type (0) in settings dictionary"};
  EXPECT_EQ(AgentTexts(APPLOG_ERROR), logged) << m_log.Dump();
  EXPECT_EQ(a.history["last_crash_report"], std::to_string(kStart));
  EXPECT_EQ(a.retryCount, 3u);

  // Stamped with now: the same dumps are not new any more.
  EXPECT_TRUE(a.CheckCrashDumps());
  EXPECT_FALSE(TempDir::Exists(a.outboundDir + "crash_report4.cef"));
}

TEST_F(AgentCollect, ThreatReportEndsAtItsFirstNulByteAndWaitsForTheNextPost) {
  EXPECT_TRUE(a.SaveThreatReportToFile(m_dir.Write("threat", std::string("seen\0hidden", 11))));
  EXPECT_NE(Out("threat_report1.cef").find("13:ThreatReportsd14:ThreatIncident4:seenee"), std::string::npos);
  EXPECT_EQ(Out("threat_report1.cef").find("hidden"), std::string::npos);
  EXPECT_EQ(a.history["last_threat_report"], std::to_string(kStart));
  EXPECT_EQ(NextExpiryMs(), -1);  // no post, so no retry
}
