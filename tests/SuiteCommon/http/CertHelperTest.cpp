// The certificate helper on the generated test certificates: the code for each fault, a hard fault before a
// soft one, the host-name rules, the DER copy of the server certificate, and the trust store it loads.
#include <gtest/gtest.h>
#include <openssl/x509_vfy.h>

#include "CertHelper.h"
#include "LogCapture.h"
#include "RuntimeConfig.h"
#include "TlsTestEnv.h"

namespace {

class CertHelperTest : public ::testing::Test {
 protected:
  void TearDown() override { SuiteRuntime::SetTrustedCAFile(saved_); }
  const std::string saved_ = SuiteRuntime::GetTrustedCAFile();
};

}  // namespace

TEST_F(CertHelperTest, CodeForEachCertificate) {
  const std::string kHost = TlsTestEnv::kPrimaryHost;
  const unsigned int kUntouched = 0xDEAD;
  struct Row {
    TestCert cert;
    std::string name;
    long code;
    unsigned int flags;            // kUntouched: the certificate is not looked at
    const char* caFile = nullptr;  // null: the test CA; "": the system store
    bool chain = true;
  } rows[] = {
      {TestCert::eTrusted, kHost, 0, X509_V_OK},
      {TestCert::eTrusted, "127.0.0.1", 0, X509_V_OK},
      {TestCert::eTrusted, "127.0.0.2", CERT_E_HOST_MISMATCH, X509_V_ERR_HOSTNAME_MISMATCH},
      {TestCert::eWrongHost, kHost, CERT_E_HOST_MISMATCH, X509_V_ERR_HOSTNAME_MISMATCH},
      {TestCert::eExpired, kHost, CERT_E_EXPIRED, X509_V_ERR_CERT_HAS_EXPIRED},
      {TestCert::eUnknownCA, kHost, CERT_E_UNTRUSTED_ROOT, X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY},
      // A wildcard stands for a whole left-most label, never for part of one; an address is matched as one.
      {TestCert::eWildcard, "a.wild.velmar.example", 0, X509_V_OK},
      {TestCert::eWildcard, kHost, CERT_E_HOST_MISMATCH, X509_V_ERR_HOSTNAME_MISMATCH},
      {TestCert::eWildcard, TlsTestEnv::kSecondaryHost, CERT_E_HOST_MISMATCH, X509_V_ERR_HOSTNAME_MISMATCH},
      // A hard fault is not hidden behind a soft one found with it.
      {TestCert::eUnknownCA, "other.velmar.example", CERT_E_UNTRUSTED_ROOT,
       X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY},
      // The system store does not know the test CA.
      {TestCert::eTrusted, kHost, CERT_E_UNTRUSTED_ROOT, X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY, ""},
      {TestCert::eTrusted, kHost, CERT_E_TRUST_STORE, kUntouched, "/nonexistent/ca.pem"},
      {TestCert::eTrusted, "", CERT_E_INVALID_ARGUMENT, kUntouched},
      {TestCert::eTrusted, kHost, CERT_E_INVALID_ARGUMENT, kUntouched, nullptr, false},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(TlsTestEnv::CertFile(row.cert) + " as '" + row.name + "' trusting " +
                 (row.caFile ? row.caFile : "the test CA") + (row.chain ? "" : ", no chain"));
    SuiteRuntime::SetTrustedCAFile(row.caFile ? row.caFile : TlsTestEnv::CAFile());
    LogCapture log;
    ServerChain chain(row.cert);
    std::string der = "poison";
    unsigned int flags = kUntouched;
    long status = -1;
    CCertHelper helper(status, 0xFFFFFFFF, "tester");
    const x509_store_ctx_st* given = row.chain ? chain.get() : nullptr;
    if (status == 0) status = helper.VerifyServerCertificate(given, 1, row.name, der, flags, 2, false, 0xFFFFFFFF);
    EXPECT_EQ(status, row.code);
    EXPECT_EQ(flags, row.flags);
    // Filled whatever the verdict, so that a caller can compare a refused certificate with a trusted one.
    EXPECT_EQ(der, row.flags == kUntouched ? "poison" : chain.Der());
    EXPECT_EQ(log.FindCall("X509_STORE_load_file") != nullptr, row.code == CERT_E_TRUST_STORE) << log.Dump();
  }
}
