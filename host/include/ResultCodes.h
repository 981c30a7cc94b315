// Result codes of the host framework.
//
// A result code is a signed 32-bit value carried in a `long`; 0 means success. On x86_64
// `long` is 64 bits wide, so a hex literal such as 0xFE01000C stored in a `long` would be
// positive there and negative on i386. Every code is therefore built with PwResult() and
// compared with PwResultEquals(), which normalise to int32_t on both architectures.
#pragma once

#include <cstdint>

constexpr long PwResult(uint32_t code) {
    return static_cast<long>(static_cast<int32_t>(code));
}
constexpr int32_t PwResultNormalize(long code) {
    return static_cast<int32_t>(static_cast<uint32_t>(static_cast<unsigned long>(code)));
}
constexpr bool PwResultEquals(long code, uint32_t expected) {
    return PwResultNormalize(code) == static_cast<int32_t>(expected);
}

namespace pwresult {
constexpr long kSuccess = 0;
constexpr long kFailure = PwResult(0xFFFFFFFF);         // generic failure, -1
constexpr long kNullCallback = PwResult(0xFFFFFFFA);    // -6
constexpr long kBufferTooSmall = PwResult(0xFFFFFFFD);  // -3
constexpr long kWaitTimedOut = PwResult(0xFE01000C);    // WaitOnEvents: the time passed
constexpr long kWaitFailed = PwResult(0xFE010001);      // WaitOnEvents: poll failed
constexpr long kInvalidArgument = PwResult(0xFE010002);
constexpr long kOutOfResources = PwResult(0xFE010003);  // a descriptor could not be made
constexpr long kNoTimer = PwResult(0xFE020001);         // TimeToExpired: nothing armed
constexpr long kTimerFailed = PwResult(0xFE020002);
constexpr long kContextUnavailable = PwResult(0xFE7C000A);
constexpr long kXmlFileError = PwResult(0xFE300001);   // profile missing or unreadable
constexpr long kXmlParseError = PwResult(0xFE300002);  // profile not well-formed
constexpr long kXmlTooLarge = PwResult(0xFE300003);
constexpr long kDirectoryError = PwResult(0xFE310001);
constexpr long kDirectoryEnd = PwResult(0xFE310002);
constexpr long kWatcherError = PwResult(0xFE320001);
constexpr long kFaultInjected = PwResult(0xFE3F0001);  // a test switch made the call fail
}  // namespace pwresult
