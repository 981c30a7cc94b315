// The walks over a whole bencode tree: reading, writing, comparing and freeing. Each keeps
// the containers it is inside of on a stack of its own on the heap, never on the thread's
// stack, so that a tree of any depth (a 10 MiB file holds millions of levels) is handled on
// any thread. Only the library's own sources include this header.
#pragma once

#include <typeinfo>
#include <vector>

#include "Bencode.h"
#include "BencodeEvents.h"

class CBencodeTree {
public:
    // Reads the items of `root` (a CBencodeList or CBencodeDictionary) whose opening byte
    // has been read and which has been emptied, to the end of the tree.
    static bool Read(CBencodeStream& stream, CBencode& root);
    // Reads the items of a top-level list (or dictionary) whose opening byte has been read,
    // to the end of it, reporting them to `handler`.
    static bool ReadItems(CBencodeStream& stream, bool dictionary, CBencodeReadHandler& handler);
    // Writes `root` (a CBencodeList or CBencodeDictionary), opening and closing bytes
    // included.
    static bool Write(CBencodeStream& stream, CBencode& root);
    // Deep equality of `mine` (a CBencodeList or CBencodeDictionary) with `other`.
    static bool Equal(CBencode const& mine, CBencode const& other);
    // Deletes every value in `values`, and what they own, emptying the vector. Never
    // throws: when memory for its own stack is short, it frees what is left with Empty.
    static void Destroy(std::vector<CBencode*>& values) noexcept;
    // Deletes everything `container` (a plain list or dictionary) owns without allocating:
    // slower (each value is reached from the top again), for when memory is short.
    static void Empty(CBencode& container) noexcept;

    // Whether `value` is a library list or dictionary (not a subclass with operations of
    // its own), whose walk the functions above do themselves instead of calling its virtual
    // operation.
    static bool IsPlainContainer(CBencode const& value) {
        if (value.m_type == CBencode::eBencodeList) {
            return typeid(value) == typeid(CBencodeList);
        }
        return value.m_type == CBencode::eBencodeDictionary &&
               typeid(value) == typeid(CBencodeDictionary);
    }

private:
    class TreeBuilder;  // Read's handler
};
