// Small text helpers of the plug-in.
#pragma once

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

}  // namespace phonehome
