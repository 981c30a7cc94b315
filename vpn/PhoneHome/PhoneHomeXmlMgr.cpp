// The feedback profile reader and the disable-marker test.
#include <fcntl.h>
#include <unistd.h>

#include "PhoneHomePluginImp.h"
#include "RegularFile.h"
#include "PhoneHomeText.h"

namespace phonehome {
const char* const kFeedbackDirName = "CustomerExperienceFeedback";
const char* const kProfileFileName = "CustomerExperience_Feedback.xml";
}  // namespace phonehome

const std::string PhoneHomeXmlMgr::sm_tstrFeedback = "Feedback";
const std::string PhoneHomeXmlMgr::sm_tstrServiceDisable = "ServiceDisable";
const std::string PhoneHomeXmlMgr::sm_tstrIncludeCrashReport = "IncludeCrashReport";
const std::string PhoneHomeXmlMgr::sm_tstrCustomerID = "CustomerID";
const std::string PhoneHomeXmlMgr::sm_tstrFeedbackInterval = "FeedbackInterval";
const std::string PhoneHomeXmlMgr::sm_tstrCheckCrashInterval = "CheckCrashInterval";

const std::string CPhoneHomeUtility::sm_tstrPhoneHomeStatusFileName = "cefdisable";

namespace {

// "true" in any letter case; anything else (blanks included) is false.
bool IsTrueText(const std::string& value) {
    return phonehome::AsciiLower(value) == "true";
}

}  // namespace

PhoneHomeXmlMgr::PhoneHomeXmlMgr()
    : m_bServiceDisable(false),
      m_bIncludeCrashReport(true),
      m_lFeedbackInterval(0),
      m_lCheckCrashInterval(0) {}

PhoneHomeXmlMgr::~PhoneHomeXmlMgr() {}

void PhoneHomeXmlMgr::addElement(const std::string& name) {
    m_tstrCurrentElement = name;
}

void PhoneHomeXmlMgr::endElement(const std::string& /*name*/) {
    m_tstrCurrentElement.clear();
}

void PhoneHomeXmlMgr::setElementValue(const std::string& value) {
    if (m_tstrCurrentElement == sm_tstrFeedback) {
        return;
    }
    if (m_tstrCurrentElement == sm_tstrServiceDisable) {
        m_bServiceDisable = IsTrueText(value);
    } else if (m_tstrCurrentElement == sm_tstrIncludeCrashReport) {
        m_bIncludeCrashReport = IsTrueText(value);
    } else if (m_tstrCurrentElement == sm_tstrCustomerID) {
        m_tstrCustomerID = value.c_str();  // up to the first NUL byte
    } else if (m_tstrCurrentElement == sm_tstrFeedbackInterval) {
        if (!value.empty()) {
            m_lFeedbackInterval = phonehome::ParseLong32(value);
        }
    } else if (m_tstrCurrentElement == sm_tstrCheckCrashInterval) {
        if (!value.empty()) {
            m_lCheckCrashInterval = phonehome::ParseLong32(value);
        }
    }
}

void PhoneHomeXmlMgr::addAttribute(const std::string& /*name*/, const std::string& /*value*/) {}

bool CPhoneHomeUtility::IsPhoneHomeEnabled(const std::string& directory) {
    std::string path = directory + "/" + sm_tstrPhoneHomeStatusFileName;
    // The marker counts when it is a regular file that can be opened (a FIFO there must not
    // block a status query).
    struct stat status;
    int fd = OpenRegularFileForReading(path, ELinkPolicy::Follow, status);
    if (fd < 0) {
        return true;
    }
    close(fd);
    return false;
}
