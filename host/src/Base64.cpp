// Base64 of a whole stream, read and written in blocks.
#include "Base64.h"

#include <cstring>

#include "HostLogInternal.h"
#include "ResultCodes.h"

namespace {

const char kLogSource[] = "host/src/Base64";
const char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
const size_t kBlockTriples = 4096;

// Encodes `length` bytes into `out` (4 characters per started triple); returns the count.
size_t EncodeBlock(const unsigned char* in, size_t length, char* out) {
    char* start = out;
    size_t i = 0;
    for (; i + 3 <= length; i += 3) {
        unsigned int bits = (in[i] << 16) | (in[i + 1] << 8) | in[i + 2];
        *out++ = kAlphabet[(bits >> 18) & 0x3F];
        *out++ = kAlphabet[(bits >> 12) & 0x3F];
        *out++ = kAlphabet[(bits >> 6) & 0x3F];
        *out++ = kAlphabet[bits & 0x3F];
    }
    if (i < length) {
        unsigned int bits = in[i] << 16;
        if (i + 1 < length) {
            bits |= in[i + 1] << 8;
        }
        *out++ = kAlphabet[(bits >> 18) & 0x3F];
        *out++ = kAlphabet[(bits >> 12) & 0x3F];
        *out++ = i + 1 < length ? kAlphabet[(bits >> 6) & 0x3F] : '=';
        *out++ = '=';
    }
    return static_cast<size_t>(out - start);
}

}  // namespace

long lBase64::Encode(std::istream& in, std::ostream& out, int sizeHint) {
    (void)sizeHint;  // streams grow as they are written
    if (in.fail()) {
        return PWHOST_REFUSE(pwresult::kFailure, "input stream not readable");
    }
    unsigned char input[3 * kBlockTriples];
    char output[4 * kBlockTriples];
    size_t carried = 0;  // bytes of an incomplete triple kept for the next block
    for (;;) {
        in.read(reinterpret_cast<char*>(input) + carried,
                static_cast<std::streamsize>(sizeof input - carried));
        if (in.bad()) {
            PWHOST_LOG(CAppLog::Error, "input stream failed");
            return pwresult::kFailure;
        }
        const bool end = in.eof();
        const size_t have = carried + static_cast<size_t>(in.gcount());
        const size_t encodeNow = end ? have : have - have % 3;
        size_t produced = EncodeBlock(input, encodeNow, output);
        if (!out.write(output, static_cast<std::streamsize>(produced))) {
            PWHOST_LOG(CAppLog::Error, "output stream failed");
            return pwresult::kFailure;
        }
        carried = have - encodeNow;
        memmove(input, input + encodeNow, carried);
        if (end) {
            return pwresult::kSuccess;
        }
    }
}
