// Bounded string copy. Copies at most size - 1 bytes of `source` and always terminates
// `destination` when size > 0. Returns the length of `source` (so truncation shows as a
// return value >= size). Null pointers copy nothing and return 0.
#pragma once

#include <cstddef>

size_t safe_strlcpyA(char* destination, const char* source, unsigned int size);
