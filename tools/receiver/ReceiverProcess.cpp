// The receiver as a child process: spawn, wait for its port, control over TLS, stop.
#include "ReceiverProcess.h"

#include <fcntl.h>
#include <openssl/ssl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

extern char** environ;

namespace {

using SteadyClock = std::chrono::steady_clock;

std::string ReadAll(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// Polls `done` every 10 ms until it holds or `bound` has passed; says whether it held.
template <class Done>
bool PollFor(Done done, std::chrono::milliseconds bound) {
  const auto until = SteadyClock::now() + bound;
  while (!done()) {
    if (SteadyClock::now() > until) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

}  // namespace

ReceiverProcess::ReceiverProcess(const std::string& binary, const Files& files) : m_log(files.log) {
  unlink(files.portFile.c_str());
  std::vector<std::string> argv = {binary,  "--cert",   files.cert, "--key",       files.key,
                                   "--store", files.store, "--port", "0", "--port-file", files.portFile,
                                   "--exit-with-parent"};
  std::vector<char*> args;
  for (std::string& arg : argv) args.push_back(arg.data());
  args.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, m_log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
  posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
  const int spawned = posix_spawn(&m_pid, binary.c_str(), &actions, nullptr, args.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (spawned != 0) {
    m_pid = -1;
    throw std::runtime_error("cannot start " + binary);
  }
  bool exited = false;
  const bool listening = PollFor(
      [&] {
        long port = 0;
        if (std::ifstream(files.portFile) >> port && port > 0 && port <= 65535) {
          m_port = static_cast<unsigned short>(port);
          return true;
        }
        int status = 0;
        return exited = waitpid(m_pid, &status, WNOHANG) == m_pid;
      },
      std::chrono::seconds(30));
  if (listening && !exited) return;
  if (exited) m_pid = -1;
  Stop();
  throw std::runtime_error(std::string(exited ? "receiver exited at start:\n" : "receiver did not start listening:\n") +
                           ReadAll(m_log));
}

ReceiverProcess::~ReceiverProcess() { Stop(); }

void ReceiverProcess::Stop() {
  if (m_pid <= 0) return;
  kill(m_pid, SIGTERM);
  int status = 0;
  if (!PollFor([&] { return waitpid(m_pid, &status, WNOHANG) != 0; }, std::chrono::seconds(10))) {
    kill(m_pid, SIGKILL);
    waitpid(m_pid, &status, 0);
  }
  m_pid = -1;
}

void ReceiverProcess::Control(const std::string& command) const {
  // The receiver is our own child on loopback; its certificate is not what is examined here.
  std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> ctx(SSL_CTX_new(TLS_client_method()), SSL_CTX_free);
  std::unique_ptr<BIO, decltype(&BIO_free_all)> bio(ctx ? BIO_new_ssl_connect(ctx.get()) : nullptr, BIO_free_all);
  const std::string address = "127.0.0.1:" + std::to_string(m_port);
  if (!bio || BIO_set_conn_hostname(bio.get(), address.c_str()) <= 0 || BIO_do_connect(bio.get()) <= 0) {
    throw std::runtime_error("cannot reach the receiver at " + address);
  }
  const std::string request = "POST /control HTTP/1.1\r\nHost: " + address +
                              "\r\nContent-Type: text/plain\r\nConnection: close\r\nContent-Length: " +
                              std::to_string(command.size()) + "\r\n\r\n" + command;
  if (BIO_write(bio.get(), request.data(), static_cast<int>(request.size())) != static_cast<int>(request.size())) {
    throw std::runtime_error("cannot send a command to the receiver");
  }
  std::string answer;
  char buffer[1024];
  for (int n; (n = BIO_read(bio.get(), buffer, sizeof buffer)) > 0;) answer.append(buffer, static_cast<size_t>(n));
  if (answer.compare(0, 12, "HTTP/1.1 200") != 0) {
    throw std::runtime_error("receiver refused '" + command + "': " + answer);
  }
}
