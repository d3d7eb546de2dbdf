// The host settings file: what a valid file hands the service's own settings adapter, and what is refused, why.
#include <gtest/gtest.h>

#include <string>

#include "HostSettings.h"
#include "LogCapture.h"
#include "PhoneHome/Bencode.h"
#include "PhoneHome/BencodeSettings.h"
#include "TempDir.h"

namespace {

// The dictionary as the bytes it writes to a file.
std::string Written(CBencodeDictionary& dict, const TempDir& dir) {
  dict.SetBencodeFileName(dir.File("dict.cef"));
  EXPECT_EQ(dict.Externalize(true), eBencodeOk);
  return TempDir::Read(dir.File("dict.cef"));
}

const char kValid[] = R"({
  "modules": {"AccessPhoneHomeFile": "/m/access.cef", "ElevatedPosture": "/m/e.cef"},
  "crash_dumps": {"UiModule": "/c/ui-*.core", "TunnelModule": ["/c/t1*", "/c/t2*"]},
  "settings": {"n": -7, "s": "text", "l": ["a", "b"], "big": 9223372036854775807}
})";

}  // namespace

TEST(HostSettings, AValidFileReachesTheAdapterEntryByEntry) {
  TempDir dir;
  CHostSettings settings;
  std::string problem;
  ASSERT_TRUE(settings.Load(dir.Write("host.json", kValid), problem)) << problem;
  CBencodeDictionary dict(false);
  CBencodeSettings adapter(dict);
  LogCapture log;
  EXPECT_EQ(settings.InsertInto(adapter), 0u) << log.Dump();
  // Data files as strings, crash-dump patterns always as lists, free settings as they are typed.
  EXPECT_EQ(Written(dict, dir),
            "d19:AccessPhoneHomeFile13:/m/access.cef15:ElevatedPosture8:/m/e.cef12:TunnelModulel6:/c/t1*6:/c/t2*e"
            "8:UiModulel12:/c/ui-*.coree3:bigi9223372036854775807e1:ll1:a1:be1:ni-7e1:s4:texte");
}

TEST(HostSettings, ARefusedEntryIsLoggedAndTheOthersStillGoIn) {
  TempDir dir;
  CHostSettings settings;
  std::string problem;
  ASSERT_TRUE(settings.Load(dir.Write("host.json", kValid), problem)) << problem;
  CBencodeDictionary dict(false);
  ASSERT_TRUE(dict.Insert("UiModule", 5L));  // a list cannot be appended to an integer
  CBencodeSettings adapter(dict);
  LogCapture log;
  EXPECT_EQ(settings.InsertInto(adapter), 1u);
  EXPECT_TRUE(log.Has("The service refused the setting \"UiModule\"")) << log.Dump();
  EXPECT_TRUE(log.Has("Failed to get CBencodeList instance with key (UiModule)")) << log.Dump();
  long untouched = 0;
  EXPECT_TRUE(dict.Get("UiModule", untouched));
  EXPECT_EQ(untouched, 5);
  std::string later;
  EXPECT_TRUE(dict.Get("s", later));
  EXPECT_EQ(later, "text");
}

TEST(HostSettings, EachMistakeIsNamedAndNothingIsKept) {
  const std::string key256(256, 'k'), key257(257, 'k');
  struct Row { std::string json; std::string problem; } rows[] = {
      {"{}", ""},
      {"{\"settings\": {\"" + key256 + "\": 1}}", ""},
      {"", "not valid JSON: parse error at line 1, column 1"},
      {"{\"modules\": {\"AccessPhoneHomeFile\": \"/a\",}}", "not valid JSON: parse error at line 1, column 42"},
      {"[1]", "the top level must be a JSON object"},
      {R"({"modules": []})", R"("modules": must be a JSON object)"},
      {R"({"module": {}})", R"("module": not a section; the sections are "modules", "crash_dumps" and "settings")"},
      {R"({"modules": {"AccessPhoneHomefile": "/a"}})", R"("modules"."AccessPhoneHomefile": not a data-file key; the keys are AccessPhoneHomeFile, BasePosture, ElevatedPosture, FlowPhoneHomeFile, PosturePhoneHomeFile, ResolverPhoneHomeFile, TunnelPhoneHomeFile, WebFilterPhoneHomeFile)"},
      {R"({"modules": {"AccessPhoneHomeFile": "a.cef"}})", R"("modules"."AccessPhoneHomeFile": "a.cef" is not an absolute path)"},
      {R"({"modules": {"AccessPhoneHomeFile": 5}})", R"("modules"."AccessPhoneHomeFile": must be a string)"},
      {R"({"crash_dumps": {"UIModule": "/a"}})", R"("crash_dumps"."UIModule": not a module name)"},
      {R"({"crash_dumps": {"UiModule": []}})", R"("crash_dumps"."UiModule": names no pattern)"},
      {R"({"crash_dumps": {"UiModule": ["/a", "b"]}})", R"("crash_dumps"."UiModule": "b" is not an absolute path)"},
      {R"({"settings": {"x": true}})", R"("settings"."x": a value must be an integer, a string or an array of strings)"},
      {R"({"settings": {"x": 1.5}})", R"("settings"."x": a value must be an integer)"},
      {R"({"settings": {"x": ["a", 1]}})", R"("settings"."x": a value must be an integer)"},
      {R"({"settings": {"x": 9223372036854775808}})", R"("settings"."x": the integer is out of the 64-bit signed range)"},
      {R"({"settings": {"x": "a\u0000b"}})", R"("settings"."x": contains a NUL character)"},
      {R"({"settings": {"": 1}})", R"("settings"."": a key must be 1 to 256 bytes long)"},
      {"{\"settings\": {\"" + key257 + "\": 1}}", "\"settings\".\"" + key257 + "\": a key must be 1 to 256 bytes long"},
      {R"({"settings": {"UiModule": "/a"}, "crash_dumps": {"UiModule": "/b"}})", R"("settings"."UiModule": the key is already given in "modules" or "crash_dumps")"},
      {R"({"settings": {"a": 1, "a": 2}})", R"(the key "a" is given twice in one object)"},
      {"{" + std::string(CHostSettings::kMaxFileSize, ' ') + "}", "larger than 1048576 bytes"},
  };
  TempDir dir;
  for (const Row& row : rows) {
    SCOPED_TRACE(row.json.substr(0, 80));
    CHostSettings settings;
    std::string problem;
    ASSERT_TRUE(settings.Load(dir.Write("earlier.json", kValid), problem));
    const bool loaded = settings.Load(dir.Write("host.json", row.json), problem);
    EXPECT_EQ(loaded, row.problem.empty());
    if (loaded) continue;
    EXPECT_EQ(problem.substr(0, row.problem.size()), row.problem);
    EXPECT_EQ(settings.Entries().size(), 8u) << "a refused file changed what was loaded before";
  }
  CHostSettings settings;
  std::string problem;
  EXPECT_FALSE(settings.Load(dir.File("missing.json"), problem));
  EXPECT_EQ(problem, "cannot be read: No such file or directory");
}
