// One HTTPS POST of a feedback file over the host's HTTP session, with the module's own decision on the
// server certificate.
#include "PhoneHome/FileUploader.h"

#include <unistd.h>

#include <cstdint>
#include <list>
#include <memory>
#include <new>

#include "AppLog.h"
#include "CertErrors.h"
#include "CertHelper.h"
#include "HttpErrors.h"
#include "UnixImpersonate.h"

namespace {

const char kLogFile[] = "FileUploader";

// The single read of the answer takes this much, so the session is told to keep no more.
constexpr unsigned int kResponseBufferSize = 16384;

// Values the session's open call expects for an HTTPS POST.
constexpr int kRequestTypePost = 15;
constexpr unsigned int kRequestFlags = 0;
constexpr int kRequestSecure = 1;
constexpr int kSendModeWhole = 1;

// Certificate helper arguments: every flag and policy bit on, the primary-connection context, revocation
// type 2, never a prompt.
constexpr unsigned int kCertHelperFlags = 0xFFFFFFFF;
constexpr int kCertContextId = 1;
constexpr int kRevocationType = 2;
constexpr unsigned int kCertPolicyFlags = 0xFFFFFFFF;

// Codes are 32-bit values carried in a long; compare them as such whatever the sign extension on the way.
uint32_t Code32(long code) { return static_cast<uint32_t>(code); }

}  // namespace

CFileUploader::CFileUploader(long& result, const std::string& productName, const std::string& serverUrl,
                             bool /*unused4*/, const std::string& optionalEntry, const std::string& proxyUser,
                             const std::string& proxyPassword, const std::string& clientCertificateFile,
                             const std::string& referenceCertificate, bool /*unused10*/, bool strictSendErrors,
                             unsigned short port, bool useTls)
    : m_bUseAlternateResult(false), m_pHttpSession(nullptr), m_bStrictSendErrors(strictSendErrors) {
  try {
    std::list<std::string> entries;
    if (!optionalEntry.empty()) entries.push_back(optionalEntry);
    // Kept even when the session reports a failing status: the caller tests `result` and destroys us.
    m_pHttpSession = new CHttpSessionCurl(result, serverUrl, std::string(), entries, proxyUser, proxyPassword,
                                          clientCertificateFile, productName, port, useTls, true,
                                          HTTP_CERT_TRUST_STRICT, referenceCertificate, this,
                                          &CFileUploader::ServerCertVerifyCB, kResponseBufferSize, nullptr,
                                          this);
  } catch (...) {
    // Only allocation can throw here; it leaves no session, which every operation below tolerates.
    m_pHttpSession = nullptr;
    result = HTTP_E_INIT_FAILED;
  }
}

CFileUploader::~CFileUploader() {
  if (m_pHttpSession != nullptr) {
    delete m_pHttpSession;
    m_pHttpSession = nullptr;
  }
}

// A function try block: the session reports every failure as a code, but the plug-in's promise that nothing
// thrown leaves it must not rest on that, and a post cut that way is a failed post like any other.
long CFileUploader::PostDataGetResponse(const std::string& url, const char* data, int length,
                                        std::string& response, bool zipped) try {
  static const char kFunction[] = "CFileUploader::PostDataGetResponse";
  if (m_pHttpSession == nullptr) return HTTP_E_INIT_FAILED;

  long rc = m_pHttpSession->OpenRequest(url, kRequestTypePost, kRequestFlags, kRequestSecure, zipped);
  if (rc != 0) {
    CAppLog::LogReturnCode(kFunction, kLogFile, __LINE__, APPLOG_ERROR, "CHttpSessionWinHttp::OpenRequest", rc);
    return rc;
  }
  if (zipped) m_pHttpSession->AddRequestHeader("Zip", "True");
  m_pHttpSession->SetSendMode(kSendModeWhole);

  rc = SendHttpRequest(data, length);
  if (rc != 0) {
    if (m_bStrictSendErrors) {
      // Deliberately closed twice (before the log line and again below); closing a closed request is a no-op.
      m_pHttpSession->CloseRequest();
      CAppLog::LogReturnCode(kFunction, kLogFile, __LINE__, APPLOG_ERROR, "CFileUploader::SendHttpRequest", rc);
    } else if (Code32(rc) == Code32(HTTP_E_ABORTED)) {
      // An abort is the agent's own stop, not a failure worth a log line.
      rc = FILEUPLOADER_E_SEND_ABORTED;
    } else {
      CAppLog::LogReturnCode(kFunction, kLogFile, __LINE__, APPLOG_ERROR, "CFileUploader::SendHttpRequest", rc);
    }
    m_pHttpSession->CloseRequest();
    return rc;
  }

  rc = ReadFileFromNetwork(response);
  if (rc != 0) {
    CAppLog::LogReturnCode(kFunction, kLogFile, __LINE__, APPLOG_ERROR, "CFileUploader::ReadFileFromNetwork", rc);
  }
  m_pHttpSession->CloseRequest();
  return rc;
} catch (...) {
  if (m_pHttpSession != nullptr) m_pHttpSession->CloseRequest();
  return HTTP_E_TRANSFER_FAILED;
}

long CFileUploader::SendHttpRequest(const char* data, int length) {
  if (m_pHttpSession == nullptr) return HTTP_E_INIT_FAILED;
  unsigned long detail = 0;
  long rc = m_pHttpSession->SendRequest(detail, 1, data, length, 0);
  if (rc == 0) return 0;

  // Deliberately the out-word, not the result: the transport's own code or the HTTP status is what tells an
  // operator why; the caller logs the result.
  CAppLog::LogReturnCode("CFileUploader::SendHttpRequest", kLogFile, __LINE__, APPLOG_WARNING,
                         "HttpSession::SendRequest", static_cast<long>(detail));
  if (Code32(rc) == Code32(HTTP_E_SEND_FAILED)) {
    return m_bUseAlternateResult ? FILEUPLOADER_E_SEND_FAILED_ALT : FILEUPLOADER_E_SEND_FAILED;
  }
  return rc;
}

long CFileUploader::ReadFileFromNetwork(std::string& response) {
  if (m_pHttpSession == nullptr) return HTTP_E_INIT_FAILED;
  // One read only: an answer longer than the buffer is cut, and the agent never looks past its start.
  std::unique_ptr<char[]> buffer(new (std::nothrow) char[kResponseBufferSize + 1]());
  if (!buffer) return HTTP_E_TRANSFER_FAILED;

  unsigned long bytesRead = 0;
  long rc = m_pHttpSession->ReadResponse(buffer.get(), kResponseBufferSize, bytesRead);
  if (rc != 0) {
    CAppLog::LogReturnCode("CFileUploader::ReadFileFromNetwork", kLogFile, __LINE__, APPLOG_ERROR, "ReadFile", rc);
    return rc;
  }
  if (bytesRead > kResponseBufferSize) bytesRead = kResponseBufferSize;
  buffer[bytesRead] = '\0';
  try {
    response.append(buffer.get());
  } catch (...) {
    return HTTP_E_TRANSFER_FAILED;
  }
  return 0;
}

void CFileUploader::TerminateSession() {
  if (m_pHttpSession != nullptr) m_pHttpSession->CloseRequest();
}

long CFileUploader::ServerCertVerifyCB(void* context, const x509_store_ctx_st* storeContext,
                                       eCertContextID contextId, const std::string& serverName,
                                       HTTP_CERT_TRUST_MODE trustMode, const std::string& referenceCertificate,
                                       unsigned int& verifyFlags) {
  static const char kFunction[] = "CFileUploader::ServerCertVerifyCB";
  if (context == nullptr || storeContext == nullptr) {
    CAppLog::LogDebugMessage(kFunction, kLogFile, __LINE__, APPLOG_WARNING,
                             "Unable to verify server certificate due to invalid NULL parameters.");
    return FILEUPLOADER_E_INVALID_PARAMETER;
  }
  CFileUploader* uploader = static_cast<CFileUploader*>(context);
  long rc = uploader->ServerCertVerify(storeContext, contextId, serverName, trustMode, referenceCertificate,
                                       verifyFlags);
  if (rc != 0) {
    CAppLog::LogReturnCode(kFunction, kLogFile, __LINE__, APPLOG_WARNING, "CFileUploader::ServerCertVerify", rc);
  }
  return rc;
}

long CFileUploader::ServerCertVerify(const x509_store_ctx_st* storeContext, eCertContextID /*contextId*/,
                                     const std::string& serverName, HTTP_CERT_TRUST_MODE trustMode,
                                     const std::string& referenceCertificate, unsigned int& verifyFlags) {
  static const char kFunction[] = "CFileUploader::ServerCertVerify";
  if (trustMode == HTTP_CERT_TRUST_ANY) return 0;

  if (storeContext == nullptr || serverName.empty()) {
    CAppLog::LogDebugMessage(kFunction, kLogFile, __LINE__, APPLOG_ERROR,
                             "The server certificate for the secondary connection is not trusted.");
    return FILEUPLOADER_E_INVALID_PARAMETER;
  }

  try {
    std::string userName;
    long rc = CUnixImpersonate::GetUsernameOwningProcess(getpid(), userName);
    if (rc != 0) {
      // Not fatal: the name only tells the helper on whose behalf it checks; it gets whatever was found.
      CAppLog::LogReturnCode(kFunction, kLogFile, __LINE__, APPLOG_WARNING,
                             "CUnixImpersonate::GetUsernameOwningProcess", rc);
    }

    long status = 0;
    CCertHelper certHelper(status, kCertHelperFlags, userName);
    if (status != 0) {
      CAppLog::LogReturnCode(kFunction, kLogFile, __LINE__, APPLOG_ERROR, "CCertHelper::CCertHelper", status);
      return status;
    }

    std::string certificate;
    rc = certHelper.VerifyServerCertificate(storeContext, kCertContextId, serverName, certificate, verifyFlags,
                                            kRevocationType, false, kCertPolicyFlags);
    // Only a soft result (validity dates, host name, revocation data, usage, policy, weak keys) is left to the
    // trust mode; any other, an unknown CA included, is final.
    if (!CertErrorIsSoft(static_cast<long>(Code32(rc)))) {
      // Logged on success too, with code 0: the log then shows every server the module decided to trust.
      CAppLog::LogReturnCode(kFunction, kLogFile, __LINE__, APPLOG_ERROR, "CCertHelper::VerifyServerCertificate",
                             rc);
      return rc;
    }

    switch (trustMode) {
      case HTTP_CERT_TRUST_STRICT:
        return rc;
      case HTTP_CERT_TRUST_SAME_AS_REFERENCE:
      case HTTP_CERT_TRUST_PREFER_REFERENCE:
        if (!referenceCertificate.empty() && referenceCertificate == certificate) return 0;
        if (trustMode == HTTP_CERT_TRUST_PREFER_REFERENCE) return 0;
        CAppLog::LogDebugMessage(kFunction, kLogFile, __LINE__, APPLOG_ERROR,
                                 "The server certificate for the secondary connection is different than the "
                                 "(trusted) server certificate used for the primary connection.  The server "
                                 "certificate for the secondary connection is not trusted.");
        return rc;
      default:
        return 0;
    }
  } catch (...) {
    // An allocation failure inside the check; never let it unwind into the TLS library.
    return CERT_E_INTERNAL;
  }
}
