// The exported utilities: path joining, file helpers, hex, wildcard matching, SHA-1 and base64.
#include <gtest/gtest.h>

#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "BuildConfig.h"
#include "TempDir.h"
#include "Utils/Utils.h"

using namespace OvRuntime::Utils;

TEST(Utils, ConcatenatePathJoinsOnce) {
  struct Row {
    const char *first, *second, *separator, *expected;
  } rows[] = {
      {"a", "b", "/", "a/b"},   {"a/", "b", "/", "a/b"},      {"a", "b/", "/", "a/b"},     {"a", "/b", "/", "a/b"},
      {"a/", "/b", "/", "a//b"}, {"", "b/", "/", "b/"},        {"a/", "", "/", "a/"},       {"", "", "/", ""},
      {"/", "/", "/", "/"},     {"a", "b", "::", "a::b"},     {"a::", "b", "::", "a::::b"}, {"a", "b", "", "ab"},
  };
  for (const Row& r : rows) {
    EXPECT_EQ(ConcatenatePath(r.first, r.second, r.separator), r.expected)
        << "'" << r.first << "' + '" << r.second << "' with '" << r.separator << "'";
  }
}

TEST(Utils, FileNamesFromPaths) {
  struct Row {
    const char* path;
    unsigned int size;
    const char* expected;
  } rows[] = {{"/var/log/x.log", 4, "x.l"}, {"/var/log/x.log", 64, "x.log"}, {"x.log", 64, "x.log"},
              {"/var/log/", 64, ""},        {"x.log", 1, ""},                {"/x.log", 6, "x.log"}};
  for (const Row& r : rows) {
    char name[80];
    memset(name, 'Z', sizeof name);
    EXPECT_EQ(GetFileNameFromPath(r.path, name, r.size), UTILS_OK) << r.path << " " << r.size;
    EXPECT_STREQ(name, r.expected) << r.path << " " << r.size;
    EXPECT_EQ(name[r.size], 'Z') << "wrote past the size: " << r.path;
  }
  char name[8];
  memset(name, 'Z', sizeof name);
  EXPECT_EQ(GetFileNameFromPath(nullptr, name, sizeof name), UTILS_ERR_INVALID_PARAMETER);
  EXPECT_EQ(GetFileNameFromPath("/a/b", nullptr, sizeof name), UTILS_ERR_INVALID_PARAMETER);
  EXPECT_EQ(GetFileNameFromPath("/a/b", name, 0), UTILS_ERR_INVALID_PARAMETER);
  EXPECT_EQ(std::string(name, sizeof name), std::string(sizeof name, 'Z'));

  std::vector<std::string> names = {"kept"};
  EXPECT_EQ(GetFileNamesFromPaths({"/a/b.txt", "c", "/d/" + std::string(1500, 'n')}, names), UTILS_OK);
  EXPECT_EQ(names, (std::vector<std::string>{"kept", "b.txt", "c", std::string(1023, 'n')}));
}

TEST(Utils, FileSizeAndTextContent) {
  TempDir dir;
  const std::string text = dir.Write("text", "hello"), empty = dir.Write("empty", ""), missing = dir.File("x");
  EXPECT_EQ(GetFileSize(text), 5u);
  EXPECT_EQ(GetFileSize(empty), 0u);
  EXPECT_EQ(GetFileSize(missing), 4294967295u);

  // Without a buffer or with a zero size it is a size query; otherwise a read with no terminator added.
  struct Row {
    std::string path;
    bool buffer;
    unsigned int capacity;
    int rc;
    unsigned int size;
    std::string bytes;
  } rows[] = {
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
    EXPECT_EQ(GetFileTextContent(r.path, r.buffer ? buffer : nullptr, size), r.rc) << r.path << " " << r.capacity;
    EXPECT_EQ(size, r.size) << r.path << " " << r.capacity;
    EXPECT_EQ(std::string(buffer, r.bytes.size() + 1), r.bytes + 'Z') << r.path << " " << r.capacity;
  }
}

TEST(Utils, HexBothWays) {
  EXPECT_EQ(EncodeToHex(std::string("\x00\xAB", 2)), "00ab");
  EXPECT_EQ(EncodeToHex(""), "");
  std::string all;
  for (int i = 0; i < 256; ++i) all.push_back(static_cast<char>(i));
  EXPECT_EQ(EncodeHexToByte(EncodeToHex(all)), all);

  struct Row {
    const char* hex;
    std::string bytes;
  } rows[] = {{"00AB", std::string("\x00\xAB", 2)}, {"00ab", std::string("\x00\xAB", 2)}, {"abc", "\xAB\xC0"},
              {"a", "\xA0"}, {"zz", std::string(1, '\0')}, {"G1", "\x01"}, {"1g", "\x10"}, {"", ""}};
  for (const Row& r : rows) EXPECT_EQ(EncodeToHex(EncodeHexToByte(r.hex)), EncodeToHex(r.bytes)) << r.hex;
}

TEST(Utils, MatchPatternTable) {
  struct Row {
    const char *text, *pattern;
    bool match;
  } rows[] = {
      {"report.dmp", "*.dmp", true}, {"a.dmp.txt", "*.dmp", false}, {".dmp", "*.dmp", true},
      {"abc", "a?c", true},          {"ac", "a?c", false},          {"abbc", "a?c", false},
      {"a*c", "a\\*c", true},        {"abc", "a\\*c", false},       {"a?c", "a\\?c", true},
      {"abc", "a\\?c", false},       {"a\\c", "a\\\\c", true},      {"a\\\\c", "a\\\\c", false},
      {"a", "\\a", true},            {"*", "\\*", true},            {"", "\\*", false},
      {"", "*", true},               {"", "**", true},              {"", "", true},
      {"x", "", false},              {"", "?", false},              {"", "\\", true},
      {"x", "\\", false},            {"a", "a\\", true},            {"abc", "a*b*c*", true},
      {"mississippi", "m*iss*pi", true}, {"mississippi", "m*iss*ip", false}, {"ABC", "abc", false},
      {"abc", "ab", false},          {"ab", "abc", false},          {"x*y", "x*y", true},
  };
  for (const Row& r : rows) {
    EXPECT_EQ(MatchPattern(r.text, r.pattern), r.match) << "text '" << r.text << "' pattern '" << r.pattern << "'";
  }
}

TEST(Utils, Sha1PublishedVectors) {
  struct Row {
    std::string input;
    const char* hex;
  } rows[] = {
      {"abc", "a9993e364706816aba3e25717850c26c9cd0d89d"},
      {"", "da39a3ee5e6b4b0d3255bfef95601890afd80709"},
      {"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq", "84983e441c3bd26ebaae4aa1f95129e5e54670f1"},
      {std::string(1000000, 'a'), "34aa973cd4c4daa4f61eeb2bdbad27316534016f"},
  };
  for (const Row& r : rows) {
    std::string digest;
    ASSERT_EQ(GetSHA1Hash(reinterpret_cast<const unsigned char*>(r.input.data()), r.input.size(), digest), UTILS_OK);
    EXPECT_EQ(digest.size(), 20u);
    EXPECT_EQ(EncodeToHex(digest), r.hex) << "input of " << r.input.size() << " bytes";
  }
  std::string digest = "poison";
  EXPECT_EQ(GetSHA1Hash(nullptr, 3, digest), UTILS_ERR_INVALID_PARAMETER);
  EXPECT_EQ(digest, "poison");
}

TEST(Utils, Base64LineBrokenVectorsAndRoundTrips) {
  std::string a48Text, big;
  for (int i = 0; i < 16; ++i) a48Text += "YWFh";
  for (int i = 0; i < 5000; ++i) big.push_back(static_cast<char>(i * 7));  // several 1024-byte reads
  struct Row {
    std::string input;
    std::optional<std::string> text;  // none: only the round trip is checked
  } rows[] = {
      {"", ""},           {"f", "Zg==\n"},         {"fo", "Zm8=\n"},          {"foo", "Zm9v\n"},
      {"foob", "Zm9vYg==\n"}, {"fooba", "Zm9vYmE=\n"}, {"foobar", "Zm9vYmFy\n"}, {"hello", "aGVsbG8=\n"},
      {std::string(48, 'a'), a48Text + "\n"},       {std::string(49, 'a'), a48Text + "\nYQ==\n"},
      {big, std::nullopt},
  };
  for (const Row& r : rows) {
    std::string text = "poison", bytes = "poison";
    int length = -1;
    ASSERT_EQ(Base64Encode(r.input, static_cast<int>(r.input.size()), text), UTILS_OK) << r.input.size();
    if (r.text) {
      EXPECT_EQ(text, *r.text);
    }
    ASSERT_EQ(Base64Decode(text, static_cast<int>(text.size()), bytes, length), UTILS_OK) << text;
    EXPECT_TRUE(bytes == r.input) << text;
    EXPECT_EQ(length, static_cast<int>(r.input.size()));
  }

  // Only the first `length` bytes count; lengths outside the input are refused and write nothing.
  std::string text, bytes = "poison";
  int length = 77;
  ASSERT_EQ(Base64Encode("foobar", 3, text), UTILS_OK);
  EXPECT_EQ(text, "Zm9v\n");
  ASSERT_EQ(Base64Decode("Zm9v\nYmFy\n", 5, bytes, length), UTILS_OK);
  EXPECT_EQ(bytes, "foo");
  EXPECT_EQ(length, 3);
  for (int bad : {-1, 7}) {
    text = bytes = "poison";
    length = 77;
    EXPECT_EQ(Base64Encode("foobar", bad, text), UTILS_ERR_INVALID_PARAMETER) << bad;
    EXPECT_EQ(Base64Decode("Zm9v\n", bad == 7 ? 6 : bad, bytes, length), UTILS_ERR_INVALID_PARAMETER) << bad;
    EXPECT_EQ(text + bytes, "poisonpoison");
    EXPECT_EQ(length, 0);
  }
}

TEST(Utils, ConstantAnswers) {
  std::string path, out;
  unsigned long length = 0;
  const std::string in("a\0b\xC3\xA9", 5);
  EXPECT_TRUE(GetAllUsersAppDataPath(path));
  EXPECT_EQ(path, "/opt");
  EXPECT_EQ(GetBuildVersion(), OVF_BUILD_VERSION);
  EXPECT_EQ(GetBuildTag(), "");
  EXPECT_EQ(WideCharToMBCS(in, out), 0);
  EXPECT_EQ(out, in);
  EXPECT_EQ(WideCharToMBLength(in, length), 0);
  EXPECT_EQ(length, 5u);
}
