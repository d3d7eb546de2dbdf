// The component status over the real profile path below the install root, and the marker-file test.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "BuildConfig.h"
#include "LogCapture.h"
#include "PhoneHome/PhoneHomePluginImp.h"
#include "TempDir.h"
#include "XmlParser.h"

namespace {

const std::string kFeedbackDir = std::string(OVF_INSTALL_ROOT) + "/CustomerExperienceFeedback";
const std::string kProfile = kFeedbackDir + "/CustomerExperience_Feedback.xml";
const std::string kPlainName = "Customer Experience Feedback";

void RemoveProfile() {
  if (unlink(kProfile.c_str()) != 0) rmdir(kProfile.c_str());
}
void WriteProfile(const std::string& xml) { std::ofstream(kProfile, std::ios::binary) << xml; }

// Creates the directories missing up to the profile and removes them, and the profile, afterwards.
class StatusTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (size_t pos = 0; pos != std::string::npos;) {
      pos = kFeedbackDir.find('/', pos + 1);
      if (mkdir(kFeedbackDir.substr(0, pos).c_str(), 0755) == 0) m_created.push_back(kFeedbackDir.substr(0, pos));
    }
    RemoveProfile();
  }
  void TearDown() override {
    RemoveProfile();
    for (auto it = m_created.rbegin(); it != m_created.rend(); ++it) rmdir(it->c_str());
  }

 private:
  std::vector<std::string> m_created;
};

}  // namespace

TEST_F(StatusTest, EnabledFollowsServiceDisableOnly) {
  struct Row {
    const char* xml;
    bool enabled;
  } rows[] = {
      {"<Feedback><CustomerID>acme</CustomerID></Feedback>", true},
      {"<Feedback><ServiceDisable>TRUE</ServiceDisable></Feedback>", false},
      {"<Feedback><ServiceDisable>yes</ServiceDisable></Feedback>", true},
      {"<Feedback><ServiceDisable> true</ServiceDisable></Feedback>", true},
      {"<Feedback><serviceDisable>true</serviceDisable></Feedback>", true},
      {"<Feedback><Policy><ServiceDisable>true</ServiceDisable></Policy></Feedback>", false},
      {"<Feedback><IncludeCrashReport>true</IncludeCrashReport></Feedback>", true},
  };
  CPhoneHomeStatus status;
  for (const Row& row : rows) {
    WriteProfile(row.xml);
    LogCapture log;
    bool enabled = !row.enabled;
    EXPECT_EQ(status.IsEnabled(enabled), 0) << row.xml;
    EXPECT_EQ(enabled, row.enabled) << row.xml;
    // The crash-dump flag is never written, so the plain name is shown whatever the profile says.
    char name[64];
    unsigned long size = sizeof name;
    EXPECT_EQ(status.GetDisplayName(name, size), 0) << row.xml;
    EXPECT_EQ(name, kPlainName) << row.xml;
    bool crash = true;
    status.LoadStatusFromConfigFile(enabled, crash);
    EXPECT_TRUE(crash) << row.xml;
    EXPECT_TRUE(log.Records().empty()) << row.xml << "\n" << log.Dump();
  }
}

TEST_F(StatusTest, FailuresKeepTheCallersDefaultsAndAreLogged) {
  struct Row {
    const char* label;
    void (*prepare)();
    long parseError;  // 0: the profile cannot be opened at all
  } rows[] = {
      {"missing", [] {}, 0},
      // The handler has seen ServiceDisable true before the missing end tag; that must not count.
      {"malformed", [] { WriteProfile("<Feedback><ServiceDisable>true</ServiceDisable>"); }, XMLPARSER_E_MALFORMED},
      {"empty", [] { WriteProfile(""); }, XMLPARSER_E_MALFORMED},
      {"directory", [] { mkdir(kProfile.c_str(), 0755); }, XMLPARSER_E_READ},
      // root opens any file whatever its mode; that row is skipped there.
      {"unreadable",
       [] {
         WriteProfile("<ServiceDisable>true</ServiceDisable>");
         chmod(kProfile.c_str(), 0);
       },
       0},
  };
  CPhoneHomeStatus status;
  for (const Row& row : rows) {
    if (std::string(row.label) == "unreadable" && geteuid() == 0) continue;
    RemoveProfile();
    row.prepare();
    LogCapture log;
    bool enabled = false;
    EXPECT_EQ(status.IsEnabled(enabled), 0) << row.label;
    EXPECT_TRUE(enabled) << row.label;
    std::vector<LogRecord> records;  // the parser's own debug detail aside
    for (const LogRecord& r : log.Records()) {
      if (r.importance != LOG_DEBUG) records.push_back(r);
    }
    ASSERT_EQ(records.size(), 1u) << row.label << "\n" << log.Dump();
    const LogRecord& r = records[0];
    EXPECT_EQ(r.function, "LoadStatusFromConfigFile") << row.label;
    EXPECT_EQ(r.file, "PhoneHomePluginImp") << row.label;
    if (row.parseError == 0) {
      EXPECT_EQ(r.importance, LOG_WARNING) << row.label;
      EXPECT_EQ(r.text, "Config file \"" + kProfile + "\" not exist.") << row.label;
    } else {
      EXPECT_EQ(r.importance, LOG_ERROR) << row.label;
      EXPECT_EQ(r.failingCall, "XmlParser::parseFile") << row.label;
      EXPECT_EQ(r.code, row.parseError) << row.label;
    }
    bool keptFalse = false, keptTrue = true;
    status.LoadStatusFromConfigFile(keptFalse, keptTrue);
    EXPECT_FALSE(keptFalse) << row.label;
    EXPECT_TRUE(keptTrue) << row.label;
  }
}

TEST_F(StatusTest, DisplayNameBufferSizes) {
  WriteProfile("<Feedback><ServiceDisable>true</ServiceDisable></Feedback>");
  CPhoneHomeStatus status;
  const unsigned long needed = kPlainName.size() + 1;
  for (unsigned long capacity : {0ul, 1000ul}) {
    unsigned long size = capacity;
    EXPECT_EQ(status.GetDisplayName(nullptr, size), -3) << capacity;
    EXPECT_EQ(size, needed) << capacity;
  }
  char buffer[64];
  memset(buffer, 'Z', sizeof buffer);
  unsigned long size = needed - 1;
  EXPECT_EQ(status.GetDisplayName(buffer, size), -3);
  EXPECT_EQ(size, needed);
  EXPECT_EQ(buffer[0], 'Z') << "a short buffer was written";
  EXPECT_EQ(status.GetDisplayName(buffer, size), 0);
  EXPECT_EQ(size, needed);
  EXPECT_EQ(std::string(buffer), kPlainName);
  EXPECT_EQ(buffer[needed], 'Z') << "wrote past the name";
}

TEST_F(StatusTest, SupportsOnlyTheStatusInterfaceVersionOne) {
  CPhoneHomeStatus status;
  EXPECT_TRUE(status.SupportsInterface("com.velmar.orvane.component.status", 1));
  for (unsigned int version : {0u, 2u}) EXPECT_FALSE(status.SupportsInterface(PHONEHOME_STATUS_INTERFACE_ID, version));
  for (const char* id : {"com.velmar.orvane.service.customer.feedback", "com.velmar.orvane.component.Status",
                         "com.velmar.orvane.component.status ", "", static_cast<const char*>(nullptr)}) {
    EXPECT_FALSE(status.SupportsInterface(id, 1)) << (id ? id : "null");
  }
}

TEST(PhoneHomeUtility, MarkerFileDecidesEnabled) {
  EXPECT_STREQ(PHONEHOME_STATUS_FILENAME, "cefdisable");
  EXPECT_STREQ(CPhoneHomeUtility::GetPhoneHomeStatusFileName(), "cefdisable");
  struct Row {
    const char* label;
    void (*prepare)(const TempDir&);
    bool enabled;
  } rows[] = {
      {"no marker", [](const TempDir&) {}, true},
      {"empty marker", [](const TempDir& d) { d.Write("cefdisable", ""); }, false},
      {"marker with content", [](const TempDir& d) { d.Write("cefdisable", "false\n"); }, false},
      // A directory opens for reading too, so it disables like a file.
      {"directory", [](const TempDir& d) { mkdir(d.File("cefdisable").c_str(), 0755); }, false},
      {"other letter case", [](const TempDir& d) { d.Write("CefDisable", ""); }, true},
      // root opens any file whatever its mode; that row is skipped there.
      {"unreadable", [](const TempDir& d) { chmod(d.Write("cefdisable", "").c_str(), 0); }, true},
  };
  for (const Row& row : rows) {
    if (std::string(row.label) == "unreadable" && geteuid() == 0) continue;
    TempDir dir;
    row.prepare(dir);
    EXPECT_EQ(CPhoneHomeUtility::IsPhoneHomeEnabled(dir.path()), row.enabled) << row.label;
    EXPECT_TRUE(CPhoneHomeUtility::IsPhoneHomeEnabled(dir.File("no-such-directory"))) << row.label;
  }
}
