// TLS fixture: the receiver's test PKI, an ovfeedback-receiver child process, and the runtime's HTTPS
// configuration pointed at it.
#include "TlsTestEnv.h"

#include <openssl/pem.h>
#include <openssl/x509_vfy.h>

#include <dirent.h>
#include <fcntl.h>
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string_view>
#include <thread>

#include "RuntimeConfig.h"
#include "TestPki.h"

#ifndef OVF_RECEIVER_PATH
#define OVF_RECEIVER_PATH ""
#endif

extern char** environ;

namespace {

struct BioFree {
  void operator()(BIO* p) const { BIO_free_all(p); }
};
struct SslCtxFree {
  void operator()(SSL_CTX* p) const { SSL_CTX_free(p); }
};
struct DirClose {
  void operator()(DIR* p) const { closedir(p); }
};
using BioPtr = std::unique_ptr<BIO, BioFree>;
using SslCtxPtr = std::unique_ptr<SSL_CTX, SslCtxFree>;

static_assert(std::string_view(TlsTestEnv::kPrimaryHost) == TestPki::kPrimaryHost &&
                  std::string_view(TlsTestEnv::kSecondaryHost) == TestPki::kSecondaryHost,
              "the test certificates must carry the fixture's host names");

constexpr auto kStartLimit = std::chrono::seconds(30);
constexpr auto kStopLimit = std::chrono::seconds(10);

[[noreturn]] void Fail(const std::string& what) {
  char detail[256] = "";
  if (unsigned long error = ERR_get_error()) ERR_error_string_n(error, detail, sizeof detail);
  throw std::runtime_error("TlsTestEnv: " + what + (detail[0] ? std::string(": ") + detail : ""));
}

const char* CertName(TestCert cert) {
  switch (cert) {
    case TestCert::eTrusted:
      return TestPki::kServerCertFile;
    case TestCert::eWrongHost:
      return TestPki::kWrongHostFile;
    case TestCert::eExpired:
      return TestPki::kExpiredFile;
    case TestCert::eUnknownCA:
      return TestPki::kUnknownCAFile;
    case TestCert::eWildcard:
      return TestPki::kWildcardFile;
  }
  return "";
}

// The process's test certificates, made on first use and removed at exit.
class Certificates {
 public:
  static const Certificates& Get() {
    static const Certificates certificates;
    return certificates;
  }
  std::string Path(const std::string& name) const { return dir_.File(name); }

 private:
  Certificates() { TestPki::Write(dir_.path()); }

  TempDir dir_;
};

// Owns the child's stdout/stderr file actions for the lifetime of one spawn.
class SpawnActions {
 public:
  SpawnActions() { posix_spawn_file_actions_init(&actions_); }
  ~SpawnActions() { posix_spawn_file_actions_destroy(&actions_); }
  SpawnActions(const SpawnActions&) = delete;
  SpawnActions& operator=(const SpawnActions&) = delete;
  posix_spawn_file_actions_t* get() { return &actions_; }

 private:
  posix_spawn_file_actions_t actions_;
};

bool ReadPort(const std::string& path, unsigned short& port) {
  std::ifstream in(path);
  long value = 0;
  if (!(in >> value) || value <= 0 || value > 65535) return false;
  port = static_cast<unsigned short>(value);
  return true;
}

}  // namespace

TlsTestEnv::TlsTestEnv(TestCert cert, const std::vector<std::string>& hosts)
    : hosts_(hosts),
      storeDir_(dir_.File("store")),
      savedCAFile_(SuiteRuntime::GetTrustedCAFile()),
      savedConnectTo_(SuiteRuntime::GetConnectTo()) {
  Certificates::Get();
  if (mkdir(storeDir_.c_str(), 0755) != 0) throw std::runtime_error("TlsTestEnv: cannot create " + storeDir_);
  Start(cert);
  SuiteRuntime::SetTrustedCAFile(CAFile());
  MapHosts();
}

TlsTestEnv::~TlsTestEnv() {
  Stop();
  SuiteRuntime::SetTrustedCAFile(savedCAFile_);
  SuiteRuntime::SetConnectTo(savedConnectTo_);
}

std::string TlsTestEnv::CAFile() { return Certificates::Get().Path(TestPki::kCAFile); }
std::string TlsTestEnv::CertFile(TestCert cert) { return Certificates::Get().Path(CertName(cert)); }
std::string TlsTestEnv::KeyFile() { return Certificates::Get().Path(TestPki::kServerKeyFile); }

void TlsTestEnv::Restart(TestCert cert) {
  Stop();
  Start(cert);
  MapHosts();
}

void TlsTestEnv::Start(TestCert cert) {
  static int starts = 0;
  const std::string receiver = OVF_RECEIVER_PATH;
  if (receiver.empty() || access(receiver.c_str(), X_OK) != 0) {
    throw std::runtime_error("TlsTestEnv: receiver binary not found at '" + receiver + "'");
  }
  const std::string portFile = dir_.File("port-" + std::to_string(++starts));
  const std::string logFile = dir_.File("receiver.log");
  const std::string certFile = CertFile(cert);
  const std::string keyFile = KeyFile();
  std::vector<std::string> args = {receiver,  "--cert", certFile, "--key",       keyFile,  "--store",
                                   storeDir_, "--port", "0",      "--port-file", portFile, "--exit-with-parent"};
  std::vector<char*> argv;
  for (std::string& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);

  SpawnActions actions;
  posix_spawn_file_actions_addopen(actions.get(), STDOUT_FILENO, logFile.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
  posix_spawn_file_actions_adddup2(actions.get(), STDOUT_FILENO, STDERR_FILENO);
  pid_t pid = -1;
  if (posix_spawn(&pid, receiver.c_str(), actions.get(), nullptr, argv.data(), environ) != 0) {
    throw std::runtime_error("TlsTestEnv: cannot start " + receiver);
  }
  pid_ = pid;

  auto deadline = std::chrono::steady_clock::now() + kStartLimit;
  while (!ReadPort(portFile, port_)) {
    int status = 0;
    if (waitpid(pid_, &status, WNOHANG) == pid_) {
      pid_ = -1;
      throw std::runtime_error("TlsTestEnv: receiver exited at start:\n" + TempDir::Read(logFile));
    }
    if (std::chrono::steady_clock::now() > deadline) {
      Stop();
      throw std::runtime_error("TlsTestEnv: receiver did not start listening:\n" + TempDir::Read(logFile));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

void TlsTestEnv::Stop() {
  if (pid_ <= 0) return;
  kill(pid_, SIGTERM);
  auto deadline = std::chrono::steady_clock::now() + kStopLimit;
  int status = 0;
  while (waitpid(pid_, &status, WNOHANG) == 0) {
    if (std::chrono::steady_clock::now() > deadline) {
      kill(pid_, SIGKILL);
      waitpid(pid_, &status, 0);
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  pid_ = -1;
  port_ = 0;
}

void TlsTestEnv::MapHosts() {
  std::vector<std::string> entries = SuiteRuntime::GetConnectTo();
  for (const std::string& host : hosts_) {
    const std::string prefix = host + ":443:";
    entries.erase(std::remove_if(entries.begin(), entries.end(),
                                 [&](const std::string& e) { return e.compare(0, prefix.size(), prefix) == 0; }),
                  entries.end());
    entries.push_back(prefix + "127.0.0.1:" + std::to_string(port_));
  }
  SuiteRuntime::SetConnectTo(entries);
}

void TlsTestEnv::Control(const std::string& command) const {
  // The receiver is our own child; its certificate is not what is under test here.
  SslCtxPtr ctx(SSL_CTX_new(TLS_client_method()));
  if (!ctx) Fail("SSL_CTX_new");
  SSL_CTX_set_verify(ctx.get(), SSL_VERIFY_NONE, nullptr);
  BioPtr bio(BIO_new_ssl_connect(ctx.get()));
  if (!bio) Fail("BIO_new_ssl_connect");
  const std::string address = "127.0.0.1:" + std::to_string(port_);
  BIO_set_conn_hostname(bio.get(), address.c_str());
  if (BIO_do_connect(bio.get()) <= 0) Fail("cannot reach the receiver at " + address);
  const std::string request =
      "POST /control HTTP/1.1\r\nHost: " + address +
      "\r\nContent-Type: text/plain\r\nConnection: close\r\nContent-Length: " + std::to_string(command.size()) +
      "\r\n\r\n" + command;
  if (BIO_write(bio.get(), request.data(), static_cast<int>(request.size())) != static_cast<int>(request.size())) {
    Fail("cannot send a command to the receiver");
  }
  std::string answer;
  char buffer[1024];
  int n;
  while ((n = BIO_read(bio.get(), buffer, sizeof buffer)) > 0) answer.append(buffer, static_cast<size_t>(n));
  if (answer.compare(0, 12, "HTTP/1.1 200") != 0) {
    throw std::runtime_error("TlsTestEnv: receiver refused '" + command + "': " + answer);
  }
}

void TlsTestEnv::RespondStatus(int status, int count) {
  Control("status code=" + std::to_string(status) + " count=" + std::to_string(count));
}
void TlsTestEnv::Hang(int count) { Control("hang count=" + std::to_string(count)); }
void TlsTestEnv::CloseConnection(int count) { Control("close count=" + std::to_string(count)); }
void TlsTestEnv::RespondLongBody(size_t length, long nulAt, int count) {
  Control("body length=" + std::to_string(length) + " nul=" + std::to_string(nulAt) +
          " count=" + std::to_string(count));
}
void TlsTestEnv::Trickle(long intervalMs, size_t length, int count) {
  Control("trickle interval=" + std::to_string(intervalMs) + " length=" + std::to_string(length) +
          " count=" + std::to_string(count));
}
void TlsTestEnv::ResetBehaviour() { Control("reset"); }

std::vector<ReceivedPost> TlsTestEnv::Posts() const {
  std::vector<std::string> names;
  std::unique_ptr<DIR, DirClose> dir(opendir(storeDir_.c_str()));
  while (dir) {
    dirent* entry = readdir(dir.get());
    if (entry == nullptr) break;
    std::string name = entry->d_name;
    if (name.size() > 4 && name.compare(name.size() - 4, 4, ".bin") == 0) names.push_back(name);
  }
  std::sort(names.begin(), names.end());
  std::vector<ReceivedPost> posts;
  for (const std::string& name : names) {
    ReceivedPost post;
    const std::string base = storeDir_ + "/" + name.substr(0, name.size() - 4);
    post.body = TempDir::Read(base + ".bin");
    std::ifstream meta(base + ".meta");
    for (std::string line; std::getline(meta, line);) {
      if (line.compare(0, 5, "zip: ") == 0) {
        post.hasZip = true;
        post.zip = line.substr(5);
      }
    }
    posts.push_back(std::move(post));
  }
  return posts;
}

std::string TlsTestEnv::LongBody(size_t length, long nulAt) {
  // The same bytes as the receiver's FeedbackReceiver::LongBody.
  std::string body(length, '\0');
  for (size_t i = 0; i < length; ++i) body[i] = static_cast<char>('a' + i % 26);
  if (nulAt >= 0 && static_cast<size_t>(nulAt) < length) body[static_cast<size_t>(nulAt)] = '\0';
  return body;
}

ServerChain::ServerChain(TestCert cert) : store_(X509_STORE_new()), ctx_(X509_STORE_CTX_new()) {
  if (FILE* file = fopen(TlsTestEnv::CertFile(cert).c_str(), "r")) {
    leaf_ = PEM_read_X509(file, nullptr, nullptr, nullptr);
    fclose(file);
  }
  X509_STORE_CTX_init(ctx_, store_, leaf_, nullptr);
}

ServerChain::~ServerChain() {
  X509_STORE_CTX_free(ctx_);
  X509_STORE_free(store_);
  X509_free(leaf_);
}

std::string ServerChain::Der() const {
  std::string der(static_cast<size_t>(i2d_X509(leaf_, nullptr)), '\0');
  auto* out = reinterpret_cast<unsigned char*>(der.data());
  i2d_X509(leaf_, &out);
  return der;
}
