// The feedback agent: lifecycle and loop, timers, settings, payload, collection, history, reports and posts.
//
// Threads: one host thread runs Start, the loop and every timer handler; everything below belongs to it except
// what Stop, the destructor and the owner's IsPhoneHomeRunning reach from other threads: the two atomic flags,
// the wake-up event (signalled, never replaced while running) and the uploader, whose pointer is only read,
// replaced or deleted under uploaderGuard so that a stop never aborts an uploader that is already gone.
#pragma once

#include <atomic>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "ApiExport.h"
#include "EventList.h"
#include "PhoneHome/Bencode.h"
#include "TimerList.h"

class CExecutionContext;
class CFileUploader;
class CPhoneHomePlugin;

class OVF_API CPhoneHomeAgent : public ITimerCB, public IEventCB {
 public:
  // Writes err on every path: 0, or the runtime's code when the execution context or the wake-up event could
  // not be made (the half-built agent must then be destroyed without being started).
  CPhoneHomeAgent(long& err, CPhoneHomePlugin& owner);
  // Saves the history, then frees the uploader, the timers, the event and the execution-context reference.
  ~CPhoneHomeAgent() override;
  CPhoneHomeAgent(const CPhoneHomeAgent&) = delete;
  CPhoneHomeAgent& operator=(const CPhoneHomeAgent&) = delete;

  // Blocks the calling thread for the agent's whole life; true when the loop ended on a stop request or the
  // profile disables the module.
  bool Start();
  // From any thread: asks the loop to end and aborts a post in progress; false when not running.
  bool Stop();

  void OnTimerExpired(void* context, unsigned long timerId) override;
  void OnEventSignaled(void* context, unsigned long eventId) override;

  // Writes the threat report at reportPath into the outbound directory; it goes out with the next post pass.
  bool SaveThreatReportToFile(const std::string& reportPath);

  // The key/value line reader of the history and config files: a file, and the same over its text.
  static bool LoadFileToMap(const std::string& path, std::map<std::string, std::string>& map);
  static void LoadTextToMap(const std::string& text, std::map<std::string, std::string>& map);

  // SHA-1 of the bytes of `in` as 40 lower-case hexadecimal characters; `out` is unchanged on failure.
  static bool SHA1Hash(const std::string& in, std::string& out);

 protected:
  // Lifecycle; ApplyHistory is InitPhoneHomeAgent's reading of the loaded history (sequence number, last
  // report time, version).
  bool InitPhoneHomeAgent();
  void ApplyHistory();

  // Settings: the profile first, then the config file, whose intervals win.
  void LoadSettingsFromXmlFile();
  void LoadSettingsFromConfigFile();

  // Schedule.
  unsigned int CalcRemainingSeconds(const char* historyKey, unsigned int interval);
  void OnFeedbackTimer();
  void RearmTimer(CTimer* timer, unsigned int intervalSeconds);

  // Payload.
  bool InitPhoneHomePayload();
  bool BuildLevel1Payload(CBencodeList& list);
  bool BuildLevel2Payload(CBencodeList& level2);
  bool BuildLevel3Payload(CBencodeDictionary& quality);
  bool InsertOSDetails(CBencodeDictionary& quality);
  bool UpdateLevel2Payload(CBencodeList& level2);
  static bool GetMachineID(std::string& out);
  static bool GetUDID(std::string& out);

  // Module data collection and feedback files.
  bool CollectPhoneHomeDataAndSend(bool& retry);
  int GetModuleData(const std::string& module, const std::vector<std::string>& keys, CBencodeDictionary& moduleData);
  bool CreateBencodeFile(const std::string& prefix);

  // History.
  bool SaveHistoryFile();
  void UpdateTimeInHistory(const char* key);
  static bool GetFileCreationTime(const std::string& path, unsigned int& time);

  // Crash reports.
  bool CheckCrashDumps();
  bool CheckCrashDumps(const std::string& pattern, const std::string& moduleName);
  bool SaveCrashReportToDataFile(const std::string& dumpPath, const std::string& moduleName);

  // Outbound posts.
  bool PostDataFile(const std::string& path);
  bool ScanAndPostFile(unsigned int retrySeconds);

  // A plain list never frees the stream it is bound to; the payload, bound to each feedback file it writes,
  // frees its one stream with the agent.
  class CPayloadList : public CBencodeList {
   public:
    CPayloadList() : CBencodeList(false) {}
    ~CPayloadList() override { delete m_pStream; }
  };
  CPayloadList payload;
  CBencodeDictionary* qualityDict = nullptr;  // inside payload; re-pointed by every payload build
  CCEvent* wakeupEvent = nullptr;
  CTimer* starterTimer = nullptr;   // "Phone Home starter", id 2
  CTimer* feedbackTimer = nullptr;  // "Phone Home", id 3
  CTimer* crashTimer = nullptr;     // "Check Crash", id 4
  CTimer* retryTimer = nullptr;     // "Post Retry", id 5
  std::atomic<bool> stopRequested{false};
  std::atomic<bool> running{false};
  CPhoneHomePlugin& owner;
  CExecutionContext* executionContext = nullptr;  // the reference taken by the constructor
  CFileUploader* uploader = nullptr;               // only while a post runs
  std::mutex uploaderGuard;                        // held for every read, replacement and deletion of uploader
  std::string baseDir;
  std::string outboundDir;
  std::string historyFile;
  std::string configFile;
  std::string profileFile;
  std::string serverUrl;
  std::string serverPath;
  std::string machineId;
  std::string udid;
  std::string customerId;
  std::string dnsHash;
  bool serviceDisabled = false;
  bool includeCrashReport = false;  // nothing turns it on, so the crash timer is never created
  bool compressPost = false;
  unsigned short serverPort = 443;
  unsigned int feedbackInterval = 2592000;  // seconds
  unsigned int crashCheckInterval = 86400;  // seconds
  unsigned int sequenceNumber = 1;
  unsigned int retryCount = 0;
  unsigned int lastReportedTime = 0;  // seconds since the epoch
  unsigned int collectAttempts = 4;
  CBencodeDictionary moduleSettings{true};
  std::map<std::string, std::string> history;
  std::map<std::string, std::string> config;
  std::map<std::string, std::vector<std::string>> moduleFiles;

 private:
  // Start's pieces: one timer made (and armed unless ms is null), and the loop until a stop or a failure.
  bool CreateTimer(CTimer*& timer, CExecutionContext& context, unsigned long timerId, const char* name,
                   const unsigned int* ms);
  bool RunLoop(CExecutionContext& context);

  // Schedule: the settings query and first post pass five minutes after a start.
  void OnStarterTimer();
  // One post attempt at `url` with an uploader of its own: 0 when the server took it, else the code. `posted`
  // is false when nothing was sent: the uploader could not be made or a stop came first.
  long PostToServer(const std::string& url, const char* data, int length, bool& posted);
};
