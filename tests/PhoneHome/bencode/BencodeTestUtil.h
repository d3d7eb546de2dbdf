// Helpers shared by the bencode suites: streams over literal text, serialised text, and the unit's log lines.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "Bencoded.h"
#include "LogCapture.h"
#include "PhoneHome/Bencode.h"

// A stream bound to no file whose readable text is `text`.
inline std::unique_ptr<CBencodeStream> StreamOver(std::string const& text) {
  std::unique_ptr<CBencodeStream> stream(new CBencodeStream("", false));
  stream->Write(text.data(), text.size());
  return stream;
}
inline bool Parse(CBencode& value, std::string const& text) { return value.Internalize(*StreamOver(text)); }

// A new value of the type `text` starts with ('i', 'l', 'd', else a string), parsed from `text`.
inline std::unique_ptr<CBencode> Parsed(std::string const& text) {
  CBencode::EContentType const scalar = text[0] == 'i' ? CBencode::eInteger : CBencode::eString;
  std::unique_ptr<CBencode> value(text[0] == 'l'   ? static_cast<CBencode*>(new CBencodeList(false))
                                  : text[0] == 'd' ? new CBencodeDictionary(false) : new CBencode(scalar));
  EXPECT_TRUE(Parse(*value, text)) << text;
  return value;
}

// The unit logged `text` as a message at error importance.
inline void ExpectLogged(LogCapture const& log, std::string const& text) {
  LogRecord const* record = log.Find(text);
  ASSERT_NE(record, nullptr) << "missing \"" << text << "\"; logged:\n" << log.Dump();
  EXPECT_EQ(std::make_tuple(record->kind, record->file, record->importance),
            std::make_tuple(LogRecord::eDebugMessage, std::string("Bencode"), static_cast<int>(APPLOG_ERROR)))
      << text;
}
// ...and logged nothing else.
inline void ExpectOnlyLogged(LogCapture const& log, std::vector<char const*> const& texts) {
  EXPECT_EQ(log.Records().size(), texts.size()) << log.Dump();
  for (char const* text : texts) ExpectLogged(log, text);
}
