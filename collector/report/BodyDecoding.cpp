#include "report/BodyDecoding.h"

#include <openssl/evp.h>
#include <zlib.h>

#include <algorithm>
#include <memory>

namespace collector {

namespace {

const size_t kInflateChunk = 256 * 1024;

struct InflateStream {
    z_stream stream{};
    bool ready = false;
    ~InflateStream() {
        if (ready) {
            inflateEnd(&stream);
        }
    }
};

// The value of a base64 digit, or -1.
int Base64Digit(unsigned char c) {
    if (c >= 'A' && c <= 'Z') {
        return c - 'A';
    }
    if (c >= 'a' && c <= 'z') {
        return c - 'a' + 26;
    }
    if (c >= '0' && c <= '9') {
        return c - '0' + 52;
    }
    if (c == '+') {
        return 62;
    }
    return c == '/' ? 63 : -1;
}

}  // namespace

bool InflateBounded(const std::string& zipped, size_t limit, std::string& out,
                    std::string& reason) {
    out.clear();
    InflateStream inflater;
    if (inflateInit(&inflater.stream) != Z_OK) {
        reason = "the zlib decoder could not be started";
        return false;
    }
    inflater.ready = true;
    z_stream& stream = inflater.stream;
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(zipped.data()));
    stream.avail_in = static_cast<uInt>(zipped.size());
    // One byte beyond the bound is room enough to see that a stream goes past it.
    for (;;) {
        const size_t room = std::min(kInflateChunk, limit + 1 - out.size());
        const size_t before = out.size();
        out.resize(before + room);
        stream.next_out = reinterpret_cast<Bytef*>(&out[before]);
        stream.avail_out = static_cast<uInt>(room);
        const int result = inflate(&stream, Z_NO_FLUSH);
        out.resize(before + room - stream.avail_out);
        if (out.size() > limit) {
            out.clear();
            reason = "the zipped report inflates to more than " + std::to_string(limit) + " bytes";
            return false;
        }
        if (result == Z_STREAM_END) {
            break;
        }
        if (result == Z_BUF_ERROR && stream.avail_in == 0) {
            reason = "the zipped report ends before its zlib stream does";
            return false;
        }
        if (result != Z_OK && result != Z_BUF_ERROR) {
            reason = std::string("the zipped report is not valid zlib data (") +
                     (stream.msg != nullptr ? stream.msg : "inflate failed") + ")";
            return false;
        }
    }
    if (stream.avail_in != 0) {
        reason = std::to_string(stream.avail_in) + " bytes follow the zlib stream";
        return false;
    }
    return true;
}

// The digits are checked here (so that an operator learns where the text goes wrong, and
// so that no white space is skipped); libcrypto decodes them.
bool DecodeBase64(const std::string& text, std::string& out, std::string& reason) {
    out.clear();
    if (text.size() % 4 != 0) {
        reason = "its length, " + std::to_string(text.size()) + ", is not a multiple of 4";
        return false;
    }
    size_t padding = 0;
    if (!text.empty() && text.back() == '=') {
        padding = text[text.size() - 2] == '=' ? 2 : 1;
    }
    const size_t digits = text.size() - padding;
    for (size_t i = 0; i < digits; ++i) {
        if (Base64Digit(static_cast<unsigned char>(text[i])) < 0) {
            reason = "a byte that is not a base64 digit at offset " + std::to_string(i);
            return false;
        }
    }
    // In the canonical form the bits after the last whole byte are zero.
    if (padding != 0) {
        const int last = Base64Digit(static_cast<unsigned char>(text[digits - 1]));
        if ((last & (padding == 1 ? 0x03 : 0x0F)) != 0) {
            reason = "the digit before its padding carries bits past the last byte";
            return false;
        }
    }
    if (text.empty()) {
        return true;
    }
    out.resize(text.size() / 4 * 3);
    const int decoded = EVP_DecodeBlock(reinterpret_cast<unsigned char*>(&out[0]),
                                        reinterpret_cast<const unsigned char*>(text.data()),
                                        static_cast<int>(text.size()));
    if (decoded < 0 || static_cast<size_t>(decoded) != out.size()) {
        out.clear();
        reason = "libcrypto could not decode it";
        return false;
    }
    out.resize(out.size() - padding);  // EVP_DecodeBlock counts the padding as zero bytes
    return true;
}

std::string Sha256Hex(const void* data, size_t size) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(),
                                                                    &EVP_MD_CTX_free);
    if (!context || EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr) != 1 ||
        EVP_DigestUpdate(context.get(), data, size) != 1 ||
        EVP_DigestFinal_ex(context.get(), digest, &length) != 1) {
        return std::string();
    }
    static const char kHex[] = "0123456789abcdef";
    std::string hex(2 * length, '0');
    for (unsigned int i = 0; i < length; ++i) {
        hex[2 * i] = kHex[digest[i] >> 4];
        hex[2 * i + 1] = kHex[digest[i] & 0x0F];
    }
    return hex;
}

}  // namespace collector
