// The bencode reader without a tree: it reports what it finds, in the order of the text, to
// a handler. The library's own tree reader is one such handler, so a reader that builds
// nothing keeps exactly the byte rules, limits, log records and error offsets of
// CBencodeList::Internalize and CBencodeDictionary::Internalize. Holding on to what it is
// told is the handler's choice: the reader itself keeps one bit per open container.
#pragma once

#include <string>

#include "Bencode.h"

class CBencodeReadHandler {
public:
    virtual ~CBencodeReadHandler() = default;

    // A container begins (its opening byte has been read): the top-level one first, then
    // each one inside it, after its key in a dictionary.
    virtual void Open(bool dictionary) = 0;
    // The innermost open container ends. When `ok` is false it failed to read: it is to be
    // dropped from its parent, which fails in turn (the top-level one included).
    virtual void Close(bool ok) = 0;
    // A key of the innermost open dictionary; the handler may take its bytes. False when
    // it repeats a key of the same dictionary: that ends the dictionary, which keeps what
    // came before, and reading goes on in its parent after the key.
    virtual bool Key(std::string& key) = 0;
    // An integer or string item begins: the object it is read into.
    virtual CBencode& Scalar(CBencode::EContentType type) = 0;
    // The item given by the last Scalar has been read (`ok`) or failed to read (it is to be
    // dropped; its container fails).
    virtual void ScalarDone(bool ok) = 0;
};

// Reads a top-level list (or dictionary) from `stream` as CBencodeList::Internalize (or
// CBencodeDictionary::Internalize) does, reporting it to `handler`; the result is theirs.
// An empty input is an empty container that is never opened. The handler may move the
// stream's read position between events (to visit a dictionary's entries in another
// order, say): the reader continues from wherever it is left.
bool ReadBencodeEvents(CBencodeStream& stream, bool dictionary, CBencodeReadHandler& handler);
