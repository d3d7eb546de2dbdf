// The bencode list: an ordered sequence of owned values, optionally bound to a file.
#include <memory>

#include "PhoneHome/BencodeInternal.h"

namespace {

char const* ItemFailure(int firstByte) {
  switch (firstByte) {
    case 'd': return "Failed to internalize list item of type dictionary";
    case 'l': return "Failed to internalize list item of type list";
    case 'i': return "Failed to internalize list item of type integer";
    default: return "Failed to internalize list item of type string";
  }
}

}  // namespace

CBencodeList::CBencodeList(bool spool)
    : CBencode(eList), m_items(BencodeInternal::NodeResource()), m_pStream(nullptr), m_bSpool(spool) {}

CBencodeList::CBencodeList(std::string const& fileName, EBencodeResult& result, bool spool)
    : CBencode(eList), m_items(BencodeInternal::NodeResource()), m_pStream(nullptr), m_bSpool(spool) {
  SetBencodeFileName(fileName);
  result = Internalize();
  if (result != eBencodeOk) {
    BENCODE_FAILURE(result, "CBencodeList Internalize failed");
    Reset();
  }
}

// Deliberately leaves m_pStream alive, unlike the dictionary's destructor: the list's ownership rules are
// kept as they have always been.
CBencodeList::~CBencodeList() { Reset(); }

void CBencodeList::SetBencodeFileName(std::string const& fileName) {
  if (m_pStream != nullptr) {
    m_pStream->SetFileName(fileName);
  } else {
    m_pStream = new CBencodeStream(fileName, m_bSpool);
  }
}

EBencodeResult CBencodeList::Internalize() {
  if (m_pStream == nullptr) return eBencodeNoStream;
  return BencodeInternal::Load(*this, *m_pStream);
}

EBencodeResult CBencodeList::Externalize(bool flush) {
  if (m_pStream == nullptr) {
    BENCODE_FAILURE(eBencodeNoStream, "Bencode stream should be set before calling Externalize");
    return eBencodeNoStream;
  }
  return BencodeInternal::Store(*this, *m_pStream, m_bSpool, flush);
}

bool CBencodeList::Append(long value) {
  m_items.push_back(new CBencode(value));
  return true;
}

bool CBencodeList::Append(std::string const& value) {
  m_items.push_back(new CBencode(value));
  return true;
}

bool CBencodeList::Append(CBencodeList*& list) {
  if (list == nullptr) list = new CBencodeList(true);
  m_items.push_back(list);
  return true;
}

bool CBencodeList::Append(CBencodeDictionary*& dict) {
  if (dict == nullptr) dict = new CBencodeDictionary(true);
  m_items.push_back(dict);
  return true;
}

CBencode* CBencodeList::operator[](unsigned long index) {
  if (index >= m_items.size()) {
    BENCODE_FAILURE(eBencodeError, "Out-of-bound bencode list item access");
    return nullptr;
  }
  return m_items[index];
}

bool CBencodeList::Remove(unsigned long index) {
  if (index >= m_items.size()) {
    BENCODE_FAILURE(eBencodeError, "Out-of-bound bencode list item access");
    return false;
  }
  delete m_items[index];
  m_items.erase(m_items.begin() + static_cast<long>(index));
  return true;
}

bool CBencodeList::Erase(unsigned long index) {
  if (index >= m_items.size()) {
    BENCODE_FAILURE(eBencodeError, "Out-of-bound bencode list item access");
    return false;
  }
  m_items.erase(m_items.begin() + static_cast<long>(index));
  return true;
}

void CBencodeList::Reset() {
  BencodeInternal::CDeletion deletion;
  for (CBencode* item : m_items) deletion.Delete(item);
  m_items.clear();
}

bool CBencodeList::operator==(CBencode const& other) const {
  if (other.GetType() != eList) return false;
  CBencodeList const* list = dynamic_cast<CBencodeList const*>(&other);
  if (list == nullptr || list->m_items.size() != m_items.size()) return false;
  BencodeInternal::CComparisonLevel level;
  if (!level.Allowed()) return false;
  for (size_t i = 0; i < m_items.size(); ++i) {
    if (m_items[i] == nullptr || list->m_items[i] == nullptr) return false;
    if (!(*m_items[i] == *list->m_items[i])) return false;
  }
  return true;
}

bool CBencodeList::Externalize(CBencodeStream& stream) {
  CBencodeStream::CBuffer& buffer = *stream.m_pBuffer;
  BencodeInternal::CNestingLevel level(buffer);
  if (!level.Allowed() || !buffer.Write("l", 1)) {
    BENCODE_FAILURE(eBencodeError, "Failed to externalize list type identifier");
    return false;
  }
  for (CBencode* item : m_items) {
    if (item == nullptr) {
      BENCODE_FAILURE(eBencodeError, "NULL item stored in list");
      return false;
    }
    if (!item->Externalize(stream)) {
      BENCODE_FAILURE(eBencodeError, "Failed to externalize list item");
      return false;
    }
  }
  return buffer.Write("e", 1);
}

bool CBencodeList::Internalize(CBencodeStream& stream) {
  CBencodeStream::CBuffer& buffer = *stream.m_pBuffer;
  int const first = buffer.Get();
  if (buffer.Eof()) return true;  // empty input: the list stays as it was
  // A list nested deeper than the limit is illegal data, refused where it opens: unbounded nesting would let
  // a few hundred kilobytes of "l" exhaust the stack of whatever thread loads the file.
  BencodeInternal::CNestingLevel level(buffer);
  if (first != 'l' || !level.Allowed()) {
    BENCODE_FAILURE(eBencodeIllegalData, "Failed to internalize list type identifier");
    return false;
  }
  Reset();

  for (;;) {
    int const next = buffer.Peek();
    if (!buffer.Good()) {
      BENCODE_FAILURE(eBencodeIllegalData, "Failed to internalize list item identifier");
      return false;
    }
    if (next == 'e') {
      buffer.Get();
      return true;
    }

    std::unique_ptr<CBencode> item = BencodeInternal::NewValueFor(next);
    if (!item->Internalize(stream)) {
      BENCODE_FAILURE(eBencodeIllegalData, ItemFailure(next));
      return false;
    }
    m_items.push_back(item.release());
  }
}
