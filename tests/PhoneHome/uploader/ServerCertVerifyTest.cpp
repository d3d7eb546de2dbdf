// The uploader's certificate decision on real chains of the generated test certificates: the trust-mode rules,
// the reference-certificate comparison, the argument checks of the check and of its callback, and their logs.
#include <gtest/gtest.h>

#include "CertErrors.h"
#include "LogCapture.h"
#include "PhoneHome/FileUploader.h"
#include "RuntimeConfig.h"
#include "TlsTestEnv.h"
#include "UploaderLog.h"

namespace {

const char kVerified[] = "CCertHelper::VerifyServerCertificate";
const char kNotTrusted[] = "The server certificate for the secondary connection is not trusted.";
const char kDifferent[] =
    "The server certificate for the secondary connection is different than the (trusted) server certificate "
    "used for the primary connection.  The server certificate for the secondary connection is not trusted.";
const char kNullParameters[] = "Unable to verify server certificate due to invalid NULL parameters.";
constexpr unsigned int kPoison = 0xDEADBEEF;

class ServerCertVerifyTest : public ::testing::Test {
 protected:
  void TearDown() override { SuiteRuntime::SetTrustedCAFile(saved_); }
  const std::string saved_ = SuiteRuntime::GetTrustedCAFile();
};

}  // namespace

TEST_F(ServerCertVerifyTest, DecisionAndLogByChainModeAndReference) {
  SuiteRuntime::SetTrustedCAFile(TlsTestEnv::CAFile());
  long status = -1;
  CFileUploader uploader(status, "Orvane", TlsTestEnv::kPrimaryUrl, true, "", "", "", "", "", false, true, 443, true);
  ASSERT_EQ(status, 0);
  const ServerChain clean(TestCert::eTrusted), expired(TestCert::eExpired), unknownCA(TestCert::eUnknownCA);
  enum Via { kCheck, kCallback, kCallbackWithoutUploader };
  enum Ref { kNoRef, kSame, kSameLonger, kOther };
  const std::string untrusted = Line('E', kVerified, CERT_E_UNTRUSTED_ROOT);
  const std::string invalid = Line('E', kNotTrusted), refusedByCallback = Line('W', kNullParameters);
  struct Row {
    const char* what;
    Via via;
    const ServerChain* chain;
    int mode;
    Ref ref;
    long expected;
    std::string log;      // log.Lines("FileUploader")
    bool checked = true;  // whether the helper ran, and so filled the flags
    const char* name = TlsTestEnv::kPrimaryHost;
  } rows[] = {
      // Anything but a soft result is final whatever the mode, and logged with its code, success included.
      {"clean, mode 1, other reference", kCheck, &clean, 1, kOther, 0, Line('E', kVerified, 0)},
      {"unknown CA, mode 3", kCheck, &unknownCA, 3, kNoRef, CERT_E_UNTRUSTED_ROOT, untrusted},
      {"unknown CA, mode 1, same reference", kCheck, &unknownCA, 1, kSame, CERT_E_UNTRUSTED_ROOT, untrusted},
      // Soft results: mode 0 refuses, 2 and 3 accept, 1 accepts only a byte-for-byte equal reference.
      {"expired, mode 0", kCheck, &expired, 0, kNoRef, CERT_E_EXPIRED, ""},
      {"expired, mode 2, other reference", kCheck, &expired, 2, kOther, 0, ""},
      {"expired, mode 1, same reference", kCheck, &expired, 1, kSame, 0, ""},
      {"expired, mode 1, other reference", kCheck, &expired, 1, kOther, CERT_E_EXPIRED, Line('E', kDifferent)},
      {"expired, mode 1, a byte more", kCheck, &expired, 1, kSameLonger, CERT_E_EXPIRED, Line('E', kDifferent)},
      // Mode 4 returns before any check; other modes refuse a missing chain or name.
      {"no chain, no name, mode 4", kCheck, nullptr, 4, kNoRef, 0, "", false, ""},
      {"no chain, mode 0", kCheck, nullptr, 0, kNoRef, FILEUPLOADER_E_INVALID_PARAMETER, invalid, false},
      {"no name, mode 3", kCheck, &unknownCA, 3, kNoRef, FILEUPLOADER_E_INVALID_PARAMETER, invalid, false, ""},
      // The callback refuses null arguments before anything, even for mode 4, then forwards.
      {"callback without uploader", kCallbackWithoutUploader, &clean, 4, kNoRef, FILEUPLOADER_E_INVALID_PARAMETER,
       refusedByCallback, false},
      {"callback without chain", kCallback, nullptr, 4, kNoRef, FILEUPLOADER_E_INVALID_PARAMETER, refusedByCallback,
       false},
      {"callback, expired, mode 3", kCallback, &expired, 3, kNoRef, 0, ""},  // mode 3 accepts a soft fault
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    const std::string der = row.chain ? row.chain->Der() : "";
    const std::string reference[] = {"", der, der + '\0', clean.Der()};
    const x509_store_ctx_st* chain = row.chain ? row.chain->get() : nullptr;
    const auto mode = static_cast<HTTP_CERT_TRUST_MODE>(row.mode);
    LogCapture log;
    unsigned int flags = kPoison;
    EXPECT_EQ(row.via == kCheck
                  ? uploader.ServerCertVerify(chain, eCertContextSecondary, row.name, mode, reference[row.ref], flags)
                  : CFileUploader::ServerCertVerifyCB(row.via == kCallback ? &uploader : nullptr, chain,
                                                      eCertContextPrimary, row.name, mode, reference[row.ref], flags),
              row.expected);
    EXPECT_EQ(log.Lines("FileUploader"), row.log);
    EXPECT_EQ(flags != kPoison, row.checked);
  }
}
