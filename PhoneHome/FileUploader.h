// One HTTPS POST of a feedback file over the host's HTTP session, with the module's own decision on the
// server certificate.
#pragma once

#include <string>

#include "HttpSessionCurl.h"

// Result codes of the uploader; every other code it returns comes unchanged from the session or the
// certificate helper.
// Null callback arguments, or no store context or server name to check.
constexpr long FILEUPLOADER_E_INVALID_PARAMETER = 0xFE9D0002L;
// The session's 0xFE460017, without and with the alternate-result flag.
constexpr long FILEUPLOADER_E_SEND_FAILED = 0xFE9D000CL;
constexpr long FILEUPLOADER_E_SEND_FAILED_ALT = 0xFE9D000DL;
// The session's 0xFE46001C when send errors are not strict.
constexpr long FILEUPLOADER_E_SEND_ABORTED = 0xFE9D0010L;

// Lives for exactly one upload: construct, test the status, PostDataGetResponse, destroy. The uploader owns
// its session from construction to destruction, also when the session reported a failing status.
// TerminateSession may come from another thread at any time while the uploader exists; nothing else may.
class CFileUploader {
 public:
  // Arguments 4 and 10 are accepted and ignored. `optionalEntry`, when non-empty, is the only element of the
  // session's string list. The caller must test `result` and destroy the uploader when it is non-zero.
  CFileUploader(long& result, const std::string& productName, const std::string& serverUrl, bool unused4,
                const std::string& optionalEntry, const std::string& proxyUser,
                const std::string& proxyPassword, const std::string& clientCertificateFile,
                const std::string& referenceCertificate, bool unused10, bool strictSendErrors,
                unsigned short port, bool useTls);
  ~CFileUploader();

  CFileUploader(const CFileUploader&) = delete;
  CFileUploader& operator=(const CFileUploader&) = delete;

  // Posts `length` bytes of `data` to `url` exactly as given, adding only the "Zip" header when `zipped`,
  // and appends the server's answer (at most 16384 bytes, up to its first NUL) to `response`. 0 on success.
  long PostDataGetResponse(const std::string& url, const char* data, int length, std::string& response,
                           bool zipped);
  // Sends the body on the open request.
  long SendHttpRequest(const char* data, int length);
  // Reads the answer of the open request with a single read.
  long ReadFileFromNetwork(std::string& response);
  // Stops the upload for good: a request in progress is aborted, one not yet opened never starts. Callable
  // from any thread.
  void TerminateSession();

  // The session's server-certificate callback; `context` is the uploader.
  static long ServerCertVerifyCB(void* context, const x509_store_ctx_st* storeContext,
                                 eCertContextID contextId, const std::string& serverName,
                                 HTTP_CERT_TRUST_MODE trustMode, const std::string& referenceCertificate,
                                 unsigned int& verifyFlags);
  // 0 accepts the server certificate held by `storeContext` for `serverName` under `trustMode`.
  long ServerCertVerify(const x509_store_ctx_st* storeContext, eCertContextID contextId,
                        const std::string& serverName, HTTP_CERT_TRUST_MODE trustMode,
                        const std::string& referenceCertificate, unsigned int& verifyFlags);

 private:
  bool m_bUseAlternateResult;       // never set in this system; only picks SendHttpRequest's code
  CHttpSessionCurl* m_pHttpSession; // owned
  bool m_bStrictSendErrors;
};
