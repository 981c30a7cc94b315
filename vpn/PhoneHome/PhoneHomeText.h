// Small text helpers of the plug-in.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <string>

namespace phonehome {

// Lower-cases ASCII letters byte by byte, as tolower does in the C locale, whatever
// locale the host process has set.
inline std::string AsciiLower(std::string text) {
    for (char& c : text) {
        if (c >= 'A' && c <= 'Z') {
            c = static_cast<char>(c - 'A' + 'a');
        }
    }
    return text;
}

// A decimal as strtol reads it into the 32-bit long of the service's target (leading
// blanks and sign, stops at the first non-digit, 0 when there is no number, saturated at
// the ends of the range), the same on every architecture.
inline int32_t ParseLong32(const std::string& text) {
    long long value = strtoll(text.c_str(), nullptr, 10);
    if (value > INT32_MAX) {
        return INT32_MAX;
    }
    if (value < INT32_MIN) {
        return INT32_MIN;
    }
    return static_cast<int32_t>(value);
}

}  // namespace phonehome
