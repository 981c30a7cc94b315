// The check that the profile fuzz target and its regression test share: arbitrary bytes
// are read as a feedback profile, as a string and as a file, by fresh readers. The parser
// must report callbacks that nest properly, the two readings must agree on the result and
// on every setting, and every setting must be what the reader's value rules make of the
// text it was given (switches: the text lower-cased equals "true"; the customer identifier:
// the text up to a NUL byte; intervals: strtol's reading clamped to 32 bits, empty text
// changing nothing). The empty string means the input passed; otherwise it says what went
// wrong.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <climits>
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "PhoneHomePluginImp.h"
#include "XmlParser.h"

namespace profilefuzz {

// The profile reader, with the callbacks checked for nesting as they arrive.
class CCheckedProfileReader : public PhoneHomeXmlMgr {
public:
    void addElement(const std::string& name) override {
        m_open.push_back(name);
        m_current = name;
        PhoneHomeXmlMgr::addElement(name);
    }
    void endElement(const std::string& name) override {
        m_current.clear();
        if (m_open.empty() || m_open.back() != name) {
            Fault("end of <" + name + "> does not close the innermost open element");
        } else {
            m_open.pop_back();
        }
        PhoneHomeXmlMgr::endElement(name);
    }
    void setElementValue(const std::string& value) override {
        if (m_open.empty()) {
            Fault("text delivered outside every element");
        }
        Expect(value);
        PhoneHomeXmlMgr::setElementValue(value);
    }
    void addAttribute(const std::string& name, const std::string& value) override {
        if (m_open.empty()) {
            Fault("attribute delivered outside every element");
        }
        PhoneHomeXmlMgr::addAttribute(name, value);
    }

    // The result and the settings, as one comparable text; empty problem when consistent.
    std::string Outcome(long result) const {
        std::ostringstream text;
        text << "result=" << result << " disable=" << GetServiceDisable()
             << " crash=" << GetIncludeCrashReport() << " customer=" << GetCustomerID()
             << " feedback=" << GetFeedbackInterval() << " check=" << GetCheckCrashInterval();
        return text.str();
    }
    std::string Problem(long result) const {
        if (!m_fault.empty()) {
            return m_fault;
        }
        if (result == 0 && !m_open.empty()) {
            return "document accepted with <" + m_open.back() + "> still open";
        }
        if (result == 0 &&
            (GetServiceDisable() != m_disable || GetIncludeCrashReport() != m_crash ||
             GetCustomerID() != m_customer || GetFeedbackInterval() != m_feedback ||
             GetCheckCrashInterval() != m_check)) {
            return "settings differ from the value rules";
        }
        return std::string();
    }

private:
    static bool IsTrue(const std::string& text) {
        std::string lower = text;
        for (char& c : lower) {
            c = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
        }
        return lower == "true";
    }
    // The reading of an interval, or `old` for empty text.
    static long Interval(const std::string& text, long old) {
        if (text.empty()) {
            return old;
        }
        const long long value = strtoll(text.c_str(), nullptr, 10);
        return value > INT_MAX ? INT_MAX : value < INT_MIN ? INT_MIN : static_cast<long>(value);
    }
    // What the reader should make of `value` as the text of the current element.
    void Expect(const std::string& value) {
        if (m_current == "ServiceDisable") {
            m_disable = IsTrue(value);
        } else if (m_current == "IncludeCrashReport") {
            m_crash = IsTrue(value);
        } else if (m_current == "CustomerID") {
            m_customer = value.c_str();
        } else if (m_current == "FeedbackInterval") {
            m_feedback = Interval(value, m_feedback);
        } else if (m_current == "CheckCrashInterval") {
            m_check = Interval(value, m_check);
        }
    }
    void Fault(const std::string& what) {
        if (m_fault.empty()) {
            m_fault = what;
        }
    }
    std::vector<std::string> m_open;
    std::string m_fault;
    std::string m_current;
    bool m_disable = false;
    bool m_crash = true;
    std::string m_customer;
    long m_feedback = 0;
    long m_check = 0;
};

inline std::string CheckProfile(const uint8_t* data, size_t size) {
    const std::string document(reinterpret_cast<const char*>(data), size);

    CCheckedProfileReader fromString;
    const long stringResult = XmlParser(&fromString).parseString(document);
    std::string problem = fromString.Problem(stringResult);
    if (!problem.empty()) {
        return "string: " + problem;
    }

    char path[] = "/tmp/profile-fuzz-XXXXXX";
    const int fd = mkstemp(path);
    if (fd < 0) {
        return std::string();  // no scratch file: nothing to compare with
    }
    const bool written =
        write(fd, document.data(), document.size()) == static_cast<ssize_t>(document.size());
    close(fd);
    CCheckedProfileReader fromFile;
    const long fileResult = written ? XmlParser(&fromFile).parseFile(path, false) : stringResult;
    unlink(path);
    if (!written) {
        return std::string();
    }
    problem = fromFile.Problem(fileResult);
    if (!problem.empty()) {
        return "file: " + problem;
    }
    const std::string expected = fromString.Outcome(stringResult);
    const std::string actual = fromFile.Outcome(fileResult);
    if (expected != actual) {
        return "string and file readings differ: " + expected + " / " + actual;
    }
    return std::string();
}

}  // namespace profilefuzz
