// Base64 (RFC 4648 alphabet, "=" padding, no line breaks) of a whole input stream.
#pragma once

#include <istream>
#include <ostream>

class lBase64 {
public:
    // Reads `in` to its end and writes the encoding to `out`. `sizeHint` is the output
    // capacity to reserve (may be 0). 0 on success, a failure code when a stream fails.
    static long Encode(std::istream& in, std::ostream& out, int sizeHint);
};
