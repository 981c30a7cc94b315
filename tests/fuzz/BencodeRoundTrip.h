// The properties shared by the bencode fuzz target and the unit test that replays every
// input that ever broke them: bytes that read as a list (or a dictionary) are written, the
// written form is read again and written again, and the two written forms must be
// identical and the two trees equal; the integer text scan agrees with the C library's
// "%lld" on the same bytes. Read through a file (which the loader cuts at its first NUL
// byte, and whose strings are then read without a NUL scan), the bytes must give what the
// same content gives when read from memory.
//
// Test-only code, kept in one header so that both programs use it without a library.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <type_traits>

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
    if (scanned != stream.Good() || (scanned ? expected : 0x5a5a) != value) {
        return "integer scan differs from %lld on <" + text + ">";
    }
    if (scanned && stream.Peek() != bytes[length]) {
        return "the integer text's terminator was consumed";
    }
    return std::string();
}

// The file loaded into `Container` against the same content read from memory.
template <typename Container>
std::string CheckFileAgainstMemory(const char* kind, const std::string& path,
                                   const std::string& content) {
    errno = 0;  // the loader judges a file's existence by errno
    EBencodeResult result = eBencodeFileError;
    Container fromFile(path, result, false);
    CBencodeStream* stream = fromFile.GetStream();
    Container fromMemory(false);
    const bool read = ReadFrom(fromMemory, content);
    std::string problem;
    bool ok = false;
    if ((result == eBencodeSuccess) != read) {
        problem = std::string(kind) + ": the file and the memory readings disagree";
    } else if (read && WrittenForm(fromFile, ok) != WrittenForm(fromMemory, ok)) {
        problem = std::string(kind) + ": the file reads differently from memory";
    }
    if (std::is_same<Container, CBencodeList>::value) {
        delete stream;  // a list leaves its stream to its creator
    }
    return problem;
}

// A scratch file for the file readings, removed at exit.
class CScratchFile {
public:
    CScratchFile() {
        char name[] = "/tmp/bencode-fuzz-XXXXXX";
        const int fd = mkstemp(name);
        if (fd >= 0) {
            close(fd);
            m_path = name;
        }
    }
    ~CScratchFile() {
        if (!m_path.empty()) {
            unlink(m_path.c_str());
        }
    }
    std::string const& Path() const { return m_path; }

private:
    std::string m_path;
};

inline std::string CheckThroughFile(const uint8_t* data, size_t size) {
    static CScratchFile scratch;
    std::string const& path = scratch.Path();
    if (path.empty()) {
        return "no scratch file";
    }
    const int fd = open(path.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
    const bool written = fd >= 0 && write(fd, data, size) == static_cast<ssize_t>(size);
    if (fd >= 0) {
        close(fd);
    }
    if (!written) {
        return "cannot write the scratch file";
    }
    const std::string content(reinterpret_cast<const char*>(data),
                              strnlen(reinterpret_cast<const char*>(data), size));
    std::string problem = CheckFileAgainstMemory<CBencodeList>("list", path, content);
    if (problem.empty()) {
        problem = CheckFileAgainstMemory<CBencodeDictionary>("dictionary", path, content);
    }
    return problem;
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
