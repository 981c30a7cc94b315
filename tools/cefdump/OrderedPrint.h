// Printing a bencode input as JSON without building its tree, in two reads of the same
// bytes by the library's event reader. The first validates and notes which dictionaries
// have keys out of order (or repeated, which ends a dictionary), with the entries of each
// in key order; the second prints as it reads, visiting the entries of those dictionaries
// in that order by moving the read position. Memory: one bit per open container for the
// reader and one byte for the writer, the keys of the dictionaries being read during the
// first read, and one offset per entry of a dictionary whose keys are out of order.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "Bencode.h"
#include "BencodeEvents.h"
#include "BencodeJson.h"

// Where the entries of a dictionary whose keys are out of order lie.
struct EntryOrder {
    std::vector<uint32_t> entries;  // offsets of the entries (their keys) in key order
    uint32_t end;                   // offset of the byte that ends it: its 'e', or the repeated key
};

// By the offset just after each such dictionary's opening byte.
using OrderPlan = std::unordered_map<uint32_t, EntryOrder>;

// The first read: the handler notes nothing but the plan.
class COrderPlanner : public CBencodeReadHandler {
public:
    explicit COrderPlanner(CBencodeStream& stream);

    void Open(bool dictionary) override;
    void Close(bool ok) override;
    bool Key(std::string& key) override;
    CBencode& Scalar(CBencode::EContentType type) override;
    void ScalarDone(bool ok) override;

    OrderPlan& Plan() { return m_plan; }

    // A key as it lies in the input (which holds no NUL byte).
    struct KeySpan {
        uint32_t entry;  // offset of the entry: the key's length
        uint32_t text;   // offset of the key's bytes
        uint32_t size;
    };
    struct KeyLess {
        const char* data;
        bool operator()(const KeySpan& a, const KeySpan& b) const;
    };

private:
    struct Dictionary {
        uint32_t id;                                      // offset after its opening byte
        uint32_t entryStart;                              // offset of the entry being read
        std::vector<KeySpan> sorted;                      // its keys while they arrive in order
        std::unique_ptr<std::set<KeySpan, KeyLess>> all;  // all of them once one did not
        uint32_t repeated;  // offset of the repeated key that ended it, if `ended`
        bool ended;
    };

    uint32_t Position() const;
    void ValueDone();

    CBencodeStream& m_stream;
    CBencode m_integer;  // what the reader reads integers and strings into
    CBencode m_string;
    std::vector<bool> m_open;               // per open container: a dictionary
    std::deque<Dictionary> m_dictionaries;  // grows by blocks, without spare room
    OrderPlan m_plan;
};

// The second read: prints to `out` as it reads, following `plan`.
class COrderedPrinter : public CBencodeReadHandler {
public:
    COrderedPrinter(CBencodeStream& stream, const OrderPlan& plan, bencodejson::StreamWriter& out);

    void Open(bool dictionary) override;
    void Close(bool ok) override;
    bool Key(std::string& key) override;
    CBencode& Scalar(CBencode::EContentType type) override;
    void ScalarDone(bool ok) override;

    bool Opened() const { return m_opened; }

private:
    // A dictionary printed in key order: the entry to visit next (entries.size() for its
    // end, past that once the end is reached).
    struct Visit {
        const EntryOrder* order;
        size_t next;
        size_t depth;
    };

    void ValueDone();
    void VisitNext();

    CBencodeStream& m_stream;
    const OrderPlan& m_plan;
    bencodejson::StreamWriter& m_out;
    CBencode m_integer;  // what the reader reads integers and strings into
    CBencode m_string;
    const CBencode* m_scalar;  // the one being read
    size_t m_depth;
    std::vector<Visit> m_visits;
    bool m_opened;
};
