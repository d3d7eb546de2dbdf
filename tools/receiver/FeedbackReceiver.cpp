// Feedback collector: post storage, the per-post behaviour queue and the control endpoint.
#include "FeedbackReceiver.h"

#include <dirent.h>
#include <fcntl.h>
#include <httplib.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <sstream>

#include <zlib.h>

#include "JsonForm.h"
#include "PhoneHome/Bencode.h"
#include "UniqueFd.h"

namespace {

constexpr const char kFormPrefix[] = "data=";
constexpr size_t kFormPrefixLength = sizeof kFormPrefix - 1;


struct DirCloser {
  void operator()(DIR* dir) const { closedir(dir); }
};

bool WriteAll(int fd, const std::string& bytes) {
  size_t done = 0;
  while (done < bytes.size()) {
    ssize_t n = write(fd, bytes.data() + done, bytes.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

// Writes through a temporary name and renames, so a reader never sees a half-written file.
bool WriteFileAtomically(const std::string& path, const std::string& bytes) {
  std::string temp = path + ".tmp";
  UniqueFd fd(OpenCloexec(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644));
  if (!fd.Valid()) return false;
  bool ok = WriteAll(fd.Get(), bytes);
  fd.Reset();
  if (ok && rename(temp.c_str(), path.c_str()) == 0) return true;
  unlink(temp.c_str());
  return false;
}

// The highest post number already in the store, so a restarted receiver goes on numbering.
unsigned HighestStoredIndex(const std::string& dir) {
  std::unique_ptr<DIR, DirCloser> listing(opendir(dir.c_str()));
  unsigned highest = 0;
  if (!listing) return 0;
  while (dirent* entry = readdir(listing.get())) {
    unsigned index = 0;
    char suffix[8] = {};
    if (sscanf(entry->d_name, "post-%u.%7s", &index, suffix) == 2 && strcmp(suffix, "bin") == 0 && index > highest) {
      highest = index;
    }
  }
  return highest;
}

// zlib's inflate of a whole body; false when the bytes are not a zlib stream (the module may announce "Zip"
// and still send the plain file, when compressing would not have made it smaller).
bool Inflate(const std::string& in, std::string& out) {
  z_stream zs{};
  if (inflateInit(&zs) != Z_OK) return false;
  zs.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(in.data()));
  zs.avail_in = static_cast<uInt>(in.size());
  std::string result;
  char chunk[65536];
  int rc;
  do {
    zs.next_out = reinterpret_cast<Bytef*>(chunk);
    zs.avail_out = sizeof chunk;
    rc = inflate(&zs, Z_NO_FLUSH);
    result.append(chunk, sizeof chunk - zs.avail_out);
  } while (rc == Z_OK);
  inflateEnd(&zs);
  if (rc != Z_STREAM_END) return false;
  out.swap(result);
  return true;
}

// What the posted file holds: its top-level list decoded with the module's own classes and shown as JSON,
// or why it does not decode. Returns the sidecar line.
std::string Decode(const std::string& file, bool zipAnnounced, std::string& json) {
  std::string text = file;
  std::string note;
  if (zipAnnounced) note = Inflate(file, text) ? ", inflated" : ", announced as zipped but not compressed";
  CBencodeStream stream(std::string(), false);
  stream.Write(text.data(), text.size());
  stream.Seekg(0, std::ios_base::beg);
  CBencodeList payload(false);
  if (text.empty() || !payload.Internalize(stream)) return "decoded: no (not a bencode list" + note + ")";
  std::ostringstream out;
  cef::WriteJson(payload, out, 2);
  json = out.str() + "\n";
  return "decoded: list of " + std::to_string(payload.Items().size()) + " values" + note;
}

bool ParseNumber(const std::string& text, long& value) {
  if (text.empty()) return false;
  char* end = nullptr;
  errno = 0;
  long v = strtol(text.c_str(), &end, 10);
  if (errno != 0 || *end != '\0') return false;
  value = v;
  return true;
}

}  // namespace

FeedbackReceiver::FeedbackReceiver(const std::string& storeDir)
    : storeDir_(storeDir), nextIndex_(HighestStoredIndex(storeDir) + 1) {}

void FeedbackReceiver::Install(httplib::Server& server) {
  // Read through a content reader: the library's own form handling refuses form bodies above a few
  // kilobytes and would parse what it reads, while a feedback post is megabytes of raw bytes.
  server.Post(kFeedbackPath, [this](const httplib::Request& request, httplib::Response& response,
                                    const httplib::ContentReader& reader) {
    const PostBehaviour behaviour = NextBehaviour();
    if (behaviour.kind == PostBehaviour::eHang) {
      // Before the body is read, so that a client with a large body is left sending.
      printf("post left unanswered\n");
      fflush(stdout);
      HangUntilClientLeaves(request);
      // Whatever is answered now goes to a client that has gone, or to one that waited out the bound.
      response.status = 503;
      return;
    }
    std::string body;
    reader([&body](const char* data, size_t length) {
      body.append(data, length);
      return true;
    });
    HandlePost(request, body, behaviour, response);
  });
  server.Post(kControlPath, [this](const httplib::Request& request, httplib::Response& response) {
    HandleControl(request, response);
  });
}

std::string FeedbackReceiver::LongBody(size_t length, long nulAt) {
  std::string body(length, '\0');
  for (size_t i = 0; i < length; ++i) body[i] = static_cast<char>('a' + i % 26);
  if (nulAt >= 0 && static_cast<size_t>(nulAt) < length) body[static_cast<size_t>(nulAt)] = '\0';
  return body;
}

bool FeedbackReceiver::ApplyCommand(const std::string& command, std::string& error) {
  std::istringstream words(command);
  std::string action;
  words >> action;
  PostBehaviour behaviour;
  long count = 1;
  if (action == "reset") {
    std::lock_guard<std::mutex> lock(mutex_);
    queue_.clear();
    return true;
  } else if (action == "status") {
    behaviour.kind = PostBehaviour::eStatus;
    behaviour.status = 0;
  } else if (action == "hang") {
    behaviour.kind = PostBehaviour::eHang;
  } else if (action == "close") {
    behaviour.kind = PostBehaviour::eClose;
  } else if (action == "body") {
    behaviour.kind = PostBehaviour::eLongBody;
  } else if (action == "trickle") {
    behaviour.kind = PostBehaviour::eTrickle;
    behaviour.length = 1000;
    behaviour.intervalMs = 300;
  } else {
    error = "unknown action '" + action + "'";
    return false;
  }
  std::string word;
  while (words >> word) {
    size_t eq = word.find('=');
    std::string key = word.substr(0, eq);
    long value = 0;
    if (eq == std::string::npos || !ParseNumber(word.substr(eq + 1), value)) {
      error = "expected key=number, got '" + word + "'";
      return false;
    }
    if (key == "count" && value >= 1 && value <= 1000) {
      count = value;
    } else if (key == "code" && behaviour.kind == PostBehaviour::eStatus && value >= 100 && value <= 599) {
      behaviour.status = static_cast<int>(value);
    } else if (key == "length" &&
               (behaviour.kind == PostBehaviour::eLongBody || behaviour.kind == PostBehaviour::eTrickle) &&
               value >= 0 && value <= (64L << 20)) {
      behaviour.length = static_cast<size_t>(value);
    } else if (key == "nul" && behaviour.kind == PostBehaviour::eLongBody && value >= -1) {
      behaviour.nulAt = value;
    } else if (key == "interval" && behaviour.kind == PostBehaviour::eTrickle && value >= 1 && value <= 60000) {
      behaviour.intervalMs = value;
    } else {
      error = "bad argument '" + word + "' for " + action;
      return false;
    }
  }
  if (behaviour.kind == PostBehaviour::eStatus && behaviour.status == 0) {
    error = "status needs code=NNN";
    return false;
  }
  std::lock_guard<std::mutex> lock(mutex_);
  queue_.insert(queue_.end(), static_cast<size_t>(count), behaviour);
  return true;
}

PostBehaviour FeedbackReceiver::NextBehaviour() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (queue_.empty()) return PostBehaviour{};
  PostBehaviour next = queue_.front();
  queue_.pop_front();
  return next;
}

void FeedbackReceiver::HandleControl(const httplib::Request& request, httplib::Response& response) {
  std::string error;
  if (ApplyCommand(request.body, error)) {
    printf("control: %s\n", request.body.c_str());
    response.set_content("queued\n", "text/plain");
  } else {
    response.status = 400;
    response.set_content(error + "\n", "text/plain");
  }
  fflush(stdout);
}

void FeedbackReceiver::HandlePost(const httplib::Request& request, const std::string& body,
                                  const PostBehaviour& behaviour, httplib::Response& response) {
  switch (behaviour.kind) {
    case PostBehaviour::eStatus:
      printf("post refused with status %d\n", behaviour.status);
      response.status = behaviour.status;
      response.set_content("refused\n", "text/plain");
      break;
    case PostBehaviour::eClose:
      printf("post dropped\n");
      DropConnection(request);
      break;
    case PostBehaviour::eHang:  // dealt with before the body is read
      break;
    case PostBehaviour::eAccept:
    case PostBehaviour::eLongBody:
    case PostBehaviour::eTrickle: {
      std::string error;
      if (!Store(request, body, error)) {
        printf("post rejected: %s\n", error.c_str());
        response.status = 400;
        response.set_content(error + "\n", "text/plain");
        break;
      }
      if (behaviour.kind == PostBehaviour::eLongBody) {
        response.set_content(LongBody(behaviour.length, behaviour.nulAt), "text/plain");
      } else if (behaviour.kind == PostBehaviour::eTrickle) {
        Trickle(behaviour, response);
      } else {
        response.set_content("OK", "text/plain");
      }
      break;
    }
  }
  fflush(stdout);
}

bool FeedbackReceiver::Store(const httplib::Request& request, const std::string& body, std::string& error) {
  // The form body is taken raw: the feedback bytes follow "data=" unescaped.
  if (body.compare(0, kFormPrefixLength, kFormPrefix) != 0) {
    error = "body does not start with \"data=\"";
    return false;
  }
  unsigned index;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    index = nextIndex_++;
  }
  char name[32];
  snprintf(name, sizeof name, "post-%06u", index);
  std::string base = storeDir_ + "/" + name;
  std::string meta =
      std::string("path: ") + request.path + "\nlength: " + std::to_string(body.size() - kFormPrefixLength) + "\n";
  bool hasZip = request.has_header("Zip");
  if (hasZip) {
    // A repeated header is kept as one line of its values joined by ", ", so a duplicate shows.
    std::string zip;
    const char* separator = "";
    for (auto range = request.headers.equal_range("Zip"); range.first != range.second; ++range.first) {
      zip += separator + range.first->second;
      separator = ", ";
    }
    meta += "zip: " + zip + "\n";
  }
  std::string const file = body.substr(kFormPrefixLength);
  std::string json;
  meta += Decode(file, hasZip && request.get_header_value("Zip") == "True", json) + "\n";
  // The sidecars first: once the body file is visible, they are too.
  if (!WriteFileAtomically(base + ".meta", meta) || (!json.empty() && !WriteFileAtomically(base + ".json", json)) ||
      !WriteFileAtomically(base + ".bin", file)) {
    error = std::string("cannot store post: ") + strerror(errno);
    return false;
  }
  printf("post %u stored: %zu bytes, Zip: %s\n", index, body.size() - kFormPrefixLength,
         hasZip ? request.get_header_value("Zip").c_str() : "(none)");
  return true;
}

void FeedbackReceiver::Trickle(const PostBehaviour& behaviour, httplib::Response& response) const {
  printf("post answered a byte every %ld ms\n", behaviour.intervalMs);
  // Fast enough for any low-speed guard, too slow to ever finish in a client's patience.
  response.set_content_provider(
      behaviour.length, "text/plain",
      [this, interval = behaviour.intervalMs](size_t offset, size_t, httplib::DataSink& sink) {
        for (long waited = 0; waited < interval; waited += 10) {
          if (stopping_) return false;
          usleep(10 * 1000);
        }
        const char byte = static_cast<char>('a' + offset % 26);
        return sink.is_writable() && sink.write(&byte, 1);
      });
}

void FeedbackReceiver::HangUntilClientLeaves(const httplib::Request& request) const {
  int fd = request.ssl ? SSL_get_fd(request.ssl) : -1;
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(kHangLimitSeconds);
  while (!stopping_ && std::chrono::steady_clock::now() < deadline) {
    if (fd < 0) {
      usleep(200 * 1000);
      continue;
    }
    pollfd watch{fd, POLLRDHUP, 0};
    int n = poll(&watch, 1, 200);
    if (n > 0 && (watch.revents & (POLLRDHUP | POLLHUP | POLLERR | POLLNVAL)) != 0) return;
  }
}

void FeedbackReceiver::DropConnection(const httplib::Request& request) {
  // Shutting the socket down (not closing it) leaves the descriptor to the server, which closes it when its
  // own write of the answer fails.
  int fd = request.ssl ? SSL_get_fd(request.ssl) : -1;
  if (fd >= 0) shutdown(fd, SHUT_RDWR);
}
