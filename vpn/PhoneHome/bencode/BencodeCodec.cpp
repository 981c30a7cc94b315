// The bencode byte format: the stream's text operators, the encoders and decoders of
// integers and strings, and the reader and writer of whole trees, which keep the containers
// they are inside of on a heap stack (CBencodeTree) so that no depth of nesting can exhaust
// the thread's stack.
#include <charconv>
#include <cstdint>
#include <cstring>
#include <memory>
#include <typeinfo>

#include "Bencode.h"
#include "BencodeBufferInline.h"
#include "BencodeEvents.h"
#include "BencodeLog.h"
#include "BencodeTree.h"

// A failure of the reader, logged unless the stream's limits turn its logging off.
#define BENCODE_READ_ERROR(buffer, function, ...)        \
    do {                                                 \
        if ((buffer).ReadLimits().logFailures) {         \
            BENCODE_LOG_ERROR_IN(function, __VA_ARGS__); \
        }                                                \
    } while (0)

// ---------------------------------------------------------------------------------------
// Text operators
// ---------------------------------------------------------------------------------------

int CBencodeStream::Peek() {
    return m_buffer.Peek();
}

CBencodeStream& CBencodeStream::operator<<(long long value) {
    char text[sm_iMaxIntSize];
    std::to_chars_result printed = std::to_chars(text, text + sizeof(text) - 1, value);
    if (printed.ec != std::errc()) {
        m_buffer.SetState(CBencodeBuffer::kFailBit);
        BENCODE_LOG_ERROR("snprintf failed");
        return *this;
    }
    m_buffer.PutBytes(text, static_cast<size_t>(printed.ptr - text));
    return *this;
}

// Appends the text up to its first NUL byte.
CBencodeStream& CBencodeStream::operator<<(std::string const& text) {
    char const* nul = static_cast<char const*>(memchr(text.data(), 0, text.size()));
    m_buffer.PutBytes(text.data(),
                      nul != nullptr ? static_cast<size_t>(nul - text.data()) : text.size());
    return *this;
}

CBencodeStream& CBencodeStream::operator>>(long long& value) {
    if (!m_buffer.ReadIntegerText(value)) {
        BENCODE_READ_ERROR(m_buffer, __func__, "Failed to read integer value");
    }
    return *this;
}

// ---------------------------------------------------------------------------------------
// Integers and strings
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
// a NUL is copied again up to it.
inline char* PutTextAt(char* out, char const* in, size_t count) {
    char* end = nullptr;
    if (count >= 8 && count <= 16) {
        end = PutWordPairAt<uint64_t>(out, in, count);
    } else if (count >= 4 && count < 8) {
        end = PutWordPairAt<uint32_t>(out, in, count);
    }
    return end != nullptr ? end : PutBytesAt(out, in, TextLength(in, count));
}

// A dictionary key: its length is its full size, its body the text before any NUL byte.
inline bool PutKey(CBencodeBuffer& buffer, std::string const& key) {
    char* out = buffer.WriteSpace(kMaxDigits + 1 + key.size());
    if (out == nullptr) {
        return false;
    }
    out = PutLength(out, key.size());
    *out++ = ':';
    buffer.CommitWrite(PutTextAt(out, key.data(), key.size()));
    return true;
}

// After GetByte took a byte other than the one expected: notes where it lay, unless the
// read failed for want of data.
void NoteByteRefused(CBencodeBuffer& buffer) {
    if (buffer.Good()) {
        buffer.NoteInvalidByte(buffer.ReadPosition() - 1);
    }
}

}  // namespace

bool CBencode::Externalize(CBencodeStream& stream) {
    CBencodeBuffer& buffer = stream.Buffer();
    if (m_type == eBencodeInteger) {
        char* out = buffer.WriteSpace(kMaxDigits + 2);
        if (out == nullptr) {
            return false;
        }
        *out++ = 'i';
        out = PutDecimal(out, m_integer);
        *out++ = 'e';
        buffer.CommitWrite(out);
        return true;
    }
    if (m_type == eBencodeString) {
        // A string value holds no NUL byte, so its NUL-terminated text is all of it.
        char* out = buffer.WriteSpace(kMaxDigits + 1 + m_string.size());
        if (out == nullptr) {
            return false;
        }
        out = PutLength(out, m_string.size());
        *out++ = ':';
        buffer.CommitWrite(PutBytesAt(out, m_string.data(), m_string.size()));
        return true;
    }
    return false;
}

bool CBencode::Internalize(CBencodeStream& stream) {
    CBencodeBuffer& buffer = stream.Buffer();
    if (m_type == eBencodeInteger) {
        char c = 0;
        if (!buffer.GetByte(c) || c != 'i') {
            NoteByteRefused(buffer);
            BENCODE_READ_ERROR(buffer, __func__, "Failed to internalize integer type identifier");
            return false;
        }
        stream >> m_integer;
        if (!buffer.Good()) {
            BENCODE_READ_ERROR(buffer, __func__, "Failed to internalize integer value");
            return false;
        }
        if (!buffer.GetByte(c) || c != 'e') {
            NoteByteRefused(buffer);
            BENCODE_READ_ERROR(buffer, __func__, "Integer internalize failed");
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
    CBencodeBuffer& buffer = stream.Buffer();
    long long length = 0;
    const size_t start = buffer.ReadPosition();
    stream >> length;
    const bool tooLong =
        buffer.Good() && length >= 0 &&
        static_cast<unsigned long long>(length) > buffer.ReadLimits().maxStringLength;
    if (tooLong) {
        buffer.NoteLimitHit(EBencodeLimit::StringLength);
    }
    if (buffer.Good() && (length < 0 || tooLong)) {
        buffer.NoteInvalidByte(start);
    }
    if (!buffer.Good() || length < 0 || tooLong) {
        BENCODE_READ_ERROR(buffer, __func__, "Illegal bencode string");
        return false;
    }
    char c = 0;
    if (!buffer.GetByte(c) || c != ':') {
        NoteByteRefused(buffer);
        BENCODE_READ_ERROR(buffer, __func__, "Illegal bencode string");
        return false;
    }
    if (!buffer.ReadText(out, static_cast<size_t>(length))) {
        BENCODE_READ_ERROR(buffer, __func__, "Illegal bencode string");
        return false;
    }
    return true;
}

// ---------------------------------------------------------------------------------------
// Whole trees
// ---------------------------------------------------------------------------------------

namespace {

typedef CBencodeDictionary::EntryMap EntryMap;

// A container that a walk is inside of, with its place in it.
struct ReadFrame {
    CBencode* container;
    EntryMap::iterator entry;  // dictionaries: the entry whose value is being read
};

// A new value for the item that `first` (its first byte) starts: "l" a list, "d" a
// dictionary, "i" an integer, anything else a string.
CBencode* NewValue(int first) {
    if (first == 'l') {
        return new CBencodeList(true);
    }
    if (first == 'd') {
        return new CBencodeDictionary(true);
    }
    return new CBencode(first == 'i' ? CBencode::eBencodeInteger : CBencode::eBencodeString);
}

// Whether one more value, whose first byte is `first`, inside a container at `depth` (the
// top-level container is at depth 1) stays within the reader's limits. If not, the reader
// fails, naming the limit.
bool AdmitValue(CBencodeBuffer& buffer, int first, size_t depth, size_t& values) {
    BencodeReadLimits const& limits = buffer.ReadLimits();
    if (++values > limits.maxValues) {
        buffer.NoteLimitHit(EBencodeLimit::Values);
        buffer.SetState(CBencodeBuffer::kFailBit);
        BENCODE_READ_ERROR(buffer, "Internalize", "More values than the reader's limit");
        return false;
    }
    if ((first == 'l' || first == 'd') && depth >= limits.maxDepth) {
        buffer.NoteLimitHit(EBencodeLimit::Depth);
        buffer.SetState(CBencodeBuffer::kFailBit);
        BENCODE_READ_ERROR(buffer, "Internalize", "Nesting deeper than the reader's limit");
        return false;
    }
    return true;
}

// The kind of the integer or string item whose first byte is `first`.
const char* ScalarKindName(int first) {
    return first == 'i' ? "integer" : "string";
}

// Reads the integer or string item whose first byte is `first` into the object that the
// handler gives.
bool ReadScalar(CBencodeStream& stream, int first, CBencodeReadHandler& handler) {
    CBencode& value =
        handler.Scalar(first == 'i' ? CBencode::eBencodeInteger : CBencode::eBencodeString);
    const bool ok = value.CBencode::Internalize(stream);
    handler.ScalarDone(ok);
    return ok;
}

// What became of an item of a container.
enum class ItemStep { Read, Descend, Failed };

// Reads the item of a container at `depth` whose first byte `next` has been peeked: a
// container to descend into is only admitted, an integer or string is read whole. A
// scalar that fails is logged with `failure` (a format taking the kind of the item).
ItemStep ReadItem(CBencodeStream& stream, int next, size_t depth, size_t& values,
                  CBencodeReadHandler& handler, const char* failure) {
    CBencodeBuffer& buffer = stream.Buffer();
    if (!AdmitValue(buffer, next, depth, values)) {
        return ItemStep::Failed;
    }
    if (next == 'l' || next == 'd') {
        return ItemStep::Descend;
    }
    if (!ReadScalar(stream, next, handler)) {
        BENCODE_READ_ERROR(buffer, "Internalize", failure, ScalarKindName(next));
        return ItemStep::Failed;
    }
    return ItemStep::Read;
}

}  // namespace

// The reader proper: the containers it is inside of are one bit each (dictionary or list)
// on a heap stack, values go to the handler as they are read. A container that fails is
// closed as failed, and each enclosing container logs its own message and fails in turn,
// exactly as if every level had been read by a call of its own.
bool CBencodeTree::ReadItems(CBencodeStream& stream, bool dictionary,
                             CBencodeReadHandler& handler) {
    CBencodeBuffer& buffer = stream.Buffer();
    std::vector<bool> open(1, dictionary);  // the innermost last
    CBencode keyReader(CBencode::eBencodeString);
    std::string key;
    size_t values = 0;
    handler.Open(dictionary);
    for (;;) {
        bool finished = false;
        bool ok = false;
        bool descend = false;  // into a container whose opening byte is `next`
        int next = buffer.Peek();
        if (!open.back()) {
            if (!buffer.Good()) {
                BENCODE_READ_ERROR(buffer, "Internalize",
                                   "Failed to internalize list item identifier");
                finished = true;
            } else if (next == 'e') {
                char c = 0;
                buffer.GetByte(c);
                ok = buffer.Good();
                finished = true;
            } else {
                const ItemStep step = ReadItem(stream, next, open.size(), values, handler,
                                               "Failed to internalize list item of type %s");
                descend = step == ItemStep::Descend;
                finished = step == ItemStep::Failed;
            }
        } else {
            if (buffer.Good() && next == 'e') {
                char c = 0;
                buffer.GetByte(c);
                ok = buffer.Good();
                finished = true;
            } else if (!keyReader.GetStringFromStream(stream, key)) {
                BENCODE_READ_ERROR(buffer, "Internalize", "Failed to internalize key string");
                finished = true;
            } else if (!handler.Key(key)) {
                // A duplicate key ends the dictionary; what was read so far is kept.
                BENCODE_READ_ERROR(buffer, "Internalize", "Failed to internalize key string");
                ok = true;
                finished = true;
            } else {
                next = buffer.Peek();
                if (!buffer.Good()) {
                    BENCODE_READ_ERROR(buffer, "Internalize",
                                       "Failed to internalize value type identifier");
                    finished = true;
                } else {
                    const ItemStep step = ReadItem(stream, next, open.size(), values, handler,
                                                   "Failed to internalize value of type %s");
                    descend = step == ItemStep::Descend;
                    finished = step == ItemStep::Failed;
                }
            }
        }
        if (descend) {
            // The child's opening byte was seen by the peek.
            char c = 0;
            buffer.GetByte(c);
            open.push_back(next == 'd');
            handler.Open(next == 'd');
            continue;
        }
        if (!finished) {
            continue;
        }
        // The innermost container is complete: back to its parent, which on a failure logs
        // and fails in turn.
        for (;;) {
            const char* kind = open.back() ? "dictionary" : "list";
            open.pop_back();
            handler.Close(ok);
            if (open.empty()) {
                return ok;
            }
            if (ok) {
                break;
            }
            if (!open.back()) {
                BENCODE_READ_ERROR(buffer, "Internalize",
                                   "Failed to internalize list item of type %s", kind);
            } else {
                BENCODE_READ_ERROR(buffer, "Internalize", "Failed to internalize value of type %s",
                                   kind);
            }
        }
    }
}

// Builds the library's tree from the reader's events. Every container is stored in its
// parent before it is read, so that values lie in memory in the order of the text: later
// walks (writing, comparing, freeing) then run through memory front to back. A value that
// fails to read is removed from its parent and deleted.
class CBencodeTree::TreeBuilder : public CBencodeReadHandler {
public:
    explicit TreeBuilder(CBencode& root) : m_root(root), m_current(nullptr), m_scalar(nullptr) {}

    void Open(bool dictionary) override {
        if (m_current == nullptr) {
            m_current = &m_root;
            return;
        }
        CBencode* child = Add(dictionary ? 'd' : 'l');
        m_parents.push_back(ReadFrame{m_current, m_entry});
        m_current = child;
    }

    void Close(bool ok) override {
        if (m_parents.empty()) {
            return;  // the root: its caller owns it
        }
        CBencode* done = m_current;
        m_current = m_parents.back().container;
        m_entry = m_parents.back().entry;
        m_parents.pop_back();
        if (!ok) {
            Remove(done);
        }
    }

    // Keys usually arrive in order: then the new entry goes at the end, and only an
    // out-of-order key needs a search (which also finds a duplicate).
    bool Key(std::string& key) override {
        EntryMap& entries = static_cast<CBencodeDictionary*>(m_current)->m_entries;
        m_position = entries.end();
        if (!entries.empty() && !(entries.rbegin()->first < key)) {
            m_position = entries.lower_bound(key);
            if (m_position != entries.end() && m_position->first == key) {
                return false;
            }
        }
        m_key = std::move(key);
        return true;
    }

    CBencode& Scalar(CBencode::EContentType type) override {
        m_scalar = Add(type == CBencode::eBencodeInteger ? 'i' : 's');
        return *m_scalar;
    }

    void ScalarDone(bool ok) override {
        if (!ok) {
            Remove(m_scalar);
        }
    }

private:
    // A new value, whose first byte is `first`, stored in the current container.
    CBencode* Add(int first) {
        // Owned here until the container holds it: a failed insertion must not leak it.
        std::unique_ptr<CBencode> owned(NewValue(first));
        if (m_current->m_type == CBencode::eBencodeList) {
            std::vector<CBencode*>& items = static_cast<CBencodeList*>(m_current)->m_items;
            // Lists in feedback data are mostly short: room for four items at once spares
            // the allocations of growing one item at a time.
            if (items.capacity() == 0) {
                items.reserve(4);
            }
            items.push_back(owned.get());
        } else {
            EntryMap& entries = static_cast<CBencodeDictionary*>(m_current)->m_entries;
            m_entry = entries.emplace_hint(m_position, std::move(m_key), owned.get());
        }
        return owned.release();
    }

    // Removes `value`, the current container's last value read, and deletes it.
    void Remove(CBencode* value) {
        if (m_current->m_type == CBencode::eBencodeList) {
            static_cast<CBencodeList*>(m_current)->m_items.pop_back();
        } else {
            static_cast<CBencodeDictionary*>(m_current)->m_entries.erase(m_entry);
        }
        delete value;
    }

    CBencode& m_root;
    CBencode* m_current;
    CBencode* m_scalar;
    std::vector<ReadFrame> m_parents;
    EntryMap::iterator m_entry;     // the current dictionary's entry being read
    EntryMap::iterator m_position;  // where the next key goes
    std::string m_key;
};

bool CBencodeTree::Read(CBencodeStream& stream, CBencode& root) {
    TreeBuilder builder(root);
    return ReadItems(stream, root.m_type == CBencode::eBencodeDictionary, builder);
}

namespace {

// A container that the writer is inside of, with the next of its items to write.
struct WriteFrame {
    CBencode* container;
    size_t index;                    // lists
    EntryMap::const_iterator entry;  // dictionaries
};

}  // namespace

// Library lists and dictionaries inside the tree are walked here; any other value (an
// integer, a string, a subclass) writes itself through its virtual operation. A failure
// inside a container makes each enclosing one log its own message and fail in turn.
bool CBencodeTree::Write(CBencodeStream& stream, CBencode& root) {
    CBencodeBuffer& buffer = stream.Buffer();
    std::vector<WriteFrame> parents;
    CBencode* current = &root;
    size_t index = 0;
    EntryMap::const_iterator entry;
    bool opening = true;
    for (;;) {
        bool ok = false;
        CBencode* child = nullptr;  // a container to descend into
        if (current->m_type == CBencode::eBencodeList) {
            std::vector<CBencode*> const& items = static_cast<CBencodeList*>(current)->m_items;
            if (opening && !buffer.PutByte('l')) {
                BENCODE_LOG_ERROR_IN("Externalize", "Failed to externalize list type identifier");
            } else {
                index = opening ? 0 : index;
                bool failed = false;
                while (index != items.size() && child == nullptr && !failed) {
                    CBencode* item = items[index++];
                    if (item == nullptr) {
                        BENCODE_LOG_ERROR_IN("Externalize", "NULL item stored in list");
                        failed = true;
                    } else if (IsPlainContainer(*item)) {
                        child = item;
                    } else if (!item->Externalize(stream)) {
                        BENCODE_LOG_ERROR_IN("Externalize", "Failed to externalize list item");
                        failed = true;
                    }
                }
                ok = !failed && child == nullptr && buffer.PutByte('e');
            }
        } else {
            EntryMap const& entries = static_cast<CBencodeDictionary*>(current)->m_entries;
            if (opening && !buffer.PutByte('d')) {
                BENCODE_LOG_ERROR_IN("Externalize",
                                     "Failed to externalize dictionary type identifier");
            } else {
                entry = opening ? entries.begin() : entry;
                bool failed = false;
                // The next entry is looked up only once the value is written: it lies in
                // memory right after the value's contents, which the write has just run
                // through.
                while (entry != entries.end() && child == nullptr && !failed) {
                    EntryMap::value_type const& item = *entry;
                    if (item.second == nullptr) {
                        BENCODE_LOG_ERROR_IN("Externalize", "Dictionary item is NULL");
                        failed = true;
                    } else if (!PutKey(buffer, item.first)) {
                        BENCODE_LOG_ERROR_IN("Externalize", "Failed to externalize key string");
                        failed = true;
                    } else if (IsPlainContainer(*item.second)) {
                        child = item.second;
                    } else if (!item.second->Externalize(stream)) {
                        BENCODE_LOG_ERROR_IN("Externalize", "Failed to externalize value");
                        failed = true;
                    } else {
                        ++entry;
                    }
                }
                ok = !failed && child == nullptr && buffer.PutByte('e');
            }
        }
        if (child != nullptr) {
            parents.push_back(WriteFrame{current, index, entry});
            current = child;
            opening = true;
            continue;
        }
        // `current` is complete: back to its parent, which on a failure logs and fails in
        // turn.
        for (;;) {
            if (parents.empty()) {
                return ok;
            }
            current = parents.back().container;
            index = parents.back().index;
            entry = parents.back().entry;
            parents.pop_back();
            if (ok) {
                if (current->m_type == CBencode::eBencodeDictionary) {
                    ++entry;  // past the entry whose value has been written
                }
                break;
            }
            BENCODE_LOG_ERROR_IN("Externalize", current->m_type == CBencode::eBencodeList
                                                    ? "Failed to externalize list item"
                                                    : "Failed to externalize value");
        }
        opening = false;
    }
}

// ---------------------------------------------------------------------------------------
// The containers' encodings
// ---------------------------------------------------------------------------------------

bool CBencodeList::Externalize(CBencodeStream& stream) {
    return CBencodeTree::Write(stream, *this);
}

bool CBencodeDictionary::Externalize(CBencodeStream& stream) {
    return CBencodeTree::Write(stream, *this);
}

namespace {

// Reads a top-level container: its opening byte, then everything in it through
// `readItems`. An empty input is an empty container, left untouched.
template <typename ReadItems>
bool ReadContainer(CBencodeStream& stream, char opening, const char* kind,
                   ReadItems const& readItems) {
    char c = 0;
    if (!stream.Buffer().GetByte(c)) {
        if (stream.Eof()) {
            return true;
        }
    } else if (c == opening) {
        return readItems();
    } else {
        NoteByteRefused(stream.Buffer());
    }
    BENCODE_READ_ERROR(stream.Buffer(), "Internalize", "Failed to internalize %s type identifier",
                       kind);
    return false;
}

}  // namespace

bool CBencodeList::Internalize(CBencodeStream& stream) {
    return ReadContainer(stream, 'l', "list", [this, &stream] {
        Reset();
        return CBencodeTree::Read(stream, *this);
    });
}

bool CBencodeDictionary::Internalize(CBencodeStream& stream) {
    return ReadContainer(stream, 'd', "dictionary", [this, &stream] {
        Reset();
        return CBencodeTree::Read(stream, *this);
    });
}

bool ReadBencodeEvents(CBencodeStream& stream, bool dictionary, CBencodeReadHandler& handler) {
    return ReadContainer(stream, dictionary ? 'd' : 'l', dictionary ? "dictionary" : "list",
                         [&stream, dictionary, &handler] {
                             return CBencodeTree::ReadItems(stream, dictionary, handler);
                         });
}
