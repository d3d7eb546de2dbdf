// The feedback profile's element handler.
#include "PhoneHome/PhoneHomeXmlMgr.h"

#include <cstdlib>

const std::string PhoneHomeXmlMgr::sm_tstrFeedback = "Feedback";
const std::string PhoneHomeXmlMgr::sm_tstrServiceDisable = "ServiceDisable";
const std::string PhoneHomeXmlMgr::sm_tstrIncludeCrashReport = "IncludeCrashReport";
const std::string PhoneHomeXmlMgr::sm_tstrCustomerID = "CustomerID";
const std::string PhoneHomeXmlMgr::sm_tstrFeedbackInterval = "FeedbackInterval";
const std::string PhoneHomeXmlMgr::sm_tstrCheckCrashInterval = "CheckCrashInterval";

namespace {

// ASCII only, so the answer does not depend on the process locale the host has set.
bool IsTrue(const std::string& value) {
  std::string lower(value);
  for (char& c : lower) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return lower == "true";
}

// An empty value leaves the interval as it was; anything else goes through strtol, so text gives 0 and a
// trailing unit ("86400s") is dropped. The long is cut to 32 bits on purpose: the agent reads the result as an
// unsigned count of seconds and applies its own rules to 0.
void SetInterval(const std::string& value, unsigned int& interval) {
  if (value.empty()) return;
  interval = static_cast<unsigned int>(strtol(value.c_str(), nullptr, 10));
}

}  // namespace

PhoneHomeXmlMgr::PhoneHomeXmlMgr()
    : m_bServiceDisable(false), m_bIncludeCrashReport(true), m_uiFeedbackInterval(0), m_uiCheckCrashInterval(0) {}

PhoneHomeXmlMgr::~PhoneHomeXmlMgr() = default;

void PhoneHomeXmlMgr::addElement(const std::string& name) { m_tstrCurrentElement = name; }

// Clears rather than restores the parent's name; the profile's nested-element behaviour depends on it.
void PhoneHomeXmlMgr::endElement(const std::string& /*name*/) { m_tstrCurrentElement.clear(); }

void PhoneHomeXmlMgr::setElementValue(const std::string& value) {
  if (m_tstrCurrentElement == sm_tstrFeedback) {
    // The root element carries no value.
  } else if (m_tstrCurrentElement == sm_tstrServiceDisable) {
    m_bServiceDisable = IsTrue(value);
  } else if (m_tstrCurrentElement == sm_tstrIncludeCrashReport) {
    m_bIncludeCrashReport = IsTrue(value);
  } else if (m_tstrCurrentElement == sm_tstrCustomerID) {
    m_tstrCustomerID = value;
  } else if (m_tstrCurrentElement == sm_tstrFeedbackInterval) {
    SetInterval(value, m_uiFeedbackInterval);
  } else if (m_tstrCurrentElement == sm_tstrCheckCrashInterval) {
    SetInterval(value, m_uiCheckCrashInterval);
  }
}

void PhoneHomeXmlMgr::addAttribute(const std::string& /*name*/, const std::string& /*value*/) {}
