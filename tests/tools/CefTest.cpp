// cef run as a program on files in a temporary directory: its JSON form, its checks and its error lines.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "TempDir.h"

namespace {

struct CefRun {
  int exitCode = -1;
  std::string out;
  std::string err;
};

// Runs cef with `args`, feeding `input` on standard input; the streams pass through files in `dir`.
CefRun RunCef(const TempDir& dir, const std::vector<std::string>& args, const std::string& input = "") {
  std::string in = dir.Write(".stdin", input), out = dir.File(".stdout"), err = dir.File(".stderr");
  std::vector<char*> argv;
  std::string program = CEF_PATH;
  argv.push_back(program.data());
  std::vector<std::string> copies = args;
  for (std::string& arg : copies) argv.push_back(arg.data());
  argv.push_back(nullptr);

  CefRun run;
  pid_t pid = fork();
  if (pid == 0) {
    int fds[3] = {open(in.c_str(), O_RDONLY), open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600),
                  open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600)};
    for (int i = 0; i < 3; ++i) {
      if (fds[i] < 0 || dup2(fds[i], i) < 0) _exit(127);
    }
    execv(argv[0], argv.data());
    _exit(127);
  }
  int status = 0;
  if (pid > 0 && waitpid(pid, &status, 0) == pid) {
    run.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }
  run.out = TempDir::Read(out);
  run.err = TempDir::Read(err);
  return run;
}

size_t Lines(const std::string& text) {
  size_t n = 0;
  for (char c : text) n += c == '\n';
  return n;
}

// A nested tree: every type, depth 8, empty containers, the integer extremes, keys that sort bytewise,
// text in several scripts.
const char* const kTreeJson = R"({
  "ModuleData": {"TunnelModule": {"Sessions": 12, "Routes": ["10.0.0.0/8", "192.168.0.0/16"],
                                  "Flags": {"SplitTunnel": 1, "AlwaysOn": 0}}},
  "a": {"b": {"c": {"d": {"e": {"f": [[-1, ""]]}}}}},
  "B": [9223372036854775807, -9223372036854775808, 0, {}, [], ""],
  "ab": "caf\u00e9 \u65e5\u672c \ud83d\ude00",
  "": "empty key"
})";

TEST(CefTest, EncodeDumpRoundTripOfANestedTree) {
  TempDir dir;
  std::string json = dir.Write("tree.json", kTreeJson), dat = dir.File("tree.dat");

  CefRun encode = RunCef(dir, {"encode", json, dat});
  ASSERT_EQ(encode.exitCode, 0) << encode.err;
  EXPECT_EQ(encode.out + encode.err, "");
  std::string bencode = TempDir::Read(dat);
  EXPECT_EQ(bencode.substr(0, 24), "d0:9:empty key1:Bli92233");  // written by the system's classes

  CefRun dump = RunCef(dir, {"dump", dat});
  ASSERT_EQ(dump.exitCode, 0) << dump.err;
  EXPECT_EQ(dump.err, "");
  nlohmann::ordered_json dumped = nlohmann::ordered_json::parse(dump.out);
  EXPECT_EQ(nlohmann::json::parse(dump.out), nlohmann::json::parse(kTreeJson));
  std::vector<std::string> keys;
  for (auto& item : dumped.items()) keys.push_back(item.key());
  EXPECT_EQ(keys, (std::vector<std::string>{"", "B", "ModuleData", "a", "ab"}));

  // The dumped JSON, pretty or compact, encodes back into the same bytes.
  CefRun compact = RunCef(dir, {"dump", "--compact", dat});
  ASSERT_EQ(compact.exitCode, 0) << compact.err;
  EXPECT_EQ(Lines(compact.out), 1u);
  for (const std::string& text : {dump.out, compact.out}) {
    CefRun again = RunCef(dir, {"encode", "-", dir.File("again.dat")}, text);
    ASSERT_EQ(again.exitCode, 0) << again.err;
    EXPECT_EQ(TempDir::Read(dir.File("again.dat")), bencode);
  }
}

TEST(CefTest, BytesThatAreNotUtf8RoundTripAndCannotBeMistakenForText) {
  TempDir dir;
  // Keys and values that are not UTF-8 (a stray continuation byte, an overlong "/", an encoded surrogate,
  // a truncated sequence), beside real text that merely looks like the escape form.
  const std::string bencode = std::string("d") +
                              "8:\\x80\\xff" + "2:\xff\x41" +
                              "4:ff41" + "8:\\u0000ff" +
                              "2:\x80z" + "l2:\xc0\xaf" + "3:\xed\xa0\x80" + "2:\xe6\x97" + "e" +
                              "e";
  std::string dat = dir.Write("bytes.dat", bencode);

  CefRun dump = RunCef(dir, {"dump", "--compact", dat});
  ASSERT_EQ(dump.exitCode, 0) << dump.err;
  EXPECT_EQ(dump.out,
            R"({"\\x80\\xff":"\u0000ff41","ff41":"\\u0000ff","\u0000807a":["\u0000c0af","\u0000eda080","\u0000e697"]})"
            "\n");
  // A reader of the JSON sees U+0000 only at the start of the escaped strings, never in a real one.
  nlohmann::json parsed = nlohmann::json::parse(dump.out);
  EXPECT_EQ(parsed["ff41"], "\\u0000ff");
  EXPECT_EQ(parsed["\\x80\\xff"], std::string("\0ff41", 5));

  CefRun encode = RunCef(dir, {"encode", "-", dir.File("back.dat")}, dump.out);
  ASSERT_EQ(encode.exitCode, 0) << encode.err;
  EXPECT_EQ(TempDir::Read(dir.File("back.dat")), bencode);

  // Upper-case hex digits are read too; the same bytes written as text and escaped are the same key.
  CefRun upper = RunCef(dir, {"encode", "-", dir.File("upper.dat")}, R"(["\u0000FF41", "\u00004142"])");
  ASSERT_EQ(upper.exitCode, 0) << upper.err;
  EXPECT_EQ(TempDir::Read(dir.File("upper.dat")), "l2:\xff" "A2:ABe");
  CefRun twice = RunCef(dir, {"encode", "-", dir.File("twice.dat")}, R"({"AB": 1, "\u00004142": 2})");
  EXPECT_EQ(twice.exitCode, 1);
  EXPECT_NE(twice.err.find("appears twice"), std::string::npos) << twice.err;
}

TEST(CefTest, CheckSaysWhetherAFileLoadsAndWhyNot) {
  struct Row {
    const char* name;
    std::string bytes;
    int exitCode;
    const char* verdict;  // in the first line
    const char* reason;   // a later line, or ""
  } const rows[] = {
      {"good dictionary", "d1:ai1e1:bl3:xyzee", 0, "ok, dictionary of 2 entries, 18 bytes", ""},
      {"good list", "li1e3:abcli2eedee", 0, "ok, list of 4 items", ""},
      {"unsorted keys", "d1:bi2e1:ai1ee", 0, "ok, dictionary of 2 entries",
       "note: not in canonical form; written back it would be 14 bytes"},
      {"repeated key", "d1:ai1e1:ai2ee", 0, "ok, dictionary of 1 entry", "log: Failed to internalize key string"},
      {"truncated integer", "d1:ai1e1:bi2", 1, "does not load as a dictionary: illegal data (-3)",
       "reason: Failed to read integer value"},
      {"short string", "li1e3:ab", 1, "does not load as a list: illegal data (-3)",
       "reason: Illegal bencode string"},
      {"unknown first byte", "i42e", 1, "first byte \"i\" starts neither a dictionary (\"d\") nor a list (\"l\")", ""},
      {"empty", "", 1, "empty file, it holds no value", ""},
  };
  TempDir dir;
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    std::string path = dir.Write("file.dat", row.bytes);
    CefRun run = RunCef(dir, {"check", path});
    EXPECT_EQ(run.exitCode, row.exitCode);
    EXPECT_EQ(run.err, "");
    std::string first = run.out.substr(0, run.out.find('\n'));
    EXPECT_EQ(first.rfind(path + ": ", 0), 0u) << run.out;
    EXPECT_NE(first.find(row.verdict), std::string::npos) << run.out;
    if (*row.reason != '\0') {
      EXPECT_NE(run.out.find("\n  " + std::string(row.reason) + "\n"), std::string::npos) << run.out;
    } else {
      EXPECT_EQ(Lines(run.out), 1u) << run.out;
    }
  }
}

TEST(CefTest, FilesThatCannotBeReadGiveOneLineAndAreNotCreated) {
  TempDir dir;
  const std::string missing = dir.File("missing.dat");
  for (const std::string command : {"check", "dump"}) {
    SCOPED_TRACE(command);
    CefRun run = RunCef(dir, {command, missing});
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, "cef: " + missing + ": No such file or directory\n");
    EXPECT_FALSE(TempDir::Exists(missing));  // the library's loader would have created it
    CefRun directory = RunCef(dir, {command, dir.path()});
    EXPECT_EQ(directory.exitCode, 1);
    EXPECT_EQ(directory.err, "cef: " + dir.path() + ": not a regular file\n");
  }
  CefRun broken = RunCef(dir, {"dump", dir.Write("broken.dat", "li1e")});
  EXPECT_EQ(broken.exitCode, 1);
  EXPECT_EQ(broken.out, "");
  EXPECT_EQ(broken.err, "cef: " + dir.File("broken.dat") +
                            ": does not load as a list: illegal data (-3): Failed to internalize list item identifier\n");

  CefRun usage = RunCef(dir, {});
  EXPECT_EQ(usage.exitCode, 2);
  EXPECT_EQ(Lines(usage.err), 1u) << usage.err;
  CefRun unknown = RunCef(dir, {"frobnicate"});
  EXPECT_EQ(unknown.exitCode, 2);
  EXPECT_EQ(Lines(unknown.err), 1u) << unknown.err;
}

TEST(CefTest, EncodeRefusesWhatHasNoBencodeForm) {
  struct Row {
    const char* json;
    const char* message;  // in the error line
  } const rows[] = {
      {"{\"a\": ", "parse error at line 1, column 7"},
      {"", "parse error"},
      {"42", "the top-level value is a number; it must be an object or an array"},
      {"\"text\"", "the top-level value is a string"},
      {"[1.5]", "number 1.5 is not a 64-bit integer at /0"},
      {"{\"a\": [0, 1e3]}", "number 1e3 is not a 64-bit integer at /\"a\"/1"},
      {"[9223372036854775808]", "number 9223372036854775808 is beyond the 64-bit integer range"},
      {"[-9223372036854775809]", "is not a 64-bit integer"},
      {"{\"x\": true}", "true has no bencode form"},
      {"[null]", "null has no bencode form"},
      {"{\"a\": 1, \"a\": 2}", "key \"a\" appears twice in one object"},
      {"[\"a\\u0000b\"]", "holds a zero byte"},
      {"[\"\\u0000\"]", "needs an even, non-zero number of hex digits"},
      {"[\"\\u0000zz\"]", "not a hex digit"},
      {"[\"\\u000000\"]", "holds a zero byte"},
  };
  TempDir dir;
  const std::string out = dir.File("out.dat");
  for (const Row& row : rows) {
    SCOPED_TRACE(row.json);
    CefRun run = RunCef(dir, {"encode", "-", out}, row.json);
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err.rfind("cef: standard input: ", 0), 0u) << run.err;
    EXPECT_NE(run.err.find(row.message), std::string::npos) << run.err;
    EXPECT_EQ(Lines(run.err), 1u) << run.err;
    EXPECT_FALSE(TempDir::Exists(out));
  }

  // Strings and files the system's reader would refuse are not written either.
  std::string longest(524288, 'x');
  CefRun fits = RunCef(dir, {"encode", "-", out}, "[\"" + longest + "\"]");
  EXPECT_EQ(fits.exitCode, 0) << fits.err;
  CefRun tooLong = RunCef(dir, {"encode", "-", dir.File("long.dat")}, "[\"" + longest + "x\"]");
  EXPECT_EQ(tooLong.exitCode, 1);
  EXPECT_NE(tooLong.err.find("longer than the 524288 bytes"), std::string::npos) << tooLong.err;
  std::string big = "[";
  for (int i = 0; i < 21; ++i) big += std::string(i ? ",\"" : "\"") + longest + "\"";
  CefRun tooBig = RunCef(dir, {"encode", "-", dir.File("big.dat")}, big + "]");
  EXPECT_EQ(tooBig.exitCode, 1);
  EXPECT_NE(tooBig.err.find("would exceed 10485760 bytes"), std::string::npos) << tooBig.err;
  EXPECT_FALSE(TempDir::Exists(dir.File("big.dat")));

  CefRun noDir = RunCef(dir, {"encode", "-", dir.File("no/such/dir.dat")}, "[]");
  EXPECT_EQ(noDir.exitCode, 1);
  EXPECT_EQ(noDir.err, "cef: " + dir.File("no/such/dir.dat") +
                           ": cannot write: file error (-1): File open failed\n");
}

TEST(CefTest, NestingStopsWhereTheSystemStopsReading) {
  TempDir dir;
  const size_t limit = 256;
  std::string json = std::string(limit, '[') + std::string(limit, ']');
  CefRun encode = RunCef(dir, {"encode", "-", dir.File("deep.dat")}, json);
  ASSERT_EQ(encode.exitCode, 0) << encode.err;
  CefRun dump = RunCef(dir, {"dump", "-c", dir.File("deep.dat")});
  EXPECT_EQ(dump.exitCode, 0) << dump.err;
  EXPECT_EQ(dump.out, json + "\n");

  CefRun deeper = RunCef(dir, {"encode", "-", dir.File("deeper.dat")}, "[" + json + "]");
  EXPECT_EQ(deeper.exitCode, 1);
  EXPECT_NE(deeper.err.find("nesting deeper than 256 levels"), std::string::npos) << deeper.err.substr(0, 200);
  EXPECT_FALSE(TempDir::Exists(dir.File("deeper.dat")));

  // Far deeper and unclosed: refused one level past the limit; the repeated line is reported once with its count.
  CefRun check = RunCef(dir, {"check", dir.Write("open.dat", std::string(200000, 'l'))});
  EXPECT_EQ(check.exitCode, 1);
  EXPECT_NE(check.out.find("  reason: Failed to internalize list type identifier\n"
                           "  reason: Failed to internalize list item of type list (256 times)\n"),
            std::string::npos)
      << check.out;
}

TEST(CefTest, StatusShowsOutboundFilesHistoryAndTheDisableMarker) {
  TempDir dir;
  mkdir(dir.File("outbound").c_str(), 0700);
  mkdir(dir.File("moduledata").c_str(), 0700);
  dir.Write("outbound/feedback_data2.cef", "li1ei2ee");
  dir.Write("outbound/feedback_data3.cef", "li1e");
  dir.Write("history", "last_version_number:1.0.0\nlast_sequence_number:3\nlast_post:\n");

  CefRun enabled = RunCef(dir, {"status", dir.path()});
  EXPECT_EQ(enabled.exitCode, 0) << enabled.err;
  EXPECT_EQ(enabled.out, dir.path() + "\n"
                         "  feedback: enabled (no moduledata/cefdisable)\n"
                         "  outbound: 2 files\n"
                         "    feedback_data2.cef  8 bytes  ok, list of 2 items\n"
                         "    feedback_data3.cef  4 bytes  does not load as a list: illegal data (-3): "
                         "Failed to internalize list item identifier\n"
                         "  history:\n"
                         "    last_version_number:1.0.0\n"
                         "    last_sequence_number:3\n"
                         "    last_post:\n");

  dir.Write("moduledata/cefdisable", "");
  unlink(dir.File("history").c_str());
  unlink(dir.File("outbound/feedback_data2.cef").c_str());
  unlink(dir.File("outbound/feedback_data3.cef").c_str());
  CefRun disabled = RunCef(dir, {"status", dir.path()});
  EXPECT_EQ(disabled.exitCode, 0) << disabled.err;
  EXPECT_EQ(disabled.out, dir.path() + "\n"
                          "  feedback: disabled (moduledata/cefdisable exists)\n"
                          "  outbound: 0 files\n"
                          "  history: missing\n");

  CefRun notDir = RunCef(dir, {"status", dir.File("nothing")});
  EXPECT_EQ(notDir.exitCode, 1);
  EXPECT_EQ(Lines(notDir.err), 1u);
}

}  // namespace
