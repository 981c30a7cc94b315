// The byte buffer behind a CBencodeStream: one block of memory with separate read and write
// positions and the state bits of a standard read/write string stream (good, end of data,
// fail, bad). Writes overwrite at the write position and extend the content; reads see
// everything up to the furthest byte ever written or loaded. The per-byte primitives that
// the reader and writer of the byte format use are defined inline in BencodeBufferInline.h,
// which only the library's own sources include.
#pragma once

#include <cstddef>
#include <ios>
#include <memory>
#include <string>

class CBencodeBuffer {
public:
    enum : unsigned int { kEofBit = 1u, kFailBit = 2u, kBadBit = 4u };

    CBencodeBuffer();
    CBencodeBuffer(CBencodeBuffer const&) = delete;
    CBencodeBuffer& operator=(CBencodeBuffer const&) = delete;

    // The operations of a string stream.
    bool Seekg(unsigned int offset, std::ios_base::seekdir direction);
    bool Seekp(unsigned int offset, std::ios_base::seekdir direction);
    int Tellg();
    int Tellp();
    bool Read(char* buffer, unsigned int count);
    bool Write(char const* data, unsigned int count);
    bool Good() const { return m_state == 0; }
    bool Eof() const { return (m_state & kEofBit) != 0; }
    bool Fail() const { return (m_state & (kFailBit | kBadBit)) != 0; }
    void Clear() { m_state = 0; }
    void SetState(unsigned int bits) { m_state |= bits; }

    // Empties the buffer; the state bits are kept.
    void Reset();
    // Takes over `size` bytes of content, which hold no NUL byte, in a malloc'd block of
    // `capacity` bytes, and puts both positions at the start.
    void Adopt(char* data, size_t size, size_t capacity);

    size_t Size() const { return m_size; }
    char const* Data() const { return m_data.get(); }

    // Hot primitives of the codec (inline, BencodeBufferInline.h).
    inline bool GetByte(char& c);
    inline bool PutByte(char c);
    inline int Peek();
    // Reads exactly `count` bytes into `out`, keeping those before the first NUL.
    inline bool ReadText(std::string& out, size_t count);
    // Room for `count` bytes at the write position, or null when the buffer refuses to write
    // (not good) or cannot grow (then the bad bit is set). The writer fills the room and
    // hands its end to CommitWrite.
    inline char* WriteSpace(size_t count);
    inline void CommitWrite(char const* end);
    // Integer text up to a ':' or 'e' (left unread), converted like "%lld"; false on failure
    // (the caller logs).
    inline bool ReadIntegerText(long long& value);

    // Out-of-line parts of the primitives.
    bool PutBytes(char const* data, size_t count);
    bool ReadIntegerTextSlow(long long& value);

private:
    bool Reserve(size_t capacity);
    char* GrowForWrite(size_t count);

    // malloc'd, so that growing a large buffer can remap it in place instead of holding the
    // old and the new copy at once.
    struct FreeBuffer {
        void operator()(char* data) const;
    };
    std::unique_ptr<char, FreeBuffer> m_data;
    size_t m_capacity;
    size_t m_size;
    size_t m_readPos;
    size_t m_writePos;
    // Content size before the last Reset: a fresh buffer is sized for it at once, so that a
    // container saved again and again does not regrow its buffer on every save.
    size_t m_sizeHint;
    unsigned int m_state;
    // True while the content is known to hold no NUL byte (it was loaded, which cuts at the
    // first NUL, or written only by the value writers): reading a string then needs no scan.
    bool m_nulFree;
};
