// The uploader's certificate decision on real chains of the generated test certificates: the trust-mode rules,
// the reference-certificate comparison, and the callback's argument checks.
#include <gtest/gtest.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>

#include <cstdio>
#include <memory>

#include "CertErrors.h"
#include "LogCapture.h"
#include "PhoneHome/FileUploader.h"
#include "RuntimeConfig.h"
#include "TempDir.h"
#include "TlsTestEnv.h"

namespace {

const char kNotTrusted[] = "The server certificate for the secondary connection is not trusted.";
const char kDifferent[] =
    "The server certificate for the secondary connection is different than the (trusted) server certificate "
    "used for the primary connection.  The server certificate for the secondary connection is not trusted.";
const char kNullParameters[] = "Unable to verify server certificate due to invalid NULL parameters.";
constexpr unsigned int kPoison = 0xDEADBEEF;

struct X509Free {
  void operator()(X509* p) const { X509_free(p); }
};
struct StoreFree {
  void operator()(X509_STORE* p) const { X509_STORE_free(p); }
};
struct StoreCtxFree {
  void operator()(X509_STORE_CTX* p) const { X509_STORE_CTX_free(p); }
};

// A store context holding a fixture certificate as the server's, as a handshake's does, trusting nothing.
class ServerChain {
 public:
  explicit ServerChain(TestCert cert) {
    FILE* file = fopen(TlsTestEnv::CertFile(cert).c_str(), "r");
    if (file != nullptr) {
      leaf_.reset(PEM_read_X509(file, nullptr, nullptr, nullptr));
      fclose(file);
    }
    X509_STORE_CTX_init(ctx_.get(), store_.get(), leaf_.get(), nullptr);
  }
  const x509_store_ctx_st* get() const { return ctx_.get(); }
  std::string Der() const {
    unsigned char* out = nullptr;
    int n = i2d_X509(leaf_.get(), &out);
    std::string der(reinterpret_cast<char*>(out), static_cast<size_t>(n));
    OPENSSL_free(out);
    return der;
  }

 private:
  std::unique_ptr<X509, X509Free> leaf_;
  std::unique_ptr<X509_STORE, StoreFree> store_{X509_STORE_new()};
  std::unique_ptr<X509_STORE_CTX, StoreCtxFree> ctx_{X509_STORE_CTX_new()};
};

class ServerCertVerifyTest : public ::testing::Test {
 protected:
  void SetUp() override {
    saved_ = SuiteRuntime::GetTrustedCAFile();
    SuiteRuntime::SetTrustedCAFile(TlsTestEnv::CAFile());
    long status = -1;
    uploader_ = std::make_unique<CFileUploader>(status, "Orvane", TlsTestEnv::kPrimaryUrl, true, "", "", "", "",
                                                "", false, true, 443, true);
    ASSERT_EQ(status, 0);
  }
  void TearDown() override { SuiteRuntime::SetTrustedCAFile(saved_); }

  std::string saved_;
  std::unique_ptr<CFileUploader> uploader_;
};

}  // namespace

TEST_F(ServerCertVerifyTest, TrustModesDecideOnSoftFailuresOnly) {
  enum Ref { kNone, kSame, kSameLonger, kOther };
  const TestCert kClean = TestCert::eTrusted, kExpired = TestCert::eExpired, kWrongHost = TestCert::eWrongHost,
                 kUnknownCA = TestCert::eUnknownCA;
  const long kExpiredCode = CERT_E_EXPIRED, kUntrusted = CERT_E_UNTRUSTED_ROOT;
  struct Row {
    const char* what;
    TestCert cert;
    int mode;
    Ref ref;
    long expected;
    bool helperLogged;  // the return-code line naming "CCertHelper::VerifyServerCertificate", with `expected`
    bool different;     // the "different than the (trusted)" line
  } rows[] = {
      {"clean, mode 0", kClean, 0, kNone, 0, true, false},
      {"clean, mode 1, other reference", kClean, 1, kOther, 0, true, false},
      {"expired, mode 0", kExpired, 0, kNone, kExpiredCode, false, false},
      {"wrong host, mode 0", kWrongHost, 0, kNone, CERT_E_HOST_MISMATCH, false, false},
      {"unknown CA, mode 0", kUnknownCA, 0, kNone, kUntrusted, true, false},
      {"unknown CA, mode 3", kUnknownCA, 3, kNone, kUntrusted, true, false},
      {"unknown CA, mode 1, same reference", kUnknownCA, 1, kSame, kUntrusted, true, false},
      {"expired, mode 3", kExpired, 3, kNone, 0, false, false},
      {"wrong host, mode 3", kWrongHost, 3, kNone, 0, false, false},
      {"expired, mode 2, no reference", kExpired, 2, kNone, 0, false, false},
      {"expired, mode 2, other reference", kExpired, 2, kOther, 0, false, false},
      {"expired, mode 1, same reference", kExpired, 1, kSame, 0, false, false},
      {"expired, mode 1, other reference", kExpired, 1, kOther, kExpiredCode, false, true},
      {"expired, mode 1, reference with a byte more", kExpired, 1, kSameLonger, kExpiredCode, false, true},
      {"expired, mode 1, no reference", kExpired, 1, kNone, kExpiredCode, false, true},
  };
  const std::string other = ServerChain(TestCert::eTrusted).Der();
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    ServerChain chain(row.cert);
    const std::string reference[] = {"", chain.Der(), chain.Der() + '\0', other};
    LogCapture log;
    unsigned int flags = kPoison;
    const auto mode = static_cast<HTTP_CERT_TRUST_MODE>(row.mode);
    EXPECT_EQ(uploader_->ServerCertVerify(chain.get(), eCertContextSecondary, TlsTestEnv::kPrimaryHost, mode,
                                          reference[row.ref], flags),
              row.expected)
        << log.Dump();
    EXPECT_NE(flags, kPoison);
    const LogRecord* helper = log.FindCall("CCertHelper::VerifyServerCertificate");
    EXPECT_EQ(helper != nullptr, row.helperLogged) << log.Dump();
    if (helper != nullptr) {
      EXPECT_EQ(helper->code, row.expected);
      EXPECT_EQ(helper->importance, LOG_ERROR);
    }
    EXPECT_EQ(log.Count(kDifferent), row.different ? 1u : 0u) << log.Dump();
    if (row.different) {
      EXPECT_EQ(log.Find(kDifferent)->importance, LOG_ERROR);
    }
  }
}

TEST_F(ServerCertVerifyTest, MissingChainOrNameIsRefusedUnlessModeFourAsksForNoCheck) {
  ServerChain unknown(TestCert::eUnknownCA);
  struct Row {
    const x509_store_ctx_st* chain;
    const char* name;
    HTTP_CERT_TRUST_MODE mode;
    long expected;
  } rows[] = {{nullptr, TlsTestEnv::kPrimaryHost, HTTP_CERT_TRUST_STRICT, FILEUPLOADER_E_INVALID_PARAMETER},
              {unknown.get(), "", HTTP_CERT_TRUST_LENIENT, FILEUPLOADER_E_INVALID_PARAMETER},
              {nullptr, "", HTTP_CERT_TRUST_ANY, 0},
              {unknown.get(), TlsTestEnv::kPrimaryHost, HTTP_CERT_TRUST_ANY, 0}};
  for (const Row& row : rows) {
    SCOPED_TRACE(testing::Message() << (row.chain ? "chain" : "no chain") << " '" << row.name << "' mode "
                                    << row.mode);
    LogCapture log;
    unsigned int flags = kPoison;
    EXPECT_EQ(uploader_->ServerCertVerify(row.chain, eCertContextPrimary, row.name, row.mode, "", flags),
              row.expected);
    // Mode 4 returns before any check, so neither the helper nor the uploader logs anything.
    EXPECT_EQ(flags, kPoison);
    EXPECT_EQ(log.Records().size(), row.expected != 0 ? 1u : 0u) << log.Dump();
    if (row.expected != 0) {
      ASSERT_NE(log.Find(kNotTrusted), nullptr) << log.Dump();
      EXPECT_EQ(log.Find(kNotTrusted)->importance, LOG_ERROR);
    }
  }
}

TEST_F(ServerCertVerifyTest, TrustStoreThatCannotLoadFailsTheCheck) {
  TempDir dir;
  SuiteRuntime::SetTrustedCAFile(dir.File("missing-ca.pem"));
  ServerChain chain(TestCert::eTrusted);
  LogCapture log;
  unsigned int flags = 0;
  EXPECT_EQ(uploader_->ServerCertVerify(chain.get(), eCertContextPrimary, TlsTestEnv::kPrimaryHost,
                                        HTTP_CERT_TRUST_LENIENT, "", flags),
            CERT_E_TRUST_STORE);
  const LogRecord* failed = log.FindCall("CCertHelper::CCertHelper");
  ASSERT_NE(failed, nullptr) << log.Dump();
  EXPECT_EQ(failed->code, CERT_E_TRUST_STORE);
  EXPECT_EQ(failed->file, "FileUploader");
}

TEST_F(ServerCertVerifyTest, CallbackChecksItsArgumentsThenForwards) {
  ServerChain expired(TestCert::eExpired);
  ServerChain trusted(TestCert::eTrusted);
  struct Row {
    void* context;
    const x509_store_ctx_st* chain;
    HTTP_CERT_TRUST_MODE mode;
    long expected;
  } rows[] = {// Mode 4 would accept anything: a refusal shows the null check comes first.
              {nullptr, trusted.get(), HTTP_CERT_TRUST_ANY, FILEUPLOADER_E_INVALID_PARAMETER},
              {uploader_.get(), nullptr, HTTP_CERT_TRUST_ANY, FILEUPLOADER_E_INVALID_PARAMETER},
              {uploader_.get(), expired.get(), HTTP_CERT_TRUST_STRICT, CERT_E_EXPIRED},
              {uploader_.get(), expired.get(), HTTP_CERT_TRUST_LENIENT, 0},
              {uploader_.get(), trusted.get(), HTTP_CERT_TRUST_STRICT, 0}};
  for (const Row& row : rows) {
    SCOPED_TRACE(testing::Message() << (row.context ? "uploader" : "no uploader") << ", "
                                    << (row.chain ? "chain" : "no chain") << ", mode " << row.mode);
    LogCapture log;
    unsigned int flags = 0;
    EXPECT_EQ(CFileUploader::ServerCertVerifyCB(row.context, row.chain, eCertContextPrimary,
                                                TlsTestEnv::kPrimaryHost, row.mode, "", flags),
              row.expected);
    const LogRecord* nullLine = log.Find(kNullParameters);
    const LogRecord* refused = log.FindCall("CFileUploader::ServerCertVerify");
    if (row.expected == FILEUPLOADER_E_INVALID_PARAMETER) {
      ASSERT_NE(nullLine, nullptr);
      EXPECT_EQ(nullLine->importance, LOG_WARNING);
      EXPECT_EQ(log.Records().size(), 1u) << log.Dump();
    } else {
      EXPECT_EQ(nullLine, nullptr);
      EXPECT_EQ(refused != nullptr, row.expected != 0) << log.Dump();
      if (refused != nullptr) {
        EXPECT_EQ(refused->code, row.expected);
        EXPECT_EQ(refused->importance, LOG_WARNING);
      }
    }
  }
}
