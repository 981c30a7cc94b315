// XML parsing over expat.
//
// XmlParser drives an XmlMgr handler: addElement at each start tag, addAttribute for each
// of its attributes, setElementValue with the element's own text (delivered once, when a
// child starts or the element ends, and only if the element has text), endElement at each
// end tag. Entity expansion is bounded (expat's amplification limit) and documents larger
// than kMaxDocumentBytes are refused. The parser does not own the handler and logs nothing:
// a failure is its result code and lastError(), for the caller to report in its own words.
#pragma once

#include <string>

class XmlMgr {
public:
    virtual ~XmlMgr() {}
    virtual void addElement(const std::string& name) = 0;
    virtual void endElement(const std::string& name) = 0;
    virtual void setElementValue(const std::string& value) = 0;
    virtual void addAttribute(const std::string& name, const std::string& value) = 0;
};

class XmlParser {
public:
    static const unsigned int kMaxDocumentBytes = 4u * 1024u * 1024u;

    explicit XmlParser(XmlMgr* handler);
    ~XmlParser();

    // Parses the file at `path`. `validate` is accepted for compatibility and unused.
    // 0 on success; pwresult::kXmlFileError when the file cannot be read,
    // pwresult::kXmlTooLarge when it is too large, pwresult::kXmlParseError when it is not
    // well-formed XML (empty and binary files included).
    long parseFile(const std::string& path, bool validate);
    long parseString(const std::string& document);

    // Why the last parse failed (the path and the reason), empty after success.
    const std::string& lastError() const { return m_lastError; }

    XmlParser(const XmlParser&) = delete;
    XmlParser& operator=(const XmlParser&) = delete;

private:
    XmlMgr* m_pHandler;
    std::string m_lastError;
};
