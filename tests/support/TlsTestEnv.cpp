// TLS fixture: the receiver's test PKI, an ovfeedback-receiver child process, and the runtime's HTTPS
// configuration pointed at it.
#include "TlsTestEnv.h"

#include <openssl/pem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string_view>

#include "RuntimeConfig.h"
#include "TestPki.h"

#ifndef OVF_RECEIVER_PATH
#define OVF_RECEIVER_PATH ""
#endif

namespace {

static_assert(std::string_view(TlsTestEnv::kPrimaryHost) == TestPki::kPrimaryHost &&
                  std::string_view(TlsTestEnv::kSecondaryHost) == TestPki::kSecondaryHost,
              "the test certificates must carry the fixture's host names");

[[noreturn]] void Fail(const std::string& what) { throw std::runtime_error("TlsTestEnv: " + what); }

// The process's test certificates, made on first use and removed at exit.
std::string PkiFile(const char* name) {
  struct Pki : TempDir {
    Pki() { TestPki::Write(path()); }
  };
  static const Pki pki;
  return pki.File(name);
}

}  // namespace

TlsTestEnv::TlsTestEnv(TestCert cert)
    : storeDir_(dir_.File("store")),
      savedCAFile_(SuiteRuntime::GetTrustedCAFile()),
      savedConnectTo_(SuiteRuntime::GetConnectTo()) {
  if (mkdir(storeDir_.c_str(), 0755) != 0) Fail("cannot create " + storeDir_);
  Start(cert);
  SuiteRuntime::SetTrustedCAFile(CAFile());
  MapHosts();
}

TlsTestEnv::~TlsTestEnv() {
  receiver_.reset();
  SuiteRuntime::SetTrustedCAFile(savedCAFile_);
  SuiteRuntime::SetConnectTo(savedConnectTo_);
}

std::string TlsTestEnv::CAFile() { return PkiFile(TestPki::kCAFile); }
std::string TlsTestEnv::CertFile(TestCert cert) {
  const char* const names[] = {TestPki::kServerCertFile, TestPki::kWrongHostFile, TestPki::kExpiredFile,
                               TestPki::kUnknownCAFile, TestPki::kWildcardFile};  // in TestCert's order
  return PkiFile(names[static_cast<int>(cert)]);
}

void TlsTestEnv::Restart(TestCert cert) {
  receiver_.reset();
  Start(cert);
  MapHosts();
}

void TlsTestEnv::Start(TestCert cert) {
  static int starts = 0;
  const std::string receiver = OVF_RECEIVER_PATH;
  if (receiver.empty() || access(receiver.c_str(), X_OK) != 0) Fail("receiver binary not found at '" + receiver + "'");
  receiver_ = std::make_unique<ReceiverProcess>(
      receiver, ReceiverProcess::Files{CertFile(cert), PkiFile(TestPki::kServerKeyFile), storeDir_,
                                       dir_.File("receiver.log"), dir_.File("port-" + std::to_string(++starts))});
}

void TlsTestEnv::MapHosts() {
  std::vector<std::string> entries = SuiteRuntime::GetConnectTo();
  for (const std::string host : {kPrimaryHost, kSecondaryHost}) {
    const std::string prefix = host + ":443:";
    entries.erase(std::remove_if(entries.begin(), entries.end(),
                                 [&](const std::string& e) { return e.compare(0, prefix.size(), prefix) == 0; }),
                  entries.end());
    entries.push_back(prefix + "127.0.0.1:" + std::to_string(Port()));
  }
  SuiteRuntime::SetConnectTo(entries);
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
  std::vector<std::string> bases;  // "post-NNNNNN", sorted by arrival
  for (const auto& entry : std::filesystem::directory_iterator(storeDir_)) {
    if (entry.path().extension() == ".bin") bases.push_back(entry.path().parent_path() / entry.path().stem());
  }
  std::sort(bases.begin(), bases.end());
  std::vector<ReceivedPost> posts(bases.size());
  for (size_t i = 0; i < bases.size(); ++i) {
    posts[i].body = TempDir::Read(bases[i] + ".bin");
    std::ifstream meta(bases[i] + ".meta");
    for (std::string line; std::getline(meta, line);) {
      if (line.compare(0, 5, "zip: ") == 0) posts[i].hasZip = true, posts[i].zip = line.substr(5);
    }
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
