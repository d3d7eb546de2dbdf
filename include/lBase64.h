// Base64 encoding of a stream for the host runtime.
#pragma once

#include <istream>
#include <ostream>

#include "ApiExport.h"

class SC_API lBase64 {
 public:
  // Writes the base64 text (RFC 4648 alphabet, "=" padding, no line breaks) of every byte left in `in` to
  // `out`, reading in chunks. lengthHint, the expected length of the text (0 or less when unknown), only sizes
  // the chunks. True when `in` was read to its end without error and `out` took all the text.
  static bool Encode(std::istream& in, std::ostream& out, int lengthHint);
};
