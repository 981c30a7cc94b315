// The two reads of a dump without a tree.
#include "OrderedPrint.h"

#include <algorithm>
#include <cstring>

bool COrderPlanner::KeyLess::operator()(const KeySpan& a, const KeySpan& b) const {
    // Byte-wise, as std::string orders the keys of the library's dictionaries.
    const int order = memcmp(data + a.text, data + b.text, std::min(a.size, b.size));
    return order != 0 ? order < 0 : a.size < b.size;
}

COrderPlanner::COrderPlanner(CBencodeStream& stream)
    : m_stream(stream), m_integer(CBencode::eBencodeInteger), m_string(CBencode::eBencodeString) {}

uint32_t COrderPlanner::Position() const {
    return static_cast<uint32_t>(m_stream.Buffer().ReadPosition());
}

void COrderPlanner::Open(bool dictionary) {
    m_open.push_back(dictionary);
    if (dictionary) {
        m_dictionaries.push_back(Dictionary{Position(), Position(), {}, nullptr, 0, false});
    }
}

void COrderPlanner::Close(bool ok) {
    const bool dictionary = m_open.back();
    m_open.pop_back();
    if (dictionary) {
        Dictionary& done = m_dictionaries.back();
        if (ok && done.all != nullptr) {
            EntryOrder order;
            order.entries.reserve(done.all->size());
            for (const KeySpan& key : *done.all) {
                order.entries.push_back(key.entry);
            }
            done.all.reset();
            // Its closing 'e' has just been read, unless a repeated key ended it.
            order.end = done.ended ? done.repeated : Position() - 1;
            m_plan.emplace(done.id, std::move(order));
        }
        m_dictionaries.pop_back();
    }
    ValueDone();
}

bool COrderPlanner::Key(std::string& key) {
    Dictionary& dictionary = m_dictionaries.back();
    const uint32_t size = static_cast<uint32_t>(key.size());
    const KeySpan span{dictionary.entryStart, Position() - size, size};
    const KeyLess less{m_stream.Data()};
    if (dictionary.all == nullptr) {
        if (dictionary.sorted.empty() || less(dictionary.sorted.back(), span)) {
            dictionary.sorted.push_back(span);
            return true;
        }
        dictionary.all.reset(new std::set<KeySpan, KeyLess>(dictionary.sorted.begin(),
                                                            dictionary.sorted.end(), less));
        std::vector<KeySpan>().swap(dictionary.sorted);
    }
    if (!dictionary.all->insert(span).second) {
        dictionary.repeated = span.entry;
        dictionary.ended = true;
        return false;
    }
    return true;
}

CBencode& COrderPlanner::Scalar(CBencode::EContentType type) {
    return type == CBencode::eBencodeInteger ? m_integer : m_string;
}

void COrderPlanner::ScalarDone(bool) {
    ValueDone();
}

// A value of the innermost container has been read: in a dictionary, the next entry
// starts here.
void COrderPlanner::ValueDone() {
    if (!m_open.empty() && m_open.back()) {
        m_dictionaries.back().entryStart = Position();
    }
}

COrderedPrinter::COrderedPrinter(CBencodeStream& stream, const OrderPlan& plan,
                                 bencodejson::StreamWriter& out)
    : m_stream(stream),
      m_plan(plan),
      m_out(out),
      m_integer(CBencode::eBencodeInteger),
      m_string(CBencode::eBencodeString),
      m_scalar(&m_string),
      m_depth(0),
      m_opened(false) {}

void COrderedPrinter::Open(bool dictionary) {
    m_opened = true;
    m_out.Open(dictionary);
    ++m_depth;
    if (dictionary) {
        OrderPlan::const_iterator order =
            m_plan.find(static_cast<uint32_t>(m_stream.Buffer().ReadPosition()));
        if (order != m_plan.end()) {
            m_visits.push_back(Visit{&order->second, 0, m_depth});
            VisitNext();
        }
    }
}

void COrderedPrinter::Close(bool) {
    m_out.Close();
    if (!m_visits.empty() && m_visits.back().depth == m_depth) {
        m_visits.pop_back();
    }
    --m_depth;
    ValueDone();
}

bool COrderedPrinter::Key(std::string& key) {
    if (!m_visits.empty() && m_visits.back().depth == m_depth &&
        m_visits.back().next > m_visits.back().order->entries.size()) {
        return false;  // the repeated key that ends this dictionary
    }
    m_out.Key(key);
    return true;
}

CBencode& COrderedPrinter::Scalar(CBencode::EContentType type) {
    CBencode& value = type == CBencode::eBencodeInteger ? m_integer : m_string;
    m_scalar = &value;
    return value;
}

void COrderedPrinter::ScalarDone(bool) {
    m_out.Scalar(*m_scalar);
    ValueDone();
}

void COrderedPrinter::ValueDone() {
    if (!m_visits.empty() && m_visits.back().depth == m_depth) {
        VisitNext();
    }
}

// Moves the read position to the next entry of the dictionary being visited, or to what
// ends it.
void COrderedPrinter::VisitNext() {
    Visit& visit = m_visits.back();
    const std::vector<uint32_t>& entries = visit.order->entries;
    const uint32_t offset = visit.next < entries.size() ? entries[visit.next] : visit.order->end;
    ++visit.next;
    m_stream.Seekg(offset, std::ios_base::beg);
}
