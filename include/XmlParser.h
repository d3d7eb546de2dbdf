// Streaming XML parser of the host runtime, on expat: reads a file block by block and drives an XmlMgr.
#pragma once

#include <cstddef>
#include <string>

#include "ApiExport.h"

class XmlMgr;

// Results of XmlParser::parseFile; one code per cause so a caller's log line tells them apart.
inline constexpr long XMLPARSER_OK = 0;
inline constexpr long XMLPARSER_E_NOT_FOUND = 0xFE3B0001;  // the path (or a directory on it) does not exist
inline constexpr long XMLPARSER_E_OPEN = 0xFE3B0002;       // it exists but cannot be opened (e.g. no permission)
inline constexpr long XMLPARSER_E_READ = 0xFE3B0003;       // opened but reading failed (an I/O error)
inline constexpr long XMLPARSER_E_MALFORMED = 0xFE3B0004;  // not well-formed XML; an empty file is one too
inline constexpr long XMLPARSER_E_NO_MEMORY = 0xFE3B0005;  // the parser or a buffer could not be allocated
inline constexpr long XMLPARSER_E_HANDLER = 0xFE3B0006;    // the handler threw; parsing stopped there
inline constexpr long XMLPARSER_E_NOT_A_FILE = 0xFE3B0007;  // a directory, FIFO, device or socket: nothing to parse

// How a document reaches the handler:
// - A start tag gives addElement(name), then addAttribute(name, value) for each attribute in document order.
//   An end tag, or the end of an empty-element tag <a/>, gives endElement(name).
// - Text is gathered between two tags and handed over as ONE setElementValue call right before the next start
//   or end tag, however expat split it (read blocks, lines, entity and character references, CDATA sections).
//   Comments and processing instructions do not split a run: <a>x<!--c-->y</a> gives "xy". Line ends arrive
//   as "\n", as XML normalises them.
// - An element without child elements always gets exactly one setElementValue, right before its endElement:
//   its text as it stands, white space and all, and "" for <a></a> and <a/>.
// - In an element with child elements the text is delivered run by run: <a>x<b>y</b>z</a> gives addElement(a),
//   setElementValue(x), addElement(b), setElementValue(y), endElement(b), setElementValue(z), endElement(a).
//   The parser keeps no element stack for the handler: a run after a child's end tag arrives after that
//   child's endElement. A run there made only of XML white space (space, tab, CR, LF) is the document's
//   indentation and is delivered only when parseFile's deliverWhitespace is true; the profile readers pass
//   false.
// Names and values are UTF-8.
class SC_API XmlParser {
 public:
  // Size of each read from the file; text longer than this reaches the handler whole all the same.
  static constexpr size_t kReadBlockSize = 8192;

  // The handler is borrowed and must outlive every parseFile call.
  explicit XmlParser(XmlMgr& handler);
  ~XmlParser();
  XmlParser(const XmlParser&) = delete;
  XmlParser& operator=(const XmlParser&) = delete;

  // Parses the whole file at path. Returns XMLPARSER_OK or one of the XMLPARSER_E_* codes; the handler may
  // already have received calls for the part before a malformation. Logs at most one debug line on failure:
  // reporting the failure is the caller's job. Never throws.
  long parseFile(const std::string& path, bool deliverWhitespace);

 private:
  XmlMgr& m_handler;
};
