// The bencode byte format: the stream's buffer primitives and text operators, and the
// encoders and decoders of every value kind.
//
// The buffer behaves like a standard read/write string stream (a sentry that refuses to
// read when any state bit is set and to write unless the stream is good; reads see
// everything up to the furthest byte ever loaded or written). The decoders run over it
// with plain pointer access; they live in this file together with the primitives so that
// the per-byte operations are inlined into them.
#include "Bencode.h"

#include <charconv>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>

#include "BencodeLog.h"

// ---------------------------------------------------------------------------------------
// Buffer primitives
// ---------------------------------------------------------------------------------------

bool CBencodeStream::Good() const {
    return m_state == 0;
}
bool CBencodeStream::Eof() const {
    return (m_state & kEofBit) != 0;
}
bool CBencodeStream::Fail() const {
    return (m_state & (kFailBit | kBadBit)) != 0;
}
void CBencodeStream::Clear() {
    m_state = 0;
}

bool CBencodeStream::Reserve(size_t capacity) {
    if (capacity <= m_capacity) {
        return true;
    }
    size_t grown = m_capacity < 128 ? 256 : m_capacity * 2;
    if (m_capacity == 0 && m_sizeHint > grown) {
        grown = m_sizeHint + m_sizeHint / 16;
    }
    if (grown < capacity) {
        grown = capacity;
    }
    char* data = static_cast<char*>(realloc(m_data.get(), grown));
    if (data == nullptr) {
        return false;  // the old buffer is still there, unchanged
    }
    m_data.release();
    m_data.reset(data);
    m_capacity = grown;
    return true;
}

void CBencodeStream::FreeBuffer::operator()(char* data) const {
    free(data);
}

// Overwrites at the write position and extends the content. Refused unless the stream is
// good; a refusal on a bad stream also sets the fail bit.
bool CBencodeStream::PutBytes(char const* data, size_t count) {
    if (m_state != 0) {
        if ((m_state & kBadBit) != 0) {
            m_state |= kFailBit;
        }
        return false;
    }
    size_t end = m_writePos + count;
    if (end > m_capacity && !Reserve(end)) {
        m_state |= kBadBit;
        return false;
    }
    if (count != 0) {
        memcpy(m_data.get() + m_writePos, data, count);
    }
    m_writePos = end;
    if (end > m_size) {
        m_size = end;
    }
    return true;
}

bool CBencodeStream::PutByte(char c) {
    if (m_state == 0 && m_writePos < m_capacity) {
        m_data.get()[m_writePos++] = c;
        if (m_writePos > m_size) {
            m_size = m_writePos;
        }
        return true;
    }
    return PutBytes(&c, 1);
}

bool CBencodeStream::Write(char const* data, unsigned int count) {
    PutBytes(data, count);
    return Good();
}

bool CBencodeStream::Read(char* buffer, unsigned int count) {
    if (m_state != 0) {
        m_state |= kFailBit;
        return false;
    }
    size_t available = m_size - m_readPos;
    size_t taken = count < available ? count : available;
    if (taken != 0) {
        memcpy(buffer, m_data.get() + m_readPos, taken);
    }
    m_readPos += taken;
    if (taken != count) {
        m_state |= kEofBit | kFailBit;
    }
    return Good();
}

bool CBencodeStream::GetByte(char& c) {
    if (m_state == 0 && m_readPos < m_size) {
        c = m_data.get()[m_readPos++];
        return true;
    }
    return Read(&c, 1);
}

// Reads exactly `count` bytes into `out`, keeping the bytes before the first NUL. On a
// short read `out` is left as it was.
bool CBencodeStream::ReadText(std::string& out, size_t count) {
    if (m_state != 0) {
        m_state |= kFailBit;
        return false;
    }
    if (m_size - m_readPos < count) {
        m_readPos = m_size;
        m_state |= kEofBit | kFailBit;
        return false;
    }
    char const* text = m_data.get() + m_readPos;
    char const* nul = count != 0 ? static_cast<char const*>(memchr(text, 0, count)) : nullptr;
    out.assign(text, nul != nullptr ? static_cast<size_t>(nul - text) : count);
    m_readPos += count;
    return true;
}

int CBencodeStream::Peek() {
    if (m_state != 0) {
        m_state |= kFailBit;
        return std::char_traits<char>::eof();
    }
    if (m_readPos < m_size) {
        return static_cast<unsigned char>(m_data.get()[m_readPos]);
    }
    m_state |= kEofBit;
    return std::char_traits<char>::eof();
}

namespace {

// New position for a seek of `offset` from `direction`, or false when it would leave the
// content.
bool SeekTarget(size_t current, size_t size, unsigned int offset, std::ios_base::seekdir direction,
                size_t& target) {
    size_t base = 0;
    if (direction == std::ios_base::cur) {
        base = current;
    } else if (direction == std::ios_base::end) {
        base = size;
    }
    if (offset > size - base) {
        return false;
    }
    target = base + offset;
    return true;
}

}  // namespace

// Clears the end-of-data bit first; refused (fail) when any other bit is set.
bool CBencodeStream::Seekg(unsigned int offset, std::ios_base::seekdir direction) {
    m_state &= ~static_cast<unsigned int>(kEofBit);
    if (m_state != 0) {
        m_state |= kFailBit;
        return false;
    }
    if (!SeekTarget(m_readPos, m_size, offset, direction, m_readPos)) {
        m_state |= kFailBit;
    }
    return Good();
}

// Moves even when only the end-of-data bit is set, but then reports not good.
bool CBencodeStream::Seekp(unsigned int offset, std::ios_base::seekdir direction) {
    if ((m_state & kBadBit) != 0) {
        m_state |= kFailBit;
    }
    if (!Fail() && !SeekTarget(m_writePos, m_size, offset, direction, m_writePos)) {
        m_state |= kFailBit;
    }
    return Good();
}

int CBencodeStream::Tellg() {
    if (m_state != 0) {
        m_state |= kFailBit;
        return -1;
    }
    return static_cast<int>(m_readPos);
}

int CBencodeStream::Tellp() {
    if ((m_state & kBadBit) != 0) {
        m_state |= kFailBit;
    }
    return Fail() ? -1 : static_cast<int>(m_writePos);
}

// ---------------------------------------------------------------------------------------
// Text operators
// ---------------------------------------------------------------------------------------

namespace {

// The "%lld" conversion of a NUL-terminated text: leading white space, an optional sign,
// then decimal digits, at least one; anything after the digits is ignored and values past
// the 64-bit range saturate at the nearest limit. False when no number is found.
bool ScanLongLong(char const* text, long long& value) {
    char const* p = text;
    while (*p == ' ' || (*p >= '\t' && *p <= '\r')) {
        ++p;
    }
    bool negative = false;
    if (*p == '+' || *p == '-') {
        negative = *p == '-';
        ++p;
    }
    if (*p < '0' || *p > '9') {
        return false;
    }
    const unsigned long long limit =
        negative ? static_cast<unsigned long long>(std::numeric_limits<long long>::max()) + 1
                 : static_cast<unsigned long long>(std::numeric_limits<long long>::max());
    unsigned long long magnitude = 0;
    bool saturated = false;
    for (; *p >= '0' && *p <= '9'; ++p) {
        unsigned int digit = static_cast<unsigned int>(*p - '0');
        if (saturated || magnitude > (limit - digit) / 10) {
            saturated = true;
        } else {
            magnitude = magnitude * 10 + digit;
        }
    }
    if (saturated) {
        value = negative ? std::numeric_limits<long long>::min()
                         : std::numeric_limits<long long>::max();
    } else if (negative) {
        value = magnitude == limit ? std::numeric_limits<long long>::min()
                                   : -static_cast<long long>(magnitude);
    } else {
        value = static_cast<long long>(magnitude);
    }
    return true;
}

}  // namespace

CBencodeStream& CBencodeStream::operator<<(long long value) {
    char text[sm_iMaxIntSize];
    std::to_chars_result printed = std::to_chars(text, text + sizeof(text) - 1, value);
    if (printed.ec != std::errc()) {
        m_state |= kFailBit;
        BENCODE_LOG_ERROR("snprintf failed");
        return *this;
    }
    PutBytes(text, static_cast<size_t>(printed.ptr - text));
    return *this;
}

// Appends the text up to its first NUL byte.
CBencodeStream& CBencodeStream::operator<<(std::string const& text) {
    char const* nul = static_cast<char const*>(memchr(text.data(), 0, text.size()));
    PutBytes(text.data(), nul != nullptr ? static_cast<size_t>(nul - text.data()) : text.size());
    return *this;
}

// Integer text runs up to a ':' or 'e', which is left unread; at most
// sm_iMaxIntSize - 1 characters are taken. The text is then converted like "%lld".
CBencodeStream& CBencodeStream::operator>>(long long& value) {
    if (m_state != 0) {
        BENCODE_LOG_ERROR("Failed to read integer value");
        return *this;
    }
    // Fast path for the form the writer produces: up to 18 plain digits (no overflow
    // possible) followed by the terminator. Anything else takes the general path below.
    {
        char const* start = m_data.get() + m_readPos;
        char const* end = m_data.get() + m_size;
        char const* p = start;
        unsigned long long magnitude = 0;
        while (p < end && p - start < 18 && *p >= '0' && *p <= '9') {
            magnitude = magnitude * 10 + static_cast<unsigned int>(*p - '0');
            ++p;
        }
        if (p != start && p < end && (*p == ':' || *p == 'e')) {
            value = static_cast<long long>(magnitude);
            m_readPos += static_cast<size_t>(p - start);
            return *this;
        }
    }
    char text[sm_iMaxIntSize];
    int length = 0;
    for (;;) {
        if (m_readPos >= m_size) {
            m_state |= kEofBit | kFailBit;
            BENCODE_LOG_ERROR("Failed to read integer value");
            return *this;
        }
        char c = m_data.get()[m_readPos];
        if (c == ':' || c == 'e') {
            break;
        }
        ++m_readPos;
        if (length == sm_iMaxIntSize - 1) {
            m_state |= kFailBit;
            BENCODE_LOG_ERROR("Failed to read integer value");
            return *this;
        }
        text[length++] = c;
    }
    text[length] = '\0';
    if (!ScanLongLong(text, value)) {
        m_state |= kFailBit;
        BENCODE_LOG_ERROR("Failed to read integer value");
    }
    return *this;
}

// ---------------------------------------------------------------------------------------
// CBencode: integers and strings
// ---------------------------------------------------------------------------------------

bool CBencode::Externalize(CBencodeStream& stream) {
    if (m_type == eBencodeInteger) {
        stream.PutByte('i');
        stream << m_integer;
        stream.PutByte('e');
        return stream.Good();
    }
    if (m_type == eBencodeString) {
        stream << static_cast<long long>(m_string.size());
        stream.PutByte(':');
        // A string value holds no NUL byte, so its NUL-terminated text is all of it.
        stream.PutBytes(m_string.data(), m_string.size());
        return stream.Good();
    }
    return false;
}

bool CBencode::Internalize(CBencodeStream& stream) {
    if (m_type == eBencodeInteger) {
        char c = 0;
        if (!stream.GetByte(c) || c != 'i') {
            BENCODE_LOG_ERROR("Failed to internalize integer type identifier");
            return false;
        }
        stream >> m_integer;
        if (!stream.Good()) {
            BENCODE_LOG_ERROR("Failed to internalize integer value");
            return false;
        }
        if (!stream.GetByte(c) || c != 'e') {
            BENCODE_LOG_ERROR("Integer internalize failed");
            return false;
        }
        return true;
    }
    if (m_type == eBencodeString) {
        return GetStringFromStream(stream, m_string);
    }
    return false;
}

bool CBencode::GetStringFromStream(CBencodeStream& stream, std::string& out) const {
    long long length = 0;
    stream >> length;
    if (!stream.Good() || length < 0 ||
        length > static_cast<long long>(MAX_BENCODE_STRING_LENGTH)) {
        BENCODE_LOG_ERROR("Illegal bencode string");
        return false;
    }
    char c = 0;
    if (!stream.GetByte(c) || c != ':') {
        BENCODE_LOG_ERROR("Illegal bencode string");
        return false;
    }
    if (!stream.ReadText(out, static_cast<size_t>(length))) {
        BENCODE_LOG_ERROR("Illegal bencode string");
        return false;
    }
    return true;
}

// ---------------------------------------------------------------------------------------
// CBencodeList
// ---------------------------------------------------------------------------------------

bool CBencodeList::Externalize(CBencodeStream& stream) {
    stream.PutByte('l');
    if (!stream.Good()) {
        BENCODE_LOG_ERROR("Failed to externalize list type identifier");
        return false;
    }
    for (CBencode* item : m_items) {
        if (item == nullptr) {
            BENCODE_LOG_ERROR("NULL item stored in list");
            return false;
        }
        if (!item->Externalize(stream)) {
            BENCODE_LOG_ERROR("Failed to externalize list item");
            return false;
        }
    }
    stream.PutByte('e');
    return stream.Good();
}

bool CBencodeList::Internalize(CBencodeStream& stream) {
    char c = 0;
    if (!stream.GetByte(c)) {
        if (stream.Eof()) {
            return true;  // an empty input is an empty list
        }
        BENCODE_LOG_ERROR("Failed to internalize list type identifier");
        return false;
    }
    if (c != 'l') {
        BENCODE_LOG_ERROR("Failed to internalize list type identifier");
        return false;
    }
    Reset();
    for (;;) {
        int next = stream.Peek();
        if (!stream.Good()) {
            BENCODE_LOG_ERROR("Failed to internalize list item identifier");
            return false;
        }
        if (next == 'e') {
            stream.GetByte(c);
            return stream.Good();
        }
        if (next == 'l') {
            CBencodeList* item = new CBencodeList(true);
            if (!item->Internalize(stream)) {
                delete item;
                BENCODE_LOG_ERROR("Failed to internalize list item of type list");
                return false;
            }
            m_items.push_back(item);
        } else if (next == 'd') {
            CBencodeDictionary* item = new CBencodeDictionary(true);
            if (!item->Internalize(stream)) {
                delete item;
                BENCODE_LOG_ERROR("Failed to internalize list item of type dictionary");
                return false;
            }
            m_items.push_back(item);
        } else if (next == 'i') {
            CBencode* item = new CBencode(eBencodeInteger);
            if (!item->CBencode::Internalize(stream)) {
                delete item;
                BENCODE_LOG_ERROR("Failed to internalize list item of type integer");
                return false;
            }
            m_items.push_back(item);
        } else {
            CBencode* item = new CBencode(eBencodeString);
            if (!item->CBencode::Internalize(stream)) {
                delete item;
                BENCODE_LOG_ERROR("Failed to internalize list item of type string");
                return false;
            }
            m_items.push_back(item);
        }
    }
}

// ---------------------------------------------------------------------------------------
// CBencodeDictionary
// ---------------------------------------------------------------------------------------

bool CBencodeDictionary::Externalize(CBencodeStream& stream) {
    stream.PutByte('d');
    if (!stream.Good()) {
        BENCODE_LOG_ERROR("Failed to externalize dictionary type identifier");
        return false;
    }
    for (EntryMap::value_type const& entry : m_entries) {
        if (entry.second == nullptr) {
            BENCODE_LOG_ERROR("Dictionary item is NULL");
            return false;
        }
        // The key's length is its full size, its body the text before any NUL byte.
        stream << static_cast<long long>(entry.first.size());
        stream.PutByte(':');
        stream << entry.first;
        if (!stream.Good()) {
            BENCODE_LOG_ERROR("Failed to externalize key string");
            return false;
        }
        if (!entry.second->Externalize(stream)) {
            BENCODE_LOG_ERROR("Failed to externalize value");
            return false;
        }
    }
    stream.PutByte('e');
    return stream.Good();
}

bool CBencodeDictionary::Internalize(CBencodeStream& stream) {
    char c = 0;
    if (!stream.GetByte(c)) {
        if (stream.Eof()) {
            return true;  // an empty input is an empty dictionary
        }
        BENCODE_LOG_ERROR("Failed to internalize dictionary type identifier");
        return false;
    }
    if (c != 'd') {
        BENCODE_LOG_ERROR("Failed to internalize dictionary type identifier");
        return false;
    }
    Reset();
    std::string key;
    for (;;) {
        int next = stream.Peek();
        if (stream.Good() && next == 'e') {
            break;
        }
        if (!GetStringFromStream(stream, key)) {
            BENCODE_LOG_ERROR("Failed to internalize key string");
            return false;
        }
        // Keys usually arrive in order: then the new entry goes at the end, and only an
        // out-of-order key needs a search (which also finds a duplicate).
        EntryMap::iterator position = m_entries.end();
        if (!m_entries.empty() && !(m_entries.rbegin()->first < key)) {
            position = m_entries.lower_bound(key);
            if (position != m_entries.end() && position->first == key) {
                // A duplicate key ends the dictionary; what was read so far is kept.
                BENCODE_LOG_ERROR("Failed to internalize key string");
                return true;
            }
        }
        next = stream.Peek();
        if (!stream.Good()) {
            BENCODE_LOG_ERROR("Failed to internalize value type identifier");
            return false;
        }
        CBencode* value = nullptr;
        if (next == 'i') {
            value = new CBencode(eBencodeInteger);
            if (!value->CBencode::Internalize(stream)) {
                delete value;
                BENCODE_LOG_ERROR("Failed to internalize value of type integer");
                return false;
            }
        } else if (next == 'l') {
            value = new CBencodeList(true);
            if (!value->Internalize(stream)) {
                delete value;
                BENCODE_LOG_ERROR("Failed to internalize value of type list");
                return false;
            }
        } else if (next == 'd') {
            value = new CBencodeDictionary(true);
            if (!value->Internalize(stream)) {
                delete value;
                BENCODE_LOG_ERROR("Failed to internalize value of type dictionary");
                return false;
            }
        } else {
            value = new CBencode(eBencodeString);
            if (!value->CBencode::Internalize(stream)) {
                delete value;
                BENCODE_LOG_ERROR("Failed to internalize value of type string");
                return false;
            }
        }
        m_entries.emplace_hint(position, std::move(key), value);
    }
    stream.GetByte(c);
    return stream.Good();
}
