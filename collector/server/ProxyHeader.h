// The PROXY protocol header (versions 1 and 2) that a load balancer sends before the TLS
// handshake, naming the client it forwards, so that the address kept and limited is the
// client's and not the balancer's.
#pragma once

#include <cstddef>
#include <string>

namespace collector {

enum class ProxyParse { NeedMore, Invalid, Done };

struct ProxyHeader {
    size_t length = 0;          // bytes of the header; what follows is the client's data
    std::string clientAddress;  // empty for a LOCAL (v2) or UNKNOWN (v1) header: the
                                // connection is the balancer's own, keep its address
};

// Parses the header at the start of `data`. NeedMore: every byte so far fits a header but
// it is not complete; Invalid: it is not one (the connection is closed).
ProxyParse ParseProxyHeader(const char* data, size_t size, ProxyHeader& header);

// The longest header accepted (v1's limit; v2 headers with TLVs up to the same bound).
constexpr size_t kMaxProxyHeader = 232;

}  // namespace collector
