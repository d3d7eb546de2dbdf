// The HTTP session against the local receiver over real TLS: what arrives, how each failure is reported,
// that the certificate callback decides the handshake, and that CloseRequest aborts a blocked request.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <future>
#include <memory>
#include <thread>

#include "CertHelper.h"
#include "HttpSessionCurl.h"
#include "LogCapture.h"
#include "RuntimeConfig.h"
#include "TlsTestEnv.h"

namespace {

constexpr int kPost = 15;
constexpr unsigned int kChunk = 16384;

struct SessionOptions {
  std::string url = TlsTestEnv::kPrimaryUrl;
  PFN_SERVER_CERT_VERIFY_CB callback = nullptr;
  void* callbackContext = nullptr;
  HTTP_CERT_TRUST_MODE trustMode = HTTP_CERT_TRUST_STRICT;
  unsigned short port = 443;
  PFN_HTTP_PROGRESS_CB progress = nullptr;
  void* progressContext = nullptr;
};

std::unique_ptr<CHttpSessionCurl> MakeSession(const SessionOptions& o = {}) {
  long status = -1;
  auto session = std::make_unique<CHttpSessionCurl>(status, o.url, "", std::list<std::string>{}, "", "", "", "Orvane",
                                                    o.port, true, true, o.trustMode, "", o.callbackContext, o.callback,
                                                    kChunk, o.progress, o.progressContext);
  EXPECT_EQ(status, 0);
  return session;
}

struct Exchange {
  long open = -1;
  long send = -1;
  unsigned long detail = 0;
  std::string answer;
};

// One whole request the way the uploader makes it, reading the answer to its end.
Exchange PostOnce(CHttpSessionCurl& session, const std::string& url, const std::string& body, bool zip = false) {
  Exchange x;
  x.open = session.OpenRequest(url, kPost, 0, 1, zip);
  if (x.open != 0) return x;
  if (zip) {
    EXPECT_EQ(session.AddRequestHeader("Zip", "True"), 0);
  }
  EXPECT_EQ(session.SetSendMode(1), 0);
  x.send = session.SendRequest(x.detail, 1, body.data(), static_cast<int>(body.size()), 0);
  char buffer[20000];
  unsigned long n = 0;
  while (session.ReadResponse(buffer, sizeof buffer, n) == 0 && n > 0) x.answer.append(buffer, n);
  EXPECT_EQ(session.CloseRequest(), 0);
  return x;
}

std::string AllBytes(size_t length) {
  std::string bytes(length, '\0');
  for (size_t i = 0; i < length; ++i) bytes[i] = static_cast<char>((i * 7 + i / 256) & 0xFF);
  return bytes;
}

// Checks the server through the certificate helper, as the product's callback does, and records what it saw;
// `accept` overrides the helper's verdict.
struct CertProbe {
  bool accept = false;
  int calls = 0;
  std::string serverName;
  HTTP_CERT_TRUST_MODE trustMode = HTTP_CERT_TRUST_ANY;
  long helperResult = -1;

  static long Verify(void* context, const x509_store_ctx_st* chain, eCertContextID, const std::string& serverName,
                     HTTP_CERT_TRUST_MODE trustMode, const std::string&, unsigned int& verifyFlags) {
    auto* probe = static_cast<CertProbe*>(context);
    ++probe->calls;
    probe->serverName = serverName;
    probe->trustMode = trustMode;
    long status = 0;
    CCertHelper helper(status, 0xFFFFFFFF, "tester");
    std::string der;
    probe->helperResult =
        status != 0 ? status
                    : helper.VerifyServerCertificate(chain, 1, serverName, der, verifyFlags, 2, false, 0xFFFFFFFF);
    return probe->accept ? 0 : probe->helperResult;
  }
};

}  // namespace

TEST(HttpSession, PostArrivesByteForByte) {
  TlsTestEnv env;
  struct Row {
    std::string body;
    bool zip;
  } rows[] = {{"", false}, {AllBytes(256), true}, {AllBytes(3 << 20), false}};
  auto session = MakeSession();
  for (const Row& row : rows) {
    SCOPED_TRACE(row.body.size());
    Exchange x = PostOnce(*session, TlsTestEnv::kPrimaryUrl, "data=" + row.body, row.zip);
    EXPECT_EQ(x.open, 0);
    EXPECT_EQ(x.send, 0);
    EXPECT_EQ(x.answer, TlsTestEnv::kAcceptAnswer);
  }
  auto posts = env.Posts();
  ASSERT_EQ(posts.size(), 3u);
  for (size_t i = 0; i < posts.size(); ++i) {
    EXPECT_TRUE(posts[i].body == rows[i].body) << "post " << i;
    EXPECT_EQ(posts[i].hasZip, rows[i].zip);
    if (rows[i].zip) {
      EXPECT_EQ(posts[i].zip, "True");
    }
  }
}

TEST(HttpSession, SessionPortAppliesOnlyWhenTheUrlHasNone) {
  TlsTestEnv env;
  std::vector<std::string> map = SuiteRuntime::GetConnectTo();
  map.push_back("feedback.velmar.example:8443:127.0.0.1:" + std::to_string(env.Port()));
  SuiteRuntime::SetConnectTo(map);
  SessionOptions options;
  options.port = 8443;
  auto session = MakeSession(options);
  EXPECT_EQ(PostOnce(*session, "https://feedback.velmar.example/cef/submit", "data=a").send, 0);
  EXPECT_EQ(PostOnce(*session, "https://feedback.velmar.example:443/cef/submit", "data=b").send, 0);
  EXPECT_EQ(env.Posts().size(), 2u);
}

TEST(HttpSession, PrimaryAndSecondaryCanServeDifferentCertificates) {
  TlsTestEnv primary(TestCert::eExpired, {TlsTestEnv::kPrimaryHost});
  const std::vector<std::string> primaryMap = SuiteRuntime::GetConnectTo();
  {
    TlsTestEnv secondary(TestCert::eTrusted, {TlsTestEnv::kSecondaryHost});
    auto session = MakeSession();
    EXPECT_EQ(PostOnce(*session, TlsTestEnv::kPrimaryUrl, "data=1").send, HTTP_E_CERT_REJECTED);
    EXPECT_EQ(PostOnce(*session, TlsTestEnv::kSecondaryUrl, "data=2").send, 0);
    EXPECT_TRUE(primary.Posts().empty());
    EXPECT_EQ(secondary.Posts().size(), 1u);
  }
  EXPECT_EQ(SuiteRuntime::GetConnectTo(), primaryMap);
}

TEST(HttpSession, RefusedAnswersFailWithTheirStatus) {
  TlsTestEnv env;
  auto session = MakeSession();
  struct Row {
    int status;  // 0: post to a path the server does not serve
    unsigned long detail;
  } rows[] = {{503, 503}, {302, 302}, {0, 404}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.detail);
    if (row.status != 0) env.RespondStatus(row.status);
    std::string url = row.status != 0 ? TlsTestEnv::kPrimaryUrl : "https://feedback.velmar.example/other";
    ASSERT_EQ(session->OpenRequest(url, kPost, 0, 1, false), 0);
    unsigned long detail = 0;
    EXPECT_EQ(session->SendRequest(detail, 1, "data=x", 6, 0), HTTP_E_STATUS);
    EXPECT_EQ(detail, row.detail);
    unsigned long status = 0;
    EXPECT_EQ(session->GetResponseStatus(status), 0);
    EXPECT_EQ(status, row.detail);
    EXPECT_EQ(session->CloseRequest(), 0);
  }
  EXPECT_TRUE(env.Posts().empty());
}

TEST(HttpSession, CertificateCallbackDecidesTheHandshake) {
  struct Row {
    TestCert cert;
    long helperResult;
  } rows[] = {{TestCert::eTrusted, 0},
              {TestCert::eWrongHost, CERT_E_HOST_MISMATCH},
              {TestCert::eExpired, CERT_E_EXPIRED},
              {TestCert::eUnknownCA, CERT_E_UNTRUSTED_ROOT}};
  for (const Row& row : rows) {
    TlsTestEnv env(row.cert);
    for (bool accept : {false, true}) {
      SCOPED_TRACE(TlsTestEnv::CertFile(row.cert) + (accept ? " accepted" : " checked"));
      CertProbe probe;
      probe.accept = accept;
      SessionOptions options;
      options.url = TlsTestEnv::kSecondaryUrl;
      options.callback = &CertProbe::Verify;
      options.callbackContext = &probe;
      options.trustMode = HTTP_CERT_TRUST_SAME_AS_REFERENCE;
      auto session = MakeSession(options);
      Exchange x = PostOnce(*session, TlsTestEnv::kSecondaryUrl, "data=cert");
      EXPECT_EQ(probe.calls, 1);
      EXPECT_EQ(probe.serverName, TlsTestEnv::kSecondaryHost);
      EXPECT_EQ(probe.trustMode, HTTP_CERT_TRUST_SAME_AS_REFERENCE);
      EXPECT_EQ(probe.helperResult, row.helperResult);
      bool passes = accept || row.helperResult == 0;
      EXPECT_EQ(x.send, passes ? 0 : HTTP_E_CERT_REJECTED);
      EXPECT_EQ(x.answer, passes ? TlsTestEnv::kAcceptAnswer : "");
    }
    // Exactly the accepted posts arrived.
    EXPECT_EQ(env.Posts().size(), row.helperResult == 0 ? 2u : 1u);
  }
}

TEST(HttpSession, WithoutCallbackTheTrustStoreAndHostNameDecide) {
  struct Row {
    TestCert cert;
    long send;
  } rows[] = {{TestCert::eTrusted, 0},
              {TestCert::eWrongHost, HTTP_E_CERT_REJECTED},
              {TestCert::eExpired, HTTP_E_CERT_REJECTED},
              {TestCert::eUnknownCA, HTTP_E_CERT_REJECTED}};
  for (const Row& row : rows) {
    SCOPED_TRACE(TlsTestEnv::CertFile(row.cert));
    TlsTestEnv env(row.cert);
    auto session = MakeSession();
    EXPECT_EQ(PostOnce(*session, TlsTestEnv::kPrimaryUrl, "data=plain").send, row.send);
    EXPECT_EQ(env.Posts().size(), row.send == 0 ? 1u : 0u);
  }
}

TEST(HttpSession, BrokenConnectionsFailAsSendFailures) {
  TlsTestEnv env;
  auto session = MakeSession();
  env.CloseConnection();
  Exchange dropped = PostOnce(*session, TlsTestEnv::kPrimaryUrl, "data=dropped");
  EXPECT_EQ(dropped.send, HTTP_E_SEND_FAILED);
  EXPECT_TRUE(dropped.detail == 52 || dropped.detail == 56) << dropped.detail;  // nothing / receive error

  // A port nobody listens on: taken from the system, then given back.
  int probe = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  ASSERT_EQ(bind(probe, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(getsockname(probe, reinterpret_cast<sockaddr*>(&address), &length), 0);
  close(probe);
  SuiteRuntime::SetConnectTo({"feedback.velmar.example:443:127.0.0.1:" + std::to_string(ntohs(address.sin_port))});
  Exchange refused = PostOnce(*session, TlsTestEnv::kPrimaryUrl, "data=refused");
  EXPECT_EQ(refused.send, HTTP_E_SEND_FAILED);
  EXPECT_EQ(refused.detail, 7u);  // could not connect
  EXPECT_TRUE(env.Posts().empty());
}

TEST(HttpSession, LongAnswerIsHandedOutInChunks) {
  TlsTestEnv env;
  auto session = MakeSession();
  env.RespondLongBody(50000, 20000);
  ASSERT_EQ(session->OpenRequest(TlsTestEnv::kPrimaryUrl, kPost, 0, 1, false), 0);
  unsigned long detail = 0;
  ASSERT_EQ(session->SendRequest(detail, 1, "data=long", 9, 0), 0);
  std::string answer;
  std::vector<unsigned long> pieces;
  char buffer[20000];
  unsigned long n = 0;
  while (session->ReadResponse(buffer, sizeof buffer, n) == 0 && n > 0) {
    pieces.push_back(n);
    answer.append(buffer, n);
  }
  EXPECT_EQ(pieces, (std::vector<unsigned long>{kChunk, kChunk, kChunk, 50000 - 3 * kChunk}));
  EXPECT_TRUE(answer == TlsTestEnv::LongBody(50000, 20000));
  EXPECT_EQ(session->CloseRequest(), 0);
}

TEST(HttpSession, CloseRequestFromAnotherThreadAbortsAHangingPost) {
  TlsTestEnv env;
  env.Hang();
  // The body is fully sent once the progress callback sees it all go up; the server then sits on it.
  struct Sent {
    std::promise<void> promise;
    bool signalled = false;
  } sent;
  SessionOptions options;
  options.progressContext = &sent;
  options.progress = [](void* context, unsigned long upDone, unsigned long upTotal, unsigned long, unsigned long) {
    auto* s = static_cast<Sent*>(context);
    if (!s->signalled && upTotal > 0 && upDone == upTotal) {
      s->signalled = true;
      s->promise.set_value();
    }
  };
  auto session = MakeSession(options);
  ASSERT_EQ(session->OpenRequest(TlsTestEnv::kPrimaryUrl, kPost, 0, 1, false), 0);
  auto result = std::async(std::launch::async, [&session] {
    unsigned long detail = 0;
    return session->SendRequest(detail, 1, "data=hang", 9, 0);
  });
  ASSERT_EQ(sent.promise.get_future().wait_for(std::chrono::seconds(60)), std::future_status::ready);
  EXPECT_EQ(session->CloseRequest(), 0);
  // CloseRequest waits for the sender to let go, so the answer is there at once; the bound is generous.
  ASSERT_EQ(result.wait_for(std::chrono::seconds(10)), std::future_status::ready);
  EXPECT_EQ(result.get(), HTTP_E_ABORTED);
  EXPECT_EQ(session->CloseRequest(), 0);

  // Closed by another thread before it was sent: the opener learns of the abort, nothing goes out.
  ASSERT_EQ(session->OpenRequest(TlsTestEnv::kPrimaryUrl, kPost, 0, 1, false), 0);
  std::thread([&session] { EXPECT_EQ(session->CloseRequest(), 0); }).join();
  unsigned long detail = 0;
  EXPECT_EQ(session->SendRequest(detail, 1, "data=late", 9, 0), HTTP_E_ABORTED);
  EXPECT_EQ(session->CloseRequest(), 0);
  EXPECT_TRUE(env.Posts().empty());
}

TEST(HttpSession, TransferTimeoutEndsAHangingPost) {
  TlsTestEnv env;
  env.Hang();
  auto session = MakeSession();
  EXPECT_EQ(session->SetTimeouts(0, 1000), 0);
  Exchange x = PostOnce(*session, TlsTestEnv::kPrimaryUrl, "data=slow");
  EXPECT_EQ(x.send, HTTP_E_TIMEOUT);
  EXPECT_EQ(x.detail, 28u);  // libcurl's timeout
}

TEST(HttpSession, MisuseIsReportedNotSent) {
  LogCapture log;
  auto session = MakeSession();
  unsigned long detail = 0;
  unsigned long n = 0;
  char buffer[8];
  EXPECT_EQ(session->CloseRequest(), 0);
  EXPECT_EQ(session->SendRequest(detail, 1, "data=", 5, 0), HTTP_E_NO_REQUEST);
  EXPECT_EQ(session->AddRequestHeader("Zip", "True"), HTTP_E_NO_REQUEST);
  EXPECT_EQ(session->OpenRequest("ftp://feedback.velmar.example/x", kPost, 0, 1, false), HTTP_E_INVALID_ARGUMENT);
  EXPECT_EQ(session->OpenRequest("http://feedback.velmar.example/x", kPost, 0, 1, false), HTTP_E_INVALID_ARGUMENT);
  EXPECT_EQ(session->OpenRequest(TlsTestEnv::kPrimaryUrl, 7, 0, 1, false), HTTP_E_INVALID_ARGUMENT);
  ASSERT_EQ(session->OpenRequest(TlsTestEnv::kPrimaryUrl, kPost, 0, 1, false), 0);
  EXPECT_EQ(session->OpenRequest(TlsTestEnv::kPrimaryUrl, kPost, 0, 1, false), HTTP_E_REQUEST_OPEN);
  EXPECT_EQ(session->AddRequestHeader("Bad:Name", "x"), HTTP_E_INVALID_ARGUMENT);
  EXPECT_EQ(session->AddRequestHeader("Zip", "a\r\nInjected: 1"), HTTP_E_INVALID_ARGUMENT);
  EXPECT_EQ(session->ReadResponse(buffer, sizeof buffer, n), HTTP_E_NO_RESPONSE);
  EXPECT_EQ(session->SendRequest(detail, 1, nullptr, 5, 0), HTTP_E_INVALID_ARGUMENT);
  EXPECT_EQ(session->SetSendMode(2), HTTP_E_INVALID_ARGUMENT);
  EXPECT_EQ(session->CloseRequest(), 0);

  long status = 0;
  CHttpSessionCurl bad(status, "", "", {}, "", "", "", "Orvane", 443, true, true, HTTP_CERT_TRUST_STRICT, "", nullptr,
                       nullptr, kChunk, nullptr, nullptr);
  EXPECT_EQ(status, HTTP_E_INVALID_ARGUMENT);
}
