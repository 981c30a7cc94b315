#include "report/BodyDecoding.h"

#include <openssl/evp.h>
#include <zlib.h>

#include <algorithm>
#include <iterator>
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

// The value of each byte as a base64 digit; kNotADigit for the bytes that are none.
constexpr unsigned char kNotADigit = 64;
struct Base64Table {
    unsigned char value[256];
    Base64Table() {
        std::fill(std::begin(value), std::end(value), kNotADigit);
        const char digits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
        for (unsigned char i = 0; i < 64; ++i) {
            value[static_cast<unsigned char>(digits[i])] = i;
        }
    }
};
const Base64Table kBase64;

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

// One pass, four digits at a time: dumps of many megabytes are decoded at import and
// again when one is downloaded. An operator learns where the text goes wrong, and no white
// space is skipped.
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
    const unsigned char* in = reinterpret_cast<const unsigned char*>(text.data());
    auto badDigit = [&](size_t from, size_t count) {
        for (size_t i = from; i < from + count; ++i) {
            if (kBase64.value[in[i]] == kNotADigit) {
                reason = "a byte that is not a base64 digit at offset " + std::to_string(i);
                break;
            }
        }
        out.clear();
        return false;
    };
    out.resize(text.size() / 4 * 3 - padding);
    unsigned char* to = reinterpret_cast<unsigned char*>(&out[0]);
    const size_t whole = padding == 0 ? text.size() : text.size() - 4;
    for (size_t i = 0; i < whole; i += 4) {
        const unsigned a = kBase64.value[in[i]], b = kBase64.value[in[i + 1]],
                       c = kBase64.value[in[i + 2]], d = kBase64.value[in[i + 3]];
        if (((a | b | c | d) & kNotADigit) != 0) {
            return badDigit(i, 4);
        }
        const unsigned bits = a << 18 | b << 12 | c << 6 | d;
        *to++ = static_cast<unsigned char>(bits >> 16);
        *to++ = static_cast<unsigned char>(bits >> 8);
        *to++ = static_cast<unsigned char>(bits);
    }
    if (padding == 0) {
        return true;
    }
    // The last four: two or three digits, then the padding.
    const size_t last = text.size() - 4;
    const unsigned a = kBase64.value[in[last]], b = kBase64.value[in[last + 1]],
                   c = padding == 1 ? kBase64.value[in[last + 2]] : 0;
    if (((a | b | c) & kNotADigit) != 0) {
        return badDigit(last, 4 - padding);
    }
    // In the canonical form the bits after the last whole byte are zero.
    if (((padding == 1 ? c & 0x03 : b & 0x0F)) != 0) {
        reason = "the digit before its padding carries bits past the last byte";
        out.clear();
        return false;
    }
    const unsigned bits = a << 18 | b << 12 | c << 6;
    *to++ = static_cast<unsigned char>(bits >> 16);
    if (padding == 1) {
        *to = static_cast<unsigned char>(bits >> 8);
    }
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
