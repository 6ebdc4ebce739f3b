// Network address text: IPv4/IPv6/MAC parsing and classification, ordering, printing, the socket
// address record's text forms, and randomized inputs against Winsock's own parsers.
#include <tavrin/util/network.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

using namespace tavrin;

namespace {

// Seed of the randomized tests; TAVRIN_FUZZ_SEED overrides it to replay another run.
unsigned int FuzzSeed(unsigned int fallback)
{
    const char* text = std::getenv("TAVRIN_FUZZ_SEED");
    return text != nullptr ? static_cast<unsigned int>(std::strtoul(text, nullptr, 0)) : fallback;
}

const int kFuzzCount = 100000;

std::vector<unsigned char> Bytes(const in_addr& a)
{
    const unsigned char* p = reinterpret_cast<const unsigned char*>(&a);
    return std::vector<unsigned char>(p, p + 4);
}

std::vector<unsigned char> Bytes(const in6_addr& a)
{
    return std::vector<unsigned char>(a.s6_addr, a.s6_addr + 16);
}

// Random text over an alphabet of characters that matter to the parsers, with the occasional
// arbitrary code unit.
std::wstring RandomText(std::mt19937& rng, const std::wstring& alphabet, std::size_t maxLength)
{
    std::uniform_int_distribution<std::size_t> length(0, maxLength);
    std::uniform_int_distribution<std::size_t> pick(0, alphabet.size() - 1);
    std::uniform_int_distribution<int> rare(0, 40);
    std::uniform_int_distribution<int> unit(1, 0xFFFF);
    std::wstring text(length(rng), L' ');
    for (wchar_t& ch : text)
        ch = rare(rng) == 0 ? static_cast<wchar_t>(unit(rng)) : alphabet[pick(rng)];
    return text;
}

// Changes, inserts or deletes a few characters of a valid text.
std::wstring Mutate(std::mt19937& rng, std::wstring text, const std::wstring& alphabet)
{
    std::uniform_int_distribution<int> edits(1, 3);
    std::uniform_int_distribution<std::size_t> pick(0, alphabet.size() - 1);
    for (int n = edits(rng); n > 0; --n)
    {
        const std::size_t at = text.empty() ? 0 : std::uniform_int_distribution<std::size_t>(0, text.size() - 1)(rng);
        switch (std::uniform_int_distribution<int>(0, 2)(rng))
        {
        case 0: if (!text.empty()) text[at] = alphabet[pick(rng)]; break;
        case 1: text.insert(text.begin() + static_cast<std::ptrdiff_t>(at), alphabet[pick(rng)]); break;
        default: if (!text.empty()) text.erase(at, 1); break;
        }
    }
    return text;
}

std::wstring Dotted(const std::vector<unsigned char>& b)
{
    return std::to_wstring(b[0]) + L"." + std::to_wstring(b[1]) + L"." + std::to_wstring(b[2]) + L"." +
           std::to_wstring(b[3]);
}

std::wstring Hex(unsigned int value, bool upper)
{
    wchar_t text[16];
    swprintf(text, 16, upper ? L"%X" : L"%x", value);
    return text;
}

// A random well-formed IPv6 text: eight groups, sometimes with the longest zero run compressed.
std::wstring RandomIPv6(std::mt19937& rng, unsigned char (&bytes)[16])
{
    std::uniform_int_distribution<int> byte(0, 255), coin(0, 3);
    unsigned int groups[8];
    for (int g = 0; g < 8; ++g)
    {
        groups[g] = coin(rng) == 0 ? 0u : static_cast<unsigned int>(byte(rng) << 8 | byte(rng));
        bytes[2 * g] = static_cast<unsigned char>(groups[g] >> 8);
        bytes[2 * g + 1] = static_cast<unsigned char>(groups[g] & 0xFF);
    }
    int runStart = -1, runLength = 0;
    for (int g = 0; g < 8;)
    {
        int e = g;
        while (e < 8 && groups[e] == 0)
            ++e;
        if (e - g > runLength)
            runStart = g, runLength = e - g;
        g = e == g ? g + 1 : e;
    }
    const bool compress = runLength >= 2 && coin(rng) != 0;
    std::wstring text;
    for (int g = 0; g < 8; ++g)
    {
        if (compress && g == runStart)
        {
            text += L"::";
            g += runLength - 1;
            continue;
        }
        if (!text.empty() && text.back() != L':')
            text += L':';
        text += Hex(groups[g], coin(rng) == 0);
    }
    return text;
}

} // namespace

TEST(Network, IPv4ValidationAndClassification)
{
    in_addr a;
    EXPECT_EQ(ValidateIPv4(L"192.168.001.010", a), AddressPrivate); // octal pieces
    EXPECT_EQ(Bytes(a), (std::vector<unsigned char>{192, 168, 1, 8}));
    EXPECT_EQ(ValidateIPv4(L" 10 . 0 . 0 . 1 ", a), AddressPrivate);
    EXPECT_EQ(Bytes(a), (std::vector<unsigned char>{10, 0, 0, 1}));
    EXPECT_EQ(ValidateIPv4(L"0x7F.0.0.0x1", a), AddressPublic);
    EXPECT_EQ(Bytes(a), (std::vector<unsigned char>{127, 0, 0, 1}));
    EXPECT_EQ(ValidateIPv4(L"1..2.3", a), AddressPublic); // an empty piece is 0
    EXPECT_EQ(Bytes(a), (std::vector<unsigned char>{1, 0, 2, 3}));
    // The split drops a trailing empty piece, so one trailing dot is tolerated.
    EXPECT_EQ(ValidateIPv4(L"1.2.3.4.", a), AddressPublic);
    EXPECT_EQ(Bytes(a), (std::vector<unsigned char>{1, 2, 3, 4}));

    in_addr untouched;
    std::memset(&untouched, 0xAB, sizeof untouched);
    for (const wchar_t* bad : {L"256.1.1.1", L"1.2.3", L"1.2.3.4.5", L"1.2.3.x", L"1.2.3.08", L"", L"...",
                               L"1.2.3.0x", L"1.2.3.4 5", L"-1.2.3.4", L"1.2.3.0x100"})
    {
        EXPECT_EQ(ValidateIPv4(bad, untouched), AddressInvalid) << bad;
        EXPECT_FALSE(String2IPv4(bad)) << bad;
    }
    EXPECT_EQ(untouched.s_addr, 0xABABABABu);
    EXPECT_EQ(ValidateIPv4(nullptr), AddressInvalid);

    // The private ranges, with the upper bounds of 100.64/10 and 172.16/12 on the third byte.
    EXPECT_EQ(ValidateIPv4(L"10.255.255.255"), AddressPrivate);
    EXPECT_EQ(ValidateIPv4(L"11.0.0.1"), AddressPublic);
    EXPECT_EQ(ValidateIPv4(L"172.40.5.1"), AddressPrivate);
    EXPECT_EQ(ValidateIPv4(L"172.20.40.1"), AddressPublic);
    EXPECT_EQ(ValidateIPv4(L"172.15.0.1"), AddressPublic);
    EXPECT_EQ(ValidateIPv4(L"172.16.31.1"), AddressPrivate);
    EXPECT_EQ(ValidateIPv4(L"172.16.32.1"), AddressPublic);
    EXPECT_EQ(ValidateIPv4(L"100.64.0.1"), AddressPrivate);
    EXPECT_EQ(ValidateIPv4(L"100.200.127.1"), AddressPrivate);
    EXPECT_EQ(ValidateIPv4(L"100.100.128.1"), AddressPublic);
    EXPECT_EQ(ValidateIPv4(L"100.63.0.1"), AddressPublic);
    EXPECT_EQ(ValidateIPv4(L"192.168.0.1"), AddressPrivate);
    EXPECT_EQ(ValidateIPv4(L"192.169.0.1"), AddressPublic);
    EXPECT_EQ(ValidateIPv4(L"8.8.8.8"), AddressPublic);

    const boost::optional<in_addr> parsed = String2IPv4(L"127.0.0.1");
    ASSERT_TRUE(parsed);
    EXPECT_EQ(parsed->s_addr, htonl(0x7F000001u));
}

TEST(Network, IPv6ValidationAndClassification)
{
    in6_addr a;
    EXPECT_EQ(ValidateIPv6(L"::1", a), AddressPrivate);
    EXPECT_EQ(a.s6_addr[15], 1);
    EXPECT_EQ(ValidateIPv6(L"2001:db8::1", a), AddressPublic);
    EXPECT_EQ(a.s6_addr[0], 0x20);
    EXPECT_EQ(a.s6_addr[1], 0x01);
    EXPECT_EQ(a.s6_addr[3], 0xB8);
    EXPECT_EQ(ValidateIPv6(L"fe80::1"), AddressPrivate);
    EXPECT_EQ(ValidateIPv6(L"febf::1"), AddressPrivate);
    EXPECT_EQ(ValidateIPv6(L"fec0::1"), AddressPrivate);
    EXPECT_EQ(ValidateIPv6(L"feff::1"), AddressPrivate);
    EXPECT_EQ(ValidateIPv6(L"fe7f::1"), AddressPublic);
    EXPECT_EQ(ValidateIPv6(L"fd00::1"), AddressPublic); // unique-local counts as public
    EXPECT_EQ(ValidateIPv6(L"::"), AddressPublic);
    EXPECT_EQ(ValidateIPv6(L"::ffff:10.0.0.1"), AddressPublic);

    // The output is zeroed even for invalid text.
    std::memset(&a, 0xCD, sizeof a);
    EXPECT_EQ(ValidateIPv6(L"1:2", a), AddressInvalid); // one colon only
    EXPECT_EQ(Bytes(a), std::vector<unsigned char>(16, 0));
    for (const wchar_t* bad : {L"", L"1.2.3.4", L"[::1]", L"[::1]:80", L"1:2:3:4:5:6:7:8:9", L"::g",
                               L"1::2::3", L"12345::1", L"fe80::1 x"})
    {
        std::memset(&a, 0xCD, sizeof a);
        EXPECT_EQ(ValidateIPv6(bad, a), AddressInvalid) << bad;
        EXPECT_EQ(Bytes(a), std::vector<unsigned char>(16, 0)) << bad;
        EXPECT_FALSE(String2IPv6(bad)) << bad;
    }
    EXPECT_EQ(ValidateIPv6(nullptr), AddressInvalid);
    EXPECT_TRUE(String2IPv6(L"1:2:3:4:5:6:7:8"));
}

TEST(Network, MacParsingAndPrinting)
{
    const std::vector<unsigned char> expected{0x00, 0x1A, 0x2B, 0x3C, 0x4D, 0x5E};
    for (const wchar_t* text : {L"00:1A:2b:3C:4d:5E", L"00-1a-2b-3c-4d-5e", L"001A2B3C4D5E",
                                L"00 1A 2B 3C 4D 5E", L" 00:1a:2b:3c:4d:5e\t"})
        EXPECT_EQ(String2MAC(text), expected) << text;
    for (const wchar_t* bad : {L"00:11:22:33:44", L"00:11:22:33:44:55:66", L"00:11:22:33:44:5G",
                               L"00-11:22-33:44-55", L"00112233445", L"", L"0011223344GG"})
    {
        EXPECT_TRUE(String2MAC(bad).empty()) << bad;
        EXPECT_EQ(ValidateMAC(bad), AddressInvalid) << bad;
    }
    EXPECT_TRUE(String2MAC(nullptr).empty());
    // A piece is read by value, not by its number of digits.
    EXPECT_EQ(String2MAC(L"001:1:22:33:44:55"), (std::vector<unsigned char>{1, 1, 0x22, 0x33, 0x44, 0x55}));

    EXPECT_EQ(ValidateMAC(L"02:00:00:00:00:01"), AddressPrivate);
    EXPECT_EQ(ValidateMAC(L"00:00:00:00:00:01"), AddressPublic);
    EXPECT_EQ(ValidateMAC(L"F6:00:00:00:00:01"), AddressPrivate);
    EXPECT_EQ(ValidateMAC(L"0A:00:00:00:00:01"), AddressPrivate);
    EXPECT_EQ(ValidateMAC(L"0E:00:00:00:00:01"), AddressPrivate);
    EXPECT_EQ(ValidateMAC(L"03:00:00:00:00:01"), AddressPublic); // locally administered multicast
    EXPECT_EQ(ValidateMAC(L"20:00:00:00:00:01"), AddressPublic);

    EXPECT_EQ(MAC2String(expected, L'-', UpperCase), L"00-1A-2B-3C-4D-5E");
    EXPECT_EQ(MAC2String(expected, L':', LowerCase), L"00:1a:2b:3c:4d:5e");
    EXPECT_EQ(MAC2String(expected, L':', static_cast<ECase>(7)), L"00:1a:2b:3c:4d:5e");
    EXPECT_EQ(MAC2String(expected, 0, UpperCase), L"001A2B3C4D5E");
    EXPECT_EQ(MAC2String(std::vector<unsigned char>(5, 1), L':', UpperCase), L"");
    EXPECT_EQ(MAC2String(std::vector<unsigned char>(7, 1), L':', UpperCase), L"");
}

TEST(Network, Comparison)
{
    int r = 7;
    EXPECT_TRUE(CompareIPv4(L"10.0.0.2", L"9.255.255.255", r));
    EXPECT_EQ(r, 1);
    EXPECT_TRUE(CompareIPv4(L"1.2.3.4", L"1.2.3.5", r));
    EXPECT_EQ(r, -1);
    EXPECT_TRUE(CompareIPv4(L"1.2.3.4", L"01.2.3.4", r));
    EXPECT_EQ(r, 0);
    EXPECT_TRUE(CompareIPv4(L"255.0.0.0", L"127.255.255.255", r)); // unsigned, not signed
    EXPECT_EQ(r, 1);
    r = 7;
    EXPECT_FALSE(CompareIPv4(L"1.2.3.4", L"1.2.3", r));
    EXPECT_EQ(r, 0);
    r = 7;
    EXPECT_FALSE(CompareIPv4(nullptr, L"1.2.3.4", r));
    EXPECT_EQ(r, 0);

    EXPECT_TRUE(CompareIPv6(L"::1", L"::1", r));
    EXPECT_EQ(r, 0);
    EXPECT_TRUE(CompareIPv6(L"1::", L"2::", r));
    EXPECT_EQ(r, -1);
    // Within a group the second byte weighs more: ::1 holds 00 01, ::100 holds 01 00.
    EXPECT_TRUE(CompareIPv6(L"::1", L"::100", r));
    EXPECT_EQ(r, 1);
    EXPECT_TRUE(CompareIPv6(L"0:ff00::", L"0:1::", r));
    EXPECT_EQ(r, -1);
    EXPECT_TRUE(CompareIPv6(L"2::", L"1:ffff::", r)); // the first group decides
    EXPECT_EQ(r, 1);
    r = 7;
    EXPECT_FALSE(CompareIPv6(L"::1", L"1:2", r));
    EXPECT_EQ(r, 0);

    // Random pairs against the numeric order of the host-order values.
    std::mt19937 rng(FuzzSeed(99u));
    std::uniform_int_distribution<unsigned int> any;
    for (int n = 0; n < 5000; ++n)
    {
        const unsigned int x = any(rng), y = n % 7 == 0 ? x : any(rng);
        const std::wstring tx = Dotted({static_cast<unsigned char>(x >> 24), static_cast<unsigned char>(x >> 16),
                                        static_cast<unsigned char>(x >> 8), static_cast<unsigned char>(x)});
        const std::wstring ty = Dotted({static_cast<unsigned char>(y >> 24), static_cast<unsigned char>(y >> 16),
                                        static_cast<unsigned char>(y >> 8), static_cast<unsigned char>(y)});
        ASSERT_TRUE(CompareIPv4(tx.c_str(), ty.c_str(), r));
        ASSERT_EQ(r, x < y ? -1 : (x > y ? 1 : 0)) << tx << L" " << ty;
    }
}

TEST(Network, SocketAddressRecord)
{
    SOCKET_ADDRESS_EX empty;
    EXPECT_EQ(empty.GetFamily(), 0);
    EXPECT_EQ(empty.lpSockaddr, nullptr);
    EXPECT_EQ(empty.GetPort(), 0u);
    EXPECT_FALSE(empty.SetPort(1));
    ustring text = L"stale";
    EXPECT_FALSE(empty.AddressToString(text, false));
    EXPECT_TRUE(text.empty());

    sockaddr_in v4 = {};
    v4.sin_family = AF_INET;
    v4.sin_port = htons(80);
    v4.sin_addr.s_addr = htonl(0xC0A80101u); // 192.168.1.1
    SOCKET_ADDRESS_EX a(v4);
    EXPECT_EQ(a.GetFamily(), AF_INET);
    EXPECT_EQ(a.iSockaddrLength, static_cast<int>(sizeof(sockaddr_in)));
    EXPECT_EQ(a.GetPort(), htons(80));
    ASSERT_TRUE(a.AddressToString(text, false));
    EXPECT_EQ(text, L"192.168.1.1");
    ASSERT_TRUE(a.AddressToStringEx(text, false));
    EXPECT_EQ(text, L"192.168.1.1:80");
    ASSERT_TRUE(a.AddressToStringEx(text, true));
    EXPECT_EQ(text, L"192.168.1.1@80");
    sockaddr_in6 wrong;
    EXPECT_FALSE(a.GetSockAddr(wrong));

    // Copies point at their own storage.
    SOCKET_ADDRESS_EX b(a);
    EXPECT_EQ(b.lpSockaddr, reinterpret_cast<sockaddr*>(&b.Ipv4));
    b.SetPort(htons(81));
    EXPECT_EQ(a.GetPort(), htons(80));
    sockaddr_in back;
    ASSERT_TRUE(b.GetSockAddr(back));
    EXPECT_EQ(back.sin_port, htons(81));

    sockaddr_in6 v6 = {};
    v6.sin6_family = AF_INET6;
    v6.sin6_port = htons(80);
    v6.sin6_addr.s6_addr[0] = 0xFE;
    v6.sin6_addr.s6_addr[1] = 0x80;
    v6.sin6_addr.s6_addr[15] = 1;
    SOCKET_ADDRESS_EX c(reinterpret_cast<const sockaddr*>(&v6), sizeof v6);
    EXPECT_EQ(c.GetFamily(), AF_INET6);
    ASSERT_TRUE(c.AddressToStringEx(text, false));
    EXPECT_EQ(text, L"[fe80::1]:80");
    ASSERT_TRUE(c.AddressToStringEx(text, true));
    EXPECT_EQ(text, L"[fe80__1]@80");
    ASSERT_TRUE(c.AddressToString(text, true));
    EXPECT_EQ(text, L"fe80__1");
    c.SetPort(0);
    ASSERT_TRUE(c.AddressToStringEx(text, true)); // no port: no "@"
    EXPECT_EQ(text, L"fe80__1");

    // Too short for its family, unknown family, null: empty.
    EXPECT_EQ(SOCKET_ADDRESS_EX(reinterpret_cast<const sockaddr*>(&v6), 16).GetFamily(), 0);
    EXPECT_EQ(SOCKET_ADDRESS_EX(reinterpret_cast<const sockaddr*>(&v4), 15).GetFamily(), 0);
    EXPECT_EQ(SOCKET_ADDRESS_EX(nullptr, 100).GetFamily(), 0);
    sockaddr odd = {};
    odd.sa_family = AF_UNIX;
    EXPECT_EQ(SOCKET_ADDRESS_EX(&odd, sizeof odd).GetFamily(), 0);

    SOCKADDR_BTH bth = {};
    bth.addressFamily = AF_BTH;
    bth.port = 5;
    SOCKET_ADDRESS_EX d(reinterpret_cast<const sockaddr*>(&bth), sizeof bth);
    EXPECT_EQ(d.GetFamily(), AF_BTH);
    EXPECT_EQ(d.iSockaddrLength, 30);
    EXPECT_EQ(d.GetPort(), 5u);
    SOCKADDR_BTH bthBack = {};
    EXPECT_TRUE(d.GetSockAddr(bthBack));
    EXPECT_EQ(bthBack.port, 5u);
    EXPECT_EQ(SOCKET_ADDRESS_EX(reinterpret_cast<const sockaddr*>(&bth), 29).GetFamily(), 0);

    // Assignment from a shorter family leaves no trace of the longer one.
    d = v4;
    EXPECT_EQ(d.GetFamily(), AF_INET);
    EXPECT_EQ(d.iSockaddrLength, 16);
    d.Clear();
    EXPECT_EQ(d.GetFamily(), 0);
}

TEST(Network, SocketAddressFromText)
{
    SOCKET_ADDRESS_EX a;
    ASSERT_TRUE(a.StringToAddress(L"10.1.2.3"));
    EXPECT_EQ(a.GetFamily(), AF_INET);
    sockaddr_in v4;
    ASSERT_TRUE(a.GetSockAddr(v4));
    EXPECT_EQ(v4.sin_addr.s_addr, htonl(0x0A010203u));

    ASSERT_TRUE(a.StringToAddress(L"10.1.2.3:8080"));
    EXPECT_EQ(a.GetPort(), htons(8080));

    ASSERT_TRUE(a.StringToAddress(L"::1"));
    EXPECT_EQ(a.GetFamily(), AF_INET6);
    EXPECT_EQ(a.iSockaddrLength, 28);
    ustring text;
    ASSERT_TRUE(a.AddressToString(text));
    EXPECT_EQ(text, L"::1");

    ASSERT_TRUE(a.StringToAddress(L"[fe80::2]:443"));
    ASSERT_TRUE(a.AddressToStringEx(text));
    EXPECT_EQ(text, L"[fe80::2]:443");

    // Text that no family accepts leaves the record as it was.
    EXPECT_FALSE(a.StringToAddress(L"not an address"));
    EXPECT_FALSE(a.StringToAddress(L""));
    EXPECT_FALSE(a.StringToAddress(nullptr));
    ASSERT_TRUE(a.AddressToStringEx(text));
    EXPECT_EQ(text, L"[fe80::2]:443");

    // Text round trip through the record for random IPv4 addresses and ports.
    std::mt19937 rng(FuzzSeed(5u));
    std::uniform_int_distribution<int> byte(0, 255), port(1, 65535);
    for (int n = 0; n < 2000; ++n)
    {
        const std::wstring address = Dotted({static_cast<unsigned char>(byte(rng)), static_cast<unsigned char>(byte(rng)),
                                             static_cast<unsigned char>(byte(rng)), static_cast<unsigned char>(byte(rng))});
        const std::wstring full = address + L":" + std::to_wstring(port(rng));
        ASSERT_TRUE(a.StringToAddress(full.c_str())) << full;
        ASSERT_TRUE(a.AddressToStringEx(text));
        ASSERT_EQ(std::wstring(text), full);
        ASSERT_TRUE(a.AddressToString(text));
        ASSERT_EQ(std::wstring(text), address);
    }
}

TEST(Network, RandomizedIPv4AgainstInetPton)
{
    const unsigned int seed = FuzzSeed(20240611u);
    std::mt19937 rng(seed);
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::uniform_int_distribution<int> byte(0, 255);

    // Well-formed decimal quads: the same bytes as Winsock's parser.
    for (int n = 0; n < kFuzzCount / 2; ++n)
    {
        std::vector<unsigned char> b(4);
        for (auto& x : b)
            x = static_cast<unsigned char>(byte(rng));
        const std::wstring text = Dotted(b);
        in_addr mine, reference;
        ASSERT_NE(ValidateIPv4(text.c_str(), mine), AddressInvalid) << text;
        ASSERT_EQ(::InetPtonW(AF_INET, text.c_str(), &reference), 1) << text;
        ASSERT_EQ(mine.s_addr, reference.s_addr) << text;
    }

    // Arbitrary and mutated text: no crash, and every accepted text means one address, which
    // its canonical form gives back with the same class.
    const std::wstring alphabet = L"0123456789.. xX0abcdefABCDEF\t+-";
    int accepted = 0;
    for (int n = 0; n < kFuzzCount; ++n)
    {
        std::wstring text;
        if (n % 2 == 0)
            text = RandomText(rng, alphabet, 20);
        else
            text = Mutate(rng, Dotted({static_cast<unsigned char>(byte(rng)), static_cast<unsigned char>(byte(rng)),
                                       static_cast<unsigned char>(byte(rng)), static_cast<unsigned char>(byte(rng))}),
                          alphabet);
        in_addr address;
        const EAddressType type = ValidateIPv4(text.c_str(), address);
        ASSERT_TRUE(type == AddressInvalid || type == AddressPrivate || type == AddressPublic);
        ASSERT_EQ(static_cast<bool>(String2IPv4(text.c_str())), type != AddressInvalid);
        if (type == AddressInvalid)
            continue;
        ++accepted;
        const std::wstring canonical = Dotted(Bytes(address));
        in_addr again;
        ASSERT_EQ(ValidateIPv4(canonical.c_str(), again), type) << text;
        ASSERT_EQ(again.s_addr, address.s_addr) << text;
    }
    EXPECT_GT(accepted, 1000); // the generator does reach valid text
}

TEST(Network, RandomizedIPv6AgainstInetPton)
{
    const unsigned int seed = FuzzSeed(424242u);
    std::mt19937 rng(seed);
    SCOPED_TRACE("seed " + std::to_string(seed));

    // Well-formed texts: the bytes the generator meant and the bytes Winsock's own parser reads.
    for (int n = 0; n < 20000; ++n)
    {
        unsigned char bytes[16];
        const std::wstring text = RandomIPv6(rng, bytes);
        in6_addr mine, reference;
        ASSERT_NE(ValidateIPv6(text.c_str(), mine), AddressInvalid) << text;
        ASSERT_EQ(::InetPtonW(AF_INET6, text.c_str(), &reference), 1) << text;
        ASSERT_EQ(Bytes(mine), Bytes(reference)) << text;
        ASSERT_EQ(Bytes(mine), std::vector<unsigned char>(bytes, bytes + 16)) << text;
    }

    // Arbitrary and mutated text: no crash; an accepted text prints back to the same address.
    const std::wstring alphabet = L"0123456789abcdefABCDEF::::.%g []";
    int accepted = 0;
    for (int n = 0; n < kFuzzCount; ++n)
    {
        std::wstring text;
        if (n % 2 == 0)
        {
            text = RandomText(rng, alphabet, 24);
        }
        else
        {
            unsigned char bytes[16];
            text = Mutate(rng, RandomIPv6(rng, bytes), alphabet);
        }
        in6_addr address;
        const EAddressType type = ValidateIPv6(text.c_str(), address);
        ASSERT_TRUE(type == AddressInvalid || type == AddressPrivate || type == AddressPublic);
        if (type == AddressInvalid)
        {
            ASSERT_EQ(Bytes(address), std::vector<unsigned char>(16, 0)) << text;
            continue;
        }
        ++accepted;
        wchar_t printed[64];
        ASSERT_NE(::InetNtopW(AF_INET6, &address, printed, 64), nullptr);
        in6_addr again;
        ASSERT_EQ(ValidateIPv6(printed, again), type) << text << L" -> " << printed;
        ASSERT_EQ(Bytes(again), Bytes(address)) << text;
    }
    EXPECT_GT(accepted, 1000);
}

TEST(Network, RandomizedMac)
{
    const unsigned int seed = FuzzSeed(777u);
    std::mt19937 rng(seed);
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::uniform_int_distribution<int> byte(0, 255), form(0, 3);
    const wchar_t separators[] = {L':', L'-', 0, L' '};
    const std::wstring alphabet = L"0123456789abcdefABCDEF::--  xX+";
    int accepted = 0;
    for (int n = 0; n < kFuzzCount; ++n)
    {
        std::vector<unsigned char> mac(6);
        for (auto& b : mac)
            b = static_cast<unsigned char>(byte(rng));
        const wchar_t separator = separators[form(rng)];
        std::wstring text = MAC2String(mac, separator, n % 2 ? UpperCase : LowerCase);
        if (n % 4 == 0)
        {
            // Printed text parses back to the same six bytes.
            ASSERT_EQ(String2MAC(text.c_str()), mac) << text;
            ASSERT_EQ(ValidateMAC(text.c_str()), ((mac[0] & 0x0F) % 4 == 2) ? AddressPrivate : AddressPublic) << text;
            continue;
        }
        text = n % 4 == 1 ? Mutate(rng, text, alphabet) : RandomText(rng, alphabet, 20);
        const std::vector<unsigned char> parsed = String2MAC(text.c_str());
        ASSERT_TRUE(parsed.empty() || parsed.size() == 6) << text;
        ASSERT_EQ(ValidateMAC(text.c_str()) == AddressInvalid, parsed.empty()) << text;
        if (parsed.empty())
            continue;
        ++accepted;
        ASSERT_EQ(String2MAC(MAC2String(parsed, L'-', UpperCase).c_str()), parsed) << text;
    }
    EXPECT_GT(accepted, 1000);
}

TEST(Network, RandomizedSocketAddressText)
{
    const unsigned int seed = FuzzSeed(8080u);
    std::mt19937 rng(seed);
    SCOPED_TRACE("seed " + std::to_string(seed));
    const std::wstring alphabet = L"0123456789abcdefABCDEF:::...[]%()";
    sockaddr_in anchor = {};
    anchor.sin_family = AF_INET;
    anchor.sin_port = htons(1);
    anchor.sin_addr.s_addr = htonl(0x01020304u);
    int accepted = 0;
    for (int n = 0; n < kFuzzCount; ++n)
    {
        const std::wstring text = RandomText(rng, alphabet, 24);
        SOCKET_ADDRESS_EX record(anchor);
        if (!record.StringToAddress(text.c_str()))
        {
            // Refused text leaves the record as it was.
            sockaddr_in back;
            ASSERT_TRUE(record.GetSockAddr(back)) << text;
            ASSERT_EQ(back.sin_addr.s_addr, anchor.sin_addr.s_addr) << text;
            continue;
        }
        ++accepted;
        const int family = record.GetFamily();
        ASSERT_TRUE(family == AF_INET || family == AF_INET6 || family == AF_BTH) << text;
        ASSERT_EQ(record.lpSockaddr, reinterpret_cast<sockaddr*>(&record.Ipv4));
        // An accepted address prints, and the print reads back to the same record.
        ustring printed;
        ASSERT_TRUE(record.AddressToStringEx(printed)) << text;
        SOCKET_ADDRESS_EX again;
        ASSERT_TRUE(again.StringToAddress(printed.c_str())) << text << L" -> " << printed;
        ASSERT_EQ(again.GetFamily(), family);
        ASSERT_EQ(again.iSockaddrLength, record.iSockaddrLength);
        ASSERT_EQ(std::memcmp(again.lpSockaddr, record.lpSockaddr, static_cast<std::size_t>(record.iSockaddrLength)), 0)
            << text << L" -> " << printed;
    }
    EXPECT_GT(accepted, 100);
}
