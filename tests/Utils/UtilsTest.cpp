// The exported utilities: path joining, file helpers, hex, wildcard matching, SHA-1 and base64.
#include <gtest/gtest.h>

#include <cstring>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "BuildConfig.h"
#include "TempDir.h"
#include "Utils/Utils.h"

using namespace OvRuntime::Utils;

TEST(Utils, ConcatenatePathJoinsOnce) {
  struct Row { const char *first, *second, *separator, *expected; } rows[] = {
      {"a", "b", "/", "a/b"},    {"a/", "b", "/", "a/b"}, {"a", "b/", "/", "a/b"},      {"a", "/b", "/", "a/b"},
      {"a/", "/b", "/", "a//b"}, {"", "b/", "/", "b/"},   {"a/", "", "/", "a/"},        {"/", "/", "/", "/"},
      {"a", "b", "::", "a::b"},  {"a", "b", "", "ab"},    {"a::", "b", "::", "a::::b"},  // never equal: inserted
  };
  for (const Row& r : rows) {
    EXPECT_EQ(ConcatenatePath(r.first, r.second, r.separator), r.expected)
        << "'" << r.first << "' + '" << r.second << "' with '" << r.separator << "'";
  }
}

TEST(Utils, FileNamesFromPaths) {
  struct Row { const char* path; unsigned int size; const char* name; } rows[] = {  // name null: refused, untouched
      {"/var/log/x.log", 4, "x.l"}, {"/var/log/x.log", 64, "x.log"}, {"x.log", 64, "x.log"}, {"/var/log/", 64, ""},
      {"x.log", 1, ""},             {"/x.log", 6, "x.log"},          {nullptr, 8, nullptr},  {"/a/b", 0, nullptr}};
  const std::string poison(79, 'Z');
  for (const Row& r : rows) {
    char name[80];
    strcpy(name, poison.c_str());
    const int rc = GetFileNameFromPath(r.path, name, r.size);
    EXPECT_EQ(std::make_tuple(rc, std::string(name), name[r.size]),  // and nothing written past the size
              std::make_tuple(r.name ? UTILS_OK : UTILS_ERR_INVALID_PARAMETER, r.name ? r.name : poison, 'Z'))
        << (r.path ? r.path : "null") << " size " << r.size;
  }
  EXPECT_EQ(GetFileNameFromPath("/a/b", nullptr, 8), UTILS_ERR_INVALID_PARAMETER);

  std::vector<std::string> names = {"kept"};
  EXPECT_EQ(GetFileNamesFromPaths({"/a/b.txt", "c", "/d/" + std::string(1500, 'n')}, names), UTILS_OK);
  EXPECT_EQ(names, (std::vector<std::string>{"kept", "b.txt", "c", std::string(1023, 'n')}));
}

// GetFileSize is seen through the size queries (no buffer or a zero size); a read adds no terminator.
TEST(Utils, FileSizeAndTextContent) {
  TempDir dir;
  const std::string text = dir.Write("text", "hello"), empty = dir.Write("empty", ""), missing = dir.File("x");
  struct Row { std::string path; bool buffer; unsigned int capacity; int rc; unsigned int size; std::string bytes; };
  const Row rows[] = {
      {text, false, 9, UTILS_ERR_MORE_DATA, 5, ""},         {text, true, 0, UTILS_ERR_MORE_DATA, 5, ""},
      {missing, false, 0, UTILS_ERR_MORE_DATA, 4294967295u, ""}, {empty, false, 9, UTILS_ERR_FILE_NOT_FOUND, 9, ""},
      {text, true, 16, UTILS_OK, 5, "hello"},               {text, true, 3, UTILS_OK, 3, "hel"},
      {empty, true, 16, UTILS_OK, 0, ""},                   {missing, true, 16, UTILS_ERR_FILE_NOT_FOUND, 16, ""},
      {dir.path(), true, 16, UTILS_ERR_FAILED, 16, ""},
  };
  for (const Row& r : rows) {
    char buffer[16];
    memset(buffer, 'Z', sizeof buffer);
    unsigned int size = r.capacity;
    const int rc = GetFileTextContent(r.path, r.buffer ? buffer : nullptr, size);
    EXPECT_EQ(std::make_tuple(rc, size, std::string(buffer, r.bytes.size() + 1)),
              std::make_tuple(r.rc, r.size, r.bytes + 'Z')) << r.path << " " << r.buffer << " " << r.capacity;
  }
}

TEST(Utils, HexBothWays) {
  EXPECT_EQ(EncodeToHex(std::string("\x00\xAB", 2)) + EncodeToHex(""), "00ab");
  std::string all;
  for (int i = 0; i < 256; ++i) all.push_back(static_cast<char>(i));
  EXPECT_EQ(EncodeHexToByte(EncodeToHex(all)), all);
  const std::pair<const char*, std::string> rows[] = {
      {"00AB", std::string("\x00\xAB", 2)}, {"00ab", std::string("\x00\xAB", 2)}, {"abc", "\xAB\xC0"}, {"a", "\xA0"},
      {"zz", std::string(1, '\0')},         {"G1", "\x01"}, {"1g", "\x10"},       {"", ""}};
  for (const auto& [hex, bytes] : rows) EXPECT_EQ(EncodeHexToByte(hex), bytes) << hex;
}

TEST(Utils, MatchPatternTable) {
  struct Row { const char *text, *pattern; bool match; } rows[] = {
      {"report.dmp", "*.dmp", true}, {"a.dmp.txt", "*.dmp", false}, {".dmp", "*.dmp", true}, {"abc", "a?c", true},
      {"ac", "a?c", false},          {"abbc", "a?c", false},        {"a*c", "a\\*c", true},  {"abc", "a\\*c", false},
      {"a?c", "a\\?c", true},        {"a\\c", "a\\\\c", true},      {"a\\\\c", "a\\\\c", false}, {"a", "\\a", true},
      {"*", "\\*", true},            {"", "\\*", false},            {"", "*", true},         {"", "**", true},
      {"", "", true},                {"x", "", false},              {"", "?", false},        {"", "\\", true},
      {"x", "\\", false},            {"a", "a\\", true},            {"abc", "a*b*c*", true}, {"ABC", "abc", false},
      {"mississippi", "m*iss*pi", true}, {"mississippi", "m*iss*ip", false}, {"abc", "ab", false}, {"ab", "abc", false},
      {"abc", "c", false},           {"abc", "*c", true},
  };
  for (const Row& r : rows) {
    EXPECT_EQ(MatchPattern(r.text, r.pattern), r.match) << "text '" << r.text << "' pattern '" << r.pattern << "'";
  }
}

TEST(Utils, Sha1RawDigests) {
  const std::pair<std::string, const char*> rows[] = {  // all `length` bytes count, a zero byte too
      {"abc", "a9993e364706816aba3e25717850c26c9cd0d89d"},
      {std::string("a\0b", 3), "4a3dec2d1f8245280855c42db0ee4239f917fdb8"},
  };
  for (const auto& [input, hex] : rows) {
    std::string digest;
    ASSERT_EQ(GetSHA1Hash(reinterpret_cast<const unsigned char*>(input.data()), input.size(), digest), UTILS_OK);
    EXPECT_EQ(EncodeToHex(digest), hex) << "raw 20-byte digest of an input of " << input.size() << " bytes";
  }
  std::string digest = "poison";
  EXPECT_EQ(GetSHA1Hash(nullptr, 3, digest), UTILS_ERR_INVALID_PARAMETER);
  EXPECT_EQ(digest, "poison");
}

TEST(Utils, Base64LineBrokenVectorsAndRoundTrips) {
  const std::string a48Text = "YWFhYWFhYWFhYWFhYWFhYWFhYWFhYWFhYWFhYWFhYWFhYWFhYWFhYWFhYWFhYWFh";  // one full line
  std::string big;
  for (int i = 0; i < 5000; ++i) big.push_back(static_cast<char>(i * 7));  // several 1024-byte reads
  const std::pair<std::string, std::optional<std::string>> rows[] = {  // none: only the round trip is checked
      {"", ""}, {"hello", "aGVsbG8=\n"}, {std::string(48, 'a'), a48Text + "\n"},
      {std::string(49, 'a'), a48Text + "\nYQ==\n"}, {big, std::nullopt},
  };
  for (const auto& [input, expected] : rows) {
    std::string text = "poison", bytes = "poison";
    int length = -1;
    ASSERT_EQ(Base64Encode(input, static_cast<int>(input.size()), text), UTILS_OK) << input.size();
    EXPECT_EQ(text, expected.value_or(text));
    ASSERT_EQ(Base64Decode(text, static_cast<int>(text.size()), bytes, length), UTILS_OK) << text;
    EXPECT_TRUE(bytes == input && length == static_cast<int>(input.size())) << text << " gave " << length;
  }

  // Only the first `length` bytes count; lengths outside the input are refused and write nothing.
  std::string text, bytes;
  int length = 77;
  ASSERT_EQ(Base64Encode("foobar", 3, text), UTILS_OK);
  ASSERT_EQ(Base64Decode("Zm9v\nYmFy\n", 5, bytes, length), UTILS_OK);
  EXPECT_EQ(std::make_tuple(text, bytes, length), std::make_tuple("Zm9v\n", "foo", 3));
  for (int bad : {-1, 7}) {
    text = bytes = "poison";
    length = 77;
    EXPECT_EQ(Base64Encode("foobar", bad, text), UTILS_ERR_INVALID_PARAMETER) << bad;
    EXPECT_EQ(Base64Decode("Zm9v\n", bad == 7 ? 6 : bad, bytes, length), UTILS_ERR_INVALID_PARAMETER) << bad;
    EXPECT_EQ(std::make_tuple(text, bytes, length), std::make_tuple("poison", "poison", 0)) << bad;
  }
}

TEST(Utils, ConstantAnswers) {
  std::string path, out;
  unsigned long length = 0;
  const std::string in("a\0b\xC3\xA9", 5);
  EXPECT_TRUE(GetAllUsersAppDataPath(path) && path == "/opt") << path;
  EXPECT_EQ(GetBuildVersion(), OVF_BUILD_VERSION);
  EXPECT_EQ(GetBuildTag(), "");
  EXPECT_EQ(WideCharToMBCS(in, out), 0);
  EXPECT_EQ(WideCharToMBLength(in, length), 0);
  EXPECT_TRUE(out == in && length == 5u) << length;
}
