// The suite's modules as the soak plays them: each writes its feedback records into its data file with the
// exported bencode classes in spool mode (the hand-over the agent takes from), may hold the file's lock or
// leave a broken file, and drops crash dumps and threat reports where the suite keeps them.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

class CBencodeDictionary;

namespace soak {

// One data file of one module: the settings key the host names it under, and the module it belongs to.
struct ModuleFile {
  const char* module;
  const char* key;
};
inline constexpr ModuleFile kModuleFiles[] = {
    {"AccessModule", "AccessPhoneHomeFile"},     {"WebFilterModule", "WebFilterPhoneHomeFile"},
    {"TunnelModule", "TunnelPhoneHomeFile"},     {"ResolverModule", "ResolverPhoneHomeFile"},
    {"FlowModule", "FlowPhoneHomeFile"},         {"PostureCheckModule", "PosturePhoneHomeFile"},
    {"ServiceModule", "BasePosture"},            {"ServiceModule", "ElevatedPosture"},
};
inline constexpr size_t kWriterCount = sizeof kModuleFiles / sizeof kModuleFiles[0];
inline constexpr size_t kTunnelWriter = 2;
inline constexpr size_t kBasePostureWriter = 6;
inline constexpr size_t kElevatedPostureWriter = 7;

// A record's key and value in a module's dictionary: the soak finds its records by them wherever they go.
std::string RecordKey(uint64_t id);
bool ParseRecordKey(const std::string& key, uint64_t& id);
long RecordValue(uint64_t id, size_t writer);

enum class BadFile { eCorrupt, eEmpty, eNested };

class ModuleWriter {
 public:
  ModuleWriter(size_t index, const std::string& path);
  ~ModuleWriter();
  ModuleWriter(const ModuleWriter&) = delete;
  ModuleWriter& operator=(const ModuleWriter&) = delete;

  const std::string& Path() const { return m_path; }
  // Adds the records [firstId, firstId + count) (and, for the tunnel module, the trusted interface's DNS
  // domain when one is given) and flushes: true when the data went into the named file (handed over), false
  // when the agent had not taken the last hand-over and it went to the side file, kept to be written again.
  bool Write(uint64_t firstId, unsigned count, const std::string& domain, bool& failed);
  // Records written but not yet handed over.
  std::vector<uint64_t> Unsent() const;

  // Holds the data file's lock, as a writer in the middle of its work does (the file is made if missing).
  bool Lock();
  void Unlock();
  bool Locked() const { return m_lockFd >= 0; }

  // Leaves a broken file where the data file goes, only where no data file waits; false when one does.
  bool PlaceBadFile(BadFile kind);
  // Removes the broken file again, as the module does once it notices.
  void ClearBadFile();
  bool HasBadFile() const { return m_hasBadFile; }

 private:
  size_t m_index;
  std::string m_path;
  std::unique_ptr<CBencodeDictionary> m_data;
  int m_lockFd = -1;
  bool m_hasBadFile = false;
};

// A file of `size` bytes, sparse, so that files past the size limits cost no disk.
bool WriteSparseFile(const std::string& path, uint64_t size, const std::string& head);

}  // namespace soak
