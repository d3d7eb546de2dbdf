// The record ledger and its reconciliation against what the soak finds on disk and at the servers.
#include "Ledger.h"

#include "Modules.h"

namespace soak {
namespace {

enum : uint8_t { kUnknown, kOpen, kDelivered, kLost };

}  // namespace

const char* LossName(Loss loss) {
  switch (loss) {
    case Loss::eRebuiltForDnsHash: return "payload rebuilt for the DNS hash while a collection waited";
    case Loss::ePostureWithLockedPair: return "BasePosture dropped with a locked ElevatedPosture";
    case Loss::eStoppedWhileWaiting: return "service stopped while a collection waited";
    case Loss::eOverwrittenFeedback: return "unposted feedback file overwritten after the numbers came round";
    case Loss::eCount: break;
  }
  return "?";
}

void Ledger::Written(uint64_t id, size_t writer) {
  if (m_state.size() <= id) {
    m_state.resize(id + 1, kUnknown);
    m_writer.resize(id + 1, 0);
  }
  m_state[id] = kOpen;
  m_writer[id] = static_cast<uint8_t>(writer);
  m_open[id] = Open{writer, Place::eModule, std::string(), 0, LossCauses{}, false};
  ++m_written;
}

void Ledger::HandedOver(const std::vector<uint64_t>& ids, const LossCauses& causes) {
  for (uint64_t id : ids) {
    auto it = m_open.find(id);
    if (it == m_open.end()) continue;
    it->second.place = Place::eDataFile;
    it->second.causes = causes;
  }
}

bool Ledger::Delivered(uint64_t id, const std::string& module, const std::string& tag, long value, bool& duplicate,
                       std::string& why) {
  duplicate = false;
  if (id >= m_state.size() || m_state[id] == kUnknown) {
    why = "record " + std::to_string(id) + " was never written";
    return false;
  }
  const size_t writer = m_writer[id];
  const ModuleFile& file = kModuleFiles[writer];
  const bool tagged = std::string(file.module) == "ServiceModule";
  if (module != file.module || tag != (tagged ? file.key : "") || value != RecordValue(id, writer)) {
    why = "record " + std::to_string(id) + " of " + file.key + " arrived as " + module + "/" + tag + " = " +
          std::to_string(value);
    return false;
  }
  if (m_state[id] == kDelivered) {
    duplicate = true;
    ++m_duplicates;
    return true;
  }
  if (m_state[id] == kLost) {
    why = "record " + std::to_string(id) + " arrived after it was counted lost";
    return false;
  }
  m_state[id] = kDelivered;
  m_open.erase(id);
  ++m_delivered;
  return true;
}

bool Ledger::Reconcile(const Where& where, const std::map<std::string, uint64_t>& outboundWrites,
                       const LossCauses& causes, bool inFlight, std::string& why) {
  std::unordered_map<uint64_t, const std::string*> queued;
  for (const auto& [name, ids] : where.outbound) {
    for (uint64_t id : ids) queued[id] = &name;
  }
  std::unordered_map<uint64_t, Place> seen;
  for (uint64_t id : where.withModules) seen[id] = Place::eModule;
  for (uint64_t id : where.inDataFiles) seen[id] = Place::eDataFile;

  for (auto it = m_open.begin(); it != m_open.end();) {
    Open& open = it->second;
    auto queuedIt = queued.find(it->first);
    auto seenIt = seen.find(it->first);
    if (queuedIt != queued.end()) {
      open.place = Place::eOutbound;
      open.file = *queuedIt->second;
      auto writes = outboundWrites.find(open.file);
      open.fileWrites = writes == outboundWrites.end() ? 0 : writes->second;
      open.causes = causes;
    } else if (seenIt != seen.end()) {
      open.place = seenIt->second;
      open.causes = causes;
    } else if (open.place == Place::eModule) {
      why = "record " + std::to_string(it->first) + " vanished from its module " + kModuleFiles[open.writer].key;
      return false;
    } else if (inFlight) {
      if (open.place == Place::eDataFile) open.takenWhileWaiting = true;
    } else {
      // Each cause only where it can act: an outbound file written over, a posture pair whose second file
      // was locked, or data the agent held while its collection waited.
      Loss loss = Loss::eCount;
      if (open.place == Place::eOutbound) {
        auto writes = outboundWrites.find(open.file);
        if (writes != outboundWrites.end() && writes->second > open.fileWrites) loss = Loss::eOverwrittenFeedback;
      } else if (open.writer == kBasePostureWriter &&
                 causes.elevatedLockedPasses > open.causes.elevatedLockedPasses) {
        loss = Loss::ePostureWithLockedPair;
      } else if (open.takenWhileWaiting && causes.rebuildsAfterWaiting > open.causes.rebuildsAfterWaiting) {
        loss = Loss::eRebuiltForDnsHash;
      } else if (open.takenWhileWaiting && causes.stopsWhileWaiting > open.causes.stopsWhileWaiting) {
        loss = Loss::eStoppedWhileWaiting;
      }
      if (loss == Loss::eCount) {
        why = "record " + std::to_string(it->first) + " of " + kModuleFiles[open.writer].key + ", last seen " +
              (open.place == Place::eOutbound ? "in outbound file " + open.file : std::string("in its data file")) +
              ", is gone in no described way";
        return false;
      }
      ++m_lost[static_cast<size_t>(loss)];
      m_state[it->first] = kLost;
      it = m_open.erase(it);
      continue;
    }
    ++it;
  }
  return true;
}

}  // namespace soak
