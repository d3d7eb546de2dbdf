// The runtime's XML parser: the handler calls a document produces, text arriving whole, and the failure codes.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <stdexcept>
#include <string>

#include "PermissionBits.h"
#include "TempDir.h"
#include "XmlMgr.h"
#include "XmlParser.h"

namespace {

// Records each call as "<name|", "@name=value|", "=text|" or ">name|"; refuses the text "refuse" by throwing.
struct RecordingHandler : XmlMgr {
  std::string events;

  void addElement(const std::string& name) override { events += "<" + name + "|"; }
  void endElement(const std::string& name) override { events += ">" + name + "|"; }
  void setElementValue(const std::string& value) override {
    if (value == "refuse") throw std::runtime_error("refused");
    events += "=" + value + "|";
  }
  void addAttribute(const std::string& name, const std::string& value) override {
    events += "@" + name + "=" + value + "|";
  }
};

}  // namespace

TEST(XmlParser, DeliversHandlerCallsOrReportsTheFailure) {
  TempDir dir;
  int files = 0;
  auto doc = [&](const std::string& xml) { return dir.Write(std::to_string(++files) + ".xml", xml); };
  // Text over several read blocks, with multi-byte characters, references and CDATA, so expat splits it often.
  std::string big = "<r><a>", bigEvents = "<r|<a|=";
  for (int i = 0; bigEvents.size() < 3 * XmlParser::kReadBlockSize; ++i) {
    bigEvents += "\xc3\xa9 " + std::to_string(i) + " <&>\n";
    big += i % 7 ? "&#xe9; " + std::to_string(i) + " &lt;&amp;&gt;\n"
                 : "\xc3\xa9 " + std::to_string(i) + " <![CDATA[<&>]]>\n";
  }
  const std::string unreadable = doc("<a/>");
  chmod(unreadable.c_str(), 0);
  mkdir(dir.File("directory.xml").c_str(), 0700);
  mkfifo(dir.File("fifo.xml").c_str(), 0600);  // no writer ever opens it: a blocking open would wait forever
  struct Row {
    std::string path;
    long result;
    std::string events;
    bool deliverWhitespace = false;
  } rows[] = {
      {doc("<a k=\"1\" j='x&amp;y'>v</a>"), XMLPARSER_OK, "<a|@k=1|@j=x&y|=v|>a|"},
      {doc("<r>\n  <a> 1 </a>\n  <b><C>2</C></b>\n</r>\n"), XMLPARSER_OK, "<r|<a|= 1 |>a|<b|<C|=2|>C|>b|>r|"},
      {doc("<r>\n <a>\t</a></r>"), XMLPARSER_OK, "<r|=\n |<a|=\t|>a|>r|", true},
      {doc("<r><a></a><b/><c x=\"\"/><d> \r\n</d></r>"), XMLPARSER_OK, "<r|<a|=|>a|<b|=|>b|<c|@x=|=|>c|<d|= \n|>d|>r|"},
      {doc("<F>5<C>x</C>7</F>"), XMLPARSER_OK, "<F|=5|<C|=x|>C|=7|>F|"},
      {doc("<a>x<!--c-->y<?pi z?>z</a>"), XMLPARSER_OK, "<a|=xyz|>a|"},
      {doc(big + "</a><b>t</b></r>"), XMLPARSER_OK, bigEvents + "|>a|<b|=t|>b|>r|"},
      {dir.File("missing.xml"), XMLPARSER_E_NOT_FOUND, ""},
      {unreadable + "/below-a-file.xml", XMLPARSER_E_NOT_FOUND, ""},
      {unreadable, XMLPARSER_E_OPEN, ""},
      {dir.File("directory.xml"), XMLPARSER_E_NOT_A_FILE, ""},
      {dir.File("fifo.xml"), XMLPARSER_E_NOT_A_FILE, ""},
      {doc(""), XMLPARSER_E_MALFORMED, ""},
      {doc("<a><b></a>"), XMLPARSER_E_MALFORMED, "<a|<b|"},
      {doc("<r><a>ok</a><b>refuse</b><c>late</c></r>"), XMLPARSER_E_HANDLER, "<r|<a|=ok|>a|<b|"},
  };
  PermissionBits bits;
  for (const Row& row : rows) {
    struct stat st;  // reading the FIFO to show it would block the test itself
    const bool regular = stat(row.path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
    SCOPED_TRACE(row.path + ": " + (regular ? TempDir::Read(row.path).substr(0, 100) : ""));
    RecordingHandler handler;
    XmlParser parser(handler);
    EXPECT_EQ(parser.parseFile(row.path, row.deliverWhitespace), row.result);
    EXPECT_EQ(handler.events, row.events);
    if (row.result == XMLPARSER_E_HANDLER) {  // the same parser starts the next file afresh
      handler.events.clear();
      EXPECT_EQ(parser.parseFile(rows[0].path, false), XMLPARSER_OK);
      EXPECT_EQ(handler.events, rows[0].events);
    }
  }
}
