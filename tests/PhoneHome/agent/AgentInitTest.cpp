// Initialisation over the real feedback tree below the install root: directories, profile switch, marker file.
#include <filesystem>
#include <fstream>

#include "AgentUnderTest.h"
#include "BuildConfig.h"

namespace fs = std::filesystem;

namespace {

const std::string kTree = std::string(OVF_INSTALL_ROOT) + "/CustomerExperienceFeedback";
const std::string kBase = kTree + "/";
const std::string kMarker = kBase + "moduledata/cefdisable";

void WriteFile(const std::string& path, const std::string& text) { std::ofstream(path) << text; }

// Every test starts and ends without a feedback tree.
class AgentInit : public ::testing::Test {
 protected:
  void SetUp() override { fs::remove_all(kTree); }
  void TearDown() override { fs::remove_all(kTree); }
};

}  // namespace

TEST_F(AgentInit, MakesTheTreeAndTakesTheHistoryOverUnlessTheProfileDisables) {
  for (const bool disabled : {false, true}) {
    SCOPED_TRACE(disabled ? "disabled" : "enabled");
    fs::remove_all(kTree);
    fs::create_directories(kBase);
    // Without "last_post" a history that is read always brings its complaint.
    WriteFile(kBase + "history", disabled ? "last_sequence_number:12\n" : "last_sequence_number:12\nlast_post:1700000000\n");
    if (disabled) WriteFile(kBase + "CustomerExperience_Feedback.xml", "<Feedback><ServiceDisable>true</ServiceDisable></Feedback>");
    AgentFixture f;
    LogCapture log;
    ASSERT_TRUE(f.agent->InitPhoneHomeAgent()) << log.Dump();
    for (const char* dir : {"", "outbound", "moduledata"}) EXPECT_TRUE(fs::is_directory(kBase + dir)) << dir;
    // The other files' places are seen where the plug-in runs whole cycles over this tree.
    EXPECT_EQ(f.agent->configFile, kBase + "config");
    EXPECT_EQ(f.agent->sequenceNumber, disabled ? 1u : 12u);
    EXPECT_EQ(f.agent->history.empty(), disabled);
    EXPECT_FALSE(log.Has("Illegal last reported time, using default value (0)")) << log.Dump();
    EXPECT_EQ(fs::is_regular_file(kMarker), disabled);
  }
}

TEST_F(AgentInit, ATreeThatCannotBeMadeFailsWithThePath) {
  fs::create_directories(OVF_INSTALL_ROOT);
  WriteFile(kTree, "a file where the feedback directory belongs");
  AgentFixture f;
  LogCapture log;
  EXPECT_FALSE(f.agent->InitPhoneHomeAgent());
  const LogRecord* failure = log.Find("Failed to create " + kBase + "moduledata/ Directory");
  ASSERT_NE(failure, nullptr) << log.Dump();
  EXPECT_EQ(failure->importance, APPLOG_ERROR);
}
