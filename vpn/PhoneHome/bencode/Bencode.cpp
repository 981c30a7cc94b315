// CBencode: integer and string values, their accessors and equality.
#include "Bencode.h"

#include <limits>

#include "BencodeLog.h"

CBencode::CBencode(long long value) : m_type(eBencodeInteger), m_integer(value) {}

// Strings are cut at their first NUL byte: the writer emits them as NUL-terminated text.
CBencode::CBencode(std::string const& value)
    : m_type(eBencodeString), m_integer(0), m_string(value.c_str()) {}

CBencode::CBencode(EContentType type) : m_type(type), m_integer(0) {}

CBencode::~CBencode() {}

bool CBencode::Get(long long& out) const {
    if (m_type != eBencodeInteger) {
        BENCODE_LOG_ERROR("Bencode is not of type integer");
        return false;
    }
    out = m_integer;
    return true;
}

bool CBencode::Set(long long value) {
    if (m_type != eBencodeInteger) {
        BENCODE_LOG_ERROR("Bencode is not of type integer");
        return false;
    }
    m_integer = value;
    return true;
}

bool CBencode::Add(long long delta) {
    if (m_type != eBencodeInteger) {
        BENCODE_LOG_ERROR("Add function called for non-Integer bencode type");
        return false;
    }
    // Reaching either limit exactly is allowed; passing it is not.
    if ((delta > 0 && m_integer > std::numeric_limits<long long>::max() - delta) ||
        (delta < 0 && m_integer < std::numeric_limits<long long>::min() - delta)) {
        BENCODE_LOG_ERROR("Add operation will cause integer overflow");
        return false;
    }
    m_integer += delta;
    return true;
}

bool CBencode::Get(std::string& out) const {
    if (m_type != eBencodeString) {
        BENCODE_LOG_ERROR("Bencode is not of type string");
        return false;
    }
    out.assign(m_string.c_str());
    return true;
}

bool CBencode::Set(std::string const& value) {
    if (m_type != eBencodeString) {
        BENCODE_LOG_ERROR("Bencode is not of type string");
        return false;
    }
    m_string.assign(value.c_str());
    return true;
}

void CBencode::Reset() {
    if (m_type == eBencodeInteger) {
        m_integer = 0;
    } else if (m_type == eBencodeString) {
        m_string.clear();
    }
}

bool CBencode::operator==(CBencode const& other) const {
    if (m_type != other.m_type) {
        return false;
    }
    switch (m_type) {
        case eBencodeInteger:
            return m_integer == other.m_integer;
        case eBencodeString:
            return m_string == other.m_string;
        default:
            // Containers override this operation; reaching it with one is a fault.
            BENCODE_LOG_ERROR("Unexpected Bencode type");
            return false;
    }
}
