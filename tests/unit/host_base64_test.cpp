// Base64 of streams: the standard vectors and inputs that cross the encoder's blocks.
#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <algorithm>
#include <sstream>
#include <string>

#include "Base64.h"
#include "ResultCodes.h"
#include "TestSupport.h"

namespace {

class Base64Test : public pwtest::HostFixture {};

std::string Encode(const std::string& input, long expected = pwresult::kSuccess) {
    std::istringstream in(input);
    std::ostringstream out;
    EXPECT_EQ(lBase64::Encode(in, out, 0), expected);
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

TEST_F(Base64Test, StandardVectors) {
    EXPECT_EQ(Encode("foobar"), "Zm9vYmFy");
    EXPECT_EQ(Encode("fooba"), "Zm9vYmE=");
    EXPECT_EQ(Encode("foob"), "Zm9vYg==");
    EXPECT_EQ(Encode("\xfb\xff"), "+/8=");  // the standard alphabet's last two letters
}

// Lengths of every padding and around the encoder's 12288-byte blocks and their triples.
TEST_F(Base64Test, InputsRoundTripWithoutLineBreaks) {
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
    std::istringstream failedIn("abc");
    failedIn.setstate(std::ios::failbit);
    std::ostringstream out;
    EXPECT_EQ(lBase64::Encode(failedIn, out, 0), pwresult::kFailure);

    std::istringstream in("abc");
    std::ostringstream failedOut;
    failedOut.setstate(std::ios::badbit);
    EXPECT_EQ(lBase64::Encode(in, failedOut, 0), pwresult::kFailure);
}

}  // namespace
