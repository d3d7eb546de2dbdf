// A bencode value as the bytes it writes, for suites that link the bencode classes.
#pragma once

#include <string>

#include "PhoneHome/Bencode.h"

// What Externalize(stream) writes for `value`, or "<failed>".
inline std::string Bencoded(CBencode& value) {
  CBencodeStream stream("", false);
  if (!value.Externalize(stream)) return "<failed>";
  std::string text(static_cast<size_t>(stream.Tellp()), '\0');
  stream.Read(&text[0], text.size());
  return text;
}
