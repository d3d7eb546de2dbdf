// The runtime's system helpers: OS version parsing, base64 streaming, directory creation and listing, the
// process owner and the machine id.
#include <gtest/gtest.h>

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <random>
#include <set>
#include <sstream>

#include "DeviceIDInfo.h"
#include "Directory.h"
#include "OsVersion.h"
#include "TempDir.h"
#include "UnixImpersonate.h"
#include "lBase64.h"

namespace {

bool IsDir(const std::string& path) {
  struct stat st {};
  return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// A plain reference encoder, to check the chunked one against on long inputs.
std::string ReferenceBase64(const std::string& bytes) {
  static const char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string text;
  for (size_t i = 0; i < bytes.size(); i += 3) {
    uint32_t group = static_cast<uint8_t>(bytes[i]) << 16;
    if (i + 1 < bytes.size()) group |= static_cast<uint8_t>(bytes[i + 1]) << 8;
    if (i + 2 < bytes.size()) group |= static_cast<uint8_t>(bytes[i + 2]);
    text += kAlphabet[group >> 18];
    text += kAlphabet[(group >> 12) & 63];
    text += i + 1 < bytes.size() ? kAlphabet[(group >> 6) & 63] : '=';
    text += i + 2 < bytes.size() ? kAlphabet[group & 63] : '=';
  }
  return text;
}

std::string Encode(const std::string& bytes, int hint) {
  std::istringstream in(bytes);
  std::ostringstream out;
  EXPECT_TRUE(lBase64::Encode(in, out, hint)) << bytes.size() << " " << hint;
  return out.str();
}

}  // namespace

TEST(RuntimeOsVersion, ParsesKernelReleaseAndOsRelease) {
  struct Row {
    const char* sysName;
    const char* release;
    const char* osRelease;
    const char* type;
    unsigned major, minor, build;
    const char* details;
  } rows[] = {
      {"Linux", "6.1.0-18-amd64", "NAME=\"Debian GNU/Linux\"\nPRETTY_NAME=\"Debian GNU/Linux 12 (bookworm)\"\n",
       "Linux", 6, 1, 0, "Debian GNU/Linux 12 (bookworm)"},
      {"Linux", "5.15.133-1-generic", "# comment\n\n  PRETTY_NAME='Ubuntu 22.04.3 LTS'  \r\n", "Linux", 5, 15,
       133, "Ubuntu 22.04.3 LTS"},
      {"Linux", "4.19", "PRETTY_NAME=Plain\nPRETTY_NAME_EXTRA=\"no\"\n", "Linux", 4, 19, 0, "Plain"},
      {"Linux", "6.8-rc3+", "PRETTY_NAME=\"First\"\nPRETTY_NAME=\"Say \\\"hi\\\" \\\\ \\$x\"\n", "Linux", 6, 8,
       0, "Say \"hi\" \\ $x"},
      {"Linux", "6.99999999999.2", "NAME=x\n", "Linux", 6, 0, 0, "Linux"},
      {"Linux", "4294967295.4294967296.1", "PRETTY_NAME=\"\"\n", "Linux", 4294967295u, 0, 0, "Linux"},
      {"", "abc", "", "Linux", 0, 0, 0, "Linux"},
  };
  for (const Row& row : rows) {
    const OSVersionInfo info = MakeOsVersion(row.sysName, row.release, row.osRelease);
    EXPECT_EQ(info.type, row.type) << row.release;
    EXPECT_EQ(info.majorVersion, row.major) << row.release;
    EXPECT_EQ(info.minorVersion, row.minor) << row.release;
    EXPECT_EQ(info.buildNumber, row.build) << row.release;
    EXPECT_EQ(info.details, row.details) << row.release;
  }

  const OSVersionInfo here = GetOsVersion();
  EXPECT_EQ(here.type, "Linux");
  EXPECT_GE(here.majorVersion, 3u);
  EXPECT_FALSE(here.details.empty());
  EXPECT_TRUE(IsOs_LINUX());
  EXPECT_FALSE(IsOs_MAC() || IsOs_WINNT_XP_Only() || IsOs_WIN_VISTA_Only() || IsOs_WIN_7_Only() ||
               IsOs_WIN_8_Only() || IsOs_WIN_8Point10_Only() || IsOs_WIN_10_Only());
}

TEST(RuntimeBase64, MatchesTheStandardWithoutLineBreaks) {
  const std::pair<const char*, const char*> vectors[] = {
      {"", ""},         {"f", "Zg=="},         {"fo", "Zm8="},         {"foo", "Zm9v"},
      {"foob", "Zm9vYg=="}, {"fooba", "Zm9vYmE="}, {"foobar", "Zm9vYmFy"},
  };
  for (const auto& [plain, text] : vectors) EXPECT_EQ(Encode(plain, 0), text) << plain;

  std::mt19937 random(42);
  std::string bytes(200001, '\0');
  for (char& c : bytes) c = static_cast<char>(random());
  const std::string expected = ReferenceBase64(bytes);
  for (int hint : {-1, 0, 7, 280001, 2000000000}) {  // chunks from the smallest to the largest
    const std::string text = Encode(bytes, hint);
    EXPECT_EQ(text.find_first_of("\r\n"), std::string::npos) << hint;
    EXPECT_EQ(text, expected) << hint;
  }

  std::istringstream in("abc");
  std::ostringstream broken;
  broken.setstate(std::ios::badbit);
  EXPECT_FALSE(lBase64::Encode(in, broken, 0));
}

TEST(RuntimeDirectory, MakeSureDirectoryPathExists) {
  TempDir tmp;
  tmp.Write("file", "x");
  struct Row {
    std::string path;
    bool ok;
  } rows[] = {
      {tmp.File("a/b/c"), true},      {tmp.File("a/b/c"), true},        // nested, then existing
      {tmp.File("t/u/"), true},       {tmp.File("d//e///f"), true},     // trailing and doubled slashes
      {tmp.File("file"), false},      {tmp.File("file/sub/x"), false},  // a file in the way
      {"", false},                    {"/proc/ovf-no-such/dir", false}, // creation refused, even for root
  };
  for (const Row& row : rows) {
    EXPECT_EQ(MakeSureDirectoryPathExists(row.path), row.ok) << row.path;
    if (row.ok) {
      EXPECT_TRUE(IsDir(row.path)) << row.path;
    }
  }
  EXPECT_FALSE(MakeSureDirectoryPathExists(static_cast<const char*>(nullptr)));
  EXPECT_TRUE(MakeSureDirectoryPathExists("/"));
}

TEST(RuntimeDirectory, ListingGivesEveryEntryNameOnce) {
  TempDir tmp;
  ASSERT_TRUE(MakeSureDirectoryPathExists(tmp.File("full/sub")));
  ASSERT_TRUE(MakeSureDirectoryPathExists(tmp.File("empty")));
  tmp.Write("full/a.cef", "1");
  tmp.Write("full/b", "");

  auto list = [](Directory& dir) {
    std::multiset<std::string> names;
    std::string name;
    while (dir.Next(name)) names.insert(name);
    EXPECT_EQ(dir.LastError(), 0);
    return names;
  };
  Directory dir;
  ASSERT_EQ(dir.Open(tmp.File("full")), 0);
  EXPECT_EQ(list(dir), (std::multiset<std::string>{".", "..", "a.cef", "b", "sub"}));
  ASSERT_EQ(dir.Open(tmp.File("empty")), 0);
  EXPECT_EQ(list(dir), (std::multiset<std::string>{".", ".."}));

  EXPECT_EQ(dir.Open(tmp.File("missing")), SYS_E_NOT_FOUND);
  EXPECT_FALSE(dir.IsOpen());
  std::string untouched = "poison";
  EXPECT_FALSE(dir.Next(untouched));
  EXPECT_EQ(untouched, "poison");
  EXPECT_EQ(dir.Open(tmp.File("full/b")), SYS_E_NOT_DIRECTORY);
  EXPECT_EQ(dir.Open(""), SYS_E_INVALIDARG);
}

TEST(RuntimeProcessOwner, IsTheEffectiveUser) {
  const passwd* me = getpwuid(geteuid());
  ASSERT_NE(me, nullptr);
  std::string name;
  EXPECT_EQ(CUnixImpersonate::GetUsernameOwningProcess(getpid(), name), 0);
  EXPECT_EQ(name, me->pw_name);

  for (pid_t bad : {pid_t{0}, pid_t{-5}, pid_t{0x7FFFFFF0}}) {
    name = "poison";
    EXPECT_NE(CUnixImpersonate::GetUsernameOwningProcess(bad, name), 0) << bad;
    EXPECT_EQ(name, "") << bad;
  }
}

TEST(RuntimeMachineId, MachineIdWithFallback) {
  TempDir tmp;
  const std::string id = tmp.Write("id", "0123456789abcdef\n");
  const std::string blank = tmp.Write("blank", " \n");
  const std::string other = tmp.Write("other", "fedcba\r\n");
  const std::string missing = tmp.File("missing");
  struct Row {
    std::string primary, fallback;
    bool ok;
    const char* expected;
  } rows[] = {
      {id, other, true, "0123456789abcdef"},
      {blank, other, true, "fedcba"},
      {missing, other, true, "fedcba"},
      {missing, blank, false, "poison"},
      {missing, tmp.path(), false, "poison"},  // a directory reads as nothing
  };
  for (const Row& row : rows) {
    std::string out = "poison";
    EXPECT_EQ(DeviceIDInfo::GetDeviceIDFromFiles(row.primary, row.fallback, out), row.ok) << row.primary;
    EXPECT_EQ(out, row.expected) << row.primary;
  }

  // This machine: either a machine id without its line end, or a failure that leaves the output alone.
  std::string here = "poison";
  if (DeviceIDInfo::GetDeviceID(here)) {
    EXPECT_FALSE(here.empty());
    EXPECT_EQ(here.find_first_of("\r\n"), std::string::npos);
  } else {
    EXPECT_EQ(here, "poison");
  }
}
