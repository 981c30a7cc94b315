// CBencodeList and CBencodeDictionary: in-memory behaviour (ownership, access, equality).
// Their byte format lives in BencodeWire.cpp, their file binding in BencodeStream.cpp.
#include "Bencode.h"

#include "BencodeLog.h"

// ---------------------------------------------------------------------------------------
// CBencodeList
// ---------------------------------------------------------------------------------------

CBencodeList::CBencodeList(bool useTempFile)
    : CBencode(eBencodeList), m_stream(nullptr), m_useTempFile(useTempFile) {}

// The stream is deliberately left alive: only the dictionary deletes its stream.
CBencodeList::~CBencodeList() {
    Reset();
}

void CBencodeList::Reset() {
    for (CBencode* item : m_items) {
        delete item;
    }
    m_items.clear();
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
    CBencodeList const* list = dynamic_cast<CBencodeList const*>(&other);
    if (other.GetType() != eBencodeList || list == nullptr) {
        return false;
    }
    if (m_items.size() != list->m_items.size()) {
        return false;
    }
    for (size_t i = 0; i < m_items.size(); ++i) {
        CBencode const* mine = m_items[i];
        CBencode const* theirs = list->m_items[i];
        if (mine == nullptr || theirs == nullptr || !(*mine == *theirs)) {
            return false;
        }
    }
    return true;
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
    for (EntryMap::value_type& entry : m_entries) {
        delete entry.second;
    }
    m_entries.clear();
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
    CBencodeDictionary const* dictionary = dynamic_cast<CBencodeDictionary const*>(&other);
    if (other.GetType() != eBencodeDictionary || dictionary == nullptr) {
        return false;
    }
    if (m_entries.size() != dictionary->m_entries.size()) {
        return false;
    }
    EntryMap::const_iterator theirs = dictionary->m_entries.begin();
    for (EntryMap::const_iterator mine = m_entries.begin(); mine != m_entries.end();
         ++mine, ++theirs) {
        if (mine->second == nullptr || theirs->second == nullptr ||
            !(*mine->second == *theirs->second)) {
            return false;
        }
    }
    return true;
}
