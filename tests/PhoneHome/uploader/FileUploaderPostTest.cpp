// CFileUploader posting to the feedback receiver over real TLS: the body and "Zip" header that arrive, the
// single cut read of the answer, every failure path with its code and log lines, and stops whenever they come.
#include <gmock/gmock.h>

#include <chrono>
#include <functional>
#include <future>
#include <iterator>
#include <memory>
#include <thread>

#include "CertErrors.h"
#include "HttpErrors.h"
#include "LogCapture.h"
#include "PhoneHome/FileUploader.h"
#include "RuntimeConfig.h"
#include "SuiteCommon/http/HttpAnswer.h"
#include "TlsTestEnv.h"
#include "UploaderLog.h"
#include "WaitFor.h"

namespace {

const char kVerified[] = "CCertHelper::VerifyServerCertificate";
const char kSendFailed[] = "CFileUploader::SendHttpRequest";
const char kSessionSend[] = "HttpSession::SendRequest";

// Built the way the agent builds it, apart from `strict`.
std::unique_ptr<CFileUploader> NewUploader(long& status, bool strict = true,
                                           const std::string& url = TlsTestEnv::kPrimaryUrl) {
  return std::make_unique<CFileUploader>(status, "Orvane", url, true, "", "", "", "", "", false, strict, 443, true);
}

long Post(CFileUploader& uploader, const std::string& body, std::string& response, bool zipped = false,
          const std::string& url = TlsTestEnv::kPrimaryUrl) {
  return uploader.PostDataGetResponse(url, body.data(), static_cast<int>(body.size()), response, zipped);
}

}  // namespace

TEST(FileUploaderPost, PostsTheBodyAsGivenAndAppendsTheAnswerReadOnceAndCutAtTheFirstNul) {
  TlsTestEnv env;
  const std::string bytes("d8:\0\xff\x01 a&b=%20+", 15), big(3u << 20, '\xa5');
  struct Row {
    std::string file;  // posted as "data=" and the file
    bool zipped;
    size_t length;  // of the answer; 0: the receiver's usual answer
    long nulAt;
    size_t kept;
  } rows[] = {{"", false, 0, -1, 0},         {bytes, true, 0, -1, 0},     {big, false, 20000, -1, 16384},
              {bytes, false, 16385, -1, 16384}, {bytes, false, 300, 120, 120}, {bytes, false, 20000, 0, 0}};
  for (const Row& row : rows) {
    SCOPED_TRACE(testing::Message() << "answer of " << row.length << ", NUL at " << row.nulAt);
    if (row.length != 0) env.RespondLongBody(row.length, row.nulAt);
    LogCapture log;
    long status = -1;
    auto uploader = NewUploader(status);
    ASSERT_EQ(status, 0);
    std::string response = "kept:";
    EXPECT_EQ(Post(*uploader, "data=" + row.file, response, row.zipped), 0) << log.Dump();
    EXPECT_EQ(response, "kept:" + (row.length != 0 ? TlsTestEnv::LongBody(row.length, row.nulAt).substr(0, row.kept)
                                                   : TlsTestEnv::kAcceptAnswer));
    // The uploader's own check ran, and a clean verification is logged too.
    EXPECT_EQ(log.Lines("FileUploader"), Line('E', kVerified, 0));
  }
  std::vector<ReceivedPost> posts = env.Posts();
  ASSERT_EQ(posts.size(), std::size(rows));
  for (size_t i = 0; i < posts.size(); ++i) {
    EXPECT_TRUE(posts[i].body == rows[i].file) << i;
    EXPECT_EQ(posts[i].hasZip ? "Zip: " + posts[i].zip : "no Zip", rows[i].zipped ? "Zip: True" : "no Zip") << i;
  }

  // A session whose status failed is still the uploader's (its release is checked by ASan) and still posts to
  // a URL given with the request.
  long status = 0;
  auto uploader = NewUploader(status, true, "not a url");
  EXPECT_EQ(status, HTTP_E_INVALID_ARGUMENT);
  std::string response;
  EXPECT_EQ(Post(*uploader, "data=y", response, false, TlsTestEnv::kSecondaryUrl), 0);
  EXPECT_EQ(response, "OK");
  EXPECT_EQ(env.Posts().size(), std::size(rows) + 1);
}

// Every way a post fails, a stop included. The certificate rows come last, as the receiver keeps the
// certificate it was restarted with.
TEST(FileUploaderPost, FailuresAndStopsAreMappedAndLoggedByStrictness) {
  TlsTestEnv env;
  const std::string verified = Line('E', kVerified, 0);
  const std::string anyCurlCode = Line('W', kSessionSend + std::string(" [1-9][0-9]?"));  // libcurl's, not ours
  enum Stop { kNoStop, kBeforeOpen, kWhileHanging };  // TerminateSession from another thread
  auto refused = [&](long code, const std::string& why) {
    return why + Line('W', "CFileUploader::ServerCertVerify", code) + anyCurlCode +
           Line('E', kSendFailed, HTTP_E_CERT_REJECTED);
  };
  struct Row {
    const char* what;
    std::function<void()> arrange;
    bool strict;
    long expected;
    std::string log;  // a pattern of log.Lines("FileUploader")
    Stop stop = kNoStop;
    std::string url = TlsTestEnv::kPrimaryUrl;
  } rows[] = {
      // Strict or not, a failure other than an abort is logged and passed on as it is.
      {"status 500, strict", [&] { env.RespondStatus(500); }, true, HTTP_E_STATUS,
       verified + Line('W', kSessionSend, 500) + Line('E', kSendFailed, HTTP_E_STATUS)},
      {"closed mid-request, not strict", [&] { env.CloseConnection(); }, false, FILEUPLOADER_E_SEND_FAILED,
       verified + anyCurlCode + Line('E', kSendFailed, FILEUPLOADER_E_SEND_FAILED)},
      {"open refused: returned at once", [] {}, true, HTTP_E_INVALID_ARGUMENT,
       Line('E', "CHttpSessionWinHttp::OpenRequest", HTTP_E_INVALID_ARGUMENT), kNoStop,
       "ftp://feedback.velmar.example/cef"},
      // A stop is not forgotten when it comes before the request is open.
      {"stopped before open", [] {}, true, HTTP_E_ABORTED,
       Line('E', "CHttpSessionWinHttp::OpenRequest", HTTP_E_ABORTED), kBeforeOpen},
      // The session's line gives libcurl's CURLE_ABORTED_BY_CALLBACK; not strict, the abort is translated and
      // not logged as a failure.
      {"stopped while hanging, strict", [&] { env.Hang(); }, true, HTTP_E_ABORTED,
       verified + Line('W', kSessionSend, 42) + Line('E', kSendFailed, HTTP_E_ABORTED), kWhileHanging},
      {"stopped while hanging, not strict", [&] { env.Hang(); }, false, FILEUPLOADER_E_SEND_ABORTED,
       verified + Line('W', kSessionSend, 42), kWhileHanging},
      // No memory to keep the answer: a failed post, nothing thrown.
      {"answer cannot be kept", [] { SetHttpAnswerAllocationFailure(true); }, true, HTTP_E_TRANSFER_FAILED,
       verified + Line('W', kSessionSend, 23) + Line('E', kSendFailed, HTTP_E_TRANSFER_FAILED)},
      // Built with trust mode 0, the uploader refuses even a soft fault in the handshake; the decision on each
      // kind of certificate is its own suite's.
      {"expired", [&] { env.Restart(TestCert::eExpired); }, true, HTTP_E_CERT_REJECTED,
       refused(CERT_E_EXPIRED, "")},
      {"CA file missing",
       [&] { env.Restart(TestCert::eTrusted), SuiteRuntime::SetTrustedCAFile("/nonexistent.pem"); }, true,
       HTTP_E_CERT_REJECTED, refused(CERT_E_TRUST_STORE, Line('E', "CCertHelper::CCertHelper", CERT_E_TRUST_STORE))},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    row.arrange();
    LogCapture log;
    long status = -1;
    std::string response = "kept";
    auto uploader = NewUploader(status, row.strict);
    if (row.stop == kBeforeOpen) std::thread([&] { uploader->TerminateSession(); }).join();
    std::future<void> stopper;
    if (row.stop == kWhileHanging) {
      stopper = std::async(std::launch::async, [&] {
        // The certificate is checked inside the send, so once that is logged the request is under way.
        WaitFor([&] { return log.FindCall(kVerified) != nullptr; });
        uploader->TerminateSession();
      });
    }
    EXPECT_EQ(Post(*uploader, "data=x", response, false, row.url), row.expected);
    if (stopper.valid()) stopper.get();
    SetHttpAnswerAllocationFailure(false);
    EXPECT_EQ(response, "kept");
    EXPECT_THAT(log.Lines("FileUploader"), testing::MatchesRegex(row.log));
    // Whatever way the post failed, the session was let go: the agent's stop path does not wait for ever.
    auto stop = std::async(std::launch::async, [&uploader] { uploader->TerminateSession(); });
    ASSERT_EQ(stop.wait_for(std::chrono::seconds(10)), std::future_status::ready);
  }
  EXPECT_EQ(env.Posts().size(), 1u);  // the one whose answer could not be kept
}

// The single read fails when the session has no request to answer: logged, passed on, the answer left alone.
TEST(FileUploaderPost, ReadFailureIsLoggedAndPassedOn) {
  long status = -1;
  auto uploader = NewUploader(status);
  LogCapture log;
  std::string response = "kept";
  EXPECT_EQ(uploader->ReadFileFromNetwork(response), HTTP_E_NO_REQUEST);
  EXPECT_EQ(response, "kept");
  EXPECT_EQ(log.Lines("FileUploader"), Line('E', "ReadFile", HTTP_E_NO_REQUEST));
}
