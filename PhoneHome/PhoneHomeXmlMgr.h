// Reader of the administrator's feedback profile: the XmlMgr handler that collects its settings.
#pragma once

#include <string>

#include "XmlMgr.h"

// Construct one, run XmlParser::parseFile(profile, false) over it and, when that returned 0, read the getters.
// Only one element name is current at a time: endElement clears it instead of restoring the parent's, so text
// that follows a nested element inside a recognised one is ignored.
class PhoneHomeXmlMgr : public XmlMgr {
 public:
  static const std::string sm_tstrFeedback;
  static const std::string sm_tstrServiceDisable;
  static const std::string sm_tstrIncludeCrashReport;
  static const std::string sm_tstrCustomerID;
  static const std::string sm_tstrFeedbackInterval;
  static const std::string sm_tstrCheckCrashInterval;

  PhoneHomeXmlMgr();
  ~PhoneHomeXmlMgr() override;

  void addElement(const std::string& name) override;
  void endElement(const std::string& name) override;
  void setElementValue(const std::string& value) override;
  void addAttribute(const std::string& name, const std::string& value) override;

  bool GetServiceDisable() const { return m_bServiceDisable; }
  bool GetIncludeCrashReport() const { return m_bIncludeCrashReport; }
  const std::string& GetCustomerID() const { return m_tstrCustomerID; }
  unsigned int GetFeedbackInterval() const { return m_uiFeedbackInterval; }
  unsigned int GetCheckCrashInterval() const { return m_uiCheckCrashInterval; }

 private:
  std::string m_tstrCurrentElement;
  std::string m_tstrCustomerID;
  bool m_bServiceDisable;
  bool m_bIncludeCrashReport;
  unsigned int m_uiFeedbackInterval;
  unsigned int m_uiCheckCrashInterval;
};
