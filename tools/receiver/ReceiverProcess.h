// A running ovfeedback-receiver child process, as the TLS test fixture and the soak run use one: started on a
// free loopback port, told through its control endpoint how to answer the next posts, stopped with SIGTERM.
#pragma once

#include <sys/types.h>

#include <string>

class ReceiverProcess {
 public:
  struct Files {
    std::string cert;      // the certificate it presents
    std::string key;       // that certificate's key
    std::string store;     // where it stores the posts it accepts
    std::string log;       // its standard output and error, appended
    std::string portFile;  // where it writes the port it took; replaced
  };
  // Starts `binary` and waits until it listens. Throws std::runtime_error, with the receiver's log, when it
  // cannot be started, exits or does not listen within 30 s.
  ReceiverProcess(const std::string& binary, const Files& files);
  // SIGTERM, then SIGKILL after 10 s.
  ~ReceiverProcess();
  ReceiverProcess(const ReceiverProcess&) = delete;
  ReceiverProcess& operator=(const ReceiverProcess&) = delete;

  unsigned short Port() const { return m_port; }
  // One control command ("status code=503 count=2", "hang", "reset", ...); throws std::runtime_error when the
  // receiver cannot be reached or refuses it.
  void Control(const std::string& command) const;

 private:
  void Stop();

  std::string m_log;
  pid_t m_pid = -1;
  unsigned short m_port = 0;
};
