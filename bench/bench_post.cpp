// One 16 MiB post (the largest file the agent posts, with its "data=" prefix) to the local receiver over TLS:
// through CFileUploader as the agent makes it, and through the curl command-line tool, in the same run and to
// the same receiver. Both count a fresh connection and handshake per post; curl also counts its process start.
#include <spawn.h>
#include <sys/wait.h>

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstring>
#include <cstdio>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "AppLog.h"
#include "PhoneHome/FileUploader.h"
#include "TempDir.h"
#include "TlsTestEnv.h"

extern char** environ;

namespace {

using SteadyClock = std::chrono::steady_clock;
constexpr size_t kFileSize = 16u << 20;

struct Fixture {
  Fixture() : body("data=") {
    std::mt19937_64 random(42);
    body.resize(5 + kFileSize);
    for (size_t i = 5; i + 8 <= body.size(); i += 8) {
      const uint64_t word = random();
      std::memcpy(&body[i], &word, 8);
    }
    bodyFile = dir.File("body.bin");
    std::ofstream(bodyFile, std::ios::binary) << body;
  }
  TlsTestEnv receiver;
  TempDir dir;
  std::string body;
  std::string bodyFile;
};

Fixture& Shared() {
  static Fixture fixture;
  return fixture;
}

void Uploader(benchmark::State& state) {
  Fixture& f = Shared();
  for (auto _ : state) {
    const auto begin = SteadyClock::now();
    long status = 0;
    CFileUploader uploader(status, "Orvane", TlsTestEnv::kPrimaryUrl, true, "", "", "", "", "", false, true, 443,
                           true);
    std::string response;
    const long rc = status != 0 ? status
                                : uploader.PostDataGetResponse(TlsTestEnv::kPrimaryUrl, f.body.data(),
                                                               static_cast<int>(f.body.size()), response, false);
    state.SetIterationTime(std::chrono::duration<double>(SteadyClock::now() - begin).count());
    if (rc != 0) {
      state.SkipWithError("the post failed");
      break;
    }
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * f.body.size()));
}

void CurlTool(benchmark::State& state) {
  Fixture& f = Shared();
  const std::string connectTo = std::string(TlsTestEnv::kPrimaryHost) + ":443:127.0.0.1:" +
                                std::to_string(f.receiver.Port());
  const std::string data = "@" + f.bodyFile;
  const std::string ca = TlsTestEnv::CAFile();
  std::vector<std::string> args = {"curl", "-sS", "-o", "/dev/null", "--fail", "--cacert", ca, "--connect-to",
                                   connectTo, "--data-binary", data, TlsTestEnv::kPrimaryUrl};
  std::vector<char*> argv;
  for (std::string& arg : args) argv.push_back(arg.data());
  argv.push_back(nullptr);
  for (auto _ : state) {
    const auto begin = SteadyClock::now();
    pid_t pid = 0;
    int status = -1;
    if (posix_spawnp(&pid, "curl", nullptr, nullptr, argv.data(), environ) != 0 || waitpid(pid, &status, 0) != pid) {
      state.SkipWithError("curl could not be run (scripts/bootstrap installs it)");
      break;
    }
    state.SetIterationTime(std::chrono::duration<double>(SteadyClock::now() - begin).count());
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
      state.SkipWithError("curl's post failed");
      break;
    }
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * f.body.size()));
}

BENCHMARK(Uploader)->Iterations(8)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(CurlTool)->Iterations(8)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  CAppLog::SetSink([](const LogRecord&) {});  // the uploader logs its certificate decision on every post
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
