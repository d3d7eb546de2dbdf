// The HTTP session against the local receiver over real TLS: what arrives, how each failure is reported,
// that the certificate callback decides the handshake, and that CloseRequest aborts a blocked request.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <thread>

#include "CertHelper.h"
#include "HttpSessionCurl.h"
#include "RuntimeConfig.h"
#include "TlsTestEnv.h"

namespace {

constexpr int kPost = 15;
constexpr unsigned int kChunk = 16384;
const std::string kUrl = TlsTestEnv::kPrimaryUrl;

// The trust mode reaches only the callback, which must be handed it unchanged.
std::unique_ptr<CHttpSessionCurl> MakeSession(PFN_SERVER_CERT_VERIFY_CB callback = nullptr, void* context = nullptr,
                                              unsigned short port = 443, PFN_HTTP_PROGRESS_CB progress = nullptr,
                                              void* progressContext = nullptr) {
  long status = -1;
  auto session = std::make_unique<CHttpSessionCurl>(status, kUrl, "", std::list<std::string>{}, "", "", "", "Orvane",
                                                    port, true, true, HTTP_CERT_TRUST_SAME_AS_REFERENCE, "", context,
                                                    callback, kChunk, progress, progressContext);
  EXPECT_EQ(status, 0);
  return session;
}

struct Exchange {
  long send = -1;  // or the code of a failed open
  unsigned long detail = 0;
  unsigned long status = 0;  // stays 0 when no answer came
  std::string answer;
  std::vector<unsigned long> pieces;  // the size of each ReadResponse
};

// One whole request the way the uploader makes it, reading the answer to its end.
Exchange PostOnce(CHttpSessionCurl& session, const std::string& url, const std::string& body, bool zip = false) {
  Exchange x;
  if ((x.send = session.OpenRequest(url, kPost, 0, 1, zip)) != 0) return x;
  EXPECT_EQ(zip ? session.AddRequestHeader("Zip", "True") : 0, 0);
  session.SetSendMode(1);
  x.send = session.SendRequest(x.detail, 1, body.data(), static_cast<int>(body.size()), 0);
  session.GetResponseStatus(x.status);
  char buffer[20000];
  for (unsigned long n = 0; session.ReadResponse(buffer, sizeof buffer, n) == 0 && n > 0;) {
    x.pieces.push_back(n);
    x.answer.append(buffer, n);
  }
  EXPECT_EQ(session.CloseRequest(), 0);
  return x;
}

std::string AllBytes(size_t length) {
  std::string bytes(length, '\0');
  for (size_t i = 0; i < length; ++i) bytes[i] = static_cast<char>((i * 7 + i / 256) & 0xFF);
  return bytes;
}

// A port nobody listens on: taken from the system, then given back.
unsigned short DeadPort() {
  int probe = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
  socklen_t length = sizeof address;
  bind(probe, reinterpret_cast<sockaddr*>(&address), length);
  getsockname(probe, reinterpret_cast<sockaddr*>(&address), &length);
  close(probe);
  return ntohs(address.sin_port);
}

// A certificate callback that checks the chain with the certificate helper, as the product's does, and notes
// each call as "<host> <trust mode> <the helper's verdict>;". `accept` overrides the verdict.
struct CertProbe {
  bool accept = false;
  std::string calls;

  static long Verify(void* self, const x509_store_ctx_st* chain, eCertContextID, const std::string& name,
                     HTTP_CERT_TRUST_MODE mode, const std::string&, unsigned int& flags) {
    long status = 0;
    CCertHelper helper(status, 0xFFFFFFFF, "tester");
    std::string der;
    if (status == 0) status = helper.VerifyServerCertificate(chain, 1, name, der, flags, 2, false, 0xFFFFFFFF);
    auto* probe = static_cast<CertProbe*>(self);
    probe->calls += name + " " + std::to_string(mode) + " " + std::to_string(status) + ";";
    return probe->accept ? 0 : status;
  }
};

}  // namespace

TEST(HttpSession, PostArrivesByteForByteAndTheAnswerComesBackInChunks) {
  TlsTestEnv env;
  struct Row {
    std::string body;
    bool zip;
  } rows[] = {{"", false}, {AllBytes(256), true}, {AllBytes(3 << 20), false}};
  auto session = MakeSession();
  for (const Row& row : rows) {
    Exchange x = PostOnce(*session, kUrl, "data=" + row.body, row.zip);
    EXPECT_EQ(x.send, 0) << row.body.size();
    EXPECT_EQ(x.answer, TlsTestEnv::kAcceptAnswer) << row.body.size();
  }
  env.RespondLongBody(50000, 20000);
  Exchange x = PostOnce(*session, kUrl, "data=");
  EXPECT_EQ(x.pieces, (std::vector<unsigned long>{kChunk, kChunk, kChunk, 50000 - 3 * kChunk}));
  EXPECT_TRUE(x.answer == TlsTestEnv::LongBody(50000, 20000));
  auto posts = env.Posts();
  ASSERT_EQ(posts.size(), 4u);
  for (size_t i = 0; i < 3; ++i) {
    EXPECT_TRUE(posts[i].body == rows[i].body) << i;
    EXPECT_EQ(posts[i].hasZip ? "Zip: " + posts[i].zip : "no Zip", rows[i].zip ? "Zip: True" : "no Zip") << i;
  }
}

// Without a callback OpenSSL's chain check decides, on each request's own host.
TEST(HttpSession, PrimaryAndSecondaryCanServeDifferentCertificates) {
  TlsTestEnv primary(TestCert::eExpired, {TlsTestEnv::kPrimaryHost});
  const std::vector<std::string> primaryMap = SuiteRuntime::GetConnectTo();
  {
    TlsTestEnv secondary(TestCert::eTrusted, {TlsTestEnv::kSecondaryHost});
    auto session = MakeSession();
    EXPECT_EQ(PostOnce(*session, kUrl, "data=1").send, HTTP_E_CERT_REJECTED);
    EXPECT_EQ(PostOnce(*session, TlsTestEnv::kSecondaryUrl, "data=2").send, 0);
    EXPECT_TRUE(primary.Posts().empty());
    EXPECT_EQ(secondary.Posts().size(), 1u);
  }
  EXPECT_EQ(SuiteRuntime::GetConnectTo(), primaryMap);
}

// A callback alone decides: it is called once per handshake, on the real chain, with the request's host and
// the session's trust mode.
TEST(HttpSession, CertificateDecision) {
  enum Callback { kNone, kHelper, kAccept };
  auto call = [](long helper) {
    return TlsTestEnv::kSecondaryHost + (" " + std::to_string(HTTP_CERT_TRUST_SAME_AS_REFERENCE)) + " " +
           std::to_string(helper) + ";";
  };
  struct Row {
    TestCert cert;
    Callback callback;
    long send;
    std::string calls;  // CertProbe's notes
  } rows[] = {
      {TestCert::eWrongHost, kNone, HTTP_E_CERT_REJECTED, ""},  // without one, libcurl checks the host
      {TestCert::eTrusted, kHelper, 0, call(0)},
      {TestCert::eExpired, kHelper, HTTP_E_CERT_REJECTED, call(CERT_E_EXPIRED)},
      // Accepted although libcurl's host check or OpenSSL's chain check would refuse.
      {TestCert::eWrongHost, kAccept, 0, call(CERT_E_HOST_MISMATCH)},
      {TestCert::eUnknownCA, kAccept, 0, call(CERT_E_UNTRUSTED_ROOT)},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(testing::Message() << TlsTestEnv::CertFile(row.cert) << ", callback " << row.callback);
    TlsTestEnv env(row.cert);
    CertProbe probe;
    probe.accept = row.callback == kAccept;
    auto session = row.callback == kNone ? MakeSession() : MakeSession(&CertProbe::Verify, &probe);
    Exchange x = PostOnce(*session, TlsTestEnv::kSecondaryUrl, "data=cert");
    EXPECT_EQ(x.send, row.send);
    EXPECT_EQ(env.Posts().size(), row.send == 0 ? 1u : 0u);
    EXPECT_EQ(probe.calls, row.calls);
  }
}

// The session's port (8443 here) applies only where the URL names none; port 443 leads nowhere.
TEST(HttpSession, EachFailureHasItsCodeAndDetail) {
  TlsTestEnv env;
  SuiteRuntime::SetConnectTo({"feedback.velmar.example:8443:127.0.0.1:" + std::to_string(env.Port()),
                              "feedback.velmar.example:443:127.0.0.1:" + std::to_string(DeadPort())});
  struct Row {
    const char* what;
    std::function<void(CHttpSessionCurl&)> arrange;
    std::string url;
    long send;
    unsigned long detail;              // the HTTP status, or libcurl's code
    unsigned long otherDetail = ~0ul;  // where libcurl may give either
  } rows[] = {
      {"503", [&](auto&) { env.RespondStatus(503); }, kUrl, HTTP_E_STATUS, 503},
      {"302, not followed", [&](auto&) { env.RespondStatus(302); }, kUrl, HTTP_E_STATUS, 302},
      {"unknown path", [](auto&) {}, "https://feedback.velmar.example/other", HTTP_E_STATUS, 404},
      {"dropped connection", [&](auto&) { env.CloseConnection(); }, kUrl, HTTP_E_SEND_FAILED, 52, 56},
      {"the URL's own port", [](auto&) {}, "https://feedback.velmar.example:443/cef/submit", HTTP_E_SEND_FAILED, 7},
      {"transfer timeout", [&](CHttpSessionCurl& s) { env.Hang(), s.SetTimeouts(0, 1000); }, kUrl, HTTP_E_TIMEOUT, 28},
  };
  for (const Row& row : rows) {
    auto session = MakeSession(nullptr, nullptr, 8443);
    row.arrange(*session);
    Exchange x = PostOnce(*session, row.url, "data=x");
    EXPECT_EQ(x.send, row.send) << row.what;
    EXPECT_TRUE(x.detail == row.detail || x.detail == row.otherDetail) << row.what << ": " << x.detail;
    EXPECT_EQ(x.status, row.send == HTTP_E_STATUS ? row.detail : 0u) << row.what;
  }
  EXPECT_TRUE(env.Posts().empty());
}

TEST(HttpSession, CloseRequestFromAnotherThreadAbortsAHangingPost) {
  TlsTestEnv env;
  env.Hang();
  // The body is fully sent once the progress callback sees it all go up; the server then sits on it.
  struct Sent {
    std::promise<void> promise;
    bool signalled = false;
    static void Progress(void* self, unsigned long upDone, unsigned long upTotal, unsigned long, unsigned long) {
      auto* s = static_cast<Sent*>(self);
      if (!s->signalled && upTotal > 0 && upDone == upTotal) s->promise.set_value(), s->signalled = true;
    }
  } sent;
  auto session = MakeSession(nullptr, nullptr, 443, &Sent::Progress, &sent);
  ASSERT_EQ(session->OpenRequest(kUrl, kPost, 0, 1, false), 0);
  auto result = std::async(std::launch::async, [&session] {
    unsigned long detail = 0;
    return session->SendRequest(detail, 1, "data=hang", 9, 0);
  });
  ASSERT_EQ(sent.promise.get_future().wait_for(std::chrono::seconds(60)), std::future_status::ready);
  EXPECT_EQ(session->CloseRequest(), 0);
  // CloseRequest waits for the sender to let go, so the answer is there at once; the bound is generous.
  ASSERT_EQ(result.wait_for(std::chrono::seconds(10)), std::future_status::ready);
  EXPECT_EQ(result.get(), HTTP_E_ABORTED);

  // Closed by another thread before it was sent: the opener learns of the abort, nothing goes out.
  ASSERT_EQ(session->OpenRequest(kUrl, kPost, 0, 1, false), 0);
  std::thread([&session] { EXPECT_EQ(session->CloseRequest(), 0); }).join();
  unsigned long detail = 0;
  EXPECT_EQ(session->SendRequest(detail, 1, "data=late", 9, 0), HTTP_E_ABORTED);
  EXPECT_EQ(session->CloseRequest(), 0);
  EXPECT_TRUE(env.Posts().empty());
}

TEST(HttpSession, MisuseIsReportedNotSent) {
  auto session = MakeSession();
  unsigned long detail = 0, n = 0;
  char buffer[8];
  EXPECT_EQ(session->SendRequest(detail, 1, "data=", 5, 0), HTTP_E_NO_REQUEST);
  EXPECT_EQ(session->AddRequestHeader("Zip", "True"), HTTP_E_NO_REQUEST);
  EXPECT_EQ(session->OpenRequest("http://feedback.velmar.example/x", kPost, 0, 1, false), HTTP_E_INVALID_ARGUMENT);
  EXPECT_EQ(session->OpenRequest(kUrl, 7, 0, 1, false), HTTP_E_INVALID_ARGUMENT);
  ASSERT_EQ(session->OpenRequest(kUrl, kPost, 0, 1, false), 0);
  EXPECT_EQ(session->OpenRequest(kUrl, kPost, 0, 1, false), HTTP_E_REQUEST_OPEN);
  EXPECT_EQ(session->AddRequestHeader("Bad:Name", "x"), HTTP_E_INVALID_ARGUMENT);
  EXPECT_EQ(session->AddRequestHeader("Zip", "a\r\nInjected: 1"), HTTP_E_INVALID_ARGUMENT);
  EXPECT_EQ(session->ReadResponse(buffer, sizeof buffer, n), HTTP_E_NO_RESPONSE);
  EXPECT_EQ(session->SendRequest(detail, 1, nullptr, 5, 0), HTTP_E_INVALID_ARGUMENT);
  EXPECT_EQ(session->SetSendMode(2), HTTP_E_INVALID_ARGUMENT);
}
