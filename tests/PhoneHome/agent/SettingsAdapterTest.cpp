// What the host's modules see of the feedback service: the callback slot, and the settings view they write
// through with its limits, replace and append modes, and refusals.
#include "AgentUnderTest.h"
#include "IPhoneHomePluginCB.h"
#include "PhoneHome/BencodeSettings.h"

namespace {

class Callback : public IPhoneHomePluginCB {
 public:
  long GetSettingsCB(IBencodeSettings*) override { return 0; }
};

}  // namespace

TEST(PluginFrame, NullCallbackIsRefusedQuietlyAndTheOneSetStays) {
  LogCapture log;
  long err = -1;
  CPhoneHomePlugin service(err);
  Callback first, second;
  EXPECT_EQ(service.GetPhoneHomePluginCB(), nullptr);
  EXPECT_EQ(service.SetPhoneHomePluginCB(&first), 0);
  EXPECT_EQ(service.SetPhoneHomePluginCB(nullptr), -6);
  EXPECT_EQ(service.GetPhoneHomePluginCB(), &first);
  EXPECT_EQ(service.SetPhoneHomePluginCB(&second), 0);
  EXPECT_EQ(service.GetPhoneHomePluginCB(), &second);
  EXPECT_EQ(service.UnSetPhoneHomePluginCB(), 0);
  EXPECT_EQ(service.GetPhoneHomePluginCB(), nullptr);
  EXPECT_TRUE(log.Records().empty()) << log.Dump();
}

TEST(SettingsAdapter, KeyLimitsValuesOfAnyLengthAndNullArguments) {
  const std::string key256(256, 'k'), key257(257, 'k'), value5000(5000, 'v');
  const char* const kNull = nullptr;
  struct Row {
    const char *name, *key, *value;  // value null with isInteger: the integer form
    bool isInteger;
    std::string stored;   // the dictionary afterwards
    const char* message;  // the one line logged on refusal, an error
  } rows[] = {
      {"integer, key of 256", key256.c_str(), nullptr, true, "d256:" + key256 + "i42ee", nullptr},
      {"integer, key of 257", key257.c_str(), nullptr, true, "de", "Keysize greater than maximum permitted limit (256)"},
      {"integer, null key", kNull, nullptr, true, "de", "NULL parameter passed"},
      {"string, key of 256", key256.c_str(), "x", false, "d256:" + key256 + "1:xe", nullptr},
      {"string, key of 257", key257.c_str(), "x", false, "de", "Key size greater than maximum permitted limit (256)"},
      {"string of 5000 bytes", "long", value5000.c_str(), false, "d4:long5000:" + value5000 + "e", nullptr},
      {"string, null key", kNull, "x", false, "de", "NULL parameter passed"},
      {"string, null value", "k", kNull, false, "de", "NULL parameter passed"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    CBencodeDictionary dict(true);
    CBencodeSettings settings(dict);
    LogCapture log;
    const bool result = row.isInteger ? settings.Insert(row.key, 42L) : settings.Insert(row.key, row.value, false);
    EXPECT_EQ(result, row.message == nullptr);
    EXPECT_EQ(Bencoded(dict), row.stored);
    EXPECT_EQ(log.Lines(), log.Lines("PhoneHomeAgent"));
    EXPECT_EQ(log.Lines(), row.message ? "E " + std::string(row.message) + "\n" : "");
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
    EXPECT_EQ(Bencoded(dict), "d5:counti7e8:patternsl1:a1:bee");
    EXPECT_TRUE(settings.Insert("count", "x", false));
    EXPECT_TRUE(settings.Insert("path", "/one", false));
    EXPECT_TRUE(settings.Insert("path", "/two", false));
  }
  // The view's end leaves the dictionary as the modules wrote it.
  EXPECT_EQ(Bencoded(dict), "d5:count1:x4:path4:/two8:patternsl1:a1:bee");
  // The one refusal is the adapter's only line (the dictionary adds its own).
  EXPECT_EQ(log.Lines("PhoneHomeAgent"), "E Failed to get CBencodeList instance with key (count)\n") << log.Dump();
}
