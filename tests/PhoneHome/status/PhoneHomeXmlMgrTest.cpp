// The feedback profile reader, driven by the runtime's parser over real files.
#include <gtest/gtest.h>

#include <string>

#include "PhoneHome/PhoneHomeXmlMgr.h"
#include "TempDir.h"
#include "XmlParser.h"

TEST(PhoneHomeXmlMgr, ReadsProfiles) {
  struct Row {
    const char* body;  // inside <Feedback>, unless it brings its own <Profile> root
    const char* expected;  // the getters as "disable include [customer] feedback check"
  } rows[] = {
      {"", "0 1 [] 0 0"},
      // Any letter case of "true" is true; nothing else is, and nothing is trimmed; the last value counts.
      {"<ServiceDisable>TRUE</ServiceDisable><IncludeCrashReport>tRuE</IncludeCrashReport>", "1 1 [] 0 0"},
      {"<ServiceDisable>yes</ServiceDisable><IncludeCrashReport>1</IncludeCrashReport>", "0 0 [] 0 0"},
      {"<ServiceDisable>1</ServiceDisable><IncludeCrashReport>yes</IncludeCrashReport>", "0 0 [] 0 0"},
      {"<ServiceDisable> true</ServiceDisable><IncludeCrashReport>true\n</IncludeCrashReport>", "0 0 [] 0 0"},
      {"<ServiceDisable>true</ServiceDisable><ServiceDisable>false</ServiceDisable>", "0 1 [] 0 0"},
      {"<servicedisable>true</servicedisable><customerId>x</customerId><FEEDBACKINTERVAL>5</FEEDBACKINTERVAL>",
       "0 1 [] 0 0"},
      // Intervals: strtol, cut to 32 bits; an empty value keeps the earlier one, a blank one is not a number.
      {"<FeedbackInterval>60</FeedbackInterval><FeedbackInterval>abc</FeedbackInterval>"
       "<CheckCrashInterval>0x10</CheckCrashInterval>", "0 1 [] 0 0"},
      {"<FeedbackInterval>86400s</FeedbackInterval><CheckCrashInterval> +42</CheckCrashInterval>", "0 1 [] 86400 42"},
      {"<FeedbackInterval>7</FeedbackInterval><FeedbackInterval></FeedbackInterval>"
       "<CheckCrashInterval>9</CheckCrashInterval><CheckCrashInterval/>", "0 1 [] 7 9"},
      {"<FeedbackInterval>7</FeedbackInterval><FeedbackInterval> </FeedbackInterval>", "0 1 [] 0 0"},
      {"<FeedbackInterval>-1</FeedbackInterval><CheckCrashInterval>4294967296</CheckCrashInterval>",
       "0 1 [] 4294967295 0"},
      {"<FeedbackInterval>99999999999</FeedbackInterval>"
       "<CheckCrashInterval>99999999999999999999</CheckCrashInterval>", "0 1 [] 1215752191 4294967295"},
      // Values are taken as they stand: blank and empty ones too.
      {"<CustomerID> A&amp;B <![CDATA[<x>]]></CustomerID>", "0 1 [ A&B <x>] 0 0"},
      {"<CustomerID>x</CustomerID><CustomerID></CustomerID>", "0 1 [] 0 0"},
      {"<ServiceDisable>true</ServiceDisable><ServiceDisable> </ServiceDisable><IncludeCrashReport/>"
       "<CustomerID> </CustomerID>", "0 0 [ ] 0 0"},
      // Only the innermost element is current, any end tag leaves none current, and attributes are ignored.
      {"<FeedbackInterval>5<CustomerID>x</CustomerID>7</FeedbackInterval>", "0 1 [x] 5 0"},
      {"<Policy><CheckCrashInterval>9</CheckCrashInterval></Policy>", "0 1 [] 0 9"},
      {"<FeedbackInterval>5</FeedbackInterval><FeedbackInterval>\n <Days>9</Days>\n</FeedbackInterval>", "0 1 [] 5 0"},
      {"<Profile><ServiceDisable>true</ServiceDisable></Profile>", "1 1 [] 0 0"},
      {"<ServiceDisable value=\"true\">false</ServiceDisable>", "0 1 [] 0 0"},
  };
  TempDir dir;
  for (const Row& row : rows) {
    const std::string body = row.body;
    const std::string xml =
        body.rfind("<Profile>", 0) == 0 ? body : "<?xml version=\"1.0\"?>\n<Feedback>\n  " + body + "\n</Feedback>\n";
    PhoneHomeXmlMgr p;
    XmlParser parser(p);
    ASSERT_EQ(parser.parseFile(dir.Write("profile.xml", xml), false), XMLPARSER_OK) << xml;
    EXPECT_EQ(std::to_string(p.GetServiceDisable()) + " " + std::to_string(p.GetIncludeCrashReport()) + " [" +
                  p.GetCustomerID() + "] " + std::to_string(p.GetFeedbackInterval()) + " " +
                  std::to_string(p.GetCheckCrashInterval()),
              row.expected)
        << xml;
  }
}
