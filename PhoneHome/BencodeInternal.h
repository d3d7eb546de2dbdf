// What the bencode unit's sources share: the log line macro, the stream's byte buffer, the nesting bounds,
// the value made for a peeked type byte, and the steps that load and store a container through its file.
// Internal to the unit: nothing here is part of what a module builds against.
#pragma once

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ios>
#include <memory>
#include <memory_resource>
#include <string>
#include <vector>

#include "AppLog.h"
#include "PhoneHome/Bencode.h"

// Every failure of the bencode unit is logged once, where it is detected: the message at error importance,
// with the code it stands for (-3 for text that does not parse, -1, errno or a result code) as its argument.
#define BENCODE_FAILURE(code, message) BencodeInternal::LogFailure(__FUNCTION__, __LINE__, message, code)

// Byte storage with a string stream's positions and flags for exactly the operations used here.
// A plain string rather than a std::stringstream: every byte of a file passes through it. The parser and the
// writer call it directly, so its operations inline into them.
class CBencodeStream::CBuffer {
 public:
  bool Good() const { return m_uiState == 0; }
  bool Fail() const { return (m_uiState & (eFailBit | eBadBit)) != 0; }
  bool Eof() const { return (m_uiState & eEofBit) != 0; }
  void Clear() { m_uiState = 0; }
  void SetFail() { m_uiState |= eFailBit; }

  std::string const& Text() const { return m_strText; }
  void Assign(std::string&& text) {
    m_strText = std::move(text);
    m_ulGet = m_ulPut = 0;
  }

  int Peek() {
    if (!Good()) {
      Refuse();
      return EOF;
    }
    if (m_ulGet == m_strText.size()) {
      m_uiState |= eEofBit;
      return EOF;
    }
    return static_cast<unsigned char>(m_strText[m_ulGet]);
  }
  int Get() {
    if (!Good()) {
      Refuse();
      return EOF;
    }
    if (m_ulGet == m_strText.size()) {
      m_uiState |= eEofBit | eFailBit;
      return EOF;
    }
    return static_cast<unsigned char>(m_strText[m_ulGet++]);
  }

  enum EScan { eScanStopped, eScanEnded, eScanFull };
  // Copies bytes into `out` until 'e' or ':' (left unread), the end of the text (eof and fail set, as a
  // byte-wise read sets them) or `capacity` bytes taken. The stream must be good.
  EScan ScanIntegerText(char* out, int capacity, int& length) {
    char const* const begin = m_strText.data() + m_ulGet;
    std::size_t const available = m_strText.size() - m_ulGet;
    std::size_t const limit = std::min<std::size_t>(available, static_cast<std::size_t>(capacity));
    std::size_t n = 0;
    while (n < limit && begin[n] != 'e' && begin[n] != ':') ++n;
    std::memcpy(out, begin, n);
    length = static_cast<int>(n);
    m_ulGet += n;
    if (n < limit) return eScanStopped;
    if (n == static_cast<std::size_t>(capacity)) return eScanFull;
    m_uiState |= eEofBit | eFailBit;
    return eScanEnded;
  }

  bool Read(char* out, unsigned long count) {
    if (!Good()) {
      Refuse();
      return false;
    }
    unsigned long n = std::min<unsigned long>(count, m_strText.size() - m_ulGet);
    if (n != 0) std::memcpy(out, m_strText.data() + m_ulGet, n);
    m_ulGet += n;
    if (n != count) m_uiState |= eEofBit | eFailBit;
    return Good();
  }
  // Read of `count` bytes straight into `target`, keeping the text before the first zero byte.
  // `target` is assigned only when all bytes were there.
  bool ReadText(std::string& target, unsigned long count) {
    if (!Good()) {
      Refuse();
      return false;
    }
    if (m_strText.size() - m_ulGet < count) {
      m_ulGet = m_strText.size();
      m_uiState |= eEofBit | eFailBit;
      return false;
    }
    char const* text = m_strText.data() + m_ulGet;
    void const* zero = count != 0 ? std::memchr(text, 0, count) : nullptr;
    target.assign(text, zero != nullptr ? static_cast<char const*>(zero) - text : count);
    m_ulGet += count;
    return true;
  }
  bool Write(char const* in, unsigned long count) {
    if (!Good()) {
      if (m_uiState & eBadBit) m_uiState |= eFailBit;
      return false;
    }
    if (m_ulPut + count <= m_strText.size()) {
      if (count != 0) std::memcpy(&m_strText[m_ulPut], in, count);  // over earlier text
    } else {
      m_strText.resize(m_ulPut);  // whatever stood from here on is overwritten
      m_strText.append(in, count);
    }
    m_ulPut += count;
    return true;
  }

  long Tellg() {
    if (!Good()) {
      Refuse();
      return -1;
    }
    return static_cast<long>(m_ulGet);
  }
  long Tellp() const { return Fail() ? -1 : static_cast<long>(m_ulPut); }
  bool Seekg(unsigned long offset, std::ios_base::seekdir direction) {
    m_uiState &= ~eEofBit;
    if (!Good()) {
      Refuse();
      return false;
    }
    return Move(m_ulGet, offset, direction);
  }
  bool Seekp(unsigned long offset, std::ios_base::seekdir direction) {
    if (Fail()) return false;
    return Move(m_ulPut, offset, direction) && Good();
  }

  // Containers open in the parse or the serialisation running through this stream.
  int m_iNesting = 0;

 private:
  enum : unsigned { eEofBit = 1u, eFailBit = 2u, eBadBit = 4u };

  // An operation on a stream that is not good does nothing but set the fail flag.
  void Refuse() { m_uiState |= eFailBit; }
  // The offset is taken as signed, as a stream's off_type, so an offset from the end can go backwards.
  bool Move(unsigned long& position, unsigned long offset, std::ios_base::seekdir direction) {
    long base = direction == std::ios_base::beg   ? 0
                : direction == std::ios_base::cur ? static_cast<long>(position)
                                                  : static_cast<long>(m_strText.size());
    long target = base + static_cast<long>(offset);
    if (target < 0 || target > static_cast<long>(m_strText.size())) {
      m_uiState |= eFailBit;
      return false;
    }
    position = static_cast<unsigned long>(target);
    return true;
  }

  std::string m_strText;
  unsigned long m_ulGet = 0;
  unsigned long m_ulPut = 0;
  unsigned m_uiState = 0;
};

namespace BencodeInternal {

inline void LogFailure(char const* function, int line, char const* message, long code) {
  // The messages hold no conversion, so the code rides along as an argument the text does not print.
  CAppLog::LogDebugMessage(function, "Bencode", line, APPLOG_ERROR, message, code);
}

// One container level of a parse or a serialisation. Containers nest by recursion, so the depth bounds the
// stack: a container deeper than sm_iMaxNestingDepth is refused, as text that does not parse or as a value
// that does not write, by the container itself, with its type identifier's own line.
class CNestingLevel {
 public:
  explicit CNestingLevel(CBencodeStream::CBuffer& buffer) : m_buffer(buffer) { ++m_buffer.m_iNesting; }
  ~CNestingLevel() { --m_buffer.m_iNesting; }
  CNestingLevel(CNestingLevel const&) = delete;
  CNestingLevel& operator=(CNestingLevel const&) = delete;
  bool Allowed() const { return m_buffer.m_iNesting <= CBencode::sm_iMaxNestingDepth; }

 private:
  CBencodeStream::CBuffer& m_buffer;
};

// One container level of a comparison, which has no stream to count on: counted per thread. Two trees
// deeper than the limit compare unequal; neither could be written nor read, and following them down would
// take a stack as deep as they are.
class CComparisonLevel {
 public:
  CComparisonLevel();
  ~CComparisonLevel();
  CComparisonLevel(CComparisonLevel const&) = delete;
  CComparisonLevel& operator=(CComparisonLevel const&) = delete;
  bool Allowed() const;
};

// Deletes the children of a container that is being reset or destroyed. A module can build a tree of any
// depth through Append and Insert, and it must always be possible to drop it, so deletion never refuses:
// up to a fixed depth children are deleted in place, by the usual recursion; below that they are set aside
// and deleted once the stack has unwound to the outermost deletion, which repeats until nothing is left.
// The stack a deletion takes is therefore bounded whatever the depth of the tree.
class CDeletion {
 public:
  CDeletion();
  ~CDeletion();
  CDeletion(CDeletion const&) = delete;
  CDeletion& operator=(CDeletion const&) = delete;
  void Delete(CBencode* child) {
    if (m_bInPlace) {
      delete child;
    } else {
      SetAside(child);
    }
  }

 private:
  void SetAside(CBencode* child);

  bool m_bInPlace;
  bool m_bOutermost;
  std::vector<CBencode*> m_setAside;  // of the outermost deletion only
};

// Where the containers' entries come from: the same slabs as the values, so that a parsed tree lies in memory
// in the order it is walked. Standard containers with a polymorphic allocator keep this out of the header.
std::pmr::memory_resource* NodeResource();

// An empty value of the type that a bencoded value starting with `firstByte` has: 'i' integer, 'l' list,
// 'd' dictionary, and any other byte a string (so a stray byte fails as an illegal string).
std::unique_ptr<CBencode> NewValueFor(int firstByte);

// Loads the bound file and parses it into `container`: the stream's load code, -3 when the text does not
// parse, 0. The caller has checked that a stream exists.
EBencodeResult Load(CBencode& container, CBencodeStream& stream);

// Serialises `container` from the start of its stream and, with `flush`, writes the file; a spool hand-over
// into the named file empties the container. The caller has checked that a stream exists.
EBencodeResult Store(CBencode& container, CBencodeStream& stream, bool spool, bool flush);

}  // namespace BencodeInternal
