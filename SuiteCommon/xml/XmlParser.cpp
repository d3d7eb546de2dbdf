// The runtime's XML parser: streams a file through expat and turns its callbacks into XmlMgr calls.
#include "XmlParser.h"

#include <expat.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "AppLog.h"
#include "UniqueFd.h"
#include "XmlMgr.h"

// Anchors the handler interface's vtable and type information in the runtime library.
XmlMgr::~XmlMgr() = default;

namespace {

const char kUnit[] = "XmlParser";

struct ExpatParserFree {
  void operator()(XML_ParserStruct* parser) const { XML_ParserFree(parser); }
};
using ExpatParser = std::unique_ptr<XML_ParserStruct, ExpatParserFree>;

bool IsXmlWhitespace(const std::string& text) {
  return text.find_first_not_of(" \t\r\n") == std::string::npos;
}

// Everything the expat callbacks need; expat hands it back as their user data.
class Session {
 public:
  Session(XML_Parser parser, XmlMgr& handler, bool deliverWhitespace)
      : m_parser(parser), m_handler(handler), m_deliverWhitespace(deliverWhitespace) {}

  bool HandlerFailed() const { return m_handlerFailed; }

  static void XMLCALL OnStart(void* self, const XML_Char* name, const XML_Char** attributes) {
    static_cast<Session*>(self)->Guard([&](Session& s) {
      s.FlushRun();
      s.m_handler.addElement(name);
      for (const XML_Char** a = attributes; a[0] != nullptr; a += 2) s.m_handler.addAttribute(a[0], a[1]);
      s.m_inLeaf = true;
    });
  }

  static void XMLCALL OnEnd(void* self, const XML_Char* name) {
    static_cast<Session*>(self)->Guard([&](Session& s) {
      if (s.m_inLeaf) {
        s.DeliverValue();
      } else {
        s.FlushRun();
      }
      s.m_handler.endElement(name);
      s.m_inLeaf = false;
    });
  }

  static void XMLCALL OnText(void* self, const XML_Char* text, int length) {
    static_cast<Session*>(self)->Guard(
        [&](Session& s) { s.m_text.append(text, static_cast<size_t>(length)); });
  }

 private:
  // Exceptions must not unwind through expat's C frames: stop the parse and remember why instead.
  template <typename Fn>
  void Guard(Fn fn) {
    if (m_handlerFailed) return;
    try {
      fn(*this);
    } catch (...) {
      m_handlerFailed = true;
      XML_StopParser(m_parser, XML_FALSE);
    }
  }

  // A leaf element's whole text is its value: handed over even when empty or blank, so the handler's own
  // rules decide what an empty or blank value means.
  void DeliverValue() {
    std::string value;
    value.swap(m_text);
    m_handler.setElementValue(value);
  }

  // A run of text beside child elements. One made only of white space is the document's layout, not a value.
  void FlushRun() {
    if (m_text.empty()) return;
    if (m_deliverWhitespace || !IsXmlWhitespace(m_text)) {
      DeliverValue();
    } else {
      m_text.clear();
    }
  }

  XML_Parser m_parser;
  XmlMgr& m_handler;
  bool m_deliverWhitespace;
  bool m_handlerFailed = false;
  bool m_inLeaf = false;  // no child element since the innermost open element's start tag
  std::string m_text;
};

long ParseStream(int fd, XmlMgr& handler, bool deliverWhitespace, const std::string& path) {
  ExpatParser parser(XML_ParserCreate(nullptr));
  if (!parser) return XMLPARSER_E_NO_MEMORY;
  Session session(parser.get(), handler, deliverWhitespace);
  XML_SetUserData(parser.get(), &session);
  XML_SetElementHandler(parser.get(), &Session::OnStart, &Session::OnEnd);
  XML_SetCharacterDataHandler(parser.get(), &Session::OnText);

  for (;;) {
    void* block = XML_GetBuffer(parser.get(), static_cast<int>(XmlParser::kReadBlockSize));
    if (block == nullptr) return XMLPARSER_E_NO_MEMORY;
    ssize_t n = ReadRetrying(fd, block, XmlParser::kReadBlockSize);
    if (n < 0) {
      int error = errno;
      CAppLog::LogDebugMessage(__FUNCTION__, kUnit, __LINE__, APPLOG_DEBUG, "Cannot read \"%s\": %s", path.c_str(),
                               strerror(error));
      return XMLPARSER_E_READ;
    }
    bool last = n == 0;
    if (XML_ParseBuffer(parser.get(), static_cast<int>(n), last) != XML_STATUS_OK) {
      if (session.HandlerFailed()) return XMLPARSER_E_HANDLER;
      XML_Error error = XML_GetErrorCode(parser.get());
      if (error == XML_ERROR_NO_MEMORY) return XMLPARSER_E_NO_MEMORY;
      CAppLog::LogDebugMessage(__FUNCTION__, kUnit, __LINE__, APPLOG_DEBUG, "\"%s\": %s at line %lu, column %lu",
                               path.c_str(), XML_ErrorString(error),
                               static_cast<unsigned long>(XML_GetCurrentLineNumber(parser.get())),
                               static_cast<unsigned long>(XML_GetCurrentColumnNumber(parser.get())));
      return XMLPARSER_E_MALFORMED;
    }
    if (last) return XMLPARSER_OK;
  }
}

}  // namespace

XmlParser::XmlParser(XmlMgr& handler) : m_handler(handler) {}

XmlParser::~XmlParser() = default;

long XmlParser::parseFile(const std::string& path, bool deliverWhitespace) {
  try {
    // O_NONBLOCK so that a FIFO put in the file's place cannot hold the caller until some writer shows up.
    UniqueFd file(OpenCloexec(path.c_str(), O_RDONLY | O_NONBLOCK));
    if (!file.Valid()) {
      int error = errno;
      CAppLog::LogDebugMessage(__FUNCTION__, kUnit, __LINE__, APPLOG_DEBUG, "Cannot open \"%s\": %s", path.c_str(),
                               strerror(error));
      return error == ENOENT || error == ENOTDIR ? XMLPARSER_E_NOT_FOUND : XMLPARSER_E_OPEN;
    }
    struct stat st;
    if (fstat(file.Get(), &st) != 0 || !S_ISREG(st.st_mode)) {
      CAppLog::LogDebugMessage(__FUNCTION__, kUnit, __LINE__, APPLOG_DEBUG, "\"%s\" is not a regular file",
                               path.c_str());
      return XMLPARSER_E_NOT_A_FILE;
    }
    return ParseStream(file.Get(), m_handler, deliverWhitespace, path);
  } catch (...) {
    // Only allocations can throw out here; the handler's exceptions are caught inside the callbacks.
    return XMLPARSER_E_NO_MEMORY;
  }
}
