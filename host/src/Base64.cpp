// Base64 of a whole stream, read and written in blocks.
#include "Base64.h"

#include <openssl/evp.h>

#include <cstring>
#include <string>

#include "HostLogInternal.h"
#include "ResultCodes.h"

namespace {

const char kLogSource[] = "host/src/Base64";
const size_t kBlockTriples = 4096;

}  // namespace

long lBase64::Encode(std::istream& in, std::ostream& out, int sizeHint) {
    if (in.fail()) {
        return PWHOST_REFUSE(pwresult::kFailure, "input stream not readable");
    }
    // The encoding is gathered in room reserved as the caller asked, then written at once.
    std::string encoded;
    if (sizeHint > 0) {
        encoded.reserve(static_cast<size_t>(sizeHint));
    }
    unsigned char input[3 * kBlockTriples];
    unsigned char output[4 * kBlockTriples + 1];  // EVP_EncodeBlock ends with a NUL
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
        int produced = EVP_EncodeBlock(output, input, static_cast<int>(encodeNow));
        encoded.append(reinterpret_cast<const char*>(output), static_cast<size_t>(produced));
        carried = have - encodeNow;
        memmove(input, input + encodeNow, carried);
        if (end) {
            break;
        }
    }
    if (!out.write(encoded.data(), static_cast<std::streamsize>(encoded.size()))) {
        PWHOST_LOG(CAppLog::Error, "output stream failed");
        return pwresult::kFailure;
    }
    return pwresult::kSuccess;
}
