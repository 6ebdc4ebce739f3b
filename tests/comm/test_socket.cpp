// Logged sockets on the loopback addresses: connections and datagrams, synchronous and overlapped
// transfers with their log records, refused and reset connections, accept conditions, select's
// time-outs, and the failure line, function and text of every member.
#include <tavrin/comm/socket.h>
#include <tavrin/log/logcall.h>
#include <tavrin/log/logfile.h>

#include "comm_test_support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <thread>

using namespace tavrin;
using namespace commtest;

namespace {

std::string Format(const char* format, long code)
{
    char text[512];
    std::snprintf(text, sizeof text, format, code);
    return text;
}

std::string operator+(const std::string& text, const ustring& wide)
{
    return text + Narrow(wide);
}

// Sends one byte on a socket after a delay, from a thread of its own, unless cancelled first: it
// ends a select that would otherwise wait longer than a test may.
class CLateSender
{
public:
    CLateSender(SOCKET socket, DWORD delayMs)
        : m_Cancel(nullptr, TRUE, FALSE, nullptr), m_Thread([this, socket, delayMs] {
              if (::WaitForSingleObject(m_Cancel, delayMs) == WAIT_TIMEOUT)
                  ::send(socket, "!", 1, 0);
          })
    {
    }
    ~CLateSender()
    {
        m_Cancel.Set();
        m_Thread.join();
    }

private:
    CEvent m_Cancel;
    std::thread m_Thread;
};

fd_set SetOf(SOCKET socket)
{
    fd_set set;
    FD_ZERO(&set);
    FD_SET(socket, &set);
    return set;
}

fd_set EmptySet()
{
    fd_set set;
    FD_ZERO(&set);
    return set;
}

bool WaitFor(CWSAOverlapped& overlapped)
{
    WSAEVENT event = overlapped.GetEvent();
    return ::WSAWaitForMultipleEvents(1, &event, TRUE, kWaitMs, FALSE) == WSA_WAIT_EVENT_0;
}

std::vector<unsigned char> Joined(const std::vector<LogItem>& items, LogItem::EKind kind)
{
    std::vector<unsigned char> bytes;
    for (const LogItem& item : items)
        if (item.kind == kind)
            bytes.insert(bytes.end(), item.data.begin(), item.data.end());
    return bytes;
}

// What a condition function of WSAAccept saw, and what it answers.
struct ConditionCall
{
    int verdict;
    int calls;
    SOCKET_ADDRESS_EX caller;
};

int CALLBACK Decide(LPWSABUF callerId, LPWSABUF, LPQOS, LPQOS, LPWSABUF, LPWSABUF, GROUP*, DWORD_PTR data)
{
    ConditionCall* call = reinterpret_cast<ConditionCall*>(data);
    ++call->calls;
    if (callerId != nullptr && callerId->buf != nullptr)
        call->caller = SOCKET_ADDRESS_EX(reinterpret_cast<const sockaddr*>(callerId->buf), callerId->len);
    return call->verdict;
}

} // namespace

TEST(Socket, SynchronousExchangeIsLoggedInOneFilePerConnection)
{
    for (const int family : {AF_INET, AF_INET6})
    {
        SCOPED_TRACE(family == AF_INET ? "IPv4" : "IPv6");
        logtest::CTempFolder folder(L"sync");
        logtest::CServerSetup setup(folder.Path(), eLogFileDetailVerbose);
        const std::vector<unsigned char> hello = Bytes("hello\r\n\x01");
        const std::vector<unsigned char> answer = Pattern(300, 1);
        SOCKET_ADDRESS_EX listenerAddress, clientAddress;
        {
            CTcpPair pair(family);
            ASSERT_TRUE(pair.server.IsCreated());
            listenerAddress = pair.listenerAddress;
            clientAddress = pair.clientAddress;
            const unsigned int clientChannel = LogChannel(pair.client);
            EXPECT_TRUE(CLogFileServer::Ref().LogFileExists(clientChannel));
            EXPECT_TRUE(CLogFileServer::Ref().LogFileExists(LogChannel(pair.server)));
            EXPECT_FALSE(CLogFileServer::Ref().LogFileExists(LogChannel(pair.listener))); // bound without a name

            unsigned int sent = 0;
            EXPECT_TRUE(pair.client.Send(hello.data(), static_cast<unsigned int>(hello.size()), sent));
            EXPECT_EQ(hello.size(), sent);
            EXPECT_EQ(hello, ReceiveExactly(pair.server, hello.size()));
            EXPECT_TRUE(pair.server.Send(answer.data(), static_cast<unsigned int>(answer.size()), sent));
            EXPECT_EQ(answer, ReceiveExactly(pair.client, answer.size()));

            SOCKET_ADDRESS_EX clientLocal;
            pair.client.GetSockName(clientLocal);
            EXPECT_EQ(Text(clientAddress), Text(clientLocal));
            pair.client.Shutdown(SD_SEND);
            unsigned int got = 1;
            DWORD flags = 0;
            char byte = 0;
            EXPECT_TRUE(pair.server.Recv(&byte, 1, got, flags));
            EXPECT_EQ(0u, got); // the client's end of sending

            EXPECT_TRUE(pair.client.Close());
            EXPECT_FALSE(pair.client.Close());
            EXPECT_FALSE(CLogFileServer::Ref().LogFileExists(clientChannel));
        }
        EXPECT_EQ(2u, logtest::ListFiles(folder.Path()).size());

        // The client's file is named after the address it connected to.
        const std::vector<LogItem> client = ReadLog(LogFileNamed(folder.Path(), Text(listenerAddress, true)));
        ASSERT_FALSE(client.empty());
        EXPECT_EQ((std::vector<std::string>{
                      "The socket connected to the following address: " + Text(listenerAddress) + ".",
                      "getsockname() succeeded. *pSockAddr=" + Text(clientAddress) + ".",
                      "shutdown(int how=1) succeeded.", "The socket was closed."}),
                  Texts(client));
        EXPECT_EQ(LogItem::eText, client.front().kind);
        const std::vector<LogItem> clientData = DataRecords(client);
        ASSERT_FALSE(clientData.empty());
        EXPECT_EQ(LogItem::eWrite, clientData[0].kind);
        EXPECT_TRUE(clientData[0].synchronous);
        EXPECT_EQ(hello, clientData[0].data);
        EXPECT_EQ(answer, Joined(clientData, LogItem::eRead));
        EXPECT_EQ(1u, std::count_if(clientData.begin(), clientData.end(),
                                    [](const LogItem& item) { return item.kind == LogItem::eWrite; }));

        // The server's file is named after the client, and ends with the empty read of its end.
        const std::vector<LogItem> server = ReadLog(LogFileNamed(folder.Path(), Text(clientAddress, true)));
        EXPECT_EQ((std::vector<std::string>{"New incoming connection has been accepted. Client address: " +
                                                Text(clientAddress),
                                            "The socket was closed."}),
                  Texts(server));
        const std::vector<LogItem> serverData = DataRecords(server);
        ASSERT_GE(serverData.size(), 3u);
        EXPECT_EQ(hello, Joined(serverData, LogItem::eRead));
        EXPECT_EQ(LogItem::eWrite, serverData[serverData.size() - 2].kind);
        EXPECT_EQ(answer, serverData[serverData.size() - 2].data);
        EXPECT_EQ(LogItem::eRead, serverData.back().kind);
        EXPECT_TRUE(serverData.back().data.empty());
    }
}

TEST(Socket, OverlappedTransfersArePendingThenCommitted)
{
    logtest::CTempFolder folder(L"overlapped");
    logtest::CServerSetup setup(folder.Path(), eLogFileDetailVerbose);
    std::vector<unsigned char> received(4096);
    const std::vector<unsigned char> big = Pattern(256 * 1024, 3);
    const std::vector<unsigned char> abc = Bytes("abc");
    SOCKET_ADDRESS_EX listenerAddress;
    {
        CTcpPair pair(AF_INET);
        ASSERT_TRUE(pair.server.IsCreated());
        listenerAddress = pair.listenerAddress;

        // A read with nothing to read is pending; asking without waiting says so and throws nothing.
        CWSAOverlapped readOv;
        unsigned int count = 0;
        DWORD flags = 0;
        EXPECT_FALSE(pair.client.Recv(received.data(), 4096, count, flags, &readOv));
        EXPECT_FALSE(pair.client.GetOverlappedResult(&readOv, count, FALSE, flags));
        unsigned int sent = 0;
        pair.server.Send(abc.data(), 3, sent);
        ASSERT_TRUE(WaitFor(readOv));
        EXPECT_TRUE(pair.client.GetOverlappedResult(&readOv, count, TRUE, flags));
        EXPECT_EQ(3u, count);
        // Asking again finds the operation committed already: no second record.
        EXPECT_TRUE(pair.client.GetOverlappedResult(&readOv, count, TRUE, flags));

        // A write larger than what the connection buffers is pending until the peer reads.
        pair.client.SetSockOpt(SOL_SOCKET, SO_SNDBUF, 4096);
        LimitBlocking(pair.server);
        CWSAOverlapped writeOv;
        EXPECT_FALSE(pair.client.Send(big.data(), static_cast<unsigned int>(big.size()), sent, 0, &writeOv));
        EXPECT_EQ(big, ReceiveExactly(pair.server, big.size()));
        ASSERT_TRUE(WaitFor(writeOv));
        EXPECT_TRUE(pair.client.GetOverlappedResult(&writeOv, count, TRUE, flags));
        EXPECT_EQ(big.size(), count);
    }

    const std::vector<LogItem> client = ReadLog(LogFileNamed(folder.Path(), Text(listenerAddress, true)));
    EXPECT_EQ((std::vector<std::string>{
                  "The socket connected to the following address: " + Text(listenerAddress) + ".",
                  "Pending read request initiated. Buffer size: 4096.",
                  "WSAGetOverlappedResult() failed. WSAGetLastError()=996, fWait=FALSE.",
                  "setsockopt(int nLevel=65535, int nOptName=4097, LPCVOID lpData) succeeded. *lpData=00 10 00 00.",
                  "Pending write request initiated. Buffer size: 262144.", "The socket was closed."}),
              Texts(client));
    EXPECT_EQ((std::vector<LogItem>{DataRecord(LogItem::eRead, false, abc), DataRecord(LogItem::eWrite, false, big)}),
              DataRecords(client));
    // Records in the order of the calls: the read completed before the option was set.
    auto position = [&](const std::string& text) {
        return std::find_if(client.begin(), client.end(), [&](const LogItem& i) { return i.text == text; }) -
               client.begin();
    };
    const auto readAt = std::find_if(client.begin(), client.end(),
                                     [](const LogItem& i) { return i.kind == LogItem::eRead; }) -
                        client.begin();
    EXPECT_LT(position("WSAGetOverlappedResult() failed. WSAGetLastError()=996, fWait=FALSE."), readAt);
    EXPECT_GT(position("setsockopt(int nLevel=65535, int nOptName=4097, LPCVOID lpData) succeeded. *lpData=00 10 "
                       "00 00."),
              readAt);
}

TEST(Socket, DatagramsWithSendToAndRecvFrom)
{
    logtest::CTempFolder folder(L"udp");
    logtest::CServerSetup setup(folder.Path(), eLogFileDetailVerbose);
    const std::vector<unsigned char> ping = Bytes("ping\x01\x02");
    const std::vector<unsigned char> pong = Pattern(50, 9);
    SOCKET_ADDRESS_EX aAddress, bAddress;
    {
        CWSASocket a, b;
        b.Create(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
        b.Bind(Loopback(AF_INET, 0));
        b.GetSockName(bAddress);
        // A datagram socket that talks to one peer: its log file is named after that peer.
        a.Create(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
        a.Bind(Loopback(AF_INET, 0), bAddress);
        a.GetSockName(aAddress);
        LimitBlocking(a);
        LimitBlocking(b);

        unsigned int count = 0;
        DWORD flags = 0;
        EXPECT_TRUE(a.SendToLL(ping.data(), static_cast<unsigned int>(ping.size()), count, 0, bAddress.lpSockaddr,
                               static_cast<unsigned int>(bAddress.iSockaddrLength)));
        EXPECT_EQ(ping.size(), count);
        ASSERT_TRUE(Readable(b));
        std::vector<unsigned char> buffer(64);
        SOCKADDR_STORAGE from = {};
        EXPECT_TRUE(b.RecvFromLL(buffer.data(), 64, count, flags, &from, sizeof from));
        EXPECT_EQ(ping, std::vector<unsigned char>(buffer.begin(), buffer.begin() + count));
        EXPECT_EQ(Text(aAddress), Text(SOCKET_ADDRESS_EX(reinterpret_cast<sockaddr*>(&from), sizeof from)));

        // Overlapped: the sender's address arrives with the completion.
        CWSAOverlapped ov;
        SOCKADDR_STORAGE sender = {};
        EXPECT_FALSE(a.RecvFromLL(buffer.data(), 64, count, flags, &sender, sizeof sender, &ov));
        EXPECT_TRUE(b.SendTo(pong.data(), static_cast<unsigned int>(pong.size()), count, 0, aAddress));
        ASSERT_TRUE(WaitFor(ov));
        EXPECT_TRUE(a.GetOverlappedResult(&ov, count, TRUE, flags));
        EXPECT_EQ(pong.size(), count);
        EXPECT_EQ(Text(bAddress), Text(SOCKET_ADDRESS_EX(reinterpret_cast<sockaddr*>(&sender), sizeof sender)));

        // The record form of a synchronous receive.
        EXPECT_TRUE(b.SendTo(ping.data(), static_cast<unsigned int>(ping.size()), count, 0, aAddress));
        ASSERT_TRUE(Readable(a));
        SOCKET_ADDRESS_EX who = Loopback(AF_INET6, 1);
        EXPECT_TRUE(a.RecvFrom(buffer.data(), 64, count, flags, who));
        EXPECT_EQ(Text(bAddress), Text(who));
    }

    const std::vector<LogItem> a = ReadLog(LogFileNamed(folder.Path(), Text(bAddress, true)));
    EXPECT_EQ((std::vector<std::string>{
                  "The socket bound to the following address: " + Text(Loopback(AF_INET, 0)) + ".",
                  "getsockname() succeeded. *pSockAddr=" + Text(aAddress) + ".",
                  "Pending read request initiated. Buffer size: 64.", "The socket was closed."}),
              Texts(a));
    EXPECT_EQ((std::vector<LogItem>{DataRecord(LogItem::eWrite, true, ping), DataRecord(LogItem::eRead, false, pong),
                                    DataRecord(LogItem::eRead, true, ping)}),
              DataRecords(a));
}

TEST(Socket, RefusedConnectionIsLoggedClosedAndThrown)
{
    for (const int family : {AF_INET, AF_INET6})
    {
        SCOPED_TRACE(family == AF_INET ? "IPv4" : "IPv6");
        logtest::CTempFolder folder(L"refused");
        logtest::CServerSetup setup(folder.Path(), eLogFileDetailNormal);
        // A bound socket that does not listen refuses connections to its port.
        CWSASocket closed;
        closed.Create(family, SOCK_STREAM, IPPROTO_TCP);
        closed.Bind(Loopback(family, 0));
        SOCKET_ADDRESS_EX target;
        closed.GetSockName(target);

        CWSASocket client;
        client.Create(family, SOCK_STREAM, IPPROTO_TCP);
        LimitBlocking(client);
        const unsigned int channel = LogChannel(client);
        const CWinException e = tavrintest::CatchWinException([&] { client.Connect(target); });
        EXPECT_EQ(WSAECONNREFUSED, e.GetErrorCode());
        EXPECT_EQ(428u, e.GetLine());
        EXPECT_EQ(L"WSAConnect", e.GetFunction());
        EXPECT_EQ(L"socket", e.GetFileName());
        EXPECT_TRUE(client.IsCreated());
        EXPECT_FALSE(CLogFileServer::Ref().LogFileExists(channel));
        EXPECT_EQ((std::vector<std::string>{"The socket cannot connect to the following address: " + Text(target) +
                                            ". WSAGetLastError()=10061."}),
                  Texts(ReadLog(LogFileNamed(folder.Path(), Text(target, true)))));
    }
}

TEST(Socket, PeerResetMidTransferFailsTheTransfer)
{
    // The server resets the connection while the client's data is still unread there; the client
    // learns of it from a synchronous receive or from the completion of an overlapped one.
    for (const bool overlapped : {false, true})
    {
        SCOPED_TRACE(overlapped ? "overlapped" : "synchronous");
        logtest::CTempFolder folder(L"reset");
        logtest::CServerSetup setup(folder.Path(), eLogFileDetailVerbose);
        const std::vector<unsigned char> data = Pattern(64 * 1024, 7);
        SOCKET_ADDRESS_EX listenerAddress;
        long sendError = 0;
        {
            CTcpPair pair(AF_INET);
            ASSERT_TRUE(pair.server.IsCreated());
            listenerAddress = pair.listenerAddress;
            unsigned int count = 0;
            DWORD flags = 0;
            EXPECT_TRUE(pair.client.Send(data.data(), static_cast<unsigned int>(data.size()), count));
            EXPECT_EQ(Pattern(100, 7), ReceiveExactly(pair.server, 100));

            // The peer ends the connection abortively, as the system of a crashing program would,
            // while the client waits in a receive. (A reset that arrives before the receive is
            // asked for can reach the caller as a plain end of the stream under Wine, whose
            // server takes the socket's error in as it watches the socket.)
            const SOCKET peer = pair.server.Detach();
            auto reset = [peer] {
                const LINGER abort = {1, 0};
                ::setsockopt(peer, SOL_SOCKET, SO_LINGER, reinterpret_cast<const char*>(&abort), sizeof abort);
                ::closesocket(peer);
                CLogFileServer::Ref().CloseLogFile(LogChannel(peer));
            };
            std::vector<unsigned char> buffer(16);
            CWSAOverlapped ov;
            const CWinException received = tavrintest::CatchWinException([&] {
                if (overlapped)
                {
                    EXPECT_FALSE(pair.client.Recv(buffer.data(), 16, count, flags, &ov));
                    reset();
                    ASSERT_TRUE(WaitFor(ov));
                    pair.client.GetOverlappedResult(&ov, count, TRUE, flags);
                }
                else
                {
                    // The receive's wait is bounded by the socket's time-out.
                    std::thread resetter([&] {
                        ::Sleep(300);
                        reset();
                    });
                    try
                    {
                        pair.client.Recv(buffer.data(), 16, count, flags);
                    }
                    catch (...)
                    {
                        resetter.join();
                        throw;
                    }
                    resetter.join();
                }
            });
            EXPECT_EQ(WSAECONNRESET, received.GetErrorCode());
            EXPECT_EQ(overlapped ? 901u : 770u, received.GetLine());
            EXPECT_EQ(overlapped ? L"WSAGetOverlappedResult" : L"WSARecv", received.GetFunction());

            // Sending on a reset connection fails as well.
            const CWinException sending = tavrintest::CatchWinException(
                [&] { pair.client.Send(data.data(), static_cast<unsigned int>(data.size()), count); });
            EXPECT_EQ(725u, sending.GetLine());
            EXPECT_EQ(L"WSASend", sending.GetFunction());
            sendError = sending.GetErrorCode();
            EXPECT_NE(0, sendError);
        }
        const std::vector<LogItem> client = ReadLog(LogFileNamed(folder.Path(), Text(listenerAddress, true)));
        std::vector<std::string> expected = {"The socket connected to the following address: " +
                                             Text(listenerAddress) + "."};
        if (overlapped)
        {
            expected.push_back("Pending read request initiated. Buffer size: 16.");
            expected.push_back("WSAGetOverlappedResult() failed. WSAGetLastError()=10054, fWait=TRUE.");
        }
        else
            expected.push_back("WSARecv failed. WSAGetLastError()=10054.");
        expected.push_back(Format("WSASend failed. WSAGetLastError()=%ld.", sendError));
        expected.push_back("The socket was closed.");
        EXPECT_EQ(expected, Texts(client));
        // Only the write that went through.
        EXPECT_EQ(std::vector<LogItem>{DataRecord(LogItem::eWrite, true, data)}, DataRecords(client));
    }
}

TEST(Socket, AcceptConditionRejectsDefersAndAccepts)
{
    logtest::CTempFolder folder(L"accept");
    logtest::CServerSetup setup(folder.Path(), eLogFileDetailNormal);
    CWSASocket listener;
    const SOCKET_ADDRESS_EX listenerAddress = ListenOnLoopback(listener, AF_INET);
    ASSERT_TRUE(CLogFileServer::Ref().CreateLogFile(LogChannel(listener), L"listener", nullptr));

    std::vector<std::string> expected;
    SOCKET_ADDRESS_EX deferred;
    CWSASocket rejectedClient, deferredClient;
    const struct
    {
        int verdict;
        int error;
        CWSASocket* client;
    } cases[] = {{CF_REJECT, WSAECONNREFUSED, &rejectedClient}, {CF_DEFER, WSATRY_AGAIN, &deferredClient}};
    for (const auto& c : cases)
    {
        SCOPED_TRACE(c.verdict);
        c.client->Create(AF_INET, SOCK_STREAM, IPPROTO_TCP);
        LimitBlocking(*c.client);
        c.client->Connect(listenerAddress);
        ASSERT_TRUE(Readable(listener));
        ConditionCall call = {c.verdict, 0, SOCKET_ADDRESS_EX()};
        SOCKET_ADDRESS_EX peer = Loopback(AF_INET, 1);
        EXPECT_EQ(INVALID_SOCKET, listener.Accept(peer, Decide, reinterpret_cast<DWORD_PTR>(&call)));
        EXPECT_EQ(1, call.calls);
        EXPECT_EQ(0, peer.GetFamily());
        c.client->GetSockName(peer);
        EXPECT_EQ(Text(peer), Text(call.caller));
        if (c.verdict == CF_DEFER)
            deferred = peer;
        expected.push_back(Format("WSAAccept() failed. WSAGetLastError()=%ld.", c.error));
    }

    // The deferred connection is offered again and accepted now. (Wine keeps it aside, where
    // select does not see it; non-blocking, a missing connection fails instead of waiting.)
    u_long nonBlocking = 1;
    ::ioctlsocket(listener, FIONBIO, &nonBlocking);
    ConditionCall call = {CF_ACCEPT, 0, SOCKET_ADDRESS_EX()};
    SOCKET_ADDRESS_EX peer;
    CWSASocket accepted(listener.Accept(peer, Decide, reinterpret_cast<DWORD_PTR>(&call)));
    ASSERT_TRUE(accepted.IsCreated());
    EXPECT_EQ(Text(deferred), Text(peer));
    EXPECT_TRUE(CLogFileServer::Ref().LogFileExists(LogChannel(accepted)));
    expected.push_back("WSAAccept() succeeded. Client address: " + Text(peer));
    EXPECT_TRUE(CLogFileServer::Ref().CloseLogFile(LogChannel(listener)));
    EXPECT_EQ(expected, Texts(ReadLog(LogFileNamed(folder.Path(), L"listener"))));
}

TEST(Socket, ListenAndAcceptFailuresNameSetsockopt)
{
    logtest::CTempFolder folder(L"listen");
    logtest::CServerSetup setup(folder.Path(), eLogFileDetailNormal);
    const SOCKET_ADDRESS_EX peer = Loopback(AF_INET, 9);
    // A datagram socket cannot listen.
    CWSASocket datagram;
    datagram.Create(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
    datagram.Bind(Loopback(AF_INET, 0), peer);
    const CWinException listenFailure = tavrintest::CatchWinException([&] { datagram.Listen(5); });
    EXPECT_EQ(L"setsockopt", listenFailure.GetFunction());
    EXPECT_EQ(524u, listenFailure.GetLine());
    EXPECT_EQ(L"socket", listenFailure.GetFileName());
    EXPECT_NE(0, listenFailure.GetErrorCode());
    EXPECT_TRUE(datagram.Close());

    // A stream socket that does not listen cannot accept.
    CWSASocket stream;
    stream.Create(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    stream.Bind(Loopback(AF_INET, 0), peer);
    const CWinException acceptFailure = tavrintest::CatchWinException([&] { stream.Accept(nullptr, 0); });
    EXPECT_EQ(L"setsockopt", acceptFailure.GetFunction());
    EXPECT_EQ(555u, acceptFailure.GetLine());
    EXPECT_EQ(WSAEINVAL, acceptFailure.GetErrorCode());
    EXPECT_TRUE(stream.Close());

    // Both sockets were named after the same peer.
    const std::vector<std::string> texts = TextsOfLogsNamed(folder.Path(), Text(peer, true));
    const std::string bound = "The socket bound to the following address: " + Text(Loopback(AF_INET, 0)) + ".";
    EXPECT_EQ((std::vector<std::string>{
                  bound, Format("listen(int backlog=5) failed. WSAGetLastError()=%ld.", listenFailure.GetErrorCode()),
                  "The socket was closed.", bound, "WSAAccept() failed. WSAGetLastError()=10022.",
                  "The socket was closed."}),
              texts);
}

TEST(Socket, SelectConvertsMillisecondsAndWaitsWithoutLimitOnlyForInfinite)
{
    CTcpPair pair(AF_INET);
    ASSERT_TRUE(pair.server.IsCreated());
    const SOCKET server = pair.server;
    char byte = 0;

    // 0 polls.
    fd_set read = SetOf(server), write = EmptySet(), except = EmptySet();
    EXPECT_EQ(0, CWSASocket::Select(read, write, except, 0));
    EXPECT_FALSE(FD_ISSET(server, &read));

    // 1500 waits one and a half seconds (not 1500 seconds: the late byte would end that wait).
    {
        CLateSender late(pair.client, 6000);
        read = SetOf(server);
        const ULONGLONG start = ::GetTickCount64();
        EXPECT_EQ(0, CWSASocket::Select(read, write, except, 1500));
        EXPECT_GE(::GetTickCount64() - start, 1400u);
    }

    // A bounded wait, INFINITE and the all-ones 64-bit value end when data arrive.
    for (const unsigned __int64 timeout : {static_cast<unsigned __int64>(kWaitMs), 4294967295ull, ~0ull})
    {
        SCOPED_TRACE(timeout);
        CLateSender late(pair.client, 200);
        read = SetOf(server);
        EXPECT_EQ(1, CWSASocket::Select(read, write, except, timeout));
        EXPECT_TRUE(FD_ISSET(server, &read));
        EXPECT_EQ(1, ::recv(server, &byte, 1, 0));
    }

    // Nothing to wait for: Winsock refuses, and nothing is logged.
    read = EmptySet();
    const CWinException e = tavrintest::CatchWinException([&] { CWSASocket::Select(read, write, except, 0); });
    EXPECT_EQ(936u, e.GetLine());
    EXPECT_EQ(L"select", e.GetFunction());
    EXPECT_EQ(WSAEINVAL, e.GetErrorCode());
}

TEST(Socket, OptionsControlEventsAndShutdownAreLogged)
{
    logtest::CTempFolder folder(L"options");
    logtest::CServerSetup setup(folder.Path(), eLogFileDetailNormal);
    SOCKET_ADDRESS_EX listenerAddress;
    long optionError = 0;
    {
        CTcpPair pair(AF_INET);
        ASSERT_TRUE(pair.server.IsCreated());
        listenerAddress = pair.listenerAddress;
        CWSASocket& client = pair.client;
        client.SetSockOpt(SOL_SOCKET, SO_RCVBUF, 65536);
        EXPECT_EQ(SOCK_STREAM, client.GetSockOpt<int>(SOL_SOCKET, SO_TYPE));
        const int value = 42;
        const CWinException e = tavrintest::CatchWinException([&] { client.SetSockOptLL(12345, 1, &value, 4); });
        EXPECT_EQ(602u, e.GetLine());
        EXPECT_EQ(L"setsockopt", e.GetFunction());
        optionError = e.GetErrorCode();

        unsigned int sent = 0;
        pair.server.Send("12345", 5, sent);
        ASSERT_TRUE(Readable(client));
        unsigned long waiting = 0;
        client.IoctlSocket(FIONREAD, waiting);
        EXPECT_EQ(5u, waiting);
        CWSAEvent event;
        client.EventSelect(event, FD_READ | FD_CLOSE);
        EXPECT_EQ(WAIT_OBJECT_0, ::WaitForSingleObject(event, kWaitMs));
        unsigned long nonBlocking = 1;
        client.IoctlSocket(FIONBIO, nonBlocking);
        client.Shutdown(SD_BOTH);

        // Create on an object that holds a socket closes that one first.
        const unsigned int oldChannel = LogChannel(client);
        client.Create(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
        EXPECT_FALSE(CLogFileServer::Ref().LogFileExists(oldChannel));
        EXPECT_EQ(SOCK_DGRAM, client.GetSockOpt<int>(SOL_SOCKET, SO_TYPE));
    }
    EXPECT_EQ((std::vector<std::string>{
                  "The socket connected to the following address: " + Text(listenerAddress) + ".",
                  "setsockopt(int nLevel=65535, int nOptName=4098, LPCVOID lpData) succeeded. *lpData=00 00 01 00.",
                  "getsockopt(int nLevel=65535, int nOptName=4104, LPVOID lpData) succeeded. *lpData=01 00 00 00.",
                  Format("setsockopt(int nLevel=12345, int nOptName=1, LPCVOID lpData) failed. *lpData=2A 00 00 00. "
                         "WSAGetLastError()=%ld.",
                         optionError),
                  "ioctlsocket(long lCmd=1074030207, u_long *argp) succeeded. *argp=5.",
                  "WSAEventSelect(long lNetworkEvents=33) succeeded.",
                  "ioctlsocket(long lCmd=-2147195266, u_long *argp) succeeded. *argp=1.",
                  "shutdown(int how=2) succeeded.", "The socket was closed."}),
              Texts(ReadLog(LogFileNamed(folder.Path(), Text(listenerAddress, true)))));
}

TEST(Socket, EveryMemberReportsItsFailure)
{
    logtest::CTempFolder folder(L"invalid");
    logtest::CServerSetup setup(folder.Path(), eLogFileDetailVerbose);
    // A value that is no handle of this process: every call on it fails with WSAENOTSOCK.
    const SOCKET bogus = static_cast<SOCKET>(0x7FFF0000);
    const unsigned int channel = LogChannel(bogus);
    ASSERT_TRUE(CLogFileServer::Ref().CreateLogFile(channel, L"invalid", nullptr));
    CWSASocket socket(bogus);
    std::vector<unsigned char> buffer(16);
    unsigned int count = 0;
    DWORD flags = 0;
    unsigned long argument = 0;
    int option = 1;
    SOCKADDR_STORAGE address = {};
    const SOCKET_ADDRESS_EX peer = Loopback(AF_INET, 9);
    CWSAEvent event;
    CWSAOverlapped ov;

    const struct
    {
        const wchar_t* function;
        unsigned int line;
        std::function<void()> call;
        const char* text; // with %ld for the error code
    } cases[] = {
        {L"setsockopt", 524, [&] { socket.Listen(5); }, "listen(int backlog=5) failed. WSAGetLastError()=%ld."},
        {L"setsockopt", 555, [&] { socket.Accept(nullptr, 0); }, "WSAAccept() failed. WSAGetLastError()=%ld."},
        {L"setsockopt", 602, [&] { socket.SetSockOptLL(SOL_SOCKET, SO_KEEPALIVE, &option, 4); },
         "setsockopt(int nLevel=65535, int nOptName=8, LPCVOID lpData) failed. *lpData=01 00 00 00. "
         "WSAGetLastError()=%ld."},
        {L"getsockopt", 625, [&] { socket.GetSockOptLL(SOL_SOCKET, SO_TYPE, &option, 4); },
         "getsockopt(int nLevel=65535, int nOptName=4104) failed. WSAGetLastError()=%ld."},
        {L"getsockname", 648, [&] { socket.GetSockName(&address, sizeof address); },
         "getsockname() failed. WSAGetLastError()=%ld."},
        {L"ioctlsocket", 681, [&] { socket.IoctlSocket(FIONREAD, argument); },
         "ioctlsocket(long lCmd=1074030207, u_long *argp) failed. WSAGetLastError()=%ld."},
        {L"shutdown", 703, [&] { socket.Shutdown(SD_BOTH); }, "shutdown(int how=2) failed. WSAGetLastError()=%ld."},
        {L"WSAEventSelect", 917, [&] { socket.EventSelect(event, FD_READ); },
         "WSAEventSelect(long lNetworkEvents=1) failed. WSAGetLastError()=%ld."},
        {L"WSASend", 725, [&] { socket.Send(buffer.data(), 16, count); }, "WSASend failed. WSAGetLastError()=%ld."},
        {L"WSASendTo", 815,
         [&] { socket.SendTo(buffer.data(), 16, count, 0, peer); }, "WSASendTo failed. WSAGetLastError()=%ld."},
        {L"WSARecv", 770, [&] { socket.Recv(buffer.data(), 16, count, flags); },
         "WSARecv failed. WSAGetLastError()=%ld."},
        {L"WSARecvFrom", 860, [&] { socket.RecvFromLL(buffer.data(), 16, count, flags, &address, sizeof address); },
         "WSARecvFrom failed. WSAGetLastError()=%ld."},
        {L"WSARecv", 770, [&] { socket.Recv(buffer.data(), 16, count, flags, &ov); },
         "WSARecv failed. WSAGetLastError()=%ld."},
    };
    std::vector<std::string> expected;
    for (const auto& c : cases)
    {
        SCOPED_TRACE(Narrow(c.function));
        const CWinException e = tavrintest::CatchWinException(c.call);
        EXPECT_EQ(c.function, e.GetFunction());
        EXPECT_EQ(c.line, e.GetLine());
        EXPECT_EQ(L"socket", e.GetFileName());
        EXPECT_EQ(WSAENOTSOCK, e.GetErrorCode());
        expected.push_back(Format(c.text, e.GetErrorCode()));
    }
    EXPECT_TRUE(CLogFileServer::Ref().CloseLogFile(channel)); // writes it out
    EXPECT_EQ(expected, Texts(ReadLog(LogFileNamed(folder.Path(), L"invalid"))));

    // Bind and Connect name the channel after the remote address, log the failure and close
    // the file again.
    const CWinException bindFailure = tavrintest::CatchWinException([&] { socket.Bind(Loopback(AF_INET, 0), peer); });
    EXPECT_EQ(486u, bindFailure.GetLine());
    EXPECT_EQ(L"bind", bindFailure.GetFunction());
    EXPECT_FALSE(CLogFileServer::Ref().LogFileExists(channel));
    const CWinException connectFailure = tavrintest::CatchWinException([&] { socket.Connect(peer); });
    EXPECT_EQ(428u, connectFailure.GetLine());
    EXPECT_EQ(L"WSAConnect", connectFailure.GetFunction());
    EXPECT_FALSE(CLogFileServer::Ref().LogFileExists(channel));
    const std::vector<std::string> texts = TextsOfLogsNamed(folder.Path(), Text(peer, true));
    EXPECT_EQ((std::vector<std::string>{
                  Format("The socket cannot be bound to the following address: 127.0.0.1. WSAGetLastError()=%ld.",
                         bindFailure.GetErrorCode()),
                  Format("The socket cannot connect to the following address: 127.0.0.1:9. WSAGetLastError()=%ld.",
                         connectFailure.GetErrorCode())}),
              texts);

    // select and closesocket throw without logging; the failed close forgets the socket.
    fd_set read = SetOf(bogus), write = EmptySet(), except = EmptySet();
    const CWinException selectFailure =
        tavrintest::CatchWinException([&] { CWSASocket::Select(read, write, except, 0); });
    EXPECT_EQ(936u, selectFailure.GetLine());
    EXPECT_EQ(WSAENOTSOCK, selectFailure.GetErrorCode());
    const CWinException closeFailure = tavrintest::CatchWinException([&] { socket.Close(); });
    EXPECT_EQ(343u, closeFailure.GetLine());
    EXPECT_EQ(L"closesocket", closeFailure.GetFunction());
    EXPECT_EQ(WSAENOTSOCK, closeFailure.GetErrorCode());
    EXPECT_FALSE(socket.IsCreated());
    EXPECT_FALSE(socket.Close());

    // Create reports the family Winsock refuses, and leaves the object without a socket.
    const CWinException createFailure =
        tavrintest::CatchWinException([&] { socket.Create(12345, SOCK_STREAM, 0); });
    EXPECT_EQ(367u, createFailure.GetLine());
    EXPECT_EQ(L"WSASocket", createFailure.GetFunction());
    EXPECT_EQ(WSAEAFNOSUPPORT, createFailure.GetErrorCode());
    EXPECT_FALSE(socket.IsCreated());
}

TEST(Socket, OwnsOneSocket)
{
    CWSASocket first;
    first.Create(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
    const SOCKET raw = first.Detach();
    EXPECT_FALSE(first.IsCreated());
    EXPECT_FALSE(first.Close());

    SOCKET closedByDestructor = INVALID_SOCKET;
    {
        CWSASocket owner(raw);
        EXPECT_EQ(raw, static_cast<SOCKET>(owner));
        EXPECT_TRUE(owner.IsCreated());
        CWSASocket other;
        other.Create(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
        EXPECT_FALSE(owner.Attach(other)); // refused while it holds one
        EXPECT_EQ(raw, owner.GetHandle());
        closedByDestructor = raw;
    }
    int type = 0;
    int size = sizeof type;
    EXPECT_EQ(SOCKET_ERROR, ::getsockopt(closedByDestructor, SOL_SOCKET, SO_TYPE, reinterpret_cast<char*>(&type), &size));
    EXPECT_EQ(WSAENOTSOCK, ::WSAGetLastError());
}
