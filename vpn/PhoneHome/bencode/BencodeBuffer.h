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

// Largest file that LoadStream accepts with the plug-in's limits (exactly this size is
// accepted).
constexpr unsigned int MAX_BENCODE_FILE_SIZE = 0xA00000;
// Largest string length that the reader accepts with the plug-in's limits.
constexpr unsigned int MAX_BENCODE_STRING_LENGTH = 0x80000;

// What one reader (a stream and its buffer) accepts, and whether it logs what it refuses.
// Every stream starts with the plug-in's limits; a program that reads other input (the
// collector reads report bodies of up to 16 MiB, a crash dump in one string) sets its own.
struct BencodeReadLimits {
    size_t maxFileSize;      // largest file that LoadStream accepts (this size included)
    size_t maxStringLength;  // largest string length that the reader accepts
    // Deepest nesting (the top-level container is at depth 1) and most values in one read.
    // The plug-in has neither limit; a reader of untrusted input bounds the memory that a
    // tree can take with them (each value costs about a hundred bytes).
    size_t maxDepth;
    size_t maxValues;
    // Whether a refused input is logged, one record per enclosing level, as the plug-in
    // does. A reader of untrusted input turns it off: a refused body of a million levels
    // would otherwise write a million records.
    bool logFailures;
};

constexpr BencodeReadLimits kPluginReadLimits{MAX_BENCODE_FILE_SIZE, MAX_BENCODE_STRING_LENGTH,
                                              static_cast<size_t>(-1), static_cast<size_t>(-1),
                                              true};

// The limit that made a reader refuse its input, if one did.
enum class EBencodeLimit { None, StringLength, Depth, Values };

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

    // The limits of this reader; they survive Reset, Adopt and Clear.
    BencodeReadLimits const& ReadLimits() const { return m_readLimits; }
    void SetReadLimits(BencodeReadLimits const& limits) { m_readLimits = limits; }
    // The first limit that this reader met (its read then failed), or None.
    EBencodeLimit LimitHit() const { return m_limitHit; }
    // The read position, without the side effects of Tellg.
    size_t ReadPosition() const { return m_readPos; }
    // Offset of the first byte that the reader could not take (where a read failed other
    // than by running out of data), or npos.
    size_t InvalidByte() const { return m_invalidByte; }
    void NoteInvalidByte(size_t offset) {
        if (m_invalidByte == std::string::npos) {
            m_invalidByte = offset;
        }
    }
    // Records that the reader refuses its input because of `limit` (the caller fails).
    void NoteLimitHit(EBencodeLimit limit) {
        if (m_limitHit == EBencodeLimit::None) {
            m_limitHit = limit;
        }
    }

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
    BencodeReadLimits m_readLimits = kPluginReadLimits;
    EBencodeLimit m_limitHit = EBencodeLimit::None;
    size_t m_invalidByte = std::string::npos;
};
