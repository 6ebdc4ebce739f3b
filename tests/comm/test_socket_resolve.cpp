// Name resolution: the forms of address text, the family filter, the default port, malformed
// text and the resolver's own failures, and resolved addresses that connect. Names that would
// reach a name server are resolved only inside a network namespace (test_socket_netns.cpp).
#include <tavrin/comm/resolver.h>
#include <tavrin/comm/socket.h>

#include "comm_test_support.h"

#include <gtest/gtest.h>

using namespace tavrin;
using namespace commtest;

namespace {

std::vector<std::wstring> TextsOf(const std::vector<SOCKET_ADDRESS_EX>& addresses)
{
    std::vector<std::wstring> texts;
    for (const SOCKET_ADDRESS_EX& address : addresses)
        texts.push_back(Text(address));
    return texts;
}

} // namespace

TEST(ResolveAddress, FormsOfAddressText)
{
    const struct
    {
        const wchar_t* text;
        int family;
        unsigned short defaultPort;
        std::vector<std::wstring> expected;
    } cases[] = {
        {L"127.0.0.1", AF_UNSPEC, 0, {L"127.0.0.1"}},
        {L"127.0.0.1", AF_UNSPEC, 80, {L"127.0.0.1:80"}},
        {L"127.0.0.1:8080", AF_UNSPEC, 80, {L"127.0.0.1:8080"}},
        {L"127.0.0.1:65535", AF_INET, 0, {L"127.0.0.1:65535"}},
        {L"[127.0.0.1]:7", AF_UNSPEC, 0, {L"127.0.0.1:7"}},
        {L"::1", AF_UNSPEC, 0, {L"::1"}},
        {L"::1", AF_UNSPEC, 22, {L"[::1]:22"}},
        {L"[::1]", AF_INET6, 443, {L"[::1]:443"}},
        {L"[::1]:8443", AF_UNSPEC, 443, {L"[::1]:8443"}},
        {L"[fe80::1]:1", AF_UNSPEC, 0, {L"[fe80::1]:1"}},
        {L"::ffff:127.0.0.1", AF_INET6, 0, {L"::ffff:127.0.0.1"}},
        {L":9000", AF_INET, 0, {L"0.0.0.0:9000"}},
        {L":9000", AF_INET6, 0, {L"[::]:9000"}},
        {L"[]:9001", AF_INET, 0, {L"0.0.0.0:9001"}},
        {L"[]", AF_INET, 21, {L"0.0.0.0:21"}},
    };
    for (const auto& c : cases)
    {
        SCOPED_TRACE(Narrow(c.text));
        EXPECT_EQ(c.expected, TextsOf(ResolveAddress(c.text, c.family, c.defaultPort, AI_NUMERICHOST)));
    }

    // A name from the hosts file: its IPv4 address at least, each address once, with the port.
    const std::vector<SOCKET_ADDRESS_EX> local = ResolveAddress(L"localhost:7");
    const std::vector<std::wstring> texts = TextsOf(local);
    EXPECT_NE(texts.end(), std::find(texts.begin(), texts.end(), L"127.0.0.1:7"));
    for (std::size_t i = 0; i < texts.size(); ++i)
        EXPECT_EQ(texts.end(), std::find(texts.begin() + static_cast<std::ptrdiff_t>(i) + 1, texts.end(), texts[i]));
    EXPECT_EQ((std::vector<std::wstring>{L"127.0.0.1:7"}), TextsOf(ResolveAddress(L"localhost:7", AF_INET)));
    // A service name is looked up as a port.
    EXPECT_EQ((std::vector<std::wstring>{L"127.0.0.1:80"}), TextsOf(ResolveAddress(L"127.0.0.1:http", AF_INET)));
}

TEST(ResolveAddress, FailuresCarryTheResolversCode)
{
    // Text of none of the forms: refused before the resolver is asked.
    for (const wchar_t* text : {static_cast<const wchar_t*>(nullptr), L"", L"[::1", L"[::1]x", L"[::1]:", L"host:",
                                L"a]b:80", L"[[::1]]:80", L"127.0.0.1:", L"127.0.0.1:65536", L"[::1]:99999"})
    {
        SCOPED_TRACE(text == nullptr ? "null" : Narrow(text));
        const CWinException e = tavrintest::CatchWinException([&] { ResolveAddress(text); });
        EXPECT_EQ(WSAEINVAL, e.GetErrorCode());
        EXPECT_EQ(L"tavrin::ResolveAddress", e.GetFunction());
    }

    // The resolver's refusals, none of which asks a name server.
    const struct
    {
        const wchar_t* text;
        int family;
        int flags;
        long error; // 0: any code
    } cases[] = {
        {L"no-such-host.invalid", AF_UNSPEC, AI_NUMERICHOST, WSAHOST_NOT_FOUND}, // a name, numbers required
        {L"127.0.0.1:no-such-service", AF_INET, AI_NUMERICHOST, WSATYPE_NOT_FOUND},
        {L"127.0.0.1", AF_BTH, AI_NUMERICHOST, WSAEAFNOSUPPORT},
        // The wrong family: Windows says WSAHOST_NOT_FOUND, Wine hands on its host's own code.
        {L"127.0.0.1", AF_INET6, AI_NUMERICHOST, 0},
    };
    for (const auto& c : cases)
    {
        SCOPED_TRACE(Narrow(c.text));
        const CWinException e =
            tavrintest::CatchWinException([&] { ResolveAddress(c.text, c.family, 0, c.flags); });
        EXPECT_EQ(L"GetAddrInfoW", e.GetFunction());
        EXPECT_NE(0, e.GetErrorCode());
        if (c.error != 0)
        {
            EXPECT_EQ(c.error, e.GetErrorCode());
        }
    }
}

TEST(ResolveAddress, ResolvedAddressesConnect)
{
    for (const int family : {AF_INET, AF_INET6})
    {
        SCOPED_TRACE(family == AF_INET ? "IPv4" : "IPv6");
        CWSASocket listener;
        listener.Create(family, SOCK_STREAM, IPPROTO_TCP);
        listener.Bind(ResolveAddress(family == AF_INET ? L"127.0.0.1" : L"::1").front());
        SOCKET_ADDRESS_EX bound;
        listener.GetSockName(bound);
        listener.Listen(1);

        // The printed address resolves back to itself, and the client reaches the listener.
        const std::vector<SOCKET_ADDRESS_EX> resolved = ResolveAddress(Text(bound).c_str());
        ASSERT_EQ(1u, resolved.size());
        EXPECT_EQ(Text(bound), Text(resolved[0]));
        CWSASocket client;
        client.Create(family, SOCK_STREAM, IPPROTO_TCP);
        LimitBlocking(client);
        client.Connect(resolved[0]);
        ASSERT_TRUE(Readable(listener));
        SOCKET_ADDRESS_EX peer;
        CWSASocket server(listener.Accept(peer));
        SOCKET_ADDRESS_EX clientLocal;
        client.GetSockName(clientLocal);
        EXPECT_EQ(Text(clientLocal), Text(peer));
    }
}
