#include "transport.h"

#include <tavrin/comm/resolver.h>
#include <tavrin/core/thread.h>

#include <cwctype>

using namespace tavrin;

namespace term {

namespace {

// How long Close waits for a cancelled operation to come back before it lets go of its buffers.
const unsigned int kCancelWaitMs = 3000;

// Waits for `event` or `stop`, at most `timeoutMs`: 0 the event, 1 the stop, 2 the time-out.
int WaitEventOrStop(HANDLE event, HANDLE stop, unsigned int timeoutMs)
{
    const HANDLE handles[2] = {event, stop};
    const DWORD count = stop != nullptr ? 2 : 1;
    const DWORD result = ::WaitForMultipleObjects(count, handles, FALSE, timeoutMs);
    if (result == WAIT_OBJECT_0)
        return 0;
    if (result == WAIT_OBJECT_0 + 1)
        return 1;
    if (result == WAIT_TIMEOUT)
        return 2;
    throw CWinException(__LINE__, TAVRIN_WFILE, L"WaitForMultipleObjects", static_cast<long>(::GetLastError()));
}

bool IsDigits(const ustring& text)
{
    if (text.empty())
        return false;
    for (wchar_t ch : static_cast<const std::wstring&>(text))
        if (!std::iswdigit(ch))
            return false;
    return true;
}

} // namespace

// ---------------------------------------------------------------------------------- serial port

CSerialTransport::CSerialTransport(const ustring& port, const Options& options)
    : m_strPort(port), m_Options(options), m_ReadOv(nullptr, TRUE, FALSE, nullptr),
      m_WriteOv(nullptr, TRUE, FALSE, nullptr), m_bReadPending(false)
{
}

CSerialTransport::~CSerialTransport()
{
    Close();
}

ustring CSerialTransport::DeviceName(const ustring& port)
{
    ustring name(port);
    name.trim();
    // COM1 to COM9 keep their bare names (and so their log files read "COM3-..."); higher
    // numbers and other devices open only in the device form.
    const bool shortCom = name.size() == 4 && ustring(name.substr(0, 3)).compareNoCase(L"COM") == 0 &&
                          name[3] >= L'1' && name[3] <= L'9';
    if (shortCom || name.compare(L"\\\\.\\", 4) == 0)
        return name;
    return L"\\\\.\\" + name;
}

ustring CSerialTransport::LogName() const
{
    // CFile names the log file after the device name without the characters that file names
    // may not hold, and without dots.
    ustring name = DeviceName(m_strPort);
    name.removeForbiddenSymbols(L"/\\:*?\"<>|.");
    return name;
}

bool CSerialTransport::Open(HANDLE stop, unsigned int timeoutMs)
{
    Close();
    if (stop != nullptr && ::WaitForSingleObject(stop, 0) == WAIT_OBJECT_0)
        return false;
    m_Port.Open(DeviceName(m_strPort).c_str(), FILE_FLAG_OVERLAPPED);
    try
    {
        DCB dcb = {};
        dcb.DCBlength = sizeof(dcb);
        m_Port.GetCommState(dcb);
        dcb.BaudRate = m_Options.nBaud;
        dcb.ByteSize = static_cast<BYTE>(m_Options.nDataBits);
        dcb.Parity = m_Options.nParity;
        dcb.StopBits = m_Options.nStopBits;
        dcb.fBinary = TRUE;
        dcb.fParity = m_Options.nParity != NOPARITY;
        dcb.fNull = FALSE;
        dcb.fErrorChar = FALSE;
        dcb.fAbortOnError = FALSE;
        dcb.fOutxDsrFlow = FALSE;
        dcb.fDsrSensitivity = FALSE;
        const bool rtscts = m_Options.strFlow == L"rtscts";
        const bool xonxoff = m_Options.strFlow == L"xonxoff";
        dcb.fOutxCtsFlow = rtscts;
        // The DTR and RTS lines stay as the driver keeps them unless hardware flow control needs RTS.
        if (rtscts)
            dcb.fRtsControl = RTS_CONTROL_HANDSHAKE;
        dcb.fOutX = xonxoff;
        dcb.fInX = xonxoff;
        dcb.XonChar = 0x11;
        dcb.XoffChar = 0x13;
        dcb.XonLim = 512;
        dcb.XoffLim = 512;
        m_Port.SetCommState(dcb);
        // A read ends 20 ms after the last byte of a burst; it waits for the first byte without
        // limit, and is cancelled when the session ends. Writes end within 5 seconds.
        COMMTIMEOUTS timeouts = {20, 0, 0, 0, 5000};
        m_Port.SetCommTimeouts(timeouts);
        m_Port.PurgeComm(PURGE_RXCLEAR | PURGE_TXCLEAR);
    }
    catch (...)
    {
        Close();
        throw;
    }
    (void)timeoutMs;
    return true;
}

void CSerialTransport::FinishPending()
{
    if (!m_bReadPending)
        return;
    m_bReadPending = false;
    try
    {
        m_Port.CancelIo();
    }
    catch (const CStdException&)
    {
    }
    // The cancelled read still completes into m_Buffer: wait for it before the buffer can go.
    ::WaitForSingleObject(m_ReadOv.hEvent, kCancelWaitMs);
    try
    {
        unsigned int got = 0;
        m_Port.GetOverlappedResult(&m_ReadOv, got, false);
    }
    catch (const CStdException&)
    {
    }
}

void CSerialTransport::Close()
{
    if (!m_Port.IsCreated())
        return;
    FinishPending();
    try
    {
        m_Port.Close();
    }
    catch (const CStdException&)
    {
    }
}

HANDLE CSerialTransport::BeginRead()
{
    if (!m_bReadPending && m_Port.IsCreated())
    {
        m_ReadOv.ResetEvent();
        unsigned int got = 0;
        // Pending from here on, whether the read completed at once (EndRead collects it through
        // the same path) or runs on; a read that failed to start is not waited for.
        if (m_Port.Read(m_Buffer, sizeof(m_Buffer), got, &m_ReadOv))
            m_ReadOv.SetEvent();
        m_bReadPending = true;
    }
    return m_ReadOv.hEvent;
}

void CSerialTransport::EndRead(Bytes& data)
{
    data.clear();
    if (!m_bReadPending)
        return;
    unsigned int got = 0;
    try
    {
        m_bReadPending = false;
        if (!m_Port.GetOverlappedResult(&m_ReadOv, got, false))
        {
            m_bReadPending = true;
            return;
        }
    }
    catch (const CWinException& e)
    {
        // Wine ends an overlapped read whose time ran out with ERROR_TIMEOUT, where Windows
        // completes it with no bytes.
        if (e.GetErrorCode() == ERROR_TIMEOUT)
            return;
        throw;
    }
    data.assign(m_Buffer, m_Buffer + got);
}

void CSerialTransport::Write(const unsigned char* data, size_t size, HANDLE stop, unsigned int timeoutMs)
{
    size_t done = 0;
    while (done < size)
    {
        const unsigned int chunk = static_cast<unsigned int>(size - done > 4096 ? 4096 : size - done);
        unsigned int written = 0;
        m_WriteOv.ResetEvent();
        if (!m_Port.Write(data + done, chunk, written, &m_WriteOv))
        {
            const int woke = WaitEventOrStop(m_WriteOv.hEvent, stop, timeoutMs);
            if (woke != 0)
            {
                try
                {
                    m_Port.CancelIo();
                }
                catch (const CStdException&)
                {
                }
                ::WaitForSingleObject(m_WriteOv.hEvent, kCancelWaitMs);
            }
            try
            {
                m_Port.GetOverlappedResult(&m_WriteOv, written, false);
            }
            catch (const CWinException& e)
            {
                if (woke == 0)
                    throw;
                (void)e;
            }
            if (woke == 1)
                throw CWinException(__LINE__, TAVRIN_WFILE, L"WriteFile", ERROR_OPERATION_ABORTED);
        }
        if (written == 0)
            throw CWinException(__LINE__, TAVRIN_WFILE, L"WriteFile", ERROR_TIMEOUT);
        done += written;
    }
}

bool CSerialTransport::SendBreak()
{
    m_Port.EscapeCommFunction(SETBREAK);
    ::Sleep(250);
    m_Port.ClearCommBreak();
    return true;
}

ustring CSerialTransport::Hint(long error) const
{
    switch (error)
    {
    case ERROR_FILE_NOT_FOUND:
    case ERROR_PATH_NOT_FOUND:
        return TrF(L"There is no port %ls here; tavrin-term -list shows the ports of this machine.", m_strPort.c_str());
    case ERROR_ACCESS_DENIED:
    case ERROR_SHARING_VIOLATION:
        return TrF(L"%ls is in use by another program; close it there, or choose another port.", m_strPort.c_str());
    case ERROR_BROKEN_PIPE:
    case ERROR_NOT_READY:
    case ERROR_BAD_COMMAND:
    case ERROR_GEN_FAILURE:
    case ERROR_OPERATION_ABORTED:
        return TrF(L"The device on %ls has gone (unplugged or switched off); -reconnect keeps trying.", m_strPort.c_str());
    case ERROR_INVALID_PARAMETER:
        return TrF(L"%ls refused the settings; check -baud, -data, -parity and -stop.", m_strPort.c_str());
    default:
        return Tr(L"The data log file shows every call that was made, with its result.");
    }
}

// ---------------------------------------------------------------------------------------- TCP

CTcpTransport::CTcpTransport(const ustring& address, bool server)
    : m_strAddress(address), m_bServer(server), m_ReadOv(nullptr, TRUE, FALSE, nullptr),
      m_WriteOv(nullptr, TRUE, FALSE, nullptr), m_nReadFlags(0), m_bReadPending(false), m_bWritePending(false)
{
    m_strAddress.trim();
}

CTcpTransport::~CTcpTransport()
{
    Close();
    try
    {
        m_Listener.Close();
    }
    catch (const CStdException&)
    {
    }
}

ustring CTcpTransport::Peer() const
{
    ustring text;
    if (m_Peer.GetFamily() != 0 && m_Peer.AddressToStringEx(text))
        return text;
    return m_strAddress;
}

ustring CTcpTransport::LogName() const
{
    // Connect and Accept name the log file after the peer's address in its file-name form.
    ustring text;
    m_Peer.AddressToStringEx(text, true);
    return text;
}

void CTcpTransport::Listen()
{
    if (m_Listener.IsCreated())
        return;
    // "-listen 5000" takes every local IPv4 address; "-listen 127.0.0.1:5000" one of them.
    const ustring text = IsDigits(m_strAddress) ? L":" + m_strAddress : m_strAddress;
    const std::vector<SOCKET_ADDRESS_EX> addresses = ResolveAddress(text.c_str(), IsDigits(m_strAddress) ? AF_INET : AF_UNSPEC);
    const SOCKET_ADDRESS_EX& local = addresses.front();
    m_Listener.Create(local.GetFamily(), SOCK_STREAM, IPPROTO_TCP);
    try
    {
        m_Listener.Bind(local);
        m_Listener.Listen(1);
    }
    catch (...)
    {
        try
        {
            m_Listener.Close();
        }
        catch (const CStdException&)
        {
        }
        throw;
    }
}

SOCKET_ADDRESS_EX CTcpTransport::ListeningAddress()
{
    Listen();
    SOCKET_ADDRESS_EX address;
    m_Listener.GetSockName(address);
    return address;
}

bool CTcpTransport::Open(HANDLE stop, unsigned int timeoutMs)
{
    Close();
    return m_bServer ? Accept(stop) : Connect(stop, timeoutMs);
}

bool CTcpTransport::Accept(HANDLE stop)
{
    Listen();
    // Polled in short slices so that the stop event ends the wait for a client.
    for (;;)
    {
        if (stop != nullptr && ::WaitForSingleObject(stop, 0) == WAIT_OBJECT_0)
            return false;
        fd_set readable, writable, failed;
        FD_ZERO(&readable);
        FD_ZERO(&writable);
        FD_ZERO(&failed);
        FD_SET(static_cast<SOCKET>(m_Listener), &readable);
        if (CWSASocket::Select(readable, writable, failed, 200) <= 0)
            continue;
        SOCKET_ADDRESS_EX peer;
        const SOCKET socket = m_Listener.Accept(peer);
        if (socket == INVALID_SOCKET)
            continue;
        m_Socket.Attach(socket);
        m_Peer = peer;
        return true;
    }
}

bool CTcpTransport::Connect(HANDLE stop, unsigned int timeoutMs)
{
    const std::vector<SOCKET_ADDRESS_EX> addresses = ResolveAddress(m_strAddress.c_str());
    boost::shared_ptr<const CStdException> failure;
    for (const SOCKET_ADDRESS_EX& address : addresses)
    {
        m_Socket.Create(address.GetFamily(), SOCK_STREAM, IPPROTO_TCP);
        m_Peer = address;
        // A blocking connect waits as long as the system likes (about 21 s for a host that does
        // not answer): it runs on a helper thread, and closing the socket ends it early.
        CThread connector([this, &address] {
            m_Socket.Connect(address);
            return 0u;
        });
        connector.Start();
        const int woke = WaitEventOrStop(connector.GetHandle(), stop, timeoutMs);
        if (woke == 0)
        {
            connector.Wait(kCancelWaitMs);
            failure = connector.GetException();
            if (!failure)
                return true;
            Abort();
            continue;
        }
        Abort();
        connector.Wait(kCancelWaitMs);
        if (woke == 1)
            return false;
        failure.reset(new CWinException(__LINE__, TAVRIN_WFILE, L"WSAConnect", WSAETIMEDOUT));
    }
    if (failure)
        failure->Throw();
    return false;
}

void CTcpTransport::Abort()
{
    const bool reading = m_bReadPending;
    const bool writing = m_bWritePending;
    m_bReadPending = m_bWritePending = false;
    try
    {
        m_Socket.Close();
    }
    catch (const CStdException&)
    {
    }
    // Closing the socket ends its pending operations; their buffers must outlive that.
    if (reading)
        ::WaitForSingleObject(m_ReadOv.hEvent, kCancelWaitMs);
    if (writing)
        ::WaitForSingleObject(m_WriteOv.hEvent, kCancelWaitMs);
}

void CTcpTransport::Close()
{
    if (m_Socket.IsCreated())
        Abort();
}

HANDLE CTcpTransport::BeginRead()
{
    if (!m_bReadPending && m_Socket.IsCreated())
    {
        m_ReadOv.ResetEvent();
        m_nReadFlags = 0;
        unsigned int got = 0;
        if (m_Socket.Recv(m_Buffer, sizeof(m_Buffer), got, m_nReadFlags, &m_ReadOv))
            m_ReadOv.SetEvent(); // completed at once; EndRead collects it
        m_bReadPending = true;
    }
    return m_ReadOv.hEvent;
}

void CTcpTransport::EndRead(Bytes& data)
{
    data.clear();
    if (!m_bReadPending)
        return;
    unsigned int got = 0;
    DWORD flags = 0;
    m_bReadPending = false;
    if (!m_Socket.GetOverlappedResult(&m_ReadOv, got, FALSE, flags))
    {
        m_bReadPending = true;
        return;
    }
    if (got == 0)
        throw CWinException(__LINE__, TAVRIN_WFILE, L"WSARecv", WSAEDISCON); // the peer closed the connection
    data.assign(m_Buffer, m_Buffer + got);
}

void CTcpTransport::Write(const unsigned char* data, size_t size, HANDLE stop, unsigned int timeoutMs)
{
    size_t done = 0;
    while (done < size)
    {
        const unsigned int chunk = static_cast<unsigned int>(size - done > 65536 ? 65536 : size - done);
        unsigned int sent = 0;
        m_WriteOv.ResetEvent();
        if (!m_Socket.Send(data + done, chunk, sent, 0, &m_WriteOv))
        {
            m_bWritePending = true;
            const int woke = WaitEventOrStop(m_WriteOv.hEvent, stop, timeoutMs);
            if (woke != 0)
            {
                // A peer that stopped reading: the connection is given up.
                Abort();
                throw CWinException(__LINE__, TAVRIN_WFILE, L"WSASend", woke == 1 ? WSA_OPERATION_ABORTED : WSAETIMEDOUT);
            }
            DWORD flags = 0;
            m_Socket.GetOverlappedResult(&m_WriteOv, sent, FALSE, flags);
        }
        m_bWritePending = false;
        done += sent;
    }
}

ustring CTcpTransport::Hint(long error) const
{
    switch (error)
    {
    case WSAECONNREFUSED:
        return TrF(L"Nothing accepts connections at %ls: is the device on, and are address and port right?", m_strAddress.c_str());
    case WSAETIMEDOUT:
        return TrF(L"%ls did not answer in time; check the address and the network, or give a longer -timeout.", m_strAddress.c_str());
    case WSAEHOSTUNREACH:
    case WSAENETUNREACH:
    case WSAENETDOWN:
        return TrF(L"%ls cannot be reached from this machine; check the address and the network.", m_strAddress.c_str());
    case WSAHOST_NOT_FOUND:
    case WSATRY_AGAIN:
    case WSANO_DATA:
        return TrF(L"The name in %ls is unknown; check its spelling, or give the address itself.", m_strAddress.c_str());
    case WSAEINVAL:
        return TrF(L"\"%ls\" is no address: write host:port, such as 192.168.1.20:5000 or [fe80::1]:5000.", m_strAddress.c_str());
    case WSAEADDRINUSE:
    case WSAEACCES:
        return TrF(L"Another program listens on %ls already; choose another port with -listen.", m_strAddress.c_str());
    case WSAEDISCON:
    case WSAECONNRESET:
    case WSAECONNABORTED:
    case WSAENOTCONN:
        return Tr(L"The peer has gone (it closed the connection or ended); -reconnect keeps trying.");
    default:
        return Tr(L"The data log file shows every call that was made, with its result.");
    }
}

std::unique_ptr<CTransport> MakeTransport(const Options& options)
{
    if (!options.strPort.empty())
        return std::unique_ptr<CTransport>(new CSerialTransport(options.strPort, options));
    if (!options.strTcp.empty())
        return std::unique_ptr<CTransport>(new CTcpTransport(options.strTcp, false));
    return std::unique_ptr<CTransport>(new CTcpTransport(options.strListen, true));
}

} // namespace term
