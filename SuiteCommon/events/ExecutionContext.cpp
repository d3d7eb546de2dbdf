// The multiton of execution contexts: one context per instance id, alive while anyone holds a reference.
#include "ExecutionContext.h"

#include <map>
#include <mutex>

namespace {

struct Slot {
  CExecutionContext* context;
  unsigned int references;
};

struct Registry {
  std::mutex mutex;
  std::map<int, Slot> slots;
};

Registry& Contexts() {
  static Registry* registry = new Registry;  // never destroyed: a plug-in may release during process exit
  return *registry;
}

}  // namespace

long CExecutionContext::CreateMultitonInstance(CExecutionContext*& instance, int id) {
  if (id < 0) return EVT_E_INVALIDARG;
  Registry& registry = Contexts();
  std::lock_guard<std::mutex> lock(registry.mutex);
  auto it = registry.slots.find(id);
  if (it == registry.slots.end()) {
    it = registry.slots.emplace(id, Slot{new CExecutionContext(id), 0}).first;
  }
  ++it->second.references;
  instance = it->second.context;
  return 0;
}

CExecutionContext* CExecutionContext::acquireInstance(int id) {
  Registry& registry = Contexts();
  std::lock_guard<std::mutex> lock(registry.mutex);
  auto it = registry.slots.find(id);
  if (it == registry.slots.end()) return nullptr;
  ++it->second.references;
  return it->second.context;
}

long CExecutionContext::releaseInstance(int id) {
  CExecutionContext* last = nullptr;
  {
    Registry& registry = Contexts();
    std::lock_guard<std::mutex> lock(registry.mutex);
    auto it = registry.slots.find(id);
    if (it == registry.slots.end()) return EVT_E_NO_INSTANCE;
    if (--it->second.references == 0) {
      last = it->second.context;
      registry.slots.erase(it);
    }
  }
  // Outside the registry lock: the lists' destructors take their own locks.
  delete last;
  return 0;
}

long CExecutionContext::release() { return releaseInstance(m_iInstanceId); }
