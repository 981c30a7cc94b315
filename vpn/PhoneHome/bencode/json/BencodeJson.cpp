// The JSON form of a bencode tree, written as the tree is walked.
#include "BencodeJson.h"

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <deque>
#include <sstream>
#include <vector>

#include "Base64.h"

namespace bencodejson {

namespace {

// Pieces are collected up to this size before they go to the sink.
const size_t kChunkSize = 64 * 1024;

// Most strings are long runs of ASCII that need no escape (base64 text above all): those are
// passed over eight bytes at a time.
constexpr uint64_t kEveryByte = 0x0101010101010101ull;
constexpr uint64_t kHighBits = 0x8080808080808080ull;

uint64_t LoadEight(const char* bytes) {
    uint64_t eight;
    memcpy(&eight, bytes, sizeof(eight));
    return eight;
}

// Non-zero when a byte of `eight` is zero (exact as to whether any is).
uint64_t AnyZeroByte(uint64_t eight) {
    return (eight - kEveryByte) & ~eight & kHighBits;
}

// Non-zero when a byte of `eight` has to be looked at one by one by the string writer: a
// control byte, a quote, a backslash, or a byte of a multi-byte sequence.
uint64_t AnyByteToLookAt(uint64_t eight) {
    const uint64_t control = (eight - kEveryByte * 0x20) & ~eight;
    return (control | AnyZeroByte(eight ^ (kEveryByte * '"')) |
            AnyZeroByte(eight ^ (kEveryByte * '\\')) | eight) &
           kHighBits;
}

// Length of the valid UTF-8 sequence that starts at bytes[index], or 0 if none does there.
size_t Utf8SequenceLength(const char* bytes, size_t size, size_t index) {
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
    if (size - index < length) {
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

// A container being written, with the index of its next item (lists). Sixteen bytes a
// level: a tree of two million nested lists keeps two million of them. Dictionaries, whose
// entries are reached through an iterator, keep it in a second stack, one per open
// dictionary.
struct Frame {
    const CBencode* value;
    size_t index;
};

// Tells a tree to a StreamWriter. The containers being written are kept on stacks on the
// heap, so that any depth of nesting that a file can hold is written without exhausting
// the thread's stack. The stacks are deques: they grow by blocks, never holding an old and
// a new copy at once.
void WriteTree(const CBencode& root, StreamWriter& out) {
    std::deque<Frame> open;
    std::deque<CBencodeDictionary::EntryMap::const_iterator> entries;
    const CBencode* next = &root;
    for (;;) {
        if (next != nullptr) {
            const CBencode::EContentType type = next->GetType();
            if (type == CBencode::eBencodeList || type == CBencode::eBencodeDictionary) {
                out.Open(type == CBencode::eBencodeDictionary);
                open.push_back(Frame{next, 0});
                if (type == CBencode::eBencodeDictionary) {
                    entries.push_back(
                        static_cast<const CBencodeDictionary*>(next)->Entries().begin());
                }
            } else {
                out.Scalar(*next);
            }
        }
        if (open.empty()) {
            return;
        }
        Frame& frame = open.back();
        next = nullptr;
        if (frame.value->GetType() == CBencode::eBencodeList) {
            const std::vector<CBencode*>& items =
                static_cast<const CBencodeList*>(frame.value)->Items();
            if (frame.index == items.size()) {
                open.pop_back();
                out.Close();
                continue;
            }
            next = items[frame.index++];
        } else {
            CBencodeDictionary::EntryMap::const_iterator& entry = entries.back();
            if (entry == static_cast<const CBencodeDictionary*>(frame.value)->Entries().end()) {
                open.pop_back();
                entries.pop_back();
                out.Close();
                continue;
            }
            out.Key(entry->first);
            next = entry->second;
            ++entry;
        }
        if (next == nullptr) {
            out.Null();
        }
    }
}

}  // namespace

StreamWriter::StreamWriter(unsigned int indent, const Sink& sink)
    : m_sink(sink), m_indent(indent), m_ok(true), m_afterKey(false) {}

// Before a value: inside a list, the separator (or the pending opening bracket) and the
// item's line; after a key, nothing.
void StreamWriter::BeginValue() {
    if (m_afterKey) {
        m_afterKey = false;
    } else if (!m_open.empty()) {
        char& state = m_open.back();
        if (state == 'l') {
            Append('[');
            state = 'L';
        } else {
            Append(',');
        }
        NewLine(m_open.size());
    }
}

void StreamWriter::Open(bool dictionary) {
    BeginValue();
    m_open.push_back(dictionary ? 'd' : 'l');
}

void StreamWriter::Close() {
    const char state = m_open.back();
    m_open.pop_back();
    if (state == 'l' || state == 'd') {
        Append(state == 'l' ? "[]" : "{}", 2);
        return;
    }
    NewLine(m_open.size());
    Append(state == 'L' ? ']' : '}');
}

void StreamWriter::Key(const std::string& key) {
    char& state = m_open.back();
    if (state == 'd') {
        Append('{');
        state = 'D';
    } else {
        Append(',');
    }
    NewLine(m_open.size());
    WriteString(key);
    Append(m_indent != 0 ? ": " : ":", m_indent != 0 ? 2 : 1);
    m_afterKey = true;
}

void StreamWriter::Scalar(const CBencode& value) {
    BeginValue();
    if (value.GetType() == CBencode::eBencodeInteger) {
        long long integer = 0;
        value.Get(integer);
        Append(std::to_string(integer));
        return;
    }
    std::string bytes;
    value.Get(bytes);
    if (IsValidUtf8(bytes.data(), bytes.size())) {
        WriteString(bytes);
    } else {
        Append(m_indent != 0 ? "{\"base64\": \"" : "{\"base64\":\"");
        Append(Base64(bytes));
        Append("\"}", 2);
    }
}

void StreamWriter::Null() {
    BeginValue();
    Append("null", 4);
}

bool StreamWriter::Finish() {
    Append('\n');
    Flush();
    return m_ok;
}

// With indentation, a line is indented by at most kMaxIndentLevels levels.
void StreamWriter::NewLine(size_t depth) {
    if (m_indent != 0) {
        Append('\n');
        m_text.append((depth < kMaxIndentLevels ? depth : kMaxIndentLevels) * m_indent, ' ');
    }
}

void StreamWriter::Append(const char* data, size_t size) {
    // A piece of a chunk or more (a long string's run) goes to the sink as it is, after
    // what was collected before it, rather than being copied into the chunk first.
    if (size >= kChunkSize) {
        Flush();
        if (m_ok) {
            m_ok = m_sink(data, size);
        }
        return;
    }
    m_text.append(data, size);
    if (m_text.size() >= kChunkSize) {
        Flush();
    }
}

void StreamWriter::Flush() {
    if (m_ok && !m_text.empty()) {
        m_ok = m_sink(m_text.data(), m_text.size());
    }
    m_text.clear();
}

// A JSON string literal; bytes that are not part of valid UTF-8 are written as \udcXX.
void StreamWriter::WriteString(const std::string& bytes) {
    char escape[8];
    Append('"');
    const char* data = bytes.data();
    const size_t size = bytes.size();
    size_t plain = 0;  // start of the run of bytes that need no escape
    for (size_t i = 0; i < size;) {
        if (size - i >= 8 && AnyByteToLookAt(LoadEight(data + i)) == 0) {
            i += 8;
            continue;
        }
        const size_t length = Utf8SequenceLength(data, size, i);
        if (length > 1) {
            i += length;
            continue;
        }
        const unsigned char c = static_cast<unsigned char>(data[i]);
        const char* replacement = nullptr;
        if (length == 0) {
            snprintf(escape, sizeof(escape), "\\udc%02x", c);
            replacement = escape;
        } else if (c == '"') {
            replacement = "\\\"";
        } else if (c == '\\') {
            replacement = "\\\\";
        } else if (c == '\n') {
            replacement = "\\n";
        } else if (c == '\r') {
            replacement = "\\r";
        } else if (c == '\t') {
            replacement = "\\t";
        } else if (c < 0x20) {
            snprintf(escape, sizeof(escape), "\\u%04x", c);
            replacement = escape;
        }
        if (replacement != nullptr) {
            Append(data + plain, i - plain);
            Append(replacement, strlen(replacement));
            plain = i + 1;
        }
        ++i;
    }
    Append(data + plain, size - plain);
    Append('"');
}

bool IsValidUtf8(const char* bytes, size_t size) {
    for (size_t i = 0; i < size;) {
        if (size - i >= 8 && (LoadEight(bytes + i) & kHighBits) == 0) {
            i += 8;
            continue;
        }
        const size_t length = Utf8SequenceLength(bytes, size, i);
        if (length == 0) {
            return false;
        }
        i += length;
    }
    return true;
}

bool Write(const CBencode& value, unsigned int indent, const Sink& sink) {
    StreamWriter out(indent, sink);
    WriteTree(value, out);
    return out.Finish();
}

std::string ToJson(const CBencode& value) {
    std::string text;
    Write(value, 0, [&text](const char* data, size_t size) {
        text.append(data, size);
        return true;
    });
    text.pop_back();  // the final line break
    return text;
}

std::string Base64(const std::string& bytes) {
    std::istringstream in(bytes);
    std::ostringstream out;
    lBase64::Encode(in, out, static_cast<int>((bytes.size() + 2) / 3 * 4));
    return out.str();
}

}  // namespace bencodejson
