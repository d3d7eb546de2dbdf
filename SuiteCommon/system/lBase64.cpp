// Streaming base64 encoder on OpenSSL's block encoder.
#include "lBase64.h"

#include <openssl/evp.h>

#include <algorithm>
#include <cstdint>
#include <vector>

namespace {

// Every chunk but the last is a whole number of 3-byte groups, so the chunks' texts join without padding in
// between and the result is the one base64 text of the whole input.
constexpr int64_t kGroup = 3;
constexpr int64_t kMinChunk = kGroup * 1024;
constexpr int64_t kMaxChunk = kGroup * 16384;
constexpr int64_t kDefaultChunk = kGroup * 4096;

size_t ChunkSize(int lengthHint) {
  if (lengthHint <= 0) return kDefaultChunk;
  const int64_t bytes = (int64_t{lengthHint} * 3 / 4 + kGroup - 1) / kGroup * kGroup;
  return static_cast<size_t>(std::clamp(bytes, kMinChunk, kMaxChunk));
}

}  // namespace

bool lBase64::Encode(std::istream& in, std::ostream& out, int lengthHint) {
  const size_t chunk = ChunkSize(lengthHint);
  std::vector<unsigned char> bytes(chunk);
  std::vector<unsigned char> text(chunk / 3 * 4 + 1);  // EVP_EncodeBlock also writes a terminating NUL
  for (;;) {
    in.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(chunk));
    const std::streamsize got = in.gcount();
    if (got > 0) {
      const int length = EVP_EncodeBlock(text.data(), bytes.data(), static_cast<int>(got));
      out.write(reinterpret_cast<const char*>(text.data()), length);
      if (!out) return false;
    }
    if (static_cast<size_t>(got) < chunk) break;  // only the end of the input or an error reads short
  }
  return in.eof() && !in.bad() && static_cast<bool>(out);
}
