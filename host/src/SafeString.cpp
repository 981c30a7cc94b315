// Bounded string copy.
#include "SafeString.h"

#include <cstring>

size_t safe_strlcpyA(char* destination, const char* source, unsigned int size) {
    if (destination == nullptr) {
        return 0;
    }
    if (source == nullptr) {
        if (size > 0) {
            destination[0] = '\0';
        }
        return 0;
    }
    size_t length = strlen(source);
    if (size > 0) {
        size_t copied = length < size ? length : size - 1;
        memcpy(destination, source, copied);
        destination[copied] = '\0';
    }
    return length;
}
