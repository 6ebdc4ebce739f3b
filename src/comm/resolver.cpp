// Name resolution through GetAddrInfoW.
#include <tavrin/comm/resolver.h>

#include <tavrin/core/exception.h>

#include "util/network_internal.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>

namespace tavrin {

namespace {

const wchar_t kFunction[] = L"tavrin::ResolveAddress";

// Splits address text into host and port (see the header for the forms). False when the text
// is of none of them.
bool SplitHostPort(const std::wstring& text, std::wstring& host, std::wstring& port, bool& hasPort)
{
    hasPort = false;
    if (text.empty())
        return false;
    std::wstring rest;
    if (text[0] == L'[')
    {
        const std::size_t close = text.find(L']');
        if (close == std::wstring::npos)
            return false;
        host = text.substr(1, close - 1);
        rest = text.substr(close + 1);
        if (!rest.empty() && rest[0] != L':')
            return false;
    }
    else
    {
        // One colon separates a port; more make an IPv6 address, which takes no port unbracketed.
        const std::size_t colon = text.find(L':');
        const bool onePort = colon != std::wstring::npos && text.find(L':', colon + 1) == std::wstring::npos;
        host = onePort ? text.substr(0, colon) : text;
        if (onePort)
            rest = text.substr(colon);
    }
    if (host.find_first_of(L"[]") != std::wstring::npos)
        return false;
    if (rest.empty())
        return true;
    port = rest.substr(1);
    hasPort = true;
    if (port.empty())
        return false;
    // Resolvers differ on numeric services beyond 16 bits (some cut them): none is a port.
    if (port.find_first_not_of(L"0123456789") == std::wstring::npos)
        return port.size() <= 5 && std::stoul(port) <= 65535;
    return true;
}

bool SameAddress(const SOCKET_ADDRESS_EX& a, const SOCKET_ADDRESS_EX& b)
{
    return a.iSockaddrLength == b.iSockaddrLength &&
           std::memcmp(a.lpSockaddr, b.lpSockaddr, static_cast<std::size_t>(a.iSockaddrLength)) == 0;
}

} // namespace

std::vector<SOCKET_ADDRESS_EX> ResolveAddress(const wchar_t* text, int family, unsigned short defaultPort, int flags)
{
    std::wstring host;
    std::wstring port;
    bool hasPort = false;
    if (text == nullptr || !SplitHostPort(text, host, port, hasPort))
        throw CWinException(__LINE__, TAVRIN_WFILE, kFunction, WSAEINVAL);

    detail::EnsureWinsock();
    ADDRINFOW hints;
    std::memset(&hints, 0, sizeof hints);
    hints.ai_family = family;
    hints.ai_flags = flags;
    // No host: the wildcard addresses, which the resolver gives only for a passive request and
    // only together with a service.
    if (host.empty())
    {
        hints.ai_flags |= AI_PASSIVE;
        if (!hasPort)
            port = L"0";
    }
    ADDRINFOW* found = nullptr;
    const int error = ::GetAddrInfoW(host.empty() ? nullptr : host.c_str(),
                                     port.empty() ? nullptr : port.c_str(), &hints, &found);
    if (error != 0)
        throw CWinException(__LINE__, TAVRIN_WFILE, L"GetAddrInfoW", error);
    const std::unique_ptr<ADDRINFOW, void(WSAAPI*)(ADDRINFOW*)> release(found, ::FreeAddrInfoW);

    // The resolver lists an address once per socket type; callers want each address once.
    std::vector<SOCKET_ADDRESS_EX> addresses;
    for (const ADDRINFOW* entry = found; entry != nullptr; entry = entry->ai_next)
    {
        if (entry->ai_family != AF_INET && entry->ai_family != AF_INET6)
            continue;
        SOCKET_ADDRESS_EX address(entry->ai_addr, static_cast<unsigned int>(entry->ai_addrlen));
        if (address.GetFamily() == 0)
            continue;
        if (!hasPort)
            address.SetPort(htons(defaultPort));
        if (std::none_of(addresses.begin(), addresses.end(),
                         [&](const SOCKET_ADDRESS_EX& known) { return SameAddress(known, address); }))
            addresses.push_back(address);
    }
    if (addresses.empty())
        throw CWinException(__LINE__, TAVRIN_WFILE, kFunction, WSANO_DATA);
    return addresses;
}

} // namespace tavrin
