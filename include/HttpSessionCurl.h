// HTTP session of the host runtime on libcurl with the OpenSSL back end. One session talks to one server;
// requests are opened, sent, read and closed one at a time, and CloseRequest from another thread stops the
// session, ending a request in progress.
#pragma once

#include <list>
#include <memory>
#include <string>

#include "ApiExport.h"
#include "HttpErrors.h"

struct x509_store_ctx_st;

// How far the session trusts a server certificate that the platform's checks do not fully accept; handed to
// the certificate callback, which makes the decision.
enum HTTP_CERT_TRUST_MODE : int {
  HTTP_CERT_TRUST_STRICT = 0,           // only a certificate that passes every check
  HTTP_CERT_TRUST_SAME_AS_REFERENCE = 1, // soft failures only when the certificate equals the reference one
  HTTP_CERT_TRUST_PREFER_REFERENCE = 2,  // soft failures accepted
  HTTP_CERT_TRUST_LENIENT = 3,
  HTTP_CERT_TRUST_ANY = 4,              // no check at all
};

// Which connection of a client the certificate belongs to.
enum eCertContextID {
  eCertContextUnknown = 0,
  eCertContextPrimary = 1,
  eCertContextSecondary = 2,
};

// Called during the TLS handshake with the server's certificate chain (storeContext is OpenSSL's
// X509_STORE_CTX of the handshake, valid only during the call) and the request URL's host name as serverName;
// 0 accepts the server, anything else aborts the handshake and fails the request with HTTP_E_CERT_REJECTED.
typedef long (*PFN_SERVER_CERT_VERIFY_CB)(void* context, const x509_store_ctx_st* storeContext,
                                          eCertContextID contextId, const std::string& serverName,
                                          HTTP_CERT_TRUST_MODE trustMode,
                                          const std::string& referenceCertificate, unsigned int& verifyFlags);
// Transfer progress; no progress callback is supported (the constructor's must be null).
typedef void (*PFN_HTTP_PROGRESS_CB)(void* context, unsigned long upDone, unsigned long upTotal,
                                     unsigned long downDone, unsigned long downTotal);

// Time bounds: a connection must be made within 30 s; a transfer that stays below 1 byte/s for 60 s fails; and
// a request as a whole may take no longer than the runtime's request time limit (SuiteRuntime::
// SetRequestTimeLimitMs, 30 minutes by default), so a server that trickles its answer cannot hold the caller.
// All three fail the request with HTTP_E_TIMEOUT. A stop (CloseRequest from another thread) ends a request in
// any phase, the name lookup included, within a second. Redirects are not followed.
class SC_API CHttpSessionCurl {
 public:
  // status: 0, or a code of HttpErrors.h (the object is usable for nothing then but destruction).
  // serverUrl: the default URL of OpenRequest. The session connects directly and presents no client
  // certificate: proxyUrl and clientCertificateFile must be empty, progressCallback null (else
  // HTTP_E_INVALID_ARGUMENT); proxyBypass, proxyUser, proxyPassword and progressContext are not used.
  // productName: the User-Agent. port: used when a URL names none (0: the scheme's default). useTls: only
  // https URLs. verifyServer: false turns server verification off entirely (certCallback is not called). When
  // certCallback is given it alone decides on the server's certificate, receiving certCallbackContext,
  // trustMode and referenceCertificate; without it the certificate is verified against the trust store
  // (SuiteRuntime::SetTrustedCAFile, else the system's) and the URL's host name. responseLimit: how much of an
  // answer's body the session keeps for ReadResponse (0: 64 MiB); the transfer ends once that much has come,
  // as a reader of that size never looks further.
  CHttpSessionCurl(long& status, const std::string& serverUrl, const std::string& proxyUrl,
                   const std::list<std::string>& proxyBypass, const std::string& proxyUser,
                   const std::string& proxyPassword, const std::string& clientCertificateFile,
                   const std::string& productName, unsigned short port, bool useTls, bool verifyServer,
                   HTTP_CERT_TRUST_MODE trustMode, const std::string& referenceCertificate,
                   void* certCallbackContext, PFN_SERVER_CERT_VERIFY_CB certCallback,
                   unsigned int responseLimit, PFN_HTTP_PROGRESS_CB progressCallback, void* progressContext);
  virtual ~CHttpSessionCurl();

  // Every operation returns a code and throws nothing.
  //
  // Opens a POST request to `url` (the session's server URL when empty; the session's port is used when the
  // URL names none). requestType: 15 (POST), the only one. flags: none defined. secure: non-zero allows only
  // https. zipped: the body is already in its final form, so nothing changes here. The runtime's connect-to
  // list, CA file and request time limit are read now. Every request gets a connection and TLS handshake of
  // its own. HTTP_E_ABORTED once the session has been stopped.
  virtual long OpenRequest(const std::string& url, int requestType, unsigned int flags, int secure,
                           bool zipped);
  // Ends the request that the calling thread opened. Any other call is a stop, and a stop is for good: it
  // aborts a SendRequest in progress (from any thread, also before the request is open or between requests),
  // and every later OpenRequest, SendRequest and ReadResponse fails with HTTP_E_ABORTED. Safe from any
  // thread at any time; it returns once a running transfer has let go of the session.
  virtual long CloseRequest();
  virtual long AddRequestHeader(const std::string& name, const std::string& value);
  // 1: send the body in one piece with its length announced up front, the only mode.
  virtual long SetSendMode(int mode);
  // Sends the request with `data` as its body and receives the answer (finalPart must be non-zero: the body
  // goes in one part). Returns 0 for a 2xx answer. detail receives the transport's own result (libcurl's
  // code) or the HTTP status of a refused request (HTTP_E_STATUS). timeoutMs, when non-zero, bounds this
  // request more tightly than the runtime's request time limit.
  virtual long SendRequest(unsigned long& detail, int finalPart, const char* data, int length,
                           unsigned int timeoutMs);
  // Copies the next piece of the kept answer, at most `capacity` bytes, into `buffer`; bytesRead is 0 at the
  // end of it. Also reads the body of a non-2xx answer.
  virtual long ReadResponse(char* buffer, unsigned long capacity, unsigned long& bytesRead);

  CHttpSessionCurl(const CHttpSessionCurl&) = delete;
  CHttpSessionCurl& operator=(const CHttpSessionCurl&) = delete;

  struct Impl;

 private:
  std::unique_ptr<Impl> m_impl;
};
