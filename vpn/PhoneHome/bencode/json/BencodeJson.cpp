// The JSON form of a bencode tree, written as the tree is walked.
#include "BencodeJson.h"

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

// The host framework's encoder (libcrypto's), as the service encodes crash dumps.
std::string Base64(const std::string& bytes) {
    std::istringstream in(bytes);
    std::ostringstream out;
    lBase64::Encode(in, out, static_cast<int>((bytes.size() + 2) / 3 * 4));
    return out.str();
}

// Collects text and hands it to the sink in chunks.
class Output {
public:
    explicit Output(const Sink& sink) : m_sink(sink), m_ok(true) {}

    void Append(const char* data, size_t size) {
        m_text.append(data, size);
        if (m_text.size() >= kChunkSize) {
            Flush();
        }
    }
    void Append(const std::string& text) { Append(text.data(), text.size()); }
    void Append(char c) { Append(&c, 1); }
    void Spaces(size_t count) {
        m_text.append(count, ' ');
        if (m_text.size() >= kChunkSize) {
            Flush();
        }
    }
    bool Flush() {
        if (m_ok && !m_text.empty()) {
            m_ok = m_sink(m_text.data(), m_text.size());
        }
        m_text.clear();
        return m_ok;
    }
    bool Ok() const { return m_ok; }

private:
    const Sink& m_sink;
    std::string m_text;
    bool m_ok;
};

// A JSON string literal; bytes that are not part of valid UTF-8 are written as \udcXX.
void WriteString(const std::string& bytes, Output& out) {
    char escape[8];
    out.Append('"');
    const char* data = bytes.data();
    const size_t size = bytes.size();
    size_t plain = 0;  // start of the run of bytes that need no escape
    for (size_t i = 0; i < size;) {
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
            out.Append(data + plain, i - plain);
            out.Append(replacement, strlen(replacement));
            plain = i + 1;
        }
        ++i;
    }
    out.Append(data + plain, size - plain);
    out.Append('"');
}

// A container being written, with the index of its next item (lists) or the number of
// entries written (dictionaries). Sixteen bytes a level: a file of two million nested lists
// keeps two million of them. Dictionaries, whose entries are reached through an iterator,
// keep it in a second stack, one per open dictionary.
struct Frame {
    const CBencode* value;
    size_t index;
};

class Writer {
public:
    Writer(unsigned int indent, Output& out) : m_indent(indent), m_out(out) {}

    // The containers being written are kept on stacks on the heap, so that any depth of
    // nesting that a file can hold is written without exhausting the thread's stack. The
    // stacks are deques: they grow by blocks, never holding an old and a new copy at once.
    void Write(const CBencode& root) {
        Open(root);
        while (!m_open.empty() && m_out.Ok()) {
            Frame& frame = m_open.back();
            const size_t depth = m_open.size() - 1;
            const CBencode* item = nullptr;
            if (frame.value->GetType() == CBencode::eBencodeList) {
                const std::vector<CBencode*>& items =
                    static_cast<const CBencodeList*>(frame.value)->Items();
                if (frame.index == items.size()) {
                    m_open.pop_back();
                    NewLine(depth);
                    m_out.Append(']');
                    continue;
                }
                if (frame.index != 0) {
                    m_out.Append(',');
                }
                NewLine(depth + 1);
                item = items[frame.index++];
            } else {
                const CBencodeDictionary::EntryMap& entries =
                    static_cast<const CBencodeDictionary*>(frame.value)->Entries();
                CBencodeDictionary::EntryMap::const_iterator& entry = m_entries.back();
                if (entry == entries.end()) {
                    m_open.pop_back();
                    m_entries.pop_back();
                    NewLine(depth);
                    m_out.Append('}');
                    continue;
                }
                if (frame.index++ != 0) {
                    m_out.Append(',');
                }
                NewLine(depth + 1);
                WriteString(entry->first, m_out);
                m_out.Append(m_indent != 0 ? ": " : ":", m_indent != 0 ? 2 : 1);
                item = entry->second;
                ++entry;
            }
            if (item == nullptr) {
                m_out.Append("null", 4);
            } else {
                Open(*item);
            }
        }
    }

private:
    void NewLine(size_t depth) {
        if (m_indent != 0) {
            m_out.Append('\n');
            m_out.Spaces((depth < kMaxIndentLevels ? depth : kMaxIndentLevels) * m_indent);
        }
    }

    // Writes a scalar or an empty container whole; a container with items gets its opening
    // bracket and is pushed, its items written by the loop in Write.
    void Open(const CBencode& value) {
        switch (value.GetType()) {
            case CBencode::eBencodeInteger: {
                long long integer = 0;
                value.Get(integer);
                m_out.Append(std::to_string(integer));
                return;
            }
            case CBencode::eBencodeString: {
                std::string bytes;
                value.Get(bytes);
                if (IsValidUtf8(bytes.data(), bytes.size())) {
                    WriteString(bytes, m_out);
                } else {
                    m_out.Append(m_indent != 0 ? "{\"base64\": \"" : "{\"base64\":\"");
                    m_out.Append(Base64(bytes));
                    m_out.Append("\"}", 2);
                }
                return;
            }
            case CBencode::eBencodeList:
                if (static_cast<const CBencodeList&>(value).Size() == 0) {
                    m_out.Append("[]", 2);
                    return;
                }
                m_out.Append('[');
                m_open.push_back(Frame{&value, 0});
                return;
            case CBencode::eBencodeDictionary: {
                const CBencodeDictionary& dictionary =
                    static_cast<const CBencodeDictionary&>(value);
                if (dictionary.Size() == 0) {
                    m_out.Append("{}", 2);
                    return;
                }
                m_out.Append('{');
                m_open.push_back(Frame{&value, 0});
                m_entries.push_back(dictionary.Entries().begin());
                return;
            }
        }
    }

    unsigned int m_indent;
    Output& m_out;
    std::deque<Frame> m_open;
    std::deque<CBencodeDictionary::EntryMap::const_iterator> m_entries;
};

}  // namespace

bool IsValidUtf8(const char* bytes, size_t size) {
    for (size_t i = 0; i < size;) {
        const size_t length = Utf8SequenceLength(bytes, size, i);
        if (length == 0) {
            return false;
        }
        i += length;
    }
    return true;
}

bool Write(const CBencode& value, unsigned int indent, const Sink& sink) {
    Output out(sink);
    Writer(indent, out).Write(value);
    out.Append('\n');
    return out.Flush();
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

}  // namespace bencodejson
