// Fuzzes the feedback profile as the agent and the status object read it: any bytes in the profile's place,
// parsed by the runtime's XmlParser into a PhoneHomeXmlMgr, must never crash, hang or leak; the profile belongs
// to an administrator, but whatever sits in its place is input all the same.
//
// The same bytes also go through a handler that checks what XmlParser promises every handler (XmlParser.h):
// end tags close the innermost open element; an element without child elements gets exactly one value, right
// before its end; text is never handed over in two pieces; without deliverWhitespace no blank run beside child
// elements arrives; a parse that succeeds closes every element; a handler that throws stops the parse with
// XMLPARSER_E_HANDLER.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

#include "AppLog.h"
#include "PhoneHome/PhoneHomeXmlMgr.h"
#include "XmlMgr.h"
#include "XmlParser.h"

namespace {

[[noreturn]] void Fault(const char* what, const std::string& detail) {
  fprintf(stderr, "XmlParser broke its promise: %s (%s)\n", what, detail.c_str());
  abort();
}

// An element whose start tag is "Stop" makes this handler throw, so the fuzzer reaches the parser's stop path.
class CheckingHandler : public XmlMgr {
 public:
  explicit CheckingHandler(bool deliverWhitespace) : m_deliverWhitespace(deliverWhitespace) {}

  void addElement(const std::string& name) override {
    if (!m_open.empty()) m_open.back().hasChild = true;
    m_open.push_back({name, false, 0});
    m_lastWasValue = false;
    if (name == "Stop") {
      m_threw = true;
      throw std::runtime_error("stop");
    }
  }

  void endElement(const std::string& name) override {
    if (m_open.empty() || m_open.back().name != name) Fault("end tag does not close the innermost element", name);
    if (!m_open.back().hasChild && m_open.back().values != 1) Fault("a leaf element needs exactly one value", name);
    m_open.pop_back();
    m_lastWasValue = false;
  }

  void setElementValue(const std::string& value) override {
    if (m_open.empty()) Fault("a value outside every element", value);
    if (m_lastWasValue) Fault("one run of text handed over in pieces", value);
    Open& element = m_open.back();
    ++element.values;
    if (element.hasChild && !m_deliverWhitespace && value.find_first_not_of(" \t\r\n") == std::string::npos) {
      Fault("a blank run beside child elements", element.name);
    }
    m_lastWasValue = true;
  }

  void addAttribute(const std::string&, const std::string&) override {
    if (m_open.empty()) Fault("an attribute outside every element", "");
  }

  void CheckResult(long result) const {
    if (m_threw != (result == XMLPARSER_E_HANDLER)) Fault("handler exception and result disagree", std::to_string(result));
    if (result == XMLPARSER_OK && !m_open.empty()) Fault("a parse that succeeded left elements open", m_open.back().name);
    if (result != XMLPARSER_OK && result != XMLPARSER_E_MALFORMED && result != XMLPARSER_E_HANDLER) {
      Fault("a failure that a regular file in memory cannot have", std::to_string(result));
    }
  }

 private:
  struct Open {
    std::string name;
    bool hasChild;
    int values;  // values since the last tag inside this element, or in all for a leaf
  };
  bool m_deliverWhitespace;
  bool m_threw = false;
  bool m_lastWasValue = false;
  std::vector<Open> m_open;
};

// The input sits in a memory file that XmlParser opens by name, as it would the profile: a regular file, so the
// run never waits on a disk.
int g_file = -1;
std::string g_path;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // Every malformed input logs a line; they would drown the fuzzer's own output.
  CAppLog::SetSink([](const LogRecord&) {});
  g_file = memfd_create("profile", MFD_CLOEXEC);
  if (g_file < 0) {
    perror("memfd_create");
    abort();
  }
  g_path = "/proc/self/fd/" + std::to_string(g_file);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (ftruncate(g_file, 0) != 0 || pwrite(g_file, data, size, 0) != static_cast<ssize_t>(size)) {
    perror("writing the profile");
    abort();
  }

  PhoneHomeXmlMgr profile;
  XmlParser reader(profile);
  if (reader.parseFile(g_path, false) == XMLPARSER_OK) {
    // The getters the agent and the status object read after a successful parse.
    volatile unsigned int sink = profile.GetServiceDisable() + profile.GetIncludeCrashReport() +
                                 profile.GetFeedbackInterval() + profile.GetCheckCrashInterval() +
                                 static_cast<unsigned int>(profile.GetCustomerID().size());
    (void)sink;
  }

  for (bool deliverWhitespace : {false, true}) {
    CheckingHandler checker(deliverWhitespace);
    XmlParser parser(checker);
    checker.CheckResult(parser.parseFile(g_path, deliverWhitespace));
  }
  return 0;
}
