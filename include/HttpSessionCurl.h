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

struct x509_store_ctx_st;

// How far the session trusts a server certificate that the platform's checks do not fully accept; handed to
// the certificate callback, which makes the decision.
enum HTTP_CERT_TRUST_MODE {
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

// Called during the TLS handshake with the server's certificate chain; 0 accepts the server, anything else
// aborts the handshake.
typedef long (*PFN_SERVER_CERT_VERIFY_CB)(void* context, const x509_store_ctx_st* storeContext,
                                          eCertContextID contextId, const std::string& serverName,
                                          HTTP_CERT_TRUST_MODE trustMode,
                                          const std::string& referenceCertificate, unsigned int& verifyFlags);
// Transfer progress: bytes done and expected so far for the request body (up) and the answer (down).
typedef void (*PFN_HTTP_PROGRESS_CB)(void* context, unsigned long upDone, unsigned long upTotal,
                                     unsigned long downDone, unsigned long downTotal);

class SC_API CHttpSessionCurl {
 public:
  CHttpSessionCurl(long& status, const std::string& serverUrl, const std::string& proxyUrl,
                   const std::list<std::string>& proxyBypass, const std::string& proxyUser,
                   const std::string& proxyPassword, const std::string& clientCertificateFile,
                   const std::string& productName, unsigned short port, bool useTls, bool verifyServer,
                   HTTP_CERT_TRUST_MODE trustMode, const std::string& referenceCertificate,
                   void* certCallbackContext, PFN_SERVER_CERT_VERIFY_CB certCallback,
                   unsigned int responseChunkSize, PFN_HTTP_PROGRESS_CB progressCallback,
                   void* progressContext);
  virtual ~CHttpSessionCurl();

  // Opens a request to `url` (which may differ from the session's server URL; the session's port is used
  // when the URL names none). requestType, flags and secure: see HttpSessionCurl.cpp.
  virtual long OpenRequest(const std::string& url, int requestType, unsigned int flags, int secure,
                           bool zipped);
  // Ends the open request. Safe from any thread, also while SendRequest or ReadResponse blocks, and safe
  // when no request is open.
  virtual long CloseRequest();
  virtual long AddRequestHeader(const std::string& name, const std::string& value);
  // 1: send the body in one piece with its length announced up front; 0: chunked.
  virtual long SetSendMode(int mode);
  // Sends the body and receives the answer's status and headers. detail receives the transport's own
  // result (libcurl's code) or the HTTP status of a refused request.
  virtual long SendRequest(unsigned long& detail, int finalPart, const char* data, int length,
                           unsigned int timeoutMs);
  virtual long GetResponseStatus(unsigned long& httpStatus);
  virtual long GetResponseHeader(const std::string& name, std::string& value);
  virtual long SetTimeouts(unsigned int connectMs, unsigned int transferMs);
  // Copies up to `capacity` bytes of the answer into `buffer`; bytesRead is 0 at the end of the answer.
  virtual long ReadResponse(char* buffer, unsigned long capacity, unsigned long& bytesRead);

  CHttpSessionCurl(const CHttpSessionCurl&) = delete;
  CHttpSessionCurl& operator=(const CHttpSessionCurl&) = delete;

  struct Impl;

 private:
  std::unique_ptr<Impl> m_impl;
};
