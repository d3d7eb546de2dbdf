// The feedback collector behind ovfeedback-receiver: stores each accepted post and, when told through its
// control endpoint, answers the next posts with an error, a long body, a trickle, silence or a dropped
// connection.
#pragma once

#include <atomic>
#include <cstddef>
#include <deque>
#include <mutex>
#include <string>

namespace httplib {
class Server;
struct Request;
struct Response;
}  // namespace httplib

// What the receiver does with one post to the feedback path.
struct PostBehaviour {
  enum EKind { eAccept, eStatus, eHang, eClose, eLongBody, eTrickle };
  EKind kind = eAccept;
  int status = 200;      // eStatus
  size_t length = 0;     // eLongBody, eTrickle
  long nulAt = -1;       // eLongBody: position of a NUL byte, or -1
  long intervalMs = 0;   // eTrickle: the pause before each byte
};

class FeedbackReceiver {
 public:
  static constexpr const char* kFeedbackPath = "/cef/submit";
  static constexpr const char* kControlPath = "/control";
  // Upper bound of a hang when the client never goes away.
  static constexpr int kHangLimitSeconds = 600;

  // Accepted posts go to storeDir, numbered after the posts already there.
  explicit FeedbackReceiver(const std::string& storeDir);

  // Registers the feedback and control handlers on `server`.
  void Install(httplib::Server& server);
  // Ends hangs in progress, so that the server's workers can be joined.
  void Shutdown() { stopping_ = true; }

  // Parses one control command ("status code=503 count=2", "hang", "close", "body length=20000 nul=7",
  // "trickle interval=300 length=100", "reset") and queues it; returns false with a reason for a command it does not understand.
  bool ApplyCommand(const std::string& command, std::string& error);

  // The body of an eLongBody answer. The test fixture builds the same bytes to compare; keep them in step.
  static std::string LongBody(size_t length, long nulAt);

 private:
  void HandlePost(const httplib::Request& request, const std::string& body, const PostBehaviour& behaviour,
                  httplib::Response& response);
  void Trickle(const PostBehaviour& behaviour, httplib::Response& response) const;
  void HandleControl(const httplib::Request& request, httplib::Response& response);
  PostBehaviour NextBehaviour();
  bool Store(const httplib::Request& request, const std::string& body, std::string& error);
  void HangUntilClientLeaves(const httplib::Request& request) const;
  static void DropConnection(const httplib::Request& request);

  std::string storeDir_;
  std::mutex mutex_;                 // guards queue_ and nextIndex_
  std::deque<PostBehaviour> queue_;  // one entry per post still to be treated specially
  unsigned nextIndex_ = 1;
  std::atomic<bool> stopping_{false};
};
