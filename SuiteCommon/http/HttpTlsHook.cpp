// The TLS hook of the HTTP session: the certificate callback installed as OpenSSL's chain verification of the
// handshake, so that its decision really gates the connection.
#include <openssl/ssl.h>
#include <openssl/x509_vfy.h>

#include "HttpErrors.h"
#include "SuiteCommon/http/HttpSessionImpl.h"

namespace {

// OpenSSL's chain verification for the handshake: the session's callback decides. Its acceptance leaves the
// store context's result at X509_V_OK, which is what libcurl checks after the handshake.
int OnVerifyChain(X509_STORE_CTX* storeContext, void* self) {
  auto* s = static_cast<CHttpSessionCurl::Impl*>(self);
  unsigned int verifyFlags = 0;
  long result;
  try {
    result = s->certCallback(s->certContext, storeContext, eCertContextPrimary, s->host, s->trustMode,
                             s->referenceCertificate, verifyFlags);
  } catch (...) {
    // An exception must not unwind through OpenSSL; a callback that cannot answer refuses.
    result = HTTP_E_CERT_REJECTED;
  }
  if (result == 0) return 1;
  s->certRejected = true;
  s->certResult = result;
  X509_STORE_CTX_set_error(storeContext, X509_V_ERR_APPLICATION_VERIFICATION);
  return 0;
}

}  // namespace

CURLcode CHttpSessionCurl::Impl::OnSslContext(CURL* /*easy*/, void* sslContext, void* self) {
  SSL_CTX_set_cert_verify_callback(static_cast<SSL_CTX*>(sslContext), &OnVerifyChain, self);
  return CURLE_OK;
}
