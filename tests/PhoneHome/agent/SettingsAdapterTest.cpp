// The settings view the host's modules write through: its limits, replace and append modes, and refusals.
#include <gtest/gtest.h>

#include <string>

#include "AppLog.h"
#include "LogCapture.h"
#include "PhoneHome/Bencode.h"
#include "PhoneHome/BencodeSettings.h"

namespace {

std::string Text(CBencodeDictionary& dict, const std::string& key) {
  std::string value = "<absent>";
  dict.Get(key, value);
  return value;
}

}  // namespace

TEST(SettingsAdapter, KeyLimitsValuesOfAnyLengthAndNullArguments) {
  const std::string key256(256, 'k'), key257(257, 'k'), value5000(5000, 'v');
  const char* const kNull = nullptr;
  struct Row {
    const char* name;
    const char* key;
    const char* value;  // null with isInteger: the integer form
    bool isInteger;
    bool accepted;
    const char* message;  // the one error logged on refusal
  } rows[] = {
      {"integer, key of 256", key256.c_str(), nullptr, true, true, nullptr},
      {"integer, key of 257", key257.c_str(), nullptr, true, false, "Keysize greater than maximum permitted limit (256)"},
      {"integer, null key", kNull, nullptr, true, false, "NULL parameter passed"},
      {"string, key of 256", key256.c_str(), "x", false, true, nullptr},
      {"string, key of 257", key257.c_str(), "x", false, false, "Key size greater than maximum permitted limit (256)"},
      {"string of 5000 bytes", "long", value5000.c_str(), false, true, nullptr},
      {"string, null key", kNull, "x", false, false, "NULL parameter passed"},
      {"string, null value", "k", kNull, false, false, "NULL parameter passed"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    CBencodeDictionary dict(true);
    CBencodeSettings settings(dict);
    LogCapture log;
    const bool result = row.isInteger ? settings.Insert(row.key, 42L) : settings.Insert(row.key, row.value, false);
    EXPECT_EQ(result, row.accepted);
    if (row.accepted) {
      EXPECT_TRUE(log.Records().empty()) << log.Dump();
      ASSERT_EQ(dict.Items().size(), 1u);
      long number = 0;
      if (row.isInteger) {
        EXPECT_TRUE(dict.Get(row.key, number));
        EXPECT_EQ(number, 42);
      } else {
        EXPECT_EQ(Text(dict, row.key), row.value);
      }
    } else {
      EXPECT_TRUE(dict.Items().empty());
      ASSERT_EQ(log.Records().size(), 1u) << log.Dump();
      const LogRecord record = log.Records()[0];
      EXPECT_EQ(record.text, row.message);
      EXPECT_EQ(record.importance, APPLOG_ERROR);
      EXPECT_EQ(record.file, "PhoneHomeAgent");
    }
  }
}

TEST(SettingsAdapter, AppendCollectsStringsUnderOneKeyAndReplaceOverwrites) {
  CBencodeDictionary dict(true);
  LogCapture log;
  {
    CBencodeSettings settings(dict);
    EXPECT_TRUE(settings.Insert("patterns", "a", true));
    EXPECT_TRUE(settings.Insert("patterns", "b", true));
    EXPECT_TRUE(settings.Insert("count", 7L));
    // Append onto an integer is refused and leaves it; a plain insert replaces it.
    EXPECT_FALSE(settings.Insert("count", "x", true));
    EXPECT_EQ(log.Count("Failed to get CBencodeList instance with key (count)"), 1u) << log.Dump();
    long number = 0;
    EXPECT_TRUE(dict.Get("count", number));
    EXPECT_EQ(number, 7);
    EXPECT_TRUE(settings.Insert("count", "x", false));
    EXPECT_TRUE(settings.Insert("path", "/one", false));
    EXPECT_TRUE(settings.Insert("path", "/two", false));
  }
  // The view's end leaves the dictionary as the modules wrote it.
  EXPECT_EQ(Text(dict, "count"), "x");
  EXPECT_EQ(Text(dict, "path"), "/two");
  CBencodeList* list = nullptr;
  ASSERT_TRUE(dict.Get("patterns", list, false));
  ASSERT_EQ(list->Items().size(), 2u);
  std::string first, second;
  EXPECT_TRUE((*list)[0]->Get(first));
  EXPECT_TRUE((*list)[1]->Get(second));
  EXPECT_EQ(first + second, "ab");
  // The one refusal above is the adapter's only line (the dictionary adds its own).
  size_t adapterLines = 0;
  for (const LogRecord& record : log.Records()) adapterLines += record.file == "PhoneHomeAgent" ? 1 : 0;
  EXPECT_EQ(adapterLines, 1u) << log.Dump();
}
