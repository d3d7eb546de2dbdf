// The agent's payload tree byte for byte, its collection periods, and the identity values it carries.
#include <chrono>
#include <clocale>
#include <cstdlib>

#include "AgentUnderTest.h"
#include "BuildConfig.h"
#include "Clock.h"
#include "DeviceIDInfo.h"
#include "DeviceInfo/DeviceInfo.h"
#include "OsVersion.h"

namespace {

constexpr uint32_t kStart = 1700000000;
const std::string kMachineId = "0123456789abcdef0123456789abcdef01234567";
const std::string kUdid = "89abcdef0123456789abcdef0123456789abcdef";
const std::string kDnsHash = "fedcba9876543210fedc";

std::string Str(const std::string& text) { return std::to_string(text.size()) + ":" + text; }
std::string Int(uint64_t value) { return "i" + std::to_string(value) + "e"; }

// Each test builds on the simulated clock at kStart, with the environment naming the C.UTF-8 locale while the
// process itself stays in "C". Neither agent is started, so the two of them (the plug-in's own and the one
// under test) share execution context 3 without a loop to compete for.
class AgentPayload : public AgentOverDir {
 protected:
  void SetUp() override {
    SuiteClock::UseSimulated(kStart);
    setlocale(LC_ALL, "C");
    setenv("LC_ALL", "C.UTF-8", 1);
    AgentOverDir::SetUp();
    a.machineId = kMachineId;
  }
  void TearDown() override {
    unsetenv("LC_ALL");
    SuiteClock::UseRealTime();
  }
  // The OS part as the runtime reports this machine, so the tree is checked against the record it was given.
  static std::string OsDetails() {
    const OSVersionInfo os = GetOsVersion();
    return "d" + Str("OSBuildVersion") + Int(os.buildNumber) + Str("OSLocale") + Str("C.UTF-8") +
           Str("OSMajorVersion") + Int(os.majorVersion) + Str("OSMinorVersion") + Int(os.minorVersion) +
           Str("OSName") + Str("Linux") + Str("OSType") + Str(os.type) + Str("OSVersionDetails") + Str(os.details) +
           "e";
  }
};

}  // namespace

TEST_F(AgentPayload, TreeIsExactlyTheHeaderWithOptionalKeysLeftOutWhenEmpty) {
  struct Row {
    const char* name;
    std::string udid, customerId, dnsHash;
    std::string optionalBefore, optionalAfter;  // keys sorting before "MachineId", after "PhoneHomeFormatVersion"
  } rows[] = {
      {"all identity keys", kUdid, "acme", kDnsHash,
       Str("CustomerId") + Str("acme") + Str("DNSHash") + Str(kDnsHash), Str("UDID") + Str(kUdid)},
      {"none of the optional keys", "", "", "", "", ""},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    a.udid = row.udid;
    a.customerId = row.customerId;
    a.dnsHash = row.dnsHash;
    a.lastReportedTime = 0;
    LogCapture log;
    ASSERT_TRUE(a.InitPhoneHomePayload()) << log.Dump();

    // A first report ever covers no time: start and end are the same second.
    const std::string expected =
        "l" "i7e" + Str(kMachineId) + "i3e"
        "l" + Int(kStart) + Int(kStart) +
          "d" "22:QualityImprovementData"
            "d" + row.optionalBefore + "9:MachineId" + Str(kMachineId) + "9:OSDetails" + OsDetails() +
              "9:OvVersion" + Str(OVF_BUILD_VERSION) + "22:PhoneHomeFormatVersion" "3:1.0" + row.optionalAfter +
            "e"
          "e"
        "e"
        "e";
    EXPECT_EQ(Bencoded(a.payload), expected);
    EXPECT_TRUE(log.Records().empty()) << log.Dump();
    // The process keeps its own locale; only the environment's was looked at.
    EXPECT_STREQ(setlocale(LC_ALL, nullptr), "C");
  }
}

TEST_F(AgentPayload, PeriodsFollowEachOtherAcrossBuildsAndUpdates) {
  // Level 2 of each step: [start, end] at the clock's reading then.
  struct Step {
    uint32_t at;
    bool rebuild;  // InitPhoneHomePayload, else UpdateLevel2Payload
    uint32_t start, end;
  } steps[] = {
      {kStart + 100, true, kStart - 5000, kStart + 100},     // seeded from history's "last_post"
      {kStart + 700, false, kStart + 100, kStart + 700},     // a file written
      {kStart + 2000, true, kStart + 700, kStart + 2000},    // rebuilt for a new pass
      {kStart + 2000, false, kStart + 2000, kStart + 2000},  // a second file in the same second
      {kStart + 9000, false, kStart + 2000, kStart + 9000},
  };
  a.lastReportedTime = kStart - 5000;
  for (const Step& step : steps) {
    SCOPED_TRACE(step.at - kStart);
    ASSERT_TRUE(SuiteClock::AdvanceBy(std::chrono::seconds(step.at - GetCurrentTimeSeconds())));
    ASSERT_EQ(GetCurrentTimeSeconds(), step.at);
    ASSERT_TRUE(step.rebuild ? a.InitPhoneHomePayload() : a.UpdateLevel2Payload(a.Level2()));
    EXPECT_EQ(Bencoded(*a.Level2()[0]) + Bencoded(*a.Level2()[1]), Int(step.start) + Int(step.end));
    EXPECT_EQ(a.lastReportedTime, step.end);
    // The quality dictionary is the one inside the tree now, never the one a rebuild freed.
    CBencodeDictionary* quality = nullptr;
    ASSERT_TRUE(static_cast<CBencodeDictionary*>(a.Level2()[2])->Get("QualityImprovementData", quality, false));
    EXPECT_EQ(a.qualityDict, quality);
  }
}

TEST_F(AgentPayload, UpdateOfATreeWithoutTimestampsFails) {
  CBencodeList level2(false);
  LogCapture log;
  EXPECT_FALSE(a.UpdateLevel2Payload(level2));
  const LogRecord* record = log.Find("Failed to update timestamp of the last report sent");
  ASSERT_NE(record, nullptr) << log.Dump();
  EXPECT_EQ(record->file, "PhoneHomeAgent");
  EXPECT_EQ(record->importance, APPLOG_ERROR);

  // Only the start there: the period is still closed at the current time before the end is found missing.
  ASSERT_TRUE(level2.Append(1L));
  a.lastReportedTime = kStart - 60;
  EXPECT_FALSE(a.UpdateLevel2Payload(level2));
  EXPECT_TRUE(log.Has("Failed to update timestamp of the current report sent")) << log.Dump();
  EXPECT_EQ(a.lastReportedTime, kStart);
}

TEST(AgentIdentity, MachineIdIsTheSha1OfTheDeviceIdAndTheUdidDeviceInfos) {
  // The wrapper hashes whatever it is given, nothing included.
  std::string hash;
  EXPECT_TRUE(CPhoneHomeAgent::SHA1Hash("", hash));
  EXPECT_EQ(hash, "da39a3ee5e6b4b0d3255bfef95601890afd80709");
  std::string deviceId, machineId = "untouched", expected = "untouched";
  const bool found = DeviceIDInfo::GetDeviceID(deviceId);
  ASSERT_TRUE(!found || CPhoneHomeAgent::SHA1Hash(deviceId, expected));
  EXPECT_EQ(AgentUnderTest::GetMachineID(machineId), found);
  EXPECT_EQ(machineId, expected);

  // Whatever this machine's disks give, the agent reports what CDeviceInfo reports, or the code it failed with.
  char buffer[41] = {};
  char* data = buffer;
  unsigned int size = sizeof buffer;
  const long code = CDeviceInfo().GetUDID(data, size);
  LogCapture log;
  std::string udid = "untouched";
  EXPECT_EQ(AgentUnderTest::GetUDID(udid), code == 0);
  EXPECT_EQ(udid, code == 0 ? std::string(buffer) : "untouched");
  if (code == 0) return;
  char text[64];
  snprintf(text, sizeof text, "Error (%x) in getting UDID", static_cast<unsigned int>(code));
  ASSERT_NE(log.Find(text), nullptr) << log.Dump();
  EXPECT_EQ(log.Find(text)->importance, APPLOG_WARNING);
}
