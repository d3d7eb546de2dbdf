// Server-certificate verification on OpenSSL: a fresh verification of the handshake's chain against the
// runtime's trust store, the host-name check, and the mapping of OpenSSL's results to the runtime's codes.
#include "CertHelper.h"

#include <arpa/inet.h>
#include <openssl/err.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>

#include <memory>
#include <vector>

#include "AppLog.h"
#include "RuntimeConfig.h"

namespace {

constexpr const char* kLogFile = "CertHelper";

struct StoreCtxFree {
  void operator()(X509_STORE_CTX* ctx) const { X509_STORE_CTX_free(ctx); }
};
using StoreCtxPtr = std::unique_ptr<X509_STORE_CTX, StoreCtxFree>;

struct VerifyFault {
  int error;
  int depth;
};

// Every fault OpenSSL finds in one verification, in the order found. Verification goes on past a fault so
// that a hard one later in the chain is not hidden behind an earlier soft one.
struct FaultLog {
  std::vector<VerifyFault> faults;
};

int CollectFault(int ok, X509_STORE_CTX* ctx) {
  if (ok) return 1;
  auto* log = static_cast<FaultLog*>(X509_STORE_CTX_get_app_data(ctx));
  if (log != nullptr) log->faults.push_back({X509_STORE_CTX_get_error(ctx), X509_STORE_CTX_get_error_depth(ctx)});
  return 1;
}

long MapVerifyError(int error, int depth) {
  switch (error) {
    case X509_V_ERR_CERT_HAS_EXPIRED:
      return depth == 0 ? CERT_E_EXPIRED : CERT_E_ISSUER_EXPIRED;
    case X509_V_ERR_CERT_NOT_YET_VALID:
      return depth == 0 ? CERT_E_NOT_YET_VALID : CERT_E_ISSUER_NOT_YET_VALID;
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT:
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY:
    case X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT:
    case X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN:
    case X509_V_ERR_CERT_UNTRUSTED:
    case X509_V_ERR_CERT_REJECTED:
    case X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE:
      return CERT_E_UNTRUSTED_ROOT;
    case X509_V_ERR_HOSTNAME_MISMATCH:
    case X509_V_ERR_IP_ADDRESS_MISMATCH:
      return CERT_E_HOST_MISMATCH;
    case X509_V_ERR_CRL_HAS_EXPIRED:
    case X509_V_ERR_CRL_NOT_YET_VALID:
      return CERT_E_CRL_OUT_OF_DATE;
    case X509_V_ERR_UNABLE_TO_GET_CRL:
      return CERT_E_REVOCATION_UNKNOWN;
    case X509_V_ERR_CERT_SIGNATURE_FAILURE:
    case X509_V_ERR_UNABLE_TO_DECRYPT_CERT_SIGNATURE:
    case X509_V_ERR_UNABLE_TO_DECODE_ISSUER_PUBLIC_KEY:
      return CERT_E_SIGNATURE;
    case X509_V_ERR_CERT_REVOKED:
      return CERT_E_REVOKED;
    case X509_V_ERR_INVALID_CA:
    case X509_V_ERR_INVALID_NON_CA:
    case X509_V_ERR_PATH_LENGTH_EXCEEDED:
    case X509_V_ERR_CERT_CHAIN_TOO_LONG:
    case X509_V_ERR_KEYUSAGE_NO_CERTSIGN:
    case X509_V_ERR_INVALID_EXTENSION:
      return CERT_E_CHAIN;
    case X509_V_ERR_PERMITTED_VIOLATION:
    case X509_V_ERR_EXCLUDED_VIOLATION:
    case X509_V_ERR_SUBTREE_MINMAX:
    case X509_V_ERR_UNSUPPORTED_CONSTRAINT_TYPE:
    case X509_V_ERR_UNSUPPORTED_CONSTRAINT_SYNTAX:
    case X509_V_ERR_UNSUPPORTED_NAME_SYNTAX:
      return CERT_E_NAME_CONSTRAINTS;
    case X509_V_ERR_INVALID_PURPOSE:
      return CERT_E_WRONG_USAGE;
    case X509_V_ERR_UNHANDLED_CRITICAL_EXTENSION:
      return CERT_E_CRITICAL_EXTENSION;
    case X509_V_ERR_NO_EXPLICIT_POLICY:
    case X509_V_ERR_INVALID_POLICY_EXTENSION:
      return CERT_E_POLICY;
    case X509_V_ERR_UNABLE_TO_GET_CRL_ISSUER:
      return CERT_E_CRL_ISSUER_UNKNOWN;
    case X509_V_ERR_UNABLE_TO_DECRYPT_CRL_SIGNATURE:
    case X509_V_ERR_CRL_SIGNATURE_FAILURE:
      return CERT_E_CRL_SIGNATURE;
    case X509_V_ERR_ERROR_IN_CRL_LAST_UPDATE_FIELD:
    case X509_V_ERR_ERROR_IN_CRL_NEXT_UPDATE_FIELD:
    case X509_V_ERR_UNHANDLED_CRITICAL_CRL_EXTENSION:
      return CERT_E_CRL_MALFORMED;
    case X509_V_ERR_DIFFERENT_CRL_SCOPE:
    case X509_V_ERR_CRL_PATH_VALIDATION_ERROR:
    case X509_V_ERR_KEYUSAGE_NO_CRL_SIGN:
      return CERT_E_CRL_SCOPE;
    case X509_V_ERR_OCSP_VERIFY_NEEDED:
    case X509_V_ERR_OCSP_VERIFY_FAILED:
    case X509_V_ERR_OCSP_CERT_UNKNOWN:
      return CERT_E_OCSP_UNVERIFIED;
    case X509_V_ERR_ERROR_IN_CERT_NOT_BEFORE_FIELD:
    case X509_V_ERR_ERROR_IN_CERT_NOT_AFTER_FIELD:
      return CERT_E_VALIDITY_UNREADABLE;
    case X509_V_ERR_EE_KEY_TOO_SMALL:
    case X509_V_ERR_CA_KEY_TOO_SMALL:
    case X509_V_ERR_CA_MD_TOO_WEAK:
      return CERT_E_WEAK_CRYPTO;
    default:
      return CERT_E_VERIFY_FAILED;
  }
}

bool IsIpAddress(const std::string& name) {
  unsigned char address[16];
  return inet_pton(AF_INET, name.c_str(), address) == 1 || inet_pton(AF_INET6, name.c_str(), address) == 1;
}

// A wildcard stands only for a whole left-most label ("*.velmar.example"); one inside a label ("f*.velmar.example",
// "*back.velmar.example") would let a CA-signed name match hosts its owner never named.
bool HostMatches(X509* leaf, const std::string& serverName) {
  if (IsIpAddress(serverName)) return X509_check_ip_asc(leaf, serverName.c_str(), 0) == 1;
  return X509_check_host(leaf, serverName.data(), serverName.size(), X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS,
                         nullptr) == 1;
}

bool StoreHasCrls(X509_STORE* store) {
  STACK_OF(X509_OBJECT)* objects = X509_STORE_get0_objects(store);
  for (int i = 0; i < sk_X509_OBJECT_num(objects); ++i) {
    if (X509_OBJECT_get_type(sk_X509_OBJECT_value(objects, i)) == X509_LU_CRL) return true;
  }
  return false;
}

}  // namespace

void CCertHelper::StoreFree::operator()(x509_store_st* store) const { X509_STORE_free(store); }

CCertHelper::CCertHelper(long& status, unsigned int flags, const std::string& userName)
    : m_flags(flags), m_userName(userName) {
  status = 0;
  m_store.reset(X509_STORE_new());
  if (!m_store) {
    CAppLog::LogReturnCode(__func__, kLogFile, __LINE__, APPLOG_ERROR, "X509_STORE_new", CERT_E_INTERNAL);
    status = CERT_E_INTERNAL;
    return;
  }
  const std::string caFile = SuiteRuntime::GetTrustedCAFile();
  if (caFile.empty()) {
    if (X509_STORE_set_default_paths(m_store.get()) != 1) {
      CAppLog::LogReturnCode(__func__, kLogFile, __LINE__, APPLOG_ERROR, "X509_STORE_set_default_paths",
                             CERT_E_TRUST_STORE, "Cannot load the system trust store");
      status = CERT_E_TRUST_STORE;
    }
  } else if (X509_STORE_load_file(m_store.get(), caFile.c_str()) != 1) {
    CAppLog::LogReturnCode(__func__, kLogFile, __LINE__, APPLOG_ERROR, "X509_STORE_load_file", CERT_E_TRUST_STORE,
                           "Cannot load the trusted CA file %s", caFile.c_str());
    status = CERT_E_TRUST_STORE;
  } else {
    m_bStoreHasCrls = StoreHasCrls(m_store.get());
  }
  ERR_clear_error();
}

CCertHelper::~CCertHelper() = default;

long CCertHelper::VerifyServerCertificate(const x509_store_ctx_st* storeContext, int certContextId,
                                          const std::string& serverName, std::string& certificateOut,
                                          unsigned int& verifyFlags, int revocationType, bool /*allowUserPrompt*/,
                                          unsigned int /*policyFlags*/) {
  if (storeContext == nullptr || serverName.empty()) {
    CAppLog::LogDebugMessage(__func__, kLogFile, __LINE__, APPLOG_WARNING,
                             "No certificate chain or no server name to verify");
    return CERT_E_INVALID_ARGUMENT;
  }
  if (!m_store) return CERT_E_TRUST_STORE;
  X509* leaf = X509_STORE_CTX_get0_cert(storeContext);
  if (leaf == nullptr) {
    CAppLog::LogDebugMessage(__func__, kLogFile, __LINE__, APPLOG_WARNING,
                             "The handshake holds no server certificate for %s", serverName.c_str());
    return CERT_E_NO_CERTIFICATE;
  }
  int derLength = i2d_X509(leaf, nullptr);
  if (derLength <= 0) return CERT_E_INTERNAL;
  std::string der(static_cast<size_t>(derLength), '\0');
  auto* out = reinterpret_cast<unsigned char*>(der.data());
  if (i2d_X509(leaf, &out) != derLength) return CERT_E_INTERNAL;
  certificateOut.swap(der);

  // A context of our own: the handshake's context is mid-verification and belongs to the TLS library.
  StoreCtxPtr ctx(X509_STORE_CTX_new());
  if (!ctx || X509_STORE_CTX_init(ctx.get(), m_store.get(), leaf, X509_STORE_CTX_get0_untrusted(storeContext)) != 1 ||
      X509_STORE_CTX_set_purpose(ctx.get(), X509_PURPOSE_SSL_SERVER) != 1) {
    ERR_clear_error();
    return CERT_E_INTERNAL;
  }
  if (revocationType == 1 || (revocationType == 2 && m_bStoreHasCrls)) {
    X509_STORE_CTX_set_flags(ctx.get(), X509_V_FLAG_CRL_CHECK);
  }
  FaultLog faults;
  X509_STORE_CTX_set_app_data(ctx.get(), &faults);
  X509_STORE_CTX_set_verify_cb(ctx.get(), CollectFault);
  int verified = X509_verify_cert(ctx.get());
  ERR_clear_error();
  if (verified <= 0 && faults.faults.empty()) {
    faults.faults.push_back({X509_STORE_CTX_get_error(ctx.get()), X509_STORE_CTX_get_error_depth(ctx.get())});
  }
  if (!HostMatches(leaf, serverName)) faults.faults.push_back({X509_V_ERR_HOSTNAME_MISMATCH, 0});

  const VerifyFault* reported = nullptr;
  for (const VerifyFault& fault : faults.faults) {
    if (!CertErrorIsSoft(MapVerifyError(fault.error, fault.depth))) {
      reported = &fault;
      break;
    }
    if (reported == nullptr) reported = &fault;
  }
  if (reported == nullptr) {
    verifyFlags = X509_V_OK;
    return 0;
  }
  long code = MapVerifyError(reported->error, reported->depth);
  verifyFlags = static_cast<unsigned int>(reported->error);
  CAppLog::LogDebugMessage(__func__, kLogFile, __LINE__, APPLOG_WARNING,
                           "Server certificate for %s (connection %d, user %s) not accepted: %s at depth %d",
                           serverName.c_str(), certContextId, m_userName.c_str(),
                           reported->error == X509_V_ERR_HOSTNAME_MISMATCH
                               ? "host name mismatch"
                               : X509_verify_cert_error_string(reported->error),
                           reported->depth);
  return code;
}
