// Winsock 2 sockets that log their calls and their traffic.
//
// CWSASocket owns one socket and wraps the Winsock calls one member each. Every call is reported
// to the data log file of the socket's channel (the socket value, see tavrin/log/logfile.h): a
// success text, or a failure text followed by a CWinException that carries the failing function,
// WSAGetLastError() and the source file "socket". Bytes sent and received become data records;
// overlapped transfers are registered when they are issued and recorded when
// GetOverlappedResult reports them done.
//
// A connection gets its own log file: Connect names it after the remote address, Accept after
// the client's address (for example "127.0.0.1@50000-2024.03.07-09.05.01.123.log"), and Bind
// when it is given a remote address. Nothing is created while CLogFileServer's detail level is
// Off (the default), and the socket then works unlogged.
//
//     CWSASocket listener;
//     listener.Create(AF_INET, SOCK_STREAM, IPPROTO_TCP);
//     listener.Bind(ResolveAddress(L"127.0.0.1:5000").front());   // tavrin/comm/resolver.h
//     listener.Listen();
//     CWSASocket client(listener.Accept(nullptr, 0));     // INVALID_SOCKET when refused
//     unsigned int got = 0;
//     DWORD flags = 0;
//     client.Recv(buffer, sizeof buffer, got, flags);    // logged as a SYNC READ record
//
// Winsock is started by the library on first use; callers need no WSAStartup of their own. The
// class takes no locks: one object may be used from several threads only as Winsock allows for
// the socket itself.
#pragma once

#include <tavrin/core/config.h>
#include <tavrin/core/object.h>
#include <tavrin/util/network.h>

namespace tavrin {

class TAVRIN_API CWSASocket : public CAHandle<SOCKET, -1>
{
public:
    // No socket.
    CWSASocket();
    // Takes ownership of an existing socket (for example one that Accept returned).
    explicit CWSASocket(SOCKET socket);
    // Closes the socket; a failing close is swallowed.
    ~CWSASocket() override;

    operator SOCKET() const override;

    // Closes any socket held, then WSASocketW. Throws ("WSASocket") when no socket is made;
    // nothing is logged, since the socket has no channel yet.
    void Create(int af, int type, int protocol, WSAPROTOCOL_INFOW* info = nullptr, GROUP group = 0,
                DWORD flags = WSA_FLAG_OVERLAPPED);
    // SO_DONTLINGER, closesocket, "The socket was closed." and the end of the channel's log file.
    // False when no socket is held. A failing closesocket throws ("closesocket"); the socket is
    // forgotten either way and its log file is closed without the text.
    bool Close() override;

    // bind. With a remote address whose text can be built, the channel's log file is created
    // first and named after it (a datagram socket that talks to one peer, for example). A
    // failure is logged, the log file closed, and the exception thrown ("bind").
    void Bind(const void* local, unsigned int localLength, const void* remote, unsigned int remoteLength);
    void Bind(const SOCKET_ADDRESS_EX& local);
    void Bind(const SOCKET_ADDRESS_EX& local, const SOCKET_ADDRESS_EX& remote);
    // WSAConnect. The channel's log file is created first, named after the remote address. A
    // failure (a refused connection, or WSAEWOULDBLOCK on a non-blocking socket) is logged, the
    // log file closed, and the exception thrown ("WSAConnect").
    void Connect(const void* address, unsigned int length, WSABUF* callerData = nullptr,
                 WSABUF* calleeData = nullptr, QOS* sqos = nullptr, QOS* gqos = nullptr);
    void Connect(const SOCKET_ADDRESS_EX& address, WSABUF* callerData = nullptr, WSABUF* calleeData = nullptr,
                 QOS* sqos = nullptr, QOS* gqos = nullptr);
    // listen. A failure names "setsockopt" as the failing function.
    void Listen(int backlog = SOMAXCONN);
    // WSAAccept. The new connection gets its own log file, named after the client's address; the
    // caller owns the returned socket (wrap it in a CWSASocket). `address` (may be null) receives
    // the client's address, `length` being its size. A connection that the condition function
    // rejects (CF_REJECT) or defers (CF_DEFER) gives INVALID_SOCKET without an exception; any
    // other failure throws, naming "setsockopt" as the failing function.
    SOCKET Accept(void* address, unsigned int length, LPCONDITIONPROC condition = nullptr, DWORD_PTR data = 0);
    SOCKET Accept(SOCKET_ADDRESS_EX& address, LPCONDITIONPROC condition = nullptr, DWORD_PTR data = 0);

    // setsockopt / getsockopt; the option's bytes are logged in hexadecimal. GetSockOptLL
    // returns the number of bytes stored.
    void SetSockOptLL(int level, int name, const void* data, unsigned int length);
    unsigned int GetSockOptLL(int level, int name, void* data, unsigned int length);
    // Typed forms: SetSockOpt(SOL_SOCKET, SO_RCVBUF, 65536), GetSockOpt<int>(SOL_SOCKET, SO_TYPE).
    template <class T>
    void SetSockOpt(int level, int name, const T& value)
    {
        SetSockOptLL(level, name, &value, sizeof value);
    }
    template <class T>
    T GetSockOpt(int level, int name)
    {
        T value{};
        GetSockOptLL(level, name, &value, sizeof value);
        return value;
    }
    // getsockname; the first form returns the length of the stored address.
    unsigned int GetSockName(void* address, unsigned int length);
    void GetSockName(SOCKET_ADDRESS_EX& address);
    // ioctlsocket; `argument` holds the result afterwards (FIONREAD: the bytes waiting).
    void IoctlSocket(long command, unsigned long& argument);
    // shutdown (SD_RECEIVE, SD_SEND, SD_BOTH).
    void Shutdown(int how);
    // WSAEventSelect; note that it makes the socket non-blocking.
    void EventSelect(WSAEVENT event, long networkEvents);

    // Transfers through one buffer. True when the call completed at once: the bytes are logged
    // as a SYNC record and `sent` / `received` holds their count. False when an overlapped call
    // is pending: it is logged as initiated and handed to the log file, which records the bytes
    // when GetOverlappedResult reports the completion. Any other failure is logged and thrown.
    // For an overlapped call the buffer, `flags` and `to` / `from` must stay valid until it
    // completes, as Winsock requires. Data texts of these members are logged as not important.
    bool Send(const void* data, unsigned int length, unsigned int& sent, DWORD flags = 0,
              OVERLAPPED* overlapped = nullptr);
    bool SendToLL(const void* data, unsigned int length, unsigned int& sent, DWORD flags, const void* to,
                  unsigned int toLength, OVERLAPPED* overlapped = nullptr);
    bool SendTo(const void* data, unsigned int length, unsigned int& sent, DWORD flags, const SOCKET_ADDRESS_EX& to,
                OVERLAPPED* overlapped = nullptr);
    bool Recv(void* data, unsigned int length, unsigned int& received, DWORD& flags, OVERLAPPED* overlapped = nullptr);
    // `from` (may be null) receives the sender's address, `fromLength` being its size. For an
    // overlapped call the address arrives with the completion (the length that Winsock writes
    // then is kept by the object, so the object must outlive the call, as the socket does).
    bool RecvFromLL(void* data, unsigned int length, unsigned int& received, DWORD& flags, void* from,
                    unsigned int fromLength, OVERLAPPED* overlapped = nullptr);
    // Synchronous receive with the sender's address as a record.
    bool RecvFrom(void* data, unsigned int length, unsigned int& received, DWORD& flags, SOCKET_ADDRESS_EX& from);
    // WSAGetOverlappedResult. True when the operation is complete: the log file records its
    // bytes. False, without an exception, while it is still running (WSA_IO_INCOMPLETE with
    // `wait` FALSE); any other failure is thrown.
    bool GetOverlappedResult(OVERLAPPED* overlapped, unsigned int& transferred, BOOL wait, DWORD& flags);

    // select over the three sets (none of them may be left empty all together). The timeout is
    // in milliseconds: exactly 4294967295 (INFINITE) waits without limit, any other value waits
    // at most that long (values beyond the range of a timeval wait its longest, about 68 years).
    // Returns select's count of ready sockets, 0 on time-out; a failure throws ("select"),
    // without logging.
    static int Select(fd_set& read, fd_set& write, fd_set& except, unsigned __int64 timeoutMs);

private:
    // The end of Bind and Connect: with `error` 0 logs `success` with the address text, otherwise
    // logs `failure` with it and `error`, closes the channel's log file and throws.
    void ReportAddressCall(int error, unsigned int line, const wchar_t* function, const ustring& text,
                           const wchar_t* success, const wchar_t* failure);
    // Logs the result of a transfer, registers a pending one, or logs and throws.
    bool Transferred(int result, int error, bool send, const void* data, unsigned int length, unsigned int count,
                     OVERLAPPED* overlapped, unsigned int line, const wchar_t* function);

    // The source-address length of an overlapped RecvFromLL, which Winsock writes when the
    // receive completes.
    INT m_nFromLength;
};

} // namespace tavrin
