// The byte-level steps of reading a posted body: inflating a zipped report within a bound,
// decoding a crash dump's base64, and the SHA-256 that identifies bodies and dumps.
// Stateless and thread-safe; failures are return values with a reason for an operator.
#pragma once

#include <cstddef>
#include <string>

namespace collector {

// Inflates zlib data into `out`, never producing more than `limit` bytes: a stream that
// would inflate further is refused as soon as the bound is passed. False with `reason`
// when the data is not one complete zlib stream or inflates past the bound.
bool InflateBounded(const std::string& zipped, size_t limit, std::string& out, std::string& reason);

// Decodes standard base64 (RFC 4648 alphabet, "=" padding, no line breaks or spaces) in its
// canonical form. False with `reason` naming the first offending offset otherwise.
bool DecodeBase64(const std::string& text, std::string& out, std::string& reason);

// 64 lower-case hex digits of the SHA-256 of `size` bytes at `data`.
std::string Sha256Hex(const void* data, size_t size);
inline std::string Sha256Hex(const std::string& bytes) {
    return Sha256Hex(bytes.data(), bytes.size());
}

}  // namespace collector
