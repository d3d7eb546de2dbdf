// The JSON form of the system's bencode values: how cef prints a value tree and reads one back.
//
// Integers are JSON numbers, lists arrays, dictionaries objects, and byte strings (values and keys alike) JSON
// strings when their bytes are valid UTF-8. Any other byte string is shown as a JSON string made of the
// character U+0000 followed by its bytes in hexadecimal ("\u0000ff41"). A bencode string never holds a zero
// byte, so no real string can take that form and the JSON reads back into exactly the original bytes.
#pragma once

#include <cstddef>
#include <memory>
#include <ostream>
#include <string>
#include <string_view>

#include "FileList.h"
#include "PhoneHome/Bencode.h"

namespace cef {

// The largest file that the system's loader accepts; cef never writes a larger one.
constexpr size_t kMaxFileSize = 10485760;
// The longest string that the system's reader accepts.
constexpr size_t kMaxStringSize = 524288;

bool IsValidUtf8(std::string_view bytes);

// The JSON string (quotes included) that stands for the byte string `bytes`.
std::string JsonStringFor(std::string_view bytes);

// Turns a decoded JSON string back into the bytes it stands for. False, with `error` set, when the text
// cannot be a bencode string: a malformed escape form, or a zero byte anywhere else.
bool BytesFromJsonString(const std::string& text, std::string& bytes, std::string& error);

// Writes `value` as JSON, indented by `indent` spaces per level, or on one line when `indent` is negative.
// Dictionaries come out in the order the dictionary keeps, which is the order the system writes.
void WriteJson(const CBencode& value, std::ostream& out, int indent);

// A value tree built from JSON: the top-level list or dictionary, not yet bound to a file.
struct JsonTree {
  std::unique_ptr<CFileList> list;
  std::unique_ptr<CBencodeDictionary> dictionary;
  size_t encodedSize = 0;  // bytes of the canonical bencode text
  CBencode* Root() const {
    return list ? static_cast<CBencode*>(list.get()) : static_cast<CBencode*>(dictionary.get());
  }
};

// Parses `json` and builds its value tree. False, with a one-line `error`, for text that is not JSON, for a
// top-level value other than an object or an array, for values without a bencode form (true, false, null,
// fractions, numbers beyond 64 bits), for repeated keys and for anything the system's reader would refuse
// (strings and files over its size limits, containers nested deeper than it follows).
bool BuildFromJson(const std::string& json, JsonTree& tree, std::string& error);

// A byte string shown for a one-line message: printable ASCII as it is, every other byte as \xNN.
std::string Printable(std::string_view bytes);

}  // namespace cef
