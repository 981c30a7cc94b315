// Writes a bencode tree as JSON.
//
// Integers become JSON numbers (all 64 bits, exactly). Byte strings that are valid UTF-8
// become JSON strings; any other string becomes {"base64": "<RFC 4648 text>"} so that no
// byte is lost. Dictionaries become objects in key order; a key that is not valid UTF-8 is
// written with each offending byte b as the escape \udcXX (XX = b, from 80 to FF), which
// no valid UTF-8 key can produce. Lists become arrays.
#pragma once

#include <string>
#include <vector>

#include "Bencode.h"

class CJsonWriter {
public:
    // `indent` spaces per level; 0 writes everything on one line.
    explicit CJsonWriter(unsigned int indent);

    // Appends the JSON text of `value` (and of everything below it) to `out`.
    void Write(const CBencode& value, std::string& out) const;

    static bool IsValidUtf8(const std::string& bytes);
    static std::string Base64(const std::string& bytes);

private:
    // A container being written, with the next of its items.
    struct Frame {
        const CBencode* value;
        unsigned int depth;
        size_t index;                                        // lists
        CBencodeDictionary::EntryMap::const_iterator entry;  // dictionaries
    };
    bool Open(const CBencode& value, unsigned int depth, std::vector<Frame>& open,
              std::string& out) const;
    void NewLine(unsigned int depth, std::string& out) const;
    // A JSON string literal; bytes that are not part of valid UTF-8 are written as \udcXX.
    static void WriteString(const std::string& bytes, std::string& out);

    unsigned int m_indent;
};
