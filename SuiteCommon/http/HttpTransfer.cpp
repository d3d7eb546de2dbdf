// The transfer loop of the HTTP session: the request's handle driven through the session's multi handle, so
// that a stop from another thread wakes it at once, and the outcome mapped to the session's codes.
#include <algorithm>

#include "AppLog.h"
#include "HttpErrors.h"
#include "SuiteCommon/http/HttpSessionImpl.h"

namespace {

// The longest one wait of the loop lasts when nothing happens; a stop cuts it short.
constexpr int kPollIntervalMs = 1000;

long MapTransferResult(CURLcode result) {
  switch (result) {
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_CONNECT:
    case CURLE_PARTIAL_FILE:
    case CURLE_GOT_NOTHING:
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_SSL_CIPHER:
    case CURLE_SSL_SHUTDOWN_FAILED:
      return HTTP_E_SEND_FAILED;
    case CURLE_OPERATION_TIMEDOUT:
      return HTTP_E_TIMEOUT;
    case CURLE_PEER_FAILED_VERIFICATION:
      return HTTP_E_CERT_REJECTED;
    case CURLE_SSL_CACERT_BADFILE:
      return HTTP_E_SETUP_FAILED;
    default:
      return HTTP_E_TRANSFER_FAILED;
  }
}

}  // namespace

long CHttpSessionCurl::Impl::Perform(unsigned long& detail, unsigned int timeoutMs) {
  CURL* e = easy.get();
  ClearResponse();
  const unsigned long limitMs = timeoutMs != 0 ? std::min<unsigned long>(timeoutMs, timeLimitMs) : timeLimitMs;
  const bool ok =
      curl_easy_setopt(e, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size())) == CURLE_OK &&
      curl_easy_setopt(e, CURLOPT_POSTFIELDS, body.data()) == CURLE_OK &&
      curl_easy_setopt(e, CURLOPT_HTTPHEADER, requestHeaders.get()) == CURLE_OK &&
      curl_easy_setopt(e, CURLOPT_TIMEOUT_MS, static_cast<long>(limitMs)) == CURLE_OK;
  if (!ok || curl_multi_add_handle(multi.get(), e) != CURLM_OK) {
    CAppLog::LogReturnCode("SendRequest", kHttpLogFile, __LINE__, APPLOG_ERROR, "curl_easy_setopt",
                           HTTP_E_SETUP_FAILED, "Cannot start the request to %s", url.c_str());
    return HTTP_E_SETUP_FAILED;
  }

  CURLcode transfer = CURLE_OK;
  bool done = false;
  bool multiFailed = false;
  while (!done && !stopped) {
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
    if (done || stopped) break;
    if (curl_multi_poll(multi.get(), nullptr, 0, kPollIntervalMs, nullptr) != CURLM_OK) {
      multiFailed = true;
      break;
    }
  }
  // With CURLOPT_QUICK_EXIT this does not wait for a name lookup still running.
  curl_multi_remove_handle(multi.get(), e);
  if (stopped && !done) {
    detail = CURLE_ABORTED_BY_CALLBACK;
    CAppLog::LogDebugMessage("SendRequest", kHttpLogFile, __LINE__, APPLOG_INFO, "Request to %s aborted",
                             url.c_str());
    return HTTP_E_ABORTED;
  }
  if (multiFailed) {
    CAppLog::LogReturnCode("SendRequest", kHttpLogFile, __LINE__, APPLOG_ERROR, "curl_multi_perform",
                           HTTP_E_TRANSFER_FAILED, "Transfer to %s failed", url.c_str());
    return HTTP_E_TRANSFER_FAILED;
  }
  return Finish(transfer, detail);
}

long CHttpSessionCurl::Impl::Finish(CURLcode transfer, unsigned long& detail) {
  detail = static_cast<unsigned long>(transfer);
  if (certRejected) {
    CAppLog::LogReturnCode("SendRequest", kHttpLogFile, __LINE__, APPLOG_WARNING, "ServerCertVerifyCB", certResult,
                           "Server certificate of %s refused", host.c_str());
    return HTTP_E_CERT_REJECTED;
  }
  if (answer.OutOfMemory()) {
    CAppLog::LogReturnCode("SendRequest", kHttpLogFile, __LINE__, APPLOG_ERROR, "SendRequest",
                           HTTP_E_TRANSFER_FAILED, "No memory left to keep the answer of %s", url.c_str());
    return HTTP_E_TRANSFER_FAILED;
  }
  // Ended by the answer's own limit: as complete as its reader will see it.
  if (transfer == CURLE_WRITE_ERROR && answer.Full()) transfer = CURLE_OK;
  if (transfer != CURLE_OK) {
    const long code = MapTransferResult(transfer);
    CAppLog::LogReturnCode("SendRequest", kHttpLogFile, __LINE__, APPLOG_WARNING, "curl_multi_perform", code,
                           "Request to %s failed: %s (libcurl %d)", url.c_str(),
                           errorText[0] != '\0' ? errorText : curl_easy_strerror(transfer), static_cast<int>(transfer));
    return code;
  }
  detail = 0;
  long status = 0;
  curl_easy_getinfo(easy.get(), CURLINFO_RESPONSE_CODE, &status);
  haveResponse = true;
  if (status < 200 || status > 299) {
    detail = static_cast<unsigned long>(status);
    CAppLog::LogReturnCode("SendRequest", kHttpLogFile, __LINE__, APPLOG_WARNING, "SendRequest", HTTP_E_STATUS,
                           "Server %s answered with status %ld", url.c_str(), status);
    return HTTP_E_STATUS;
  }
  return 0;
}
