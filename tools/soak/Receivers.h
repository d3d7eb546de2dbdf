// The two feedback servers of a soak run: ovfeedback-receiver processes serving the primary and the secondary
// host name over real TLS, with the runtime's CA file and connect-to map pointed at them, told through their
// control endpoint how to answer.
#pragma once

#include <string>
#include <vector>

#include "ReceiverProcess.h"

namespace soak {

class Receiver {
 public:
  // Serves `hostName` from a receiver process storing posts below `dir`; throws std::runtime_error when it
  // does not come up.
  Receiver(const std::string& binary, const std::string& pkiDir, const std::string& dir, const std::string& hostName);
  Receiver(const Receiver&) = delete;
  Receiver& operator=(const Receiver&) = delete;

  const std::string& HostName() const { return m_host; }
  unsigned short Port() const { return m_process.Port(); }
  // The connect-to entry that sends the host's port 443 here.
  std::string ConnectTo() const;
  // One control command ("status code=503 count=1000", "hang count=2", "reset", ...); throws when refused.
  void Control(const std::string& command) const { m_process.Control(command); }
  // Bodies of the posts stored since the last call, in arrival order.
  std::vector<std::string> TakeNewPosts();
  // How many posts the receiver has left unanswered so far (its log says so for each).
  size_t HungPosts() const;

 private:
  std::string m_host;
  std::string m_store;
  std::string m_log;
  ReceiverProcess m_process;
  unsigned m_nextPost = 1;
};

// Writes the receiver's throw-away PKI into `dir`; the CA file is dir + "/ca.pem".
void MakeTestPki(const std::string& dir);

}  // namespace soak
