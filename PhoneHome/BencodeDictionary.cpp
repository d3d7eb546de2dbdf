// The bencode dictionary: owned values under byte-string keys in ascending bytewise order, optionally bound
// to a file.
#include <iterator>
#include <memory>

#include "PhoneHome/BencodeInternal.h"

namespace {

char const* ValueFailure(int firstByte) {
  switch (firstByte) {
    case 'i': return "Failed to internalize value of type integer";
    case 'l': return "Failed to internalize value of type list";
    case 'd': return "Failed to internalize value of type dictionary";
    default: return "Failed to internalize value of type string";
  }
}

}  // namespace

CBencodeDictionary::CBencodeDictionary(bool spool)
    : CBencode(eDictionary), m_items(BencodeInternal::NodeResource()), m_pStream(nullptr), m_bSpool(spool) {}

CBencodeDictionary::CBencodeDictionary(std::string const& fileName, EBencodeResult& result, bool spool)
    : CBencode(eDictionary), m_items(BencodeInternal::NodeResource()), m_pStream(nullptr), m_bSpool(spool) {
  SetBencodeFileName(fileName);
  result = Internalize();
  if (result != eBencodeOk) {
    BENCODE_FAILURE(result, "Bencode dictionary internalize failed");
    Reset();
  }
}

CBencodeDictionary::~CBencodeDictionary() {
  Reset();
  delete m_pStream;
}

void CBencodeDictionary::SetBencodeFileName(std::string const& fileName) {
  if (m_pStream != nullptr) {
    m_pStream->SetFileName(fileName);
  } else {
    m_pStream = new CBencodeStream(fileName, m_bSpool);
  }
}

EBencodeResult CBencodeDictionary::Internalize() {
  if (m_pStream == nullptr) return eBencodeNoStream;
  return BencodeInternal::Load(*this, *m_pStream);
}

EBencodeResult CBencodeDictionary::Externalize(bool flush) {
  // Deliberately returns without a log line, unlike the list; kept as the dictionary has always behaved.
  if (m_pStream == nullptr) return eBencodeNoStream;
  return BencodeInternal::Store(*this, *m_pStream, m_bSpool, flush);
}

bool CBencodeDictionary::Insert(std::string const& key, long value) { return Insert(key, new CBencode(value)); }

bool CBencodeDictionary::Insert(std::string const& key, std::string const& value) {
  return Insert(key, new CBencode(value));
}

bool CBencodeDictionary::Insert(std::string const& key, CBencode* value) {
  CBencode*& slot = m_items[key];
  delete slot;
  slot = value;
  return true;
}

bool CBencodeDictionary::Add(std::string const& key, long delta) {
  ItemMap::iterator const found = m_items.find(key);
  if (found == m_items.end()) return Insert(key, delta);
  return found->second != nullptr && found->second->Add(delta);
}

bool CBencodeDictionary::Get(std::string const& key, long& value) {
  ItemMap::const_iterator const found = m_items.find(key);
  return found != m_items.end() && found->second != nullptr && found->second->Get(value);
}

bool CBencodeDictionary::Get(std::string const& key, std::string& value) {
  ItemMap::const_iterator const found = m_items.find(key);
  return found != m_items.end() && found->second != nullptr && found->second->Get(value);
}

bool CBencodeDictionary::Get(std::string const& key, CBencodeList*& list, bool create) {
  ItemMap::iterator const found = m_items.find(key);
  if (found == m_items.end()) {
    if (!create) return false;
    list = new CBencodeList(true);
    m_items.emplace(key, list);
    return true;
  }
  list = dynamic_cast<CBencodeList*>(found->second);
  if (list == nullptr) {
    BENCODE_FAILURE(eBencodeError, "Dictionary item is not a list");
    return false;
  }
  return true;
}

bool CBencodeDictionary::Get(std::string const& key, CBencodeDictionary*& dict, bool create) {
  ItemMap::iterator const found = m_items.find(key);
  if (found == m_items.end()) {
    if (!create) return false;
    dict = new CBencodeDictionary(true);
    m_items.emplace(key, dict);
    return true;
  }
  dict = dynamic_cast<CBencodeDictionary*>(found->second);
  if (dict == nullptr) {
    BENCODE_FAILURE(eBencodeError, "Dictionary item is not a dictionary");
    return false;
  }
  return true;
}

bool CBencodeDictionary::GetContentType(std::string const& key, CBencode::EContentType& type) {
  ItemMap::const_iterator const found = m_items.find(key);
  if (found == m_items.end() || found->second == nullptr) return false;
  type = found->second->GetType();
  return true;
}

bool CBencodeDictionary::Remove(std::string const& key) {
  ItemMap::iterator const found = m_items.find(key);
  if (found == m_items.end()) return false;
  delete found->second;
  m_items.erase(found);
  return true;
}

void CBencodeDictionary::Reset() {
  BencodeInternal::CDeletion deletion;
  for (ItemMap::value_type& entry : m_items) deletion.Delete(entry.second);
  m_items.clear();
}

// Compares the values pairwise in key order and deliberately ignores the keys themselves: the equality is kept
// as the dictionary has always defined it.
bool CBencodeDictionary::operator==(CBencode const& other) const {
  if (other.GetType() != eDictionary) return false;
  CBencodeDictionary const* dict = dynamic_cast<CBencodeDictionary const*>(&other);
  if (dict == nullptr || dict->m_items.size() != m_items.size()) return false;
  BencodeInternal::CComparisonLevel level;
  if (!level.Allowed()) return false;
  for (ItemMap::const_iterator mine = m_items.begin(), theirs = dict->m_items.begin(); mine != m_items.end();
       ++mine, ++theirs) {
    if (mine->second == nullptr || theirs->second == nullptr) return false;
    if (!(*mine->second == *theirs->second)) return false;
  }
  return true;
}

bool CBencodeDictionary::Externalize(CBencodeStream& stream) {
  CBencodeStream::CBuffer& buffer = *stream.m_pBuffer;
  BencodeInternal::CNestingLevel level(buffer);
  if (!level.Allowed() || !buffer.Write("d", 1)) {
    BENCODE_FAILURE(eBencodeError, "Failed to externalize dictionary type identifier");
    return false;
  }
  for (ItemMap::value_type const& entry : m_items) {
    if (entry.second == nullptr) {
      BENCODE_FAILURE(eBencodeError, "Dictionary item is NULL");
      return false;
    }
    stream.WriteString(entry.first);
    if (!buffer.Good()) {
      BENCODE_FAILURE(eBencodeError, "Failed to externalize key string");
      return false;
    }
    if (!entry.second->Externalize(stream)) {
      BENCODE_FAILURE(eBencodeError, "Failed to externalize value");
      return false;
    }
  }
  return buffer.Write("e", 1);
}

bool CBencodeDictionary::Internalize(CBencodeStream& stream) {
  CBencodeStream::CBuffer& buffer = *stream.m_pBuffer;
  int const first = buffer.Get();
  if (buffer.Eof()) return true;  // empty input: the dictionary stays as it was
  // Nested deeper than the limit is illegal data, as for the list.
  BencodeInternal::CNestingLevel level(buffer);
  if (first != 'd' || !level.Allowed()) {
    BENCODE_FAILURE(eBencodeIllegalData, "Failed to internalize dictionary type identifier");
    return false;
  }
  Reset();

  for (;;) {
    int next = buffer.Peek();
    if (buffer.Good() && next == 'e') {
      buffer.Get();
      return true;
    }

    std::string key;
    if (!GetStringFromStream(stream, key)) {
      BENCODE_FAILURE(eBencodeIllegalData, "Failed to internalize key string");
      return false;
    }
    // Files normally come sorted, so the new key usually goes at the end without a search.
    ItemMap::iterator position = m_items.end();
    if (!m_items.empty() && !(std::prev(position)->first < key)) {
      position = m_items.lower_bound(key);
      if (position != m_items.end() && position->first == key) {
        // Deliberately a success that stops this dictionary right after the repeated key, its value left
        // unread: top-level files keep the entries before the repetition, and a parent parser reads on.
        BENCODE_FAILURE(eBencodeIllegalData, "Failed to internalize key string");
        return true;
      }
    }

    next = buffer.Peek();
    if (!buffer.Good()) {
      BENCODE_FAILURE(eBencodeIllegalData, "Failed to internalize value type identifier");
      return false;
    }
    // The entry is made before its value, so that entries and values lie in memory in the order a walk visits
    // them; it holds no value until the value has parsed.
    ItemMap::iterator const entry = m_items.emplace_hint(position, std::move(key), nullptr);
    std::unique_ptr<CBencode> value = BencodeInternal::NewValueFor(next);
    if (!value->Internalize(stream)) {
      m_items.erase(entry);
      BENCODE_FAILURE(eBencodeIllegalData, ValueFailure(next));
      return false;
    }
    entry->second = value.release();
  }
}
