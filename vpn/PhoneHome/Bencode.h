// The bencode library: values, lists and dictionaries that own their children, their byte
// format, and the file-backed stream through which a top-level list or dictionary is
// loaded from and saved to disk.
//
// Ownership: a value stored in a list or dictionary belongs to it and is deleted through
// the virtual destructor when the container removes, replaces or resets it, or is itself
// destroyed. A dictionary deletes its stream in its destructor; a list does not (its stream
// stays alive after the list is gone; GetStream() lets its creator release it).
//
// Failures are return values (bool, or EBencodeResult for file operations), each logged
// once through CAppLog where it is detected. Nothing is thrown. None of the classes is
// thread-safe; coordination between processes is the exclusive, non-blocking flock that
// every load and flush holds for the duration of one call.
#pragma once

#include <cstddef>
#include <ios>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "IBencodeSettings.h"

class CBencodeStream;
class CBencodeList;
class CBencodeDictionary;

// Result of the file operations; 0 is success.
enum EBencodeResult : int {
    eBencodeSuccess = 0,
    eBencodeFileError = -1,     // open, stat, read, write or serialisation failed
    eBencodeLockError = -2,     // LoadStream could not take the lock
    eBencodeInvalidData = -3,   // file larger than MAX_BENCODE_FILE_SIZE, or it does not parse
    eBencodeStreamNotSet = -4,  // the container has no stream
};

// Largest file that LoadStream accepts (exactly this size is accepted).
constexpr unsigned int MAX_BENCODE_FILE_SIZE = 0xA00000;
// Largest string length that the reader accepts.
constexpr unsigned int MAX_BENCODE_STRING_LENGTH = 0x80000;

// A bencode value. Integers and strings are plain CBencode objects; lists and dictionaries
// derive from it. Every object carries all three fields; only the one that matches its
// type has meaning. A string value never holds a NUL byte: everything that stores one
// copies up to the first NUL of its source.
class CBencode {
public:
    enum EContentType {
        eBencodeInteger = 0,
        eBencodeString = 1,
        eBencodeList = 2,
        eBencodeDictionary = 3,
    };

    explicit CBencode(long long value);
    explicit CBencode(std::string const& value);
    explicit CBencode(EContentType type);
    CBencode(CBencode const&) = delete;
    CBencode& operator=(CBencode const&) = delete;

    // Virtual operations, in this slot order.
    virtual ~CBencode();
    virtual bool Externalize(CBencodeStream& stream);
    virtual bool Internalize(CBencodeStream& stream);
    virtual void Reset();
    virtual bool operator==(CBencode const& other) const;

    // Accessors: true on success; on a kind mismatch (or overflow for Add) they log one
    // error and leave both the value and the output untouched.
    bool Get(long long& out) const;
    bool Set(long long value);
    bool Add(long long delta);
    bool Get(std::string& out) const;
    bool Set(std::string const& value);

    // Reads one string encoding (length, ':', bytes) for the parsers.
    bool GetStringFromStream(CBencodeStream& stream, std::string& out) const;

    EContentType GetType() const { return m_type; }

protected:
    const EContentType m_type;
    long long m_integer;
    std::string m_string;
};

// An ordered list of owned values.
class CBencodeList : public CBencode {
public:
    explicit CBencodeList(bool useTempFile);
    // Binds the list to `fileName` and loads it; on failure logs, resets the list and
    // reports the result (the list stays bound to the file).
    CBencodeList(std::string const& fileName, EBencodeResult& result, bool useTempFile);

    ~CBencodeList() override;
    bool Externalize(CBencodeStream& stream) override;
    bool Internalize(CBencodeStream& stream) override;
    void Reset() override;
    bool operator==(CBencode const& other) const override;

    bool Append(std::string const& value);
    bool Append(long long value);
    // A null `child` is replaced by a new empty container (useTempFile true). The list takes
    // ownership of the child either way.
    bool Append(CBencodeList*& child);
    bool Append(CBencodeDictionary*& child);
    bool Remove(unsigned int index);
    // The item (still owned by the list), or null when `index` is out of range.
    CBencode* operator[](unsigned int index);

    // File binding.
    EBencodeResult Internalize();
    EBencodeResult Externalize();
    void SetBencodeFileName(std::string const& fileName);

    unsigned int Size() const { return static_cast<unsigned int>(m_items.size()); }
    const std::vector<CBencode*>& Items() const { return m_items; }
    // The bound stream or null. The list does not delete it.
    CBencodeStream* GetStream() const { return m_stream; }

protected:
    std::vector<CBencode*> m_items;
    CBencodeStream* m_stream;
    bool m_useTempFile;
};

// A map from byte-string keys to owned values, kept in byte-wise ascending key order.
class CBencodeDictionary : public CBencode {
public:
    typedef std::map<std::string, CBencode*> EntryMap;

    explicit CBencodeDictionary(bool useTempFile);
    // Binds the dictionary to `fileName` and loads it; on failure logs, resets the
    // dictionary and reports the result (it stays bound to the file).
    CBencodeDictionary(std::string const& fileName, EBencodeResult& result, bool useTempFile);

    ~CBencodeDictionary() override;
    bool Externalize(CBencodeStream& stream) override;
    bool Internalize(CBencodeStream& stream) override;
    void Reset() override;
    bool operator==(CBencode const& other) const override;

    // Insert replaces an existing entry (the old value is deleted). The pointer form takes
    // ownership and accepts null.
    virtual bool Insert(std::string const& key, long long value);
    virtual bool Insert(std::string const& key, std::string const& value);
    virtual bool Insert(std::string const& key, CBencode* value);
    virtual bool Add(std::string const& key, long long delta);
    virtual bool Get(std::string const& key, long long& out);
    virtual bool Get(std::string const& key, std::string& out);
    // With `create`, an absent key gets a new empty container (useTempFile true).
    virtual bool Get(std::string const& key, CBencodeList*& out, bool create);
    virtual bool Get(std::string const& key, CBencodeDictionary*& out, bool create);
    virtual bool GetContentType(std::string const& key, CBencode::EContentType& type);

    // File binding.
    EBencodeResult Internalize();
    EBencodeResult Externalize();
    void SetBencodeFileName(std::string const& fileName);

    unsigned int Size() const { return static_cast<unsigned int>(m_entries.size()); }
    const EntryMap& Entries() const { return m_entries; }
    CBencodeStream* GetStream() const { return m_stream; }

protected:
    EntryMap m_entries;
    CBencodeStream* m_stream;
    bool m_useTempFile;
};

// An in-memory byte buffer with separate read and write positions and the state bits of a
// standard read/write string stream (good, end of data, fail, bad), bound to one file.
// Writes overwrite at the write position and extend the content; reads see everything up
// to the furthest byte ever written or loaded.
class CBencodeStream {
public:
    // Size of the text buffer for integer text, terminator included.
    static const int sm_iMaxIntSize = 21;
    // Permission bits of every file the stream creates (0666, before the umask).
    static const int sm_fileCreationMode = 438;

    CBencodeStream(std::string const& fileName, bool useTempFile);
    CBencodeStream(CBencodeStream const&) = delete;
    CBencodeStream& operator=(CBencodeStream const&) = delete;

    // Virtual operations, in this slot order.
    virtual ~CBencodeStream();
    // Replaces the buffer with the file's content: 0, -1, -2 or -3 (EBencodeResult).
    virtual int LoadStream();
    // Writes the whole buffer to the file (or its ".temp" staging file): 0 or -1.
    virtual int FlushStream(bool& stagedInTempFile);

    // Empties the buffer; the state bits are kept.
    void ResetStream();
    bool Seekg(unsigned int offset, std::ios_base::seekdir direction);
    bool Seekp(unsigned int offset, std::ios_base::seekdir direction);
    int Tellg();
    int Tellp();
    bool Read(char* buffer, unsigned int count);
    bool Write(char const* data, unsigned int count);
    int Peek();
    bool Good() const;
    bool Eof() const;
    bool Fail() const;
    void Clear();

    CBencodeStream& operator<<(long long value);
    CBencodeStream& operator<<(std::string const& text);
    CBencodeStream& operator>>(long long& value);

    std::string const& GetFileName() const { return m_fileName; }
    void SetFileName(std::string const& fileName) { m_fileName = fileName; }
    // Bytes of content (the furthest point loaded or written).
    size_t Size() const { return m_size; }
    char const* Data() const { return m_data.get(); }

private:
    friend class CBencode;
    friend class CBencodeList;
    friend class CBencodeDictionary;

    enum : unsigned int { kEofBit = 1u, kFailBit = 2u, kBadBit = 4u };

    // Buffer primitives used by the readers and writers of the byte format.
    bool GetByte(char& c);
    bool PutByte(char c);
    bool PutBytes(char const* data, size_t count);
    bool ReadText(std::string& out, size_t count);
    // Room for `count` bytes at the write position, or null when the stream refuses to write
    // (not good) or the buffer cannot grow (then the bad bit is set). The writer fills the
    // room and hands its end to CommitWrite.
    char* WriteSpace(size_t count);
    void CommitWrite(char const* end);
    bool Reserve(size_t capacity);
    void SetState(unsigned int bits) { m_state |= bits; }

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
    // Content size before the last ResetStream: a fresh buffer is sized for it at once, so
    // that a container saved again and again does not regrow its buffer on every save.
    size_t m_sizeHint;
    unsigned int m_state;
    // True while the content is known to hold no NUL byte (it was loaded, which cuts at the
    // first NUL, or written only by the value writers): reading a string then needs no scan.
    bool m_nulFree;
    std::string m_fileName;
    bool m_useTempFile;
};

// The narrow settings interface over a dictionary that the agent owns, handed to other
// modules. Keys are bounded; values are copied up to their first NUL byte.
class CBencodeSettings : public IBencodeSettings {
public:
    static const unsigned int m_uiMaxKeySize = 256;
    static const unsigned int m_uiMaxValueStringSize = 1024;

    explicit CBencodeSettings(CBencodeDictionary& dictionary);

    bool Insert(char const* key, long long value) override;
    bool Insert(char const* key, char const* value, bool appendToList) override;
    virtual ~CBencodeSettings();

private:
    CBencodeDictionary& m_dictionary;
};
