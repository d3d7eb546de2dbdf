// The HTTP session against the local receiver over real TLS, in what the uploader's suite cannot see: how much
// of an answer is kept, that the certificate callback decides the handshake, redirects and ports, and that a
// stop or the time limit ends a request in every phase.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <thread>

#include "CertHelper.h"
#include "HttpSessionCurl.h"
#include "RuntimeConfig.h"
#include "TlsTestEnv.h"
#include "WaitFor.h"

namespace {

constexpr int kPost = 15;
constexpr unsigned int kLimit = 16384;
const std::string kUrl = TlsTestEnv::kPrimaryUrl;
using Clock = std::chrono::steady_clock;

// A resolver that hangs: names under kHangingDomain are held in getaddrinfo (which libcurl's resolver thread
// calls) until released, then not found; every other name goes to the C library.
constexpr const char kHangingDomain[] = ".hang.velmar.example";
struct {
  std::mutex mutex;
  std::condition_variable changed;
  int entered = 0, releases = 0;  // a lookup held ends when `releases` changes
} g_resolver;

}  // namespace

// Visible, so that it stands in for the C library's in libcurl too.
extern "C" __attribute__((visibility("default"))) int getaddrinfo(const char* node, const char* service,
                                                                  const addrinfo* hints, addrinfo** result) {
  const std::string name = node != nullptr ? node : "", suffix = kHangingDomain;
  if (name.size() > suffix.size() && name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0) {
    std::unique_lock<std::mutex> lock(g_resolver.mutex);
    ++g_resolver.entered;
    const int releases = g_resolver.releases;
    g_resolver.changed.wait_for(lock, std::chrono::seconds(30), [&] { return g_resolver.releases != releases; });
    return EAI_NONAME;
  }
  static const auto next = reinterpret_cast<decltype(&getaddrinfo)>(dlsym(RTLD_NEXT, "getaddrinfo"));
  return next(node, service, hints, result);
}

namespace {

std::unique_ptr<CHttpSessionCurl> MakeSession(PFN_SERVER_CERT_VERIFY_CB callback = nullptr, void* context = nullptr,
                                              unsigned short port = 443) {
  long status = -1;
  auto session = std::make_unique<CHttpSessionCurl>(status, kUrl, "", std::list<std::string>{}, "", "", "", "Orvane",
                                                    port, true, true, HTTP_CERT_TRUST_SAME_AS_REFERENCE, "", context,
                                                    callback, kLimit, nullptr, nullptr);
  EXPECT_EQ(status, 0);
  return session;
}

struct Exchange {
  long send = -1;  // or the code of a failed open
  unsigned long detail = 0;
  std::string answer;
  std::vector<unsigned long> pieces;  // the size of each ReadResponse
};

// One whole request the way the uploader makes it, reading the answer to its end.
Exchange PostOnce(CHttpSessionCurl& session, const std::string& url, const std::string& body) {
  Exchange x;
  if ((x.send = session.OpenRequest(url, kPost, 0, 1, false)) != 0) return x;
  EXPECT_EQ(session.SetSendMode(1), 0);
  x.send = session.SendRequest(x.detail, 1, body.data(), static_cast<int>(body.size()), 0);
  char buffer[20000];
  for (unsigned long n = 0; session.ReadResponse(buffer, sizeof buffer, n) == 0 && n > 0;) {
    x.pieces.push_back(n);
    x.answer.append(buffer, n);
  }
  EXPECT_EQ(session.CloseRequest(), 0);
  return x;
}

// A loopback port that refuses connections (no listener), leaves them unanswered (a listener whose queue is
// full) or lets the kernel make them and then says nothing (a listener that never accepts).
struct LoopbackPort {
  enum EKind { eRefused, eUnanswered, eSpeechless };
  int fd = socket(AF_INET, SOCK_STREAM, 0), filler = socket(AF_INET, SOCK_STREAM, 0);
  unsigned short port = 0;
  explicit LoopbackPort(EKind kind) {
    sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t length = sizeof address;
    bind(fd, reinterpret_cast<sockaddr*>(&address), length);
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    port = ntohs(address.sin_port);
    if (kind != eRefused) listen(fd, kind == eUnanswered ? 0 : 16);
    if (kind == eUnanswered) connect(filler, reinterpret_cast<sockaddr*>(&address), length);
  }
  ~LoopbackPort() {
    close(filler);
    close(fd);
  }
};

// A certificate callback that checks the chain with the certificate helper, as the product's does, notes each
// call as "<host> <trust mode> <the helper's verdict>;" and accepts whatever the verdict.
struct CertProbe {
  std::mutex mutex;
  std::string calls;

  static long Verify(void* self, const x509_store_ctx_st* chain, eCertContextID, const std::string& name,
                     HTTP_CERT_TRUST_MODE mode, const std::string&, unsigned int& flags) {
    long status = 0;
    CCertHelper helper(status, 0xFFFFFFFF, "tester");
    std::string der;
    if (status == 0) status = helper.VerifyServerCertificate(chain, 1, name, der, flags, 2, false, 0xFFFFFFFF);
    auto* probe = static_cast<CertProbe*>(self);
    std::lock_guard<std::mutex> lock(probe->mutex);
    probe->calls += name + " " + std::to_string(mode) + " " + std::to_string(status) + ";";
    return 0;
  }
  bool Called() {
    std::lock_guard<std::mutex> lock(mutex);
    return !calls.empty();
  }
};

class HttpSession : public ::testing::Test {
 protected:
  void TearDown() override { SuiteRuntime::SetRequestTimeLimitMs(0); }
};

}  // namespace

// The uploader reads 16384 bytes once; the session keeps no more, even for a reader with room for more.
TEST_F(HttpSession, NoMoreOfAnAnswerIsKeptThanItsReaderTakes) {
  TlsTestEnv env;
  env.RespondLongBody(50000);
  Exchange x = PostOnce(*MakeSession(), kUrl, "data=");
  EXPECT_EQ(x.send, 0);
  EXPECT_EQ(x.pieces, std::vector<unsigned long>{kLimit});
  EXPECT_TRUE(x.answer == TlsTestEnv::LongBody(kLimit));
}

// A callback alone decides: it is called once per handshake, on the real chain, with the request's host and
// the session's trust mode. (A refusal by the callback failing the handshake is seen through the uploader's.)
TEST_F(HttpSession, CertificateDecision) {
  auto call = [](long helper) {
    return TlsTestEnv::kSecondaryHost + (" " + std::to_string(HTTP_CERT_TRUST_SAME_AS_REFERENCE)) + " " +
           std::to_string(helper) + ";";
  };
  struct Row {
    TestCert cert;
    bool callback;
    long send;
    std::string calls;  // CertProbe's notes
  } rows[] = {
      {TestCert::eWrongHost, false, HTTP_E_CERT_REJECTED, ""},  // without one, libcurl checks the host
      // Accepted although libcurl's host check or OpenSSL's chain check would refuse.
      {TestCert::eWrongHost, true, 0, call(CERT_E_HOST_MISMATCH)},
      {TestCert::eUnknownCA, true, 0, call(CERT_E_UNTRUSTED_ROOT)},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(testing::Message() << TlsTestEnv::CertFile(row.cert) << ", callback " << row.callback);
    TlsTestEnv env(row.cert);
    CertProbe probe;
    auto session = row.callback ? MakeSession(&CertProbe::Verify, &probe) : MakeSession();
    Exchange x = PostOnce(*session, TlsTestEnv::kSecondaryUrl, "data=cert");
    EXPECT_EQ(x.send, row.send);
    EXPECT_EQ(env.Posts().size(), row.send == 0 ? 1u : 0u);
    EXPECT_EQ(probe.calls, row.calls);
  }
}

// A redirect is a refusal, not followed; the session's port (8443 here) applies only where the URL names none.
TEST_F(HttpSession, RedirectIsARefusalAndTheUrlsOwnPortWins) {
  TlsTestEnv env;
  LoopbackPort refused(LoopbackPort::eRefused);
  SuiteRuntime::SetConnectTo({"feedback.velmar.example:8443:127.0.0.1:" + std::to_string(env.Port()),
                              "feedback.velmar.example:443:127.0.0.1:" + std::to_string(refused.port)});
  auto session = MakeSession(nullptr, nullptr, 8443);
  env.RespondStatus(302);
  Exchange x = PostOnce(*session, kUrl, "data=x");
  EXPECT_EQ(x.send, HTTP_E_STATUS);
  EXPECT_EQ(x.detail, 302u);
  x = PostOnce(*session, "https://feedback.velmar.example:443/cef/submit", "data=x");
  EXPECT_EQ(x.send, HTTP_E_SEND_FAILED);
  EXPECT_EQ(x.detail, 7u);  // libcurl's "could not connect"
  EXPECT_TRUE(env.Posts().empty());
}

// Each phase is held far longer than the bound checked (a lookup 30 s, a connection or handshake 30 s, a send
// 60 s, a trickled answer for minutes); a stop from another thread or the time limit must end it. The times
// are printed; the checks only bound them from the side that cannot flake.
TEST_F(HttpSession, StopAndTimeLimitEndARequestInEveryPhase) {
  TlsTestEnv env;
  LoopbackPort unanswered(LoopbackPort::eUnanswered), speechless(LoopbackPort::eSpeechless);
  const std::vector<std::string> receiverMap = SuiteRuntime::GetConnectTo();
  auto leadTo = [](unsigned short port) {
    return std::vector<std::string>{"feedback.velmar.example:443:127.0.0.1:" + std::to_string(port)};
  };
  const std::string small = "data=x", big(32u << 20, 'x');
  CertProbe* probe = nullptr;
  auto lookupStarted = [] {
    std::lock_guard<std::mutex> lock(g_resolver.mutex);
    return g_resolver.entered > 0;
  };
  auto handshakeDone = [&probe] { return probe->Called(); };
  struct Row {
    const char* phase;
    std::string url;
    std::vector<std::string> connectTo;
    std::function<void()> arrange;
    const std::string& body;
    std::function<bool()> reached;  // the request is in the phase (or one that never ends before it)
  } rows[] = {
      {"name lookup", "https://feedback.hang.velmar.example/cef/submit", receiverMap, [] {}, small, lookupStarted},
      {"connect", kUrl, leadTo(unanswered.port), [] {}, small, [] { return true; }},
      {"handshake", kUrl, leadTo(speechless.port), [] {}, small, [] { return true; }},
      {"send", kUrl, receiverMap, [&] { env.Hang(); }, big, handshakeDone},
      {"answer", kUrl, receiverMap, [&] { env.Trickle(200, 100000); }, small, handshakeDone},
  };
  for (bool stop : {true, false}) {
    for (const Row& row : rows) {
      SCOPED_TRACE(std::string(row.phase) + (stop ? ", stopped" : ", time limit"));
      SuiteRuntime::SetConnectTo(row.connectTo);
      SuiteRuntime::SetRequestTimeLimitMs(stop ? 0 : 1500);
      row.arrange();
      CertProbe certProbe;
      probe = &certProbe;
      auto session = MakeSession(&CertProbe::Verify, &certProbe);
      ASSERT_EQ(session->OpenRequest(row.url, kPost, 0, 1, false), 0);
      const auto start = Clock::now();
      auto send = std::async(std::launch::async, [&] {
        unsigned long detail = 0;
        return session->SendRequest(detail, 1, row.body.data(), static_cast<int>(row.body.size()), 0);
      });
      auto from = start;
      if (stop) {
        ASSERT_TRUE(WaitFor(row.reached, std::chrono::seconds(10)));
        std::this_thread::sleep_for(std::chrono::milliseconds(300));  // well into it
        from = Clock::now();
        EXPECT_EQ(session->CloseRequest(), 0);
      }
      ASSERT_EQ(send.wait_for(std::chrono::seconds(20)), std::future_status::ready);
      const long result = send.get();
      const double seconds = std::chrono::duration<double>(Clock::now() - from).count();
      printf("%-12s %-5s ended after %.4f s\n", row.phase, stop ? "stop" : "limit", seconds);
      EXPECT_EQ(result, stop ? HTTP_E_ABORTED : HTTP_E_TIMEOUT);
      // libcurl rounds its clock to milliseconds, so the limit may end a request a hair early.
      EXPECT_TRUE(stop ? seconds < 5.0 : seconds > 1.4) << seconds;
      EXPECT_EQ(session->CloseRequest(), 0);
      std::lock_guard<std::mutex> lock(g_resolver.mutex);
      EXPECT_EQ(g_resolver.entered, row.url == kUrl ? 0 : 1);
      g_resolver.entered = 0;
      ++g_resolver.releases;
      g_resolver.changed.notify_all();
    }
  }
}

// Misuse is reported, not sent. A stop between open and send is not forgotten, and it is for good; the
// opener's own close ends only its request.
TEST_F(HttpSession, MisuseIsReportedAndAStopSticksTheOpenersCloseDoesNot) {
  TlsTestEnv env;
  auto session = MakeSession();
  unsigned long detail = 0, n = 0;
  char buffer[8];
  EXPECT_EQ(session->SendRequest(detail, 1, "data=", 5, 0), HTTP_E_NO_REQUEST);
  EXPECT_EQ(session->OpenRequest("http://feedback.velmar.example/x", kPost, 0, 1, false), HTTP_E_INVALID_ARGUMENT);
  ASSERT_EQ(session->OpenRequest(kUrl, kPost, 0, 1, false), 0);
  EXPECT_EQ(session->OpenRequest(kUrl, kPost, 0, 1, false), HTTP_E_REQUEST_OPEN);
  EXPECT_EQ(session->AddRequestHeader("Bad:Name", "x"), HTTP_E_INVALID_ARGUMENT);
  EXPECT_EQ(session->AddRequestHeader("Zip", "a\r\nInjected: 1"), HTTP_E_INVALID_ARGUMENT);
  EXPECT_EQ(session->ReadResponse(buffer, sizeof buffer, n), HTTP_E_NO_RESPONSE);
  EXPECT_EQ(session->SendRequest(detail, 1, nullptr, 5, 0), HTTP_E_INVALID_ARGUMENT);
  EXPECT_EQ(session->CloseRequest(), 0);

  EXPECT_EQ(PostOnce(*session, kUrl, "data=1").send, 0);
  EXPECT_EQ(PostOnce(*session, kUrl, "data=2").send, 0);
  ASSERT_EQ(session->OpenRequest(kUrl, kPost, 0, 1, false), 0);
  std::thread([&session] { EXPECT_EQ(session->CloseRequest(), 0); }).join();
  EXPECT_EQ(session->SendRequest(detail, 1, "data=late", 9, 0), HTTP_E_ABORTED);
  EXPECT_EQ(session->ReadResponse(buffer, sizeof buffer, n), HTTP_E_ABORTED);
  EXPECT_EQ(session->OpenRequest(kUrl, kPost, 0, 1, false), HTTP_E_ABORTED);
  EXPECT_EQ(env.Posts().size(), 2u);
}
