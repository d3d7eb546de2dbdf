// Containers bound to files: load and flush under the lock, the spool hand-over, limits, modes and failures.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <pthread.h>

#include <cerrno>
#include <functional>

#include "BencodeTestUtil.h"
#include "TempDir.h"

using namespace std::string_literals;

namespace {

EBencodeResult const kOk = eBencodeOk;

class BencodeFile : public ::testing::Test {
 protected:
  TempDir dir;
  EBencodeResult result = eBencodeError;  // set by the file-form constructors
};

}  // namespace

TEST_F(BencodeFile, MissingFilesAreCreatedWithModeLessUmask) {
  for (mode_t mask : {0000, 0022, 0077}) {
    std::string const prefix = dir.File(std::to_string(mask));
    mode_t const previous = umask(mask);
    CBencodeList loaded(prefix + "loaded", result, false), flushed(false);
    EXPECT_EQ(result, kOk);
    CBencodeDictionary spooled(prefix + "spooled", result, true);
    flushed.SetBencodeFileName(prefix + "flushed\0ignored"s);  // the name ends at a zero byte
    EXPECT_TRUE(flushed.Externalize(false) == kOk && !TempDir::Exists(prefix + "flushed")) << "serialised only";
    EXPECT_TRUE(spooled.Externalize(true) == kOk && flushed.Externalize(true) == kOk);
    umask(previous);
    EXPECT_EQ(TempDir::Read(prefix + "loaded") + TempDir::Read(prefix + "flushed"), "le");
    for (char const* name : {"loaded", "spooled.temp", "spooled", "flushed"}) {
      struct stat status = {};
      EXPECT_EQ(stat((prefix + name).c_str(), &status), 0) << name;
      EXPECT_EQ(status.st_mode & 07777, 0666 & ~mask) << name << " under umask " << mask;
    }
  }
}

TEST_F(BencodeFile, LoadCutsAtZeroByteAndFlushWritesTheOldTail) {
  CBencodeStream stream(dir.Write("zero", "ab\0cd"s), false);
  EXPECT_TRUE(stream.LoadStream() == kOk && stream.Seekg(0, std::ios_base::end));
  EXPECT_EQ(stream.Tellg(), 2);

  std::string const path = dir.Write("tail", "li100ei200ee");
  CBencodeList list(path, result, false);
  EXPECT_TRUE(result == kOk && list.Remove(1) && list.Externalize(true) == kOk);
  EXPECT_EQ(TempDir::Read(path), "li100ee200ee");  // the loaded text's tail stays behind the new value
  CBencodeList reread(path, result, false);
  EXPECT_EQ(Bencoded(reread), "li100ee");
  EXPECT_EQ(list.Externalize(true), kOk);
  EXPECT_EQ(TempDir::Read(path), "li100ee");

  // An empty file loads as success and leaves the content as it was.
  EXPECT_TRUE(truncate(path.c_str(), 0) == 0 && reread.Internalize() == kOk && Bencoded(reread) == "li100ee");

  // A new name rebinds the same stream, for loads and flushes alike (the name ends at a zero byte).
  CBencodeDictionary dict(dir.Write("first", "d1:ai1ee"), result, false);
  dict.SetBencodeFileName(dir.Write("second", "d1:bi2ee") + "\0ignored"s);
  EXPECT_TRUE(dict.Internalize() == kOk && dict.Insert("c", 3L) && dict.Externalize(true) == kOk);
  EXPECT_EQ(TempDir::Read(dir.File("first")) + TempDir::Read(dir.File("second")), "d1:ai1eed1:bi2e1:ci3ee");
}

TEST_F(BencodeFile, SpoolHandsOverOrKeepsASideFile) {
  std::string const named = dir.File("handover"), side = named + ".temp";
  // Flushes `producer`; then "result|named file|side file|items left".
  auto flush = [&](auto& producer) {
    std::string const flushed = std::to_string(producer.Externalize(true));
    return flushed + "|" + TempDir::Read(named) + "|" + TempDir::Read(side) + "|" + std::to_string(producer.Items().size());
  };
  CBencodeDictionary producer(named, result, true);
  EXPECT_TRUE(result == kOk && TempDir::Exists(side));
  producer.Insert("a", 1L);
  EXPECT_EQ(flush(producer), "0|d1:ai1ee||0");  // handed over
  producer.Insert("b", 2L);
  EXPECT_EQ(flush(producer), "0|d1:ai1ee|d1:bi2ee|1");  // not taken yet: kept beside it for the next flush

  CBencodeDictionary restarted(named, result, true);  // loads the side file
  EXPECT_EQ(Bencoded(restarted), "d1:bi2ee");
  restarted.Insert("c", 3L);
  int const holder = open(side.c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_EQ(flock(holder, LOCK_EX | LOCK_NB), 0);
  LogCapture log;
  // Failed: the side file truncated at open, before the lock was tried; nothing handed over, the content kept.
  EXPECT_EQ(flush(restarted), "-1|d1:ai1ee||2");
  ExpectOnlyLogged(log, {"Failed to acquire file lock", "Failed to flush stream to the file"});
  close(holder);
  ASSERT_EQ(unlink(named.c_str()), 0);  // the consumer takes the hand-over
  EXPECT_EQ(flush(restarted), "0|d1:bi2e1:ci3ee||0");

  // The list hands over the same way; unspooled, a flush writes the file and keeps the content.
  CBencodeList list(false);
  list.SetBencodeFileName(named);
  ASSERT_EQ(unlink(named.c_str()), 0);
  list.Append(1L);
  EXPECT_EQ(flush(list), "0|li1ee||1");
  CBencodeList spooled(named, result, true);
  spooled.Append(2L);
  EXPECT_EQ(flush(spooled), "0|li1ee|li2ee|1");
  ASSERT_EQ(unlink(named.c_str()), 0);
  EXPECT_EQ(flush(spooled), "0|li2ee|li2ee|0");
}

TEST_F(BencodeFile, FailuresReturnTheirCodeLogOnceAndKeepTheBuffer) {
  std::string const locked = dir.Write("locked", "d1:ai1ee");
  int const holder = open(locked.c_str(), O_RDONLY | O_CLOEXEC);  // another open file description, as in another process
  ASSERT_EQ(flock(holder, LOCK_EX | LOCK_NB), 0);
  std::string const big = dir.Write("big", "li7ee");
  ASSERT_EQ(truncate(big.c_str(), CBencodeStream::sm_iMaxFileSize), 0);
  CBencodeList fits(big, result, false);  // exactly at the size limit
  EXPECT_TRUE(result == kOk && Bencoded(fits) == "li7ee");
  ASSERT_EQ(truncate(big.c_str(), CBencodeStream::sm_iMaxFileSize + 1), 0);
  EBencodeResult const kError = eBencodeError, kTooBig = eBencodeIllegalData, kLocked = eBencodeLockError;
  struct Row {
    std::string path;
    bool flush;
    EBencodeResult returned;
    char const* message;
  } const rows[] = {{dir.File("none/x"), false, kError, "File open failed"},
                    {dir.File("none/x"), true, kError, "File open failed"},
                    {dir.path(), false, kError, "File read failed"},
                    {"/dev/full", true, kError, "File write failed"},
                    {big, false, kTooBig, "File size exceeds maximum limit"},
                    {locked, false, kLocked, "Failed to acquire file lock"}};  // at once, without waiting
  for (Row const& row : rows) {
    CBencodeStream stream(row.path, false);
    bool side = true;
    stream.Write("le", 2);
    LogCapture log;
    EXPECT_EQ(row.flush ? stream.FlushStream(side) : stream.LoadStream(), row.returned) << row.message;
    ExpectOnlyLogged(log, {row.message});
    std::string kept(2, '\0');
    EXPECT_TRUE(stream.Seekg(0, std::ios_base::beg) && stream.Read(&kept[0], 2) && kept == "le") << "buffer kept";
  }
  close(holder);

  // Unbound: -4, logged by the list only.
  LogCapture log;
  CBencodeDictionary unboundDict(false);
  CBencodeList unboundList(false);
  for (EBencodeResult got : {unboundDict.Internalize(), unboundList.Internalize(), unboundDict.Externalize(true),
                             unboundList.Externalize(true)}) {
    EXPECT_EQ(got, eBencodeNoStream);
  }
  ExpectOnlyLogged(log, {"Bencode stream should be set before calling Externalize"});

  // Text that does not parse: -3 and an empty list that stays bound, so it can be written over.
  std::string const path = dir.Write("garbage", "li1e");
  CBencodeList list(path, result, false);
  EXPECT_TRUE(result == eBencodeIllegalData && list.Items().empty() && list.Append("x"s));
  ExpectLogged(log, "CBencodeList Internalize failed");
  EXPECT_TRUE(list.Externalize(true) == kOk && TempDir::Read(path) == "l1:xe");
  CBencodeDictionary dict(dir.Write("partial", "d1:ai1e1:b"), result, false);
  EXPECT_TRUE(result == eBencodeIllegalData && dict.Items().empty()) << "the entry read before the failure is gone";
  ExpectLogged(log, "Bencode dictionary internalize failed");
}

namespace {

// Runs `work` on a thread with a stack of `bytes`, as a host may run the service on a small stack.
void OnStackOf(size_t bytes, std::function<void()> work) {
  pthread_attr_t attributes;
  pthread_t thread;
  pthread_attr_init(&attributes);
  pthread_attr_setstacksize(&attributes, bytes);
  auto run = [](void* job) -> void* { return (*static_cast<std::function<void()>*>(job))(), nullptr; };
  ASSERT_EQ(pthread_create(&thread, &attributes, run, &work), 0);
  pthread_join(thread, nullptr);
  pthread_attr_destroy(&attributes);
}

// Containers `levels` deep, their kinds cycling through `kinds` ('l', or 'd' holding its child under "x").
std::string Nested(int levels, std::string const& kinds) {
  std::string text;
  for (int level = 0; level + 1 < levels; ++level) text += kinds[level % kinds.size()] == 'l' ? "l" : "d1:x";
  return text + (kinds[(levels - 1) % kinds.size()] == 'l' ? "le" : "de") + std::string(levels - 1, 'e');
}

}  // namespace

// A file nested exactly to the limit loads, compares and writes on a small stack, and one level more is
// illegal data. A tree built deeper through the interface is refused by the writer, compares unequal and can
// always be dropped, on that stack too.
TEST_F(BencodeFile, NestingIsBoundedAndAnyTreeCanBeDropped) {
#ifdef OVF_SANITIZE
  size_t const stack = size_t(1) << 20;  // the sanitizers' red zones make every frame several times larger
#else
  size_t const stack = size_t(256) << 10;
#endif
  int const limit = CBencode::sm_iMaxNestingDepth;
  OnStackOf(stack, [&] {
    for (std::string kinds : {"l", "d", "ld"}) {
      SCOPED_TRACE("kinds " + kinds);
      auto load = [&](std::string const& text, EBencodeResult& code) -> std::unique_ptr<CBencode> {
        std::string const path = dir.Write("nested", text);
        if (kinds[0] == 'l') return std::make_unique<CBencodeList>(path, code, false);
        return std::make_unique<CBencodeDictionary>(path, code, false);
      };
      EBencodeResult again = eBencodeError;
      std::unique_ptr<CBencode> deepest = load(Nested(limit, kinds), result), twin = load(Nested(limit, kinds), again);
      EXPECT_TRUE(result == kOk && again == kOk && *deepest == *twin);
      EXPECT_EQ(Bencoded(*deepest), Nested(limit, kinds));

      LogCapture log;
      EXPECT_EQ(Bencoded(*load(Nested(limit + 1, kinds), result)), kinds[0] == 'l' ? "le" : "de");
      EXPECT_EQ(result, eBencodeIllegalData);
      ExpectLogged(log, kinds[limit % kinds.size()] == 'l' ? "Failed to internalize list type identifier"
                                                           : "Failed to internalize dictionary type identifier");
      ExpectLogged(log, kinds[0] == 'l' ? "CBencodeList Internalize failed" : "Bencode dictionary internalize failed");
    }

    auto build = [](CBencodeList& top, int levels) {  // alternately a dictionary and a list under "x"
      CBencodeList* list = &top;
      for (int depth = 1; depth < levels; depth += 2) {
        CBencodeDictionary* dict = nullptr;
        list->Append(dict);
        list = nullptr;
        if (depth + 1 < levels) dict->Get("x", list, true);
      }
    };
    CBencodeList fits(false), deep(false), twin(false);
    build(fits, limit), build(deep, 200000), build(twin, 200000);
    EXPECT_EQ(Bencoded(fits), Nested(limit, "ld"));
    LogCapture log;
    EXPECT_FALSE(deep == twin);
    deep.SetBencodeFileName(dir.File("deep"));
    EXPECT_TRUE(deep.Externalize(true) == eBencodeError && !TempDir::Exists(dir.File("deep")));
    ExpectLogged(log, "Failed to externalize list type identifier");
    EXPECT_TRUE(deep.Remove(0) && deep.Items().empty());
  });
}
