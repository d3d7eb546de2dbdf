// HTTP session of the host runtime on libcurl with the OpenSSL back end. One session talks to one server;
// requests are opened, sent, read and closed one at a time, and CloseRequest may come from another thread
// to abort a send or read in progress.
#pragma once

#include <atomic>
#include <list>
#include <memory>
#include <string>
#include <vector>

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
// Transfer progress: bytes done and expected so far for the request body (up) and the answer (down).
typedef void (*PFN_HTTP_PROGRESS_CB)(void* context, unsigned long upDone, unsigned long upTotal,
                                     unsigned long downDone, unsigned long downTotal);

// Timeouts: a connection must be made within 30 s, and a transfer that stays below 1 byte/s for 60 s fails
// with HTTP_E_TIMEOUT, so a silent server fails a request that nobody aborts. Redirects are not followed.
class SC_API CHttpSessionCurl {
 public:
  // status: 0, or a code of HttpErrors.h (the object is usable for nothing then but destruction).
  // serverUrl: the default URL of OpenRequest. proxyUrl, proxyBypass (host names), proxyUser and
  // proxyPassword: an explicit proxy; none when proxyUrl is empty (the environment's proxy variables are not
  // used). clientCertificateFile: a PEM file with a client certificate and its key, or empty. productName:
  // the User-Agent. port: used when a URL names none (0: the scheme's default). useTls: only https URLs.
  // verifyServer: false turns server verification off entirely (certCallback is not called). When
  // certCallback is given it alone decides on the server's certificate, receiving certCallbackContext,
  // trustMode and referenceCertificate; without it the certificate is verified against the trust store
  // (SuiteRuntime::SetTrustedCAFile, else the system's) and the URL's host name. responseChunkSize: the
  // largest piece one ReadResponse hands out (0: no limit). progressCallback: optional, with progressContext.
  CHttpSessionCurl(long& status, const std::string& serverUrl, const std::string& proxyUrl,
                   const std::list<std::string>& proxyBypass, const std::string& proxyUser,
                   const std::string& proxyPassword, const std::string& clientCertificateFile,
                   const std::string& productName, unsigned short port, bool useTls, bool verifyServer,
                   HTTP_CERT_TRUST_MODE trustMode, const std::string& referenceCertificate,
                   void* certCallbackContext, PFN_SERVER_CERT_VERIFY_CB certCallback,
                   unsigned int responseChunkSize, PFN_HTTP_PROGRESS_CB progressCallback,
                   void* progressContext);
  virtual ~CHttpSessionCurl();

  // Opens a request to `url` (the session's server URL when empty; the session's port is used when the URL
  // names none). requestType: 15 POST, 1 GET. flags: none defined. secure: non-zero allows only https.
  // zipped: the body is already in its final form, so nothing changes here. The runtime's connect-to list and
  // CA file are read now. Every request gets a connection and TLS handshake of its own.
  virtual long OpenRequest(const std::string& url, int requestType, unsigned int flags, int secure,
                           bool zipped);
  // Ends the open request. Safe from any thread, also while SendRequest or ReadResponse blocks, and safe
  // when no request is open.
  virtual long CloseRequest();
  virtual long AddRequestHeader(const std::string& name, const std::string& value);
  // 1: send the body in one piece with its length announced up front; 0: chunked.
  virtual long SetSendMode(int mode);
  // Appends the body part; with finalPart non-zero, sends the request with everything collected and receives
  // the whole answer. Returns 0 for a 2xx answer. detail receives the transport's own result (libcurl's
  // code) or the HTTP status of a refused request (HTTP_E_STATUS). timeoutMs bounds the whole request
  // (0: the SetTimeouts value, by default none beyond the low-speed limit).
  virtual long SendRequest(unsigned long& detail, int finalPart, const char* data, int length,
                           unsigned int timeoutMs);
  virtual long GetResponseStatus(unsigned long& httpStatus);
  virtual long GetResponseHeader(const std::string& name, std::string& value);
  // connectMs 0 restores the 30 s default; transferMs bounds each later request as a whole (0: no bound).
  virtual long SetTimeouts(unsigned int connectMs, unsigned int transferMs);
  // Copies the next piece of the buffered answer, at most `capacity` (and responseChunkSize) bytes, into
  // `buffer`; bytesRead is 0 at the end of the answer. Also reads the body of a non-2xx answer.
  virtual long ReadResponse(char* buffer, unsigned long capacity, unsigned long& bytesRead);

  CHttpSessionCurl(const CHttpSessionCurl&) = delete;
  CHttpSessionCurl& operator=(const CHttpSessionCurl&) = delete;

  struct Impl;

 private:
  std::unique_ptr<Impl> m_impl;
};
