// Host side of the soak: plug-in entry points, service thread, settings answer, log sink, loop view.
#include "Host.h"

#include <dlfcn.h>

#include "Clock.h"
#include "ExecutionContext.h"
#include "IBencodeSettings.h"

namespace soak {
namespace {

const char kServiceId[] = "com.velmar.orvane.service.customer.feedback";
constexpr size_t kTailLines = 40;

// Texts counted by LogWatch; the post texts also mark a post pass at the moment they are logged.
const char* const kCounted[] = {
    "Failed to post customer experence feedback data (",
    "File size exceeds maximum size limit",
    "post failed, give up this time.",
    " File posted to PhoneHome server",
    "Failed to internalize ",
    "Failed to Internalize ",
    "Failed to collect phoneHome data from all the components",
    "Failed to remove phoneHome status file",
    "Customer Experience Feedback module is disabled",
    "Removed Network dict",
};
const char* const kPostTexts[] = {"Failed to post customer experence feedback data (",
                                  "File size exceeds maximum size limit", "post failed, give up this time.",
                                  " File posted to PhoneHome server"};

}  // namespace

PluginLibrary::PluginLibrary(const std::string& path) : m_handle(dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL)) {
  if (m_handle == nullptr) {
    m_error = dlerror();
    return;
  }
  m_create = reinterpret_cast<PFN_CreatePlugin>(dlsym(m_handle, "CreatePlugin"));
  m_dispose = reinterpret_cast<PFN_DisposePlugin>(dlsym(m_handle, "DisposePlugin"));
  if (m_create == nullptr || m_dispose == nullptr) m_error = path + " lacks CreatePlugin or DisposePlugin";
}

PluginLibrary::~PluginLibrary() {
  if (m_handle != nullptr) dlclose(m_handle);
}

IPhoneHomePlugin* PluginLibrary::CreateService() const {
  return static_cast<IPhoneHomePlugin*>(m_create(kServiceId));
}

long SettingsHost::GetSettingsCB(IBencodeSettings* settings) {
  for (const auto& [key, value] : entries) {
    if (!settings->Insert(key.c_str(), value.c_str(), false)) return -1;
  }
  return 0;
}

LogWatch::LogWatch() {
  CAppLog::SetSink([this](const LogRecord& record) { Take(record); });
}

LogWatch::~LogWatch() { CAppLog::SetSink(nullptr); }

void LogWatch::Take(const LogRecord& record) {
  std::lock_guard<std::mutex> lock(m_mutex);
  // Counted by whole text, so a prefix names one module's lines or all of them.
  for (const char* text : kCounted) {
    if (record.text.rfind(text, 0) == 0) ++m_counts[record.text];
  }
  for (const char* text : kPostTexts) {
    if (record.text.rfind(text, 0) != 0) continue;
    const uint32_t now = GetCurrentTimeSeconds();  // simulated time stands still while a handler posts
    if (m_postMoments.empty() || m_postMoments.back() != now) m_postMoments.push_back(now);
  }
  m_tail.push_back(std::to_string(GetCurrentTimeSeconds()) + " " + CAppLog::FormatRecord(record));
  if (m_tail.size() > kTailLines) m_tail.pop_front();
}

uint64_t LogWatch::Count(const std::string& prefix) const {
  std::lock_guard<std::mutex> lock(m_mutex);
  uint64_t count = 0;
  for (auto it = m_counts.lower_bound(prefix); it != m_counts.end() && it->first.rfind(prefix, 0) == 0; ++it) {
    count += it->second;
  }
  return count;
}

std::vector<uint32_t> LogWatch::TakePostMoments() {
  std::lock_guard<std::mutex> lock(m_mutex);
  std::vector<uint32_t> moments;
  moments.swap(m_postMoments);
  return moments;
}

std::string LogWatch::Tail() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  std::string text;
  for (const std::string& line : m_tail) text += "    " + line + (line.empty() || line.back() != '\n' ? "\n" : "");
  return text;
}

Service::Service(const PluginLibrary& library, SettingsHost& host)
    : m_library(library), m_service(library.CreateService()) {
  if (m_service != nullptr) m_service->SetPhoneHomePluginCB(&host);
}

Service::~Service() {
  if (m_service == nullptr) return;
  if (m_result.valid()) {
    m_service->StopPhoneHome();
    m_result.wait();
  }
  m_library.Dispose(m_service);
}

void Service::Start() {
  m_result = std::async(std::launch::async, [service = m_service] { return service->StartPhoneHome(); });
}

bool Service::Returned() const {
  return m_result.valid() && m_result.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
}

bool Service::Stop(std::chrono::milliseconds bound, double& stopSeconds, double& returnSeconds) {
  using Clock = std::chrono::steady_clock;
  const auto begin = Clock::now();
  m_service->StopPhoneHome();
  stopSeconds = std::chrono::duration<double>(Clock::now() - begin).count();
  const bool inTime = !m_result.valid() || m_result.wait_until(begin + bound) == std::future_status::ready;
  if (m_result.valid()) m_result.get();
  returnSeconds = std::chrono::duration<double>(Clock::now() - begin).count();
  return inTime;
}

LoopView::LoopView() : m_context(nullptr) { CExecutionContext::CreateMultitonInstance(m_context, 3); }

LoopView::~LoopView() {
  if (m_context != nullptr) m_context->release();
}

long long LoopView::NextExpiryMs() const {
  unsigned int ms = 0;
  return m_context->GetTimerList()->TimeToExpired(ms) == 0 ? static_cast<long long>(ms) : -1;
}

uint64_t LoopView::Passes() const { return m_context->GetEventList()->GetWaitCount(); }

}  // namespace soak
