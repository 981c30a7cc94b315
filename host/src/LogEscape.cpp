// Escaping of log text: one record, one line, what it holds shown as it is.
#include "LogEscape.h"

#include <cstdint>
#include <cstdio>

namespace pwhost {

namespace {

// Length of the well-formed UTF-8 sequence at `at` (2 to 4) with its code point, or 0
// when the bytes there are not one. The ranges of the second byte rule out overlong forms,
// surrogates and code points past U+10FFFF.
size_t DecodeSequence(const std::string& text, size_t at, uint32_t& codePoint) {
    const unsigned char lead = static_cast<unsigned char>(text[at]);
    size_t length = 0;
    unsigned char low = 0x80, high = 0xBF;  // allowed range of the second byte
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
        codePoint = lead & 0x1Fu;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        codePoint = lead & 0x0Fu;
        low = lead == 0xE0 ? 0xA0 : 0x80;
        high = lead == 0xED ? 0x9F : 0xBF;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        codePoint = lead & 0x07u;
        low = lead == 0xF0 ? 0x90 : 0x80;
        high = lead == 0xF4 ? 0x8F : 0xBF;
    } else {
        return 0;
    }
    if (text.size() - at < length) {
        return 0;
    }
    for (size_t i = 1; i < length; ++i) {
        const unsigned char next = static_cast<unsigned char>(text[at + i]);
        if (next < (i == 1 ? low : 0x80) || next > (i == 1 ? high : 0xBF)) {
            return 0;
        }
        codePoint = (codePoint << 6) | (next & 0x3Fu);
    }
    return length;
}

// Code points that a terminal or viewer acts on instead of showing.
bool IsHiddenCodePoint(uint32_t codePoint) {
    return (codePoint >= 0x80 && codePoint <= 0x9F) || codePoint == 0x061C || codePoint == 0x200E ||
           codePoint == 0x200F || codePoint == 0x2028 || codePoint == 0x2029 ||
           (codePoint >= 0x202A && codePoint <= 0x202E) ||
           (codePoint >= 0x2066 && codePoint <= 0x2069);
}

void AppendHex(std::string& out, const char* format, unsigned int value) {
    char escape[8];
    snprintf(escape, sizeof escape, format, value);
    out += escape;
}

// The ASCII bytes that need an escape: controls, DEL and the backslash.
bool NeedsEscape(unsigned char byte) {
    return byte < 0x20 || byte == 0x7F || byte == '\\';
}

}  // namespace

std::string EscapeLogText(const std::string& text) {
    size_t clean = 0;  // most records are plain ASCII: copy them once
    while (clean < text.size() && static_cast<unsigned char>(text[clean]) < 0x80 &&
           !NeedsEscape(static_cast<unsigned char>(text[clean]))) {
        ++clean;
    }
    if (clean == text.size()) {
        return text;
    }
    std::string out(text, 0, clean);
    out.reserve(text.size() + 16);
    for (size_t at = clean; at < text.size();) {
        const unsigned char byte = static_cast<unsigned char>(text[at]);
        if (byte < 0x80) {
            switch (byte) {
                case '\\':
                    out += "\\\\";
                    break;
                case '\n':
                    out += "\\n";
                    break;
                case '\r':
                    out += "\\r";
                    break;
                case '\t':
                    out += "\\t";
                    break;
                default:
                    if (NeedsEscape(byte)) {
                        AppendHex(out, "\\x%02x", byte);
                    } else {
                        out += static_cast<char>(byte);
                    }
            }
            ++at;
            continue;
        }
        uint32_t codePoint = 0;
        const size_t length = DecodeSequence(text, at, codePoint);
        if (length == 0) {
            AppendHex(out, "\\x%02x", byte);
            ++at;
        } else if (IsHiddenCodePoint(codePoint)) {
            AppendHex(out, "\\u%04x", codePoint);
            at += length;
        } else {
            out.append(text, at, length);
            at += length;
        }
    }
    return out;
}

}  // namespace pwhost
