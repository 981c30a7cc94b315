// Bounded string copy.
#include "SafeString.h"

#include <cstring>

#include "HostLogInternal.h"

namespace {

const char kLogSource[] = "host/src/SafeString";

}  // namespace

size_t safe_strlcpyA(char* destination, const char* source, unsigned int size) {
    if (destination == nullptr) {
        return PWHOST_REFUSE(0, "no destination buffer");
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
