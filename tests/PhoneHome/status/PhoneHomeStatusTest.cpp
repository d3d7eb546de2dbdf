// The profile reader over real files, the component status over the real profile path below the install root,
// and the marker-file test. Which interface the status object supports is asked through its slot, as a host asks
// (tests/integration).
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <regex>
#include <string>

#include "BuildConfig.h"
#include "LogCapture.h"
#include "PermissionBits.h"
#include "PhoneHome/PhoneHomePluginImp.h"
#include "PhoneHome/PhoneHomeXmlMgr.h"
#include "TempDir.h"
#include "XmlParser.h"

namespace fs = std::filesystem;

TEST(PhoneHomeXmlMgr, ReadsProfiles) {
  // The body goes into <Feedback> unless it brings its own root; the getters read "disable include [customer]
  // feedback-interval check-interval".
  const std::pair<std::string, const char*> rows[] = {
      {"", "0 1 [] 0 0"},
      // Any letter case of "true" is true, nothing else is, nothing is trimmed, and the last value counts; an
      // element name in another letter case is no element of the profile.
      {"<ServiceDisable>TRUE</ServiceDisable><IncludeCrashReport>tRuE</IncludeCrashReport>", "1 1 [] 0 0"},
      {"<ServiceDisable>yes</ServiceDisable><IncludeCrashReport>1</IncludeCrashReport>", "0 0 [] 0 0"},
      {"<ServiceDisable> true</ServiceDisable><IncludeCrashReport>true\n</IncludeCrashReport>", "0 0 [] 0 0"},
      {"<ServiceDisable>true</ServiceDisable><ServiceDisable>false</ServiceDisable>"
       "<servicedisable>true</servicedisable><customerId>x</customerId><FEEDBACKINTERVAL>5</FEEDBACKINTERVAL>",
       "0 1 [] 0 0"},
      // Intervals: strtol cut to 32 bits; an empty value keeps the earlier one, a blank one is no number.
      // Values are taken as they stand, blank and empty ones too.
      {"<FeedbackInterval>60</FeedbackInterval><FeedbackInterval>abc</FeedbackInterval>"
       "<CheckCrashInterval>0x10</CheckCrashInterval><CustomerID> A&amp;B <![CDATA[<x>]]></CustomerID>",
       "0 1 [ A&B <x>] 0 0"},
      {"<FeedbackInterval>86400s</FeedbackInterval><CheckCrashInterval> +42</CheckCrashInterval>"
       "<CustomerID>x</CustomerID><CustomerID></CustomerID>", "0 1 [] 86400 42"},
      {"<FeedbackInterval>7</FeedbackInterval><FeedbackInterval></FeedbackInterval>"
       "<CheckCrashInterval>9</CheckCrashInterval><CheckCrashInterval/>", "0 1 [] 7 9"},
      {"<FeedbackInterval>7</FeedbackInterval><FeedbackInterval> </FeedbackInterval>"
       "<CheckCrashInterval>99999999999999999999</CheckCrashInterval>", "0 1 [] 0 4294967295"},
      {"<FeedbackInterval>-1</FeedbackInterval><CheckCrashInterval>99999999999</CheckCrashInterval>",
       "0 1 [] 4294967295 1215752191"},
      {"<ServiceDisable>true</ServiceDisable><ServiceDisable> </ServiceDisable><IncludeCrashReport/>"
       "<CustomerID> </CustomerID>", "0 0 [ ] 0 0"},
      // Only the innermost element is current, any end tag leaves none current, and attributes are ignored.
      {"<FeedbackInterval>5<CustomerID>x</CustomerID>7</FeedbackInterval>", "0 1 [x] 5 0"},
      {"<FeedbackInterval>5</FeedbackInterval><FeedbackInterval>\n <Days>9</Days>\n</FeedbackInterval>"
       "<ServiceDisable value=\"true\">false</ServiceDisable>", "0 1 [] 5 0"},
      {"<Profile><Policy><ServiceDisable>true</ServiceDisable></Policy></Profile>", "1 1 [] 0 0"},
  };
  TempDir dir;
  for (const auto& [body, expected] : rows) {
    const std::string xml =
        body.rfind("<Profile>", 0) ? "<?xml version=\"1.0\"?>\n<Feedback>\n" + body + "\n</Feedback>" : body;
    PhoneHomeXmlMgr p;
    ASSERT_EQ(XmlParser(p).parseFile(dir.Write("profile.xml", xml), false), XMLPARSER_OK) << xml;
    EXPECT_EQ(std::to_string(p.GetServiceDisable()) + " " + std::to_string(p.GetIncludeCrashReport()) + " [" +
                  p.GetCustomerID() + "] " + std::to_string(p.GetFeedbackInterval()) + " " +
                  std::to_string(p.GetCheckCrashInterval()),
              expected) << xml;
  }
}

namespace {

const std::string kFeedbackDir = std::string(OVF_INSTALL_ROOT) + "/CustomerExperienceFeedback";
const std::string kProfile = kFeedbackDir + "/CustomerExperience_Feedback.xml";
const std::string kPlainName = "Customer Experience Feedback";

// Each test starts and ends without a feedback directory below the install root.
class StatusTest : public ::testing::Test {
 protected:
  void SetUp() override { fs::remove_all(kFeedbackDir), fs::create_directories(kFeedbackDir); }
  void TearDown() override { fs::remove_all(kFeedbackDir); }
  CPhoneHomeStatus m_status;
};

}  // namespace

TEST_F(StatusTest, EnabledFollowsServiceDisableAndFailuresKeepTheDefaults) {
  const std::string cannotOpen =
      "W PhoneHomePluginImp LoadStatusFromConfigFile: Config file \"" + kProfile + "\" not exist.\n";
  const auto cannotParse = [](const char* code) {
    return "E PhoneHomePluginImp LoadStatusFromConfigFile: XmlParser::parseFile failed with " + std::string(code) +
           ": Cannot parse \"" + kProfile + "\".\n";
  };
  const struct {
    const char* profile;  // its text; null: none; "0": a disabling profile of mode 0; "/", "|": a directory, a FIFO
    bool enabled;
    std::string logged;  // every record but the parser's debug detail, without source line numbers
  } rows[] = {
      {"<Feedback><CustomerID>acme</CustomerID><IncludeCrashReport>true</IncludeCrashReport></Feedback>", true, ""},
      {"<Feedback><ServiceDisable>TRUE</ServiceDisable></Feedback>", false, ""},
      {nullptr, true, cannotOpen},
      {"0", true, cannotOpen},
      // The handler has seen ServiceDisable true before the missing end tag; that must not count.
      {"<Feedback><ServiceDisable>true</ServiceDisable>", true, cannotParse("0xFE3B0004")},
      {"/", true, cannotParse("0xFE3B0007")},
      {"|", true, cannotParse("0xFE3B0007")},  // no writer ever opens it: a blocking open would wait forever
  };
  PermissionBits bits;
  for (const auto& row : rows) {
    const std::string kind = row.profile ? row.profile : "none";
    SCOPED_TRACE(kind);
    fs::remove_all(kProfile);
    if (kind == "/") fs::create_directory(kProfile);
    if (kind == "|") mkfifo(kProfile.c_str(), 0600);
    if (row.profile && kind != "/" && kind != "|") {
      std::ofstream(kProfile) << (kind == "0" ? "<Feedback><ServiceDisable>true</ServiceDisable></Feedback>" : kind);
      chmod(kProfile.c_str(), kind == "0" ? 0 : 0644);
    }
    LogCapture log;
    bool enabled = !row.enabled;
    EXPECT_EQ(m_status.IsEnabled(enabled), 0);
    EXPECT_EQ(enabled, row.enabled);
    std::string logged;
    for (const LogRecord& r : log.Records()) {
      if (r.importance != APPLOG_DEBUG)
        logged += std::regex_replace(CAppLog::FormatRecord(r), std::regex(":\\d+ "), " ") + "\n";
    }
    EXPECT_EQ(logged, row.logged);
    // A failure leaves the caller's flags alone; the crash-report flag is never written, so the plain name is
    // shown whatever the profile says.
    bool flag = false, crash = true;
    m_status.LoadStatusFromConfigFile(flag, crash);
    EXPECT_TRUE(flag == (row.logged.empty() && row.enabled) && crash) << flag << crash;
    char name[64];
    unsigned long size = sizeof name;
    EXPECT_TRUE(m_status.GetDisplayName(name, size) == 0 && name == kPlainName) << name;
  }
}

TEST_F(StatusTest, DisplayNameReportsTheSizeItNeeds) {
  const unsigned long needed = kPlainName.size() + 1;
  char buffer[64];
  for (auto [to, capacity] : {std::pair<char*, unsigned long>{nullptr, 1000}, {buffer, needed - 1}, {buffer, needed}}) {
    memset(buffer, 'Z', sizeof buffer);
    unsigned long size = capacity;
    EXPECT_EQ(m_status.GetDisplayName(to, size), capacity == needed ? 0 : -3) << capacity;
    EXPECT_EQ(size, needed) << capacity;
    // Written only when it fits, and nothing past the terminator.
    EXPECT_EQ(std::string(buffer, needed + 1),
              capacity == needed ? kPlainName + '\0' + 'Z' : std::string(needed + 1, 'Z'));
  }
}

TEST(PhoneHomeUtility, MarkerFileDecidesEnabled) {
  EXPECT_STREQ(PHONEHOME_STATUS_FILENAME, "cefdisable");
  EXPECT_STREQ(CPhoneHomeUtility::GetPhoneHomeStatusFileName(), "cefdisable");
  // In the directory: nothing; a file of that name and mode; a FIFO, which no writer ever opens.
  const std::tuple<const char*, mode_t, bool> rows[] = {{"", 0, true}, {"cefdisable", 0644, false},
      {"CefDisable", 0644, true}, {"cefdisable", 0, true}, {"fifo", 0600, false}};
  for (const auto& [file, mode, enabled] : rows) {
    TempDir dir;
    PermissionBits bits;
    if (file == std::string("fifo")) mkfifo(dir.File("cefdisable").c_str(), mode);
    if (file != std::string("fifo") && *file) chmod(dir.Write(file, "false\n").c_str(), mode);
    EXPECT_EQ(CPhoneHomeUtility::IsPhoneHomeEnabled(dir.path()), enabled) << file << " mode " << mode;
  }
}
