// Helpers shared by the bencode suites: streams over literal text, serialised text, and the unit's log lines.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "LogCapture.h"
#include "PhoneHome/Bencode.h"

// A stream bound to no file whose readable text is `text`.
inline std::unique_ptr<CBencodeStream> StreamOver(std::string const& text) {
  std::unique_ptr<CBencodeStream> stream(new CBencodeStream("", false));
  stream->Write(text.data(), text.size());
  return stream;
}

// What Externalize(stream) writes for `value`, or "<failed>".
inline std::string Serialised(CBencode& value) {
  CBencodeStream stream("", false);
  if (!value.Externalize(stream)) return "<failed>";
  std::string text(static_cast<size_t>(stream.Tellp()), '\0');
  stream.Read(&text[0], text.size());
  return text;
}

// The unit logged `text` at error importance with `code`.
inline void ExpectLogged(LogCapture const& log, std::string const& text, long code) {
  LogRecord const* record = log.Find(text);
  ASSERT_NE(record, nullptr) << "missing \"" << text << "\"; logged:\n" << log.Dump();
  EXPECT_EQ(record->file, "Bencode") << text;
  EXPECT_EQ(record->importance, LOG_ERROR) << text;
  EXPECT_EQ(record->code, code) << text;
}
