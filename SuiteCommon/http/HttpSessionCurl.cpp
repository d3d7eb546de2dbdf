// The HTTP session's operations and its cross-thread stop: one request at a time, guarded so that a stop from
// another thread reaches a transfer in progress, sticks for the session's life, and no exception gets out.
#include "HttpSessionCurl.h"

#include <cstring>
#include <exception>
#include <optional>

#include "AppLog.h"
#include "HttpErrors.h"
#include "SuiteCommon/http/HttpSessionImpl.h"

namespace {

constexpr int kRequestTypePost = 15;
constexpr int kSendModeWhole = 1;
// What is kept of an answer when the caller names no limit.
constexpr size_t kDefaultResponseLimit = 64u << 20;

// libcurl is set up once per process; the OpenSSL back end is asked for because only it hands the
// handshake's SSL_CTX to the certificate callback.
bool GlobalInit() {
  static const bool ready = [] {
    curl_global_sslset(CURLSSLBACKEND_OPENSSL, nullptr, nullptr);
    if (curl_global_init(CURL_GLOBAL_DEFAULT) != CURLE_OK) return false;
    const curl_version_info_data* info = curl_version_info(CURLVERSION_NOW);
    return info != nullptr && info->ssl_version != nullptr && strncmp(info->ssl_version, "OpenSSL", 7) == 0;
  }();
  return ready;
}

bool HasLineBreak(const std::string& text) { return text.find_first_of("\r\n") != std::string::npos; }

// Runs one operation of the session so that nothing it throws (allocation, a failed lock) reaches the caller:
// the operation fails with `code` instead.
template <typename Operation>
long Guarded(const char* function, long code, Operation&& operation) noexcept {
  try {
    return operation();
  } catch (const std::exception& e) {
    CAppLog::LogReturnCode(function, kHttpLogFile, __LINE__, APPLOG_ERROR, function, code, "%s", e.what());
  } catch (...) {
    CAppLog::LogReturnCode(function, kHttpLogFile, __LINE__, APPLOG_ERROR, function, code);
  }
  return code;
}

// Holds the session busy for the sending thread and lets go on every way out, so a stop waiting for the
// transfer is never left waiting. Made under the session's lock.
class BusyScope {
 public:
  explicit BusyScope(CHttpSessionCurl::Impl& s) : s_(s) {
    s_.busy = true;
    s_.busyThread = std::this_thread::get_id();
  }
  ~BusyScope() {
    {
      std::lock_guard<std::mutex> lock(s_.mutex);
      s_.busy = false;
    }
    s_.idle.notify_all();
  }
  BusyScope(const BusyScope&) = delete;
  BusyScope& operator=(const BusyScope&) = delete;

 private:
  CHttpSessionCurl::Impl& s_;
};

}  // namespace

CHttpSessionCurl::CHttpSessionCurl(long& status, const std::string& serverUrl, const std::string& proxyUrl,
                                   const std::list<std::string>& /*proxyBypass*/, const std::string& /*proxyUser*/,
                                   const std::string& /*proxyPassword*/, const std::string& clientCertificateFile,
                                   const std::string& productName, unsigned short port, bool useTls,
                                   bool verifyServer, HTTP_CERT_TRUST_MODE trustMode,
                                   const std::string& referenceCertificate, void* certCallbackContext,
                                   PFN_SERVER_CERT_VERIFY_CB certCallback, unsigned int responseLimit,
                                   PFN_HTTP_PROGRESS_CB progressCallback, void* /*progressContext*/) {
  static const char kFunction[] = "CHttpSessionCurl";
  status = Guarded(kFunction, HTTP_E_INIT_FAILED, [&]() -> long {
    m_impl = std::make_unique<Impl>();
    Impl& s = *m_impl;
    s.serverUrl = serverUrl;
    s.userAgent = productName;
    s.port = port;
    s.useTls = useTls;
    s.verifyServer = verifyServer;
    s.trustMode = trustMode;
    s.referenceCertificate = referenceCertificate;
    s.certContext = certCallbackContext;
    s.certCallback = certCallback;
    s.responseLimit = responseLimit != 0 ? responseLimit : kDefaultResponseLimit;
    if (!GlobalInit()) {
      CAppLog::LogReturnCode(kFunction, kHttpLogFile, __LINE__, APPLOG_ERROR, "curl_global_init", HTTP_E_TLS_BACKEND,
                             "libcurl is not available with its OpenSSL back end");
      return HTTP_E_TLS_BACKEND;
    }
    s.multi.reset(curl_multi_init());
    if (!s.multi) {
      CAppLog::LogReturnCode(kFunction, kHttpLogFile, __LINE__, APPLOG_ERROR, "curl_multi_init", HTTP_E_INIT_FAILED);
      return HTTP_E_INIT_FAILED;
    }
    if (!proxyUrl.empty() || !clientCertificateFile.empty() || progressCallback != nullptr) {
      CAppLog::LogReturnCode(kFunction, kHttpLogFile, __LINE__, APPLOG_ERROR, "CHttpSessionCurl",
                             HTTP_E_INVALID_ARGUMENT,
                             "A proxy, a client certificate or a progress callback is not supported");
      return HTTP_E_INVALID_ARGUMENT;
    }
    if (!HttpUrlAllowed(serverUrl, useTls)) {
      CAppLog::LogReturnCode(kFunction, kHttpLogFile, __LINE__, APPLOG_ERROR, "curl_url_set", HTTP_E_INVALID_ARGUMENT,
                             "Invalid server URL \"%s\"", serverUrl.c_str());
      return HTTP_E_INVALID_ARGUMENT;
    }
    return 0;
  });
}

CHttpSessionCurl::~CHttpSessionCurl() { CloseRequest(); }

long CHttpSessionCurl::OpenRequest(const std::string& url, int requestType, unsigned int /*flags*/, int secure,
                                   bool /*zipped*/) {
  // The body arrives in its final form (the caller compresses it and names that in its own header), and no
  // flag changes how a request is made, so flags and zipped need nothing here.
  return Guarded(__func__, HTTP_E_INIT_FAILED, [&]() -> long {
    if (!m_impl || !m_impl->multi) return HTTP_E_INIT_FAILED;
    Impl& s = *m_impl;
    std::lock_guard<std::mutex> lock(s.mutex);
    if (s.stopped) return HTTP_E_ABORTED;
    if (s.easy) return HTTP_E_REQUEST_OPEN;
    if (requestType != kRequestTypePost) {
      CAppLog::LogReturnCode("OpenRequest", kHttpLogFile, __LINE__, APPLOG_ERROR, "OpenRequest",
                             HTTP_E_INVALID_ARGUMENT, "Unsupported request type %d", requestType);
      return HTTP_E_INVALID_ARGUMENT;
    }
    s.opener = std::this_thread::get_id();
    const long result = s.Open(url.empty() ? s.serverUrl : url, secure);
    if (result != 0) s.ResetRequest();
    return result;
  });
}

long CHttpSessionCurl::CloseRequest() {
  return Guarded(__func__, 0, [&]() -> long {
    if (!m_impl) return 0;
    Impl& s = *m_impl;
    std::unique_lock<std::mutex> lock(s.mutex);
    const bool ownRequest = s.easy && !s.busy && s.opener == std::this_thread::get_id();
    if (!ownRequest) s.stopped = true;
    if (s.busy) {
      if (s.multi) curl_multi_wakeup(s.multi.get());
      // From a callback of the running transfer: it ends as soon as that callback returns, and the caller
      // closes the request afterwards.
      if (s.busyThread == std::this_thread::get_id()) return 0;
      s.idle.wait(lock, [&s] { return !s.busy; });
    }
    s.ResetRequest();
    return 0;
  });
}

void CHttpSessionCurl::Impl::ResetRequest() {
  easy.reset();
  requestHeaders.reset();
  connectTo.reset();
  url.clear();
  host.clear();
  body.clear();
  ClearResponse();
}

void CHttpSessionCurl::Impl::ClearResponse() {
  haveResponse = false;
  answer.Reset(responseLimit);
  certRejected = false;
  certResult = 0;
  errorText[0] = '\0';
}

long CHttpSessionCurl::AddRequestHeader(const std::string& name, const std::string& value) {
  return Guarded(__func__, HTTP_E_INIT_FAILED, [&]() -> long {
    if (name.empty() || name.find(':') != std::string::npos || HasLineBreak(name) || HasLineBreak(value)) {
      return HTTP_E_INVALID_ARGUMENT;
    }
    if (!m_impl) return HTTP_E_INIT_FAILED;
    std::lock_guard<std::mutex> lock(m_impl->mutex);
    if (!m_impl->easy) return m_impl->stopped ? HTTP_E_ABORTED : HTTP_E_NO_REQUEST;
    if (m_impl->busy) return HTTP_E_BUSY;
    // "Name;" is libcurl's spelling of a header with an empty value ("Name:" would remove the header).
    if (!AppendToList(m_impl->requestHeaders, value.empty() ? name + ";" : name + ": " + value)) {
      return HTTP_E_INIT_FAILED;
    }
    return 0;
  });
}

long CHttpSessionCurl::SetSendMode(int mode) { return mode == kSendModeWhole ? 0 : HTTP_E_INVALID_ARGUMENT; }

long CHttpSessionCurl::SendRequest(unsigned long& detail, int finalPart, const char* data, int length,
                                   unsigned int timeoutMs) {
  detail = 0;
  return Guarded(__func__, HTTP_E_TRANSFER_FAILED, [&]() -> long {
    if (finalPart == 0 || length < 0 || (data == nullptr && length > 0)) return HTTP_E_INVALID_ARGUMENT;
    if (!m_impl) return HTTP_E_INIT_FAILED;
    Impl& s = *m_impl;
    std::optional<BusyScope> busy;
    {
      std::lock_guard<std::mutex> lock(s.mutex);
      if (s.stopped) return HTTP_E_ABORTED;
      if (!s.easy) return HTTP_E_NO_REQUEST;
      if (s.busy) return HTTP_E_BUSY;
      s.body.assign(data != nullptr ? data : "", static_cast<size_t>(length));
      busy.emplace(s);
    }
    return s.Perform(detail, timeoutMs);
  });
}

long CHttpSessionCurl::ReadResponse(char* buffer, unsigned long capacity, unsigned long& bytesRead) {
  bytesRead = 0;
  return Guarded(__func__, HTTP_E_TRANSFER_FAILED, [&]() -> long {
    if (buffer == nullptr && capacity > 0) return HTTP_E_INVALID_ARGUMENT;
    if (!m_impl) return HTTP_E_INIT_FAILED;
    std::lock_guard<std::mutex> lock(m_impl->mutex);
    Impl& s = *m_impl;
    if (!s.easy) return s.stopped ? HTTP_E_ABORTED : HTTP_E_NO_REQUEST;
    if (s.busy || !s.haveResponse) return HTTP_E_NO_RESPONSE;
    bytesRead = s.answer.Read(buffer, capacity);
    return 0;
  });
}
