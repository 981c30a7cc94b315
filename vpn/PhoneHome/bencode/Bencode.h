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

#include "BencodeBuffer.h"
#include "IBencodeSettings.h"

class CBencodeStream;
class CBencodeTree;
class CBencodeList;
class CBencodeDictionary;

// Result of the file operations; 0 is success.
enum EBencodeResult : int {
    eBencodeSuccess = 0,
    eBencodeFileError = -1,     // open, stat, read, write or serialisation failed
    eBencodeLockError = -2,     // LoadStream could not take the lock
    eBencodeInvalidData = -3,   // file larger than the stream's limit, or it does not parse
    eBencodeStreamNotSet = -4,  // the container has no stream
};

// The plug-in's reader limits, MAX_BENCODE_FILE_SIZE and MAX_BENCODE_STRING_LENGTH, and the
// per-stream BencodeReadLimits are declared in BencodeBuffer.h.

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
    friend class CBencodeTree;

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
    friend class CBencodeTree;

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
    friend class CBencodeTree;

    EntryMap m_entries;
    CBencodeStream* m_stream;
    bool m_useTempFile;
};

// A byte buffer (CBencodeBuffer: separate read and write positions and the state bits of a
// standard read/write string stream) bound to one file, which LoadStream reads into it and
// FlushStream writes it to.
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
    void ResetStream() { m_buffer.Reset(); }
    bool Seekg(unsigned int offset, std::ios_base::seekdir direction) {
        return m_buffer.Seekg(offset, direction);
    }
    bool Seekp(unsigned int offset, std::ios_base::seekdir direction) {
        return m_buffer.Seekp(offset, direction);
    }
    int Tellg() { return m_buffer.Tellg(); }
    int Tellp() { return m_buffer.Tellp(); }
    bool Read(char* buffer, unsigned int count) { return m_buffer.Read(buffer, count); }
    bool Write(char const* data, unsigned int count) { return m_buffer.Write(data, count); }
    int Peek();
    bool Good() const { return m_buffer.Good(); }
    bool Eof() const { return m_buffer.Eof(); }
    bool Fail() const { return m_buffer.Fail(); }
    void Clear() { m_buffer.Clear(); }

    CBencodeStream& operator<<(long long value);
    CBencodeStream& operator<<(std::string const& text);
    CBencodeStream& operator>>(long long& value);

    std::string const& GetFileName() const { return m_fileName; }
    void SetFileName(std::string const& fileName) { m_fileName = fileName; }
    // Bytes of content (the furthest point loaded or written).
    size_t Size() const { return m_buffer.Size(); }
    char const* Data() const { return m_buffer.Data(); }
    // The buffer itself, for the reader and writer of the byte format.
    CBencodeBuffer& Buffer() { return m_buffer; }

    // What this stream's reader accepts (kPluginReadLimits unless set).
    BencodeReadLimits const& ReadLimits() const { return m_buffer.ReadLimits(); }
    void SetReadLimits(BencodeReadLimits const& limits) { m_buffer.SetReadLimits(limits); }

private:
    CBencodeBuffer m_buffer;
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
