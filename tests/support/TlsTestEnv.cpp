// TLS fixture: test certificates made with OpenSSL, an ovfeedback-receiver child process, and the runtime's
// HTTPS configuration pointed at it.
#include "TlsTestEnv.h"

#include <dirent.h>
#include <fcntl.h>
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <thread>

#include "RuntimeConfig.h"

#ifndef OVF_RECEIVER_PATH
#define OVF_RECEIVER_PATH ""
#endif

extern char** environ;

namespace {

struct PkeyFree {
  void operator()(EVP_PKEY* p) const { EVP_PKEY_free(p); }
};
struct X509Free {
  void operator()(X509* p) const { X509_free(p); }
};
struct ExtFree {
  void operator()(X509_EXTENSION* p) const { X509_EXTENSION_free(p); }
};
struct BioFree {
  void operator()(BIO* p) const { BIO_free_all(p); }
};
struct SslCtxFree {
  void operator()(SSL_CTX* p) const { SSL_CTX_free(p); }
};
struct DirClose {
  void operator()(DIR* p) const { closedir(p); }
};
using PkeyPtr = std::unique_ptr<EVP_PKEY, PkeyFree>;
using X509Ptr = std::unique_ptr<X509, X509Free>;
using ExtPtr = std::unique_ptr<X509_EXTENSION, ExtFree>;
using BioPtr = std::unique_ptr<BIO, BioFree>;
using SslCtxPtr = std::unique_ptr<SSL_CTX, SslCtxFree>;

constexpr long kDay = 24 * 60 * 60;
constexpr auto kStartLimit = std::chrono::seconds(30);
constexpr auto kStopLimit = std::chrono::seconds(10);

[[noreturn]] void Fail(const std::string& what) {
  char detail[256] = "";
  ERR_error_string_n(ERR_get_error(), detail, sizeof detail);
  throw std::runtime_error("TlsTestEnv: " + what + (detail[0] ? std::string(": ") + detail : ""));
}

PkeyPtr NewKey() {
  PkeyPtr key(EVP_EC_gen("P-256"));
  if (!key) Fail("EVP_EC_gen");
  return key;
}

void AddExtension(X509* cert, X509* issuer, int nid, const char* value) {
  X509V3_CTX ctx;
  X509V3_set_ctx(&ctx, issuer, cert, nullptr, nullptr, 0);
  ExtPtr ext(X509V3_EXT_conf_nid(nullptr, &ctx, nid, value));
  if (!ext || X509_add_ext(cert, ext.get(), -1) != 1) Fail(std::string("extension ") + value);
}

// A certificate for `subjectKey`, valid from now + notBefore to now + notAfter (seconds), signed by
// issuerKey; issuer null makes it self-signed.
X509Ptr NewCertificate(const std::string& commonName, EVP_PKEY* subjectKey, X509* issuer, EVP_PKEY* issuerKey,
                       long notBefore, long notAfter, bool isCA, const std::string& altNames) {
  static long serial = 1;
  X509Ptr cert(X509_new());
  if (!cert || X509_set_version(cert.get(), X509_VERSION_3) != 1 ||
      ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), serial++) != 1 ||
      X509_gmtime_adj(X509_getm_notBefore(cert.get()), notBefore) == nullptr ||
      X509_gmtime_adj(X509_getm_notAfter(cert.get()), notAfter) == nullptr ||
      X509_set_pubkey(cert.get(), subjectKey) != 1) {
    Fail("certificate fields");
  }
  X509_NAME* name = X509_get_subject_name(cert.get());
  if (X509_NAME_add_entry_by_txt(name, "O", MBSTRING_ASC, reinterpret_cast<const unsigned char*>("Orvane Tests"), -1,
                                 -1, 0) != 1 ||
      X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>(commonName.c_str()),
                                 -1, -1, 0) != 1 ||
      X509_set_issuer_name(cert.get(), issuer ? X509_get_subject_name(issuer) : name) != 1) {
    Fail("certificate names");
  }
  X509* signer = issuer ? issuer : cert.get();
  AddExtension(cert.get(), signer, NID_subject_key_identifier, "hash");
  if (isCA) {
    AddExtension(cert.get(), signer, NID_basic_constraints, "critical,CA:TRUE");
    AddExtension(cert.get(), signer, NID_key_usage, "critical,keyCertSign,cRLSign");
  } else {
    AddExtension(cert.get(), signer, NID_authority_key_identifier, "keyid:always");
    AddExtension(cert.get(), signer, NID_basic_constraints, "critical,CA:FALSE");
    AddExtension(cert.get(), signer, NID_key_usage, "critical,digitalSignature");
    AddExtension(cert.get(), signer, NID_ext_key_usage, "serverAuth");
    AddExtension(cert.get(), signer, NID_subject_alt_name, altNames.c_str());
  }
  if (X509_sign(cert.get(), issuerKey, EVP_sha256()) == 0) Fail("X509_sign");
  return cert;
}

void WritePem(const std::string& path, X509* cert, EVP_PKEY* key) {
  BioPtr out(BIO_new_file(path.c_str(), "w"));
  if (!out) Fail("cannot create " + path);
  if (cert && PEM_write_bio_X509(out.get(), cert) != 1) Fail("PEM_write_bio_X509");
  if (key && PEM_write_bio_PrivateKey(out.get(), key, nullptr, nullptr, 0, nullptr, nullptr) != 1) {
    Fail("PEM_write_bio_PrivateKey");
  }
}

const char* CertName(TestCert cert) {
  switch (cert) {
    case TestCert::eTrusted:
      return "trusted.pem";
    case TestCert::eWrongHost:
      return "wrong-host.pem";
    case TestCert::eExpired:
      return "expired.pem";
    case TestCert::eUnknownCA:
      return "unknown-ca.pem";
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
  Certificates() {
    const std::string rightNames = std::string("DNS:") + TlsTestEnv::kPrimaryHost +
                                   ",DNS:" + TlsTestEnv::kSecondaryHost + ",DNS:localhost,IP:127.0.0.1";
    PkeyPtr caKey = NewKey();
    X509Ptr ca = NewCertificate("Orvane Test CA", caKey.get(), nullptr, caKey.get(), -kDay, 3650 * kDay, true, "");
    PkeyPtr strangerKey = NewKey();
    X509Ptr stranger = NewCertificate("Orvane Stranger CA", strangerKey.get(), nullptr, strangerKey.get(), -kDay,
                                      3650 * kDay, true, "");
    PkeyPtr serverKey = NewKey();
    WritePem(Path("ca.pem"), ca.get(), nullptr);
    WritePem(Path("stranger-ca.pem"), stranger.get(), nullptr);
    WritePem(Path("server-key.pem"), nullptr, serverKey.get());
    WritePem(Path(CertName(TestCert::eTrusted)),
             NewCertificate(TlsTestEnv::kPrimaryHost, serverKey.get(), ca.get(), caKey.get(), -kDay, 825 * kDay, false,
                            rightNames)
                 .get(),
             nullptr);
    WritePem(Path(CertName(TestCert::eWrongHost)),
             NewCertificate("wrong.velmar.example", serverKey.get(), ca.get(), caKey.get(), -kDay, 825 * kDay, false,
                            "DNS:wrong.velmar.example")
                 .get(),
             nullptr);
    WritePem(Path(CertName(TestCert::eExpired)),
             NewCertificate(TlsTestEnv::kPrimaryHost, serverKey.get(), ca.get(), caKey.get(), -30 * kDay, -kDay, false,
                            rightNames)
                 .get(),
             nullptr);
    WritePem(Path(CertName(TestCert::eUnknownCA)),
             NewCertificate(TlsTestEnv::kPrimaryHost, serverKey.get(), stranger.get(), strangerKey.get(), -kDay,
                            825 * kDay, false, rightNames)
                 .get(),
             nullptr);
  }

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

std::string TlsTestEnv::CAFile() { return Certificates::Get().Path("ca.pem"); }
std::string TlsTestEnv::CertFile(TestCert cert) { return Certificates::Get().Path(CertName(cert)); }
std::string TlsTestEnv::KeyFile() { return Certificates::Get().Path("server-key.pem"); }

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
