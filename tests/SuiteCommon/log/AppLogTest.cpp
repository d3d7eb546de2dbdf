// The log runtime: every record reaches the replaceable sink with all its fields; the bounded copy.
#include <gtest/gtest.h>
#include <syslog.h>  // first on purpose: the importance names must not clash with its macros

#include <cstring>

#include "AppLog.h"
#include "LogCapture.h"
#include "SafeString.h"

TEST(AppLog, RecordsCarryEveryField) {
  LogCapture log;
  CAppLog::LogDebugMessage("Fn", "Unit", 12, APPLOG_WARNING, "value %d of %s", 7, "x");
  CAppLog::LogReturnCode("Caller", "Unit", 34, APPLOG_ERROR, "Callee::Op", 0xFE46001CL, "path %s", "/a");
  CAppLog::LogReturnCode("Caller", "Unit", 35, APPLOG_INFO, "Other", 0);
  CAppLog::LogMessage(MSG_PHONEHOME_STARTED, "Enabled", "abc", "release", "https://s", "No", 86400u,
                      2592000u, 1u);

  auto records = log.Records();
  ASSERT_EQ(records.size(), 4u);
  EXPECT_EQ(records[0].kind, LogRecord::eDebugMessage);
  EXPECT_EQ(records[0].importance, 'W');
  EXPECT_EQ(records[0].function, "Fn");
  EXPECT_EQ(records[0].file, "Unit");
  EXPECT_EQ(records[0].line, 12);
  EXPECT_EQ(records[0].text, "value 7 of x");

  EXPECT_EQ(records[1].kind, LogRecord::eReturnCode);
  EXPECT_EQ(records[1].importance, 'E');
  EXPECT_EQ(records[1].failingCall, "Callee::Op");
  EXPECT_EQ(records[1].code, 0xFE46001CL);
  EXPECT_EQ(records[1].text, "path /a");
  EXPECT_EQ(records[2].text, "");
  EXPECT_EQ(records[2].code, 0);

  EXPECT_EQ(records[3].kind, LogRecord::eCatalogueMessage);
  EXPECT_EQ(records[3].importance, 'I');
  EXPECT_EQ(records[3].messageId, 6300u);
  EXPECT_NE(records[3].text.find("Enabled"), std::string::npos);
  EXPECT_NE(records[3].text.find("2592000"), std::string::npos);
  EXPECT_EQ(CAppLog::FormatRecord(records[1]).rfind("E Unit:34 Caller: Callee::Op failed with 0xFE46001C", 0), 0u);
}

TEST(AppLog, LongMessagesAreNotCut) {
  LogCapture log;
  std::string big(5000, 'q');
  CAppLog::LogDebugMessage("Fn", "Unit", 1, APPLOG_INFO, "%s!", big.c_str());
  ASSERT_EQ(log.Records().size(), 1u);
  EXPECT_EQ(log.Records()[0].text, big + "!");
}

TEST(AppLog, CaptureRestoresThePreviousSink) {
  LogCapture outer;
  {
    LogCapture inner;
    CAppLog::LogDebugMessage("Fn", "Unit", 1, APPLOG_INFO, "inner");
    EXPECT_TRUE(inner.Has("inner"));
  }
  CAppLog::LogDebugMessage("Fn", "Unit", 1, APPLOG_INFO, "outer");
  EXPECT_FALSE(outer.Has("inner"));
  EXPECT_TRUE(outer.Has("outer"));
}

TEST(SafeStrlcpy, CutsAndAlwaysTerminates) {
  struct Row {
    const char* src;
    size_t size;
    const char* expected;
    size_t copied;
  } rows[] = {
      {"hello", 10, "hello", 5}, {"hello", 6, "hello", 5}, {"hello", 5, "hell", 4},
      {"hello", 1, "", 0},       {"", 4, "", 0},
  };
  for (const Row& row : rows) {
    char buffer[16];
    memset(buffer, 'Z', sizeof buffer);
    EXPECT_EQ(safe_strlcpyA(buffer, row.src, row.size), row.copied) << row.src << " " << row.size;
    EXPECT_STREQ(buffer, row.expected) << row.src << " " << row.size;
    EXPECT_EQ(buffer[row.size], 'Z') << "wrote past the capacity";
  }
  char untouched = 'Z';
  EXPECT_EQ(safe_strlcpyA(&untouched, "abc", 0), 0u);
  EXPECT_EQ(untouched, 'Z');
}
