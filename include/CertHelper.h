// Certificate checks of the host runtime on OpenSSL: chain verification against the system trust store (or
// the CA file the host names in the runtime configuration), host-name check, and the leaf's DER bytes.
#pragma once

#include <memory>
#include <string>

#include "ApiExport.h"
#include "CertErrors.h"

struct x509_store_ctx_st;
struct x509_store_st;

class SC_API CCertHelper {
 public:
  // Loads the trust store: the runtime's trusted CA file when one is set (SuiteRuntime::SetTrustedCAFile),
  // else the system's default paths. status is 0, or CERT_E_TRUST_STORE when the store cannot be loaded.
  // The trust store is system-wide on this platform, so userName only names the caller in the log; flags
  // (callers pass 0xFFFFFFFF) select no optional behaviour: every check is always made.
  CCertHelper(long& status, unsigned int flags, const std::string& userName);
  virtual ~CCertHelper();

  // Verifies the chain held by storeContext (the handshake's store context: the server's certificate and the
  // chain it sent, taken as untrusted) against the trust store, for use by a TLS server, and checks serverName
  // (a DNS name or an IP address) against the certificate. Returns 0 or a code of CertErrors.h.
  // certificateOut receives the server certificate's DER bytes whenever the context holds one, whatever the
  // result, so a caller can compare a rejected certificate with one it trusted before. verifyFlags receives
  // OpenSSL's verify result for the reported fault (X509_V_ERR_HOSTNAME_MISMATCH for the host name), 0 on
  // success. revocationType: 0 no revocation check; 1 the server certificate is checked against the CRLs in
  // the trust store and a missing CRL is a (soft) failure; 2 the same, but only when the trusted CA file
  // supplies CRLs. certContextId only names the connection in the log; allowUserPrompt is ignored (a service
  // has no one to ask); policyFlags, like flags, selects nothing.
  virtual long VerifyServerCertificate(const x509_store_ctx_st* storeContext, int certContextId,
                                       const std::string& serverName, std::string& certificateOut,
                                       unsigned int& verifyFlags, int revocationType, bool allowUserPrompt,
                                       unsigned int policyFlags);

  CCertHelper(const CCertHelper&) = delete;
  CCertHelper& operator=(const CCertHelper&) = delete;

 private:
  struct StoreFree {
    void operator()(x509_store_st* store) const;
  };

  unsigned int m_flags;
  std::string m_userName;
  std::unique_ptr<x509_store_st, StoreFree> m_store;
  bool m_bStoreHasCrls = false;  // whether the trusted CA file brought revocation lists along
};
