// CBencodeList and CBencodeDictionary: in-memory behaviour (ownership, access, equality).
// Their byte format lives in BencodeWire.cpp, their file binding in BencodeStream.cpp.
#include <iterator>
#include <memory>
#include <new>
#include <typeinfo>

#include "Bencode.h"
#include "BencodeLog.h"
#include "BencodeTree.h"

// ---------------------------------------------------------------------------------------
// Freeing and comparing whole trees
// ---------------------------------------------------------------------------------------

namespace {

typedef CBencodeDictionary::EntryMap EntryMap;

// Whether any of the values is a container whose children the destructor would free.
template <typename Iterator, typename Value>
bool HoldsPlainContainer(Iterator begin, Iterator end, Value value) {
    for (; begin != end; ++begin) {
        CBencode const* item = value(*begin);
        if (item != nullptr && item->GetType() >= CBencode::eBencodeList &&
            CBencodeTree::IsPlainContainer(*item)) {
            return true;
        }
    }
    return false;
}

CBencode* ItemOf(CBencode* item) {
    return item;
}
CBencode* ValueOf(EntryMap::value_type const& entry) {
    return entry.second;
}

}  // namespace

// The values are taken from the back; a container's children are detached and put on the
// vector in reverse, so that the tree is freed in the order in which it lies in memory and
// no destructor has children left to free. Room for the children is made before any is
// moved, so a container is either handed over whole or emptied in place.
void CBencodeTree::Destroy(std::vector<CBencode*>& values) noexcept {
    while (!values.empty()) {
        CBencode* value = values.back();
        values.pop_back();
        if (value != nullptr && value->m_type >= CBencode::eBencodeList &&
            IsPlainContainer(*value)) {
            const bool list = value->m_type == CBencode::eBencodeList;
            const size_t children = list
                                        ? static_cast<CBencodeList*>(value)->m_items.size()
                                        : static_cast<CBencodeDictionary*>(value)->m_entries.size();
            try {
                values.reserve(values.size() + children);
            } catch (const std::bad_alloc&) {
                Empty(*value);
            }
            if (value->m_type == CBencode::eBencodeList) {
                std::vector<CBencode*>& items = static_cast<CBencodeList*>(value)->m_items;
                values.insert(values.end(), items.rbegin(), items.rend());
                items.clear();
            } else {
                EntryMap& entries = static_cast<CBencodeDictionary*>(value)->m_entries;
                for (EntryMap::reverse_iterator entry = entries.rbegin(); entry != entries.rend();
                     ++entry) {
                    values.push_back(entry->second);
                }
                entries.clear();
            }
        }
        delete value;
    }
}

namespace {

// Whether `value` is a plain container that still owns something.
bool OwnsChildren(CBencode const* value) {
    if (value == nullptr || value->GetType() < CBencode::eBencodeList ||
        !CBencodeTree::IsPlainContainer(*value)) {
        return false;
    }
    return value->GetType() == CBencode::eBencodeList
               ? static_cast<CBencodeList const*>(value)->Size() != 0
               : static_cast<CBencodeDictionary const*>(value)->Size() != 0;
}

}  // namespace

// Walks down the last children to a value that owns nothing, detaches it from its parent
// (which frees no memory and needs none) and deletes it; until the container is empty.
void CBencodeTree::Empty(CBencode& container) noexcept {
    while (OwnsChildren(&container)) {
        CBencode* parent = &container;
        for (;;) {
            CBencode* last = nullptr;
            if (parent->m_type == CBencode::eBencodeList) {
                last = static_cast<CBencodeList*>(parent)->m_items.back();
            } else {
                last = std::prev(static_cast<CBencodeDictionary*>(parent)->m_entries.end())->second;
            }
            if (OwnsChildren(last)) {
                parent = last;
                continue;
            }
            if (parent->m_type == CBencode::eBencodeList) {
                static_cast<CBencodeList*>(parent)->m_items.pop_back();
            } else {
                EntryMap& entries = static_cast<CBencodeDictionary*>(parent)->m_entries;
                entries.erase(std::prev(entries.end()));
            }
            delete last;
            break;
        }
    }
}

namespace {

// Two containers being compared, with the place reached in each.
struct CompareFrame {
    CBencode const* mine;
    CBencode const* theirs;
    size_t index;                    // lists
    EntryMap::const_iterator next;   // dictionaries: mine
    EntryMap::const_iterator other;  // dictionaries: theirs
};

// The checks of a container's operator== before its items are walked: `theirs` must be a
// container of the same kind with as many items.
bool Comparable(CBencode const& mine, CBencode const& theirs) {
    if (mine.GetType() == CBencode::eBencodeList) {
        CBencodeList const* list = dynamic_cast<CBencodeList const*>(&theirs);
        return theirs.GetType() == CBencode::eBencodeList && list != nullptr &&
               static_cast<CBencodeList const&>(mine).Size() == list->Size();
    }
    CBencodeDictionary const* dictionary = dynamic_cast<CBencodeDictionary const*>(&theirs);
    return theirs.GetType() == CBencode::eBencodeDictionary && dictionary != nullptr &&
           static_cast<CBencodeDictionary const&>(mine).Size() == dictionary->Size();
}

}  // namespace

// Library containers inside the trees are walked here; any other value compares itself
// through its virtual operator==. The first difference decides.
bool CBencodeTree::Equal(CBencode const& mine, CBencode const& other) {
    if (!Comparable(mine, other)) {
        return false;
    }
    std::vector<CompareFrame> stack;
    auto open = [&stack](CBencode const& a, CBencode const& b) {
        CompareFrame frame{&a, &b, 0, EntryMap::const_iterator(), EntryMap::const_iterator()};
        if (a.GetType() == CBencode::eBencodeDictionary) {
            frame.next = static_cast<CBencodeDictionary const&>(a).m_entries.begin();
            frame.other = static_cast<CBencodeDictionary const&>(b).m_entries.begin();
        }
        stack.push_back(frame);
    };
    open(mine, other);
    while (!stack.empty()) {
        CompareFrame& frame = stack.back();
        CBencode const* a = nullptr;
        CBencode const* b = nullptr;
        if (frame.mine->GetType() == CBencode::eBencodeList) {
            std::vector<CBencode*> const& items =
                static_cast<CBencodeList const*>(frame.mine)->m_items;
            if (frame.index == items.size()) {
                stack.pop_back();
                continue;
            }
            a = items[frame.index];
            b = static_cast<CBencodeList const*>(frame.theirs)->m_items[frame.index];
            ++frame.index;
        } else {
            if (frame.next == static_cast<CBencodeDictionary const*>(frame.mine)->m_entries.end()) {
                stack.pop_back();
                continue;
            }
            // Keys are not compared: values are compared pairwise in key order.
            a = (frame.next++)->second;
            b = (frame.other++)->second;
        }
        if (a == nullptr || b == nullptr) {
            return false;
        }
        if (a->GetType() >= CBencode::eBencodeList && IsPlainContainer(*a)) {
            if (!Comparable(*a, *b)) {
                return false;
            }
            open(*a, *b);
        } else if (!(*a == *b)) {
            return false;
        }
    }
    return true;
}

// ---------------------------------------------------------------------------------------
// CBencodeList
// ---------------------------------------------------------------------------------------

CBencodeList::CBencodeList(bool useTempFile)
    : CBencode(eBencodeList), m_stream(nullptr), m_useTempFile(useTempFile) {}

// The stream is deliberately left alive: only the dictionary deletes its stream.
CBencodeList::~CBencodeList() {
    Reset();
}

// Items that hold no container of their own are deleted here; anything deeper goes to the
// walk that frees a tree without recursion.
void CBencodeList::Reset() {
    if (!HoldsPlainContainer(m_items.begin(), m_items.end(), ItemOf)) {
        for (CBencode* item : m_items) {
            delete item;
        }
        m_items.clear();
        return;
    }
    try {
        std::vector<CBencode*> values(m_items.rbegin(), m_items.rend());
        m_items.clear();
        CBencodeTree::Destroy(values);
    } catch (const std::bad_alloc&) {
        CBencodeTree::Empty(*this);  // a destructor may not throw: freed without memory
    }
}

// A container owns what is given to it from the call on: if there is no memory to keep a
// value, the value is deleted before the failure goes on to the caller.
namespace {

template <typename Value>
void AppendOwned(std::vector<CBencode*>& items, Value*& value) {
    std::unique_ptr<Value> owned(value);
    value = nullptr;
    items.push_back(owned.get());
    value = owned.release();
}

}  // namespace

bool CBencodeList::Append(std::string const& value) {
    CBencode* item = new CBencode(value);
    AppendOwned(m_items, item);
    return true;
}

bool CBencodeList::Append(long long value) {
    CBencode* item = new CBencode(value);
    AppendOwned(m_items, item);
    return true;
}

bool CBencodeList::Append(CBencodeList*& child) {
    if (child == nullptr) {
        child = new CBencodeList(true);
    }
    AppendOwned(m_items, child);
    return true;
}

bool CBencodeList::Append(CBencodeDictionary*& child) {
    if (child == nullptr) {
        child = new CBencodeDictionary(true);
    }
    AppendOwned(m_items, child);
    return true;
}

bool CBencodeList::Remove(unsigned int index) {
    if (index >= m_items.size()) {
        BENCODE_LOG_ERROR("Out-of-bound bencode list item access");
        return false;
    }
    delete m_items[index];
    m_items.erase(m_items.begin() + index);
    return true;
}

CBencode* CBencodeList::operator[](unsigned int index) {
    if (index >= m_items.size()) {
        BENCODE_LOG_ERROR("Out-of-bound bencode list item access");
        return nullptr;
    }
    return m_items[index];
}

bool CBencodeList::operator==(CBencode const& other) const {
    return CBencodeTree::Equal(*this, other);
}

// ---------------------------------------------------------------------------------------
// CBencodeDictionary
// ---------------------------------------------------------------------------------------

CBencodeDictionary::CBencodeDictionary(bool useTempFile)
    : CBencode(eBencodeDictionary), m_stream(nullptr), m_useTempFile(useTempFile) {}

CBencodeDictionary::~CBencodeDictionary() {
    Reset();
    delete m_stream;
}

void CBencodeDictionary::Reset() {
    if (!HoldsPlainContainer(m_entries.begin(), m_entries.end(), ValueOf)) {
        for (EntryMap::value_type& entry : m_entries) {
            delete entry.second;
        }
        m_entries.clear();
        return;
    }
    std::vector<CBencode*> values;
    try {
        values.reserve(m_entries.size());
    } catch (const std::bad_alloc&) {
        CBencodeTree::Empty(*this);  // a destructor may not throw: freed without memory
        return;
    }
    for (EntryMap::reverse_iterator entry = m_entries.rbegin(); entry != m_entries.rend();
         ++entry) {
        values.push_back(entry->second);
    }
    m_entries.clear();
    CBencodeTree::Destroy(values);
}

bool CBencodeDictionary::Insert(std::string const& key, long long value) {
    return CBencodeDictionary::Insert(key, new CBencode(value));
}

bool CBencodeDictionary::Insert(std::string const& key, std::string const& value) {
    return CBencodeDictionary::Insert(key, new CBencode(value));
}

// Replaces: the previous value under `key` is deleted first. A null value is stored as is.
bool CBencodeDictionary::Insert(std::string const& key, CBencode* value) {
    EntryMap::iterator found = m_entries.lower_bound(key);
    if (found != m_entries.end() && found->first == key) {
        delete found->second;
        found->second = value;
    } else {
        std::unique_ptr<CBencode> owned(value);
        m_entries.emplace_hint(found, key, value);
        owned.release();
    }
    return true;
}

bool CBencodeDictionary::Add(std::string const& key, long long delta) {
    EntryMap::iterator found = m_entries.find(key);
    if (found == m_entries.end()) {
        std::unique_ptr<CBencode> value(new CBencode(delta));
        m_entries.emplace(key, value.get());
        value.release();
        return true;
    }
    if (found->second == nullptr) {
        return false;
    }
    return found->second->Add(delta);
}

bool CBencodeDictionary::Get(std::string const& key, long long& out) {
    EntryMap::const_iterator found = m_entries.find(key);
    if (found == m_entries.end() || found->second == nullptr) {
        return false;
    }
    return found->second->Get(out);
}

bool CBencodeDictionary::Get(std::string const& key, std::string& out) {
    EntryMap::const_iterator found = m_entries.find(key);
    if (found == m_entries.end() || found->second == nullptr) {
        return false;
    }
    return found->second->Get(out);
}

bool CBencodeDictionary::Get(std::string const& key, CBencodeList*& out, bool create) {
    EntryMap::iterator found = m_entries.lower_bound(key);
    if (found != m_entries.end() && found->first == key) {
        CBencodeList* list = dynamic_cast<CBencodeList*>(found->second);
        if (list == nullptr || list->GetType() != eBencodeList) {
            BENCODE_LOG_ERROR("Dictionary item is not a list");
            out = nullptr;
            return false;
        }
        out = list;
        return true;
    }
    if (!create) {
        return false;
    }
    std::unique_ptr<CBencodeList> list(new CBencodeList(true));
    m_entries.emplace_hint(found, key, list.get());
    out = list.release();
    return true;
}

bool CBencodeDictionary::Get(std::string const& key, CBencodeDictionary*& out, bool create) {
    EntryMap::iterator found = m_entries.lower_bound(key);
    if (found != m_entries.end() && found->first == key) {
        CBencodeDictionary* dictionary = dynamic_cast<CBencodeDictionary*>(found->second);
        if (dictionary == nullptr || dictionary->GetType() != eBencodeDictionary) {
            BENCODE_LOG_ERROR("Dictionary item is not a dictionary");
            out = nullptr;
            return false;
        }
        out = dictionary;
        return true;
    }
    if (!create) {
        return false;
    }
    std::unique_ptr<CBencodeDictionary> dictionary(new CBencodeDictionary(true));
    m_entries.emplace_hint(found, key, dictionary.get());
    out = dictionary.release();
    return true;
}

// The stored value is not tested for null here (unlike the typed Get operations).
bool CBencodeDictionary::GetContentType(std::string const& key, CBencode::EContentType& type) {
    EntryMap::const_iterator found = m_entries.find(key);
    if (found == m_entries.end()) {
        return false;
    }
    type = found->second->GetType();
    return true;
}

// Keys are not compared: values are compared pairwise in key order.
bool CBencodeDictionary::operator==(CBencode const& other) const {
    return CBencodeTree::Equal(*this, other);
}
