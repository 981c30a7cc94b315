// The XML reader: what a handler sees, in which order, and how bad documents fail.
#include <string>
#include <vector>

#include "AppLog.h"
#include "TestSupport.h"
#include "XmlParser.h"

namespace {

class TraceHandler : public XmlMgr {
public:
    void addElement(const std::string& name) override { trace.push_back("<" + name); }
    void endElement(const std::string& name) override { trace.push_back(name + ">"); }
    void setElementValue(const std::string& value) override { trace.push_back("=" + value); }
    void addAttribute(const std::string& name, const std::string& value) override {
        trace.push_back("@" + name + "=" + value);
    }
    std::vector<std::string> trace;
};

class XmlParserTest : public pwtest::HostFixture {
protected:
    pwtest::TempDir m_dir;
};

// One 40 KiB entity referenced 20000 times: about 800 MB if expanded.
std::string QuadraticBlowup() {
    std::string doc = "<!DOCTYPE a [<!ENTITY big \"" + std::string(40000, 'x') + "\">]><a>";
    for (int i = 0; i < 20000; ++i) {
        doc += "&big;";
    }
    return doc + "</a>";
}

struct FailureCase {
    const char* name;
    std::string document;
    long expected;
};

TEST_F(XmlParserTest, BadDocumentsFailWithAReasonAndNoLogLine) {
    const FailureCase cases[] = {
        {"empty", "", pwresult::kXmlParseError},
        {"truncated", "<Feedback><ServiceDisable>true</Service", pwresult::kXmlParseError},
        {"mismatched tags", "<a><b></a></b>", pwresult::kXmlParseError},
        {"binary", std::string("\x00\x01\x02\xff\xfe<a>\x00</a>", 12), pwresult::kXmlParseError},
        {"undefined entity", "<a>&nope;</a>", pwresult::kXmlParseError},
        {"quadratic blow-up", QuadraticBlowup(), pwresult::kXmlParseError},
        {"over the size limit", "<a>" + std::string(XmlParser::kMaxDocumentBytes, 'x') + "</a>",
         pwresult::kXmlTooLarge},
    };
    for (const FailureCase& c : cases) {
        SCOPED_TRACE(c.name);
        pwtest::ClearCapturedLogs();
        TraceHandler handler;
        const std::string path = m_dir / "bad.xml";
        ASSERT_TRUE(pwtest::WriteFile(path, c.document));
        XmlParser parser(&handler);
        EXPECT_EQ(parser.parseFile(path, false), c.expected);
        EXPECT_NE(parser.lastError().find(path), std::string::npos) << parser.lastError();
        EXPECT_TRUE(pwtest::CapturedLogs().empty()) << DumpLog();
        EXPECT_EQ(XmlParser(&handler).parseString(c.document), c.expected);
    }
}

TEST_F(XmlParserTest, UnreadableFilesAreFileErrors) {
    TraceHandler handler;
    XmlParser parser(&handler);
    EXPECT_EQ(parser.parseFile(m_dir / "missing.xml", false), pwresult::kXmlFileError);
    EXPECT_NE(parser.lastError().find("missing.xml"), std::string::npos) << parser.lastError();
    EXPECT_TRUE(handler.trace.empty());
}

}  // namespace
