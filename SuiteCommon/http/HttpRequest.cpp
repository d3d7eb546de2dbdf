// One request of the HTTP session: the URL policy (scheme, port, host) and the libcurl options it is made with.
#include <strings.h>

#include "AppLog.h"
#include "HttpErrors.h"
#include "RuntimeConfig.h"
#include "SuiteCommon/http/HttpSessionImpl.h"

namespace {

// How long a connection may take to be made, and the floor below which a transfer counts as stalled.
constexpr long kConnectTimeoutMs = 30000;
constexpr long kLowSpeedLimitBytesPerSecond = 1;
constexpr long kLowSpeedTimeSeconds = 60;

struct UrlFree {
  void operator()(CURLU* url) const { curl_url_cleanup(url); }
};
using UrlPtr = std::unique_ptr<CURLU, UrlFree>;

// One part of a parsed URL; false when the URL has none.
bool UrlPart(CURLU* url, CURLUPart part, std::string& out) {
  char* raw = nullptr;
  if (curl_url_get(url, part, &raw, 0) != CURLUE_OK) return false;
  out = raw;
  curl_free(raw);
  return true;
}

bool SchemeAllowed(const std::string& scheme, bool tlsRequired) {
  return strcasecmp(scheme.c_str(), "https") == 0 || (!tlsRequired && strcasecmp(scheme.c_str(), "http") == 0);
}

}  // namespace

bool AppendToList(CurlSlistPtr& list, const std::string& entry) {
  curl_slist* grown = curl_slist_append(list.get(), entry.c_str());
  if (grown == nullptr) return false;
  list.release();
  list.reset(grown);
  return true;
}

bool HttpUrlAllowed(const std::string& url, bool tlsRequired) {
  UrlPtr parsed(curl_url());
  std::string scheme;
  return parsed && curl_url_set(parsed.get(), CURLUPART_URL, url.c_str(), 0) == CURLUE_OK &&
         UrlPart(parsed.get(), CURLUPART_SCHEME, scheme) && SchemeAllowed(scheme, tlsRequired);
}

long CHttpSessionCurl::Impl::Open(const std::string& requestUrl, int secure) {
  UrlPtr parsed(curl_url());
  if (!parsed) return HTTP_E_INIT_FAILED;
  std::string scheme;
  if (curl_url_set(parsed.get(), CURLUPART_URL, requestUrl.c_str(), 0) != CURLUE_OK ||
      !UrlPart(parsed.get(), CURLUPART_SCHEME, scheme) || !UrlPart(parsed.get(), CURLUPART_HOST, host)) {
    CAppLog::LogReturnCode("OpenRequest", kHttpLogFile, __LINE__, APPLOG_ERROR, "curl_url_set",
                           HTTP_E_INVALID_ARGUMENT, "Invalid URL \"%s\"", requestUrl.c_str());
    return HTTP_E_INVALID_ARGUMENT;
  }
  const bool tlsRequired = useTls || secure != 0;
  if (!SchemeAllowed(scheme, tlsRequired)) {
    CAppLog::LogReturnCode("OpenRequest", kHttpLogFile, __LINE__, APPLOG_ERROR, "OpenRequest",
                           HTTP_E_INVALID_ARGUMENT, "URL \"%s\" does not use %s", requestUrl.c_str(),
                           tlsRequired ? "https" : "http(s)");
    return HTTP_E_INVALID_ARGUMENT;
  }
  std::string urlPort;
  if (port != 0 && !UrlPart(parsed.get(), CURLUPART_PORT, urlPort)) {
    curl_url_set(parsed.get(), CURLUPART_PORT, std::to_string(port).c_str(), 0);
  }
  if (!UrlPart(parsed.get(), CURLUPART_URL, url)) return HTTP_E_INVALID_ARGUMENT;
  if (host.size() > 2 && host.front() == '[' && host.back() == ']') host = host.substr(1, host.size() - 2);

  easy.reset(curl_easy_init());
  if (!easy) return HTTP_E_INIT_FAILED;
  // Without it libcurl waits for a "100 Continue" before sending a large body.
  if (!AppendToList(requestHeaders, "Expect:")) return HTTP_E_INIT_FAILED;
  return Configure();
}

long CHttpSessionCurl::Impl::Configure() {
  CURL* e = easy.get();
  bool ok = true;
  auto set = [&ok](CURLcode code) { ok = ok && code == CURLE_OK; };
  set(curl_easy_setopt(e, CURLOPT_URL, url.c_str()));
  set(curl_easy_setopt(e, CURLOPT_PROTOCOLS_STR, useTls ? "https" : "http,https"));
  set(curl_easy_setopt(e, CURLOPT_POST, 1L));
  set(curl_easy_setopt(e, CURLOPT_NOSIGNAL, 1L));
  set(curl_easy_setopt(e, CURLOPT_ERRORBUFFER, errorText));
  set(curl_easy_setopt(e, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1)));
  set(curl_easy_setopt(e, CURLOPT_FOLLOWLOCATION, 0L));
  // Only what the session is given counts; proxy variables of the environment do not.
  set(curl_easy_setopt(e, CURLOPT_PROXY, ""));
  if (!userAgent.empty()) set(curl_easy_setopt(e, CURLOPT_USERAGENT, userAgent.c_str()));
  // Every request makes its own connection and full handshake, so the certificate callback judges each one;
  // a reused connection or resumed TLS session would skip it.
  set(curl_easy_setopt(e, CURLOPT_FRESH_CONNECT, 1L));
  set(curl_easy_setopt(e, CURLOPT_FORBID_REUSE, 1L));
  set(curl_easy_setopt(e, CURLOPT_SSL_SESSIONID_CACHE, 0L));

  set(curl_easy_setopt(e, CURLOPT_CONNECTTIMEOUT_MS, kConnectTimeoutMs));
  set(curl_easy_setopt(e, CURLOPT_LOW_SPEED_LIMIT, kLowSpeedLimitBytesPerSecond));
  set(curl_easy_setopt(e, CURLOPT_LOW_SPEED_TIME, kLowSpeedTimeSeconds));
  // A stop during the name lookup must not wait for the resolver thread to finish its lookup.
  set(curl_easy_setopt(e, CURLOPT_QUICK_EXIT, 1L));

  timeLimitMs = SuiteRuntime::GetRequestTimeLimitMs();
  for (const std::string& entry : SuiteRuntime::GetConnectTo()) {
    if (!AppendToList(connectTo, entry)) return HTTP_E_INIT_FAILED;
  }
  if (connectTo) set(curl_easy_setopt(e, CURLOPT_CONNECT_TO, connectTo.get()));

  if (!verifyServer) {
    set(curl_easy_setopt(e, CURLOPT_SSL_VERIFYPEER, 0L));
    set(curl_easy_setopt(e, CURLOPT_SSL_VERIFYHOST, 0L));
  } else if (certCallback != nullptr) {
    // The callback is the whole verification: it replaces OpenSSL's chain check in the handshake (peer
    // verification stays on so that its refusal aborts the handshake) and checks the host name and loads the
    // trust store itself, so libcurl's host check and CA file must not decide before it.
    set(curl_easy_setopt(e, CURLOPT_SSL_VERIFYPEER, 1L));
    set(curl_easy_setopt(e, CURLOPT_SSL_VERIFYHOST, 0L));
    set(curl_easy_setopt(e, CURLOPT_CAINFO, static_cast<char*>(nullptr)));
    set(curl_easy_setopt(e, CURLOPT_CAPATH, static_cast<char*>(nullptr)));
    set(curl_easy_setopt(e, CURLOPT_SSL_CTX_FUNCTION, &Impl::OnSslContext));
    set(curl_easy_setopt(e, CURLOPT_SSL_CTX_DATA, this));
  } else {
    set(curl_easy_setopt(e, CURLOPT_SSL_VERIFYPEER, 1L));
    set(curl_easy_setopt(e, CURLOPT_SSL_VERIFYHOST, 2L));
    const std::string caFile = SuiteRuntime::GetTrustedCAFile();
    if (!caFile.empty()) {
      // The named file replaces the system store rather than adding to it.
      set(curl_easy_setopt(e, CURLOPT_CAINFO, caFile.c_str()));
      set(curl_easy_setopt(e, CURLOPT_CAPATH, static_cast<char*>(nullptr)));
    }
  }

  set(curl_easy_setopt(e, CURLOPT_WRITEFUNCTION, &HttpAnswer::OnBody));
  set(curl_easy_setopt(e, CURLOPT_WRITEDATA, &answer));
  if (!ok) {
    CAppLog::LogReturnCode("OpenRequest", kHttpLogFile, __LINE__, APPLOG_ERROR, "curl_easy_setopt",
                           HTTP_E_SETUP_FAILED, "libcurl refused an option for %s", url.c_str());
    return HTTP_E_SETUP_FAILED;
  }
  return 0;
}
