// The agent's posts: every file of the outbound directory to the primary feedback server, then once to the
// secondary one, and the retry timer after the first failure.
#include <zlib.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <string>

#include "AppLog.h"
#include "BuildConfig.h"
#include "Directory.h"
#include "EventCodes.h"
#include "PhoneHome/FileUploader.h"
#include "PhoneHome/PhoneHomeAgent.h"
#include "UniqueFd.h"

namespace {

const char kUnit[] = "PhoneHomeAgent";
const char kProductName[] = "Orvane";
const char kBodyPrefix[] = "data=";
const size_t kBodyPrefixLength = sizeof kBodyPrefix - 1;
// The largest file posted; one of exactly this size still goes.
const unsigned long long kMaxPostFileSize = 0x1000000;

bool ReadExactly(int fd, char* buffer, size_t size) {
  size_t done = 0;
  while (done < size) {
    const ssize_t n = ReadRetrying(fd, buffer + done, size - done);
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

}  // namespace

bool CPhoneHomeAgent::PostDataFile(const std::string& path) {
  UniqueFd file(OpenCloexec(path.c_str(), O_RDONLY));
  if (!file.Valid()) {
    CAppLog::LogDebugMessage(__FUNCTION__, kUnit, __LINE__, APPLOG_ERROR, "Unable to open file (%s)", path.c_str());
    return false;
  }
  const off_t end = lseek(file.Get(), 0, SEEK_END);
  if (end < 0 || lseek(file.Get(), 0, SEEK_SET) != 0) {
    CAppLog::LogDebugMessage(__FUNCTION__, kUnit, __LINE__, APPLOG_ERROR, "Failed to seek in file (%s)", path.c_str());
    return false;
  }
  const unsigned long long size = static_cast<unsigned long long>(end);
  if (size > kMaxPostFileSize) {
    CAppLog::LogDebugMessage(__FUNCTION__, kUnit, __LINE__, APPLOG_ERROR,
                             "File size exceeds maximum size limit (%d)", static_cast<int>(kMaxPostFileSize));
    return false;
  }

  // "data=", the file's bytes and a NUL that is not posted.
  std::unique_ptr<char[]> body(new (std::nothrow) char[size + 6]);
  if (!body) {
    CAppLog::LogDebugMessage(__FUNCTION__, kUnit, __LINE__, APPLOG_ERROR, "Failed to read file (%s) content",
                             path.c_str());
    return false;
  }
  memcpy(body.get(), kBodyPrefix, kBodyPrefixLength);
  const bool read = ReadExactly(file.Get(), body.get() + kBodyPrefixLength, size);
  file.Reset();
  if (!read) {
    CAppLog::LogDebugMessage(__FUNCTION__, kUnit, __LINE__, APPLOG_ERROR, "Failed to read file (%s) content",
                             path.c_str());
    return false;
  }
  body[kBodyPrefixLength + size] = '\0';
  const char* data = body.get();
  int length = static_cast<int>(size + kBodyPrefixLength);

  std::unique_ptr<char[]> zipped;
  if (compressPost) {
    // The output may not outgrow the input: a body that does not shrink goes out as it is.
    zipped.reset(new (std::nothrow) char[size + 6]);
    uLongf zippedSize = static_cast<uLongf>(size);
    if (zipped && compress(reinterpret_cast<Bytef*>(zipped.get() + kBodyPrefixLength), &zippedSize,
                           reinterpret_cast<const Bytef*>(body.get() + kBodyPrefixLength),
                           static_cast<uLong>(size)) == Z_OK) {
      memcpy(zipped.get(), kBodyPrefix, kBodyPrefixLength);
      data = zipped.get();
      length = static_cast<int>(zippedSize + kBodyPrefixLength);
    } else {
      CAppLog::LogDebugMessage(__FUNCTION__, kUnit, __LINE__, APPLOG_WARNING, "Can't compress feedback data");
    }
  }

  // The "Zip" flag is compressPost itself, also for a body that went out uncompressed; the server has always
  // been told so and copes.
  bool posted = false;
  long rc = PostToServer(serverUrl, data, length, posted);
  if (rc == 0) return true;
  if (!posted) return false;
  rc = PostToServer(OVF_SECONDARY_URL, data, length, posted);
  if (rc == 0) return true;
  if (posted) {
    CAppLog::LogReturnCode(__FUNCTION__, kUnit, __LINE__, APPLOG_ERROR, "CFileUploader::PostDataGetResponse", rc,
                           "Failed to post customer experence feedback data (%s) to %s", path.c_str(),
                           OVF_SECONDARY_URL);
  }
  return false;
}

long CPhoneHomeAgent::PostToServer(const std::string& url, const char* data, int length, bool& posted) {
  posted = false;
  long status = 0;
  {
    // Made and published under the guard that Stop takes, and the stop flag read inside it, so a stop that
    // arrives meanwhile either finds this uploader to abort or is seen here before anything is sent.
    std::lock_guard<std::mutex> guard(uploaderGuard);
    uploader = new (std::nothrow) CFileUploader(status, kProductName, url, true, "", "", "", "", serverPath, false,
                                                true, serverPort, true);
    if (uploader == nullptr) status = HTTP_E_INIT_FAILED;
    if (status != 0) {
      CAppLog::LogReturnCode("PostDataFile", kUnit, __LINE__, APPLOG_ERROR, "CFileUploader::CFileUploader", status);
    } else if (stopRequested) {
      status = HTTP_E_ABORTED;
    }
    if (status != 0) {
      delete uploader;
      uploader = nullptr;
      return status;
    }
  }
  std::string response;  // not looked at: only the status tells whether the server took the post
  const long rc = uploader->PostDataGetResponse(url, data, length, response, compressPost);
  posted = true;
  std::lock_guard<std::mutex> guard(uploaderGuard);
  delete uploader;
  uploader = nullptr;
  return rc;
}

bool CPhoneHomeAgent::ScanAndPostFile(unsigned int retrySeconds) {
  Directory outbound;
  if (outbound.Open(outboundDir) != 0) {
    CAppLog::LogReturnCode(__FUNCTION__, kUnit, __LINE__, APPLOG_ERROR, "ScanAndPostFile", 0,
                           "Can't read Customer Experience Feedback outbound directory %s", outboundDir.c_str());
    return false;
  }
  std::string name;
  for (;;) {
    if (stopRequested) return true;
    if (!outbound.Next(name)) return true;
    if (name == "." || name == "..") continue;
    // Whatever lies there goes, in the listing's order: the directory is the agent's own.
    const std::string path = outboundDir + name;
    if (PostDataFile(path)) {
      UpdateTimeInHistory("last_post");
      if (remove(path.c_str()) != 0) {
        CAppLog::LogDebugMessage(__FUNCTION__, kUnit, __LINE__, APPLOG_WARNING, "Can't remove %s", path.c_str());
      }
      CAppLog::LogDebugMessage(__FUNCTION__, kUnit, __LINE__, APPLOG_INFO, " File posted to PhoneHome server");
      continue;
    }
    if (retrySeconds == 0) {
      CAppLog::LogDebugMessage(__FUNCTION__, kUnit, __LINE__, APPLOG_WARNING, "post failed, give up this time.");
    } else {
      const long err =
          retryTimer != nullptr ? retryTimer->StartTimer(retrySeconds * 1000u) : EVT_E_NOT_ATTACHED;
      if (err != 0) CAppLog::LogReturnCode(__FUNCTION__, kUnit, __LINE__, APPLOG_ERROR, "CTimer::StartTimer", err);
    }
    // The rest stays for a later pass.
    return true;
  }
}
