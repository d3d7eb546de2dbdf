// The certificate helper on the generated test certificates: the code for each fault, the soft/hard split,
// the DER copy of the server certificate, and a trust store that cannot be loaded.
#include <gtest/gtest.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>

#include <cstdio>
#include <memory>

#include "CertHelper.h"
#include "LogCapture.h"
#include "RuntimeConfig.h"
#include "TlsTestEnv.h"

namespace {

struct X509Free {
  void operator()(X509* p) const { X509_free(p); }
};
struct StoreFree {
  void operator()(X509_STORE* p) const { X509_STORE_free(p); }
};
struct StoreCtxFree {
  void operator()(X509_STORE_CTX* p) const { X509_STORE_CTX_free(p); }
};

struct FileClose {
  void operator()(FILE* p) const { fclose(p); }
};

std::unique_ptr<X509, X509Free> LoadCert(const std::string& path) {
  std::unique_ptr<FILE, FileClose> file(fopen(path.c_str(), "r"));
  if (!file) return nullptr;
  return std::unique_ptr<X509, X509Free>(PEM_read_X509(file.get(), nullptr, nullptr, nullptr));
}

std::string Der(X509* cert) {
  std::string der(static_cast<size_t>(i2d_X509(cert, nullptr)), '\0');
  auto* out = reinterpret_cast<unsigned char*>(der.data());
  i2d_X509(cert, &out);
  return der;
}

// A store context holding a server certificate the way a handshake's does: as the certificate to verify,
// with nothing trusted.
class ServerChain {
 public:
  explicit ServerChain(TestCert cert) : leaf_(LoadCert(TlsTestEnv::CertFile(cert))) {
    X509_STORE_CTX_init(ctx_.get(), store_.get(), leaf_.get(), nullptr);
  }
  const x509_store_ctx_st* get() const { return ctx_.get(); }
  std::string Der() const { return ::Der(leaf_.get()); }

 private:
  std::unique_ptr<X509, X509Free> leaf_;
  std::unique_ptr<X509_STORE, StoreFree> store_{X509_STORE_new()};
  std::unique_ptr<X509_STORE_CTX, StoreCtxFree> ctx_{X509_STORE_CTX_new()};
};

class CertHelperTest : public ::testing::Test {
 protected:
  void SetUp() override {
    saved_ = SuiteRuntime::GetTrustedCAFile();
    SuiteRuntime::SetTrustedCAFile(TlsTestEnv::CAFile());
  }
  void TearDown() override { SuiteRuntime::SetTrustedCAFile(saved_); }

  static long Verify(const x509_store_ctx_st* chain, const std::string& name, std::string& der, unsigned int& flags) {
    long status = -1;
    CCertHelper helper(status, 0xFFFFFFFF, "tester");
    EXPECT_EQ(status, 0);
    return helper.VerifyServerCertificate(chain, 1, name, der, flags, 2, false, 0xFFFFFFFF);
  }

  std::string saved_;
};

}  // namespace

TEST_F(CertHelperTest, CodeForEachCertificate) {
  struct Row {
    TestCert cert;
    const char* name;
    long code;
    unsigned int flags;
    bool soft;
  } rows[] = {
      {TestCert::eTrusted, "feedback.velmar.example", 0, X509_V_OK, false},
      {TestCert::eTrusted, "FEEDBACK2.velmar.example", 0, X509_V_OK, false},
      {TestCert::eTrusted, "127.0.0.1", 0, X509_V_OK, false},
      {TestCert::eTrusted, "other.velmar.example", CERT_E_HOST_MISMATCH, X509_V_ERR_HOSTNAME_MISMATCH, true},
      {TestCert::eTrusted, "127.0.0.2", CERT_E_HOST_MISMATCH, X509_V_ERR_HOSTNAME_MISMATCH, true},
      {TestCert::eWrongHost, "feedback.velmar.example", CERT_E_HOST_MISMATCH, X509_V_ERR_HOSTNAME_MISMATCH, true},
      {TestCert::eExpired, "feedback.velmar.example", CERT_E_EXPIRED, X509_V_ERR_CERT_HAS_EXPIRED, true},
      {TestCert::eUnknownCA, "feedback.velmar.example", CERT_E_UNTRUSTED_ROOT,
       X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY, false},
      // A hard fault is not hidden behind a soft one found with it.
      {TestCert::eUnknownCA, "other.velmar.example", CERT_E_UNTRUSTED_ROOT,
       X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY, false},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(std::string(TlsTestEnv::CertFile(row.cert)) + " as " + row.name);
    ServerChain chain(row.cert);
    std::string der = "poison";
    unsigned int flags = 0xDEAD;
    EXPECT_EQ(Verify(chain.get(), row.name, der, flags), row.code);
    EXPECT_EQ(flags, row.flags);
    EXPECT_EQ(CertErrorIsSoft(row.code), row.soft);
    // Filled whatever the verdict, so that a caller can compare a refused certificate with a trusted one.
    EXPECT_EQ(der, chain.Der());
  }
}

TEST_F(CertHelperTest, SoftSetIsExactlyTheDocumentedRanges) {
  for (long code = 0xFE210000; code <= 0xFE210050; ++code) {
    bool soft = code == 0xFE210010 || (code >= 0xFE210012 && code <= 0xFE210017) || code == 0xFE210027 ||
                code == 0xFE210029 || (code >= 0xFE21003A && code <= 0xFE210040);
    EXPECT_EQ(CertErrorIsSoft(code), soft) << std::hex << code;
  }
}

TEST_F(CertHelperTest, BadArgumentsLeaveOutputsAlone) {
  ServerChain chain(TestCert::eTrusted);
  std::string der = "poison";
  unsigned int flags = 0xDEAD;
  EXPECT_EQ(Verify(nullptr, "feedback.velmar.example", der, flags), CERT_E_INVALID_ARGUMENT);
  EXPECT_EQ(Verify(chain.get(), "", der, flags), CERT_E_INVALID_ARGUMENT);
  EXPECT_EQ(der, "poison");
  EXPECT_EQ(flags, 0xDEADu);
}

TEST_F(CertHelperTest, TrustStoreChoice) {
  // The system store does not know the test CA.
  SuiteRuntime::SetTrustedCAFile("");
  ServerChain chain(TestCert::eTrusted);
  std::string der;
  unsigned int flags = 0;
  EXPECT_EQ(Verify(chain.get(), "feedback.velmar.example", der, flags), CERT_E_UNTRUSTED_ROOT);

  LogCapture log;
  SuiteRuntime::SetTrustedCAFile("/nonexistent/ca.pem");
  long status = 0;
  CCertHelper helper(status, 0xFFFFFFFF, "tester");
  EXPECT_EQ(status, CERT_E_TRUST_STORE);
  EXPECT_NE(log.FindCall("X509_STORE_load_file"), nullptr);
}
