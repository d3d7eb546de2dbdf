// CFileUploader posting to the feedback receiver over real TLS: the body and "Zip" header that arrive, the
// single cut read of the answer, refused certificates, and every send failure path with its code and log.
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <thread>

#include "CertErrors.h"
#include "HttpErrors.h"
#include "LogCapture.h"
#include "PhoneHome/FileUploader.h"
#include "TlsTestEnv.h"

namespace {

// libcurl's CURLE_ABORTED_BY_CALLBACK: the session's detail word for an abort.
constexpr long kCurlAborted = 42;

// Built the way the agent builds it, apart from `strict`.
std::unique_ptr<CFileUploader> NewUploader(long& status, bool strict = true,
                                           const std::string& url = TlsTestEnv::kPrimaryUrl) {
  return std::make_unique<CFileUploader>(status, "Orvane", url, true, "", "", "", "", "", false, strict, 443,
                                         true);
}

long Post(CFileUploader& uploader, const std::string& body, std::string& response, bool zipped = false,
          const std::string& url = TlsTestEnv::kPrimaryUrl) {
  return uploader.PostDataGetResponse(url, body.data(), static_cast<int>(body.size()), response, zipped);
}

size_t CountOwnRecords(const LogCapture& log) {
  size_t n = 0;
  for (const LogRecord& r : log.Records()) n += r.file == "FileUploader";
  return n;
}

}  // namespace

TEST(FileUploaderPost, PostsTheBodyAsGivenAndAppendsTheAnswer) {
  TlsTestEnv env;
  const std::string body = std::string("data=d8:\0\xff\x01 a&b=%20+", 20);
  for (bool zipped : {false, true}) {
    SCOPED_TRACE(zipped ? "zipped" : "plain");
    LogCapture log;
    long status = -1;
    auto uploader = NewUploader(status);
    ASSERT_EQ(status, 0);
    uploader->TerminateSession();  // nothing open yet: must not spoil the post that follows
    std::string response = "kept:";
    EXPECT_EQ(Post(*uploader, body, response, zipped), 0) << log.Dump();
    EXPECT_EQ(response, "kept:OK");
    // A clean verification is logged too, with code 0; nothing else is.
    const LogRecord* verified = log.FindCall("CCertHelper::VerifyServerCertificate");
    ASSERT_NE(verified, nullptr) << log.Dump();
    EXPECT_EQ(verified->code, 0);
    EXPECT_EQ(verified->importance, LOG_ERROR);
    EXPECT_EQ(CountOwnRecords(log), 1u) << log.Dump();
  }
  std::vector<ReceivedPost> posts = env.Posts();
  ASSERT_EQ(posts.size(), 2u);
  EXPECT_EQ(posts[0].body, body.substr(5));
  EXPECT_FALSE(posts[0].hasZip);
  EXPECT_EQ(posts[1].body, body.substr(5));
  EXPECT_TRUE(posts[1].hasZip);
  EXPECT_EQ(posts[1].zip, "True");
}

TEST(FileUploaderPost, AnswerIsReadOnceAndCutAtTheFirstNul) {
  TlsTestEnv env;
  struct Row {
    size_t length;
    long nulAt;
    size_t kept;
  } rows[] = {{20000, -1, 16384}, {16384, -1, 16384}, {16385, -1, 16384},
              {300, 120, 120},    {20000, 0, 0},      {20000, 17000, 16384}};
  for (const Row& row : rows) {
    SCOPED_TRACE(testing::Message() << "length " << row.length << " nul at " << row.nulAt);
    env.RespondLongBody(row.length, row.nulAt);
    long status = -1;
    auto uploader = NewUploader(status);
    std::string response;
    EXPECT_EQ(Post(*uploader, "data=x", response), 0);
    EXPECT_EQ(response, TlsTestEnv::LongBody(row.length, row.nulAt).substr(0, row.kept));
  }
}

TEST(FileUploaderPost, RefusesServerCertificatesThatFailTheCheck) {
  // Mode 0 refuses every failure; only a hard one is logged by the check itself, as it is not a soft result.
  struct Row {
    TestCert cert;
    long certCode;
    bool hard;
  } rows[] = {{TestCert::eUnknownCA, CERT_E_UNTRUSTED_ROOT, true},
              {TestCert::eWrongHost, CERT_E_HOST_MISMATCH, false},
              {TestCert::eExpired, CERT_E_EXPIRED, false}};
  for (const Row& row : rows) {
    SCOPED_TRACE(testing::Message() << std::hex << row.certCode);
    TlsTestEnv env(row.cert);
    LogCapture log;
    long status = -1;
    auto uploader = NewUploader(status);
    std::string response;
    EXPECT_EQ(Post(*uploader, "data=secret", response), HTTP_E_CERT_REJECTED) << log.Dump();
    EXPECT_EQ(response, "");
    EXPECT_TRUE(env.Posts().empty());

    const LogRecord* refused = log.FindCall("CFileUploader::ServerCertVerify");
    ASSERT_NE(refused, nullptr) << log.Dump();
    EXPECT_EQ(refused->code, row.certCode);
    EXPECT_EQ(refused->importance, LOG_WARNING);
    const LogRecord* checked = log.FindCall("CCertHelper::VerifyServerCertificate");
    EXPECT_EQ(checked != nullptr, row.hard) << log.Dump();
    if (checked != nullptr) {
      EXPECT_EQ(checked->code, row.certCode);
    }
    const LogRecord* send = log.FindCall("CFileUploader::SendHttpRequest");
    ASSERT_NE(send, nullptr);
    EXPECT_EQ(send->code, HTTP_E_CERT_REJECTED);
  }
}

TEST(FileUploaderPost, SendFailuresAreMappedAndLoggedByStrictness) {
  TlsTestEnv env;
  struct Row {
    const char* what;
    std::function<void()> arrange;
    bool strict;
    long expected;
    long detail;  // the out-word logged for "HttpSession::SendRequest"; 0: any libcurl code
  } rows[] = {
      {"status 500, strict", [&] { env.RespondStatus(500); }, true, HTTP_E_STATUS, 500},
      {"status 403, not strict", [&] { env.RespondStatus(403); }, false, HTTP_E_STATUS, 403},
      {"closed mid-request, strict", [&] { env.CloseConnection(); }, true, FILEUPLOADER_E_SEND_FAILED, 0},
      {"closed mid-request, not strict", [&] { env.CloseConnection(); }, false, FILEUPLOADER_E_SEND_FAILED, 0},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    row.arrange();
    LogCapture log;
    long status = -1;
    auto uploader = NewUploader(status, row.strict);
    std::string response;
    EXPECT_EQ(Post(*uploader, "data=x", response), row.expected) << log.Dump();
    EXPECT_EQ(response, "");

    const LogRecord* session = log.FindCall("HttpSession::SendRequest");
    ASSERT_NE(session, nullptr) << log.Dump();
    EXPECT_EQ(session->importance, LOG_WARNING);
    if (row.detail != 0) {
      EXPECT_EQ(session->code, row.detail);
    } else {
      EXPECT_TRUE(session->code > 0 && session->code < 100) << session->code;
    }
    const LogRecord* send = log.FindCall("CFileUploader::SendHttpRequest");
    ASSERT_NE(send, nullptr) << log.Dump();
    EXPECT_EQ(send->code, row.expected);
    EXPECT_EQ(send->importance, LOG_ERROR);
    EXPECT_EQ(log.FindCall("CFileUploader::ReadFileFromNetwork"), nullptr);
  }
  EXPECT_TRUE(env.Posts().empty());
}

TEST(FileUploaderPost, TerminateSessionAbortsAHangingPostFromAnotherThread) {
  TlsTestEnv env;
  for (bool strict : {true, false}) {
    SCOPED_TRACE(strict ? "strict" : "not strict");
    env.Hang();
    LogCapture log;
    long status = -1;
    auto uploader = NewUploader(status, strict);
    std::string response;
    auto post = std::async(std::launch::async, [&] { return Post(*uploader, "data=x", response); });
    // The certificate is checked inside the send, so once that is logged the request is under way.
    for (int i = 0; i < 3000 && log.FindCall("CCertHelper::VerifyServerCertificate") == nullptr; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ASSERT_NE(log.FindCall("CCertHelper::VerifyServerCertificate"), nullptr) << log.Dump();

    uploader->TerminateSession();
    // The server would hang for minutes; a bound far above the expected fraction of a second cannot flake.
    ASSERT_EQ(post.wait_for(std::chrono::seconds(5)), std::future_status::ready);
    long rc = post.get();
    const LogRecord* session = log.FindCall("HttpSession::SendRequest");
    ASSERT_NE(session, nullptr) << log.Dump();
    EXPECT_EQ(session->code, kCurlAborted);
    const LogRecord* send = log.FindCall("CFileUploader::SendHttpRequest");
    if (strict) {
      EXPECT_EQ(rc, HTTP_E_ABORTED);
      ASSERT_NE(send, nullptr);
      EXPECT_EQ(send->code, HTTP_E_ABORTED);
    } else {
      // Not strict: the abort is translated and not logged as a failure.
      EXPECT_EQ(rc, FILEUPLOADER_E_SEND_ABORTED);
      EXPECT_EQ(send, nullptr) << log.Dump();
    }
    uploader.reset();
  }
}

TEST(FileUploaderPost, OpenFailureIsReturnedAtOnce) {
  LogCapture log;
  long status = -1;
  auto uploader = NewUploader(status);
  std::string response = "kept";
  EXPECT_EQ(Post(*uploader, "data=x", response, false, "ftp://feedback.velmar.example/cef"),
            HTTP_E_INVALID_ARGUMENT);
  EXPECT_EQ(response, "kept");
  const LogRecord* open = log.FindCall("CHttpSessionWinHttp::OpenRequest");
  ASSERT_NE(open, nullptr) << log.Dump();
  EXPECT_EQ(open->code, HTTP_E_INVALID_ARGUMENT);
  EXPECT_EQ(open->importance, LOG_ERROR);
  EXPECT_EQ(CountOwnRecords(log), 1u) << log.Dump();
}

TEST(FileUploaderPost, FailedSessionStatusStillLeavesAnOwnedWorkingSession) {
  TlsTestEnv env;
  long status = 0;
  auto uploader = NewUploader(status, true, "not a url");
  EXPECT_EQ(status, HTTP_E_INVALID_ARGUMENT);
  // The session was kept: it still posts to a URL given with the request. Its release is checked by ASan.
  std::string response;
  EXPECT_EQ(Post(*uploader, "data=y", response, false, TlsTestEnv::kSecondaryUrl), 0);
  EXPECT_EQ(response, "OK");
  ASSERT_EQ(env.Posts().size(), 1u);
}
