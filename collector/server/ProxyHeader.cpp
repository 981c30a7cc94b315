#include "server/ProxyHeader.h"

#include <arpa/inet.h>

#include <cstring>
#include <string_view>
#include <vector>

namespace collector {

namespace {

constexpr char kV2Signature[12] = {'\r', '\n', '\r', '\n', '\0', '\r',
                                   '\n', 'Q',  'U',  'I',  'T',  '\n'};
constexpr size_t kV1Max = 107;

std::vector<std::string_view> SplitSpaces(std::string_view line) {
    std::vector<std::string_view> fields;
    size_t at = 0;
    while (at <= line.size()) {
        size_t space = line.find(' ', at);
        if (space == std::string_view::npos)
            space = line.size();
        fields.push_back(line.substr(at, space - at));
        at = space + 1;
    }
    return fields;
}

bool IsPort(std::string_view text) {
    if (text.empty() || text.size() > 5 || (text.size() > 1 && text[0] == '0'))
        return false;
    unsigned long value = 0;
    for (char c : text) {
        if (c < '0' || c > '9')
            return false;
        value = value * 10 + static_cast<unsigned long>(c - '0');
    }
    return value <= 65535;
}

// Address text normalised by inet_pton/inet_ntop; empty when `text` is not one.
std::string Address(int family, std::string_view text) {
    unsigned char binary[16];
    char out[INET6_ADDRSTRLEN];
    const std::string copy(text);
    if (inet_pton(family, copy.c_str(), binary) != 1)
        return std::string();
    return inet_ntop(family, binary, out, sizeof out) ? std::string(out) : std::string();
}

ProxyParse ParseV1(const char* data, size_t size, ProxyHeader& header) {
    const std::string_view text(data, size < kV1Max ? size : kV1Max);
    const size_t end = text.find("\r\n");
    if (end == std::string_view::npos)
        return size < kV1Max ? ProxyParse::NeedMore : ProxyParse::Invalid;
    const std::vector<std::string_view> fields = SplitSpaces(text.substr(0, end));
    header.length = end + 2;
    if (fields.size() >= 2 && fields[1] == "UNKNOWN") {
        header.clientAddress.clear();
        return ProxyParse::Done;
    }
    if (fields.size() != 6 || (fields[1] != "TCP4" && fields[1] != "TCP6"))
        return ProxyParse::Invalid;
    const int family = fields[1] == "TCP4" ? AF_INET : AF_INET6;
    header.clientAddress = Address(family, fields[2]);
    if (header.clientAddress.empty() || Address(family, fields[3]).empty() || !IsPort(fields[4]) ||
        !IsPort(fields[5])) {
        return ProxyParse::Invalid;
    }
    return ProxyParse::Done;
}

ProxyParse ParseV2(const unsigned char* data, size_t size, ProxyHeader& header) {
    if (size < 16)
        return ProxyParse::NeedMore;
    const unsigned char version = data[12] >> 4, command = data[12] & 0x0f;
    const unsigned char family = data[13];
    const size_t length = 16 + ((size_t{data[14]} << 8) | data[15]);
    if (version != 2 || command > 1 || length > kMaxProxyHeader)
        return ProxyParse::Invalid;
    if (size < length)
        return ProxyParse::NeedMore;
    header.length = length;
    header.clientAddress.clear();
    if (command == 0)
        return ProxyParse::Done;  // LOCAL: the balancer's own connection
    char out[INET6_ADDRSTRLEN];
    if (family == 0x11 && length >= 16 + 12) {  // TCP over IPv4
        if (!inet_ntop(AF_INET, data + 16, out, sizeof out))
            return ProxyParse::Invalid;
        header.clientAddress = out;
    } else if (family == 0x21 && length >= 16 + 36) {  // TCP over IPv6
        if (!inet_ntop(AF_INET6, data + 16, out, sizeof out))
            return ProxyParse::Invalid;
        header.clientAddress = out;
    } else if (family != 0x00) {
        return ProxyParse::Invalid;  // UDP, unix sockets, or addresses cut short
    }
    return ProxyParse::Done;
}

}  // namespace

ProxyParse ParseProxyHeader(const char* data, size_t size, ProxyHeader& header) {
    const size_t compared = size < sizeof kV2Signature ? size : sizeof kV2Signature;
    if (std::memcmp(data, kV2Signature, compared) == 0) {
        return ParseV2(reinterpret_cast<const unsigned char*>(data), size, header);
    }
    static constexpr char kV1Start[] = "PROXY ";
    const size_t v1Compared = size < 6 ? size : 6;
    if (std::memcmp(data, kV1Start, v1Compared) != 0)
        return ProxyParse::Invalid;
    return ParseV1(data, size, header);
}

}  // namespace collector
