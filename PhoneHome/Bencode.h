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
// - Containers nest at most sm_iMaxNestingDepth levels deep in what is read or written; a tree built deeper
//   through the interface is refused by the writer, compares unequal, and can still be dropped.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <ios>
#include <map>
#include <memory_resource>
#include <string>
#include <vector>

#include "ApiExport.h"

class CBencodeStream;
class CBencodeList;
class CBencodeDictionary;

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
  static const long sm_iMaxStringSize = 524288;
  // Deepest nesting of containers accepted by the reader and written by the writer, the outermost counting 1.
  static const int sm_iMaxNestingDepth = 256;

  // Every value's memory comes from the library and goes back to it, wherever the value is created or deleted.
  static void* operator new(std::size_t size);
  static void operator delete(void* block, std::size_t size) noexcept;

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
  static const int sm_iMaxIntSize = 21;
  // Permission bits of every file the stream creates, before the umask.
  static const mode_t sm_fileCreationMode = 0666;
  // Largest file LoadStream accepts, in bytes.
  static const long sm_iMaxFileSize = 10485760;

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
  void ResetStream();

  bool Read(char* buffer, unsigned long count);
  bool Write(char const* buffer, unsigned long count);
  // The next byte as an unsigned char, or EOF.
  int Peek();
  long Tellp();
  long Tellg();
  bool Seekp(unsigned long offset, std::ios_base::seekdir direction);
  bool Seekg(unsigned long offset, std::ios_base::seekdir direction);

  bool Fail() const;
  bool Eof() const;
  bool Good() const;
  void Clear();

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

  // The bytes with a string stream's positions and flags. Defined inside the library and opaque to
  // everyone else: the stream is only ever used through the operations above.
  class CBuffer;

 private:
  friend class CBencode;
  friend class CBencodeList;
  friend class CBencodeDictionary;

  void SetFileName(std::string const& fileName);

  CBuffer* m_pBuffer;
  std::string m_strFileName;
  bool m_bSpool;
};

// An ordered list of owned values of any type; the top-level value of the feedback files.
class OVF_API CBencodeList : public CBencode {
 public:
  // The library gives the items' memory through the polymorphic allocator.
  typedef std::pmr::vector<CBencode*> ItemVector;

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
  // The library gives the entries' memory through the polymorphic allocator.
  typedef std::pmr::map<std::string, CBencode*> ItemMap;

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
