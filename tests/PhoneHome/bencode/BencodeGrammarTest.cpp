// The byte grammar of scalars: the lenient reader, the canonical writer, the integer conversion measured
// against the C library's own, and the in-memory stream measured against a std::stringstream.
#include <climits>
#include <cstdio>
#include <sstream>
#include <vector>

#include "BencodeTestUtil.h"

using namespace std::string_literals;

namespace {
char const* const kReadInt = "Failed to read integer value";
char const* const kBadInt = "Failed to internalize integer value";
char const* const kIllegal = "Illegal bencode string";
}  // namespace

TEST(BencodeGrammar, ScalarsReadLenientlyAndWriteCanonically) {
  struct Row {
    CBencode::EContentType type;
    std::string input;
    char const* written;  // the value written back after the read; "i77e"/"3:old" is the poison left in place
    bool ok;
    std::vector<char const*> messages;
  } const rows[] = {
      {CBencode::eInteger, "i007e", "i7e", true, {}},
      {CBencode::eInteger, "i+7e", "i7e", true, {}},
      {CBencode::eInteger, "i 7e", "i7e", true, {}},
      {CBencode::eInteger, "i-0e", "i0e", true, {}},
      {CBencode::eInteger, "i5xe", "i5e", true, {}},
      {CBencode::eInteger, "i-9223372036854775808e", "i-9223372036854775808e", true, {}},
      {CBencode::eInteger, "i99999999999999999999e", "i9223372036854775807e", true, {}},
      {CBencode::eInteger, "i123456789012345678901e", "i77e", true, {kReadInt}},  // 21 characters
      {CBencode::eInteger, "ie", "i77e", false, {kReadInt, kBadInt}},
      {CBencode::eInteger, "i12", "i77e", false, {kReadInt, kBadInt}},
      {CBencode::eInteger, "i1234567890123456789012e", "i77e", false, {kReadInt, "Integer internalize failed"}},
      {CBencode::eInteger, "i12:", "i12e", false, {"Integer internalize failed"}},
      {CBencode::eInteger, "x1e", "i77e", false, {"Failed to internalize integer type identifier"}},
      {CBencode::eString, "3:abc", "3:abc", true, {}},
      {CBencode::eString, "0:", "0:", true, {}},
      {CBencode::eString, " +03:abc", "3:abc", true, {}},
      {CBencode::eString, "3:a\0c"s, "1:a", true, {}},
      {CBencode::eString, "123456789012345678901:xyz", "0:", true, {kReadInt}},  // a 21-character length is 0
      {CBencode::eString, "-1:", "3:old", false, {kIllegal}},
      {CBencode::eString, "524289:", "3:old", false, {kIllegal}},
      {CBencode::eString, "3:ab", "3:old", false, {kIllegal}},
      {CBencode::eString, "3eabc", "3:old", false, {kIllegal}},
      {CBencode::eString, "x", "3:old", false, {kReadInt, kIllegal}},
      {CBencode::eString, "", "3:old", false, {kReadInt, kIllegal}},
  };
  for (Row const& row : rows) {
    SCOPED_TRACE("input \"" + row.input + "\"");
    CBencode value(row.type);
    row.type == CBencode::eInteger ? value.Set(77L) : value.Set("old"s);
    LogCapture log;
    EXPECT_EQ(value.Internalize(*StreamOver(row.input)), row.ok);
    EXPECT_EQ(Serialised(value), row.written);
    EXPECT_EQ(log.Records().size(), row.messages.size()) << log.Dump();
    for (char const* message : row.messages) ExpectLogged(log, message, CBencode::eBencodeIllegalData);
  }
  for (long length : {CBencode::sm_iMaxStringSize, CBencode::sm_iMaxStringSize + 1}) {
    CBencode value(CBencode::eString);
    bool const fits = length <= CBencode::sm_iMaxStringSize;
    EXPECT_EQ(value.Internalize(*StreamOver(std::to_string(length) + ":" + std::string(length, 'q'))), fits);
    EXPECT_EQ(Serialised(value).size(), fits ? 7 + length : 2) << length;
  }
}

TEST(BencodeGrammar, IntegerTextConvertsAsScanfAndPrintfDo) {
  std::vector<std::string> const texts = {"7", "007", "+7", "-7", " \t\n\v\f\r7", "-0", "5x", "12 3", "0x10", "", "+", "-", " ",
                               "x5", "+-1", "- 1", "\xa0" "5", "9223372036854775807", "9223372036854775808",
                               "-9223372036854775808", "-9223372036854775809", "99999999999999999999",
                               "-9999999999999999999", "00000000000000000042", "12\0" "34"s};
  for (std::string const& text : texts) {
    SCOPED_TRACE("text \"" + text + "\"");
    long long expected = -4242;
    bool const scanned = std::sscanf(text.c_str(), "%lld", &expected) == 1;
    long got = -4242;
    std::unique_ptr<CBencodeStream> stream = StreamOver(text + "e");
    LogCapture log;
    *stream >> got;
    EXPECT_EQ(stream->Fail(), !scanned);
    EXPECT_EQ(got, scanned ? expected : -4242);
    EXPECT_EQ(log.Has(kReadInt), !scanned);
    EXPECT_EQ(stream->Peek(), scanned ? 'e' : EOF) << "the stop byte stays unread";
  }
  for (long value : {0L, 9L, 10L, -10L, 4294967296L, LONG_MAX, LONG_MIN, LONG_MIN + 1}) {
    char expected[32];
    std::snprintf(expected, sizeof expected, "i%llde", static_cast<long long>(value));
    CBencode integer(value);
    EXPECT_EQ(Serialised(integer), expected);
  }
}

TEST(BencodeGrammar, ScalarOperationsCheckTypeAndRange) {
  struct Row {
    long start, delta;
    bool ok;
  } const rows[] = {{LONG_MAX, 1, false},     {LONG_MAX - 1, 1, true}, {LONG_MAX, 0, true}, {LONG_MIN, -1, false},
                    {LONG_MIN + 1, -1, true}, {-5, LONG_MAX, true},    {5, LONG_MIN, true}, {-1, LONG_MIN, false}};
  for (Row const& row : rows) {
    CBencode value(row.start);
    LogCapture log;
    EXPECT_EQ(value.Add(row.delta), row.ok) << row.start << " + " << row.delta;
    long got = 0;
    value.Get(got);
    EXPECT_EQ(got, row.ok ? row.start + row.delta : row.start);
    EXPECT_EQ(log.Has("Add operation will cause integer overflow"), !row.ok);
  }

  LogCapture log;
  CBencode text("a\0b"s), number(5L), list(CBencode::eList);
  long got = 5;
  std::string str = "poison";
  EXPECT_FALSE(text.Add(1) || text.Set(1L) || text.Get(got) || number.Set("x"s) || number.Get(str));
  EXPECT_EQ(got, 5);
  EXPECT_EQ(str, "poison");
  EXPECT_TRUE(text.Get(str));
  EXPECT_EQ(str, "a");
  ExpectLogged(log, "Add function called for non-Integer bencode type", -1);
  ExpectLogged(log, "Bencode is not of type integer", -1);
  ExpectLogged(log, "Bencode is not of type string", -1);

  EXPECT_TRUE(number == CBencode(5L));
  EXPECT_FALSE(number == CBencode("5"s));
  EXPECT_FALSE(CBencode("ab"s) == CBencode("abc"s));
  EXPECT_FALSE(list == CBencode(CBencode::eList));
  ExpectLogged(log, "Unexpected Bencode type", -1);
  EXPECT_EQ(Serialised(list), "<failed>");
}

// The buffer must keep a read-write string stream's positions and flags through every operation used.
// Scripts: w<n> write n fresh bytes, r<n> read n, p peek, P<n>/G<n> seek put/get to n from the start,
// E<n>/C<n> seek get from the end/current, T/t tell put/get, c clear, z reset.
TEST(BencodeStreamBuffer, BehavesAsAStringStream) {
  char const* const scripts[] = {"w5 r2 p r3 p t w2 P0 c G1 r9 T", "w6 P2 w2 G0 r6 T w4 G0 r8 P9 T c E-3 t C1 t",
                                 "p P0 w3 E0 t r1 G0 z c r0 w2 r2 T", "w3 r3 p P1 w1 c r1 t E1 c C-9 t"};
  for (char const* script : scripts) {
    std::stringstream model(std::ios::in | std::ios::out);
    CBencodeStream stream("", false);
    char next = 'a';
    std::istringstream steps(script);
    for (std::string step; steps >> step;) {
      SCOPED_TRACE(std::string(script) + " at " + step);
      long const n = step.size() > 1 ? std::stol(step.substr(1)) : 0;
      long got = 0, want = 0;
      std::string bytes(n > 0 ? n : 0, '#'), expected = bytes;
      switch (step[0]) {
        case 'w':
          for (char& byte : bytes) byte = next++;
          EXPECT_EQ(stream.Write(bytes.data(), n), model.write(bytes.data(), n).good());
          break;
        case 'r':
          EXPECT_EQ(stream.Read(&bytes[0], n), model.read(&expected[0], n).good());
          EXPECT_EQ(bytes, expected);
          break;
        case 'p': got = stream.Peek(), want = model.peek(); break;
        case 'P': EXPECT_EQ(stream.Seekp(n, std::ios_base::beg), model.seekp(n, std::ios_base::beg).good()); break;
        case 'G': EXPECT_EQ(stream.Seekg(n, std::ios_base::beg), model.seekg(n, std::ios_base::beg).good()); break;
        case 'E': EXPECT_EQ(stream.Seekg(n, std::ios_base::end), model.seekg(n, std::ios_base::end).good()); break;
        case 'C': EXPECT_EQ(stream.Seekg(n, std::ios_base::cur), model.seekg(n, std::ios_base::cur).good()); break;
        case 'T': got = stream.Tellp(), want = model.tellp(); break;
        case 't': got = stream.Tellg(), want = model.tellg(); break;
        case 'c': stream.Clear(), model.clear(); break;
        case 'z': stream.ResetStream(), model.str(""); break;
      }
      EXPECT_EQ(got, want);
      EXPECT_EQ(stream.Good(), model.good());
      EXPECT_EQ(stream.Eof(), model.eof());
      EXPECT_EQ(stream.Fail(), model.fail());
    }
  }
}
