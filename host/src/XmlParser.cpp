// XML parsing over expat, driving an XmlMgr handler.
#include "XmlParser.h"

// The system's expat is built with DTD support, which declares the entity-expansion limits.
#ifndef XML_DTD
#define XML_DTD
#endif
#include <expat.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>

#include "HostLogInternal.h"
#include "ResultCodes.h"
#include "UniqueFd.h"

namespace {

// Entity expansion: past the first 64 KiB of output, refuse documents whose expansions
// amplify the input more than 20 times. Plain documents amplify by 1.
const float kMaxAmplification = 20.0f;
const unsigned long long kAmplificationThreshold = 64u * 1024u;
const size_t kReadChunk = 64u * 1024u;

// State of one parse, reached from expat's callbacks.
struct ParseState {
    XML_Parser parser = nullptr;
    XmlMgr* handler = nullptr;
    std::string text;  // text of the current element since its start or its last child
    bool textTooLarge = false;

    // Delivers the pending text, once, to whichever element is current in the handler.
    void Flush() {
        if (!text.empty()) {
            handler->setElementValue(text);
            text.clear();
        }
    }
};

void XMLCALL OnStart(void* data, const XML_Char* name, const XML_Char** attributes) {
    ParseState& state = *static_cast<ParseState*>(data);
    state.Flush();
    state.handler->addElement(name);
    for (const XML_Char** attribute = attributes; attribute[0] != nullptr; attribute += 2) {
        state.handler->addAttribute(attribute[0], attribute[1]);
    }
}

void XMLCALL OnEnd(void* data, const XML_Char* name) {
    ParseState& state = *static_cast<ParseState*>(data);
    state.Flush();
    state.handler->endElement(name);
}

void XMLCALL OnText(void* data, const XML_Char* text, int length) {
    ParseState& state = *static_cast<ParseState*>(data);
    if (state.textTooLarge) {
        return;
    }
    if (state.text.size() + static_cast<size_t>(length) > XmlParser::kMaxDocumentBytes) {
        state.textTooLarge = true;
        XML_StopParser(state.parser, XML_FALSE);
        return;
    }
    state.text.append(text, static_cast<size_t>(length));
}

// Owns one expat parser set up for a handler.
class ExpatParser {
public:
    explicit ExpatParser(XmlMgr* handler) {
        m_state.handler = handler;
        m_state.parser = XML_ParserCreate(nullptr);
        if (m_state.parser == nullptr) {
            return;
        }
        XML_SetUserData(m_state.parser, &m_state);
        XML_SetElementHandler(m_state.parser, OnStart, OnEnd);
        XML_SetCharacterDataHandler(m_state.parser, OnText);
        if (!XML_SetBillionLaughsAttackProtectionMaximumAmplification(m_state.parser,
                                                                      kMaxAmplification) ||
            !XML_SetBillionLaughsAttackProtectionActivationThreshold(m_state.parser,
                                                                     kAmplificationThreshold)) {
            XML_ParserFree(m_state.parser);
            m_state.parser = nullptr;
        }
    }
    ~ExpatParser() {
        if (m_state.parser != nullptr) {
            XML_ParserFree(m_state.parser);
        }
    }
    ExpatParser(const ExpatParser&) = delete;
    ExpatParser& operator=(const ExpatParser&) = delete;

    bool Valid() const { return m_state.parser != nullptr; }

    // Feeds one piece of the document; `final` on the last. 0, or a result code with
    // `error` describing the failure.
    long Feed(const char* data, size_t length, bool final, std::string& error) {
        if (XML_Parse(m_state.parser, data, static_cast<int>(length),
                      final ? XML_TRUE : XML_FALSE) == XML_STATUS_OK) {
            return pwresult::kSuccess;
        }
        if (m_state.textTooLarge) {
            error = "element text larger than " + std::to_string(XmlParser::kMaxDocumentBytes) +
                    " bytes";
            return pwresult::kXmlTooLarge;
        }
        char where[64];
        snprintf(where, sizeof where, "line %lu, column %lu: ",
                 static_cast<unsigned long>(XML_GetCurrentLineNumber(m_state.parser)),
                 static_cast<unsigned long>(XML_GetCurrentColumnNumber(m_state.parser)));
        const XML_LChar* text = XML_ErrorString(XML_GetErrorCode(m_state.parser));
        error = std::string(where) + (text != nullptr ? text : "unknown error");
        return pwresult::kXmlParseError;
    }

private:
    ParseState m_state;
};

}  // namespace

XmlParser::XmlParser(XmlMgr* handler) : m_pHandler(handler) {}

XmlParser::~XmlParser() {}

long XmlParser::parseFile(const std::string& path, bool validate) {
    (void)validate;
    m_lastError.clear();
    if (m_pHandler == nullptr) {
        m_lastError = "no handler";
        return pwresult::kInvalidArgument;
    }
    // Non-blocking, so that a FIFO at the path cannot hold the caller; only a regular file
    // is read.
    pwhost::UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!fd.Valid()) {
        int error = errno;
        m_lastError = path + ": " + pwhost::ErrnoText(error);
        return pwresult::kXmlFileError;
    }
    struct stat st;
    if (fstat(fd.Get(), &st) != 0) {
        int error = errno;
        m_lastError = path + ": " + pwhost::ErrnoText(error);
        return pwresult::kXmlFileError;
    }
    if (!S_ISREG(st.st_mode)) {
        m_lastError = path + ": not a regular file";
        return pwresult::kXmlFileError;
    }
    if (static_cast<unsigned long long>(st.st_size) > kMaxDocumentBytes) {
        m_lastError = path + ": larger than " + std::to_string(kMaxDocumentBytes) + " bytes";
        return pwresult::kXmlTooLarge;
    }
    ExpatParser parser(m_pHandler);
    if (!parser.Valid()) {
        m_lastError = "cannot create an XML parser";
        return pwresult::kOutOfResources;
    }
    // Fed piece by piece: the size limit holds even for a file that grows while it is read.
    std::string chunk(kReadChunk, '\0');
    size_t total = 0;
    for (;;) {
        ssize_t got = read(fd.Get(), &chunk[0], chunk.size());
        if (got < 0) {
            if (errno == EINTR) {
                continue;
            }
            int error = errno;
            m_lastError = path + ": " + pwhost::ErrnoText(error);
            return pwresult::kXmlFileError;
        }
        total += static_cast<size_t>(got);
        if (total > kMaxDocumentBytes) {
            m_lastError = path + ": larger than " + std::to_string(kMaxDocumentBytes) + " bytes";
            return pwresult::kXmlTooLarge;
        }
        long result = parser.Feed(chunk.data(), static_cast<size_t>(got), got == 0, m_lastError);
        if (result != pwresult::kSuccess) {
            m_lastError = path + ": " + m_lastError;
            return result;
        }
        if (got == 0) {
            return pwresult::kSuccess;
        }
    }
}

long XmlParser::parseString(const std::string& document) {
    m_lastError.clear();
    if (m_pHandler == nullptr) {
        m_lastError = "no handler";
        return pwresult::kInvalidArgument;
    }
    if (document.size() > kMaxDocumentBytes) {
        m_lastError = "document larger than " + std::to_string(kMaxDocumentBytes) + " bytes";
        return pwresult::kXmlTooLarge;
    }
    ExpatParser parser(m_pHandler);
    if (!parser.Valid()) {
        m_lastError = "cannot create an XML parser";
        return pwresult::kOutOfResources;
    }
    long result = parser.Feed(document.data(), document.size(), true, m_lastError);
    return result;
}
