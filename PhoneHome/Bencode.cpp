// Scalar bencode values: integers and byte strings, their canonical writer and their lenient reader; the
// memory of every value, and the bounds on how deep containers are followed.
#include "PhoneHome/BencodeInternal.h"

#include <atomic>
#include <climits>
#include <new>
#include <vector>

#if defined(__SANITIZE_ADDRESS__)
#define OVF_BENCODE_NODE_POOL 0  // let the sanitizer see every block
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define OVF_BENCODE_NODE_POOL 0
#endif
#endif
#ifndef OVF_BENCODE_NODE_POOL
#define OVF_BENCODE_NODE_POOL 1
#endif

namespace {

std::string TextBeforeZero(std::string const& text) { return text.substr(0, text.find('\0')); }

// Values are carved, in the order they are made, out of 64 KiB slabs: a tree parsed
// from a file then lies in memory in file order, which is the order every walk (serialise, compare, destroy)
// visits it. A block is never reused on its own; a slab goes back to the heap when its last block is released.
constexpr std::size_t kSlabSize = std::size_t(64) << 10;
constexpr std::size_t kLargestPooled = 512;
constexpr std::size_t kBlockAlignment = alignof(void*);

struct SSlab {
  // Blocks not yet released. While a thread carves from the slab it holds kCarvingBias here instead of
  // counting each block it hands out, and settles the difference when it moves on (RetireSlab); blocks may be
  // released on any thread meanwhile.
  std::atomic<std::size_t> live;
};
constexpr std::size_t kCarvingBias = std::size_t(1) << 40;

// Each block starts with the address of its slab, so that releasing needs no search.
struct SBlockHeader {
  SSlab* slab;
};
constexpr std::size_t kSlabHeaderSize = (sizeof(SSlab) + kBlockAlignment - 1) / kBlockAlignment * kBlockAlignment;

void DropSlab(SSlab* slab, std::size_t count) {
  if (slab->live.fetch_sub(count, std::memory_order_acq_rel) == count) {
    slab->~SSlab();
    ::operator delete(slab);
  }
}

SSlab* NewSlab(std::size_t live) {
  SSlab* slab = new (::operator new(kSlabSize)) SSlab;
  slab->live.store(live, std::memory_order_relaxed);
  return slab;
}

// The slab this thread carves from. Trivially destructible, so it stays usable while the thread's other
// thread-local objects are destroyed.
struct SCarving {
  SSlab* slab;
  char* next;
  char* end;
  std::size_t carved;  // blocks handed out of `slab`
  bool armed;   // the exit hook below has been set up for this thread
  bool closed;  // the thread is exiting: every block then gets a slab of its own
};
thread_local SCarving t_carving;

// Stops carving from the thread's slab: what remains counted is the blocks still in use.
void RetireSlab(SCarving& carving) {
  if (carving.slab != nullptr) DropSlab(carving.slab, kCarvingBias - carving.carved);
  carving.slab = nullptr;
}

struct SCarvingExit {
  ~SCarvingExit() {
    RetireSlab(t_carving);
    t_carving.closed = true;
  }
};
thread_local SCarvingExit t_carvingExit;

std::size_t BlockFootprint(std::size_t size) {
  return (sizeof(SBlockHeader) + size + kBlockAlignment - 1) / kBlockAlignment * kBlockAlignment;
}

void* AllocateNode(std::size_t size) {
  if (!OVF_BENCODE_NODE_POOL || size > kLargestPooled) return ::operator new(size);
  std::size_t const footprint = BlockFootprint(size);
  SCarving& carving = t_carving;
  if (carving.slab == nullptr || carving.closed ||
      static_cast<std::size_t>(carving.end - carving.next) < footprint) {
    if (carving.closed) {
      SSlab* fresh = NewSlab(1);
      // Too late in the thread's life to keep a slab: this block's slab lives exactly as long as the block.
      auto* header = reinterpret_cast<SBlockHeader*>(reinterpret_cast<char*>(fresh) + kSlabHeaderSize);
      header->slab = fresh;
      return header + 1;
    }
    if (!carving.armed) {
      carving.armed = true;
      (void)&t_carvingExit;  // constructs the exit hook for this thread
    }
    RetireSlab(carving);
    SSlab* fresh = NewSlab(kCarvingBias);
    carving.slab = fresh;
    carving.next = reinterpret_cast<char*>(fresh) + kSlabHeaderSize;
    carving.end = reinterpret_cast<char*>(fresh) + kSlabSize;
    carving.carved = 0;
  }
  ++carving.carved;
  auto* header = reinterpret_cast<SBlockHeader*>(carving.next);
  header->slab = carving.slab;
  carving.next += footprint;
  return header + 1;
}

void ReleaseNode(void* block, std::size_t size) noexcept {
  if (block == nullptr) return;
  if (!OVF_BENCODE_NODE_POOL || size > kLargestPooled) {
    ::operator delete(block);
    return;
  }
  DropSlab((static_cast<SBlockHeader*>(block) - 1)->slab, 1);
}

// Containers being reset or destroyed on this thread, and where the outermost one keeps the children set
// aside below kDeletedInPlace levels (see CDeletion). Trivially destructible, like t_carving.
struct SDeletions {
  int depth;
  std::vector<CBencode*>* setAside;
};
thread_local SDeletions t_deletions;
constexpr int kDeletedInPlace = 64;

thread_local int t_comparisonDepth;

// The slabs as the memory of the containers' entries.
class CNodeResource : public std::pmr::memory_resource {
  void* do_allocate(std::size_t bytes, std::size_t alignment) override {
    if (alignment > kBlockAlignment) return ::operator new(bytes, std::align_val_t(alignment));
    return AllocateNode(bytes);
  }
  void do_deallocate(void* block, std::size_t bytes, std::size_t alignment) override {
    if (alignment > kBlockAlignment) return ::operator delete(block, std::align_val_t(alignment));
    ReleaseNode(block, bytes);
  }
  bool do_is_equal(std::pmr::memory_resource const& other) const noexcept override { return this == &other; }
};

}  // namespace

// The named limits are members with storage in the library: a module that takes one by reference links
// against these, and every user of the header still sees the values as constants.
const int CBencodeStream::sm_iMaxIntSize;
const mode_t CBencodeStream::sm_fileCreationMode;
const long CBencodeStream::sm_iMaxFileSize;
const long CBencode::sm_iMaxStringSize;
const int CBencode::sm_iMaxNestingDepth;

void* CBencode::operator new(std::size_t size) { return AllocateNode(size); }

void CBencode::operator delete(void* block, std::size_t size) noexcept { ReleaseNode(block, size); }

BencodeInternal::CDeletion::CDeletion()
    : m_bInPlace(t_deletions.depth < kDeletedInPlace), m_bOutermost(t_deletions.depth == 0) {
  if (m_bOutermost) t_deletions.setAside = &m_setAside;
  ++t_deletions.depth;
}

BencodeInternal::CDeletion::~CDeletion() {
  if (m_bOutermost) {
    // Each child deleted here starts again at the top of the in-place depth.
    while (!m_setAside.empty()) {
      CBencode* child = m_setAside.back();
      m_setAside.pop_back();
      delete child;
    }
    t_deletions.setAside = nullptr;
  }
  --t_deletions.depth;
}

void BencodeInternal::CDeletion::SetAside(CBencode* child) {
  if (child != nullptr) t_deletions.setAside->push_back(child);
}

std::pmr::memory_resource* BencodeInternal::NodeResource() {
  // Never destroyed: trees held by static objects may be dropped after every other static is gone.
  static CNodeResource* const resource = new CNodeResource;
  return resource;
}

BencodeInternal::CComparisonLevel::CComparisonLevel() { ++t_comparisonDepth; }

BencodeInternal::CComparisonLevel::~CComparisonLevel() { --t_comparisonDepth; }

bool BencodeInternal::CComparisonLevel::Allowed() const { return t_comparisonDepth <= CBencode::sm_iMaxNestingDepth; }

CBencode::CBencode(EContentType type) : m_eType(type), m_iValue(0) {}

CBencode::CBencode(long value) : m_eType(eInteger), m_iValue(value) {}

CBencode::CBencode(std::string const& value) : m_eType(eString), m_iValue(0), m_strValue(TextBeforeZero(value)) {}

CBencode::~CBencode() = default;

bool CBencode::Set(long value) {
  if (m_eType != eInteger) {
    BENCODE_FAILURE(-1, "Bencode is not of type integer");
    return false;
  }
  m_iValue = value;
  return true;
}

bool CBencode::Set(std::string const& value) {
  if (m_eType != eString) {
    BENCODE_FAILURE(-1, "Bencode is not of type string");
    return false;
  }
  m_strValue = TextBeforeZero(value);
  return true;
}

bool CBencode::Get(long& value) const {
  if (m_eType != eInteger) {
    BENCODE_FAILURE(-1, "Bencode is not of type integer");
    return false;
  }
  value = m_iValue;
  return true;
}

bool CBencode::Get(std::string& value) const {
  if (m_eType != eString) {
    BENCODE_FAILURE(-1, "Bencode is not of type string");
    return false;
  }
  value = TextBeforeZero(m_strValue);
  return true;
}

bool CBencode::Add(long delta) {
  if (m_eType != eInteger) {
    BENCODE_FAILURE(-1, "Add function called for non-Integer bencode type");
    return false;
  }
  if ((delta > 0 && m_iValue > LONG_MAX - delta) || (delta < 0 && m_iValue < LONG_MIN - delta)) {
    BENCODE_FAILURE(-1, "Add operation will cause integer overflow");
    return false;
  }
  m_iValue += delta;
  return true;
}

void CBencode::Reset() {
  if (m_eType == eInteger) {
    m_iValue = 0;
  } else if (m_eType == eString) {
    m_strValue.clear();
  }
}

bool CBencode::operator==(CBencode const& other) const {
  if (m_eType != other.m_eType) return false;
  switch (m_eType) {
    case eInteger:
      return m_iValue == other.m_iValue;
    case eString:
      return m_strValue == other.m_strValue;
    default:
      BENCODE_FAILURE(-1, "Unexpected Bencode type");
      return false;
  }
}

bool CBencode::Externalize(CBencodeStream& stream) {
  switch (m_eType) {
    case eInteger:
      stream.WriteInteger(m_iValue);
      return stream.m_pBuffer->Good();
    case eString:
      stream.WriteString(m_strValue);
      return stream.m_pBuffer->Good();
    default:
      return false;
  }
}

bool CBencode::Internalize(CBencodeStream& stream) {
  if (m_eType == eString) return GetStringFromStream(stream, m_strValue);
  if (m_eType != eInteger) return false;

  CBencodeStream::CBuffer& buffer = *stream.m_pBuffer;
  if (buffer.Get() != 'i') {
    BENCODE_FAILURE(eBencodeIllegalData, "Failed to internalize integer type identifier");
    return false;
  }
  stream >> m_iValue;
  if (!buffer.Good()) {
    BENCODE_FAILURE(eBencodeIllegalData, "Failed to internalize integer value");
    return false;
  }
  if (buffer.Get() != 'e') {
    BENCODE_FAILURE(eBencodeIllegalData, "Integer internalize failed");
    return false;
  }
  return true;
}

bool CBencode::GetStringFromStream(CBencodeStream& stream, std::string& value) const {
  CBencodeStream::CBuffer& buffer = *stream.m_pBuffer;
  long length = 0;
  stream >> length;
  if (!buffer.Good() || length < 0 || length > sm_iMaxStringSize) {
    BENCODE_FAILURE(eBencodeIllegalData, "Illegal bencode string");
    return false;
  }
  if (buffer.Get() != ':') {
    BENCODE_FAILURE(eBencodeIllegalData, "Illegal bencode string");
    return false;
  }
  if (!buffer.ReadText(value, static_cast<unsigned long>(length))) {
    BENCODE_FAILURE(eBencodeIllegalData, "Illegal bencode string");
    return false;
  }
  return true;
}
