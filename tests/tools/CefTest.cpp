// cef run as a program on files in a temporary directory: its JSON form, its checks and its error lines.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "TempDir.h"

namespace {

struct CefRun {
  int exitCode = -1;
  std::string out, err;
};

// Runs cef with `args`, feeding `input` on standard input; the streams pass through files in `dir`.
CefRun RunCef(const TempDir& dir, std::vector<std::string> args, const std::string& input = "") {
  const std::string in = dir.Write(".stdin", input), out = dir.File(".stdout"), err = dir.File(".stderr");
  args.insert(args.begin(), CEF_PATH);
  std::vector<char*> argv;
  for (std::string& arg : args) argv.push_back(arg.data());
  argv.push_back(nullptr);
  pid_t const pid = fork();
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
  bool const ended = pid > 0 && waitpid(pid, &status, 0) == pid;
  return {ended ? (WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status)) : -1, TempDir::Read(out),
          TempDir::Read(err)};
}

size_t Lines(const std::string& text) { return std::count(text.begin(), text.end(), '\n'); }

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
  const std::string dat = dir.File("tree.dat");
  CefRun encode = RunCef(dir, {"encode", dir.Write("tree.json", kTreeJson), dat});
  ASSERT_EQ(encode.exitCode, 0) << encode.err;
  EXPECT_EQ(encode.out + encode.err, "");
  const std::string bencode = TempDir::Read(dat);
  EXPECT_EQ(bencode.substr(0, 24), "d0:9:empty key1:Bli92233");  // written by the system's classes

  CefRun dump = RunCef(dir, {"dump", dat}), compact = RunCef(dir, {"dump", "--compact", dat});
  ASSERT_EQ(dump.exitCode + compact.exitCode, 0) << dump.err << compact.err;
  EXPECT_EQ(dump.err + compact.err, "");
  EXPECT_EQ(nlohmann::json::parse(dump.out), nlohmann::json::parse(kTreeJson));
  std::vector<std::string> keys;
  const nlohmann::ordered_json dumped = nlohmann::ordered_json::parse(dump.out);
  for (auto& item : dumped.items()) keys.push_back(item.key());
  EXPECT_EQ(keys, (std::vector<std::string>{"", "B", "ModuleData", "a", "ab"}));
  EXPECT_EQ(Lines(compact.out), 1u);
  // The dumped JSON, pretty or compact, encodes back into the same bytes.
  for (const std::string& text : {dump.out, compact.out}) {
    ASSERT_EQ(RunCef(dir, {"encode", "-", dir.File("again.dat")}, text).exitCode, 0);
    EXPECT_EQ(TempDir::Read(dir.File("again.dat")), bencode);
  }
}

TEST(CefTest, BytesThatAreNotUtf8RoundTripAndCannotBeMistakenForText) {
  TempDir dir;
  // Keys and values that are not UTF-8 (a stray continuation byte, an overlong "/", an encoded surrogate,
  // a truncated sequence), beside real text that merely looks like the escape form.
  const std::string bencode = std::string("d") + "8:\\x80\\xff" + "2:\xff\x41" + "4:ff41" + "8:\\u0000ff" + "2:\x80z" +
                              "l2:\xc0\xaf" + "3:\xed\xa0\x80" + "2:\xe6\x97" + "e" + "e";
  CefRun dump = RunCef(dir, {"dump", "--compact", dir.Write("bytes.dat", bencode)});
  ASSERT_EQ(dump.exitCode, 0) << dump.err;
  EXPECT_EQ(dump.out,
            R"({"\\x80\\xff":"\u0000ff41","ff41":"\\u0000ff","\u0000807a":["\u0000c0af","\u0000eda080","\u0000e697"]})"
            "\n");
  // A reader of the JSON sees U+0000 only at the start of the escaped strings, never in a real one.
  nlohmann::json parsed = nlohmann::json::parse(dump.out);
  EXPECT_EQ(parsed["ff41"], "\\u0000ff");
  EXPECT_EQ(parsed["\\x80\\xff"], std::string("\0ff41", 5));
  ASSERT_EQ(RunCef(dir, {"encode", "-", dir.File("back.dat")}, dump.out).exitCode, 0);
  EXPECT_EQ(TempDir::Read(dir.File("back.dat")), bencode);

  // Upper-case hex digits are read too; the same bytes written as text and escaped are the same key.
  ASSERT_EQ(RunCef(dir, {"encode", "-", dir.File("upper.dat")}, R"(["\u0000FF41", "\u00004142"])").exitCode, 0);
  EXPECT_EQ(TempDir::Read(dir.File("upper.dat")), "l2:\xff" "A2:ABe");
  CefRun twice = RunCef(dir, {"encode", "-", dir.File("twice.dat")}, R"({"AB": 1, "\u00004142": 2})");
  EXPECT_EQ(twice.exitCode, 1);
  EXPECT_NE(twice.err.find("appears twice"), std::string::npos) << twice.err;
}

TEST(CefTest, CheckSaysWhetherAFileLoadsAndWhyNot) {
  struct Row {
    std::string bytes;
    int exitCode;
    const char* verdict;  // in the first line
    const char* reason;   // a later line, or "" for none
  } const rows[] = {
      {"d1:ai1e1:bl3:xyzee", 0, "ok, dictionary of 2 entries, 18 bytes", ""},
      {"li1e3:abcli2eedee", 0, "ok, list of 4 items", ""},
      {"d1:bi2e1:ai1ee", 0, "ok, dictionary of 2 entries",
       "note: not in canonical form; written back it would be 14 bytes"},
      {"d1:ai1e1:ai2ee", 0, "ok, dictionary of 1 entry", "log: Failed to internalize key string"},
      {"d1:ai1e1:bi2", 1, "does not load as a dictionary: illegal data (-3)", "reason: Failed to read integer value"},
      {"li1e3:ab", 1, "does not load as a list: illegal data (-3)", "reason: Illegal bencode string"},
      {"i42e", 1, "first byte \"i\" starts neither a dictionary (\"d\") nor a list (\"l\")", ""},
      {"", 1, "empty file, it holds no value", ""},
      // Far deeper and unclosed: refused one level past the limit; a repeated line is reported once with its count.
      {std::string(200000, 'l'), 1, "does not load as a list: illegal data (-3)",
       "reason: Failed to internalize list type identifier\n"
       "  reason: Failed to internalize list item of type list (256 times)"},
  };
  TempDir dir;
  for (const Row& row : rows) {
    SCOPED_TRACE(row.bytes.substr(0, 20));
    const std::string path = dir.Write("file.dat", row.bytes);
    CefRun run = RunCef(dir, {"check", path});
    EXPECT_EQ(run.exitCode, row.exitCode);
    EXPECT_EQ(run.err, "");
    EXPECT_EQ(run.out.rfind(path + ": ", 0), 0u) << run.out;
    EXPECT_NE(run.out.substr(0, run.out.find('\n')).find(row.verdict), std::string::npos) << run.out;
    EXPECT_TRUE(*row.reason ? run.out.find("\n  " + std::string(row.reason) + "\n") != std::string::npos
                            : Lines(run.out) == 1u) << run.out;
  }
}

TEST(CefTest, FilesThatCannotBeReadGiveOneLineAndAreNotCreated) {
  TempDir dir;
  const std::string missing = dir.File("missing.dat"), broken = dir.Write("broken.dat", "li1e");
  struct Row {
    std::vector<std::string> args;
    int exitCode;
    std::string err;  // the whole of it; "" for any single line
  } const rows[] = {
      {{"check", missing}, 1, "cef: " + missing + ": No such file or directory\n"},
      {{"dump", missing}, 1, "cef: " + missing + ": No such file or directory\n"},
      {{"check", dir.path()}, 1, "cef: " + dir.path() + ": not a regular file\n"},
      {{"dump", dir.path()}, 1, "cef: " + dir.path() + ": not a regular file\n"},
      {{"dump", broken}, 1,
       "cef: " + broken + ": does not load as a list: illegal data (-3): Failed to internalize list item identifier\n"},
      {{"encode", "-", dir.File("no/such/dir.dat")}, 1,
       "cef: " + dir.File("no/such/dir.dat") + ": cannot write: file error (-1): File open failed\n"},
      {{"status", dir.File("nothing")}, 1, ""},
      {{}, 2, ""},
      {{"frobnicate"}, 2, ""},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.args.empty() ? "no arguments" : row.args[0]);
    CefRun run = RunCef(dir, row.args, "[]");
    EXPECT_EQ(run.exitCode, row.exitCode);
    EXPECT_EQ(run.out, "");
    EXPECT_TRUE(row.err.empty() ? Lines(run.err) == 1u : run.err == row.err) << run.err;
  }
  EXPECT_FALSE(TempDir::Exists(missing));  // the library's loader would have created it
}

TEST(CefTest, EncodeRefusesWhatHasNoBencodeFormOrTheSystemWouldNotRead) {
  const std::string longest(524288, 'x'), deepest = std::string(256, '[') + std::string(256, ']');
  std::string big = "[";
  for (int i = 0; i < 21; ++i) big += std::string(i ? ",\"" : "\"") + longest + "\"";
  const std::pair<std::string, const char*> rows[] = {
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
      {"[\"" + longest + "x\"]", "longer than the 524288 bytes"},
      {big + "]", "would exceed 10485760 bytes"},
      {"[" + deepest + "]", "nesting deeper than 256 levels"},
  };
  TempDir dir;
  const std::string out = dir.File("out.dat");
  for (const auto& [json, message] : rows) {
    SCOPED_TRACE(json.substr(0, 40));
    CefRun run = RunCef(dir, {"encode", "-", out}, json);
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err.rfind("cef: standard input: ", 0), 0u) << run.err.substr(0, 200);
    EXPECT_NE(run.err.find(message), std::string::npos) << run.err.substr(0, 200);
    EXPECT_EQ(Lines(run.err), 1u);
    EXPECT_FALSE(TempDir::Exists(out));
  }
  // Right at the limits the file is written and reads back.
  EXPECT_EQ(RunCef(dir, {"encode", "-", out}, "[\"" + longest + "\"]").exitCode, 0);
  ASSERT_EQ(RunCef(dir, {"encode", "-", out}, deepest).exitCode, 0);
  CefRun dump = RunCef(dir, {"dump", "-c", out});
  EXPECT_EQ(dump.exitCode, 0) << dump.err;
  EXPECT_EQ(dump.out, deepest + "\n");
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
  for (const char* name : {"history", "outbound/feedback_data2.cef", "outbound/feedback_data3.cef"}) {
    unlink(dir.File(name).c_str());
  }
  CefRun disabled = RunCef(dir, {"status", dir.path()});
  EXPECT_EQ(disabled.exitCode, 0) << disabled.err;
  EXPECT_EQ(disabled.out, dir.path() + "\n"
                          "  feedback: disabled (moduledata/cefdisable exists)\n"
                          "  outbound: 0 files\n"
                          "  history: missing\n");
}

}  // namespace
