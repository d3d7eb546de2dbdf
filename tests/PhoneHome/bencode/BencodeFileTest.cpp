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
  EXPECT_EQ(Serialised(reread), "li100ee");
  EXPECT_EQ(list.Externalize(true), kOk);
  EXPECT_EQ(TempDir::Read(path), "li100ee");
}

TEST_F(BencodeFile, LockHeldElsewhereFailsAtOnce) {
  std::string const path = dir.Write("locked", "d1:ai1ee");
  int const holder = open(path.c_str(), O_RDONLY | O_CLOEXEC);  // another open file description, as in another process
  ASSERT_EQ(flock(holder, LOCK_EX | LOCK_NB), 0);
  LogCapture log;
  CBencodeList list(path, result, false);
  EXPECT_EQ(result, eBencodeLockError);
  ExpectLogged(log, "Failed to acquire file lock");
  ExpectLogged(log, "CBencodeList Internalize failed");

  CBencodeDictionary dict(path, result, false);
  EXPECT_EQ(result, eBencodeLockError);
  ExpectLogged(log, "Bencode dictionary internalize failed");
  dict.Insert("b", 2L);
  log.Clear();
  EXPECT_EQ(dict.Externalize(true), eBencodeError);
  ExpectLogged(log, "Failed to acquire file lock");
  ExpectLogged(log, "Failed to flush stream to the file");
  EXPECT_EQ(TempDir::Read(path), "");  // truncated at open, before the lock was tried
  close(holder);
}

TEST_F(BencodeFile, SpoolHandsOverOrKeepsASideFile) {
  std::string const named = dir.File("handover"), side = named + ".temp";
  // Flushes `producer`; then "result|named file|side file|items left".
  auto flush = [&](CBencodeDictionary& producer) {
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
  EXPECT_EQ(Serialised(restarted), "d1:bi2ee");
  ASSERT_EQ(unlink(named.c_str()), 0);  // the consumer takes the hand-over
  restarted.Insert("c", 3L);
  EXPECT_EQ(flush(restarted), "0|d1:bi2e1:ci3ee|d1:bi2ee|0");
}

TEST_F(BencodeFile, SizeLimitAndFailuresReturnTheirCodeAndLogOnce) {
  std::string const big = dir.Write("big", "li7ee");
  ASSERT_EQ(truncate(big.c_str(), CBencodeStream::sm_iMaxFileSize), 0);
  CBencodeList fits(big, result, false);  // exactly at the size limit
  EXPECT_TRUE(result == kOk && Serialised(fits) == "li7ee");
  ASSERT_EQ(truncate(big.c_str(), CBencodeStream::sm_iMaxFileSize + 1), 0);
  EBencodeResult const kError = eBencodeError, kTooBig = eBencodeIllegalData;
  struct Row {
    std::string path;
    bool flush;
    EBencodeResult returned;
    char const* message;
  } const rows[] = {{dir.File("none/x"), false, kError, "File open failed"},
                    {dir.File("none/x"), true, kError, "File open failed"},
                    {dir.path(), false, kError, "File read failed"},
                    {"/dev/full", true, kError, "File write failed"},
                    {big, false, kTooBig, "File size exceeds maximum limit"}};
  for (Row const& row : rows) {
    CBencodeStream stream(row.path, false);
    bool side = true;
    stream.Write("le", 2);
    LogCapture log;
    EXPECT_EQ(row.flush ? stream.FlushStream(side) : stream.LoadStream(), row.returned) << row.message;
    ExpectOnlyLogged(log, {row.message});
  }

  // Unbound: -4, logged by the list only.
  LogCapture log;
  CBencodeDictionary unboundDict(false);
  CBencodeList unboundList(false);
  EXPECT_EQ(unboundDict.Internalize(), eBencodeNoStream);
  EXPECT_EQ(unboundList.Internalize(), eBencodeNoStream);
  EXPECT_EQ(unboundDict.Externalize(true), eBencodeNoStream);
  EXPECT_EQ(unboundList.Externalize(true), eBencodeNoStream);
  ExpectOnlyLogged(log, {"Bencode stream should be set before calling Externalize"});

  // Text that does not parse: -3 and an empty list that stays bound, so it can be written over.
  std::string const path = dir.Write("garbage", "li1e");
  CBencodeList list(path, result, false);
  EXPECT_EQ(result, eBencodeIllegalData);
  ExpectLogged(log, "CBencodeList Internalize failed");
  EXPECT_TRUE(list.Items().empty());
  list.Append("x"s);
  EXPECT_EQ(list.Externalize(true), kOk);
  EXPECT_EQ(TempDir::Read(path), "l1:xe");
}

namespace {

// Runs `work` on a thread of `stackBytes`, as a host may run the service on a small stack.
void OnStackOf(size_t stackBytes, std::function<void()> work) {
  pthread_attr_t attributes;
  ASSERT_EQ(pthread_attr_init(&attributes), 0);
  ASSERT_EQ(pthread_attr_setstacksize(&attributes, stackBytes), 0);
  pthread_t thread;
  auto run = [](void* job) -> void* {
    (*static_cast<std::function<void()>*>(job))();
    return nullptr;
  };
  ASSERT_EQ(pthread_create(&thread, &attributes, run, &work), 0);
  pthread_join(thread, nullptr);
  pthread_attr_destroy(&attributes);
}

#ifdef OVF_SANITIZE
size_t const kSmallStack = size_t(1) << 20;  // the sanitizers' red zones make every frame several times larger
#else
size_t const kSmallStack = size_t(256) << 10;
#endif

}  // namespace

// Containers nested `levels` deep, their kinds cycling through `kinds` ('l' or 'd'; a dictionary holds its
// child under "x"), the innermost one empty.
std::string Nested(int levels, std::string const& kinds) {
  std::string text;
  for (int level = 0; level + 1 < levels; ++level) text += kinds[level % kinds.size()] == 'l' ? "l" : "d1:x";
  text += kinds[(levels - 1) % kinds.size()] == 'l' ? "le" : "de";
  return text + std::string(levels - 1, 'e');
}

TEST_F(BencodeFile, NestingIsBoundedOnReadAndWriteAndAnyTreeCanBeDropped) {
  int const limit = CBencode::sm_iMaxNestingDepth;
  for (std::string kinds : {"l", "d", "ld"}) {
    SCOPED_TRACE("kinds " + kinds);
    bool const isList = kinds[0] == 'l';
    std::string const deepest = dir.Write("deepest", Nested(limit, kinds));
    std::string const deeper = dir.Write("deeper", Nested(limit + 1, kinds));
    OnStackOf(kSmallStack, [&] {
      auto load = [&](std::string const& path, EBencodeResult& code) -> std::unique_ptr<CBencode> {
        if (isList) return std::make_unique<CBencodeList>(path, code, false);
        return std::make_unique<CBencodeDictionary>(path, code, false);
      };
      EBencodeResult first = eBencodeError, second = eBencodeError;
      std::unique_ptr<CBencode> loaded = load(deepest, first), again = load(deepest, second);
      EXPECT_TRUE(first == kOk && second == kOk && *loaded == *again);
      EXPECT_EQ(Serialised(*loaded), TempDir::Read(deepest));

      LogCapture log;
      std::unique_ptr<CBencode> refused = load(deeper, result);
      EXPECT_EQ(result, eBencodeIllegalData);
      EXPECT_EQ(Serialised(*refused), isList ? "le" : "de");
      ExpectLogged(log, kinds[limit % kinds.size()] == 'l' ? "Failed to internalize list type identifier"
                                                           : "Failed to internalize dictionary type identifier");
      ExpectLogged(log, isList ? "CBencodeList Internalize failed" : "Bencode dictionary internalize failed");
    });
  }

  // Through the interface a tree can grow as deep as memory allows. Beyond the limit the writer refuses it and
  // it compares unequal, and it can always be dropped; none of that takes a deep stack.
  OnStackOf(kSmallStack, [&] {
    auto build = [](CBencodeList& top, int levels) {
      CBencodeList* list = &top;
      for (int depth = 1; depth < levels;) {
        CBencodeDictionary* dict = nullptr;
        list->Append(dict);
        if (++depth == levels) break;
        list = nullptr;
        dict->Get("x", list, true);
        ++depth;
      }
    };
    CBencodeList fits(false), deep(false), twin(false);
    build(fits, limit);
    build(deep, 200000);
    build(twin, 200000);
    EXPECT_EQ(Serialised(fits), Nested(limit, "ld"));
    LogCapture log;
    EXPECT_FALSE(deep == twin);
    EXPECT_EQ(Serialised(deep), "<failed>");
    ExpectLogged(log, "Failed to externalize list type identifier");
    deep.SetBencodeFileName(dir.File("deep"));
    EXPECT_EQ(deep.Externalize(true), eBencodeError);
    EXPECT_FALSE(TempDir::Exists(dir.File("deep")));
    EXPECT_TRUE(deep.Remove(0) && deep.Items().empty());
  });
}
