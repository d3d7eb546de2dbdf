// ovfeedback-host as a process: stopped by a signal while idle and while an upload hangs, the status query for
// each profile, a profile that disables the service, and starts that are refused before anything is written.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "BuildConfig.h"
#include "TempDir.h"
#include "TlsTestEnv.h"

extern char** environ;

namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

const fs::path kFeedbackDir = fs::path(OVF_INSTALL_ROOT) / "CustomerExperienceFeedback";
const fs::path kOutbound = kFeedbackDir / "outbound";
const fs::path kModuleDir = kFeedbackDir / "moduledata";
const fs::path kProfile = kFeedbackDir / "CustomerExperience_Feedback.xml";
// Far beyond the second a stop takes; only a stop that is not honoured reaches it.
constexpr auto kBound = 20s;

template <class Done>
bool PollFor(std::chrono::milliseconds bound, Done done) {
  for (const auto until = std::chrono::steady_clock::now() + bound; !done();) {
    if (std::chrono::steady_clock::now() > until) return false;
    std::this_thread::sleep_for(10ms);
  }
  return true;
}

std::vector<std::string> Listing(const fs::path& dir) {
  std::vector<std::string> names;
  if (fs::exists(dir)) {
    for (const auto& entry : fs::recursive_directory_iterator(dir)) names.push_back(fs::relative(entry, dir));
  }
  std::sort(names.begin(), names.end());
  return names;
}

// One run of the host, its standard output and error in files of the test's directory.
class Host {
 public:
  Host(const TempDir& dir, std::vector<std::string> args) : m_out(dir.File("out")), m_err(dir.File("err")) {
    args.insert(args.begin(), OVF_HOST_PATH);
    std::vector<char*> argv;
    for (std::string& arg : args) argv.push_back(arg.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, m_out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, m_err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (posix_spawn(&m_pid, argv[0], &actions, nullptr, argv.data(), environ) != 0) m_pid = -1;
    posix_spawn_file_actions_destroy(&actions);
  }
  ~Host() {
    if (m_pid > 0 && !Exited(0ms)) {
      kill(m_pid, SIGKILL);
      waitpid(m_pid, &m_status, 0);
    }
  }
  bool Started() const { return m_pid > 0; }
  void Signal(int signal) { kill(m_pid, signal); }
  // Whether the host exited within `bound`; its exit status is then Status().
  bool Exited(std::chrono::milliseconds bound) {
    return m_exited || (m_exited = PollFor(bound, [&] { return waitpid(m_pid, &m_status, WNOHANG) == m_pid; }));
  }
  // The exit status, -1 for a death by signal or a host that has not exited.
  int Status() const { return m_exited && WIFEXITED(m_status) ? WEXITSTATUS(m_status) : -1; }
  std::string Out() const { return TempDir::Read(m_out); }
  std::string Err() const { return TempDir::Read(m_err); }
  bool Logged(const std::string& text, std::chrono::milliseconds bound = kBound) const {
    return PollFor(bound, [&] { return Err().find(text) != std::string::npos; });
  }

 private:
  std::string m_out, m_err;
  pid_t m_pid = -1;
  int m_status = 0;
  bool m_exited = false;
};

std::string Read(const fs::path& path) { return TempDir::Read(path.string()); }

void Write(const fs::path& path, const std::string& bytes) {
  fs::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary) << bytes;
}

// Each test starts and ends without a feedback tree.
class HostProcess : public ::testing::Test {
 protected:
  void SetUp() override { fs::remove_all(kFeedbackDir); }
  void TearDown() override { fs::remove_all(kFeedbackDir); }
  TempDir m_dir;
};

}  // namespace

// At 600 times real speed the settings query comes after half a second and the first feedback cycle after one.
TEST_F(HostProcess, AStopSignalEndsTheServiceCleanlyIdleOrDuringAHangingUpload) {
  TlsTestEnv env;
  const std::string port = std::to_string(env.Port());
  const struct {
    int signal;
    const char* scale;
    bool hang;           // stop while the feedback post hangs, else right after the settings query
    const char* signalName;
  } rows[] = {{SIGTERM, "600", true, "SIGTERM"}, {SIGINT, "100", false, "SIGINT"}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.signalName);
    fs::remove_all(kFeedbackDir);
    const fs::path moduleFile = kModuleDir / "access.cef";
    Write(moduleFile, "d6:loginsi3ee");
    const std::string settings =
        m_dir.Write("host.json", R"({"modules": {"AccessPhoneHomeFile": ")" + moduleFile.string() + R"("}})");
    if (row.hang) env.Hang();
    Host host(m_dir, {"--settings", settings, "--clock-scale", row.scale, "--ca-file", TlsTestEnv::CAFile(),
                      "--connect-to", "feedback.velmar.example:443:127.0.0.1:" + port,
                      "--connect-to", "feedback2.velmar.example:443:127.0.0.1:" + port});
    ASSERT_TRUE(host.Started());
    ASSERT_TRUE(host.Logged("Handed 1 of 1 settings to the service")) << host.Err();
    if (row.hang) {
      // The module's certificate decision is logged once the handshake is done; the receiver then holds the post.
      ASSERT_TRUE(host.Logged("CCertHelper::VerifyServerCertificate")) << host.Err();
      std::this_thread::sleep_for(200ms);
    }
    host.Signal(row.signal);
    ASSERT_TRUE(host.Exited(kBound)) << host.Err();
    EXPECT_EQ(host.Status(), 0) << host.Err();
    EXPECT_NE(host.Err().find(std::string("Stopping the service on ") + row.signalName), std::string::npos);
    EXPECT_TRUE(env.Posts().empty());
    const std::string history = Read(kFeedbackDir / "history");
    if (row.hang) {
      // The stop cut the post; the cycle had taken the module's data and written its file, left for the next start.
      EXPECT_NE(host.Err().find("/cef/submit aborted"), std::string::npos) << host.Err();
      EXPECT_FALSE(fs::exists(moduleFile));
      ASSERT_EQ(Listing(kOutbound), std::vector<std::string>{"feedback_data1.cef"});
      EXPECT_NE(Read(kOutbound / "feedback_data1.cef").find("12:AccessModuled6:loginsi3ee"), std::string::npos);
      EXPECT_NE(history.find("\nlast_sequence_number:2\nlast_post:\nlast_feedback:1"), std::string::npos) << history;
    } else {
      EXPECT_EQ(Read(moduleFile), "d6:loginsi3ee");
      EXPECT_EQ(Listing(kOutbound), std::vector<std::string>{});
      EXPECT_NE(history.find("\nlast_sequence_number:1\nlast_post:\nlast_feedback:\n"), std::string::npos) << history;
    }
    env.ResetBehaviour();
  }
}

TEST_F(HostProcess, StatusReportsTheProfileAndWritesNothing) {
  const struct {
    const char* profile;  // null: none
    const char* answer;
  } rows[] = {
      {nullptr, "Customer Experience Feedback: enabled\n"},
      {"<Feedback><ServiceDisable>false</ServiceDisable></Feedback>", "Customer Experience Feedback: enabled\n"},
      {"<Feedback><ServiceDisable>TRUE</ServiceDisable></Feedback>", "Customer Experience Feedback: disabled\n"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.profile ? row.profile : "no profile");
    fs::remove_all(kFeedbackDir);
    if (row.profile) Write(kProfile, row.profile);
    Host host(m_dir, {"--status"});
    ASSERT_TRUE(host.Exited(kBound));
    EXPECT_EQ(host.Status(), 0) << host.Err();
    EXPECT_EQ(host.Out(), row.answer);
    EXPECT_EQ(Listing(kFeedbackDir),
              row.profile ? std::vector<std::string>{"CustomerExperience_Feedback.xml"} : std::vector<std::string>{});
  }
  // A missing profile is the plug-in's warning, which the least importance logged can hold back.
  fs::remove_all(kFeedbackDir);
  for (const std::string level : {"warning", "error"}) {
    Host host(m_dir, {"--status", "--log-level", level});
    ASSERT_TRUE(host.Exited(kBound));
    EXPECT_EQ(host.Err().find("CustomerExperience_Feedback.xml\" not exist.") != std::string::npos, level == "warning")
        << level << ": " << host.Err();
  }
}

TEST_F(HostProcess, AProfileThatDisablesTheServiceEndsItWithStatusZeroAndTheMarker) {
  Write(kProfile, "<Feedback><ServiceDisable>true</ServiceDisable></Feedback>");
  Host host(m_dir, {"--settings", m_dir.Write("host.json", "{}")});
  ASSERT_TRUE(host.Exited(kBound)) << host.Err();
  EXPECT_EQ(host.Status(), 0) << host.Err();
  EXPECT_TRUE(host.Logged("The administrator profile disables the service", 0ms)) << host.Err();
  EXPECT_TRUE(fs::exists(kModuleDir / "cefdisable"));
}

TEST_F(HostProcess, RefusedStartsSayWhyAndWriteNothing) {
  const std::string settings = m_dir.File("host.json");
  const struct {
    const char* json;  // the settings file's text
    std::vector<std::string> args;
    int status;
    std::string message;
  } rows[] = {
      {R"({"modules": {"AccessPhoneHomeFile": "/a",}})", {"--settings", settings}, 3,
       "ovfeedback-host: settings file \"" + settings + "\": not valid JSON: parse error at line 1, column 42"},
      {R"({"modules": {"AccessPhoneHomeFile": "a.cef"}})", {"--settings", settings}, 3,
       "ovfeedback-host: settings file \"" + settings +
           "\": \"modules\".\"AccessPhoneHomeFile\": \"a.cef\" is not an absolute path"},
      {"{}", {"--settings", m_dir.File("missing.json")}, 3,
       "ovfeedback-host: settings file \"" + m_dir.File("missing.json") + "\": cannot be read: No such file"},
      {"{}", {"--settings", settings, "--log-level", "loud"}, 2, "ovfeedback-host: --log-level: loud not in"},
      {"{}", {"--settings", settings, "--clock-scale", "0"}, 2,
       "ovfeedback-host: --clock-scale: expected a finite number above 0, got 0"},
      {"{}", {"--settings", settings, "--connect-to", "feedback.velmar.example:443"}, 2,
       "ovfeedback-host: --connect-to: expected HOST:PORT:ADDR:PORT"},
      {"{}", {"--settings", settings, "--ca-file", m_dir.File("none.pem")}, 2,
       "ovfeedback-host: --ca-file: cannot read " + m_dir.File("none.pem") + ": No such file or directory"},
      {"{}", {"--settings", settings, "--plugin", m_dir.File("none.so")}, 4,
       "ovfeedback-host: " + m_dir.File("none.so") + ": cannot open shared object file"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.message);
    m_dir.Write("host.json", row.json);
    Host host(m_dir, row.args);
    ASSERT_TRUE(host.Exited(kBound));
    EXPECT_EQ(host.Status(), row.status);
    EXPECT_EQ(host.Err().rfind(row.message, 0), 0u) << host.Err();
    EXPECT_FALSE(fs::exists(kFeedbackDir));
  }
}
