#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "comm/network_address.h"

namespace {

STRING numericText(const sockaddr* address) {
    char text[INET6_ADDRSTRLEN] = "";
    const void* bytes = nullptr;
    if (address->sa_family == AF_INET) bytes = &reinterpret_cast<const sockaddr_in*>(address)->sin_addr;
    else if (address->sa_family == AF_INET6) bytes = &reinterpret_cast<const sockaddr_in6*>(address)->sin6_addr;
    if (bytes == nullptr || inet_ntop(address->sa_family, bytes, text, sizeof text) == nullptr) return STRING();
    return STRING::fromUtf8(text);
}

}  // namespace

std::vector<STRING> hostAddresses() {
    std::vector<STRING> out;
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0) return out;
    for (const ifaddrs* i = list; i != nullptr; i = i->ifa_next) {
        if (i->ifa_addr == nullptr) continue;
        const STRING text = numericText(i->ifa_addr);
        if (!text.empty()) out.push_back(text);
    }
    freeifaddrs(list);
    return out;
}

STRING resolveHostAddress(const STRING& host) {
    // A bracketed IPv6 address of a URL is resolved without its brackets.
    STRING name = host;
    if (name.length() >= 2 && name[0] == u'[' && name.back() == u']') name = name.substr(1, name.length() - 2);
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* result = nullptr;
    if (getaddrinfo(name.toUtf8().c_str(), nullptr, &hints, &result) != 0 || result == nullptr) return STRING();
    const STRING text = numericText(result->ai_addr);
    freeaddrinfo(result);
    return text;
}
