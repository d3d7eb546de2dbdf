// The runtime's XML parser: the handler calls a document produces, text arriving whole, and the failure codes.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <stdexcept>
#include <string>

#include "TempDir.h"
#include "UITranslator.h"
#include "XmlMgr.h"
#include "XmlParser.h"

namespace {

// Records each call as "<name|", "@name=value|", "=text|" or ">name|".
class RecordingHandler : public XmlMgr {
 public:
  std::string events;
  std::string throwOnText;  // delivering this value makes the handler throw

  void addElement(const std::string& name) override { events += "<" + name + "|"; }
  void endElement(const std::string& name) override { events += ">" + name + "|"; }
  void setElementValue(const std::string& value) override {
    if (!throwOnText.empty() && value == throwOnText) throw std::runtime_error("refused");
    events += "=" + value + "|";
  }
  void addAttribute(const std::string& name, const std::string& value) override {
    events += "@" + name + "=" + value + "|";
  }
};

}  // namespace

TEST(XmlParser, DeliversElementsAttributesAndTextRuns) {
  struct Row {
    const char* xml;
    bool deliverWhitespace;
    const char* expected;
  } rows[] = {
      {"<a k=\"1\" j='x&amp;y'>v</a>", false, "<a|@k=1|@j=x&y|=v|>a|"},
      {"<r>\n  <a> 1 </a>\n  <b><C>2</C></b>\n</r>\n", false, "<r|<a|= 1 |>a|<b|<C|=2|>C|>b|>r|"},
      {"<r>\n <a>\t</a></r>", true, "<r|=\n |<a|=\t|>a|>r|"},
      {"<r><a></a><b/><c x=\"\"/><d> \r\n</d></r>", false, "<r|<a|>a|<b|>b|<c|@x=|>c|<d|>d|>r|"},
      {"<F>5<C>x</C>7</F>", false, "<F|=5|<C|=x|>C|=7|>F|"},
      {"<a>x<!--c-->y<?pi z?>z</a>", false, "<a|=xyz|>a|"},
      {"<!DOCTYPE a [<!ENTITY e \"E\">]><a>p&lt;<![CDATA[<b>&amp;]]>&#65;&e;q</a>", false, "<a|=p<<b>&amp;AEq|>a|"},
  };
  TempDir dir;
  for (const Row& row : rows) {
    RecordingHandler handler;
    XmlParser parser(handler);
    EXPECT_EQ(parser.parseFile(dir.Write("doc.xml", row.xml), row.deliverWhitespace), XMLPARSER_OK) << row.xml;
    EXPECT_EQ(handler.events, row.expected) << row.xml;
  }
}

TEST(XmlParser, TextSplitAcrossReadBlocksArrivesWhole) {
  // Spans several read blocks, with multi-byte characters, references and CDATA, so expat splits it often.
  std::string expected, source;
  for (int i = 0; expected.size() < 3 * XmlParser::kReadBlockSize; ++i) {
    expected += "\xc3\xa9 " + std::to_string(i) + " <&>\n";
    source += i % 7 ? "&#xe9; " + std::to_string(i) + " &lt;&amp;&gt;\n"
                    : "\xc3\xa9 " + std::to_string(i) + " <![CDATA[<&>]]>\n";
  }
  TempDir dir;
  RecordingHandler handler;
  XmlParser parser(handler);
  ASSERT_EQ(parser.parseFile(dir.Write("big.xml", "<r><a>" + source + "</a><b>t</b></r>"), false), XMLPARSER_OK);
  EXPECT_EQ(handler.events, "<r|<a|=" + expected + "|>a|<b|=t|>b|>r|");
}

TEST(XmlParser, ReportsEachFailureWithItsOwnCode) {
  TempDir dir;
  std::string unreadable = dir.Write("unreadable.xml", "<a/>");
  chmod(unreadable.c_str(), 0);
  mkdir(dir.File("directory.xml").c_str(), 0700);
  struct Row {
    std::string path;
    long expected;
  } rows[] = {
      {dir.File("missing.xml"), XMLPARSER_E_NOT_FOUND},
      {unreadable + "/below-a-file.xml", XMLPARSER_E_NOT_FOUND},
      {unreadable, XMLPARSER_E_OPEN},
      {dir.File("directory.xml"), XMLPARSER_E_READ},
      {dir.Write("empty.xml", ""), XMLPARSER_E_MALFORMED},
      {dir.Write("unclosed.xml", "<a><b>x</b>"), XMLPARSER_E_MALFORMED},
      {dir.Write("mismatched.xml", "<a><b></a></b>"), XMLPARSER_E_MALFORMED},
      {dir.Write("undefined-entity.xml", "<a>&nope;</a>"), XMLPARSER_E_MALFORMED},
      {dir.Write("not-xml.xml", "ServiceDisable=true\n"), XMLPARSER_E_MALFORMED},
  };
  for (const Row& row : rows) {
    // root opens any file whatever its mode, so the unreadable row only means something for other users.
    if (row.path == unreadable && geteuid() == 0) continue;
    RecordingHandler handler;
    XmlParser parser(handler);
    EXPECT_EQ(parser.parseFile(row.path, false), row.expected) << row.path;
  }
}

TEST(XmlParser, HandlerExceptionStopsTheParse) {
  TempDir dir;
  std::string path = dir.Write("doc.xml", "<r><a>ok</a><b>bad</b><c>late</c></r>");
  RecordingHandler handler;
  handler.throwOnText = "bad";
  XmlParser parser(handler);
  EXPECT_EQ(parser.parseFile(path, false), XMLPARSER_E_HANDLER);
  EXPECT_EQ(handler.events, "<r|<a|=ok|>a|<b|");
  // The same parser starts the next file afresh.
  handler.events.clear();
  handler.throwOnText.clear();
  EXPECT_EQ(parser.parseFile(path, false), XMLPARSER_OK);
  EXPECT_EQ(handler.events, "<r|<a|=ok|>a|<b|=bad|>b|<c|=late|>c|>r|");
}

TEST(UITranslator, KnowsTheFeedbackNames) {
  EXPECT_STREQ(UITranslator::translate(UITranslator::PhoneHomeComponentName), "Customer Experience Feedback");
  EXPECT_STREQ(UITranslator::translate(UITranslator::PhoneHomeWithCrashDumpName),
               "Customer Experience Feedback with Crash Reports");
  EXPECT_STREQ(UITranslator::translate(static_cast<UITranslator::EStringId>(99)), "");
}
