// Bounded string copy.
#include "SafeString.h"

#include <cstring>

size_t safe_strlcpyA(char* dst, const char* src, size_t size) {
  if (dst == nullptr || size == 0) return 0;
  if (src == nullptr) {
    dst[0] = '\0';
    return 0;
  }
  size_t n = strnlen(src, size - 1);
  memcpy(dst, src, n);
  dst[n] = '\0';
  return n;
}
