// ovfeedback-receiver: a local HTTPS feedback collector. Stores every post to the feedback path in a
// directory and can be told, per post, to fail; used by the integration tests and the demo.
#include <httplib.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fstream>
#include <string>
#include <thread>

#include "FeedbackReceiver.h"
#include "TestPki.h"

namespace {

constexpr const char kUsage[] =
    "usage: ovfeedback-receiver --cert FILE --key FILE --store DIR [--host ADDR] [--port N] "
    "[--port-file FILE] [--exit-with-parent]\n"
    "       ovfeedback-receiver --make-certs DIR\n"
    "  Serves POST /cef/submit over HTTPS and stores each body after \"data=\" in DIR.\n"
    "  --port 0 (the default) takes any free port; --port-file receives the port chosen.\n"
    "  --exit-with-parent stops the receiver when the process that started it is gone.\n"
    "  POST /control with one command changes how the next posts are answered:\n"
    "    status code=NNN [count=K]   answer with that status\n"
    "    hang [count=K]              never read the body nor answer\n"
    "    close [count=K]             drop the connection after reading the request\n"
    "    body length=N [nul=P] [count=K]  accept and answer with N bytes, a NUL at P\n"
    "    trickle [interval=MS] [length=N] [count=K]  accept and answer with N bytes (1000), one every MS (300)\n"
    "    reset                       accept every post again\n"
    "  --make-certs DIR writes a fresh throw-away test PKI to DIR (made when missing) and exits:\n"
    "    ca.pem          the test CA, for the client to trust\n"
    "    server.pem      the server certificate for feedback.velmar.example, feedback2.velmar.example,\n"
    "                    localhost and 127.0.0.1; serve it with --cert\n"
    "    server-key.pem  the key of server.pem and of the three below (mode 0600); serve it with --key\n"
    "    wrong-host.pem  issued by the test CA for wrong.velmar.example only\n"
    "    expired.pem     issued by the test CA for the names above, expired a day ago\n"
    "    unknown-ca.pem  for the names above, issued by a CA that is not written out\n"
    "    wildcard.pem    issued by the test CA for *.wild.velmar.example, f*.velmar.example and\n"
    "                    *back2.velmar.example\n";

struct Options {
  std::string cert;
  std::string key;
  std::string store;
  std::string host = "127.0.0.1";
  int port = 0;
  std::string portFile;
  bool exitWithParent = false;
  std::string makeCerts;
  bool help = false;
};

bool ParseArguments(int argc, char** argv, Options& options) {
  for (int i = 1; i < argc; ++i) {
    std::string name = argv[i];
    if (name == "--help" || name == "-h") {
      options.help = true;
      return true;
    }
    if (name == "--exit-with-parent") {
      options.exitWithParent = true;
      continue;
    }
    if (i + 1 >= argc) return false;
    std::string value = argv[++i];
    if (name == "--cert") {
      options.cert = value;
    } else if (name == "--key") {
      options.key = value;
    } else if (name == "--store") {
      options.store = value;
    } else if (name == "--host") {
      options.host = value;
    } else if (name == "--port") {
      char* end = nullptr;
      long port = strtol(value.c_str(), &end, 10);
      if (*end != '\0' || port < 0 || port > 65535) return false;
      options.port = static_cast<int>(port);
    } else if (name == "--port-file") {
      options.portFile = value;
    } else if (name == "--make-certs") {
      options.makeCerts = value;
    } else {
      return false;
    }
  }
  if (!options.makeCerts.empty()) return true;
  return !options.cert.empty() && !options.key.empty() && !options.store.empty();
}

// Written through a temporary name, so whoever waits for the file reads a complete port.
bool WritePortFile(const std::string& path, int port) {
  std::string temp = path + ".tmp";
  {
    std::ofstream out(temp, std::ios::trunc);
    out << port << "\n";
    if (!out.flush()) return false;
  }
  return rename(temp.c_str(), path.c_str()) == 0;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (!ParseArguments(argc, argv, options)) {
    fputs(kUsage, stderr);
    return 2;
  }
  if (options.help) {
    fputs(kUsage, stdout);
    return 0;
  }
  if (!options.makeCerts.empty()) {
    try {
      TestPki::Write(options.makeCerts);
    } catch (const std::exception& e) {
      fprintf(stderr, "ovfeedback-receiver: %s\n", e.what());
      return 1;
    }
    printf("wrote %s, %s, %s, %s, %s, %s and %s to %s\n", TestPki::kCAFile, TestPki::kServerCertFile,
           TestPki::kServerKeyFile, TestPki::kWrongHostFile, TestPki::kExpiredFile, TestPki::kUnknownCAFile,
           TestPki::kWildcardFile, options.makeCerts.c_str());
    return 0;
  }
  // A client that goes away mid-answer must cost a failed write, not the process.
  signal(SIGPIPE, SIG_IGN);
  // Termination is taken by one thread with sigwait; the server's workers, started later, inherit the mask.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGTERM);
  sigaddset(&stopSignals, SIGINT);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

  httplib::SSLServer server(options.cert.c_str(), options.key.c_str());
  if (!server.is_valid()) {
    fprintf(stderr, "ovfeedback-receiver: cannot load certificate %s or key %s\n", options.cert.c_str(),
            options.key.c_str());
    return 1;
  }
  server.set_payload_max_length(64u << 20);
  // A client waits for the answer to its whole post; Nagle's algorithm would hold that short answer back for the
  // client's delayed acknowledgement, some 40 ms a post.
  server.set_tcp_nodelay(true);
  FeedbackReceiver receiver(options.store);
  receiver.Install(server);

  int port = options.port == 0 ? server.bind_to_any_port(options.host)
                               : (server.bind_to_port(options.host, options.port) ? options.port : -1);
  if (port <= 0) {
    fprintf(stderr, "ovfeedback-receiver: cannot listen on %s:%d\n", options.host.c_str(), options.port);
    return 1;
  }
  if (!options.portFile.empty() && !WritePortFile(options.portFile, port)) {
    fprintf(stderr, "ovfeedback-receiver: cannot write %s: %s\n", options.portFile.c_str(), strerror(errno));
    return 1;
  }
  printf("listening on https://%s:%d, storing posts in %s\n", options.host.c_str(), port, options.store.c_str());
  fflush(stdout);

  std::thread stopper([&server, &receiver, stopSignals] {
    int received = 0;
    sigwait(&stopSignals, &received);
    receiver.Shutdown();
    server.stop();
  });
  stopper.detach();
  if (options.exitWithParent) {
    // A test that dies without stopping its receiver must not leave it running: once the parent is gone the
    // receiver is re-parented, and it stops itself the ordinary way.
    std::thread([parent = getppid()] {
      while (getppid() == parent) sleep(1);
      kill(getpid(), SIGTERM);
    }).detach();
  }

  bool ok = server.listen_after_bind();
  printf("stopped\n");
  fflush(stdout);
  return ok ? 0 : 1;
}
