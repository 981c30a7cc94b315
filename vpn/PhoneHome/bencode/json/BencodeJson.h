// The JSON form of a bencode tree, shared by cefdump and the collector (which prints it in
// exports and its API). It is never linked into the plug-in.
//
// Integers become JSON numbers (all 64 bits, exactly). Byte strings that are valid UTF-8
// become JSON strings; any other string becomes {"base64": "<RFC 4648 text>"} so that no
// byte is lost. Dictionaries become objects in key order; a key that is not valid UTF-8 is
// written with each offending byte b as the escape \udcXX (XX = b, from 80 to ff), which
// no valid UTF-8 key can produce. Lists become arrays; a null item is null.
//
// The text is made as the values are told (by a walk of a tree, or by the bencode reader's
// events) and handed out in pieces, so that printing needs memory only for the containers
// being written, one byte each, not for the whole text. With indentation,
// a line is indented by at most kMaxIndentLevels levels: deeper levels are written at that
// indentation, which keeps the text linear in the size of the tree at any depth.
//
// A JSON library serialises a document of its own: it would need a second copy of the
// tree, its writer recurses once per level (a file the bencode library reads may nest
// millions of levels), and it refuses or replaces text that is not UTF-8, where this form
// keeps every byte (\udcXX keys). So the writer is ours; it is small and tested against the
// byte-exact expectations of cefdump's tests.
#pragma once

#include <cstddef>
#include <functional>
#include <string>

#include "Bencode.h"

namespace bencodejson {

// Receives the text in pieces; false stops the writing.
using Sink = std::function<bool(const char* data, size_t size)>;

constexpr unsigned int kMaxIndentLevels = 32;

// Writes the JSON text of values told one at a time, in the order of the text.
class StreamWriter {
public:
    // `indent` spaces per level, 0 for one line.
    StreamWriter(unsigned int indent, const Sink& sink);
    StreamWriter(const StreamWriter&) = delete;
    StreamWriter& operator=(const StreamWriter&) = delete;

    // A list or dictionary begins: the top-level one, an item of a list, or the value after
    // a dictionary's key.
    void Open(bool dictionary);
    // The innermost open container ends.
    void Close();
    // A key of the innermost open dictionary; its value follows.
    void Key(const std::string& key);
    // An integer or string item, or the value after a key.
    void Scalar(const CBencode& value);
    // A null item (a list may hold one).
    void Null();
    // Ends the text with a line break and hands out what is left. False when the sink
    // refused a piece, now or before.
    bool Finish();

private:
    void BeginValue();
    void NewLine(size_t depth);
    void WriteString(const std::string& bytes);
    void Append(const char* data, size_t size);
    void Append(const std::string& text) { Append(text.data(), text.size()); }
    void Append(char c) { Append(&c, 1); }
    void Flush();

    const Sink& m_sink;
    unsigned int m_indent;
    std::string m_text;  // not yet handed out
    bool m_ok;
    // One byte per open container, the innermost last: 'l' or 'd' while it is empty (its
    // bracket not yet written), 'L' or 'D' once it has an item.
    std::string m_open;
    bool m_afterKey;
};

// Writes `value` and everything below it, followed by a line break, to `sink`. `indent`
// spaces per level, 0 for one line. False when the sink refused a piece.
bool Write(const CBencode& value, unsigned int indent, const Sink& sink);

// The one-line JSON text of `value`, without a final line break.
std::string ToJson(const CBencode& value);

// Whether `bytes` are valid UTF-8 (no overlong forms, no surrogates, nothing past U+10FFFF).
bool IsValidUtf8(const char* bytes, size_t size);

// The base64 text that stands for a string that is not UTF-8 ({"base64": TEXT}), made by the
// host framework's encoder, as the service encodes crash dumps.
std::string Base64(const std::string& bytes);

}  // namespace bencodejson
