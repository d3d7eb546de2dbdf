// The byte grammar read leniently and written canonically; integer reader, scalar operations, stream buffer.
#include <climits>
#include <cstdio>
#include <sstream>

#include "BencodeTestUtil.h"

using namespace std::string_literals;

namespace {
char const* const kReadInt = "Failed to read integer value";
char const* const kBadInt = "Failed to internalize integer value";
char const* const kIllegal = "Illegal bencode string";
char const* const kKey = "Failed to internalize key string";
char const* const kItemId = "Failed to internalize list item identifier";

// What a value of the type named by `type` (a first byte) holds before a row parses into it.
std::string Previous(char type) {
  return type == 'i' ? "i77e" : type == 'l' ? "li9ee" : type == 'd' ? "d1:zi9ee" : "3:old";
}
}  // namespace

TEST(BencodeGrammar, ValuesReadLenientlyAndWriteCanonically) {
  struct Row {
    std::string input;
    bool ok;
    std::string after;  // the value written back after the parse; its first byte names the type (see Previous)
    std::vector<char const*> messages;
  } const rows[] = {
      {"i007e", true, "i7e", {}}, {"i+7e", true, "i7e", {}}, {"i 7e", true, "i7e", {}}, {"i-0e", true, "i0e", {}},
      {"i-9223372036854775808e", true, "i-9223372036854775808e", {}},
      {"i123456789012345678901e", true, "i77e", {kReadInt}},  // 21 characters: the old value stays
      {"ie", false, "i77e", {kReadInt, kBadInt}}, {"i12", false, "i77e", {kReadInt, kBadInt}},  // no "e": end of input
      {"i12:", false, "i12e", {"Integer internalize failed"}},
      {"x1e", false, "i77e", {"Failed to internalize integer type identifier"}},
      {"0:", true, "0:", {}}, {" +03:abc", true, "3:abc", {}}, {"3:a\0c"s, true, "1:a", {}},
      {"123456789012345678901:xyz", true, "0:", {kReadInt}},  // a 21-character length reads as 0
      {"524288:" + std::string(524288, 'q'), true, "524288:" + std::string(524288, 'q'), {}},
      {"-1:", false, "3:old", {kIllegal}}, {"524289:", false, "3:old", {kIllegal}},
      {"3:ab", false, "3:old", {kIllegal}}, {"3eabc", false, "3:old", {kIllegal}},
      {"", false, "3:old", {kReadInt, kIllegal}},
      // Containers: an empty input keeps the old content, a failed parse what was read before the failure.
      {"le", true, "le", {}}, {"", true, "li9ee", {}}, {"li1e3:abcli2eedee", true, "li1e3:abcli2eedee", {}},
      {"li1e", false, "li1ee", {kItemId}}, {"d", false, "li9ee", {"Failed to internalize list type identifier"}},
      {"lxe", false, "le", {kReadInt, kIllegal, "Failed to internalize list item of type string"}},
      {"li1eie", false, "li1ee", {kReadInt, kBadInt, "Failed to internalize list item of type integer"}},
      {"lli1e", false, "le", {kItemId, "Failed to internalize list item of type list"}},
      {"ld1:a", false, "le",
       {"Failed to internalize value type identifier", "Failed to internalize list item of type dictionary"}},
      {"de", true, "de", {}}, {"", true, "d1:zi9ee", {}}, {"d1:bi2e1:ai1ee", true, "d1:ai1e1:bi2ee", {}},
      {"d2:abi1e1:\xffi2e1:ai3e0:i4e1:Bi5ee", true, "d0:i4e1:Bi5e1:ai3e2:abi1e1:\xffi2ee", {}},  // unsigned bytes
      {"d1:ai1e1:ai2ee", true, "d1:ai1ee", {kKey}},  // a repeated key ends its dictionary, successfully
      {"ld1:ai1e1:ai2eei3ee", true, "ld1:ai1eei2ee", {kKey}},  // ...whose parent reads on from the value
      {"di1ei2ee", false, "de", {kReadInt, kIllegal, kKey}}, {"d1:ai1e", false, "d1:ai1ee", {kReadInt, kIllegal, kKey}},
      {"l", false, "d1:zi9ee", {"Failed to internalize dictionary type identifier"}},
      {"d1:aie", false, "de", {kReadInt, kBadInt, "Failed to internalize value of type integer"}},
      {"d1:a3:xy", false, "de", {kIllegal, "Failed to internalize value of type string"}},
      {"d1:al", false, "de", {kItemId, "Failed to internalize value of type list"}},
      {"d1:adx", false, "de", {kReadInt, kIllegal, kKey, "Failed to internalize value of type dictionary"}},
  };
  for (Row const& row : rows) {
    SCOPED_TRACE("input \"" + row.input.substr(0, 40) + "\"");
    std::unique_ptr<CBencode> value = Parsed(Previous(row.after[0]));
    LogCapture log;
    EXPECT_EQ(Parse(*value, row.input), row.ok);
    EXPECT_EQ(Bencoded(*value), row.after);
    ExpectOnlyLogged(log, row.messages);
  }
}

TEST(BencodeGrammar, IntegerReaderConvertsAsScanfDoes) {
  std::vector<std::string> const texts = {"7", "007", "+7", "-7", " \t\n\v\f\r7", "-0", "5x", "12 3", "0x10", "", "+",
                                          "-", " ", "x5", "+-1", "- 1", "\xa0" "5", "9223372036854775807",
                                          "9223372036854775808", "-9223372036854775808", "-9223372036854775809",
                                          "99999999999999999999", "-9999999999999999999", "00000000000000000042",
                                          "12\0" "34"s};
  for (std::string const& text : texts) {
    SCOPED_TRACE("text \"" + text + "\"");
    long long expected = -4242;
    bool const scanned = std::sscanf(text.c_str(), "%lld", &expected) == 1;
    long got = -4242;
    std::unique_ptr<CBencodeStream> stream = StreamOver(text + "e");
    *stream >> got;
    EXPECT_EQ(got, scanned ? expected : -4242);
    EXPECT_EQ(stream->Fail(), !scanned);
    EXPECT_EQ(stream->Peek(), scanned ? 'e' : EOF) << "the stop byte stays unread";
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
    long got = 0;
    SCOPED_TRACE(testing::Message() << row.start << " + " << row.delta);
    EXPECT_EQ(value.Add(row.delta), row.ok);
    EXPECT_TRUE(value.Get(got) && got == (row.ok ? row.start + row.delta : row.start));
    EXPECT_EQ(log.Has("Add operation will cause integer overflow"), !row.ok);
  }

  LogCapture log;
  CBencode text("a\0b"s), number(5L), list(CBencode::eList);
  long got = 5;
  std::string str = "poison";
  EXPECT_FALSE(text.Add(1) || text.Set(1L) || text.Get(got) || number.Set("x"s) || number.Get(str));
  EXPECT_TRUE(got == 5 && str == "poison") << got << str;
  EXPECT_TRUE(text.Get(str) && str == "a") << str;
  ExpectLogged(log, "Add function called for non-Integer bencode type");
  ExpectLogged(log, "Bencode is not of type integer");
  ExpectLogged(log, "Bencode is not of type string");

  EXPECT_TRUE(!(list == CBencode(CBencode::eList)) && Bencoded(list) == "<failed>");
  ExpectLogged(log, "Unexpected Bencode type");
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
      EXPECT_EQ(std::make_tuple(got, stream.Good(), stream.Eof(), stream.Fail()),
                std::make_tuple(want, model.good(), model.eof(), model.fail()));
    }
  }
}
