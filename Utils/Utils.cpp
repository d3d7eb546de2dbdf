// Path, encoding and hashing utilities: stateless helpers over POSIX and OpenSSL.
#include "Utils/Utils.h"

#include <openssl/bio.h>
#include <openssl/buffer.h>
#include <openssl/evp.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "BuildConfig.h"
#include "SafeString.h"

namespace OvRuntime {
namespace Utils {

namespace {

struct FileClose {
  void operator()(FILE* file) const { fclose(file); }
};
using FilePtr = std::unique_ptr<FILE, FileClose>;

struct DigestContextFree {
  void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};
using DigestContext = std::unique_ptr<EVP_MD_CTX, DigestContextFree>;

// Owns a BIO and everything pushed below it.
struct BioChainFree {
  void operator()(BIO* bio) const { BIO_free_all(bio); }
};
using BioChain = std::unique_ptr<BIO, BioChainFree>;

constexpr unsigned int kStatFailedSize = 0xFFFFFFFFu;
constexpr size_t kNameBufferSize = 1024;
constexpr int kBase64ReadChunk = 1024;

// Reads up to `want` bytes, resuming after an interrupted read; stops at end of file or a real error.
size_t ReadUpTo(FILE* file, char* buffer, size_t want) {
  size_t total = 0;
  while (total < want) {
    total += fread(buffer + total, 1, want - total, file);
    if (total == want || feof(file)) break;
    if (ferror(file) && errno == EINTR) {
      clearerr(file);
      continue;
    }
    break;
  }
  return total;
}

int HexDigitValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return 0;
}

// One element of a wildcard pattern; a backslash and the character after it form a single element.
struct PatternElement {
  enum EKind : unsigned char { eStar, eAnyOne, eEscaped, eLiteral };
  EKind kind;
  char ch;
};

std::vector<PatternElement> SplitPattern(std::string const& pattern) {
  std::vector<PatternElement> elements;
  elements.reserve(pattern.size());
  for (size_t i = 0; i < pattern.size(); ++i) {
    char c = pattern[i];
    if (c == '\\') {
      // A backslash with nothing after it escapes nothing and yields no element.
      if (i + 1 < pattern.size()) elements.push_back({PatternElement::eEscaped, pattern[++i]});
    } else if (c == '*') {
      elements.push_back({PatternElement::eStar, c});
    } else if (c == '?') {
      elements.push_back({PatternElement::eAnyOne, c});
    } else {
      elements.push_back({PatternElement::eLiteral, c});
    }
  }
  return elements;
}

std::string MemoryBioContents(BIO* memory) {
  BUF_MEM* contents = nullptr;
  BIO_get_mem_ptr(memory, &contents);
  if (contents == nullptr || contents->length == 0) return {};
  return std::string(contents->data, contents->length);
}

bool LengthFits(std::string const& input, int length) {
  return length >= 0 && static_cast<size_t>(length) <= input.size();
}

}  // namespace

std::string ConcatenatePath(std::string const& first, std::string const& second,
                            std::string const& separator) try {
  if (first.empty()) return second;
  if (second.empty()) return first;

  // Each side's edge character is compared as a one-character string, so a longer separator never matches
  // and is always inserted; a separator on both sides is kept twice.
  std::string joined;
  if (std::string(1, first.back()) == separator || std::string(1, second.front()) == separator) {
    joined = first + second;
  } else {
    joined = first + separator + second;
  }
  if (std::string(1, joined.back()) == separator) joined.pop_back();
  return joined;
} catch (...) {
  return {};
}

int GetFileNameFromPath(char const* path, char* name, unsigned int nameSize) {
  if (path == nullptr || name == nullptr || nameSize == 0) return UTILS_ERR_INVALID_PARAMETER;
  char const* slash = strrchr(path, '/');
  safe_strlcpyA(name, slash != nullptr ? slash + 1 : path, nameSize);
  return UTILS_OK;
}

int GetFileNamesFromPaths(std::vector<std::string> const& paths, std::vector<std::string>& names) try {
  char name[kNameBufferSize];
  for (std::string const& path : paths) {
    GetFileNameFromPath(path.c_str(), name, sizeof name);
    names.push_back(name);
  }
  return UTILS_OK;
} catch (...) {
  return UTILS_ERR_FAILED;
}

unsigned int GetFileSize(std::string const& path) {
  struct stat st;
  int rc;
  do {
    rc = stat(path.c_str(), &st);
  } while (rc != 0 && errno == EINTR);
  if (rc != 0) return kStatFailedSize;
  return static_cast<unsigned int>(st.st_size);
}

int GetFileTextContent(std::string const& path, char* buffer, unsigned int& size) {
  if (buffer != nullptr && size != 0) {
    FILE* raw;
    do {
      raw = fopen(path.c_str(), "re");
    } while (raw == nullptr && errno == EINTR);
    FilePtr file(raw);
    if (!file) return UTILS_ERR_FILE_NOT_FOUND;
    size_t read = ReadUpTo(file.get(), buffer, size);
    if (read < size && ferror(file.get())) return UTILS_ERR_FAILED;
    size = static_cast<unsigned int>(read);
    return UTILS_OK;
  }

  // A size query. A missing file reports the all-ones size with UTILS_ERR_MORE_DATA and an empty file
  // UTILS_ERR_FILE_NOT_FOUND; deliberate, callers already depend on both answers.
  unsigned int fileSize = GetFileSize(path);
  if (fileSize == 0) return UTILS_ERR_FILE_NOT_FOUND;
  size = fileSize;
  return UTILS_ERR_MORE_DATA;
}

bool GetAllUsersAppDataPath(std::string& path) {
  path = "/opt";  // fits the string's inline storage: nothing is allocated
  return true;
}

std::string GetBuildVersion() try {
  return OVF_BUILD_VERSION;
} catch (...) {
  return {};
}

std::string GetBuildTag() { return {}; }

std::string EncodeToHex(std::string const& bytes) try {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string hex;
  hex.reserve(bytes.size() * 2);
  for (unsigned char byte : bytes) {
    hex.push_back(kDigits[byte >> 4]);
    hex.push_back(kDigits[byte & 0x0F]);
  }
  return hex;
} catch (...) {
  return {};
}

std::string EncodeHexToByte(std::string const& hex) try {
  std::string bytes;
  if (hex.empty()) return bytes;
  for (size_t i = 0;; i += 2) {
    int high = HexDigitValue(hex[i]);
    // An odd last digit pairs with the text's terminating zero.
    int low = i + 1 < hex.size() ? HexDigitValue(hex[i + 1]) : 0;
    bytes.push_back(static_cast<char>((high << 4) | low));
    if (i + 2 >= hex.size()) break;
  }
  return bytes;
} catch (...) {
  return {};
}

int WideCharToMBCS(std::string const& in, std::string& out) try {
  out = in;
  return UTILS_OK;
} catch (...) {
  return UTILS_ERR_FAILED;
}

int WideCharToMBLength(std::string const& in, unsigned long& length) {
  length = in.size();
  return UTILS_OK;
}

bool MatchPattern(std::string const& text, std::string const& pattern) try {
  std::vector<PatternElement> elements = SplitPattern(pattern);
  if (elements.empty()) return text.empty();

  // The table's cell (i, j) says whether the first i text characters match the first j pattern elements. Each
  // row needs only the one before it, so two rows stand in for the whole table: memory grows with the pattern
  // alone, not with text length times pattern length.
  const size_t columns = elements.size() + 1;
  std::vector<unsigned char> previous(columns, 0), current(columns, 0);

  previous[0] = 1;
  for (size_t j = 1; j < columns; ++j) {
    previous[j] = elements[j - 1].kind == PatternElement::eStar ? previous[j - 1] : 0;
  }
  for (const char t : text) {
    current[0] = 0;  // a non-empty text never matches no elements
    for (size_t j = 1; j < columns; ++j) {
      const PatternElement& element = elements[j - 1];
      switch (element.kind) {
        case PatternElement::eStar:
          current[j] = current[j - 1] || previous[j];
          break;
        case PatternElement::eEscaped:
        case PatternElement::eLiteral:
          current[j] = t == element.ch ? previous[j - 1] : 0;
          break;
        case PatternElement::eAnyOne:
          current[j] = previous[j - 1];
          break;
      }
    }
    previous.swap(current);
  }
  return previous[columns - 1] != 0;
} catch (...) {
  return false;
}

int GetSHA1Hash(unsigned char const* data, unsigned long length, std::string& digest) try {
  if (data == nullptr) return UTILS_ERR_INVALID_PARAMETER;
  DigestContext context(EVP_MD_CTX_new());
  if (!context) return UTILS_ERR_FAILED;

  unsigned char value[EVP_MAX_MD_SIZE];
  unsigned int valueLength = 0;
  if (EVP_DigestInit_ex(context.get(), EVP_sha1(), nullptr) != 1 ||
      EVP_DigestUpdate(context.get(), data, length) != 1 ||
      EVP_DigestFinal_ex(context.get(), value, &valueLength) != 1) {
    return UTILS_ERR_FAILED;
  }
  digest.assign(reinterpret_cast<char const*>(value), valueLength);
  return UTILS_OK;
} catch (...) {
  return UTILS_ERR_FAILED;
}

int Base64Encode(std::string const& input, int length, std::string& output) try {
  if (!LengthFits(input, length)) return UTILS_ERR_INVALID_PARAMETER;

  // The filter stays in its default, line-broken mode: readers of this text expect the line ends.
  BioChain filter(BIO_new(BIO_f_base64()));
  BioChain sinkOwner(BIO_new(BIO_s_mem()));
  if (!filter || !sinkOwner) return UTILS_ERR_FAILED;
  BIO* sink = sinkOwner.get();
  BIO_push(filter.get(), sinkOwner.release());

  const char* next = input.data();
  int left = length;
  while (left > 0) {
    int written = BIO_write(filter.get(), next, left);
    if (written <= 0) return UTILS_ERR_FAILED;
    next += written;
    left -= written;
  }
  if (BIO_flush(filter.get()) != 1) return UTILS_ERR_FAILED;

  output = MemoryBioContents(sink);
  return UTILS_OK;
} catch (...) {
  return UTILS_ERR_FAILED;
}

int Base64Decode(std::string const& input, int length, std::string& output, int& outputLength) try {
  outputLength = 0;
  if (!LengthFits(input, length)) return UTILS_ERR_INVALID_PARAMETER;

  BioChain filter(BIO_new(BIO_f_base64()));
  BioChain sourceOwner(BIO_new_mem_buf(input.data(), length));
  BioChain sink(BIO_new(BIO_s_mem()));
  if (!filter || !sourceOwner || !sink) return UTILS_ERR_FAILED;
  BIO_push(filter.get(), sourceOwner.release());

  char chunk[kBase64ReadChunk];
  for (;;) {
    int read = BIO_read(filter.get(), chunk, sizeof chunk);
    if (read == 0) break;
    if (read < 0) return UTILS_ERR_FAILED;
    if (BIO_write(sink.get(), chunk, read) != read) return UTILS_ERR_FAILED;
  }
  if (BIO_flush(sink.get()) != 1) return UTILS_ERR_FAILED;

  std::string decoded = MemoryBioContents(sink.get());
  outputLength = static_cast<int>(decoded.size());
  output = std::move(decoded);
  return UTILS_OK;
} catch (...) {
  return UTILS_ERR_FAILED;
}

}  // namespace Utils
}  // namespace OvRuntime
