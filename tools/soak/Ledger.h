// Where every module record is: still with its module, in its data file, in a feedback file waiting in the
// outbound directory, or delivered; and, for one that is nowhere, which of the described ways took it.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

namespace soak {

// The ways the description lets module data go without reaching a server.
enum class Loss {
  eRebuiltForDnsHash,     // taken in an earlier pass of a collection that waited, then the payload was rebuilt
  ePostureWithLockedPair, // ServiceModule's first file taken while its second was locked: both dropped
  eStoppedWhileWaiting,   // the service stopped while a collection waited for a locked file
  eOverwrittenFeedback,   // an unposted feedback file written over when its sequence number came round
  eCount
};
const char* LossName(Loss loss);

// Counters of the moments that make a loss a described one; the ledger notes their values when it last saw a
// record and compares them when the record is gone.
struct LossCauses {
  uint64_t elevatedLockedPasses = 0;  // collection passes that found ElevatedPosture locked
  uint64_t rebuildsAfterWaiting = 0;  // passes that followed a waiting pass with a DNS hash set
  uint64_t stopsWhileWaiting = 0;
};

class Ledger {
 public:
  // A record the soak's module has just written.
  void Written(uint64_t id, size_t writer);
  // The records now handed over into their module's data file.
  void HandedOver(const std::vector<uint64_t>& ids, const LossCauses& causes);
  // A record found in a file the receivers got: false (with why) when it is not what its module wrote; true
  // and `duplicate` when it had arrived before.
  bool Delivered(uint64_t id, const std::string& module, const std::string& tag, long value, bool& duplicate,
                 std::string& why);
  // One look at where the undelivered records are. `inFlight` when a collection is waiting for a locked file:
  // records gone from their data files are then in the agent, and judged once the collection is over. Returns
  // false with why for a record gone in no described way.
  struct Where {
    std::vector<uint64_t> withModules, inDataFiles;
    std::map<std::string, std::vector<uint64_t>> outbound;  // file name -> records
  };
  bool Reconcile(const Where& where, const std::map<std::string, uint64_t>& outboundWrites,
                 const LossCauses& causes, bool inFlight, std::string& why);

  uint64_t WrittenCount() const { return m_written; }
  uint64_t DeliveredCount() const { return m_delivered; }
  uint64_t Duplicates() const { return m_duplicates; }
  uint64_t Lost(Loss loss) const { return m_lost[static_cast<size_t>(loss)]; }
  // Records not yet delivered and not lost: with modules, in data files, queued or in the agent.
  uint64_t Pending() const { return m_open.size(); }

 private:
  enum class Place { eModule, eDataFile, eOutbound };
  struct Open {
    size_t writer;
    Place place;
    std::string file;        // the outbound file, for eOutbound
    uint64_t fileWrites;     // how often that file had been written when the record was seen in it
    LossCauses causes;       // the counters when last seen
    bool takenWhileWaiting;  // gone from its data file in a pass after which the collection waited
  };
  std::unordered_map<uint64_t, Open> m_open;
  std::vector<uint8_t> m_state;  // per id: 0 unknown, 1 open, 2 delivered, 3 lost
  std::vector<uint8_t> m_writer;
  uint64_t m_written = 0, m_delivered = 0, m_duplicates = 0;
  uint64_t m_lost[static_cast<size_t>(Loss::eCount)] = {};
};

}  // namespace soak
