// The round-trip property shared by the bencode fuzz target and the unit test that replays
// every input that ever broke it: bytes that read as a list (or a dictionary) are written,
// the written form is read again and written again, and the two written forms must be
// identical and the two trees equal. The integer text scan is also checked against the C
// library's "%lld" on the same bytes.
//
// Test-only code, kept in one header so that both programs use it without a library.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <string>

#include "Bencode.h"

namespace bencodefuzz {

inline std::string WrittenForm(CBencode& value, bool& ok) {
    CBencodeStream out("", false);
    ok = value.Externalize(out);
    return std::string(out.Data(), out.Size());
}

inline bool ReadFrom(CBencode& container, const std::string& bytes) {
    CBencodeStream in("", false);
    in.Write(bytes.data(), static_cast<unsigned int>(bytes.size()));
    return container.Internalize(in);
}

// An empty string when the property holds for `Container`, else what went wrong.
template <typename Container>
std::string CheckContainer(const char* kind, const std::string& bytes) {
    Container first(false);
    if (!ReadFrom(first, bytes)) {
        return std::string();  // rejected input: nothing to compare
    }
    bool ok = false;
    const std::string written = WrittenForm(first, ok);
    if (!ok) {
        return std::string(kind) + ": a tree that was read cannot be written";
    }
    Container second(false);
    if (!ReadFrom(second, written)) {
        return std::string(kind) + ": the written form does not read back: " + written;
    }
    const std::string rewritten = WrittenForm(second, ok);
    if (!ok || rewritten != written) {
        return std::string(kind) + ": written forms differ: " + written + " / " + rewritten;
    }
    if (!(first == second)) {
        return std::string(kind) + ": trees differ after the round trip";
    }
    return std::string();
}

// The stream's integer text against sscanf("%lld") on the text before the terminator.
inline std::string CheckIntegerScan(const std::string& bytes) {
    const size_t limit = std::min<size_t>(bytes.size(), CBencodeStream::sm_iMaxIntSize);
    size_t length = 0;
    while (length < limit && bytes[length] != ':' && bytes[length] != 'e') {
        ++length;
    }
    const bool terminated = length < bytes.size() &&
                            length < static_cast<size_t>(CBencodeStream::sm_iMaxIntSize) &&
                            (bytes[length] == ':' || bytes[length] == 'e');
    CBencodeStream stream("", false);
    stream.Write(bytes.data(), static_cast<unsigned int>(std::min<size_t>(bytes.size(), 64)));
    long long value = 0x5a5a;
    stream >> value;
    if (!terminated) {
        return stream.Good() ? "integer text without terminator accepted" : std::string();
    }
    const std::string text = std::string(bytes, 0, length).c_str();
    long long expected = 0;
    const bool scanned = sscanf(text.c_str(), "%lld", &expected) == 1;
    if (scanned != stream.Good() || (scanned && expected != value)) {
        return "integer scan differs from %lld on <" + text + ">";
    }
    return std::string();
}

inline std::string CheckRoundTrip(const uint8_t* data, size_t size) {
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    std::string problem = CheckContainer<CBencodeList>("list", bytes);
    if (problem.empty()) {
        problem = CheckContainer<CBencodeDictionary>("dictionary", bytes);
    }
    if (problem.empty()) {
        problem = CheckIntegerScan(bytes);
    }
    return problem;
}

}  // namespace bencodefuzz
