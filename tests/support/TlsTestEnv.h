// A local HTTPS feedback server for suites that post over real TLS: test certificates generated for the real
// feedback host names, a running ovfeedback-receiver, and the runtime's CA file and connect-to map pointed at
// it, so that code under test reaches the receiver through the product's own URLs.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "ReceiverProcess.h"
#include "TempDir.h"

// The certificate the receiver presents. All are PEM files sharing one server key.
enum class TestCert {
  eTrusted,    // issued by the test CA for feedback.velmar.example, feedback2.velmar.example, localhost, 127.0.0.1
  eWrongHost,  // issued by the test CA for wrong.velmar.example only
  eExpired,    // issued by the test CA for the right names; expired a day ago
  eUnknownCA,  // the right names, issued by a second CA that is never trusted
  eWildcard,   // issued by the test CA for *.wild.velmar.example, f*.velmar.example, *back2.velmar.example
};

// One post that the receiver accepted (answered 2xx), in arrival order.
struct ReceivedPost {
  std::string body;     // the bytes after "data=", exactly as posted
  bool hasZip = false;  // whether a "Zip" header came with the post
  std::string zip;      // its value
};

class TlsTestEnv {
 public:
  static constexpr const char* kPrimaryHost = "feedback.velmar.example";
  static constexpr const char* kSecondaryHost = "feedback2.velmar.example";
  static constexpr const char* kPrimaryUrl = "https://feedback.velmar.example/cef/submit";
  static constexpr const char* kSecondaryUrl = "https://feedback2.velmar.example/cef/submit";
  // What the receiver answers to an accepted post unless told otherwise.
  static constexpr const char* kAcceptAnswer = "OK";

  // Starts a receiver presenting `cert`, makes the test CA the runtime's trusted CA file and maps both feedback
  // hosts (port 443) to the receiver in the runtime's connect-to list; entries for other hosts are kept. The
  // certificates are generated once per process, so every environment shares the same test CA.
  // Throws std::runtime_error when the receiver does not come up.
  explicit TlsTestEnv(TestCert cert = TestCert::eTrusted);
  // Stops the receiver and restores the CA file and connect-to list found at construction.
  ~TlsTestEnv();
  TlsTestEnv(const TlsTestEnv&) = delete;
  TlsTestEnv& operator=(const TlsTestEnv&) = delete;

  unsigned short Port() const { return receiver_ ? receiver_->Port() : 0; }
  // Serves another certificate from a new receiver process (new port, same store, pending behaviour dropped);
  // the connect-to entries follow the new port.
  void Restart(TestCert cert);

  // PEM files of the shared test certificates.
  static std::string CAFile();
  static std::string CertFile(TestCert cert);
  // Directory where the receiver stores accepted posts ("post-NNNNNN.bin" plus a ".meta" sidecar).
  const std::string& StoreDir() const { return storeDir_; }

  // Behaviour of the next `count` posts to the feedback path, queued after any given before; once the queue
  // is used up, posts are accepted with 200 and kAcceptAnswer. Posts answered 2xx are stored; the others are
  // not.
  void RespondStatus(int status, int count = 1);                        // answer with this status and a short text
  void Hang(int count = 1);  // neither read the body nor answer; ends when the client goes away
  void CloseConnection(int count = 1);                                  // read the request, then drop the connection
  void RespondLongBody(size_t length, long nulAt = -1, int count = 1);  // 200 with LongBody(length, nulAt)
  void Trickle(long intervalMs, size_t length, int count = 1);          // 200, then one byte every intervalMs
  void ResetBehaviour();                                                // drop whatever is still queued

  // Accepted posts so far, in arrival order.
  std::vector<ReceivedPost> Posts() const;
  // The body RespondLongBody makes the receiver send: a repeating printable pattern of `length` bytes, with a
  // NUL at `nulAt` when that is within it.
  static std::string LongBody(size_t length, long nulAt = -1);

 private:
  void Start(TestCert cert);
  void Control(const std::string& command) const { receiver_->Control(command); }
  void MapHosts();

  TempDir dir_;
  std::string storeDir_;
  std::unique_ptr<ReceiverProcess> receiver_;
  std::string savedCAFile_;
  std::vector<std::string> savedConnectTo_;
};

struct x509_st;
struct x509_store_st;
struct x509_store_ctx_st;

// A store context holding a fixture certificate the way a handshake's does: as the certificate to verify,
// with nothing trusted.
class ServerChain {
 public:
  explicit ServerChain(TestCert cert);
  ~ServerChain();
  ServerChain(const ServerChain&) = delete;
  ServerChain& operator=(const ServerChain&) = delete;
  const x509_store_ctx_st* get() const { return ctx_; }
  // The certificate's DER bytes.
  std::string Der() const;

 private:
  x509_st* leaf_ = nullptr;
  x509_store_st* store_ = nullptr;
  x509_store_ctx_st* ctx_ = nullptr;
};
