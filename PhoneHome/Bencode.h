// Bencode values, the two owning containers, and the in-memory stream that binds a tree to a file.
//
// Ownership and lifetimes:
// - A CBencodeList or CBencodeDictionary owns every child it holds and deletes it on Reset, Remove, on
//   replacement (dictionary Insert) and in its destructor. CBencodeList::Erase is the one way to take a
//   child back: the caller fetches the pointer with operator[] first and owns it afterwards.
// - Pointers handed out by operator[], the dictionary's Get and the Append(T*&) forms stay owned by the
//   container and stay valid until that entry is removed or replaced or the container is reset.
// - A container bound to a file (file-form constructor or SetBencodeFileName) holds one CBencodeStream.
//   The dictionary deletes it with itself; the list does not (see ~CBencodeList).
// - Nothing here takes a lock of its own; between processes, files are guarded by a non-blocking flock
//   held for the length of each load and each flush.
#pragma once

#include <sys/types.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ios>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "ApiExport.h"

class CBencodeStream;
class CBencodeList;
class CBencodeDictionary;

// Memory of bencode values and container entries. Parsing a file makes them by the hundred thousand and a
// tree is usually dropped as a whole, so they are carved in order out of larger slabs instead of asking the
// heap for each (see Bencode.cpp). A block may be released on another thread than the one that made it.
class OVF_API CBencodeNodePool {
 public:
  static void* Allocate(std::size_t size);
  static void Release(void* block, std::size_t size) noexcept;
};

// Standard allocator over CBencodeNodePool, for the containers' entries.
template <typename T>
class CBencodeNodeAllocator {
 public:
  typedef T value_type;
  CBencodeNodeAllocator() noexcept = default;
  template <typename U>
  CBencodeNodeAllocator(CBencodeNodeAllocator<U> const&) noexcept {}
  T* allocate(std::size_t count) { return static_cast<T*>(CBencodeNodePool::Allocate(count * sizeof(T))); }
  void deallocate(T* block, std::size_t count) noexcept { CBencodeNodePool::Release(block, count * sizeof(T)); }
  template <typename U>
  bool operator==(CBencodeNodeAllocator<U> const&) const noexcept { return true; }
  template <typename U>
  bool operator!=(CBencodeNodeAllocator<U> const&) const noexcept { return false; }
};

// Result of every file-level operation: zero is success, every failure is negative.
enum EBencodeResult : int32_t {
  eBencodeOk = 0,
  eBencodeError = -1,        // open, size query, read or write failed; lock not taken while flushing
  eBencodeLockError = -2,    // lock not taken while loading
  eBencodeIllegalData = -3,  // file too large, or its text does not parse
  eBencodeNoStream = -4,     // the container has no file name set
};

// A scalar value (signed 64-bit integer or byte string), and the base of the containers.
class OVF_API CBencode {
 public:
  enum EContentType : int32_t {
    eInteger = 0,
    eString = 1,
    eList = 2,
    eDictionary = 3,
  };

  // Longest string value or key accepted by the reader, in bytes.
  static constexpr long sm_iMaxStringSize = 524288;

  static void* operator new(std::size_t size) { return CBencodeNodePool::Allocate(size); }
  static void operator delete(void* block, std::size_t size) noexcept { CBencodeNodePool::Release(block, size); }

  explicit CBencode(EContentType type);
  explicit CBencode(long value);
  // Keeps the text up to its first zero byte.
  explicit CBencode(std::string const& value);
  virtual ~CBencode();

  CBencode(CBencode const&) = delete;
  CBencode& operator=(CBencode const&) = delete;

  // Writes the value in canonical form; returns the stream's good state. Only integers and strings.
  virtual bool Externalize(CBencodeStream& stream);
  // Reads a value of this object's own type.
  virtual bool Internalize(CBencodeStream& stream);
  virtual void Reset();
  virtual bool operator==(CBencode const& other) const;

  bool Set(long value);
  bool Set(std::string const& value);
  bool Get(long& value) const;
  bool Get(std::string& value) const;
  // Adds with an overflow check; the value is unchanged on failure.
  bool Add(long delta);
  // Reads one bencoded string (length, ':', bytes); `value` is assigned only on success.
  bool GetStringFromStream(CBencodeStream& stream, std::string& value) const;

  EContentType GetType() const { return m_eType; }

 protected:
  EContentType m_eType;
  long m_iValue;
  std::string m_strValue;
};

// The whole of one file held in memory, with the read and write positions and the good / eof / fail / bad
// flags of a read-write string stream, plus the locked load and flush and the bencode integer reader and writer.
class OVF_API CBencodeStream {
 public:
  // Integer text buffer size, terminating zero included.
  static constexpr int sm_iMaxIntSize = 21;
  // Permission bits of every file the stream creates, before the umask.
  static constexpr mode_t sm_fileCreationMode = 0666;
  // Largest file LoadStream accepts, in bytes.
  static constexpr long sm_iMaxFileSize = 10485760;

  // Opens nothing. With `spool` set, loads come from fileName + ".temp" and flushes hand over (see FlushStream).
  CBencodeStream(std::string const& fileName, bool spool);
  virtual ~CBencodeStream();

  CBencodeStream(CBencodeStream const&) = delete;
  CBencodeStream& operator=(CBencodeStream const&) = delete;

  // Replaces the buffer with the file's text (up to its first zero byte), both positions at the start.
  // A missing file is created empty. The flags are not cleared.
  virtual EBencodeResult LoadStream();
  // Writes the buffer to the file. In spool mode the named file is created exclusively; when it already
  // exists the text goes to fileName + ".temp" instead and `wroteSideFile` is set.
  virtual EBencodeResult FlushStream(bool& wroteSideFile);

  // Empties the buffer and puts both positions at its start; the flags are left as they are.
  void ResetStream() { m_buffer.Assign(std::string()); }

  bool Read(char* buffer, unsigned long count) { return m_buffer.Read(buffer, count); }
  bool Write(char const* buffer, unsigned long count) { return m_buffer.Write(buffer, count); }
  // The next byte as an unsigned char, or EOF.
  int Peek() { return m_buffer.Peek(); }
  long Tellp() { return m_buffer.Tellp(); }
  long Tellg() { return m_buffer.Tellg(); }
  bool Seekp(unsigned long offset, std::ios_base::seekdir direction) { return m_buffer.Seekp(offset, direction); }
  bool Seekg(unsigned long offset, std::ios_base::seekdir direction) { return m_buffer.Seekg(offset, direction); }

  bool Fail() const { return m_buffer.Fail(); }
  bool Eof() const { return m_buffer.Eof(); }
  bool Good() const { return m_buffer.Good(); }
  void Clear() { m_buffer.Clear(); }

  // Integer writer: the "%lld" text of the value.
  CBencodeStream& operator<<(long value);
  // Inserts the text up to its first zero byte.
  CBencodeStream& operator<<(std::string const& text);
  // Integer reader of the bencode grammar: stops before 'e' or ':', "%lld" conversion.
  CBencodeStream& operator>>(long& value);
  // A bencoded string: the byte count through the integer writer, ':', then the text (up to a zero byte).
  void WriteString(std::string const& text);
  // A bencoded integer: 'i', the integer writer's text, 'e'.
  void WriteInteger(long value);

 private:
  friend class CBencode;
  friend class CBencodeList;
  friend class CBencodeDictionary;

  // Byte storage with a string stream's positions and flags for exactly the operations used here.
  // A plain string rather than a std::stringstream: every byte of a file passes through it.
  class CBuffer {
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
    // Only directly after a Get that returned a byte.
    void Unget() { --m_ulGet; }

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

  void SetFileName(std::string const& fileName);

  CBuffer m_buffer;
  std::string m_strFileName;
  bool m_bSpool;
};

// An ordered list of owned values of any type; the top-level value of the feedback files.
class OVF_API CBencodeList : public CBencode {
 public:
  typedef std::vector<CBencode*, CBencodeNodeAllocator<CBencode*>> ItemVector;

  explicit CBencodeList(bool spool);
  // Binds to `fileName` and loads it; `result` is Internalize()'s code. On failure the list is empty but
  // stays bound, so it can still be written to the file.
  CBencodeList(std::string const& fileName, EBencodeResult& result, bool spool);
  ~CBencodeList() override;

  bool Externalize(CBencodeStream& stream) override;
  bool Internalize(CBencodeStream& stream) override;
  void Reset() override;
  bool operator==(CBencode const& other) const override;

  void SetBencodeFileName(std::string const& fileName);
  // Loads the bound file and parses it: 0, -4 unbound, the load's code, or -3 when the text does not parse.
  EBencodeResult Internalize();
  // Serialises into the bound stream and, with `flush`, writes the file. In spool mode a hand-over into the
  // named file empties the list.
  EBencodeResult Externalize(bool flush);

  bool Append(long value);
  bool Append(std::string const& value);
  // A null `list` is set to a new empty list; either way the list takes ownership of the pointer.
  bool Append(CBencodeList*& list);
  bool Append(CBencodeDictionary*& dict);
  // Still owned by the list; null when out of range.
  CBencode* operator[](unsigned long index);
  // Deletes the item.
  bool Remove(unsigned long index);
  // Takes the item out without deleting it; the caller, holding the pointer from operator[], owns it.
  bool Erase(unsigned long index);

  // Read-only view of the items, in list order (for walking a tree).
  ItemVector const& Items() const { return m_items; }

 protected:
  ItemVector m_items;
  CBencodeStream* m_pStream;
  bool m_bSpool;
};

// A map from byte-string keys to owned values, kept in ascending bytewise (unsigned) key order, which is
// also the order written to files. The settings adapter calls it only through its virtual slots.
class OVF_API CBencodeDictionary : public CBencode {
 public:
  typedef std::map<std::string, CBencode*, std::less<std::string>,
                   CBencodeNodeAllocator<std::pair<std::string const, CBencode*>>>
      ItemMap;

  explicit CBencodeDictionary(bool spool);
  CBencodeDictionary(std::string const& fileName, EBencodeResult& result, bool spool);
  ~CBencodeDictionary() override;

  bool Externalize(CBencodeStream& stream) override;
  bool Internalize(CBencodeStream& stream) override;
  void Reset() override;
  bool operator==(CBencode const& other) const override;

  // Every Insert replaces: the old value is deleted first, so never pass the pointer already stored.
  virtual bool Insert(std::string const& key, long value);
  virtual bool Insert(std::string const& key, std::string const& value);
  virtual bool Insert(std::string const& key, CBencode* value);
  virtual bool Add(std::string const& key, long delta);
  virtual bool Get(std::string const& key, long& value);
  virtual bool Get(std::string const& key, std::string& value);
  // With `create`, a missing key gets a new empty list; a key holding another type yields null and false.
  virtual bool Get(std::string const& key, CBencodeList*& list, bool create);
  virtual bool Get(std::string const& key, CBencodeDictionary*& dict, bool create);
  virtual bool GetContentType(std::string const& key, CBencode::EContentType& type);
  virtual bool Remove(std::string const& key);

  void SetBencodeFileName(std::string const& fileName);
  EBencodeResult Internalize();
  EBencodeResult Externalize(bool flush);

  // Read-only view of the entries, in key order (for walking a tree).
  ItemMap const& Items() const { return m_items; }

 protected:
  ItemMap m_items;
  CBencodeStream* m_pStream;
  bool m_bSpool;
};
