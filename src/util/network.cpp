#include <tavrin/util/network.h>

#include "util/network_internal.h"

#include <algorithm>
#include <cstring>
#include <cwchar>
#include <memory>
#include <string>

namespace tavrin {

namespace detail {

// The library takes one reference on first use and keeps it for the life of the process:
// WSACleanup must not run from the DLL's detach notification, and a reference the process holds
// until exit costs nothing.
void EnsureWinsock()
{
    static const bool started = [] {
        WSADATA data;
        return ::WSAStartup(MAKEWORD(2, 2), &data) == 0;
    }();
    (void)started;
}

} // namespace detail

namespace {

using detail::EnsureWinsock;

// Size of the record's address union.
constexpr std::size_t kStorageSize =
    std::max({sizeof(sockaddr_in), sizeof(sockaddr_in6), sizeof(SOCKADDR_BTH)});

bool IsBlank(wchar_t ch)
{
    return ch == L' ' || ch == L'\t';
}

// Reads a whole piece with wcstoul; false when the value exceeds 255 or text is left over.
bool PieceToByte(const ustring& piece, int base, unsigned char& byte)
{
    const wchar_t* begin = piece.c_str();
    wchar_t* end = nullptr;
    const unsigned long value = std::wcstoul(begin, &end, base);
    if (value > 255 || end != begin + piece.size())
        return false;
    byte = static_cast<unsigned char>(value);
    return true;
}

EAddressType ClassifyIPv4(const unsigned char (&b)[4])
{
    // The upper bounds of the 100.64/10 and 172.16/12 ranges are checked on the third byte; the
    // applications rely on exactly this split, so it is kept.
    if (b[0] == 10)
        return AddressPrivate;
    if (b[0] == 100 && b[1] >= 64 && b[2] < 128)
        return AddressPrivate;
    if (b[0] == 172 && b[1] >= 16 && b[2] < 32)
        return AddressPrivate;
    if (b[0] == 192 && b[1] == 168)
        return AddressPrivate;
    return AddressPublic;
}

EAddressType ClassifyIPv6(const in6_addr& address)
{
    const unsigned char* b = address.s6_addr;
    static const unsigned char loopback[16] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    if (std::memcmp(b, loopback, sizeof loopback) == 0)
        return AddressPrivate;
    if (b[0] == 0xFE && ((b[1] & 0xC0) == 0x80 || (b[1] & 0xC0) == 0xC0))
        return AddressPrivate; // link-local fe80::/10 and site-local fec0::/10
    return AddressPublic;
}

int Sign(unsigned long a, unsigned long b)
{
    return a < b ? -1 : (a > b ? 1 : 0);
}

} // namespace

// ---------------------------------------------------------------------------------- IPv4 / IPv6

EAddressType ValidateIPv4(const wchar_t* text, in_addr& address)
{
    if (text == nullptr)
        return AddressInvalid;
    std::vector<ustring> pieces;
    if (ustring::split(ustring(text), L'.', pieces, false) != 4)
        return AddressInvalid;
    unsigned char bytes[4];
    for (unsigned int i = 0; i < 4; ++i)
    {
        ustring& piece = pieces[i];
        piece.trim({L' ', L'\t'});
        // Base 0: "0x1F" is hexadecimal, a leading 0 octal, an empty piece 0.
        if (!PieceToByte(piece, 0, bytes[i]))
            return AddressInvalid;
    }
    std::memcpy(&address, bytes, sizeof bytes);
    return ClassifyIPv4(bytes);
}

EAddressType ValidateIPv4(const wchar_t* text)
{
    in_addr ignored;
    return ValidateIPv4(text, ignored);
}

EAddressType ValidateIPv6(const wchar_t* text, in6_addr& address)
{
    std::memset(&address, 0, sizeof address);
    if (text == nullptr)
        return AddressInvalid;
    const wchar_t* const end = text + std::wcslen(text);
    if (std::count(text, end, L':') < 2)
        return AddressInvalid;
    // Some resolvers strip "[...]" (and what follows) from a numeric host; an address text here
    // never carries brackets or a port, whatever the resolver would make of them.
    if (std::find_if(text, end, [](wchar_t ch) { return ch == L'[' || ch == L']'; }) != end)
        return AddressInvalid;

    EnsureWinsock();
    const std::string host = ustring::WideCharToMultiByte(text, ustring::npos, CP_UTF8);
    addrinfo hints;
    std::memset(&hints, 0, sizeof hints);
    hints.ai_flags = AI_NUMERICHOST;
    hints.ai_family = AF_INET6;
    addrinfo* found = nullptr;
    if (::getaddrinfo(host.c_str(), nullptr, &hints, &found) != 0 || found == nullptr)
        return AddressInvalid;
    const std::unique_ptr<addrinfo, void(WSAAPI*)(addrinfo*)> release(found, ::freeaddrinfo);
    if (found->ai_family != AF_INET6 || found->ai_addrlen != sizeof(sockaddr_in6) ||
        found->ai_addr == nullptr)
        return AddressInvalid;
    address = reinterpret_cast<const sockaddr_in6*>(found->ai_addr)->sin6_addr;
    return ClassifyIPv6(address);
}

EAddressType ValidateIPv6(const wchar_t* text)
{
    in6_addr ignored;
    return ValidateIPv6(text, ignored);
}

boost::optional<in_addr> String2IPv4(const wchar_t* text)
{
    in_addr address;
    if (ValidateIPv4(text, address) == AddressInvalid)
        return boost::none;
    return address;
}

boost::optional<in6_addr> String2IPv6(const wchar_t* text)
{
    in6_addr address;
    if (ValidateIPv6(text, address) == AddressInvalid)
        return boost::none;
    return address;
}

bool CompareIPv4(const wchar_t* a, const wchar_t* b, int& result)
{
    result = 0;
    const boost::optional<in_addr> x = String2IPv4(a);
    const boost::optional<in_addr> y = String2IPv4(b);
    if (!x || !y)
        return false;
    result = Sign(ntohl(x->s_addr), ntohl(y->s_addr));
    return true;
}

bool CompareIPv6(const wchar_t* a, const wchar_t* b, int& result)
{
    result = 0;
    const boost::optional<in6_addr> x = String2IPv6(a);
    const boost::optional<in6_addr> y = String2IPv6(b);
    if (!x || !y)
        return false;
    // Each group is read with its second byte as the more significant one: the library's
    // established ordering of IPv6 addresses, kept so that sorted lists stay as they were.
    for (unsigned int g = 0; g < 8; ++g)
    {
        const unsigned long gx = x->s6_addr[2 * g] | (x->s6_addr[2 * g + 1] << 8);
        const unsigned long gy = y->s6_addr[2 * g] | (y->s6_addr[2 * g + 1] << 8);
        if (gx != gy)
        {
            result = Sign(gx, gy);
            break;
        }
    }
    return true;
}

// ------------------------------------------------------------------------------------------ MAC

std::vector<unsigned char> String2MAC(const wchar_t* text)
{
    if (text == nullptr)
        return {};
    ustring compact(text);
    compact.erase(std::remove_if(compact.begin(), compact.end(), IsBlank), compact.end());

    std::vector<ustring> pieces;
    if (compact.size() == 12)
    {
        for (std::size_t i = 0; i < 12; i += 2)
            pieces.push_back(ustring(compact.substr(i, 2)));
    }
    else if (ustring::split(compact, L':', pieces, false) != 6 &&
             ustring::split(compact, L'-', pieces, false) != 6)
    {
        return {};
    }

    std::vector<unsigned char> mac(6);
    for (std::size_t i = 0; i < 6; ++i)
        if (!PieceToByte(pieces[i], 16, mac[i]))
            return {};
    return mac;
}

EAddressType ValidateMAC(const wchar_t* text)
{
    const std::vector<unsigned char> mac = String2MAC(text);
    if (mac.empty())
        return AddressInvalid;
    switch (mac[0] & 0x0F)
    {
    case 2: case 6: case 10: case 14: // locally administered, unicast
        return AddressPrivate;
    default:
        return AddressPublic;
    }
}

ustring MAC2String(const std::vector<unsigned char>& mac, wchar_t separator, ECase letterCase)
{
    ustring text;
    if (mac.size() != 6)
        return text;
    const wchar_t* digits = (letterCase == UpperCase) ? L"0123456789ABCDEF" : L"0123456789abcdef";
    for (const unsigned char byte : mac)
    {
        if (separator != 0 && !text.empty())
            text += separator;
        text += digits[byte >> 4];
        text += digits[byte & 0x0F];
    }
    return text;
}

// ---------------------------------------------------------------------------- SOCKET_ADDRESS_EX

SOCKET_ADDRESS_EX::SOCKET_ADDRESS_EX()
{
    Clear();
}

SOCKET_ADDRESS_EX::SOCKET_ADDRESS_EX(const sockaddr* address, unsigned int length)
{
    Clear();
    if (address == nullptr || length < sizeof(USHORT))
        return;
    switch (address->sa_family)
    {
    case AF_BTH:
        if (length >= sizeof(SOCKADDR_BTH))
            Assign(address, sizeof(SOCKADDR_BTH));
        break;
    case AF_INET:
        if (length >= sizeof(sockaddr_in))
            Assign(address, sizeof(sockaddr_in));
        break;
    case AF_INET6:
        if (length >= sizeof(sockaddr_in6))
            Assign(address, sizeof(sockaddr_in6));
        break;
    default:
        break;
    }
}

SOCKET_ADDRESS_EX::SOCKET_ADDRESS_EX(const sockaddr_in& address)
{
    *this = address;
}

SOCKET_ADDRESS_EX::SOCKET_ADDRESS_EX(const sockaddr_in6& address)
{
    *this = address;
}

SOCKET_ADDRESS_EX::SOCKET_ADDRESS_EX(const SOCKADDR_BTH& address)
{
    *this = address;
}

SOCKET_ADDRESS_EX::SOCKET_ADDRESS_EX(const SOCKET_ADDRESS_EX& other)
{
    *this = other;
}

SOCKET_ADDRESS_EX& SOCKET_ADDRESS_EX::operator=(const SOCKET_ADDRESS_EX& other)
{
    if (this == &other)
        return *this;
    if (other.lpSockaddr == nullptr)
        Clear();
    else
        Assign(&other.Ipv4, other.iSockaddrLength);
    return *this;
}

SOCKET_ADDRESS_EX& SOCKET_ADDRESS_EX::operator=(const sockaddr_in& address)
{
    Assign(&address, sizeof address);
    return *this;
}

SOCKET_ADDRESS_EX& SOCKET_ADDRESS_EX::operator=(const sockaddr_in6& address)
{
    Assign(&address, sizeof address);
    return *this;
}

SOCKET_ADDRESS_EX& SOCKET_ADDRESS_EX::operator=(const SOCKADDR_BTH& address)
{
    Assign(&address, sizeof address);
    return *this;
}

void SOCKET_ADDRESS_EX::Assign(const void* address, int length)
{
    // The union must be cleared first: a shorter address must not inherit the tail of a longer
    // one that was stored before.
    std::memset(&Ipv4, 0, kStorageSize);
    std::memmove(&Ipv4, address, static_cast<std::size_t>(length));
    lpSockaddr = reinterpret_cast<sockaddr*>(&Ipv4);
    iSockaddrLength = length;
}

void SOCKET_ADDRESS_EX::Clear()
{
    lpSockaddr = nullptr;
    iSockaddrLength = 0;
    std::memset(&Ipv4, 0, kStorageSize);
}

int SOCKET_ADDRESS_EX::GetFamily() const
{
    return lpSockaddr == nullptr ? 0 : lpSockaddr->sa_family;
}

unsigned long SOCKET_ADDRESS_EX::GetPort() const
{
    switch (GetFamily())
    {
    case AF_INET: return Ipv4.sin_port;
    case AF_INET6: return Ipv6.sin6_port;
    case AF_BTH: return Bth.port;
    default: return 0;
    }
}

bool SOCKET_ADDRESS_EX::SetPort(unsigned long port)
{
    switch (GetFamily())
    {
    case AF_INET: Ipv4.sin_port = static_cast<USHORT>(port); return true;
    case AF_INET6: Ipv6.sin6_port = static_cast<USHORT>(port); return true;
    case AF_BTH: Bth.port = port; return true;
    default: return false;
    }
}

bool SOCKET_ADDRESS_EX::GetSockAddr(sockaddr_in& address) const
{
    if (GetFamily() != AF_INET)
        return false;
    address = Ipv4;
    return true;
}

bool SOCKET_ADDRESS_EX::GetSockAddr(sockaddr_in6& address) const
{
    if (GetFamily() != AF_INET6)
        return false;
    address = Ipv6;
    return true;
}

bool SOCKET_ADDRESS_EX::GetSockAddr(SOCKADDR_BTH& address) const
{
    if (GetFamily() != AF_BTH)
        return false;
    std::memcpy(&address, &Bth, sizeof address);
    return true;
}

bool SOCKET_ADDRESS_EX::Print(ustring& text, bool withPort, bool fileNameSafe) const
{
    text.clear();
    if (lpSockaddr == nullptr)
        return false;
    SOCKET_ADDRESS_EX copy(*this);
    if (!withPort)
        copy.SetPort(0);
    EnsureWinsock();
    wchar_t buffer[128];
    DWORD length = 128;
    if (::WSAAddressToStringW(copy.lpSockaddr, static_cast<DWORD>(copy.iSockaddrLength), nullptr,
                              buffer, &length) != 0)
        return false;
    buffer[127] = L'\0';
    text = buffer;
    if (fileNameSafe)
    {
        // "host:port" must stay readable in a file name: the port's colon becomes "@" and the
        // colons of an IPv6 address "_".
        if (withPort && GetPort() != 0)
        {
            const std::size_t last = text.rfind(L':');
            if (last != std::wstring::npos)
                text[last] = L'@';
        }
        std::replace(text.begin(), text.end(), L':', L'_');
    }
    return true;
}

bool SOCKET_ADDRESS_EX::AddressToString(ustring& text, bool fileNameSafe) const
{
    return Print(text, false, fileNameSafe);
}

bool SOCKET_ADDRESS_EX::AddressToStringEx(ustring& text, bool fileNameSafe) const
{
    return Print(text, true, fileNameSafe);
}

bool SOCKET_ADDRESS_EX::StringToAddress(const wchar_t* text)
{
    if (text == nullptr)
        return false;
    EnsureWinsock();
    static const struct
    {
        int family;
        int length;
    } families[] = {{AF_INET, sizeof(sockaddr_in)},
                    {AF_INET6, sizeof(sockaddr_in6)},
                    {AF_BTH, sizeof(SOCKADDR_BTH)}};
    // WSAStringToAddressW takes a writable string.
    std::wstring writable(text);
    for (const auto& f : families)
    {
        SOCKET_ADDRESS_EX parsed;
        INT length = f.length;
        if (::WSAStringToAddressW(&writable[0], f.family, nullptr,
                                  reinterpret_cast<sockaddr*>(&parsed.Ipv4), &length) != 0)
            continue;
        const SOCKET_ADDRESS_EX checked(reinterpret_cast<const sockaddr*>(&parsed.Ipv4),
                                        static_cast<unsigned int>(length));
        if (checked.GetFamily() == f.family)
        {
            *this = checked;
            return true;
        }
    }
    return false;
}

} // namespace tavrin
