// Base64 of streams: the standard vectors and inputs that cross the encoder's blocks.
#include <gtest/gtest.h>

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

std::string Decode(const std::string& text) {
    static const std::string alphabet =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    unsigned int bits = 0;
    int count = 0;
    for (char c : text) {
        if (c == '=') {
            break;
        }
        bits = (bits << 6) | static_cast<unsigned int>(alphabet.find(c));
        count += 6;
        if (count >= 8) {
            count -= 8;
            out.push_back(static_cast<char>((bits >> count) & 0xFF));
        }
    }
    return out;
}

TEST_F(Base64Test, StandardVectors) {
    const std::pair<std::string, std::string> vectors[] = {
        {"", ""},
        {"f", "Zg=="},
        {"fo", "Zm8="},
        {"foo", "Zm9v"},
        {"foob", "Zm9vYg=="},
        {"fooba", "Zm9vYmE="},
        {"foobar", "Zm9vYmFy"},
        {std::string("\x00\xff\xfe", 3), "AP/+"},
        {"\xfb\xff", "+/8="},
    };
    for (const auto& v : vectors) {
        EXPECT_EQ(Encode(v.first), v.second) << "input of " << v.first.size() << " bytes";
    }
}

TEST_F(Base64Test, LongInputsRoundTripWithoutLineBreaks) {
    // Lengths around the encoder's 12288-byte blocks and their triples.
    for (size_t length : {12287u, 12288u, 12289u, 12290u, 3u * 12288u + 1u, 100000u}) {
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
