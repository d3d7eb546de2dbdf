// The component status over the real profile path below the install root, and the marker-file test.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <tuple>
#include <vector>

#include "BuildConfig.h"
#include "LogCapture.h"
#include "PhoneHome/PhoneHomePluginImp.h"
#include "PermissionBits.h"
#include "TempDir.h"
#include "XmlParser.h"

using namespace std::string_literals;
namespace fs = std::filesystem;

namespace {

const std::string kFeedbackDir = std::string(OVF_INSTALL_ROOT) + "/CustomerExperienceFeedback";
const std::string kProfile = kFeedbackDir + "/CustomerExperience_Feedback.xml";
const std::string kPlainName = "Customer Experience Feedback";

// Each test starts without a profile; afterwards the profile and any directory made for it are removed.
class StatusTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (m_made = kFeedbackDir; !fs::exists(m_made.parent_path());) m_made = m_made.parent_path();
    if (fs::exists(m_made)) m_made = kProfile;
    fs::create_directories(kFeedbackDir);
    fs::remove_all(kProfile);
  }
  void TearDown() override { fs::remove_all(m_made); }
  CPhoneHomeStatus m_status;
  fs::path m_made;  // the outermost directory this test made, else the profile
};

}  // namespace

TEST_F(StatusTest, EnabledFollowsServiceDisableAndFailuresKeepTheDefaults) {
  struct Row {
    const char* profile;  // its text; null: no profile; "/", "|": a directory, a FIFO in its place; "0": mode 0
    bool enabled;
    long logged;  // -1: nothing; 0: the warning that it cannot be opened; else the parser's error code
  } rows[] = {
      {"<Feedback><CustomerID>acme</CustomerID></Feedback>", true, -1},
      {"<Feedback><ServiceDisable>TRUE</ServiceDisable></Feedback>", false, -1},
      {"<Feedback><ServiceDisable>false</ServiceDisable><IncludeCrashReport>true</IncludeCrashReport></Feedback>", true,
       -1},
      {nullptr, true, 0},
      // The handler has seen ServiceDisable true before the missing end tag; that must not count.
      {"<Feedback><ServiceDisable>true</ServiceDisable>", true, XMLPARSER_E_MALFORMED},
      {"0", true, 0},
      {"/", true, XMLPARSER_E_NOT_A_FILE},
      {"|", true, XMLPARSER_E_NOT_A_FILE},
  };
  PermissionBits bits;
  for (const Row& row : rows) {
    SCOPED_TRACE(row.profile ? row.profile : "no profile");
    fs::remove_all(kProfile);
    const std::string kind = row.profile ? row.profile : "";
    if (kind == "/") {
      fs::create_directory(kProfile);
    } else if (kind == "|") {
      mkfifo(kProfile.c_str(), 0600);
    } else if (row.profile) {
      std::ofstream(kProfile, std::ios::binary) << "<Feedback><ServiceDisable>true</ServiceDisable></Feedback>";
      if (kind != "0") std::ofstream(kProfile, std::ios::binary) << row.profile;
      chmod(kProfile.c_str(), kind == "0" ? 0 : 0644);
    }
    LogCapture log;
    bool enabled = !row.enabled;
    EXPECT_EQ(m_status.IsEnabled(enabled), 0);
    EXPECT_EQ(enabled, row.enabled);
    std::vector<LogRecord> records = log.Records();  // the parser's own debug detail aside
    records.erase(std::remove_if(records.begin(), records.end(), [](auto& r) { return r.importance == APPLOG_DEBUG; }),
                  records.end());
    ASSERT_EQ(records.size(), row.logged < 0 ? 0u : 1u) << log.Dump();
    if (row.logged >= 0) {
      const LogRecord& r = records[0];
      const bool warning = row.logged == 0;
      EXPECT_EQ(std::make_tuple(r.function, r.file, r.importance, r.failingCall, r.code),
                std::make_tuple("LoadStatusFromConfigFile"s, "PhoneHomePluginImp"s, warning ? +APPLOG_WARNING : +APPLOG_ERROR,
                                warning ? ""s : "XmlParser::parseFile"s, row.logged));
      EXPECT_EQ(warning ? r.text : "", warning ? "Config file \"" + kProfile + "\" not exist." : "");
    }
    // The crash-report flag is never written, so the plain name is shown whatever the profile says; a failure
    // leaves the caller's enabled flag alone too.
    bool flag = false, crash = row.logged >= 0;
    m_status.LoadStatusFromConfigFile(flag, crash);
    EXPECT_TRUE(flag == (row.logged < 0 && row.enabled) && crash == (row.logged >= 0)) << flag << crash;
    char name[64];
    unsigned long size = sizeof name;
    EXPECT_EQ(m_status.GetDisplayName(name, size), 0);
    EXPECT_EQ(name, kPlainName);
  }
}

TEST_F(StatusTest, DisplayNameReportsTheSizeItNeeds) {
  const unsigned long needed = kPlainName.size() + 1;
  char buffer[64];
  struct Row {
    char* buffer;
    unsigned long size;
    long result;
  } rows[] = {{nullptr, 0, -3}, {nullptr, 1000, -3}, {buffer, needed - 1, -3}, {buffer, needed, 0}};
  for (const Row& row : rows) {
    memset(buffer, 'Z', sizeof buffer);
    unsigned long size = row.size;
    EXPECT_EQ(m_status.GetDisplayName(row.buffer, size), row.result) << row.size;
    EXPECT_EQ(size, needed) << row.size;
    // Written only when it fits, and nothing past the terminator.
    EXPECT_EQ(std::string(buffer, needed + 1), row.result == 0 ? kPlainName + '\0' + 'Z' : std::string(needed + 1, 'Z'))
        << row.size;
  }
}

TEST_F(StatusTest, SupportsOnlyTheStatusInterfaceVersionOne) {
  EXPECT_TRUE(m_status.SupportsInterface("com.velmar.orvane.component.status", 1));
  EXPECT_FALSE(m_status.SupportsInterface(PHONEHOME_STATUS_INTERFACE_ID, 0) ||
               m_status.SupportsInterface(PHONEHOME_STATUS_INTERFACE_ID, 2));
  for (const char* id : {"com.velmar.orvane.service.customer.feedback", "com.velmar.orvane.component.Status",
                         "com.velmar.orvane.component.status ", "", static_cast<const char*>(nullptr)}) {
    EXPECT_FALSE(m_status.SupportsInterface(id, 1)) << (id ? id : "null");
  }
}

TEST(PhoneHomeUtility, MarkerFileDecidesEnabled) {
  EXPECT_STREQ(PHONEHOME_STATUS_FILENAME, "cefdisable");
  EXPECT_STREQ(CPhoneHomeUtility::GetPhoneHomeStatusFileName(), "cefdisable");
  struct Row {
    const char* file;  // made in the directory; null: none
    const char* content;
    mode_t mode;
    bool enabled;
  } rows[] = {{nullptr, "", 0644, true}, {"cefdisable", "", 0644, false}, {"cefdisable", "false\n", 0644, false},
              {"CefDisable", "", 0644, true}, {"cefdisable", "", 0, true}, {"cefdisable", nullptr, 0600, false}};
  for (const Row& row : rows) {
    TempDir dir;
    PermissionBits bits;
    if (!row.content) {
      mkfifo(dir.File(row.file).c_str(), row.mode);  // content null: a FIFO, which no writer ever opens
    } else if (row.file) {
      chmod(dir.Write(row.file, row.content).c_str(), row.mode);
    }
    EXPECT_EQ(CPhoneHomeUtility::IsPhoneHomeEnabled(dir.path()), row.enabled)
        << (row.file ? row.file : "no marker") << " mode " << row.mode;
  }
}
