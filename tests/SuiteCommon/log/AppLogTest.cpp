// The log runtime: every record reaches the replaceable sink with all its fields; the bounded copy.
#include <gtest/gtest.h>
#include <syslog.h>  // first on purpose: the importance names must not clash with its macros

#include <cstring>
#include <tuple>

#include "AppLog.h"
#include "LogCapture.h"
#include "SafeString.h"

TEST(AppLog, RecordsCarryEveryFieldToTheInnermostSink) {
  LogCapture outer;
  LogCapture log;
  const std::string big(5000, 'q');  // long messages are not cut
  CAppLog::LogDebugMessage("Fn", "Unit", 12, APPLOG_WARNING, "value %d of %s%s", 7, "x", big.c_str());
  CAppLog::LogReturnCode("Caller", "Unit", 34, APPLOG_ERROR, "Callee::Op", 0xFE46001CL, "path %s", "/a");
  CAppLog::LogReturnCode("Caller", "Unit", 35, APPLOG_INFO, "Other", 0);
  CAppLog::LogMessage(MSG_PHONEHOME_STARTED, "Enabled", "abc", "release", "https://s", "No", 86400u, 2592000u, 1u);

  const auto records = log.Records();
  ASSERT_EQ(records.size(), 4u);
  auto fields = [](const LogRecord& r) {
    return std::tie(r.kind, r.importance, r.function, r.file, r.line, r.text, r.failingCall, r.code, r.messageId);
  };
  using F = std::tuple<LogRecord::EKind, int, std::string, std::string, int, std::string, std::string, long, unsigned>;
  EXPECT_EQ(fields(records[0]), F(LogRecord::eDebugMessage, 'W', "Fn", "Unit", 12, "value 7 of x" + big, "", 0, 0));
  EXPECT_EQ(fields(records[1]), F(LogRecord::eReturnCode, 'E', "Caller", "Unit", 34, "path /a", "Callee::Op",
                                  0xFE46001CL, 0));
  EXPECT_EQ(fields(records[2]), F(LogRecord::eReturnCode, 'I', "Caller", "Unit", 35, "", "Other", 0, 0));
  EXPECT_EQ(std::tie(records[3].kind, records[3].importance, records[3].messageId),
            std::make_tuple(LogRecord::eCatalogueMessage, int{'I'}, 6300u));
  EXPECT_NE(records[3].text.find("Enabled"), std::string::npos) << records[3].text;
  EXPECT_NE(records[3].text.find("2592000"), std::string::npos) << records[3].text;
  EXPECT_EQ(CAppLog::FormatRecord(records[1]).rfind("E Unit:34 Caller: Callee::Op failed with 0xFE46001C", 0), 0u);
  EXPECT_TRUE(outer.Records().empty()) << outer.Dump();
}

TEST(AppLog, CaptureRestoresThePreviousSink) {
  LogCapture outer;
  { LogCapture inner; }
  CAppLog::LogDebugMessage("Fn", "Unit", 1, APPLOG_INFO, "outer");
  EXPECT_TRUE(outer.Has("outer"));
}

TEST(AppLog, TheMinimumImportanceDropsLesserRecordsOfEveryKind) {
  struct Row { int minimum; const char* kept; } rows[] = {
      {APPLOG_DEBUG, "DIWEXRC"}, {APPLOG_INFO, "IWEXRC"}, {APPLOG_WARNING, "WE"}, {APPLOG_ERROR, "E"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(std::string(1, static_cast<char>(row.minimum)));
    LogCapture log;
    CAppLog::SetMinimumImportance(row.minimum);
    for (int importance : {int{APPLOG_DEBUG}, int{APPLOG_INFO}, int{APPLOG_WARNING}, int{APPLOG_ERROR}, int{'X'}}) {
      CAppLog::LogDebugMessage("Fn", "Unit", 1, importance, "%c", importance);
    }
    CAppLog::LogReturnCode("Fn", "Unit", 2, APPLOG_INFO, "Callee", 1, "R");
    CAppLog::LogMessage(MSG_PHONEHOME_STARTED, "C", "", "", "", "", 0u, 0u, 0u);  // catalogue records are info
    CAppLog::SetMinimumImportance(APPLOG_DEBUG);
    std::string kept;
    for (const LogRecord& record : log.Records()) kept += record.text.substr(0, 1) == "C" ? "C" : record.text;
    EXPECT_EQ(kept, row.kept);  // an unknown letter counts as info
  }
}

TEST(SafeStrlcpy, CutsAndAlwaysTerminates) {
  struct Row { const char* src; size_t size; const char* expected; size_t copied; } rows[] = {
      {"hello", 10, "hello", 5}, {"hello", 6, "hello", 5}, {"hello", 5, "hell", 4},
      {"hello", 1, "", 0},       {"", 4, "", 0},          {"abc", 0, "", 0},  // size 0: nothing written
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(std::string(row.src) + " into " + std::to_string(row.size));
    char buffer[16];
    memset(buffer, 'Z', sizeof buffer);
    EXPECT_EQ(safe_strlcpyA(buffer, row.src, row.size), row.copied);
    EXPECT_STREQ(row.size > 0 ? buffer : "", row.expected);  // with no room, not even a terminator is written
    EXPECT_EQ(buffer[row.size], 'Z') << "wrote past the capacity";
  }
}
