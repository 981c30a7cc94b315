// CBencodeList and CBencodeDictionary: in-memory behaviour (ownership, access, equality).
// Their byte format lives in BencodeWire.cpp, their file binding in BencodeStream.cpp.
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
// no destructor has children left to free.
void CBencodeTree::Destroy(std::vector<CBencode*>& values) {
    while (!values.empty()) {
        CBencode* value = values.back();
        values.pop_back();
        if (value != nullptr && value->m_type >= CBencode::eBencodeList &&
            IsPlainContainer(*value)) {
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
    std::vector<CBencode*> values(m_items.rbegin(), m_items.rend());
    m_items.clear();
    CBencodeTree::Destroy(values);
}

bool CBencodeList::Append(std::string const& value) {
    m_items.push_back(new CBencode(value));
    return true;
}

bool CBencodeList::Append(long long value) {
    m_items.push_back(new CBencode(value));
    return true;
}

bool CBencodeList::Append(CBencodeList*& child) {
    if (child == nullptr) {
        child = new CBencodeList(true);
    }
    m_items.push_back(child);
    return true;
}

bool CBencodeList::Append(CBencodeDictionary*& child) {
    if (child == nullptr) {
        child = new CBencodeDictionary(true);
    }
    m_items.push_back(child);
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
    values.reserve(m_entries.size());
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
        m_entries.emplace_hint(found, key, value);
    }
    return true;
}

bool CBencodeDictionary::Add(std::string const& key, long long delta) {
    EntryMap::iterator found = m_entries.find(key);
    if (found == m_entries.end()) {
        m_entries.emplace(key, new CBencode(delta));
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
    CBencodeList* list = new CBencodeList(true);
    m_entries.emplace_hint(found, key, list);
    out = list;
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
    CBencodeDictionary* dictionary = new CBencodeDictionary(true);
    m_entries.emplace_hint(found, key, dictionary);
    out = dictionary;
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
