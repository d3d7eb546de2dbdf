// Scalar bencode values: integers and byte strings, their canonical writer and their lenient reader.
#include "PhoneHome/Bencode.h"

#include <climits>

#include "AppLog.h"

// Every failure of this unit is logged once, where it is detected, with the code it stands for.
#define BENCODE_FAILURE(call, code, ...) \
  CAppLog::LogReturnCode(__FUNCTION__, "Bencode", __LINE__, LOG_ERROR, call, code, __VA_ARGS__)

#if defined(__SANITIZE_ADDRESS__)
#define OVF_BENCODE_NODE_CACHE 0  // let the sanitizer see every block
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define OVF_BENCODE_NODE_CACHE 0
#endif
#endif
#ifndef OVF_BENCODE_NODE_CACHE
#define OVF_BENCODE_NODE_CACHE 1
#endif

namespace {

std::string TextBeforeZero(std::string const& text) { return text.substr(0, text.find('\0')); }

// Blocks are cached in classes 16 bytes apart that follow the heap's own chunk steps (16-byte chunks with
// an 8-byte header), so rounding a request up to its class costs no memory. Larger blocks are not cached.
constexpr std::size_t kGranule = 16;
constexpr std::size_t kClasses = 16;
constexpr std::size_t kLargestCached = kClasses * kGranule - 8;
// What one thread may hold in freed blocks: enough for the tree of a large file to be dropped and rebuilt
// without going back to the heap.
constexpr std::size_t kMaxCachedBytes = std::size_t(64) << 20;

struct SFreeBlock {
  SFreeBlock* next;
};

// Trivially destructible, so it stays usable while the thread's other thread-local objects are destroyed.
struct SCacheLists {
  SFreeBlock* heads[kClasses + 1];
  std::size_t bytes;
  bool drainArmed;
  bool closed;  // the thread is exiting: release straight to the heap
};
thread_local SCacheLists t_lists;

// Gives the cached blocks back to the heap when the thread ends.
struct SCacheDrain {
  ~SCacheDrain() {
    for (SFreeBlock*& head : t_lists.heads) {
      while (head != nullptr) {
        SFreeBlock* next = head->next;
        ::operator delete(head);
        head = next;
      }
    }
    t_lists.bytes = 0;
    t_lists.closed = true;
  }
  void Arm() {}
};
thread_local SCacheDrain t_drain;

std::size_t SizeClass(std::size_t size) { return (size + 8 + kGranule - 1) / kGranule; }
std::size_t BlockSize(std::size_t sizeClass) { return sizeClass * kGranule - 8; }

}  // namespace

void* CBencodeNodeCache::Allocate(std::size_t size) {
  if (!OVF_BENCODE_NODE_CACHE || size > kLargestCached) return ::operator new(size);
  std::size_t const sizeClass = SizeClass(size);
  SFreeBlock* block = t_lists.heads[sizeClass];
  if (block == nullptr) return ::operator new(BlockSize(sizeClass));
  t_lists.heads[sizeClass] = block->next;
  t_lists.bytes -= BlockSize(sizeClass);
  return block;
}

void CBencodeNodeCache::Release(void* block, std::size_t size) noexcept {
  std::size_t const sizeClass = SizeClass(size);
  if (!OVF_BENCODE_NODE_CACHE || block == nullptr || size > kLargestCached || t_lists.closed ||
      t_lists.bytes + BlockSize(sizeClass) > kMaxCachedBytes) {
    ::operator delete(block);
    return;
  }
  if (!t_lists.drainArmed) {
    t_lists.drainArmed = true;
    t_drain.Arm();  // first use constructs it, which registers its destructor for this thread
  }
  SFreeBlock* const freed = static_cast<SFreeBlock*>(block);
  freed->next = t_lists.heads[sizeClass];
  t_lists.heads[sizeClass] = freed;
  t_lists.bytes += BlockSize(sizeClass);
}

CBencode::CBencode(EContentType type) : m_eType(type), m_iValue(0) {}

CBencode::CBencode(long value) : m_eType(eInteger), m_iValue(value) {}

CBencode::CBencode(std::string const& value) : m_eType(eString), m_iValue(0), m_strValue(TextBeforeZero(value)) {}

CBencode::~CBencode() = default;

bool CBencode::Set(long value) {
  if (m_eType != eInteger) {
    BENCODE_FAILURE("Set", -1, "Bencode is not of type integer");
    return false;
  }
  m_iValue = value;
  return true;
}

bool CBencode::Set(std::string const& value) {
  if (m_eType != eString) {
    BENCODE_FAILURE("Set", -1, "Bencode is not of type string");
    return false;
  }
  m_strValue = TextBeforeZero(value);
  return true;
}

bool CBencode::Get(long& value) const {
  if (m_eType != eInteger) {
    BENCODE_FAILURE("Get", -1, "Bencode is not of type integer");
    return false;
  }
  value = m_iValue;
  return true;
}

bool CBencode::Get(std::string& value) const {
  if (m_eType != eString) {
    BENCODE_FAILURE("Get", -1, "Bencode is not of type string");
    return false;
  }
  value = TextBeforeZero(m_strValue);
  return true;
}

bool CBencode::Add(long delta) {
  if (m_eType != eInteger) {
    BENCODE_FAILURE("Add", -1, "Add function called for non-Integer bencode type");
    return false;
  }
  if ((delta > 0 && m_iValue > LONG_MAX - delta) || (delta < 0 && m_iValue < LONG_MIN - delta)) {
    BENCODE_FAILURE("Add", -1, "Add operation will cause integer overflow");
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
      BENCODE_FAILURE("operator==", -1, "Unexpected Bencode type");
      return false;
  }
}

bool CBencode::Externalize(CBencodeStream& stream) {
  switch (m_eType) {
    case eInteger:
      stream.Write("i", 1);
      stream << m_iValue;
      stream.Write("e", 1);
      return stream.Good();
    case eString:
      stream << static_cast<long>(m_strValue.size());
      stream.Write(":", 1);
      stream << m_strValue;
      return stream.Good();
    default:
      return false;
  }
}

bool CBencode::Internalize(CBencodeStream& stream) {
  if (m_eType == eString) return GetStringFromStream(stream, m_strValue);
  if (m_eType != eInteger) return false;

  char c = 0;
  if (!stream.Read(&c, 1) || c != 'i') {
    BENCODE_FAILURE("Read", eBencodeIllegalData, "Failed to internalize integer type identifier");
    return false;
  }
  stream >> m_iValue;
  if (!stream.Good()) {
    BENCODE_FAILURE("operator>>", eBencodeIllegalData, "Failed to internalize integer value");
    return false;
  }
  if (!stream.Read(&c, 1) || c != 'e') {
    BENCODE_FAILURE("Read", eBencodeIllegalData, "Integer internalize failed");
    return false;
  }
  return true;
}

bool CBencode::GetStringFromStream(CBencodeStream& stream, std::string& value) const {
  long length = 0;
  stream >> length;
  if (!stream.Good() || length < 0 || length > sm_iMaxStringSize) {
    BENCODE_FAILURE("operator>>", eBencodeIllegalData, "Illegal bencode string");
    return false;
  }
  char c = 0;
  if (!stream.Read(&c, 1) || c != ':') {
    BENCODE_FAILURE("Read", eBencodeIllegalData, "Illegal bencode string");
    return false;
  }
  if (!stream.m_buffer.ReadText(value, static_cast<unsigned long>(length))) {
    BENCODE_FAILURE("Read", eBencodeIllegalData, "Illegal bencode string");
    return false;
  }
  return true;
}
