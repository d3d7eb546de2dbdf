// The feedback profile reader, driven by the runtime's parser over real files.
#include <gtest/gtest.h>

#include <string>

#include "PhoneHome/PhoneHomeXmlMgr.h"
#include "TempDir.h"
#include "XmlParser.h"

namespace {

// The five getters as "disable include [customer] feedback check".
std::string Summary(const PhoneHomeXmlMgr& p) {
  return std::to_string(p.GetServiceDisable()) + " " + std::to_string(p.GetIncludeCrashReport()) + " [" +
         p.GetCustomerID() + "] " + std::to_string(p.GetFeedbackInterval()) + " " +
         std::to_string(p.GetCheckCrashInterval());
}

}  // namespace

TEST(PhoneHomeXmlMgr, ReadsProfiles) {
  struct Row {
    const char* body;  // inside <Feedback>, unless it brings its own root
    const char* expected;
  } rows[] = {
      {"", "0 1 [] 0 0"},
      {"<ServiceDisable>true</ServiceDisable><IncludeCrashReport>false</IncludeCrashReport>"
       "<CustomerID>acme</CustomerID><FeedbackInterval>3600</FeedbackInterval>"
       "<CheckCrashInterval>7200</CheckCrashInterval>",
       "1 0 [acme] 3600 7200"},
      // Any letter case of "true" is true; nothing else is, and nothing is trimmed.
      {"<ServiceDisable>TRUE</ServiceDisable><IncludeCrashReport>tRuE</IncludeCrashReport>", "1 1 [] 0 0"},
      {"<ServiceDisable>True</ServiceDisable><IncludeCrashReport>yes</IncludeCrashReport>", "1 0 [] 0 0"},
      {"<ServiceDisable>yes</ServiceDisable><IncludeCrashReport>1</IncludeCrashReport>", "0 0 [] 0 0"},
      {"<ServiceDisable>1</ServiceDisable>", "0 1 [] 0 0"},
      {"<ServiceDisable> true</ServiceDisable><IncludeCrashReport>true\n</IncludeCrashReport>", "0 0 [] 0 0"},
      {"<ServiceDisable>true</ServiceDisable><ServiceDisable>false</ServiceDisable>", "0 1 [] 0 0"},
      // Element names are case-sensitive.
      {"<servicedisable>true</servicedisable><customerId>x</customerId><FEEDBACKINTERVAL>5</FEEDBACKINTERVAL>",
       "0 1 [] 0 0"},
      // Intervals: strtol, cut to 32 bits; an empty (or blank, never delivered) value keeps the earlier one.
      {"<FeedbackInterval>abc</FeedbackInterval><CheckCrashInterval>0x10</CheckCrashInterval>", "0 1 [] 0 0"},
      {"<FeedbackInterval>86400s</FeedbackInterval><CheckCrashInterval> +42</CheckCrashInterval>",
       "0 1 [] 86400 42"},
      {"<FeedbackInterval></FeedbackInterval><CheckCrashInterval/>", "0 1 [] 0 0"},
      {"<FeedbackInterval>60</FeedbackInterval><FeedbackInterval/><CheckCrashInterval>9</CheckCrashInterval>"
       "<CheckCrashInterval> </CheckCrashInterval>",
       "0 1 [] 60 9"},
      {"<FeedbackInterval>60</FeedbackInterval><FeedbackInterval>x</FeedbackInterval>", "0 1 [] 0 0"},
      {"<FeedbackInterval>-1</FeedbackInterval><CheckCrashInterval>4294967296</CheckCrashInterval>",
       "0 1 [] 4294967295 0"},
      {"<FeedbackInterval>99999999999</FeedbackInterval><CheckCrashInterval>99999999999999999999"
       "</CheckCrashInterval>",
       "0 1 [] 1215752191 4294967295"},
      // The customer ID is verbatim; an empty element keeps the earlier one.
      {"<CustomerID> A&amp;B <![CDATA[<x>]]></CustomerID>", "0 1 [ A&B <x>] 0 0"},
      {"<CustomerID>x</CustomerID><CustomerID></CustomerID>", "0 1 [x] 0 0"},
      // Only the innermost element is current, and any end tag leaves none current.
      {"<FeedbackInterval>5<CustomerID>x</CustomerID>7</FeedbackInterval>", "0 1 [x] 5 0"},
      {"<ServiceDisable><CustomerID>c</CustomerID>true</ServiceDisable>", "0 1 [c] 0 0"},
      {"<Policy><CheckCrashInterval>9</CheckCrashInterval></Policy>", "0 1 [] 0 9"},
      {"<FeedbackInterval><Days>9</Days></FeedbackInterval>", "0 1 [] 0 0"},
      {"<Profile><ServiceDisable>true</ServiceDisable></Profile>", "1 1 [] 0 0"},
      {"<Feedback>true<CustomerID>c</CustomerID></Feedback>", "0 1 [c] 0 0"},
      {"<ServiceDisable value=\"true\">false</ServiceDisable>", "0 1 [] 0 0"},
  };
  TempDir dir;
  for (const Row& row : rows) {
    std::string body = row.body;
    std::string xml = body.rfind("<Feedback>", 0) == 0 || body.rfind("<Profile>", 0) == 0
                          ? body
                          : "<?xml version=\"1.0\"?>\n<Feedback>\n  " + body + "\n</Feedback>\n";
    PhoneHomeXmlMgr profile;
    XmlParser parser(profile);
    ASSERT_EQ(parser.parseFile(dir.Write("profile.xml", xml), false), XMLPARSER_OK) << xml;
    EXPECT_EQ(Summary(profile), row.expected) << xml;
  }
}

TEST(PhoneHomeXmlMgr, HandlerCallsWithoutAParser) {
  PhoneHomeXmlMgr profile;
  profile.addElement(PhoneHomeXmlMgr::sm_tstrFeedbackInterval);
  profile.addAttribute("FeedbackInterval", "1");
  profile.setElementValue("30");
  profile.setElementValue("");  // an empty value leaves the interval alone
  profile.endElement("Other");  // any end tag clears the current element
  profile.setElementValue("99");
  profile.addElement(PhoneHomeXmlMgr::sm_tstrCustomerID);
  profile.setElementValue("");
  EXPECT_EQ(Summary(profile), "0 1 [] 30 0");
  EXPECT_EQ(PhoneHomeXmlMgr::sm_tstrFeedback + PhoneHomeXmlMgr::sm_tstrServiceDisable +
                PhoneHomeXmlMgr::sm_tstrIncludeCrashReport + PhoneHomeXmlMgr::sm_tstrCheckCrashInterval,
            "FeedbackServiceDisableIncludeCrashReportCheckCrashInterval");
}
