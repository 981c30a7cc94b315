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
#include <cstdint>
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

// Defined before its callers in this file so that the common case is inlined into them.
inline char* CBencodeStream::WriteSpace(size_t count) {
    if (m_state == 0 && m_capacity - m_writePos >= count) {
        return m_data.get() + m_writePos;
    }
    if (m_state != 0) {
        if ((m_state & kBadBit) != 0) {
            m_state |= kFailBit;
        }
        return nullptr;
    }
    if (!Reserve(m_writePos + count)) {
        m_state |= kBadBit;
        return nullptr;
    }
    return m_data.get() + m_writePos;
}

inline void CBencodeStream::CommitWrite(char const* end) {
    m_writePos = static_cast<size_t>(end - m_data.get());
    if (m_writePos > m_size) {
        m_size = m_writePos;
    }
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
    if (count != 0 && memchr(data, 0, count) != nullptr) {
        m_nulFree = false;
    }
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
    char const* nul =
        m_nulFree || count == 0 ? nullptr : static_cast<char const*>(memchr(text, 0, count));
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

namespace {

// Longest decimal text of a 64-bit integer ("-9223372036854775808").
const size_t kMaxDigits = 20;

inline char* PutDecimal(char* out, long long value) {
    return std::to_chars(out, out + kMaxDigits, value).ptr;
}

// Lengths are mostly one or two digits.
inline char* PutLength(char* out, size_t length) {
    if (length < 10) {
        *out = static_cast<char>('0' + length);
        return out + 1;
    }
    if (length < 100) {
        out[0] = static_cast<char>('0' + length / 10);
        out[1] = static_cast<char>('0' + length % 10);
        return out + 2;
    }
    return std::to_chars(out, out + kMaxDigits, static_cast<unsigned long long>(length)).ptr;
}

// Keys and values are mostly short: copies of up to 16 bytes are done with fixed-size moves
// instead of a library call.
inline char* PutBytesAt(char* out, char const* in, size_t count) {
    if (count >= 8 && count <= 16) {
        memcpy(out, in, 8);
        memcpy(out + count - 8, in + count - 8, 8);
    } else if (count >= 4 && count < 8) {
        memcpy(out, in, 4);
        memcpy(out + count - 4, in + count - 4, 4);
    } else if (count < 4) {
        for (size_t i = 0; i < count; ++i) {
            out[i] = in[i];
        }
    } else {
        memcpy(out, in, count);
    }
    return out + count;
}

// Bytes before the first NUL of `size` bytes of text.
inline size_t TextLength(char const* text, size_t size) {
    if (size < 4) {
        for (size_t i = 0; i < size; ++i) {
            if (text[i] == '\0') {
                return i;
            }
        }
        return size;
    }
    void const* nul = memchr(text, 0, size);
    return nul != nullptr ? static_cast<size_t>(static_cast<char const*>(nul) - text) : size;
}

template <typename Word>
inline bool HasZeroByte(Word word) {
    const Word ones = static_cast<Word>(~Word(0)) / 0xFF;
    return ((word - ones) & ~word & (ones << 7)) != 0;
}

// Copies `count` bytes, between one and two words long, as two overlapping words, unless a
// word holds a NUL: then nothing is stored and the result is null.
template <typename Word>
inline char* PutWordPairAt(char* out, char const* in, size_t count) {
    Word head = 0;
    Word tail = 0;
    memcpy(&head, in, sizeof(Word));
    memcpy(&tail, in + count - sizeof(Word), sizeof(Word));
    if (HasZeroByte(head) || HasZeroByte(tail)) {
        return nullptr;
    }
    memcpy(out, &head, sizeof(Word));
    memcpy(out + count - sizeof(Word), &tail, sizeof(Word));
    return out + count;
}

// Copies the text before the first NUL of `count` bytes. Keys are short and almost never
// hold a NUL: up to 16 bytes are checked while they are copied, and only a key that holds
// a NUL is copied again up to it. The bytes after the returned end stay as they were.
inline char* PutTextAt(char* out, char const* in, size_t count) {
    char* end = nullptr;
    if (count >= 8 && count <= 16) {
        end = PutWordPairAt<uint64_t>(out, in, count);
    } else if (count >= 4 && count < 8) {
        end = PutWordPairAt<uint32_t>(out, in, count);
    }
    return end != nullptr ? end : PutBytesAt(out, in, TextLength(in, count));
}

}  // namespace

bool CBencode::Externalize(CBencodeStream& stream) {
    if (m_type == eBencodeInteger) {
        char* out = stream.WriteSpace(kMaxDigits + 2);
        if (out == nullptr) {
            return false;
        }
        *out++ = 'i';
        out = PutDecimal(out, m_integer);
        *out++ = 'e';
        stream.CommitWrite(out);
        return true;
    }
    if (m_type == eBencodeString) {
        // A string value holds no NUL byte, so its NUL-terminated text is all of it.
        char* out = stream.WriteSpace(kMaxDigits + 1 + m_string.size());
        if (out == nullptr) {
            return false;
        }
        out = PutLength(out, m_string.size());
        *out++ = ':';
        out = PutBytesAt(out, m_string.data(), m_string.size());
        stream.CommitWrite(out);
        return true;
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

namespace {

// Creates in `slot` the value that `first` (its first byte) starts, then reads it: "l" a
// list, "d" a dictionary, "i" an integer, anything else a string. The value is stored before
// it is read, so that it lies in memory ahead of its children. Null on success; on failure
// the name of the value's kind for the caller's message (the caller deletes the value).
const char* ReadNewValue(CBencodeStream& stream, int first, CBencode*& slot) {
    if (first == 'l') {
        CBencodeList* list = new CBencodeList(true);
        slot = list;
        return list->CBencodeList::Internalize(stream) ? nullptr : "list";
    }
    if (first == 'd') {
        CBencodeDictionary* dictionary = new CBencodeDictionary(true);
        slot = dictionary;
        return dictionary->CBencodeDictionary::Internalize(stream) ? nullptr : "dictionary";
    }
    const bool integer = first == 'i';
    slot = new CBencode(integer ? CBencode::eBencodeInteger : CBencode::eBencodeString);
    if (slot->CBencode::Internalize(stream)) {
        return nullptr;
    }
    return integer ? "integer" : "string";
}

}  // namespace

// ---------------------------------------------------------------------------------------
// CBencodeList
// ---------------------------------------------------------------------------------------

bool CBencodeList::Externalize(CBencodeStream& stream) {
    if (!stream.PutByte('l')) {
        BENCODE_LOG_ERROR("Failed to externalize list type identifier");
        return false;
    }
    CBencode* const* items = m_items.data();
    const size_t count = m_items.size();
    for (size_t i = 0; i < count; ++i) {
        if (items[i] == nullptr) {
            BENCODE_LOG_ERROR("NULL item stored in list");
            return false;
        }
        if (!items[i]->Externalize(stream)) {
            BENCODE_LOG_ERROR("Failed to externalize list item");
            return false;
        }
    }
    return stream.PutByte('e');
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
        CBencode* item = nullptr;
        if (const char* kind = ReadNewValue(stream, next, item)) {
            delete item;
            BENCODE_LOG_ERROR("Failed to internalize list item of type %s", kind);
            return false;
        }
        // Lists in feedback data are mostly short: room for four items at once spares the
        // allocations of growing one item at a time.
        if (m_items.capacity() == 0) {
            m_items.reserve(4);
        }
        m_items.push_back(item);
    }
}

// ---------------------------------------------------------------------------------------
// CBencodeDictionary
// ---------------------------------------------------------------------------------------

bool CBencodeDictionary::Externalize(CBencodeStream& stream) {
    if (!stream.PutByte('d')) {
        BENCODE_LOG_ERROR("Failed to externalize dictionary type identifier");
        return false;
    }
    const EntryMap::const_iterator end = m_entries.end();
    for (EntryMap::const_iterator current = m_entries.begin(); current != end; ++current) {
        EntryMap::value_type const& entry = *current;
#ifdef __GLIBCXX__
        // The next entry is found through this node's right child, which in a large map
        // lies far ahead of the node in memory (the values' contents lie in between): ask
        // for it now, so that it arrives while the value is written.
        __builtin_prefetch(current._M_node->_M_right);
#endif
        if (entry.second == nullptr) {
            BENCODE_LOG_ERROR("Dictionary item is NULL");
            return false;
        }
        // The key's length is its full size, its body the text before any NUL byte.
        std::string const& key = entry.first;
        char* out = stream.WriteSpace(kMaxDigits + 1 + key.size());
        if (out == nullptr) {
            BENCODE_LOG_ERROR("Failed to externalize key string");
            return false;
        }
        out = PutLength(out, key.size());
        *out++ = ':';
        out = PutTextAt(out, key.data(), key.size());
        stream.CommitWrite(out);
        if (!entry.second->Externalize(stream)) {
            BENCODE_LOG_ERROR("Failed to externalize value");
            return false;
        }
    }
    return stream.PutByte('e');
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
        // The entry goes in before its value is read, so that entries and values lie in
        // memory in the order of the text: later walks of the tree (writing, comparing,
        // freeing) then run through memory front to back.
        EntryMap::iterator entry = m_entries.emplace_hint(position, std::move(key), nullptr);
        if (const char* kind = ReadNewValue(stream, next, entry->second)) {
            delete entry->second;
            m_entries.erase(entry);
            BENCODE_LOG_ERROR("Failed to internalize value of type %s", kind);
            return false;
        }
    }
    stream.GetByte(c);
    return stream.Good();
}
