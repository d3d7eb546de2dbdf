// Outbound posts through the agent itself to the local receiver over TLS: the body and "Zip" flag that arrive,
// the size limit at its edge, and the walk of the outbound directory with its stop, failure and retry rules.
#include <zlib.h>

#include <algorithm>
#include <random>

#include "AgentUnderTest.h"
#include "Clock.h"
#include "TlsTestEnv.h"

namespace {

std::string Unzip(const std::string& bytes, size_t size) {
  std::string out(size, '\0');
  uLongf length = size;
  if (uncompress(reinterpret_cast<Bytef*>(&out[0]), &length, reinterpret_cast<const Bytef*>(bytes.data()),
                 bytes.size()) != Z_OK) {
    return "<not zlib>";
  }
  out.resize(length);
  return out;
}

class AgentPost : public AgentOverDir {
 protected:
  // Time stands still while the walk posts, so the retry timer's deadline reads exactly as armed.
  void SetUp() override {
    SuiteClock::UseSimulated(1700000000);
    AgentOverDir::SetUp();
  }
  void TearDown() override { SuiteClock::UseRealTime(); }
  // The walk's files; Left() counts those still in the outbound directory.
  static constexpr const char* kFiles[] = {"feedback_data1.cef", "feedback_data2.cef", "threat_report3.cef"};
  size_t Left() {
    return std::count_if(std::begin(kFiles), std::end(kFiles),
                         [&](const char* name) { return TempDir::Exists(a.outboundDir + name); });
  }
  TlsTestEnv m_env;
};

}  // namespace

TEST_F(AgentPost, BodyZipFlagAndSizeLimit) {
  std::mt19937 random(7);
  std::string noise(4096, '\0');
  for (char& c : noise) c = static_cast<char>(random());
  const std::string text(4096, 'a');
  const std::string limit(16u << 20, 'x');
  struct Row {
    const char* name;
    const std::string& file;
    bool compress, posted, zipped;  // zipped: the posted body is zlib data of the file
    const char* message;            // the one line the agent logs, if any, with its importance
  } rows[] = {
      {"empty file", "", false, true, false, nullptr},
      {"exactly 16 MiB", limit, false, true, false, nullptr},
      {"16 MiB and one byte", limit + "x", false, false, false, "E File size exceeds maximum size limit (16777216)"},
      {"compressible", text, true, true, true, nullptr},
      // Does not shrink: goes out as it is, still flagged "Zip", as servers have always been sent it.
      {"incompressible", noise, true, true, false, "W Can't compress feedback data"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    m_log.Clear();
    const size_t before = m_env.Posts().size();
    a.compressPost = row.compress;
    EXPECT_EQ(a.PostDataFile(m_dir.Write("f.cef", row.file)), row.posted);
    const auto posts = m_env.Posts();
    ASSERT_EQ(posts.size(), before + (row.posted ? 1 : 0));
    EXPECT_EQ(m_log.Lines("PhoneHomeAgent"), row.message ? row.message + std::string("\n") : "") << m_log.Dump();
    if (!row.posted) continue;
    EXPECT_EQ(row.zipped ? Unzip(posts.back().body, row.file.size()) : posts.back().body, row.file);
    EXPECT_EQ(posts.back().hasZip ? posts.back().zip : "no header", row.compress ? "True" : "no header");
  }
  m_log.Clear();
  EXPECT_FALSE(a.PostDataFile(m_dir.File("missing.cef")));
  EXPECT_TRUE(m_log.Has("Unable to open file (" + m_dir.File("missing.cef") + ")")) << m_log.Dump();
}

TEST_F(AgentPost, WalkStopsAtTheFirstFailureAndArmsTheRetryOnlyWhenAsked) {
  for (const unsigned int retrySeconds : {0u, 1800u}) {
    SCOPED_TRACE(retrySeconds);
    m_log.Clear();
    const size_t before = m_env.Posts().size();
    for (const char* name : kFiles) m_dir.Write(std::string("out/") + name, name);
    // The primary refuses the first file the walk meets and the secondary takes it (answered 200, so not
    // stored); both servers refuse the second.
    m_env.RespondStatus(503);
    m_env.RespondStatus(200);
    m_env.RespondStatus(503, 2);
    EXPECT_TRUE(a.ScanAndPostFile(retrySeconds));
    EXPECT_EQ(Left(), 2u);
    EXPECT_EQ(m_log.Count(" File posted to PhoneHome server"), 1u);
    EXPECT_EQ(m_log.Count("post failed, give up this time."), retrySeconds == 0 ? 1u : 0u);
    EXPECT_EQ(NextExpiryMs(), retrySeconds == 0 ? -1 : 1800000);
    // A stop ends the walk before the next file; the rest go when nothing is in the way.
    a.stopRequested = true;
    EXPECT_TRUE(a.ScanAndPostFile(0));
    EXPECT_EQ(Left(), 2u);
    a.stopRequested = false;
    EXPECT_TRUE(a.ScanAndPostFile(0));
    EXPECT_EQ(Left(), 0u);
    EXPECT_EQ(m_env.Posts().size(), before + 2);
    a.retryTimer->StopTimer();
  }
  m_log.Clear();
  // An empty directory is a quiet pass; a missing one is the only false.
  EXPECT_TRUE(a.ScanAndPostFile(1800));
  EXPECT_TRUE(m_log.Records().empty()) << m_log.Dump();
  a.outboundDir = m_dir.File("none/");
  EXPECT_FALSE(a.ScanAndPostFile(0));
  EXPECT_TRUE(m_log.Has("Can't read Customer Experience Feedback outbound directory " + a.outboundDir));
}
