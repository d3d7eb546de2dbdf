// Certificate checks of the host runtime on OpenSSL: chain verification against the system trust store (or
// the CA file the host names in the runtime configuration), host-name check, and the leaf's DER bytes.
#pragma once

#include <string>

#include "ApiExport.h"

struct x509_store_ctx_st;

class SC_API CCertHelper {
 public:
  CCertHelper(long& status, unsigned int flags, const std::string& userName);
  virtual ~CCertHelper();

  // Verifies the chain held by storeContext for serverName. certificateOut receives the leaf's DER bytes.
  // verifyFlags receives the verification detail (OpenSSL's verify result). Returns 0 or a 0xFE21xxxx code.
  virtual long VerifyServerCertificate(const x509_store_ctx_st* storeContext, int certContextId,
                                       const std::string& serverName, std::string& certificateOut,
                                       unsigned int& verifyFlags, int revocationType, bool allowUserPrompt,
                                       unsigned int policyFlags);

  CCertHelper(const CCertHelper&) = delete;
  CCertHelper& operator=(const CCertHelper&) = delete;

 private:
  unsigned int m_flags;
  std::string m_userName;
};
