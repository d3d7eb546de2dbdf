// Conversion between bencode value trees and their JSON form (see JsonForm.h).
#include "JsonForm.h"

#include <cstdint>
#include <limits>
#include <nlohmann/json.hpp>
#include <vector>

namespace cef {

namespace {

constexpr char kHexDigits[] = "0123456789abcdef";

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

size_t DecimalDigits(uint64_t value) {
  size_t n = 1;
  while (value >= 10) {
    value /= 10;
    ++n;
  }
  return n;
}

// Bytes of a string's canonical text: length, ':', the bytes.
size_t EncodedStringSize(size_t length) { return DecimalDigits(length) + 1 + length; }

// Bytes of an integer's canonical text: 'i', the "%lld" text, 'e'.
size_t EncodedIntegerSize(long value) {
  uint64_t magnitude = value < 0 ? 0 - static_cast<uint64_t>(value) : static_cast<uint64_t>(value);
  return 2 + (value < 0 ? 1 : 0) + DecimalDigits(magnitude);
}

void AppendQuoted(std::string& out, std::string_view text) {
  out += '"';
  for (char ch : text) {
    unsigned char c = static_cast<unsigned char>(ch);
    switch (c) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\b': out += "\\b"; break;
      case '\f': out += "\\f"; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      case '\t': out += "\\t"; break;
      default:
        if (c < 0x20) {
          out += "\\u00";
          out += kHexDigits[c >> 4];
          out += kHexDigits[c & 15];
        } else {
          out += ch;
        }
    }
  }
  out += '"';
}

// Walks the tree with an explicit stack: a deep file must not need a deep call stack here.
class JsonWriter {
 public:
  JsonWriter(std::ostream& out, int indent) : out_(out), indent_(indent) {}

  void Write(const CBencode& root) {
    Value(root);
    while (!stack_.empty()) {
      Frame& top = stack_.back();
      if (top.next == top.count) {
        bool empty = top.count == 0;
        char close = top.list != nullptr ? ']' : '}';
        stack_.pop_back();
        if (!empty) NewLine();
        text_ += close;
        continue;
      }
      text_ += top.next == 0 ? "" : ",";
      NewLine();
      if (top.list != nullptr) {
        const CBencode* item = top.list->Items()[top.next++];
        Value(*item);
      } else {
        auto entry = top.position++;
        ++top.next;
        text_ += JsonStringFor(entry->first);
        text_ += indent_ >= 0 ? ": " : ":";
        Value(*entry->second);
      }
      Drain();
    }
    text_ += '\n';
    Drain(true);
  }

 private:
  struct Frame {
    const CBencodeList* list = nullptr;
    CBencodeDictionary::ItemMap::const_iterator position;
    size_t next = 0;
    size_t count = 0;
  };

  // Opens a container (pushing its frame) or writes a scalar.
  void Value(const CBencode& value) {
    switch (value.GetType()) {
      case CBencode::eInteger: {
        long number = 0;
        value.Get(number);
        text_ += std::to_string(number);
        break;
      }
      case CBencode::eString: {
        std::string bytes;
        value.Get(bytes);
        text_ += JsonStringFor(bytes);
        break;
      }
      case CBencode::eList: {
        const auto& list = static_cast<const CBencodeList&>(value);
        text_ += '[';
        Frame frame;
        frame.list = &list;
        frame.count = list.Items().size();
        stack_.push_back(frame);
        break;
      }
      case CBencode::eDictionary: {
        const auto& dict = static_cast<const CBencodeDictionary&>(value);
        text_ += '{';
        Frame frame;
        frame.position = dict.Items().begin();
        frame.count = dict.Items().size();
        stack_.push_back(frame);
        break;
      }
    }
  }

  void NewLine() {
    if (indent_ < 0) return;
    text_ += '\n';
    text_.append(stack_.size() * static_cast<size_t>(indent_), ' ');
  }

  void Drain(bool all = false) {
    if (all || text_.size() >= 1 << 16) {
      out_.write(text_.data(), static_cast<std::streamsize>(text_.size()));
      text_.clear();
    }
  }

  std::ostream& out_;
  int indent_;
  std::string text_;
  std::vector<Frame> stack_;
};

// Builds the value tree from parser events. The containers on the stack are owned by the tree already (the
// top level by `tree`, every other by its parent), so an abandoned build frees everything with the tree.
class TreeBuilder : public nlohmann::json_sax<nlohmann::json> {
 public:
  explicit TreeBuilder(JsonTree& tree) : tree_(tree) {}

  const std::string& Error() const { return error_; }

  bool null() override { return Fail("null has no bencode form"); }
  bool boolean(bool value) override {
    return Fail(std::string(value ? "true" : "false") + " has no bencode form; use 1 or 0");
  }
  bool number_integer(number_integer_t value) override { return Integer(value); }
  bool number_unsigned(number_unsigned_t value) override {
    if (value > static_cast<uint64_t>(std::numeric_limits<long>::max())) {
      return Fail("number " + std::to_string(value) + " is beyond the 64-bit integer range");
    }
    return Integer(static_cast<long>(value));
  }
  bool number_float(number_float_t, const string_t& text) override {
    return Fail("number " + text + " is not a 64-bit integer");
  }
  bool string(string_t& text) override {
    std::string bytes;
    if (!Bytes(text, bytes)) return false;
    if (!Count(EncodedStringSize(bytes.size()))) return false;
    if (Frame* parent = Parent()) {
      if (parent->list != nullptr) return parent->list->Append(bytes);
      return parent->dict->Insert(parent->key, bytes);
    }
    return Fail("the top-level value is a string; it must be an object or an array");
  }
  bool binary(binary_t&) override { return Fail("binary values have no bencode form"); }

  bool start_object(std::size_t) override {
    auto* dict = new CBencodeDictionary(!stack_.empty());
    if (!Attach(dict, nullptr)) return false;
    stack_.push_back(Frame{nullptr, dict, {}});
    return true;
  }
  bool key(string_t& text) override {
    Frame& top = stack_.back();
    if (!Bytes(text, top.key)) return false;
    CBencode::EContentType type;
    if (top.dict->GetContentType(top.key, type)) {
      return Fail("key " + Printable(top.key) + " appears twice in one object");
    }
    return Count(EncodedStringSize(top.key.size()));
  }
  bool end_object() override {
    stack_.pop_back();
    return true;
  }
  bool start_array(std::size_t) override {
    // The top level may be bound to a file later; only CFileList frees the stream that brings.
    CBencodeList* list = stack_.empty() ? new CFileList(false) : new CBencodeList(true);
    if (!Attach(nullptr, list)) return false;
    stack_.push_back(Frame{list, nullptr, {}});
    return true;
  }
  bool end_array() override {
    stack_.pop_back();
    return true;
  }

  bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception& ex) override {
    // The library's text starts with its own tag in brackets; the rest is the useful part.
    std::string what = ex.what();
    size_t tag = what.find("] ");
    return Fail(tag == std::string::npos ? what : what.substr(tag + 2));
  }

 private:
  struct Frame {
    CBencodeList* list;
    CBencodeDictionary* dict;
    std::string key;  // the key whose value comes next
  };

  Frame* Parent() { return stack_.empty() ? nullptr : &stack_.back(); }

  bool Fail(const std::string& message) {
    if (error_.empty()) error_ = message + Where();
    return false;
  }

  // Where in the document the builder stands, for messages: " at /key/3".
  std::string Where() const {
    if (stack_.empty()) return {};
    std::string path;
    for (size_t i = 0; i < stack_.size(); ++i) {
      const Frame& frame = stack_[i];
      path += '/';
      if (frame.list == nullptr) {
        path += Printable(frame.key);
      } else {
        // An outer list already holds the open container as its last item; the innermost one is at the
        // item it was about to append.
        size_t count = frame.list->Items().size();
        path += std::to_string(i + 1 < stack_.size() ? count - 1 : count);
      }
    }
    return " at " + path;
  }

  bool Count(size_t bytes) {
    tree_.encodedSize += bytes;
    if (tree_.encodedSize > kMaxFileSize) {
      return Fail("the bencode text would exceed " + std::to_string(kMaxFileSize) +
                  " bytes, more than the system loads");
    }
    return true;
  }

  bool Bytes(const std::string& text, std::string& bytes) {
    std::string error;
    if (!BytesFromJsonString(text, bytes, error)) return Fail(error);
    return true;
  }

  bool Integer(long value) {
    if (!Count(EncodedIntegerSize(value))) return false;
    if (Frame* parent = Parent()) {
      if (parent->list != nullptr) return parent->list->Append(value);
      return parent->dict->Insert(parent->key, value);
    }
    return Fail("the top-level value is a number; it must be an object or an array");
  }

  // Hands a new container to its parent, or makes it the top level. Exactly one of the two is non-null.
  bool Attach(CBencodeDictionary* dict, CBencodeList* list) {
    CBencode* value = dict != nullptr ? static_cast<CBencode*>(dict) : list;
    Frame* parent = Parent();
    if (parent == nullptr) {
      if (dict != nullptr) tree_.dictionary.reset(dict);
      if (list != nullptr) tree_.list.reset(static_cast<CFileList*>(list));
    } else if (parent->list != nullptr) {
      if (dict != nullptr) parent->list->Append(dict);
      if (list != nullptr) parent->list->Append(list);
    } else {
      parent->dict->Insert(parent->key, value);
    }
    if (stack_.size() + 1 > static_cast<size_t>(CBencode::sm_iMaxNestingDepth)) {
      return Fail("nesting deeper than " + std::to_string(CBencode::sm_iMaxNestingDepth) +
                  " levels, more than the system reads");
    }
    return Count(2);
  }

  JsonTree& tree_;
  std::vector<Frame> stack_;
  std::string error_;
};

}  // namespace

bool IsValidUtf8(std::string_view bytes) {
  const auto* p = reinterpret_cast<const unsigned char*>(bytes.data());
  const auto* end = p + bytes.size();
  while (p < end) {
    unsigned char c = *p;
    if (c < 0x80) {
      ++p;
      continue;
    }
    // The first continuation byte's range depends on the lead byte: it rules out overlong forms,
    // surrogates and code points above U+10FFFF.
    size_t continuation;
    unsigned char low = 0x80, high = 0xBF;
    if (c >= 0xC2 && c <= 0xDF) {
      continuation = 1;
    } else if (c >= 0xE0 && c <= 0xEF) {
      continuation = 2;
      if (c == 0xE0) low = 0xA0;
      if (c == 0xED) high = 0x9F;
    } else if (c >= 0xF0 && c <= 0xF4) {
      continuation = 3;
      if (c == 0xF0) low = 0x90;
      if (c == 0xF4) high = 0x8F;
    } else {
      return false;
    }
    if (static_cast<size_t>(end - p) <= continuation) return false;
    if (p[1] < low || p[1] > high) return false;
    for (size_t i = 2; i <= continuation; ++i) {
      if (p[i] < 0x80 || p[i] > 0xBF) return false;
    }
    p += continuation + 1;
  }
  return true;
}

std::string JsonStringFor(std::string_view bytes) {
  std::string out;
  out.reserve(bytes.size() + 2);
  if (IsValidUtf8(bytes)) {
    AppendQuoted(out, bytes);
    return out;
  }
  out += "\"\\u0000";
  for (char ch : bytes) {
    unsigned char c = static_cast<unsigned char>(ch);
    out += kHexDigits[c >> 4];
    out += kHexDigits[c & 15];
  }
  out += '"';
  return out;
}

bool BytesFromJsonString(const std::string& text, std::string& bytes, std::string& error) {
  if (text.empty() || text[0] != '\0') {
    if (text.find('\0') != std::string::npos) {
      error = "string " + Printable(text) + " holds a zero byte, which a bencode string cannot carry";
      return false;
    }
    if (text.size() > kMaxStringSize) {
      error = "string of " + std::to_string(text.size()) + " bytes is longer than the " +
              std::to_string(kMaxStringSize) + " bytes the system reads";
      return false;
    }
    bytes = text;
    return true;
  }
  // The escape form: U+0000, then two hexadecimal digits per byte.
  size_t digits = text.size() - 1;
  if (digits == 0 || digits % 2 != 0) {
    error = "escaped byte string " + Printable(text) + " needs an even, non-zero number of hex digits";
    return false;
  }
  if (digits / 2 > kMaxStringSize) {
    error = "escaped byte string of " + std::to_string(digits / 2) + " bytes is longer than the " +
            std::to_string(kMaxStringSize) + " bytes the system reads";
    return false;
  }
  std::string decoded;
  decoded.reserve(digits / 2);
  for (size_t i = 1; i < text.size(); i += 2) {
    int high = HexValue(text[i]), low = HexValue(text[i + 1]);
    if (high < 0 || low < 0) {
      error = "escaped byte string " + Printable(text) + " holds a character that is not a hex digit";
      return false;
    }
    if (high == 0 && low == 0) {
      error = "escaped byte string " + Printable(text) + " holds a zero byte, which a bencode string cannot carry";
      return false;
    }
    decoded += static_cast<char>(high << 4 | low);
  }
  bytes = std::move(decoded);
  return true;
}

void WriteJson(const CBencode& value, std::ostream& out, int indent) { JsonWriter(out, indent).Write(value); }

bool BuildFromJson(const std::string& json, JsonTree& tree, std::string& error) {
  TreeBuilder builder(tree);
  bool ok = false;
  try {
    ok = nlohmann::json::sax_parse(json, &builder);
  } catch (const std::exception& ex) {
    error = ex.what();
    return false;
  }
  if (!ok) {
    error = builder.Error().empty() ? "the JSON text does not parse" : builder.Error();
    return false;
  }
  if (tree.Root() == nullptr) {
    error = "no value found";
    return false;
  }
  return true;
}

std::string Printable(std::string_view bytes) {
  constexpr size_t kShown = 64;
  std::string out = "\"";
  for (size_t i = 0; i < bytes.size() && i < kShown; ++i) {
    unsigned char c = static_cast<unsigned char>(bytes[i]);
    if (c >= 0x20 && c < 0x7F && c != '\\' && c != '"') {
      out += static_cast<char>(c);
    } else {
      out += "\\x";
      out += kHexDigits[c >> 4];
      out += kHexDigits[c & 15];
    }
  }
  if (bytes.size() > kShown) out += "...";
  out += '"';
  return out;
}

}  // namespace cef
