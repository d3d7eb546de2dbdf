// Containers bound to files: load and flush under the lock, the spool hand-over, limits, modes and failures.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <functional>

#include "BencodeTestUtil.h"
#include "TempDir.h"

using namespace std::string_literals;

namespace {

// Another open file description holding the exclusive lock, as a second process would.
class HeldLock {
 public:
  explicit HeldLock(std::string const& path) : m_fd(open(path.c_str(), O_RDONLY | O_CLOEXEC)) {
    EXPECT_EQ(flock(m_fd, LOCK_EX | LOCK_NB), 0) << path;
  }
  ~HeldLock() { close(m_fd); }

 private:
  int m_fd;
};

mode_t ModeOf(std::string const& path) {
  struct stat status = {};
  stat(path.c_str(), &status);
  return status.st_mode & 07777;
}

}  // namespace

TEST(BencodeFile, MissingFilesAreCreatedWithModeLessUmask) {
  for (mode_t mask : {0000, 0022, 0077}) {
    TempDir dir;
    mode_t const previous = umask(mask);
    EBencodeResult result = CBencode::eBencodeError;
    CBencodeList loaded(dir.File("loaded"), result, false);
    EXPECT_EQ(result, CBencode::eBencodeOk);
    CBencodeDictionary spooled(dir.File("spooled"), result, true), flushed(false);
    flushed.SetBencodeFileName(dir.File("flushed"));
    EXPECT_EQ(spooled.Externalize(true), CBencode::eBencodeOk);
    EXPECT_EQ(flushed.Externalize(true), CBencode::eBencodeOk);
    umask(previous);

    EXPECT_TRUE(loaded.Items().empty());
    EXPECT_EQ(TempDir::Read(dir.File("loaded")), "");
    for (char const* name : {"loaded", "spooled.temp", "spooled", "flushed"}) {
      EXPECT_EQ(ModeOf(dir.File(name)), 0666 & ~mask) << name << " under umask " << mask;
    }
  }
}

TEST(BencodeFile, LoadCutsAtZeroByteAndFlushWritesTheOldTail) {
  TempDir dir;
  CBencodeStream stream(dir.Write("zero", "ab\0cd"s), false);
  EXPECT_EQ(stream.LoadStream(), CBencode::eBencodeOk);
  EXPECT_TRUE(stream.Seekg(0, std::ios_base::end));
  EXPECT_EQ(stream.Tellg(), 2);

  EBencodeResult result = CBencode::eBencodeError;
  std::string const path = dir.Write("tail", "li100ei200ee");
  CBencodeList list(path, result, false);
  EXPECT_TRUE(result == CBencode::eBencodeOk && list.Remove(1));
  EXPECT_EQ(list.Externalize(true), CBencode::eBencodeOk);
  EXPECT_EQ(TempDir::Read(path), "li100ee200ee");  // the loaded text's tail stays behind the new value
  CBencodeList reread(path, result, false);
  EXPECT_EQ(Serialised(reread), "li100ee");
  EXPECT_EQ(list.Externalize(true), CBencode::eBencodeOk);
  EXPECT_EQ(TempDir::Read(path), "li100ee");

  CBencodeList later(false);
  later.SetBencodeFileName(dir.File("later\0ignored"s));
  later.Append(1L);
  EXPECT_EQ(later.Externalize(false), CBencode::eBencodeOk);
  EXPECT_FALSE(TempDir::Exists(dir.File("later")));
  EXPECT_EQ(later.Externalize(true), CBencode::eBencodeOk);
  EXPECT_EQ(TempDir::Read(dir.File("later")), "li1ee");
}

TEST(BencodeFile, LockHeldElsewhereFailsAtOnce) {
  TempDir dir;
  std::string const path = dir.Write("locked", "d1:ai1ee");
  HeldLock lock(path);
  LogCapture log;
  EBencodeResult result = CBencode::eBencodeOk;
  CBencodeList list(path, result, false);
  EXPECT_EQ(result, CBencode::eBencodeLockError);
  ExpectLogged(log, "Failed to acquire file lock", EWOULDBLOCK);
  EXPECT_EQ(log.Find("Failed to acquire file lock")->failingCall, "flock");
  ExpectLogged(log, "CBencodeList Internalize failed", CBencode::eBencodeLockError);

  CBencodeDictionary dict(path, result, false);
  EXPECT_EQ(result, CBencode::eBencodeLockError);
  ExpectLogged(log, "Bencode dictionary internalize failed", CBencode::eBencodeLockError);
  EXPECT_TRUE(dict.Items().empty());
  dict.Insert("b", 2L);
  log.Clear();
  EXPECT_EQ(dict.Externalize(true), CBencode::eBencodeError);
  ExpectLogged(log, "Failed to acquire file lock", EWOULDBLOCK);
  ExpectLogged(log, "Failed to flush stream to the file", CBencode::eBencodeError);
  EXPECT_EQ(TempDir::Read(path), "");  // truncated at open, before the lock was tried
}

TEST(BencodeFile, SpoolHandsOverOrKeepsASideFile) {
  TempDir dir;
  std::string const named = dir.File("handover"), side = named + ".temp";
  EBencodeResult result = CBencode::eBencodeError;
  CBencodeDictionary producer(named, result, true);
  EXPECT_TRUE(result == CBencode::eBencodeOk && TempDir::Exists(side));
  producer.Insert("a", 1L);
  EXPECT_EQ(producer.Externalize(true), CBencode::eBencodeOk);
  EXPECT_EQ(TempDir::Read(named), "d1:ai1ee");
  EXPECT_TRUE(producer.Items().empty()) << "handed over";

  producer.Insert("b", 2L);
  EXPECT_EQ(producer.Externalize(true), CBencode::eBencodeOk);
  EXPECT_EQ(TempDir::Read(named), "d1:ai1ee") << "the consumer's file is untouched";
  EXPECT_EQ(TempDir::Read(side), "d1:bi2ee");
  EXPECT_EQ(producer.Items().size(), 1u) << "kept for the next flush";

  CBencodeDictionary restarted(named, result, true);  // loads the side file
  EXPECT_EQ(Serialised(restarted), "d1:bi2ee");
  ASSERT_EQ(unlink(named.c_str()), 0);  // the consumer takes the hand-over
  restarted.Insert("c", 3L);
  EXPECT_EQ(restarted.Externalize(true), CBencode::eBencodeOk);
  EXPECT_EQ(TempDir::Read(named), "d1:bi2e1:ci3ee");
  EXPECT_TRUE(restarted.Items().empty());

  CBencodeStream stream(dir.File("fresh"), true);
  for (bool expected : {false, true}) {
    bool wroteSideFile = !expected;
    EXPECT_EQ(stream.FlushStream(wroteSideFile), CBencode::eBencodeOk);
    EXPECT_EQ(wroteSideFile, expected);
  }
}

TEST(BencodeFile, SizeLimitHoldsAtItsEdge) {
  for (long size : {CBencodeStream::sm_iMaxFileSize, CBencodeStream::sm_iMaxFileSize + 1}) {
    TempDir dir;
    std::string const path = dir.Write("big", "li7ee");
    ASSERT_EQ(truncate(path.c_str(), size), 0);
    LogCapture log;
    EBencodeResult result = CBencode::eBencodeError;
    CBencodeList list(path, result, false);
    bool const fits = size <= CBencodeStream::sm_iMaxFileSize;
    EXPECT_EQ(result, fits ? CBencode::eBencodeOk : CBencode::eBencodeIllegalData) << size;
    EXPECT_EQ(Serialised(list), fits ? "li7ee" : "le") << size;
    EXPECT_EQ(log.Has("File size exceeds maximum limit"), !fits) << size;
    if (!fits) ExpectLogged(log, "File size exceeds maximum limit", CBencode::eBencodeIllegalData);
  }
}

TEST(BencodeFile, FailuresReturnTheirCodeAndLogOnce) {
  TempDir dir;
  auto load = [](CBencodeStream& s) { return s.LoadStream(); };
  auto flush = [](CBencodeStream& s) { bool side = true; s.Write("le", 2); return s.FlushStream(side); };
  struct Row {
    std::string path;
    std::function<EBencodeResult(CBencodeStream&)> run;
    char const* message;
    long code;
  } const rows[] = {
      {dir.File("none/x"), load, "File open failed", ENOENT},
      {dir.File("none/x"), flush, "File open failed", ENOENT},
      {dir.path(), load, "File read failed", EISDIR},
      {"/dev/full", flush, "File write failed", -1},
  };
  for (Row const& row : rows) {
    SCOPED_TRACE(row.message);
    CBencodeStream stream(row.path, false);
    LogCapture log;
    EXPECT_EQ(row.run(stream), CBencode::eBencodeError);
    EXPECT_EQ(log.Records().size(), 1u) << log.Dump();
    ExpectLogged(log, row.message, row.code);
  }

  // Unbound: -4, logged by the list only.
  LogCapture log;
  CBencodeDictionary unboundDict(false);
  CBencodeList unboundList(false);
  EXPECT_EQ(unboundDict.Internalize(), CBencode::eBencodeNoStream);
  EXPECT_EQ(unboundDict.Externalize(true), CBencode::eBencodeNoStream);
  EXPECT_EQ(unboundList.Internalize(), CBencode::eBencodeNoStream);
  EXPECT_EQ(unboundList.Externalize(true), CBencode::eBencodeNoStream);
  EXPECT_EQ(log.Records().size(), 1u) << log.Dump();
  ExpectLogged(log, "Bencode stream should be set before calling Externalize", CBencode::eBencodeNoStream);

  // Text that does not parse: -3 and an empty list that stays bound, so it can be written over.
  std::string const path = dir.Write("garbage", "li1e");
  EBencodeResult result = CBencode::eBencodeOk;
  CBencodeList list(path, result, false);
  EXPECT_EQ(result, CBencode::eBencodeIllegalData);
  ExpectLogged(log, "CBencodeList Internalize failed", CBencode::eBencodeIllegalData);
  EXPECT_TRUE(list.Items().empty());
  list.Append("x"s);
  EXPECT_EQ(list.Externalize(true), CBencode::eBencodeOk);
  EXPECT_EQ(TempDir::Read(path), "l1:xe");
}
