// The runtime's system helpers: OS version, base64 streaming, directories, process owner and machine id.
#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <random>
#include <set>
#include <sstream>
#include <tuple>

#include "DeviceIDInfo.h"
#include "Directory.h"
#include "OsVersion.h"
#include "TempDir.h"
#include "UnixImpersonate.h"
#include "lBase64.h"

namespace {

std::string Encode(const std::string& bytes, int hint) {
  std::istringstream in(bytes);
  std::ostringstream out;
  EXPECT_TRUE(lBase64::Encode(in, out, hint)) << bytes.size() << " " << hint;
  return out.str();
}

}  // namespace

TEST(RuntimeOsVersion, ParsesKernelReleaseAndOsRelease) {
  struct Row { const char *sysName, *release, *osRelease; unsigned major, minor, build; const char* details; };
  const Row rows[] = {
      {"Linux", "6.1.0-18-amd64", "NAME=\"Debian GNU/Linux\"\nPRETTY_NAME=\"Debian GNU/Linux 12 (bookworm)\"\n", 6, 1,
       0, "Debian GNU/Linux 12 (bookworm)"},
      {"Linux", "5.15.133-1-generic", "# comment\n\n  PRETTY_NAME='Ubuntu 22.04.3 LTS'  \r\n", 5, 15, 133,
       "Ubuntu 22.04.3 LTS"},
      {"Linux", "4.19", "PRETTY_NAME=Plain\nPRETTY_NAME_EXTRA=\"no\"\n", 4, 19, 0, "Plain"},
      {"Linux", "6.8-rc3+", "PRETTY_NAME=\"First\"\nPRETTY_NAME=\"Say \\\"hi\\\" \\\\ \\$x\"\n", 6, 8, 0,
       "Say \"hi\" \\ $x"},
      {"Linux", "6.99999999999.2", "NAME=x\n", 6, 0, 0, "Linux"},
      {"Linux", "4294967295.4294967296.1", "PRETTY_NAME=\"\"\n", 4294967295u, 0, 0, "Linux"},
      {"", "abc", "", 0, 0, 0, "Linux"},
  };
  for (const Row& r : rows) {
    const OSVersionInfo info = MakeOsVersion(r.sysName, r.release, r.osRelease);
    EXPECT_EQ(std::tie(info.type, info.majorVersion, info.minorVersion, info.buildNumber, info.details),
              std::make_tuple("Linux", r.major, r.minor, r.build, r.details)) << r.release;
  }

  const OSVersionInfo here = GetOsVersion();
  EXPECT_TRUE(here.type == "Linux" && here.majorVersion >= 3 && !here.details.empty()) << here.details;
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
  std::string expected(bytes.size() / 3 * 4 + 5, '\0');  // one block: no line breaks, padding only at the end
  expected.resize(static_cast<size_t>(EVP_EncodeBlock(reinterpret_cast<unsigned char*>(expected.data()),
                                                      reinterpret_cast<const unsigned char*>(bytes.data()),
                                                      static_cast<int>(bytes.size()))));
  // Chunks from the smallest to the largest, and one sized from the hint between the clamps.
  for (int hint : {-1, 0, 7, 10001, 280001, 2000000000}) EXPECT_EQ(Encode(bytes, hint), expected) << hint;

  std::istringstream in("abc");
  std::ostringstream broken;
  broken.setstate(std::ios::badbit);
  EXPECT_FALSE(lBase64::Encode(in, broken, 0));
}

TEST(RuntimeDirectory, MakeSureDirectoryPathExists) {
  TempDir tmp;
  tmp.Write("file", "x");
  const std::pair<std::string, bool> rows[] = {
      {tmp.File("a/b/c"), true},      {tmp.File("a/b/c"), true},        // nested, then existing
      {tmp.File("t/u/"), true},       {tmp.File("d//e///f"), true},     // trailing and doubled slashes
      {tmp.File("file"), false},      {tmp.File("file/sub/x"), false},  // a file in the way
      {"", false},                    {"/proc/ovf-no-such/dir", false}, // creation refused, even for root
      {"/", true},
  };
  for (const auto& [path, ok] : rows) {
    struct stat st {};
    EXPECT_EQ(MakeSureDirectoryPathExists(path), ok) << path;
    EXPECT_TRUE(!ok || (stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode))) << path;
  }
  EXPECT_FALSE(MakeSureDirectoryPathExists(static_cast<const char*>(nullptr)));
}

TEST(RuntimeDirectory, ListingGivesEveryEntryNameOnce) {
  TempDir tmp;
  ASSERT_TRUE(MakeSureDirectoryPathExists(tmp.File("full/sub")) && MakeSureDirectoryPathExists(tmp.File("empty")));
  tmp.Write("full/a.cef", "1");
  tmp.Write("full/b", "");
  Directory dir;
  auto list = [&dir](const std::string& path) {
    std::multiset<std::string> names;
    std::string name;
    EXPECT_EQ(dir.Open(path), 0) << path;
    while (dir.Next(name)) names.insert(name);
    EXPECT_EQ(dir.LastError(), 0);
    return names;
  };
  EXPECT_EQ(list(tmp.File("full")), (std::multiset<std::string>{".", "..", "a.cef", "b", "sub"}));
  EXPECT_EQ(list(tmp.File("empty")), (std::multiset<std::string>{".", ".."}));

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
  const std::string id = tmp.Write("id", "0123456789abcdef\n"), blank = tmp.Write("blank", " \n"),
                    other = tmp.Write("other", "fedcba\r\n"), missing = tmp.File("missing");
  struct Row { std::string primary, fallback; bool ok; const char* expected; };
  const Row rows[] = {
      {id, other, true, "0123456789abcdef"},  {blank, other, true, "fedcba"}, {missing, other, true, "fedcba"},
      {missing, blank, false, "poison"}, {missing, tmp.path(), false, "poison"},  // a directory reads as nothing
  };
  for (const Row& r : rows) {
    std::string out = "poison";
    EXPECT_EQ(DeviceIDInfo::GetDeviceIDFromFiles(r.primary, r.fallback, out), r.ok) << r.primary << " " << r.fallback;
    EXPECT_EQ(out, r.expected) << r.primary << " " << r.fallback;
  }
}
