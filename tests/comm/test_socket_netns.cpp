// Unreachable destinations, made inside a network namespace whose loopback is down: an echo, a
// connection and a name that needs a name server all fail, each in its documented way.
#include <tavrin/comm/icmp.h>
#include <tavrin/comm/resolver.h>
#include <tavrin/comm/socket.h>
#include <tavrin/log/logcall.h>

#include "comm_test_support.h"

#include <gtest/gtest.h>

using namespace tavrin;
using namespace commtest;

namespace {

bool InsideNamespaceWithoutLoopback()
{
    char mode[32] = {};
    ::GetEnvironmentVariableA("TAVRIN_NETNS_MODE", mode, sizeof mode);
    return std::string(mode) == "nolo";
}

#define SKIP_OUTSIDE_THE_NAMESPACE()                                                                     \
    if (!InsideNamespaceWithoutLoopback())                                                               \
    GTEST_SKIP() << "runs inside the namespace of NetworkNamespace.LoopbackDown"

} // namespace

TEST(NetworkNamespace, LoopbackDown)
{
    COMMTEST_SKIP_WITHOUT_WINE();
    ExpectPassedInNetworkNamespace("nolo", "DISABLED_NetnsNoLoopback", 3);
}

TEST(DISABLED_NetnsNoLoopback, EchoIsUnreachable)
{
    SKIP_OUTSIDE_THE_NAMESPACE();
    CICMP icmp;
    ASSERT_TRUE(icmp.IsCreated());
    in_addr loopback;
    loopback.s_addr = htonl(INADDR_LOOPBACK);
    std::vector<unsigned char> reply(3, 0xEE);
    const DWORD result = icmp.SendEcho(loopback, Pattern(32, 3), reply, 1000, nullptr);
    EXPECT_TRUE(reply.empty());
    EXPECT_NE(static_cast<DWORD>(IP_SUCCESS), result);
    // One of the echo failures that have a text of their own.
    EXPECT_EQ(std::wstring::npos, CICMP::Status2String(result).find(L"Unknown")) << result;
}

TEST(DISABLED_NetnsNoLoopback, ConnectIsUnreachable)
{
    SKIP_OUTSIDE_THE_NAMESPACE();
    logtest::CTempFolder folder(L"unreachable");
    logtest::CServerSetup setup(folder.Path(), eLogFileDetailNormal);
    const SOCKET_ADDRESS_EX target = Loopback(AF_INET, 7);
    CWSASocket client;
    client.Create(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    const unsigned int channel = LogChannel(client);
    const CWinException e = tavrintest::CatchWinException([&] { client.Connect(target); });
    EXPECT_EQ(WSAENETUNREACH, e.GetErrorCode());
    EXPECT_EQ(428u, e.GetLine());
    EXPECT_EQ(L"WSAConnect", e.GetFunction());
    EXPECT_FALSE(CLogFileServer::Ref().LogFileExists(channel));
    EXPECT_EQ((std::vector<std::string>{"The socket cannot connect to the following address: 127.0.0.1:7. "
                                        "WSAGetLastError()=10051."}),
              Texts(ReadLog(LogFileNamed(folder.Path(), L"127.0.0.1@7"))));

    // A datagram finds no route either.
    CWSASocket datagram;
    datagram.Create(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
    unsigned int sent = 0;
    const CWinException sending =
        tavrintest::CatchWinException([&] { datagram.SendTo("x", 1, sent, 0, target); });
    EXPECT_EQ(WSAENETUNREACH, sending.GetErrorCode());
    EXPECT_EQ(815u, sending.GetLine());
    EXPECT_EQ(L"WSASendTo", sending.GetFunction());
}

TEST(DISABLED_NetnsNoLoopback, NamesCannotBeResolved)
{
    SKIP_OUTSIDE_THE_NAMESPACE();
    // No name server can be reached from in here: the resolver's own code comes back.
    const CWinException e = tavrintest::CatchWinException([] { ResolveAddress(L"tavrin-test.invalid:80"); });
    EXPECT_EQ(L"GetAddrInfoW", e.GetFunction());
    EXPECT_TRUE(e.GetErrorCode() == WSATRY_AGAIN || e.GetErrorCode() == WSAHOST_NOT_FOUND) << e.GetErrorCode();
    // Numeric text needs no name server.
    EXPECT_EQ(L"127.0.0.1:80", Text(ResolveAddress(L"127.0.0.1:80").front()));
}
