// CWSASocket: Winsock calls reported to the data log file of the socket's channel.
#include <tavrin/comm/socket.h>

#include <tavrin/log/logcall.h>
#include <tavrin/log/logfile.h>

#include "util/network_internal.h"

#include <climits>

namespace tavrin {

namespace {

// The source lines that the exceptions of the members record. They are part of the interface:
// applications and their support staff recognise failures by them, so they stay fixed.
enum : unsigned int
{
    kLineClose = 343,
    kLineCreate = 367,
    kLineConnect = 428,
    kLineBind = 486,
    kLineListen = 524,
    kLineAccept = 555,
    kLineSetSockOpt = 602,
    kLineGetSockOpt = 625,
    kLineGetSockName = 648,
    kLineIoctlSocket = 681,
    kLineShutdown = 703,
    kLineSend = 725,
    kLineRecv = 770,
    kLineSendTo = 815,
    kLineRecvFrom = 860,
    kLineGetOverlappedResult = 901,
    kLineEventSelect = 917,
    kLineSelect = 936
};

const wchar_t kSourceFile[] = L"socket";

// The address as the messages show it ("127.0.0.1:80", "[::1]:80") or, with `fileNameSafe`, as
// a log file is named ("127.0.0.1@80", "[__1]@80"). Empty when the record does not take the
// address or Winsock cannot print it.
ustring AddressText(const void* address, unsigned int length, bool fileNameSafe)
{
    ustring text;
    SOCKET_ADDRESS_EX(static_cast<const sockaddr*>(address), length).AddressToStringEx(text, fileNameSafe);
    return text;
}

// Gives the socket's channel a new log file named `name` (nothing for an empty name).
void NameChannel(SOCKET socket, const ustring& name)
{
    if (!name.empty())
        CLogFileServer::Ref().CreateLogFile(LogChannel(socket), name, nullptr);
}

// Ends the channel's log file after everything queued is written, with "The socket was closed."
// as its last record when `closed`. The proxy then drops the closed file from the server.
void EndChannelLog(unsigned int channel, bool closed)
{
    try
    {
        CLogFileProxy proxy(channel);
        if (!proxy().IsOK())
            return;
        if (closed)
            proxy().LogText(true, L"The socket was closed.");
        proxy().Close();
    }
    catch (...)
    {
    }
}

// Winsock's last error after a call that returned `result`, read before anything else can
// change it; 0 after a success.
int ErrorOf(int result)
{
    return result == SOCKET_ERROR ? ::WSAGetLastError() : 0;
}

} // namespace

CWSASocket::CWSASocket() : m_nFromLength(0) {}

CWSASocket::CWSASocket(SOCKET socket) : CAHandle<SOCKET, -1>(socket), m_nFromLength(0) {}

CWSASocket::~CWSASocket()
{
    try
    {
        Close();
    }
    catch (...)
    {
    }
}

CWSASocket::operator SOCKET() const
{
    return GetHandle();
}

void CWSASocket::Create(int af, int type, int protocol, WSAPROTOCOL_INFOW* info, GROUP group, DWORD flags)
{
    Close();
    detail::EnsureWinsock();
    const SOCKET socket = ::WSASocketW(af, type, protocol, info, group, flags);
    if (socket == INVALID_SOCKET)
        throw CWinException(kLineCreate, kSourceFile, L"WSASocket", ::WSAGetLastError());
    Attach(socket);
}

bool CWSASocket::Close()
{
    if (!IsCreated())
        return false;
    const SOCKET socket = Detach();
    // Closing returns at once and the system finishes sending in the background. Datagram
    // sockets refuse the option; their close goes ahead all the same.
    const BOOL dontLinger = TRUE;
    ::setsockopt(socket, SOL_SOCKET, SO_DONTLINGER, reinterpret_cast<const char*>(&dontLinger), sizeof dontLinger);
    const int error = ErrorOf(::closesocket(socket));
    EndChannelLog(LogChannel(socket), error == 0);
    if (error != 0)
        throw CWinException(kLineClose, kSourceFile, L"closesocket", error);
    return true;
}

void CWSASocket::ReportAddressCall(int error, unsigned int line, const wchar_t* function, const ustring& text,
                                   const wchar_t* success, const wchar_t* failure)
{
    // A channel without a log file ignores both texts, so they need no check of their own.
    const unsigned int channel = LogChannel(GetHandle());
    if (error == 0)
    {
        LogChannelText(channel, true, success, text.c_str());
        return;
    }
    try
    {
        ThrowLoggedWinError(channel, true, line, kSourceFile, function, error, failure, text.c_str(), error);
    }
    catch (...)
    {
        EndChannelLog(channel, false);
        throw;
    }
}

void CWSASocket::Bind(const void* local, unsigned int localLength, const void* remote, unsigned int remoteLength)
{
    NameChannel(GetHandle(), remoteLength != 0 ? AddressText(remote, remoteLength, true) : ustring());
    const int error =
        ErrorOf(::bind(GetHandle(), static_cast<const sockaddr*>(local), static_cast<int>(localLength)));
    ReportAddressCall(error, kLineBind, L"bind", AddressText(local, localLength, false),
              L"The socket bound to the following address: %ls.",
              L"The socket cannot be bound to the following address: %ls. WSAGetLastError()=%d.");
}

void CWSASocket::Bind(const SOCKET_ADDRESS_EX& local)
{
    Bind(local.lpSockaddr, static_cast<unsigned int>(local.iSockaddrLength), nullptr, 0);
}

void CWSASocket::Bind(const SOCKET_ADDRESS_EX& local, const SOCKET_ADDRESS_EX& remote)
{
    Bind(local.lpSockaddr, static_cast<unsigned int>(local.iSockaddrLength), remote.lpSockaddr,
         static_cast<unsigned int>(remote.iSockaddrLength));
}

void CWSASocket::Connect(const void* address, unsigned int length, WSABUF* callerData, WSABUF* calleeData,
                         QOS* sqos, QOS* gqos)
{
    NameChannel(GetHandle(), AddressText(address, length, true));
    const int error = ErrorOf(::WSAConnect(GetHandle(), static_cast<const sockaddr*>(address),
                                           static_cast<int>(length), callerData, calleeData, sqos, gqos));
    ReportAddressCall(error, kLineConnect, L"WSAConnect", AddressText(address, length, false),
              L"The socket connected to the following address: %ls.",
              L"The socket cannot connect to the following address: %ls. WSAGetLastError()=%d.");
}

void CWSASocket::Connect(const SOCKET_ADDRESS_EX& address, WSABUF* callerData, WSABUF* calleeData, QOS* sqos,
                         QOS* gqos)
{
    Connect(address.lpSockaddr, static_cast<unsigned int>(address.iSockaddrLength), callerData, calleeData, sqos,
            gqos);
}

void CWSASocket::Listen(int backlog)
{
    const unsigned int channel = LogChannel(GetHandle());
    const int error = ErrorOf(::listen(GetHandle(), backlog));
    // The failing function is reported as "setsockopt": applications match on that name.
    if (error != 0)
        ThrowLoggedWinError(channel, true, kLineListen, kSourceFile, L"setsockopt", error,
                            L"listen(int backlog=%d) failed. WSAGetLastError()=%d.", backlog, error);
    LogChannelText(channel, true, L"listen(int backlog=%d) succeeded.", backlog);
}

SOCKET CWSASocket::Accept(void* address, unsigned int length, LPCONDITIONPROC condition, DWORD_PTR data)
{
    const unsigned int channel = LogChannel(GetHandle());
    // The client's address names the new log file even when the caller does not want it.
    SOCKADDR_STORAGE own;
    sockaddr* peer = address != nullptr ? static_cast<sockaddr*>(address) : reinterpret_cast<sockaddr*>(&own);
    INT peerLength = address != nullptr ? static_cast<INT>(length) : static_cast<INT>(sizeof own);
    const SOCKET accepted = ::WSAAccept(GetHandle(), peer, &peerLength, condition, data);
    if (accepted == INVALID_SOCKET)
    {
        const int error = ::WSAGetLastError();
        // What a condition function produces when it rejects or defers a connection.
        if (error == WSAECONNREFUSED || error == WSATRY_AGAIN)
        {
            LogChannelText(channel, true, L"WSAAccept() failed. WSAGetLastError()=%d.", error);
            return INVALID_SOCKET;
        }
        ThrowLoggedWinError(channel, true, kLineAccept, kSourceFile, L"setsockopt", error,
                            L"WSAAccept() failed. WSAGetLastError()=%d.", error);
    }
    const unsigned int size = static_cast<unsigned int>(peerLength);
    const ustring text = AddressText(peer, size, false);
    LogChannelText(channel, true, L"WSAAccept() succeeded. Client address: %ls", text.c_str());
    NameChannel(accepted, AddressText(peer, size, true));
    LogChannelText(LogChannel(accepted), true, L"New incoming connection has been accepted. Client address: %ls",
                   text.c_str());
    return accepted;
}

SOCKET CWSASocket::Accept(SOCKET_ADDRESS_EX& address, LPCONDITIONPROC condition, DWORD_PTR data)
{
    SOCKADDR_STORAGE peer;
    const SOCKET accepted = Accept(&peer, sizeof peer, condition, data);
    if (accepted == INVALID_SOCKET)
        address.Clear();
    else
        address = SOCKET_ADDRESS_EX(reinterpret_cast<const sockaddr*>(&peer), sizeof peer);
    return accepted;
}

void CWSASocket::SetSockOptLL(int level, int name, const void* data, unsigned int length)
{
    const unsigned int channel = LogChannel(GetHandle());
    const int error =
        ErrorOf(::setsockopt(GetHandle(), level, name, static_cast<const char*>(data), static_cast<int>(length)));
    const ustring bytes = CLogFile::Bin2Hex(data, length);
    if (error != 0)
        ThrowLoggedWinError(
            channel, true, kLineSetSockOpt, kSourceFile, L"setsockopt", error,
            L"setsockopt(int nLevel=%d, int nOptName=%d, LPCVOID lpData) failed. *lpData=%ls. WSAGetLastError()=%d.",
            level, name, bytes.c_str(), error);
    LogChannelText(channel, true, L"setsockopt(int nLevel=%d, int nOptName=%d, LPCVOID lpData) succeeded. *lpData=%ls.",
                   level, name, bytes.c_str());
}

unsigned int CWSASocket::GetSockOptLL(int level, int name, void* data, unsigned int length)
{
    const unsigned int channel = LogChannel(GetHandle());
    INT size = static_cast<INT>(length);
    const int error = ErrorOf(::getsockopt(GetHandle(), level, name, static_cast<char*>(data), &size));
    if (error != 0)
        ThrowLoggedWinError(channel, true, kLineGetSockOpt, kSourceFile, L"getsockopt", error,
                            L"getsockopt(int nLevel=%d, int nOptName=%d) failed. WSAGetLastError()=%d.", level, name,
                            error);
    LogChannelText(channel, true, L"getsockopt(int nLevel=%d, int nOptName=%d, LPVOID lpData) succeeded. *lpData=%ls.",
                   level, name, CLogFile::Bin2Hex(data, static_cast<unsigned int>(size)).c_str());
    return static_cast<unsigned int>(size);
}

unsigned int CWSASocket::GetSockName(void* address, unsigned int length)
{
    const unsigned int channel = LogChannel(GetHandle());
    INT size = static_cast<INT>(length);
    const int error = ErrorOf(::getsockname(GetHandle(), static_cast<sockaddr*>(address), &size));
    if (error != 0)
        ThrowLoggedWinError(channel, true, kLineGetSockName, kSourceFile, L"getsockname", error,
                            L"getsockname() failed. WSAGetLastError()=%d.", error);
    LogChannelText(channel, true, L"getsockname() succeeded. *pSockAddr=%ls.",
                   AddressText(address, static_cast<unsigned int>(size), false).c_str());
    return static_cast<unsigned int>(size);
}

void CWSASocket::GetSockName(SOCKET_ADDRESS_EX& address)
{
    SOCKADDR_STORAGE own;
    const unsigned int size = GetSockName(&own, sizeof own);
    address = SOCKET_ADDRESS_EX(reinterpret_cast<const sockaddr*>(&own), size);
}

void CWSASocket::IoctlSocket(long command, unsigned long& argument)
{
    const unsigned int channel = LogChannel(GetHandle());
    const int error = ErrorOf(::ioctlsocket(GetHandle(), command, &argument));
    if (error != 0)
        ThrowLoggedWinError(channel, true, kLineIoctlSocket, kSourceFile, L"ioctlsocket", error,
                            L"ioctlsocket(long lCmd=%d, u_long *argp) failed. WSAGetLastError()=%d.", command, error);
    LogChannelText(channel, true, L"ioctlsocket(long lCmd=%d, u_long *argp) succeeded. *argp=%u.", command, argument);
}

void CWSASocket::Shutdown(int how)
{
    const unsigned int channel = LogChannel(GetHandle());
    const int error = ErrorOf(::shutdown(GetHandle(), how));
    if (error != 0)
        ThrowLoggedWinError(channel, true, kLineShutdown, kSourceFile, L"shutdown", error,
                            L"shutdown(int how=%d) failed. WSAGetLastError()=%d.", how, error);
    LogChannelText(channel, true, L"shutdown(int how=%d) succeeded.", how);
}

void CWSASocket::EventSelect(WSAEVENT event, long networkEvents)
{
    const unsigned int channel = LogChannel(GetHandle());
    const int error = ErrorOf(::WSAEventSelect(GetHandle(), event, networkEvents));
    if (error != 0)
        ThrowLoggedWinError(channel, true, kLineEventSelect, kSourceFile, L"WSAEventSelect", error,
                            L"WSAEventSelect(long lNetworkEvents=%d) failed. WSAGetLastError()=%d.", networkEvents,
                            error);
    LogChannelText(channel, true, L"WSAEventSelect(long lNetworkEvents=%d) succeeded.", networkEvents);
}

bool CWSASocket::Transferred(int result, int error, bool send, const void* data, unsigned int length,
                             unsigned int count, OVERLAPPED* overlapped, unsigned int line, const wchar_t* function)
{
    const unsigned int channel = LogChannel(GetHandle());
    if (result != SOCKET_ERROR)
    {
        CLogFileProxy proxy(channel);
        if (send)
            proxy().LogSentData(data, count, true);
        else
            proxy().LogReceivedData(data, count, true);
        return true;
    }
    if (error == WSA_IO_PENDING)
    {
        CLogFileProxy proxy(channel);
        if (send)
        {
            proxy().LogText(false, L"Pending write request initiated. Buffer size: %u.", length);
            proxy().AddPendingWriteOperation(data, length, overlapped);
        }
        else
        {
            proxy().LogText(false, L"Pending read request initiated. Buffer size: %u.", length);
            proxy().AddPendingReadOperation(data, length, overlapped);
        }
        return false;
    }
    ThrowLoggedWinError(channel, false, line, kSourceFile, function, error, L"%ls failed. WSAGetLastError()=%d.",
                        function, error);
}

bool CWSASocket::Send(const void* data, unsigned int length, unsigned int& sent, DWORD flags, OVERLAPPED* overlapped)
{
    WSABUF buffer = {length, static_cast<char*>(const_cast<void*>(data))};
    DWORD count = 0;
    const int result = ::WSASend(GetHandle(), &buffer, 1, &count, flags, reinterpret_cast<WSAOVERLAPPED*>(overlapped),
                                 nullptr);
    const int error = ErrorOf(result);
    sent = count;
    return Transferred(result, error, true, data, length, count, overlapped, kLineSend, L"WSASend");
}

bool CWSASocket::SendToLL(const void* data, unsigned int length, unsigned int& sent, DWORD flags, const void* to,
                          unsigned int toLength, OVERLAPPED* overlapped)
{
    WSABUF buffer = {length, static_cast<char*>(const_cast<void*>(data))};
    DWORD count = 0;
    const int result =
        ::WSASendTo(GetHandle(), &buffer, 1, &count, flags, static_cast<const sockaddr*>(to), static_cast<int>(toLength),
                    reinterpret_cast<WSAOVERLAPPED*>(overlapped), nullptr);
    const int error = ErrorOf(result);
    sent = count;
    return Transferred(result, error, true, data, length, count, overlapped, kLineSendTo, L"WSASendTo");
}

bool CWSASocket::SendTo(const void* data, unsigned int length, unsigned int& sent, DWORD flags,
                        const SOCKET_ADDRESS_EX& to, OVERLAPPED* overlapped)
{
    return SendToLL(data, length, sent, flags, to.lpSockaddr, static_cast<unsigned int>(to.iSockaddrLength),
                    overlapped);
}

bool CWSASocket::Recv(void* data, unsigned int length, unsigned int& received, DWORD& flags, OVERLAPPED* overlapped)
{
    WSABUF buffer = {length, static_cast<char*>(data)};
    DWORD count = 0;
    const int result =
        ::WSARecv(GetHandle(), &buffer, 1, &count, &flags, reinterpret_cast<WSAOVERLAPPED*>(overlapped), nullptr);
    const int error = ErrorOf(result);
    received = count;
    return Transferred(result, error, false, data, length, count, overlapped, kLineRecv, L"WSARecv");
}

bool CWSASocket::RecvFromLL(void* data, unsigned int length, unsigned int& received, DWORD& flags, void* from,
                            unsigned int fromLength, OVERLAPPED* overlapped)
{
    WSABUF buffer = {length, static_cast<char*>(data)};
    DWORD count = 0;
    // Winsock writes the address length when the receive completes: for an overlapped receive
    // that is later, so the length must not live on this stack frame.
    INT synchronousLength = static_cast<INT>(fromLength);
    INT* size = nullptr;
    if (from != nullptr)
    {
        size = &synchronousLength;
        if (overlapped != nullptr)
        {
            m_nFromLength = static_cast<INT>(fromLength);
            size = &m_nFromLength;
        }
    }
    const int result = ::WSARecvFrom(GetHandle(), &buffer, 1, &count, &flags, static_cast<sockaddr*>(from), size,
                                     reinterpret_cast<WSAOVERLAPPED*>(overlapped), nullptr);
    const int error = ErrorOf(result);
    received = count;
    return Transferred(result, error, false, data, length, count, overlapped, kLineRecvFrom, L"WSARecvFrom");
}

bool CWSASocket::RecvFrom(void* data, unsigned int length, unsigned int& received, DWORD& flags,
                          SOCKET_ADDRESS_EX& from)
{
    SOCKADDR_STORAGE sender;
    const bool done = RecvFromLL(data, length, received, flags, &sender, sizeof sender, nullptr);
    from = SOCKET_ADDRESS_EX(reinterpret_cast<const sockaddr*>(&sender), sizeof sender);
    return done;
}

bool CWSASocket::GetOverlappedResult(OVERLAPPED* overlapped, unsigned int& transferred, BOOL wait, DWORD& flags)
{
    DWORD count = 0;
    const BOOL done = ::WSAGetOverlappedResult(GetHandle(), reinterpret_cast<WSAOVERLAPPED*>(overlapped), &count,
                                               wait, &flags);
    const int error = done ? 0 : ::WSAGetLastError();
    transferred = count;
    const unsigned int channel = LogChannel(GetHandle());
    if (done)
    {
        CLogFileProxy proxy(channel);
        proxy().CommitPendingOperation(overlapped, count);
        return true;
    }
    const wchar_t* const waitText = wait ? L"TRUE" : L"FALSE";
    if (error == WSA_IO_INCOMPLETE)
    {
        LogChannelText(channel, false, L"WSAGetOverlappedResult() failed. WSAGetLastError()=%d, fWait=%ls.", error,
                       waitText);
        return false;
    }
    ThrowLoggedWinError(channel, false, kLineGetOverlappedResult, kSourceFile, L"WSAGetOverlappedResult", error,
                        L"WSAGetOverlappedResult() failed. WSAGetLastError()=%d, fWait=%ls.", error, waitText);
}

int CWSASocket::Select(fd_set& read, fd_set& write, fd_set& except, unsigned __int64 timeoutMs)
{
    detail::EnsureWinsock();
    timeval limit = {};
    timeval* wait = nullptr;
    // Exactly INFINITE waits without limit; the all-ones 64-bit value is a (very long) time.
    if (timeoutMs != INFINITE)
    {
        const unsigned __int64 seconds = timeoutMs / 1000;
        limit.tv_sec = seconds > static_cast<unsigned __int64>(LONG_MAX) ? LONG_MAX : static_cast<long>(seconds);
        limit.tv_usec = static_cast<long>(timeoutMs % 1000) * 1000;
        wait = &limit;
    }
    const int result = ::select(0, &read, &write, &except, wait);
    if (result == SOCKET_ERROR)
        throw CWinException(kLineSelect, kSourceFile, L"select", ::WSAGetLastError());
    return result;
}

} // namespace tavrin
