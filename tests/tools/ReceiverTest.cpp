// ovfeedback-receiver decodes each stored post with the module's own classes: plain, zlib-compressed, and the
// module's uncompressed body sent under "Zip: True".
#include <gtest/gtest.h>
#include <zlib.h>

#include <list>

#include "HttpSessionCurl.h"
#include "TempDir.h"
#include "TlsTestEnv.h"

namespace {

void Post(const std::string& file, bool zip) {
  long status = -1;
  CHttpSessionCurl session(status, TlsTestEnv::kPrimaryUrl, "", std::list<std::string>{}, "", "", "", "Orvane", 443,
                           true, true, HTTP_CERT_TRUST_STRICT, "", nullptr, nullptr, 16384, nullptr, nullptr);
  ASSERT_EQ(status, 0);
  ASSERT_EQ(session.OpenRequest(TlsTestEnv::kPrimaryUrl, 15, 0, 1, zip), 0);
  if (zip) session.AddRequestHeader("Zip", "True");
  std::string body = "data=" + file;
  unsigned long detail = 0;
  ASSERT_EQ(session.SendRequest(detail, 1, body.data(), static_cast<int>(body.size()), 0), 0) << detail;
  session.CloseRequest();
}

std::string Compressed(const std::string& text) {
  uLongf size = compressBound(text.size());
  std::string out(size, '\0');
  compress(reinterpret_cast<Bytef*>(&out[0]), &size, reinterpret_cast<const Bytef*>(text.data()), text.size());
  return out.substr(0, size);
}

}  // namespace

TEST(Receiver, DecodesEachStoredPost) {
  TlsTestEnv env;
  const std::string payload = "li7e40:0123456789abcdef0123456789abcdef01234567li3eee";
  struct Row {
    std::string sent;
    bool zip;
    std::string decoded;
  } rows[] = {
      {payload, false, "decoded: list of 3 values"},
      {Compressed(payload), true, "decoded: list of 3 values, inflated"},
      {payload, true, "decoded: list of 3 values, announced as zipped but not compressed"},
      {"d1:ai1ee", false, "decoded: no (not a bencode list)"},
  };
  int index = 0;
  for (const Row& row : rows) {
    SCOPED_TRACE(row.decoded);
    Post(row.sent, row.zip);
    char name[32];
    snprintf(name, sizeof name, "/post-%06d", ++index);
    const std::string base = env.StoreDir() + name, meta = TempDir::Read(base + ".meta");
    EXPECT_EQ(TempDir::Read(base + ".bin"), row.sent);
    EXPECT_NE(meta.find(row.decoded + "\n"), std::string::npos) << meta;
    // Only a decoded list gets its JSON form.
    const std::string json = TempDir::Read(base + ".json"), text = "\"0123456789abcdef0123456789abcdef01234567\"";
    EXPECT_TRUE(&row == &rows[3] ? json.empty() : json.find(text) != std::string::npos) << json;
  }
}
