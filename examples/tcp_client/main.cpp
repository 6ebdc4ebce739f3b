// A TCP client. Connect gives the connection a data log file of its own, named after the remote
// address, and every call and every byte on the socket is recorded there. The peer here is a
// small echo server on a thread of this program, listening on a port the system picks.
#include <tavrin/comm/resolver.h>
#include <tavrin/comm/socket.h>
#include <tavrin/core/exception.h>
#include <tavrin/core/file.h>
#include <tavrin/log/console.h>
#include <tavrin/log/logcall.h>
#include <tavrin/log/logfile.h>

#include "example_support.h"

#include <string>
#include <thread>

using namespace tavrin;

namespace {

// Answers one connection: whatever arrives is sent back until the client shuts its side down.
void EchoOnce(CWSASocket& listener)
{
    try
    {
        CWSASocket connection(listener.Accept(nullptr, 0));
        char buffer[256];
        for (;;)
        {
            unsigned int got = 0, sent = 0;
            DWORD flags = 0;
            connection.Recv(buffer, sizeof(buffer), got, flags);
            if (got == 0)
                break;
            connection.Send(buffer, got, sent);
        }
    }
    catch (const CStdException&)
    {
        // The client reports what went wrong; the echo just ends.
    }
}

} // namespace

int main()
{
    ustring capture, markdown;
    CConsole console(false, capture, markdown);
    try
    {
        const ustring folder = example::ExampleFolder();
        CLogFileServer& server = CLogFileServer::Ref();
        server.SetFolder(folder, false);
        server.SetDetail(eLogFileDetailVerbose);

        // The echo server: port 0 lets the system choose; GetSockName tells which it chose.
        CWSASocket listener;
        listener.Create(AF_INET, SOCK_STREAM, IPPROTO_TCP);
        listener.Bind(ResolveAddress(L"127.0.0.1:0", AF_INET).front());
        listener.Listen(1);
        SOCKET_ADDRESS_EX bound;
        listener.GetSockName(bound);
        const unsigned short port = ::ntohs(static_cast<unsigned short>(bound.GetPort()));
        std::thread echo(EchoOnce, std::ref(listener));

        ustring remoteText, log;
        {
            const SOCKET_ADDRESS_EX remote = ResolveAddress(L"127.0.0.1", AF_INET, port).front();
            remote.AddressToStringEx(remoteText);
            CWSASocket client;
            client.Create(AF_INET, SOCK_STREAM, IPPROTO_TCP);
            client.SetSockOpt<DWORD>(SOL_SOCKET, SO_RCVTIMEO, 5000); // no reply: give up after 5 s
            client.Connect(remote); // the connection's log file is created here
            server.GetLogFilePath(LogChannel(client), log);

            const char request[] = "PING 1\r\n";
            unsigned int sent = 0, got = 0;
            DWORD flags = 0;
            client.Send(request, sizeof(request) - 1, sent);
            char reply[64] = {};
            client.Recv(reply, sizeof(reply) - 1, got, flags);
            client.Shutdown(SD_SEND);
            console.PrintF(CConsoleBase::SeverityInfo, false, L"Connected to %ls, sent %u bytes, the echo returned %u\r\n",
                           remoteText.c_str(), sent, got);
        } // Close: the socket's log file is written to the end and closed
        echo.join();

        console.PrintF(CConsoleBase::SeverityInfo, false, L"Data log file: %ls\r\n\r\n", log.c_str());
        console.Print(CConsoleBase::SeverityInfo, false, example::ReadUtf8File(log));
        return 0;
    }
    catch (const CStdException& e)
    {
        e.ReportErrorConsole(console, TAVRIN_WFILE, __LINE__);
        return 1;
    }
}
