// Receiver processes: start, stop, control over TLS, and the posts they stored.
#include "Receivers.h"

#include <fcntl.h>
#include <openssl/ssl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <thread>

extern char** environ;

namespace soak {
namespace {

std::string ReadAll(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

// Spawns `argv` with its output appended to `log`.
pid_t Spawn(std::vector<std::string> argv, const std::string& log) {
  std::vector<char*> args;
  for (std::string& arg : argv) args.push_back(arg.data());
  args.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
  posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
  pid_t pid = -1;
  const int rc = posix_spawn(&pid, args[0], &actions, nullptr, args.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0) throw std::runtime_error("cannot start " + argv[0]);
  return pid;
}

}  // namespace

void MakeTestPki(const std::string& binary, const std::string& dir) {
  const pid_t pid = Spawn({binary, "--make-certs", dir}, dir + ".log");
  int status = 0;
  if (waitpid(pid, &status, 0) != pid || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    throw std::runtime_error("ovfeedback-receiver --make-certs failed:\n" + ReadAll(dir + ".log"));
  }
}

Receiver::Receiver(const std::string& binary, const std::string& pkiDir, const std::string& dir,
                   const std::string& hostName)
    : m_host(hostName), m_store(dir + "/store"), m_log(dir + "/receiver.log") {
  mkdir(dir.c_str(), 0755);
  if (mkdir(m_store.c_str(), 0755) != 0 && errno != EEXIST) throw std::runtime_error("cannot create " + m_store);
  const std::string portFile = dir + "/port";
  unlink(portFile.c_str());
  m_pid = Spawn({binary, "--cert", pkiDir + "/server.pem", "--key", pkiDir + "/server-key.pem", "--store", m_store,
                 "--port", "0", "--port-file", portFile, "--exit-with-parent"},
                m_log);
  const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  for (;;) {
    long port = 0;
    if (std::ifstream(portFile) >> port && port > 0 && port <= 65535) {
      m_port = static_cast<unsigned short>(port);
      return;
    }
    int status = 0;
    if (waitpid(m_pid, &status, WNOHANG) == m_pid || std::chrono::steady_clock::now() > until) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  kill(m_pid, SIGKILL);
  waitpid(m_pid, nullptr, 0);
  throw std::runtime_error("receiver for " + hostName + " did not come up:\n" + ReadAll(m_log));
}

Receiver::~Receiver() {
  if (m_pid <= 0) return;
  kill(m_pid, SIGTERM);
  int status = 0;
  const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (waitpid(m_pid, &status, WNOHANG) == 0) {
    if (std::chrono::steady_clock::now() > until) {
      kill(m_pid, SIGKILL);
      waitpid(m_pid, &status, 0);
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

std::string Receiver::ConnectTo() const { return m_host + ":443:127.0.0.1:" + std::to_string(m_port); }

void Receiver::Control(const std::string& command) const {
  // Our own child on loopback: its certificate is not what the soak examines, so it is not verified here.
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
  if (answer.compare(0, 12, "HTTP/1.1 200") != 0) throw std::runtime_error("receiver refused '" + command + "'");
}

std::vector<std::string> Receiver::TakeNewPosts() {
  std::vector<std::string> posts;
  for (;;) {
    char name[40];
    snprintf(name, sizeof name, "/post-%06u.bin", m_nextPost);
    const std::string path = m_store + name;
    if (access(path.c_str(), F_OK) != 0) break;
    posts.push_back(ReadAll(path));
    ++m_nextPost;
  }
  return posts;
}

size_t Receiver::HungPosts() const {
  const std::string log = ReadAll(m_log);
  size_t count = 0;
  for (size_t at = 0; (at = log.find("post left unanswered", at)) != std::string::npos; ++at) ++count;
  return count;
}

}  // namespace soak
