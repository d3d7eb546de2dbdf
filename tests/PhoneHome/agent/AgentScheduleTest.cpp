// Settings from the profile and the config file, the first delay of a timer, and the agent's callbacks.
#include "AgentUnderTest.h"
#include "Clock.h"

TEST(AgentSettings, ProfileFirstThenConfigFileWhoseIntervalsWin) {
  struct Row {
    const char *profile, *config;  // the profile inside <Feedback>, the config file; null: none
    unsigned int feedback, crash;
    bool disabled;
    const char* customer;
    bool parseFails;
  } rows[] = {
      {nullptr, nullptr, 2592000, 86400, false, "release", true},
      {"<FeedbackInterval>0</FeedbackInterval><CustomerID></CustomerID>", "other:1\n", 2592000, 86400, false,
       "release", false},
      {"<FeedbackInterval>3600</FeedbackInterval><CheckCrashInterval>100</CheckCrashInterval>"
       "<CustomerID>acme</CustomerID>",
       "feedback_interval:7200\ncheck_crash_interval:50\n", 7200, 50, false, "acme", false},
      {"<FeedbackInterval>3600</FeedbackInterval>", "feedback_interval:\n", 3600, 86400, false, "release", false},
      {nullptr, "feedback_interval:0\ncheck_crash_interval:-1\n", 0, 4294967295u, false, "release", true},
      {nullptr, "Feedback_Interval:12abc\ncheck_crash_interval:abc\n", 12, 0, false, "release", true},
      {nullptr, "feedback_interval:4294967306\n", 10, 86400, false, "release", true},  // cut to 32 bits
      {"<ServiceDisable>true</ServiceDisable>", nullptr, 2592000, 86400, true, "release", false},
      // IncludeCrashReport is read but never taken over.
      {"<IncludeCrashReport>true</IncludeCrashReport>", nullptr, 2592000, 86400, false, "release", false},
      // Malformed: what the reader saw before the error counts for nothing.
      {"<ServiceDisable>true</ServiceDisable><CustomerID>acme", nullptr, 2592000, 86400, false, "release", true},
  };
  for (const Row& row : rows) {
    TempDir dir;
    AgentFixture f;
    f.agent->profileFile = dir.File("CustomerExperience_Feedback.xml");
    f.agent->configFile = dir.File("config");
    if (row.profile) dir.Write("CustomerExperience_Feedback.xml", std::string("<Feedback>") + row.profile + "</Feedback>");
    if (row.config != nullptr) dir.Write("config", row.config);
    LogCapture log;
    f.agent->LoadSettingsFromXmlFile();
    f.agent->LoadSettingsFromConfigFile();
    SCOPED_TRACE(std::string("profile: ") + (row.profile ? row.profile : "none") +
                 "; config: " + (row.config ? row.config : "none") + "\n" + log.Dump());
    EXPECT_EQ(f.agent->feedbackInterval, row.feedback);
    EXPECT_EQ(f.agent->crashCheckInterval, row.crash);
    EXPECT_EQ(f.agent->serviceDisabled, row.disabled);
    EXPECT_EQ(f.agent->customerId, row.customer);
    // Each line's importance, -1 for none logged; a missing config file is only worth a warning.
    const LogRecord* failure = log.FindCall("XmlParser::parseFile");
    const LogRecord* missing = log.Find("Can't open file " + f.agent->configFile);
    EXPECT_EQ(failure ? failure->importance : -1, row.parseFails ? APPLOG_ERROR : -1);
    EXPECT_EQ(missing ? missing->importance : -1, row.config ? -1 : APPLOG_WARNING);
  }
}

TEST(AgentSchedule, FirstDelayIsTheRestOfTheIntervalButNeverUnder600Seconds) {
  const long now = 1700000000;
  struct Row {
    const char* last;  // null: no history entry
    unsigned int interval, expected;
  } rows[] = {
      {nullptr, 2592000, 600},
      {"", 2592000, 600},
      {"abc", 2592000, 600},
      {"0", 2592000, 600},
      {"1699999990", 60, 600},     // recent, short interval
      {"1700003600", 60, 60},      // ahead, short interval
      {"1700000000x", 7200, 7200},  // strtol stops at the x
      {"5994967296", 7200, 7200},  // now + 2^32: only the low 32 bits count
  };
  SuiteClock::UseSimulated(static_cast<uint32_t>(now));
  for (const Row& row : rows) {
    AgentFixture f;
    if (row.last != nullptr) f.agent->history["last_feedback"] = row.last;
    EXPECT_EQ(f.agent->CalcRemainingSeconds("last_feedback", row.interval), row.expected)
        << "last: " << (row.last ? row.last : "absent") << ", interval " << row.interval;
    EXPECT_EQ(f.agent->history.count("last_feedback"), 1u);
  }
  SuiteClock::UseRealTime();
}

TEST(AgentCallbacks, UnknownTimersAndEventsAreReportedAndStopBeforeStartDoesNothing) {
  AgentFixture f;
  ASSERT_EQ(f.err, 0);
  LogCapture log;
  for (unsigned long id : {0ul, 1ul, 6ul, 0xFFFFFFFFul}) f.agent->OnTimerExpired(nullptr, id);
  EXPECT_EQ(log.Count("Unexpected timer"), 4u) << log.Dump();
  for (unsigned long id : {0ul, 2ul}) f.agent->OnEventSignaled(nullptr, id);
  f.agent->OnEventSignaled(nullptr, 1);
  EXPECT_EQ(log.Count("Unexpected event"), 2u) << log.Dump();

  log.Clear();
  EXPECT_FALSE(f.agent->Stop());
  EXPECT_FALSE(f.agent->stopRequested);
  EXPECT_TRUE(log.Records().empty()) << log.Dump();
}
