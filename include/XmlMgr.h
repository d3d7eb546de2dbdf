// Handler interface of the runtime's XML parser: XmlParser calls these while it streams a document.
#pragma once

#include <string>

#include "ApiExport.h"

// What the calls mean and in which order they arrive is described with XmlParser (XmlParser.h). A handler may
// throw; the parser then stops and parseFile reports XMLPARSER_E_HANDLER, so nothing escapes the parse.
class SC_API XmlMgr {
 public:
  virtual ~XmlMgr();
  // A start tag: the element's name as written (no namespace processing).
  virtual void addElement(const std::string& name) = 0;
  // The matching end tag (also sent for an empty-element tag <a/>).
  virtual void endElement(const std::string& name) = 0;
  // Text of the element, entities resolved and CDATA unwrapped: all of it (possibly "") for an element without
  // child elements, else one run beside them.
  virtual void setElementValue(const std::string& value) = 0;
  // One attribute of the element last announced by addElement.
  virtual void addAttribute(const std::string& name, const std::string& value) = 0;

 protected:
  XmlMgr() = default;
  XmlMgr(const XmlMgr&) = default;
  XmlMgr& operator=(const XmlMgr&) = default;
};
