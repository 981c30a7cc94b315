// CJsonWriter: a bencode tree as JSON text.
#include "JsonWriter.h"

#include <cstdio>
#include <sstream>

#include "Base64.h"
#include "Bencode.h"

namespace {

// Length of the valid UTF-8 sequence that starts at `index`, or 0 if none does there.
size_t Utf8SequenceLength(const std::string& bytes, size_t index) {
    const unsigned char lead = static_cast<unsigned char>(bytes[index]);
    if (lead < 0x80) {
        return 1;
    }
    size_t length = 0;
    unsigned int codePoint = 0;
    unsigned int minimum = 0;
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
        codePoint = lead & 0x1Fu;
        minimum = 0x80;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        codePoint = lead & 0x0Fu;
        minimum = 0x800;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        codePoint = lead & 0x07u;
        minimum = 0x10000;
    } else {
        return 0;
    }
    if (bytes.size() - index < length) {
        return 0;
    }
    for (size_t i = 1; i < length; ++i) {
        const unsigned char next = static_cast<unsigned char>(bytes[index + i]);
        if ((next & 0xC0u) != 0x80u) {
            return 0;
        }
        codePoint = (codePoint << 6) | (next & 0x3Fu);
    }
    if (codePoint < minimum || codePoint > 0x10FFFF ||
        (codePoint >= 0xD800 && codePoint <= 0xDFFF)) {
        return 0;
    }
    return length;
}

}  // namespace

CJsonWriter::CJsonWriter(unsigned int indent) : m_indent(indent) {}

bool CJsonWriter::IsValidUtf8(const std::string& bytes) {
    for (size_t i = 0; i < bytes.size();) {
        const size_t length = Utf8SequenceLength(bytes, i);
        if (length == 0) {
            return false;
        }
        i += length;
    }
    return true;
}

// The host framework's encoder (libcrypto's), as the service encodes crash dumps.
std::string CJsonWriter::Base64(const std::string& bytes) {
    std::istringstream in(bytes);
    std::ostringstream out;
    lBase64::Encode(in, out, static_cast<int>((bytes.size() + 2) / 3 * 4));
    return out.str();
}

// The containers being written are kept on a stack on the heap, so that any depth of
// nesting that a file can hold is written without exhausting the thread's stack.
void CJsonWriter::Write(const CBencode& value, std::string& out) const {
    std::vector<Frame> open;
    Open(value, 0, open, out);
    while (!open.empty()) {
        Frame& frame = open.back();
        const unsigned int depth = frame.depth;
        const CBencode* item = nullptr;
        if (frame.value->GetType() == CBencode::eBencodeList) {
            const std::vector<CBencode*>& items =
                static_cast<const CBencodeList*>(frame.value)->Items();
            if (frame.index == items.size()) {
                NewLine(depth, out);
                out += ']';
                open.pop_back();
                continue;
            }
            if (frame.index != 0) {
                out += ',';
            }
            NewLine(depth + 1, out);
            item = items[frame.index++];
        } else {
            const CBencodeDictionary::EntryMap& entries =
                static_cast<const CBencodeDictionary*>(frame.value)->Entries();
            if (frame.entry == entries.end()) {
                NewLine(depth, out);
                out += '}';
                open.pop_back();
                continue;
            }
            if (frame.entry != entries.begin()) {
                out += ',';
            }
            NewLine(depth + 1, out);
            WriteString(frame.entry->first, out);
            out += m_indent != 0 ? ": " : ":";
            item = frame.entry->second;
            ++frame.entry;
        }
        if (item == nullptr) {
            out += "null";
        } else {
            Open(*item, depth + 1, open, out);  // may move the stack: `frame` is not used again
        }
    }
    out += '\n';
}

void CJsonWriter::NewLine(unsigned int depth, std::string& out) const {
    if (m_indent != 0) {
        out += '\n';
        out.append(static_cast<size_t>(depth) * m_indent, ' ');
    }
}

void CJsonWriter::WriteString(const std::string& bytes, std::string& out) {
    char escape[8];
    out += '"';
    for (size_t i = 0; i < bytes.size();) {
        const size_t length = Utf8SequenceLength(bytes, i);
        if (length == 0) {
            snprintf(escape, sizeof(escape), "\\udc%02x", static_cast<unsigned char>(bytes[i]));
            out += escape;
            ++i;
            continue;
        }
        if (length > 1) {
            out.append(bytes, i, length);
            i += length;
            continue;
        }
        const char c = bytes[i++];
        switch (c) {
            case '"':
                out += "\\\"";
                break;
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
                if (static_cast<unsigned char>(c) < 0x20) {
                    snprintf(escape, sizeof(escape), "\\u%04x", static_cast<unsigned char>(c));
                    out += escape;
                } else {
                    out += c;
                }
        }
    }
    out += '"';
}

// Writes a scalar or an empty container whole; a container with items gets its opening
// bracket and is pushed, its items written by the loop in Write.
bool CJsonWriter::Open(const CBencode& value, unsigned int depth, std::vector<Frame>& open,
                       std::string& out) const {
    switch (value.GetType()) {
        case CBencode::eBencodeInteger: {
            long long integer = 0;
            value.Get(integer);
            out += std::to_string(integer);
            return false;
        }
        case CBencode::eBencodeString: {
            std::string bytes;
            value.Get(bytes);
            if (IsValidUtf8(bytes)) {
                WriteString(bytes, out);
            } else {
                out += "{\"base64\": \"";
                out += Base64(bytes);
                out += "\"}";
            }
            return false;
        }
        case CBencode::eBencodeList:
            if (static_cast<const CBencodeList&>(value).Size() == 0) {
                out += "[]";
                return false;
            }
            out += '[';
            break;
        case CBencode::eBencodeDictionary:
            if (static_cast<const CBencodeDictionary&>(value).Size() == 0) {
                out += "{}";
                return false;
            }
            out += '{';
            break;
    }
    Frame frame{&value, depth, 0, CBencodeDictionary::EntryMap::const_iterator()};
    if (value.GetType() == CBencode::eBencodeDictionary) {
        frame.entry = static_cast<const CBencodeDictionary&>(value).Entries().begin();
    }
    open.push_back(frame);
    return true;
}
