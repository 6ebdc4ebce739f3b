// Network address text: parsing, validation, classification, comparison and printing of IPv4,
// IPv6 and MAC addresses, and SOCKET_ADDRESS_EX, the socket-address record of the socket class.
//
// None of the parsers throws: bad text gives AddressInvalid, an empty optional, an empty byte
// vector or false.
//
//     in_addr a;
//     if (tavrin::ValidateIPv4(L"192.168.1.8", a) == tavrin::AddressPrivate) ...
//     boost::optional<in6_addr> b = tavrin::String2IPv6(L"fe80::1");
//     tavrin::ustring mac = tavrin::MAC2String(tavrin::String2MAC(L"001a2b3c4d5e"), L':',
//                                              tavrin::UpperCase);       // "00:1A:2B:3C:4D:5E"
#pragma once

#include <tavrin/core/config.h>
#include <tavrin/core/ustring.h>

#include <ws2bth.h>

#include <boost/optional.hpp>

#include <vector>

namespace tavrin {

// What a validator found. The private class covers 10/8, 100.64/10, 172.16/12 and 192.168/16
// (with the library's own range test, see ValidateIPv4), ::1, fe80::/10 and fec0::/10, and
// locally administered unicast MAC addresses.
enum EAddressType
{
    AddressInvalid = 0,
    AddressPrivate = 1,
    AddressPublic = 2
};

// Letter case of hexadecimal digits: UpperCase (1) or anything else for lower case.
enum ECase
{
    LowerCase = 0,
    UpperCase = 1
};

// Dotted IPv4 text: exactly four "."-separated pieces, each trimmed of blanks and read by wcstoul
// in base 0 ("0x1F" is hexadecimal, a leading 0 octal, an empty piece 0) and at most 255.
// Classification: 10.x.x.x, 100.b1.b2.x with b1 >= 64 and b2 < 128, 172.b1.b2.x with b1 >= 16 and
// b2 < 32, and 192.168.x.x are private; the upper bounds of the 100 and 172 ranges are tested on
// the third byte by design. `address` (network byte order) is written only when the text is valid.
TAVRIN_API EAddressType ValidateIPv4(const wchar_t* text, in_addr& address);
TAVRIN_API EAddressType ValidateIPv4(const wchar_t* text);
// Numeric IPv6 text as getaddrinfo reads it (a scope suffix "%n" as far as it accepts one; no
// brackets, no port); at least two ":" are required. `address` is zeroed first. ::1, fe80::/10
// and fec0::/10 are private; everything else, unique-local addresses included, is public.
TAVRIN_API EAddressType ValidateIPv6(const wchar_t* text, in6_addr& address);
TAVRIN_API EAddressType ValidateIPv6(const wchar_t* text);
// Invalid when String2MAC finds no address; private when the low four bits of the first byte are
// 2, 6, 10 or 14 (a locally administered unicast address); public otherwise.
TAVRIN_API EAddressType ValidateMAC(const wchar_t* text);

TAVRIN_API boost::optional<in_addr> String2IPv4(const wchar_t* text);
TAVRIN_API boost::optional<in6_addr> String2IPv6(const wchar_t* text);
// Six bytes, or an empty vector. Blanks are ignored; twelve remaining digits are read in pairs,
// otherwise the text is split at ":" or else at "-" into six hexadecimal pieces.
TAVRIN_API std::vector<unsigned char> String2MAC(const wchar_t* text);
// Two hexadecimal digits per byte, separated by `separator` unless it is 0; empty unless `mac`
// holds exactly six bytes.
TAVRIN_API ustring MAC2String(const std::vector<unsigned char>& mac, wchar_t separator = L':',
                              ECase letterCase = UpperCase);

// -1, 0 or 1 in `result` as the addresses compare as unsigned numbers in host byte order. False
// (and result 0) when either text is not a valid address.
TAVRIN_API bool CompareIPv4(const wchar_t* a, const wchar_t* b, int& result);
// The same for IPv6, comparing the eight 16-bit groups in order, each read with its second byte
// as the more significant one. This is the library's defined ordering, not numeric address order.
TAVRIN_API bool CompareIPv6(const wchar_t* a, const wchar_t* b, int& result);

// <winspool.h>, which <windows.h> pulls in unless WIN32_LEAN_AND_MEAN is defined, makes SetPort a
// macro for SetPortW or SetPortA. SOCKET_ADDRESS_EX::SetPort keeps its own name (and its exported
// symbol) whatever the caller's headers define, so the macro is dropped here. A caller who
// includes <winspool.h> after this header must drop it again before calling SetPort.
#ifdef SetPort
#undef SetPort
#endif

// A socket address of one of the families the library uses: IPv4, IPv6 or Bluetooth.
// lpSockaddr is null for an empty record and otherwise points at the record's own storage, so
// copies stay self-contained.
struct TAVRIN_API SOCKET_ADDRESS_EX : public SOCKET_ADDRESS
{
    union
    {
        sockaddr_in Ipv4;
        sockaddr_in6 Ipv6;
        SOCKADDR_BTH Bth;
    };

    SOCKET_ADDRESS_EX();
    // AF_BTH with length >= 30, AF_INET with length >= 16 and AF_INET6 with length >= 28 are
    // taken; a null pointer, a shorter length or another family gives an empty record.
    SOCKET_ADDRESS_EX(const sockaddr* address, unsigned int length);
    SOCKET_ADDRESS_EX(const sockaddr_in& address);
    SOCKET_ADDRESS_EX(const sockaddr_in6& address);
    SOCKET_ADDRESS_EX(const SOCKADDR_BTH& address);
    SOCKET_ADDRESS_EX(const SOCKET_ADDRESS_EX& other);

    SOCKET_ADDRESS_EX& operator=(const SOCKET_ADDRESS_EX& other);
    SOCKET_ADDRESS_EX& operator=(const sockaddr_in& address);
    SOCKET_ADDRESS_EX& operator=(const sockaddr_in6& address);
    SOCKET_ADDRESS_EX& operator=(const SOCKADDR_BTH& address);

    void Clear();
    // The stored family, 0 for an empty record.
    int GetFamily() const;
    // The port field as stored: sin_port / sin6_port (network byte order) or the Bluetooth port;
    // 0 for an empty record.
    unsigned long GetPort() const;
    // Stores `port` into the port field of the stored family; false for an empty record.
    bool SetPort(unsigned long port);
    // Copies the address out when it is of the requested family.
    bool GetSockAddr(sockaddr_in& address) const;
    bool GetSockAddr(sockaddr_in6& address) const;
    bool GetSockAddr(SOCKADDR_BTH& address) const;

    // The address without its port as Winsock prints it. With `fileNameSafe` every ":" becomes
    // "_". False, with `text` empty, when Winsock cannot print the address.
    bool AddressToString(ustring& text, bool fileNameSafe = false) const;
    // The same with the port: "192.168.1.1:80", "[fe80::1]:80". With `fileNameSafe` and a port,
    // the port's ":" becomes "@" and every other ":" "_": "[fe80__1]@80".
    bool AddressToStringEx(ustring& text, bool fileNameSafe = false) const;
    // Reads the text as an IPv4, then an IPv6, then a Bluetooth address; the first that Winsock
    // accepts is stored. False, with the record unchanged, when none does.
    bool StringToAddress(const wchar_t* text);

private:
    // Copies `length` bytes of `address` into the storage; the caller has checked the family.
    void Assign(const void* address, int length);
    bool Print(ustring& text, bool withPort, bool fileNameSafe) const;
};

} // namespace tavrin
