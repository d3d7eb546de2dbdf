// The runtime's HTTP session on libcurl and OpenSSL: one easy handle per request, driven through the
// session's multi handle so that CloseRequest on another thread can wake and end a blocked transfer, with the
// server-certificate callback installed as OpenSSL's certificate verification of the handshake.
#include "HttpSessionCurl.h"

#include <curl/curl.h>
#include <openssl/ssl.h>
#include <openssl/x509_vfy.h>
#include <strings.h>

#include <algorithm>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>
#include <utility>

#include "AppLog.h"
#include "HttpErrors.h"
#include "RuntimeConfig.h"

// Request types of OpenRequest. The product posts with 15; 1 fetches.
enum : int {
  HTTP_REQUEST_GET = 1,
  HTTP_REQUEST_POST = 15,
};

// Defaults that let a silent server fail a request that nobody aborts.
constexpr unsigned int kDefaultConnectTimeoutMs = 30000;
constexpr long kLowSpeedLimitBytesPerSecond = 1;
constexpr long kLowSpeedTimeSeconds = 60;
// An answer above this size is refused rather than buffered.
constexpr size_t kMaxResponseBytes = 64u << 20;
// How long one wait of the transfer loop lasts when nothing happens; CloseRequest cuts it short.
constexpr int kPollIntervalMs = 1000;

namespace {

constexpr const char* kLogFile = "HttpSessionCurl";

struct EasyCleanup {
  void operator()(CURL* easy) const { curl_easy_cleanup(easy); }
};
struct MultiCleanup {
  void operator()(CURLM* multi) const { curl_multi_cleanup(multi); }
};
struct SlistFree {
  void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
struct UrlCleanup {
  void operator()(CURLU* url) const { curl_url_cleanup(url); }
};
struct CurlFree {
  void operator()(char* text) const { curl_free(text); }
};
using EasyPtr = std::unique_ptr<CURL, EasyCleanup>;
using MultiPtr = std::unique_ptr<CURLM, MultiCleanup>;
using SlistPtr = std::unique_ptr<curl_slist, SlistFree>;
using UrlPtr = std::unique_ptr<CURLU, UrlCleanup>;
using CurlText = std::unique_ptr<char, CurlFree>;

// Appends to a list held by a SlistPtr; false (and the list untouched) when libcurl cannot allocate.
bool Append(SlistPtr& list, const std::string& entry) {
  curl_slist* grown = curl_slist_append(list.get(), entry.c_str());
  if (grown == nullptr) return false;
  list.release();
  list.reset(grown);
  return true;
}

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

long MapTransferResult(CURLcode result) {
  switch (result) {
    case CURLE_COULDNT_RESOLVE_PROXY:
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_CONNECT:
    case CURLE_PARTIAL_FILE:
    case CURLE_GOT_NOTHING:
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_CIPHER:
    case CURLE_SSL_SHUTDOWN_FAILED:
    case CURLE_HTTP2:
    case CURLE_HTTP2_STREAM:
    case CURLE_PROXY:
      return HTTP_E_SEND_FAILED;
    case CURLE_OPERATION_TIMEDOUT:
      return HTTP_E_TIMEOUT;
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
      return HTTP_E_CERT_REJECTED;
    case CURLE_SSL_CACERT_BADFILE:
    case CURLE_SSL_CRL_BADFILE:
    case CURLE_SSL_ENGINE_NOTFOUND:
    case CURLE_SSL_ENGINE_SETFAILED:
    case CURLE_SSL_ENGINE_INITFAILED:
      return HTTP_E_SETUP_FAILED;
    default:
      return HTTP_E_TRANSFER_FAILED;
  }
}

// One part of a parsed URL; false when the URL has none.
bool UrlPart(CURLU* url, CURLUPart part, std::string& out) {
  char* raw = nullptr;
  if (curl_url_get(url, part, &raw, 0) != CURLUE_OK) return false;
  CurlText text(raw);
  out = text.get();
  return true;
}

bool SchemeAllowed(const std::string& scheme, bool tlsRequired) {
  return strcasecmp(scheme.c_str(), "https") == 0 || (!tlsRequired && strcasecmp(scheme.c_str(), "http") == 0);
}

bool HasLineBreak(const std::string& text) { return text.find_first_of("\r\n") != std::string::npos; }

}  // namespace

struct CHttpSessionCurl::Impl {
  // Fixed by the constructor.
  std::string serverUrl;
  std::string proxyUrl;
  std::string noProxy;
  std::string proxyUser;
  std::string proxyPassword;
  std::string clientCertificateFile;
  std::string userAgent;
  unsigned short port = 0;
  bool useTls = true;
  bool verifyServer = true;
  HTTP_CERT_TRUST_MODE trustMode = HTTP_CERT_TRUST_STRICT;
  std::string referenceCertificate;
  void* certContext = nullptr;
  PFN_SERVER_CERT_VERIFY_CB certCallback = nullptr;
  unsigned int chunkSize = 0;
  PFN_HTTP_PROGRESS_CB progressCallback = nullptr;
  void* progressContext = nullptr;
  MultiPtr multi;

  // Guards everything below against CloseRequest from another thread. While `busy`, only the sending thread
  // touches the request; CloseRequest then only raises `abort` and waits for the sender to let go.
  std::mutex mutex;
  std::condition_variable idle;
  bool busy = false;
  std::thread::id busyThread;
  std::atomic<bool> abort{false};
  // The thread that opened the request, and whether another thread closed it since: the opener's next call
  // then learns that its request was aborted, not that it never had one.
  std::thread::id opener;
  bool closedElsewhere = false;

  // Session-wide settings the caller may change between requests.
  int sendMode = 1;
  unsigned int connectTimeoutMs = kDefaultConnectTimeoutMs;
  unsigned int transferTimeoutMs = 0;

  // The open request.
  EasyPtr easy;
  SlistPtr requestHeaders;
  SlistPtr connectTo;
  std::string url;
  std::string host;  // the URL's host name: the name the certificate must carry
  int requestType = 0;
  std::string body;
  size_t bodySent = 0;  // chunked mode: how much of `body` libcurl has read
  char errorText[CURL_ERROR_SIZE] = {};

  // The answer.
  bool haveResponse = false;
  long status = 0;
  std::vector<std::pair<std::string, std::string>> responseHeaders;
  std::string responseBody;
  size_t readOffset = 0;
  bool responseTooLarge = false;
  bool certRejected = false;
  long certResult = 0;

  long Open(const std::string& requestUrl, int type, int secure);
  long Configure();
  long Perform(unsigned long& detail, unsigned int timeoutMs);
  long Finish(CURLcode transfer, bool aborted, unsigned long& detail);
  void ResetRequest();
  // Forgets the answer (and how much of the body went out) before a request is sent or dropped.
  void ClearResponse();

  static size_t OnBody(char* data, size_t size, size_t count, void* self);
  static size_t OnHeader(char* data, size_t size, size_t count, void* self);
  static size_t OnReadBody(char* buffer, size_t size, size_t count, void* self);
  static int OnProgress(void* self, curl_off_t downTotal, curl_off_t downNow, curl_off_t upTotal, curl_off_t upNow);
  static CURLcode OnSslContext(CURL* easy, void* sslContext, void* self);
  static int OnVerifyChain(X509_STORE_CTX* storeContext, void* self);
};

CHttpSessionCurl::CHttpSessionCurl(long& status, const std::string& serverUrl, const std::string& proxyUrl,
                                   const std::list<std::string>& proxyBypass, const std::string& proxyUser,
                                   const std::string& proxyPassword, const std::string& clientCertificateFile,
                                   const std::string& productName, unsigned short port, bool useTls, bool verifyServer,
                                   HTTP_CERT_TRUST_MODE trustMode, const std::string& referenceCertificate,
                                   void* certCallbackContext, PFN_SERVER_CERT_VERIFY_CB certCallback,
                                   unsigned int responseChunkSize, PFN_HTTP_PROGRESS_CB progressCallback,
                                   void* progressContext)
    : m_impl(new Impl) {
  Impl& s = *m_impl;
  s.serverUrl = serverUrl;
  s.proxyUrl = proxyUrl;
  for (const std::string& host : proxyBypass) s.noProxy += (s.noProxy.empty() ? "" : ",") + host;
  s.proxyUser = proxyUser;
  s.proxyPassword = proxyPassword;
  s.clientCertificateFile = clientCertificateFile;
  s.userAgent = productName;
  s.port = port;
  s.useTls = useTls;
  s.verifyServer = verifyServer;
  s.trustMode = trustMode;
  s.referenceCertificate = referenceCertificate;
  s.certContext = certCallbackContext;
  s.certCallback = certCallback;
  s.chunkSize = responseChunkSize;
  s.progressCallback = progressCallback;
  s.progressContext = progressContext;

  status = 0;
  if (!GlobalInit()) {
    status = HTTP_E_TLS_BACKEND;
    CAppLog::LogReturnCode(__func__, kLogFile, __LINE__, APPLOG_ERROR, "curl_global_init", status,
                           "libcurl is not available with its OpenSSL back end");
    return;
  }
  s.multi.reset(curl_multi_init());
  if (!s.multi) {
    status = HTTP_E_INIT_FAILED;
    CAppLog::LogReturnCode(__func__, kLogFile, __LINE__, APPLOG_ERROR, "curl_multi_init", status);
    return;
  }
  UrlPtr parsed(curl_url());
  std::string scheme;
  if (!parsed || curl_url_set(parsed.get(), CURLUPART_URL, serverUrl.c_str(), 0) != CURLUE_OK ||
      !UrlPart(parsed.get(), CURLUPART_SCHEME, scheme) || !SchemeAllowed(scheme, useTls)) {
    status = HTTP_E_INVALID_ARGUMENT;
    CAppLog::LogReturnCode(__func__, kLogFile, __LINE__, APPLOG_ERROR, "curl_url_set", status, "Invalid server URL \"%s\"",
                           serverUrl.c_str());
  }
}

CHttpSessionCurl::~CHttpSessionCurl() { CloseRequest(); }

long CHttpSessionCurl::OpenRequest(const std::string& url, int requestType, unsigned int /*flags*/, int secure,
                                   bool /*zipped*/) {
  // The body arrives in its final form (the caller compresses it and names that in its own header), and no
  // flag changes how a request is made, so flags and zipped need nothing here.
  std::lock_guard<std::mutex> lock(m_impl->mutex);
  if (!m_impl->multi) return HTTP_E_INIT_FAILED;
  if (m_impl->easy) return HTTP_E_REQUEST_OPEN;
  m_impl->opener = std::this_thread::get_id();
  m_impl->closedElsewhere = false;
  long result = m_impl->Open(url.empty() ? m_impl->serverUrl : url, requestType, secure);
  if (result != 0) m_impl->ResetRequest();
  return result;
}

long CHttpSessionCurl::Impl::Open(const std::string& requestUrl, int type, int secure) {
  if (type != HTTP_REQUEST_GET && type != HTTP_REQUEST_POST) {
    CAppLog::LogReturnCode("OpenRequest", kLogFile, __LINE__, APPLOG_ERROR, "OpenRequest", HTTP_E_INVALID_ARGUMENT,
                           "Unsupported request type %d", type);
    return HTTP_E_INVALID_ARGUMENT;
  }
  UrlPtr parsed(curl_url());
  if (!parsed) return HTTP_E_INIT_FAILED;
  std::string scheme;
  if (curl_url_set(parsed.get(), CURLUPART_URL, requestUrl.c_str(), 0) != CURLUE_OK ||
      !UrlPart(parsed.get(), CURLUPART_SCHEME, scheme) || !UrlPart(parsed.get(), CURLUPART_HOST, host)) {
    CAppLog::LogReturnCode("OpenRequest", kLogFile, __LINE__, APPLOG_ERROR, "curl_url_set", HTTP_E_INVALID_ARGUMENT,
                           "Invalid URL \"%s\"", requestUrl.c_str());
    return HTTP_E_INVALID_ARGUMENT;
  }
  bool tlsRequired = useTls || secure != 0;
  if (!SchemeAllowed(scheme, tlsRequired)) {
    CAppLog::LogReturnCode("OpenRequest", kLogFile, __LINE__, APPLOG_ERROR, "OpenRequest", HTTP_E_INVALID_ARGUMENT,
                           "URL \"%s\" does not use %s", requestUrl.c_str(), tlsRequired ? "https" : "http(s)");
    return HTTP_E_INVALID_ARGUMENT;
  }
  std::string urlPort;
  if (port != 0 && !UrlPart(parsed.get(), CURLUPART_PORT, urlPort)) {
    curl_url_set(parsed.get(), CURLUPART_PORT, std::to_string(port).c_str(), 0);
  }
  if (!UrlPart(parsed.get(), CURLUPART_URL, url)) return HTTP_E_INVALID_ARGUMENT;
  if (host.size() > 2 && host.front() == '[' && host.back() == ']') host = host.substr(1, host.size() - 2);

  requestType = type;
  easy.reset(curl_easy_init());
  if (!easy) return HTTP_E_INIT_FAILED;
  // Without it libcurl waits for a "100 Continue" before sending a large body.
  if (!Append(requestHeaders, "Expect:")) return HTTP_E_INIT_FAILED;
  return Configure();
}

long CHttpSessionCurl::Impl::Configure() {
  CURL* e = easy.get();
  bool ok = true;
  auto set = [&ok](CURLcode code) { ok = ok && code == CURLE_OK; };
  set(curl_easy_setopt(e, CURLOPT_URL, url.c_str()));
  set(curl_easy_setopt(e, CURLOPT_PROTOCOLS_STR, useTls ? "https" : "http,https"));
  set(curl_easy_setopt(e, CURLOPT_NOSIGNAL, 1L));
  set(curl_easy_setopt(e, CURLOPT_ERRORBUFFER, errorText));
  set(curl_easy_setopt(e, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1)));
  set(curl_easy_setopt(e, CURLOPT_FOLLOWLOCATION, 0L));
  // Every request makes its own connection and full handshake, so the certificate callback judges each one;
  // a reused connection or resumed TLS session would skip it.
  set(curl_easy_setopt(e, CURLOPT_FRESH_CONNECT, 1L));
  set(curl_easy_setopt(e, CURLOPT_FORBID_REUSE, 1L));
  set(curl_easy_setopt(e, CURLOPT_SSL_SESSIONID_CACHE, 0L));
  set(curl_easy_setopt(e, CURLOPT_LOW_SPEED_LIMIT, kLowSpeedLimitBytesPerSecond));
  set(curl_easy_setopt(e, CURLOPT_LOW_SPEED_TIME, kLowSpeedTimeSeconds));
  if (!userAgent.empty()) set(curl_easy_setopt(e, CURLOPT_USERAGENT, userAgent.c_str()));
  if (requestType == HTTP_REQUEST_POST) {
    set(curl_easy_setopt(e, CURLOPT_POST, 1L));
  } else {
    set(curl_easy_setopt(e, CURLOPT_HTTPGET, 1L));
  }

  for (const std::string& entry : SuiteRuntime::GetConnectTo()) {
    if (!Append(connectTo, entry)) return HTTP_E_INIT_FAILED;
  }
  if (connectTo) set(curl_easy_setopt(e, CURLOPT_CONNECT_TO, connectTo.get()));
  const std::string caFile = SuiteRuntime::GetTrustedCAFile();
  if (!caFile.empty()) {
    // The named file replaces the system store rather than adding to it.
    set(curl_easy_setopt(e, CURLOPT_CAINFO, caFile.c_str()));
    set(curl_easy_setopt(e, CURLOPT_CAPATH, static_cast<char*>(nullptr)));
  }
  if (!proxyUrl.empty()) {
    set(curl_easy_setopt(e, CURLOPT_PROXY, proxyUrl.c_str()));
    if (!noProxy.empty()) set(curl_easy_setopt(e, CURLOPT_NOPROXY, noProxy.c_str()));
    if (!proxyUser.empty()) {
      set(curl_easy_setopt(e, CURLOPT_PROXYUSERNAME, proxyUser.c_str()));
      set(curl_easy_setopt(e, CURLOPT_PROXYPASSWORD, proxyPassword.c_str()));
    }
  } else {
    // Only what the session is given counts; proxy variables of the environment do not.
    set(curl_easy_setopt(e, CURLOPT_PROXY, ""));
  }
  if (!clientCertificateFile.empty()) {
    set(curl_easy_setopt(e, CURLOPT_SSLCERT, clientCertificateFile.c_str()));
    set(curl_easy_setopt(e, CURLOPT_SSLKEY, clientCertificateFile.c_str()));
  }

  if (!verifyServer) {
    set(curl_easy_setopt(e, CURLOPT_SSL_VERIFYPEER, 0L));
    set(curl_easy_setopt(e, CURLOPT_SSL_VERIFYHOST, 0L));
  } else if (certCallback != nullptr) {
    // The callback is the whole verification: it replaces OpenSSL's chain check in the handshake (peer
    // verification stays on so that its refusal aborts the handshake) and checks the host name itself, so
    // libcurl's own host check must not overrule a callback that accepts.
    set(curl_easy_setopt(e, CURLOPT_SSL_VERIFYPEER, 1L));
    set(curl_easy_setopt(e, CURLOPT_SSL_VERIFYHOST, 0L));
    set(curl_easy_setopt(e, CURLOPT_SSL_CTX_FUNCTION, &Impl::OnSslContext));
    set(curl_easy_setopt(e, CURLOPT_SSL_CTX_DATA, this));
  } else {
    set(curl_easy_setopt(e, CURLOPT_SSL_VERIFYPEER, 1L));
    set(curl_easy_setopt(e, CURLOPT_SSL_VERIFYHOST, 2L));
  }

  set(curl_easy_setopt(e, CURLOPT_WRITEFUNCTION, &Impl::OnBody));
  set(curl_easy_setopt(e, CURLOPT_WRITEDATA, this));
  set(curl_easy_setopt(e, CURLOPT_HEADERFUNCTION, &Impl::OnHeader));
  set(curl_easy_setopt(e, CURLOPT_HEADERDATA, this));
  set(curl_easy_setopt(e, CURLOPT_XFERINFOFUNCTION, &Impl::OnProgress));
  set(curl_easy_setopt(e, CURLOPT_XFERINFODATA, this));
  set(curl_easy_setopt(e, CURLOPT_NOPROGRESS, 0L));
  if (chunkSize != 0) {
    long bufferSize = std::clamp<long>(static_cast<long>(chunkSize), 1024L, static_cast<long>(CURL_MAX_READ_SIZE));
    set(curl_easy_setopt(e, CURLOPT_BUFFERSIZE, bufferSize));
  }
  if (!ok) {
    CAppLog::LogReturnCode("OpenRequest", kLogFile, __LINE__, APPLOG_ERROR, "curl_easy_setopt", HTTP_E_SETUP_FAILED,
                           "libcurl refused an option for %s", url.c_str());
    return HTTP_E_SETUP_FAILED;
  }
  return 0;
}

long CHttpSessionCurl::CloseRequest() {
  std::unique_lock<std::mutex> lock(m_impl->mutex);
  if (m_impl->busy) {
    m_impl->abort = true;
    if (m_impl->multi) curl_multi_wakeup(m_impl->multi.get());
    // From a callback of the running transfer: it ends as soon as that callback returns, and the caller
    // closes the request afterwards.
    if (m_impl->busyThread == std::this_thread::get_id()) return 0;
    m_impl->idle.wait(lock, [this] { return !m_impl->busy; });
  }
  if (m_impl->easy && m_impl->opener != std::this_thread::get_id()) m_impl->closedElsewhere = true;
  m_impl->ResetRequest();
  return 0;
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
  bodySent = 0;
  haveResponse = false;
  status = 0;
  responseHeaders.clear();
  responseBody.clear();
  readOffset = 0;
  responseTooLarge = false;
  certRejected = false;
  certResult = 0;
  errorText[0] = '\0';
}

long CHttpSessionCurl::AddRequestHeader(const std::string& name, const std::string& value) {
  if (name.empty() || name.find(':') != std::string::npos || HasLineBreak(name) || HasLineBreak(value)) {
    return HTTP_E_INVALID_ARGUMENT;
  }
  std::lock_guard<std::mutex> lock(m_impl->mutex);
  if (!m_impl->easy) return HTTP_E_NO_REQUEST;
  if (m_impl->busy) return HTTP_E_BUSY;
  // "Name;" is libcurl's spelling of a header with an empty value ("Name:" would remove the header).
  if (!Append(m_impl->requestHeaders, value.empty() ? name + ";" : name + ": " + value)) return HTTP_E_INIT_FAILED;
  return 0;
}

long CHttpSessionCurl::SetSendMode(int mode) {
  if (mode != 0 && mode != 1) return HTTP_E_INVALID_ARGUMENT;
  std::lock_guard<std::mutex> lock(m_impl->mutex);
  m_impl->sendMode = mode;
  return 0;
}

long CHttpSessionCurl::SetTimeouts(unsigned int connectMs, unsigned int transferMs) {
  std::lock_guard<std::mutex> lock(m_impl->mutex);
  m_impl->connectTimeoutMs = connectMs != 0 ? connectMs : kDefaultConnectTimeoutMs;
  m_impl->transferTimeoutMs = transferMs;
  return 0;
}

long CHttpSessionCurl::SendRequest(unsigned long& detail, int finalPart, const char* data, int length,
                                   unsigned int timeoutMs) {
  detail = 0;
  if (length < 0 || (data == nullptr && length > 0)) return HTTP_E_INVALID_ARGUMENT;
  {
    std::lock_guard<std::mutex> lock(m_impl->mutex);
    if (!m_impl->easy) return m_impl->closedElsewhere ? HTTP_E_ABORTED : HTTP_E_NO_REQUEST;
    if (m_impl->busy) return HTTP_E_BUSY;
    if (length > 0) m_impl->body.append(data, static_cast<size_t>(length));
    // Parts before the final one are only collected; the request goes out with the last part.
    if (finalPart == 0) return 0;
    m_impl->busy = true;
    m_impl->busyThread = std::this_thread::get_id();
    m_impl->abort = false;
  }
  long result = m_impl->Perform(detail, timeoutMs);
  {
    std::lock_guard<std::mutex> lock(m_impl->mutex);
    m_impl->busy = false;
  }
  m_impl->idle.notify_all();
  return result;
}

long CHttpSessionCurl::Impl::Perform(unsigned long& detail, unsigned int timeoutMs) {
  CURL* e = easy.get();
  ClearResponse();

  bool ok = true;
  auto set = [&ok](CURLcode code) { ok = ok && code == CURLE_OK; };
  if (requestType == HTTP_REQUEST_POST) {
    if (sendMode == 1) {
      set(curl_easy_setopt(e, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size())));
      set(curl_easy_setopt(e, CURLOPT_POSTFIELDS, body.data()));
    } else {
      set(curl_easy_setopt(e, CURLOPT_POSTFIELDS, static_cast<char*>(nullptr)));
      set(curl_easy_setopt(e, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(-1)));
      set(curl_easy_setopt(e, CURLOPT_READFUNCTION, &Impl::OnReadBody));
      set(curl_easy_setopt(e, CURLOPT_READDATA, this));
    }
  }
  set(curl_easy_setopt(e, CURLOPT_HTTPHEADER, requestHeaders.get()));
  set(curl_easy_setopt(e, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(connectTimeoutMs)));
  set(curl_easy_setopt(e, CURLOPT_TIMEOUT_MS, static_cast<long>(timeoutMs != 0 ? timeoutMs : transferTimeoutMs)));
  if (!ok || curl_multi_add_handle(multi.get(), e) != CURLM_OK) {
    CAppLog::LogReturnCode("SendRequest", kLogFile, __LINE__, APPLOG_ERROR, "curl_easy_setopt", HTTP_E_SETUP_FAILED,
                           "Cannot start the request to %s", url.c_str());
    return HTTP_E_SETUP_FAILED;
  }

  CURLcode transfer = CURLE_OK;
  bool done = false;
  bool multiFailed = false;
  while (!done && !abort) {
    int running = 0;
    if (curl_multi_perform(multi.get(), &running) != CURLM_OK) {
      multiFailed = true;
      break;
    }
    int queued = 0;
    while (CURLMsg* message = curl_multi_info_read(multi.get(), &queued)) {
      if (message->msg == CURLMSG_DONE && message->easy_handle == e) {
        transfer = message->data.result;
        done = true;
      }
    }
    if (done || abort) break;
    if (curl_multi_poll(multi.get(), nullptr, 0, kPollIntervalMs, nullptr) != CURLM_OK) {
      multiFailed = true;
      break;
    }
  }
  curl_multi_remove_handle(multi.get(), e);
  if (multiFailed) {
    CAppLog::LogReturnCode("SendRequest", kLogFile, __LINE__, APPLOG_ERROR, "curl_multi_perform", HTTP_E_TRANSFER_FAILED,
                           "Transfer to %s failed", url.c_str());
    return HTTP_E_TRANSFER_FAILED;
  }
  bool aborted = abort && (!done || transfer == CURLE_ABORTED_BY_CALLBACK);
  return Finish(transfer, aborted, detail);
}

long CHttpSessionCurl::Impl::Finish(CURLcode transfer, bool aborted, unsigned long& detail) {
  if (aborted) {
    detail = CURLE_ABORTED_BY_CALLBACK;
    CAppLog::LogDebugMessage("SendRequest", kLogFile, __LINE__, APPLOG_INFO, "Request to %s aborted", url.c_str());
    return HTTP_E_ABORTED;
  }
  detail = static_cast<unsigned long>(transfer);
  long code = 0;
  if (certRejected) {
    code = HTTP_E_CERT_REJECTED;
    CAppLog::LogReturnCode("SendRequest", kLogFile, __LINE__, APPLOG_WARNING, "ServerCertVerifyCB", certResult,
                           "Server certificate of %s refused", host.c_str());
    return code;
  }
  if (responseTooLarge) {
    code = HTTP_E_RESPONSE_TOO_LARGE;
    CAppLog::LogReturnCode("SendRequest", kLogFile, __LINE__, APPLOG_WARNING, "SendRequest", code,
                           "Answer of %s exceeds %zu bytes", url.c_str(), kMaxResponseBytes);
    return code;
  }
  if (transfer != CURLE_OK) {
    code = MapTransferResult(transfer);
    CAppLog::LogReturnCode("SendRequest", kLogFile, __LINE__, APPLOG_WARNING, "curl_multi_perform", code,
                           "Request to %s failed: %s (libcurl %d)", url.c_str(),
                           errorText[0] != '\0' ? errorText : curl_easy_strerror(transfer), static_cast<int>(transfer));
    return code;
  }
  curl_easy_getinfo(easy.get(), CURLINFO_RESPONSE_CODE, &status);
  haveResponse = true;
  if (status < 200 || status > 299) {
    detail = static_cast<unsigned long>(status);
    CAppLog::LogReturnCode("SendRequest", kLogFile, __LINE__, APPLOG_WARNING, "SendRequest", HTTP_E_STATUS,
                           "Server %s answered with status %ld", url.c_str(), status);
    return HTTP_E_STATUS;
  }
  return 0;
}

long CHttpSessionCurl::GetResponseStatus(unsigned long& httpStatus) {
  std::lock_guard<std::mutex> lock(m_impl->mutex);
  if (!m_impl->easy) return HTTP_E_NO_REQUEST;
  if (m_impl->busy || !m_impl->haveResponse) return HTTP_E_NO_RESPONSE;
  httpStatus = static_cast<unsigned long>(m_impl->status);
  return 0;
}

long CHttpSessionCurl::GetResponseHeader(const std::string& name, std::string& value) {
  std::lock_guard<std::mutex> lock(m_impl->mutex);
  if (!m_impl->easy) return HTTP_E_NO_REQUEST;
  if (m_impl->busy || !m_impl->haveResponse) return HTTP_E_NO_RESPONSE;
  for (const auto& header : m_impl->responseHeaders) {
    if (strcasecmp(header.first.c_str(), name.c_str()) == 0) {
      value = header.second;
      return 0;
    }
  }
  return HTTP_E_HEADER_NOT_FOUND;
}

long CHttpSessionCurl::ReadResponse(char* buffer, unsigned long capacity, unsigned long& bytesRead) {
  bytesRead = 0;
  if (buffer == nullptr && capacity > 0) return HTTP_E_INVALID_ARGUMENT;
  std::lock_guard<std::mutex> lock(m_impl->mutex);
  Impl& s = *m_impl;
  if (!s.easy) return s.closedElsewhere ? HTTP_E_ABORTED : HTTP_E_NO_REQUEST;
  if (s.busy || !s.haveResponse) return HTTP_E_NO_RESPONSE;
  size_t piece = std::min<size_t>(capacity, s.responseBody.size() - s.readOffset);
  if (s.chunkSize != 0) piece = std::min<size_t>(piece, s.chunkSize);
  if (piece > 0) memcpy(buffer, s.responseBody.data() + s.readOffset, piece);
  s.readOffset += piece;
  bytesRead = piece;
  return 0;
}

size_t CHttpSessionCurl::Impl::OnBody(char* data, size_t size, size_t count, void* self) {
  auto* s = static_cast<Impl*>(self);
  size_t bytes = size * count;
  if (s->responseBody.size() + bytes > kMaxResponseBytes) {
    s->responseTooLarge = true;
    return 0;  // makes libcurl end the transfer
  }
  s->responseBody.append(data, bytes);
  return bytes;
}

size_t CHttpSessionCurl::Impl::OnHeader(char* data, size_t size, size_t count, void* self) {
  auto* s = static_cast<Impl*>(self);
  size_t bytes = size * count;
  std::string line(data, bytes);
  while (!line.empty() && (line.back() == '\r' || line.back() == '\n')) line.pop_back();
  if (line.compare(0, 5, "HTTP/") == 0) {
    // A new status line: headers of an interim answer are dropped.
    s->responseHeaders.clear();
  } else if (size_t colon = line.find(':'); colon != std::string::npos && colon > 0) {
    size_t start = line.find_first_not_of(" \t", colon + 1);
    s->responseHeaders.emplace_back(line.substr(0, colon),
                                    start == std::string::npos ? std::string() : line.substr(start));
  }
  return bytes;
}

size_t CHttpSessionCurl::Impl::OnReadBody(char* buffer, size_t size, size_t count, void* self) {
  auto* s = static_cast<Impl*>(self);
  size_t piece = std::min(size * count, s->body.size() - s->bodySent);
  memcpy(buffer, s->body.data() + s->bodySent, piece);
  s->bodySent += piece;
  return piece;
}

int CHttpSessionCurl::Impl::OnProgress(void* self, curl_off_t downTotal, curl_off_t downNow, curl_off_t upTotal,
                                       curl_off_t upNow) {
  auto* s = static_cast<Impl*>(self);
  if (s->abort) return 1;
  if (s->progressCallback != nullptr) {
    s->progressCallback(s->progressContext, static_cast<unsigned long>(upNow), static_cast<unsigned long>(upTotal),
                        static_cast<unsigned long>(downNow), static_cast<unsigned long>(downTotal));
  }
  return s->abort ? 1 : 0;
}

CURLcode CHttpSessionCurl::Impl::OnSslContext(CURL* /*easy*/, void* sslContext, void* self) {
  SSL_CTX_set_cert_verify_callback(static_cast<SSL_CTX*>(sslContext), &Impl::OnVerifyChain, self);
  return CURLE_OK;
}

// OpenSSL's chain verification for the handshake: the session's callback decides. Its acceptance leaves the
// store context's result at X509_V_OK, which is what libcurl checks after the handshake.
int CHttpSessionCurl::Impl::OnVerifyChain(X509_STORE_CTX* storeContext, void* self) {
  auto* s = static_cast<Impl*>(self);
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
