// The state of one CHttpSessionCurl, shared by the files that make up the session: the request (options),
// the transfer loop, the answer and the TLS hook each work on it; the session's own file guards it.
#pragma once

#include <curl/curl.h>

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "HttpSessionCurl.h"
#include "SuiteCommon/http/HttpAnswer.h"

struct CurlEasyFree {
  void operator()(CURL* easy) const { curl_easy_cleanup(easy); }
};
struct CurlMultiFree {
  void operator()(CURLM* multi) const { curl_multi_cleanup(multi); }
};
struct CurlSlistFree {
  void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
using CurlEasyPtr = std::unique_ptr<CURL, CurlEasyFree>;
using CurlMultiPtr = std::unique_ptr<CURLM, CurlMultiFree>;
using CurlSlistPtr = std::unique_ptr<curl_slist, CurlSlistFree>;

// Appends to a list held by a CurlSlistPtr; false (and the list untouched) when libcurl cannot allocate.
bool AppendToList(CurlSlistPtr& list, const std::string& entry);

// Whether `url` parses and its scheme is https (or, when TLS is not required, http).
bool HttpUrlAllowed(const std::string& url, bool tlsRequired);

constexpr const char* kHttpLogFile = "HttpSessionCurl";

struct CHttpSessionCurl::Impl {
  // Fixed by the constructor.
  std::string serverUrl;
  std::string userAgent;
  unsigned short port = 0;
  bool useTls = true;
  bool verifyServer = true;
  HTTP_CERT_TRUST_MODE trustMode = HTTP_CERT_TRUST_STRICT;
  std::string referenceCertificate;
  void* certContext = nullptr;
  PFN_SERVER_CERT_VERIFY_CB certCallback = nullptr;
  size_t responseLimit = 0;
  CurlMultiPtr multi;

  // Guards everything below against a stop from another thread. While `busy`, only the sending thread
  // touches the request; a stop then only raises `stopped`, wakes the transfer and waits for `idle`.
  std::mutex mutex;
  std::condition_variable idle;
  bool busy = false;
  std::thread::id busyThread;
  std::thread::id opener;  // the thread whose CloseRequest ends the open request rather than stopping it
  // Set by a stop and never cleared; read without the lock by the transfer loop.
  std::atomic<bool> stopped{false};

  // The open request (HttpRequest.cpp).
  CurlEasyPtr easy;
  CurlSlistPtr requestHeaders;
  CurlSlistPtr connectTo;
  std::string url;
  std::string host;  // the URL's host name: the name the certificate must carry
  std::string body;
  unsigned long timeLimitMs = 0;  // the runtime's request time limit when the request was opened
  char errorText[CURL_ERROR_SIZE] = {};

  // What came back (HttpTransfer.cpp, HttpAnswer.cpp, HttpTlsHook.cpp).
  bool haveResponse = false;
  HttpAnswer answer;
  bool certRejected = false;
  long certResult = 0;

  // Parses `requestUrl` under the session's URL policy and makes the request's handle with every option set.
  long Open(const std::string& requestUrl, int secure);
  // Runs the transfer of the open request to its end, a stop or a time bound.
  long Perform(unsigned long& detail, unsigned int timeoutMs);
  void ResetRequest();
  void ClearResponse();

  // Installs the certificate callback as the handshake's chain verification (HttpTlsHook.cpp).
  static CURLcode OnSslContext(CURL* easy, void* sslContext, void* self);

 private:
  long Configure();
  long Finish(CURLcode transfer, unsigned long& detail);
};
