// Base64 of streams: inputs of every padding and across the encoder's blocks.
#include <openssl/evp.h>

#include <algorithm>
#include <sstream>
#include <string>

#include "Base64.h"
#include "TestSupport.h"

namespace {

class Base64Test : public pwtest::HostFixture {};

std::string Encode(const std::string& input) {
    std::istringstream in(input);
    std::ostringstream out;
    EXPECT_EQ(lBase64::Encode(in, out, 0), pwresult::kSuccess);
    return out.str();
}

// An independent decoder: OpenSSL's block decoder, without the bytes of the padding.
std::string Decode(const std::string& text) {
    std::string out(text.size() / 4 * 3, '\0');
    int length = EVP_DecodeBlock(reinterpret_cast<unsigned char*>(&out[0]),
                                 reinterpret_cast<const unsigned char*>(text.data()),
                                 static_cast<int>(text.size()));
    out.resize(length < 0 ? 0 : length - std::count(text.begin(), text.end(), '='));
    return out;
}

// Lengths of every padding and around the encoder's 12288-byte blocks and their triples;
// the standard alphabet's last two letters and its padding.
TEST_F(Base64Test, InputsRoundTripWithoutLineBreaks) {
    EXPECT_EQ(Encode("\xfb\xff"), "+/8=");
    for (size_t length : {0u, 1u, 2u, 3u, 12287u, 12288u, 12289u, 12290u, 36865u, 100000u}) {
        SCOPED_TRACE(length);
        std::string input(length, '\0');
        for (size_t i = 0; i < length; ++i) {
            input[i] = static_cast<char>((i * 7919u) >> 3);
        }
        std::string encoded = Encode(input);
        EXPECT_EQ(encoded.size(), (length + 2) / 3 * 4);
        EXPECT_EQ(encoded.find('\n'), std::string::npos);
        EXPECT_EQ(Decode(encoded), input);
    }
}

TEST_F(Base64Test, FailedStreamsAreReported) {
    std::istringstream in("abc"), good("abc");
    std::ostringstream out;
    in.setstate(std::ios::failbit);
    EXPECT_EQ(lBase64::Encode(in, out, 0), pwresult::kFailure);
    out.setstate(std::ios::badbit);
    EXPECT_EQ(lBase64::Encode(good, out, 0), pwresult::kFailure);
}

}  // namespace
