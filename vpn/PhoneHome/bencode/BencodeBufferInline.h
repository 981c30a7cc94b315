// Inline definitions of the buffer primitives that the reader and writer of the byte format
// run per byte or per value. Only the library's own sources include this header.
#pragma once

#include <cstring>

#include "BencodeBuffer.h"

inline bool CBencodeBuffer::GetByte(char& c) {
    if (m_state == 0 && m_readPos < m_size) {
        c = m_data.get()[m_readPos++];
        return true;
    }
    return Read(&c, 1);
}

inline bool CBencodeBuffer::PutByte(char c) {
    if (m_state == 0 && m_writePos < m_capacity) {
        m_data.get()[m_writePos++] = c;
        if (m_writePos > m_size) {
            m_size = m_writePos;
        }
        return true;
    }
    return PutBytes(&c, 1);
}

inline int CBencodeBuffer::Peek() {
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

// On a short read `out` is left as it was.
inline bool CBencodeBuffer::ReadText(std::string& out, size_t count) {
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

inline char* CBencodeBuffer::WriteSpace(size_t count) {
    if (m_state == 0 && m_capacity - m_writePos >= count) {
        return m_data.get() + m_writePos;
    }
    return GrowForWrite(count);
}

inline void CBencodeBuffer::CommitWrite(char const* end) {
    m_writePos = static_cast<size_t>(end - m_data.get());
    if (m_writePos > m_size) {
        m_size = m_writePos;
    }
}

// The form the writer produces, up to 18 plain digits (no overflow possible) followed by the
// terminator, is read here; anything else takes the general path.
inline bool CBencodeBuffer::ReadIntegerText(long long& value) {
    if (m_state == 0) {
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
            return true;
        }
    }
    return ReadIntegerTextSlow(value);
}
