// What the bencode unit's sources share: the log line macro, the value made for a peeked type byte, and the
// steps that load and store a container through its file. Internal to the unit.
#pragma once

#include <memory>
#include <string>

#include "AppLog.h"
#include "PhoneHome/Bencode.h"

// Every failure of the bencode unit is logged once, where it is detected: the message at error importance,
// with the code it stands for (-3 for text that does not parse, -1, errno or a result code) as its argument.
#define BENCODE_FAILURE(code, message) BencodeInternal::LogFailure(__FUNCTION__, __LINE__, message, code)

namespace BencodeInternal {

inline void LogFailure(char const* function, int line, char const* message, long code) {
  // The messages hold no conversion, so the code rides along as an argument the text does not print.
  CAppLog::LogDebugMessage(function, "Bencode", line, APPLOG_ERROR, message, code);
}

// An empty value of the type that a bencoded value starting with `firstByte` has: 'i' integer, 'l' list,
// 'd' dictionary, and any other byte a string (so a stray byte fails as an illegal string).
std::unique_ptr<CBencode> NewValueFor(int firstByte);

// Loads the bound file and parses it into `container`: the stream's load code, -3 when the text does not
// parse, 0. The caller has checked that a stream exists.
EBencodeResult Load(CBencode& container, CBencodeStream& stream);

// Serialises `container` from the start of its stream and, with `flush`, writes the file; a spool hand-over
// into the named file empties the container. The caller has checked that a stream exists.
EBencodeResult Store(CBencode& container, CBencodeStream& stream, bool spool, bool flush);

}  // namespace BencodeInternal
