// CBencodeBuffer: growth, the string-stream operations and the general integer text scan.
// The per-byte primitives are inline in BencodeBufferInline.h.
#include "BencodeBufferInline.h"

#include <cstdlib>
#include <limits>

#include "Bencode.h"

CBencodeBuffer::CBencodeBuffer()
    : m_capacity(0),
      m_size(0),
      m_readPos(0),
      m_writePos(0),
      m_sizeHint(0),
      m_state(0),
      m_nulFree(true) {}

void CBencodeBuffer::FreeBuffer::operator()(char* data) const {
    free(data);
}

bool CBencodeBuffer::Reserve(size_t capacity) {
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

// Refused unless the buffer is good; a refusal on a bad buffer also sets the fail bit.
char* CBencodeBuffer::GrowForWrite(size_t count) {
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

bool CBencodeBuffer::PutBytes(char const* data, size_t count) {
    char* out = WriteSpace(count);
    if (out == nullptr) {
        return false;
    }
    if (count != 0) {
        memcpy(out, data, count);
    }
    CommitWrite(out + count);
    return true;
}

bool CBencodeBuffer::Write(char const* data, unsigned int count) {
    if (count != 0 && memchr(data, 0, count) != nullptr) {
        m_nulFree = false;
    }
    PutBytes(data, count);
    return Good();
}

bool CBencodeBuffer::Read(char* buffer, unsigned int count) {
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

// The "%lld" conversion of a NUL-terminated text: leading white space, an optional sign,
// then decimal digits, at least one; anything after the digits is ignored and values past
// the 64-bit range saturate at the nearest limit. False when no number is found; `stop` is
// then the index of the character where a digit was expected.
bool ScanLongLong(char const* text, long long& value, size_t& stop) {
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
        stop = static_cast<size_t>(p - text);
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

// Clears the end-of-data bit first; refused (fail) when any other bit is set.
bool CBencodeBuffer::Seekg(unsigned int offset, std::ios_base::seekdir direction) {
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
bool CBencodeBuffer::Seekp(unsigned int offset, std::ios_base::seekdir direction) {
    if ((m_state & kBadBit) != 0) {
        m_state |= kFailBit;
    }
    if (!Fail() && !SeekTarget(m_writePos, m_size, offset, direction, m_writePos)) {
        m_state |= kFailBit;
    }
    return Good();
}

int CBencodeBuffer::Tellg() {
    if (m_state != 0) {
        m_state |= kFailBit;
        return -1;
    }
    return static_cast<int>(m_readPos);
}

int CBencodeBuffer::Tellp() {
    if ((m_state & kBadBit) != 0) {
        m_state |= kFailBit;
    }
    return Fail() ? -1 : static_cast<int>(m_writePos);
}

void CBencodeBuffer::Reset() {
    if (m_size != 0) {
        m_sizeHint = m_size;
    }
    m_data.reset();
    m_capacity = 0;
    m_size = 0;
    m_readPos = 0;
    m_writePos = 0;
    m_nulFree = true;
}

void CBencodeBuffer::Adopt(char* data, size_t size, size_t capacity) {
    m_data.reset(data);
    m_size = size;
    m_capacity = capacity;
    m_readPos = 0;
    m_writePos = 0;
    m_nulFree = true;
}

// At most sm_iMaxIntSize - 1 characters are taken before the terminator.
bool CBencodeBuffer::ReadIntegerTextSlow(long long& value) {
    if (m_state != 0) {
        return false;
    }
    char text[CBencodeStream::sm_iMaxIntSize];
    int length = 0;
    const size_t start = m_readPos;
    for (;;) {
        if (m_readPos >= m_size) {
            m_state |= kEofBit | kFailBit;
            return false;
        }
        char c = m_data.get()[m_readPos];
        if (c == ':' || c == 'e') {
            break;
        }
        ++m_readPos;
        if (length == CBencodeStream::sm_iMaxIntSize - 1) {
            NoteInvalidByte(m_readPos - 1);
            m_state |= kFailBit;
            return false;
        }
        text[length++] = c;
    }
    text[length] = '\0';
    size_t stop = 0;
    if (!ScanLongLong(text, value, stop)) {
        NoteInvalidByte(start + stop);  // the terminator when the text ends before a digit
        m_state |= kFailBit;
        return false;
    }
    return true;
}
