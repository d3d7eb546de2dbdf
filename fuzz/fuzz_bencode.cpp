// Fuzzes the bencode reader: any bytes, read as a list, a dictionary, an integer and a string, must never crash,
// and whatever is read must write out in a canonical form that reads back to an equal value and writes out
// to the same bytes.
//
// The property starts at the first write, not at the input: reading is lenient (leading zeros, a "+" sign,
// a 21-character integer that keeps the old value, a dictionary that stops at a repeated key and leaves the
// rest unread, strings cut at a zero byte), so the input itself need not be canonical.
//
// Nesting deeper than CBencode::sm_iMaxNestingDepth must be refused, not followed; fuzz/bencode.max_len lets
// inputs reach far past it.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "AppLog.h"
#include "PhoneHome/Bencode.h"

namespace {

// A stream with no file behind it, holding `bytes` with the read position at the start.
std::unique_ptr<CBencodeStream> StreamOf(const char* bytes, size_t size) {
  auto stream = std::make_unique<CBencodeStream>(std::string(), false);
  stream->Write(bytes, size);
  stream->Seekg(0, std::ios_base::beg);
  return stream;
}

// The text that `value` writes, or a fault when writing a value that was read fails.
std::string Written(CBencode& value, const char* what) {
  CBencodeStream stream(std::string(), false);
  if (!value.Externalize(stream)) {
    fprintf(stderr, "%s: a value that was read does not write\n", what);
    abort();
  }
  long size = stream.Tellp();
  std::string text(static_cast<size_t>(size > 0 ? size : 0), '\0');
  if (!stream.Seekg(0, std::ios_base::beg) || !stream.Read(text.data(), text.size())) {
    fprintf(stderr, "%s: the written text cannot be read back from the stream\n", what);
    abort();
  }
  return text;
}

// How deep containers nest in `value`, the outermost counting 1, found without recursion.
int Depth(const CBencode& value) {
  int deepest = 0;
  std::vector<std::pair<const CBencode*, int>> pending{{&value, 1}};
  while (!pending.empty()) {
    auto [next, depth] = pending.back();
    pending.pop_back();
    if (next->GetType() == CBencode::eList) {
      deepest = depth > deepest ? depth : deepest;
      for (const CBencode* item : static_cast<const CBencodeList*>(next)->Items()) pending.push_back({item, depth + 1});
    } else if (next->GetType() == CBencode::eDictionary) {
      deepest = depth > deepest ? depth : deepest;
      for (const auto& entry : static_cast<const CBencodeDictionary*>(next)->Items()) {
        pending.push_back({entry.second, depth + 1});
      }
    }
  }
  return deepest;
}

template <class Make>
void CheckFixedPoint(const uint8_t* data, size_t size, Make make, const char* what) {
  std::unique_ptr<CBencode> first = make();
  auto input = StreamOf(reinterpret_cast<const char*>(data), size);
  if (!first->Internalize(*input)) return;
  if (Depth(*first) > CBencode::sm_iMaxNestingDepth) {
    fprintf(stderr, "%s: a value nested deeper than the limit was read\n", what);
    abort();
  }

  const std::string canonical = Written(*first, what);
  std::unique_ptr<CBencode> second = make();
  auto again = StreamOf(canonical.data(), canonical.size());
  if (!second->Internalize(*again)) {
    fprintf(stderr, "%s: canonical text does not read back: %s\n", what, canonical.c_str());
    abort();
  }
  if (!(*first == *second) || !(*second == *first)) {
    fprintf(stderr, "%s: value read back from canonical text differs: %s\n", what, canonical.c_str());
    abort();
  }
  // The dictionary's equality ignores keys; the bytes do not.
  if (Written(*second, what) != canonical) {
    fprintf(stderr, "%s: canonical text is not a fixed point: %s\n", what, canonical.c_str());
    abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // Every rejected input logs several lines; they would drown the fuzzer's own output.
  CAppLog::SetSink([](const LogRecord&) {});
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  CheckFixedPoint(data, size, [] { return std::make_unique<CBencodeList>(false); }, "list");
  CheckFixedPoint(data, size, [] { return std::make_unique<CBencodeDictionary>(false); }, "dictionary");
  CheckFixedPoint(data, size, [] { return std::make_unique<CBencode>(CBencode::eInteger); }, "integer");
  CheckFixedPoint(data, size, [] { return std::make_unique<CBencode>(CBencode::eString); }, "string");
  return 0;
}
