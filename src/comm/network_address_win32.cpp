// Windows: the adapter list (IP Helper) and the resolver of Winsock, which
// libcurl's global initialisation has started.
#include <winsock2.h>
#include <ws2tcpip.h>
#include <iphlpapi.h>
#include <windows.h>

#include <vector>

#include "comm/network_address.h"

std::vector<STRING> hostAddresses() {
    std::vector<STRING> out;
    ULONG size = 0;
    if (GetAdaptersInfo(nullptr, &size) != ERROR_BUFFER_OVERFLOW || size == 0) return out;
    std::vector<unsigned char> buffer(size);
    auto* info = reinterpret_cast<IP_ADAPTER_INFO*>(buffer.data());
    if (GetAdaptersInfo(info, &size) != NO_ERROR) return out;
    for (const IP_ADAPTER_INFO* a = info; a != nullptr; a = a->Next)
        for (const IP_ADDR_STRING* ip = &a->IpAddressList; ip != nullptr; ip = ip->Next)
            if (ip->IpAddress.String[0] != '\0') out.push_back(STRING::fromUtf8(ip->IpAddress.String));
    return out;
}

STRING resolveHostAddress(const STRING& host) {
    STRING name = host;
    if (name.length() >= 2 && name[0] == u'[' && name.back() == u']') name = name.substr(1, name.length() - 2);
    ADDRINFOW hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    ADDRINFOW* result = nullptr;
    if (GetAddrInfoW(name.wc_str(), nullptr, &hints, &result) != 0 || result == nullptr) return STRING();
    wchar_t text[INET6_ADDRSTRLEN + 1] = L"";
    DWORD length = INET6_ADDRSTRLEN;
    STRING out;
    if (WSAAddressToStringW(result->ai_addr, static_cast<DWORD>(result->ai_addrlen), nullptr, text, &length) == 0)
        out = STRING(text);
    FreeAddrInfoW(result);
    return out;
}
