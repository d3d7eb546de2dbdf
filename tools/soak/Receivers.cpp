// Receiver processes: start, stop, control over TLS, and the posts they stored.
#include "Receivers.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "TestPki.h"

namespace soak {
namespace {

std::string ReadAll(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

// Makes the receiver's directory and its store, which must exist before it starts.
const ReceiverProcess::Files& StoreUnder(const std::string& dir, const std::string& store,
                                         const ReceiverProcess::Files& files) {
  mkdir(dir.c_str(), 0755);
  if (mkdir(store.c_str(), 0755) != 0 && errno != EEXIST) throw std::runtime_error("cannot create " + store);
  return files;
}

}  // namespace

void MakeTestPki(const std::string& dir) { TestPki::Write(dir); }

Receiver::Receiver(const std::string& binary, const std::string& pkiDir, const std::string& dir,
                   const std::string& hostName)
    : m_host(hostName), m_store(dir + "/store"), m_log(dir + "/receiver.log"),
      m_process(binary, StoreUnder(dir, m_store, {pkiDir + "/" + TestPki::kServerCertFile,
                                                  pkiDir + "/" + TestPki::kServerKeyFile, m_store, m_log,
                                                  dir + "/port"})) {}

std::string Receiver::ConnectTo() const { return m_host + ":443:127.0.0.1:" + std::to_string(Port()); }

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
