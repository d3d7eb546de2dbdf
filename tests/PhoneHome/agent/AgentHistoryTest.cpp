// The history file: the key/value lines, the six records on save, and how a loaded history is taken over.
#include <map>

#include "AgentUnderTest.h"
#include "BuildConfig.h"

using Map = std::map<std::string, std::string>;

TEST(AgentHistory, KeyValueLinesFollowTheFileRules) {
  struct Row {
    const char* text;
    Map expected;
  } rows[] = {
      // Keys fold to lower case, but a leading blank stays in the key; a later line wins; no last line feed needed.
      {"Last_Post:5\n last_post:6\nk:1\nK:2\nLAST_FEEDBACK:7", {{"last_post", "5"}, {" last_post", "6"}, {"k", "2"},
                                                               {"last_feedback", "7"}}},
      // A value runs to the first carriage return or line feed, holds further colons and is not trimmed.
      {"a:1\r\nb:x\ry\nc:12:34\nd: v \ne:\n", {{"a", "1"}, {"b", "x"}, {"c", "12:34"}, {"d", " v "}, {"e", ""}}},
      // Comments ("#" first), empty lines and lines without a colon are skipped; an empty key is a key.
      {"# k:1\n\nno colon\n:x\n #k:1\n", {{"", "x"}, {" #k", "1"}}},
      {"", {}},
  };
  for (const Row& row : rows) {
    Map map;
    CPhoneHomeAgent::LoadTextToMap(row.text, map);
    EXPECT_EQ(map, row.expected) << "text: " << row.text;
  }
}

TEST(AgentHistory, SaveWritesTheSixRecordsInTheirFixedOrder) {
  TempDir dir;
  AgentFixture f;
  f.agent->historyFile = dir.File("history");

  // A fresh agent: the four times are written empty and the map then holds them so.
  ASSERT_TRUE(f.agent->SaveHistoryFile());
  const std::string version = std::string("last_version_number:") + OVF_BUILD_VERSION + "\n";
  EXPECT_EQ(TempDir::Read(f.agent->historyFile),
            version + "last_sequence_number:1\nlast_post:\nlast_feedback:\nlast_crash_report:\nlast_threat_report:\n");
  EXPECT_EQ(f.agent->history.count("last_threat_report"), 1u);

  // The order is the file's, not the map's; the version comes from the build and unknown keys stay in memory.
  f.agent->history = {{"last_version_number", "0.1"}, {"last_threat_report", "5"}, {"last_post", "2"},
                      {"last_feedback", "3"}, {"last_crash_report", "4"}, {"older_key", "x"}};
  f.agent->sequenceNumber = 42;
  ASSERT_TRUE(f.agent->SaveHistoryFile());
  EXPECT_EQ(TempDir::Read(f.agent->historyFile),
            version + "last_sequence_number:42\nlast_post:2\nlast_feedback:3\nlast_crash_report:4\nlast_threat_report:5\n");
  EXPECT_EQ(f.agent->history["older_key"], "x");

  LogCapture log;
  f.agent->historyFile = dir.File("no/such/dir/history");
  EXPECT_FALSE(f.agent->SaveHistoryFile());
  EXPECT_TRUE(log.Has("Can't open hostory file for write")) << log.Dump();
}

TEST(AgentHistory, LoadedValuesAreCheckedAndAVersionChangeForgetsTheTimes) {
  const std::string seqMessage = "Illegal sequence number, using default value (1)";
  const std::string postMessage = "Illegal last reported time, using default value (0)";
  const std::string versionMessage = std::string("Orvane version changed, current version is ") + OVF_BUILD_VERSION + ".";
  struct Row {
    Map history;
    unsigned int sequenceNumber, lastReportedTime;
    std::string expectedLog;  // the one error or warning logged
    bool cleared;
  } rows[] = {
      {{{"last_sequence_number", "99"}, {"last_post", "1700000000"}}, 99, 1700000000, "", false},
      {{{"last_sequence_number", "0"}, {"last_post", "0"}}, 0, 0, "", false},
      {{{"last_sequence_number", "100"}, {"last_post", "7"}}, 1, 7, seqMessage, false},
      {{{"last_sequence_number", "7x"}, {"last_post", "7"}}, 1, 7, seqMessage, false},
      {{{"last_sequence_number", "-1"}, {"last_post", "7"}}, 1, 7, seqMessage, false},
      {{{"last_sequence_number", "7 "}, {"last_post", "7"}}, 1, 7, seqMessage, false},
      {{{"last_sequence_number", ""}, {"last_post", "7"}}, 1, 7, seqMessage, false},
      {{}, 1, 0, postMessage, false},  // no sequence number is no error, no last post always is
      {{{"last_post", "12:34"}}, 1, 0, postMessage, false},
      {{{"last_post", "4294967296"}}, 1, 0, postMessage, false},
      {{{"last_post", "8"}, {"last_version_number", ""}}, 1, 8, "", false},
      {{{"last_post", "8"}, {"last_version_number", OVF_BUILD_VERSION}}, 1, 8, "", false},
      {{{"last_sequence_number", "5"}, {"last_post", "8"}, {"last_version_number", "0.0.1"}}, 5, 8, versionMessage,
       true},
  };
  for (const Row& row : rows) {
    AgentFixture f;
    LogCapture log;
    f.agent->history = row.history;
    f.agent->ApplyHistory();
    SCOPED_TRACE(log.Dump());
    EXPECT_EQ(f.agent->sequenceNumber, row.sequenceNumber);
    EXPECT_EQ(f.agent->lastReportedTime, row.lastReportedTime);
    EXPECT_EQ(f.agent->history.empty(), row.cleared);

    std::vector<std::string> complaints;
    std::string started;
    for (const LogRecord& r : log.Records()) {
      if (r.kind == LogRecord::eCatalogueMessage && r.messageId == MSG_PHONEHOME_STARTED) started = r.text;
      if (r.importance == APPLOG_ERROR || r.importance == APPLOG_WARNING) complaints.push_back(r.text);
    }
    EXPECT_EQ(complaints, row.expectedLog.empty() ? std::vector<std::string>{} : std::vector<std::string>{row.expectedLog});
    // The start message carries the sequence number already taken over.
    EXPECT_NE(started.find("sequence number " + std::to_string(row.sequenceNumber)), std::string::npos) << started;
  }
}
