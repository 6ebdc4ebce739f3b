// tavrin-log replay: a recorded session played back as the device, so that the application that
// was recorded can be run and tested without it.
//
//     tavrin-log replay -listen 5000 127.0.0.1@5000-2024.03.07-09.05.01.123.log
//     tavrin-log replay -port COM9 -speed 0 COM7-2024.03.07-09.05.01.123.log
//
// A data log file is the application's side of a channel: what it sent (write records) is what
// the replay waits for, what it received (read records) is what the replay answers. The bytes
// the application sends are compared as one stream, so it may send them in other pieces than
// when it was recorded. An answer goes out as long after the last thing the application sent as
// it did in the recording (divided by -speed; -speed 0 answers at once). Every wait is bounded:
// the application must send what the recording says within the recorded pause plus -timeout, or
// the replay ends. Every difference is reported, and any makes the exit code kExitMismatch.
#include "tool.h"

#include <tavrin/comm/commport.h>
#include <tavrin/comm/resolver.h>
#include <tavrin/comm/socket.h>
#include <tavrin/log/logcall.h>
#include <tavrin/log/logfile.h>

#include <algorithm>

namespace tavrinlog {

namespace {

using tavrin::CSystemTime;
using tavrin::CSystemTimeSpan;

// ---------------------------------------------------------------- links to the application

// The connection to the application under test.
class CLink
{
public:
    enum EReceived
    {
        eReceived, // bytes came
        eTimedOut, // nothing came in time
        eClosed    // the application closed the connection
    };

    virtual ~CLink() {}
    // Waits at most `ms` for bytes from the application and appends what came to `buffer`, at most
    // `wanted` (the rest of what the replay waits for): a socket returns as soon as some bytes
    // are there, a serial port once all of them are. Throws what the system reports for a broken
    // connection.
    virtual EReceived Receive(std::vector<unsigned char>& buffer, std::size_t wanted, unsigned __int64 ms) = 0;
    // Appends the bytes that have arrived and not been read yet.
    virtual void ReceiveWaiting(std::vector<unsigned char>& buffer) = 0;
    virtual void Send(const std::vector<unsigned char>& data) = 0;
    // The device ended the conversation where the recording holds a read of 0 bytes. A socket
    // reads 0 bytes only when its peer has closed, so a TCP link closes its sending side; false
    // for a link on which such a read means nothing more than that no byte came in time.
    virtual bool EndSending() = 0;
    // Whether the application ends the session by closing the link, so that the replay waits for
    // that after the last record.
    virtual bool ClosedByApplication() const = 0;
    // The channel of the replay's own data log file.
    virtual unsigned int Channel() const = 0;
};

// Waits at most `ms` for a socket to become readable (data, a connection to accept, or its end).
bool Readable(SOCKET socket, unsigned __int64 ms)
{
    fd_set read, write, except;
    FD_ZERO(&read);
    FD_ZERO(&write);
    FD_ZERO(&except);
    FD_SET(socket, &read);
    return tavrin::CWSASocket::Select(read, write, except, ms) > 0;
}

// The device as a TCP server that serves one connection.
class CSocketLink : public CLink
{
public:
    // Listens on `address`; throws what the system reports (a port in use, an address that is
    // not this computer's).
    explicit CSocketLink(const tavrin::SOCKET_ADDRESS_EX& address) : m_bSendingEnded(false)
    {
        m_Listener.Create(address.GetFamily(), SOCK_STREAM, IPPROTO_TCP);
        // No other program may take over the port while the replay holds it.
        m_Listener.SetSockOpt<BOOL>(SOL_SOCKET, SO_EXCLUSIVEADDRUSE, TRUE);
        m_Listener.Bind(address);
        m_Listener.Listen(1);
    }

    // Where the application can connect: the address with the port that the system chose for 0.
    ustring GetLocalAddress()
    {
        tavrin::SOCKET_ADDRESS_EX local;
        m_Listener.GetSockName(local);
        ustring text;
        local.AddressToStringEx(text, false);
        return text;
    }

    // Waits at most `ms` for the application to connect; false when it did not. Later
    // connections are refused: the listener is closed once one is taken.
    bool Accept(unsigned __int64 ms, ustring& peer)
    {
        if (!Readable(m_Listener, ms))
            return false;
        tavrin::SOCKET_ADDRESS_EX address;
        const SOCKET connection = m_Listener.Accept(address);
        if (connection == INVALID_SOCKET)
            return false;
        m_Connection.Attach(connection);
        address.AddressToStringEx(peer, false);
        m_Listener.Close();
        return true;
    }

    EReceived Receive(std::vector<unsigned char>& buffer, std::size_t, unsigned __int64 ms) override
    {
        if (!Readable(m_Connection, ms))
            return eTimedOut;
        m_Buffer.resize(65536);
        unsigned int received = 0;
        DWORD flags = 0;
        m_Connection.Recv(m_Buffer.data(), static_cast<unsigned int>(m_Buffer.size()), received, flags);
        if (received == 0)
            return eClosed;
        buffer.insert(buffer.end(), m_Buffer.begin(), m_Buffer.begin() + received);
        return eReceived;
    }

    void ReceiveWaiting(std::vector<unsigned char>& buffer) override
    {
        Receive(buffer, 0, 0);
    }

    void Send(const std::vector<unsigned char>& data) override
    {
        std::size_t done = 0;
        while (done < data.size())
        {
            unsigned int sent = 0;
            const unsigned int chunk = static_cast<unsigned int>(std::min<std::size_t>(data.size() - done, 1u << 20));
            m_Connection.Send(data.data() + done, chunk, sent);
            done += sent;
        }
    }

    bool EndSending() override
    {
        if (!m_bSendingEnded)
            m_Connection.Shutdown(SD_SEND);
        m_bSendingEnded = true;
        return true;
    }

    bool ClosedByApplication() const override { return true; }
    unsigned int Channel() const override { return tavrin::LogChannel(static_cast<SOCKET>(m_Connection)); }

private:
    tavrin::CWSASocket m_Listener;
    tavrin::CWSASocket m_Connection;
    std::vector<unsigned char> m_Buffer;
    bool m_bSendingEnded;
};

// The device on a serial port. Its reads wait for exactly the bytes that the replay waits for
// (the port's read timeouts are all 0), since not every driver can end a read when bytes stop
// coming (Wine cannot); the replay bounds each wait itself and cancels a read that runs out of
// time.
class CSerialLink : public CLink
{
public:
    // Opens `name` (COM9, or \\.\COM9) with its own data log file, at `baud` bits per second
    // (0: as the port is set), forgetting whatever waited in its buffers. A write, or a read of
    // bytes that are there, may take `timeout` ms. Throws what the system reports.
    CSerialLink(const ustring& name, unsigned int baud, unsigned int timeout)
        : m_Read(nullptr, TRUE, FALSE, nullptr), m_Write(nullptr, TRUE, FALSE, nullptr), m_nTimeout(timeout)
    {
        m_Port.Open(name.find(L'\\') == std::wstring::npos ? L"\\\\.\\" + name : name, FILE_FLAG_OVERLAPPED);
        if (baud != 0)
        {
            DCB dcb = {};
            dcb.DCBlength = sizeof(dcb);
            m_Port.GetCommState(dcb);
            dcb.BaudRate = baud;
            m_Port.SetCommState(dcb);
        }
        const COMMTIMEOUTS none = {0, 0, 0, 0, 0};
        m_Port.SetCommTimeouts(none);
        m_Port.PurgeComm(PURGE_RXCLEAR | PURGE_TXCLEAR);
    }

    EReceived Receive(std::vector<unsigned char>& buffer, std::size_t wanted, unsigned __int64 ms) override
    {
        m_Buffer.resize(std::max<std::size_t>(1, std::min<std::size_t>(wanted, 1u << 20)));
        unsigned int count = 0;
        const bool done = m_Port.Read(m_Buffer.data(), static_cast<unsigned int>(m_Buffer.size()), count, &m_Read) ||
                          Complete(m_Read, ms, count);
        buffer.insert(buffer.end(), m_Buffer.begin(), m_Buffer.begin() + std::min<std::size_t>(count, m_Buffer.size()));
        return done ? eReceived : eTimedOut;
    }

    void ReceiveWaiting(std::vector<unsigned char>& buffer) override
    {
        DWORD errors = 0;
        COMSTAT status = {};
        m_Port.ClearCommError(errors, status);
        if (status.cbInQue != 0)
            Receive(buffer, status.cbInQue, m_nTimeout);
    }

    void Send(const std::vector<unsigned char>& data) override
    {
        unsigned int count = 0;
        if (!m_Port.Write(data.data(), static_cast<unsigned int>(data.size()), count, &m_Write) &&
            !Complete(m_Write, m_nTimeout, count))
            throw tavrin::CWinException(__LINE__, TAVRIN_WFILE, L"WriteFile", ERROR_TIMEOUT);
    }

    bool EndSending() override { return false; }
    bool ClosedByApplication() const override { return false; }
    unsigned int Channel() const override { return tavrin::LogChannel(m_Port.GetHandle()); }

private:
    // Waits at most `ms` for a pending transfer. False when it ran out of time: it is cancelled,
    // and `count` tells how many bytes it moved before.
    bool Complete(tavrin::COverlapped& overlapped, unsigned __int64 ms, unsigned int& count)
    {
        const DWORD wait = static_cast<DWORD>(std::min<unsigned __int64>(ms, 0xFFFFFFFEu));
        if (::WaitForSingleObject(overlapped.hEvent, wait) == WAIT_OBJECT_0)
            return m_Port.GetOverlappedResult(&overlapped, count, true);
        m_Port.CancelIo();
        try
        {
            // It may have completed before it could be cancelled.
            return m_Port.GetOverlappedResult(&overlapped, count, true);
        }
        catch (const tavrin::CStdException&)
        {
            count = static_cast<unsigned int>(overlapped.InternalHigh);
            return false;
        }
    }

    // Every transfer has completed or been cancelled when Receive or Send returns; the port still
    // goes first.
    tavrin::COverlapped m_Read;
    tavrin::COverlapped m_Write;
    std::vector<unsigned char> m_Buffer;
    unsigned int m_nTimeout;
    tavrin::CCommPort m_Port;
};

// The address of -listen: a port alone is one on the loopback address, so that a replay is not
// reachable from other computers unless asked for.
tavrin::SOCKET_ADDRESS_EX ListenAddress(const ustring& text)
{
    const bool portOnly =
        !text.empty() && text.size() <= 5 && text.find_first_not_of(L"0123456789") == std::wstring::npos;
    try
    {
        const std::vector<tavrin::SOCKET_ADDRESS_EX> addresses =
            tavrin::ResolveAddress(portOnly ? L"127.0.0.1:" + text : text, AF_UNSPEC, 0, AI_NUMERICHOST | AI_PASSIVE);
        if (!addresses.empty() && (portOnly || text.find(L':') != std::wstring::npos))
            return addresses.front();
    }
    catch (const tavrin::CStdException&)
    {
    }
    Fail(kExitUsage, L"option \"-listen\": \"%ls\" is no port or address with a port (5000, 0.0.0.0:5000, [::1]:5000)",
         text.c_str());
}

// ---------------------------------------------------------------- the replay

class CReplayer
{
public:
    // `firstWait`: how long the first wait for the application may take, when longer than
    // `timeout` (the application may still be starting).
    CReplayer(CLink& link, CStdOut& out, const ustring& channel, double speed, unsigned int timeout,
              unsigned int firstWait, bool hex)
        : m_Link(link), m_Out(out), m_strChannel(channel), m_dSpeed(speed), m_nTimeout(timeout),
          m_nFirstWait(std::max(firstWait, timeout)), m_bHex(hex), m_nAnchor(0), m_bHasAnchorTime(false),
          m_nPlayed(0), m_nMatched(0), m_nAnswered(0), m_nMismatches(0)
    {
    }

    // Plays the records of `source` that `filter` lets through, from now on; the exit code.
    int Play(CLogSource& source, const CRecordFilter& filter)
    {
        m_Clock.Reset();
        LogRecord record;
        bool playing = true;
        unsigned __int64 left = 0;
        while (source.Next(record))
        {
            if (!filter.Accept(record))
                continue;
            if (record.nKind == LogRecord::eWriteError || record.nKind == LogRecord::eDamaged)
            {
                ErrorConsole().Warn(L"line %I64u: %ls; left out of the replay", record.nLine,
                                    record.nKind == LogRecord::eWriteError ? record.text.c_str()
                                                                           : record.problem.c_str());
                continue;
            }
            if (!m_bHasAnchorTime)
            {
                // The recording's first moment is the moment the application connected.
                m_AnchorTime = record.time;
                m_bHasAnchorTime = true;
            }
            if (record.nKind == LogRecord::eText || (record.nKind == LogRecord::eWrite && record.data.empty()))
                continue;
            if (!playing)
            {
                ++left;
                continue;
            }
            playing = record.nKind == LogRecord::eWrite ? Expect(record) : Answer(record);
            ++(playing ? m_nPlayed : left);
        }
        if (playing)
            Finish();

        ustring summary = Count(m_nPlayed, L"record") +
                          ustring::sprintf_stc(L" played (%I64u received as recorded, %I64u sent)", m_nMatched,
                                               m_nAnswered);
        if (left != 0)
            summary += L", " + Count(left, L"record") + L" not played";
        summary += L"; " + (m_nMismatches == 0 ? ustring(L"no differences") : Count(m_nMismatches, L"difference"));
        Note(summary);
        tavrin::LogChannelText(m_Link.Channel(), true, L"tavrin-log replay: %ls.", summary.c_str());
        return m_nMismatches == 0 ? kExitOk : kExitMismatch;
    }

private:
    unsigned __int64 Now() const { return static_cast<unsigned __int64>(m_Clock.GetElapsedTime().GetTimeSpan()); }

    // When `record` happens in the replay: as long after the last thing that the application sent
    // (or the start) as in the recording, divided by the speed.
    unsigned __int64 Due(const LogRecord& record) const
    {
        if (m_dSpeed == 0)
            return m_nAnchor;
        const __int64 gap = CSystemTimeSpan(CSystemTime(record.time), CSystemTime(m_AnchorTime)).GetTimeSpan();
        return m_nAnchor + (gap <= 0 ? 0 : static_cast<unsigned __int64>(static_cast<double>(gap) / m_dSpeed));
    }

    // Waits for the bytes of a write record and compares them; false ends the replay.
    bool Expect(const LogRecord& record)
    {
        const std::vector<unsigned char>& expected = record.data;
        const unsigned __int64 start = Now(), deadline = std::max(Due(record), start) + m_nFirstWait;
        m_nFirstWait = m_nTimeout;
        while (m_Pending.size() < expected.size())
        {
            const unsigned __int64 now = Now();
            CLink::EReceived result = CLink::eTimedOut;
            if (now < deadline &&
                !ReceiveOrReport(expected.size() - m_Pending.size(), deadline - now, result, &record))
                return false;
            if (result == CLink::eReceived)
                continue;
            const unsigned int count = static_cast<unsigned int>(expected.size());
            const unsigned int received = static_cast<unsigned int>(m_Pending.size());
            ustring text = ustring::sprintf_stc(L"line %I64u: ", record.nLine);
            if (result == CLink::eClosed)
                text += ustring::sprintf_stc(L"the application closed the connection after %u of the %u bytes",
                                             received, count);
            else
                text += ustring::sprintf_stc(L"waited %I64u ms for the application's %u bytes; %u came",
                                             Now() - start, count, received);
            if (received != 0)
                text += L"; " + Compare(expected, m_Pending, received);
            Mismatch(text);
            return false;
        }
        const auto end = m_Pending.begin() + static_cast<std::ptrdiff_t>(expected.size());
        if (std::equal(m_Pending.begin(), end, expected.begin()))
        {
            Show(record);
            ++m_nMatched;
        }
        else
        {
            // The line shows what came, the difference what was expected.
            LogRecord received = record;
            received.data.assign(m_Pending.begin(), end);
            received.formatted.clear();
            Show(received);
            Mismatch(ustring::sprintf_stc(L"line %I64u: the application sent other bytes: ", record.nLine) +
                     Compare(expected, m_Pending, expected.size()));
        }
        m_Pending.erase(m_Pending.begin(), m_Pending.begin() + static_cast<std::ptrdiff_t>(expected.size()));
        // The application's own pace sets the clock of what follows.
        m_nAnchor = Now();
        m_AnchorTime = record.time;
        return true;
    }

    // Sends the bytes of a read record when they are due; false ends the replay.
    bool Answer(const LogRecord& record)
    {
        const unsigned __int64 due = Due(record), now = Now();
        if (due > now)
            ::Sleep(static_cast<DWORD>(std::min<unsigned __int64>(due - now, 0xFFFFFFFEu)));
        try
        {
            if (!record.data.empty())
                m_Link.Send(record.data);
            else if (!m_Link.EndSending())
                return true;
        }
        catch (const tavrin::CStdException& e)
        {
            Mismatch(ustring::sprintf_stc(L"line %I64u: the answer could not be sent: ", record.nLine) +
                     DescribeException(e));
            return false;
        }
        Show(record);
        if (record.data.empty())
            Note(L"the device closed its side of the connection, as in the recording");
        ++m_nAnswered;
        return true;
    }

    // After the last record: what the application still sends is a difference. A TCP
    // application is given -timeout to close the connection; on a serial port, which nobody
    // closes, what has arrived by then counts.
    void Finish()
    {
        if (m_Link.ClosedByApplication())
        {
            const unsigned __int64 deadline = Now() + m_nTimeout;
            CLink::EReceived result = CLink::eReceived;
            while (result == CLink::eReceived)
            {
                const unsigned __int64 now = Now();
                if (now >= deadline)
                    result = CLink::eTimedOut;
                else if (!ReceiveOrReport(1, deadline - now, result, nullptr))
                    return;
            }
            if (result == CLink::eTimedOut)
                Note(ustring::sprintf_stc(L"the application kept the connection open %u ms after the end of the "
                                          L"recording; the replay closes it",
                                          m_nTimeout));
        }
        else
        {
            CLink::EReceived result = CLink::eReceived;
            if (!ReceiveOrReport(0, 0, result, nullptr))
                return;
        }
        if (!m_Pending.empty())
            Mismatch(ustring::sprintf_stc(L"the application sent %u bytes after the end of the recording: ",
                                          static_cast<unsigned int>(m_Pending.size())) +
                     Excerpt(m_Pending, 0, m_Pending.size()));
    }

    // One wait for at most `wanted` bytes (0: only those already there); a broken connection is
    // reported (at `record`, when there is one) and gives false.
    bool ReceiveOrReport(std::size_t wanted, unsigned __int64 ms, CLink::EReceived& result, const LogRecord* record)
    {
        try
        {
            if (wanted == 0)
                m_Link.ReceiveWaiting(m_Pending);
            else
                result = m_Link.Receive(m_Pending, wanted, ms);
            return true;
        }
        catch (const tavrin::CStdException& e)
        {
            Mismatch((record ? ustring::sprintf_stc(L"line %I64u: ", record->nLine) : ustring()) +
                     L"the connection failed: " + DescribeException(e));
            return false;
        }
    }

    // Where and how `received` differs from `expected` in their first `count` bytes.
    ustring Compare(const std::vector<unsigned char>& expected, const std::vector<unsigned char>& received,
                    std::size_t count) const
    {
        std::size_t first = count, differing = 0;
        for (std::size_t i = 0; i < count; ++i)
            if (expected[i] != received[i])
            {
                first = std::min(first, i);
                ++differing;
            }
        if (differing == 0)
            return L"those agree with the recording";
        return ustring::sprintf_stc(L"%u of %u bytes differ, the first at offset %u: expected \"",
                                    static_cast<unsigned int>(differing), static_cast<unsigned int>(count),
                                    static_cast<unsigned int>(first)) +
               Excerpt(expected, first, expected.size()) + L"\", received \"" + Excerpt(received, first, count) + L"\"";
    }

    // The bytes around `offset` of the first `size` of `data`, named as cat shows them, with "..."
    // where some are left out.
    ustring Excerpt(const std::vector<unsigned char>& data, std::size_t offset, std::size_t size) const
    {
        const std::size_t before = 16, length = 48;
        const std::size_t begin = offset - std::min(offset, before);
        const std::size_t end = std::min(size, begin + length);
        const std::vector<unsigned char> part(data.begin() + static_cast<std::ptrdiff_t>(begin),
                                              data.begin() + static_cast<std::ptrdiff_t>(end));
        const ustring shown = m_bHex ? tavrin::CLogFile::Bin2Hex(part.data(), static_cast<unsigned int>(part.size()))
                                     : NameControls(part);
        return (begin > 0 ? L"..." : L"") + shown + (end < size ? L"..." : L"");
    }

    // "1 record", "2 records".
    static ustring Count(unsigned __int64 count, const wchar_t* noun)
    {
        return ustring::sprintf_stc(L"%I64u %ls%ls", count, noun, count == 1 ? L"" : L"s");
    }

    static ustring LocalTime()
    {
        SYSTEMTIME now;
        ::GetLocalTime(&now);
        return FormatTime(now);
    }

    // A record played, as cat shows it, at once: the replay is watched while it runs.
    void Show(const LogRecord& record)
    {
        WriteRecordLine(m_Out, LocalTime(), m_strChannel, record, m_bHex);
        m_Out.Flush();
    }

    void Mismatch(const ustring& text)
    {
        ++m_nMismatches;
        m_Out.Write(LocalTime() + L"  " + m_strChannel + L"  ");
        m_Out.Write(L"!! " + text, tavrin::ConsoleFont::TextLightRed);
        m_Out.Write(L"\r\n");
        m_Out.Flush();
        tavrin::LogChannelText(m_Link.Channel(), true, L"tavrin-log replay: %ls", text.c_str());
    }

    void Note(const ustring& text)
    {
        m_Out.Write(L"tavrin-log: " + text + L"\r\n");
        m_Out.Flush();
    }

    CLink& m_Link;
    CStdOut& m_Out;
    ustring m_strChannel;
    double m_dSpeed;
    unsigned int m_nTimeout;
    unsigned int m_nFirstWait;
    bool m_bHex;

    tavrin::CStopWatch m_Clock;
    // The moment of the replay (ms on m_Clock) that stands for m_AnchorTime of the recording.
    unsigned __int64 m_nAnchor;
    SYSTEMTIME m_AnchorTime;
    bool m_bHasAnchorTime;
    // Bytes of the application that no write record has taken yet.
    std::vector<unsigned char> m_Pending;

    unsigned __int64 m_nPlayed;
    unsigned __int64 m_nMatched;
    unsigned __int64 m_nAnswered;
    unsigned __int64 m_nMismatches;
};

} // namespace

namespace {

// Listens on `address` and waits at most `wait` ms for the application to connect.
std::unique_ptr<CLink> ConnectSocket(const ustring& listen, CStdOut& out, const ustring& path, unsigned int wait)
{
    std::unique_ptr<CSocketLink> link;
    ustring local;
    try
    {
        link.reset(new CSocketLink(ListenAddress(listen)));
        local = link->GetLocalAddress();
    }
    catch (const tavrin::CStdException& e)
    {
        Fail(kExitFailure, L"cannot listen on %ls: %ls", listen.c_str(), DescribeException(e).c_str());
    }
    out.Write(ustring::sprintf_stc(L"tavrin-log: replaying %ls: listening on %ls\r\n", path.c_str(), local.c_str()));
    out.Flush();
    ustring peer;
    bool connected = false;
    try
    {
        connected = link->Accept(wait, peer);
    }
    catch (const tavrin::CStdException& e)
    {
        Fail(kExitFailure, L"cannot accept a connection on %ls: %ls", local.c_str(), DescribeException(e).c_str());
    }
    if (!connected)
        Fail(kExitMismatch, L"no application connected to %ls within %u ms", local.c_str(), wait);
    out.Write(ustring::sprintf_stc(L"tavrin-log: the application connected from %ls\r\n", peer.c_str()));
    out.Flush();
    return link;
}

std::unique_ptr<CLink> OpenSerialPort(const ustring& port, unsigned int baud, unsigned int timeout, CStdOut& out,
                                      const ustring& path)
{
    std::unique_ptr<CLink> link;
    try
    {
        link.reset(new CSerialLink(port, baud, timeout));
    }
    catch (const tavrin::CStdException& e)
    {
        Fail(kExitFailure, L"cannot open %ls: %ls", port.c_str(), DescribeException(e).c_str());
    }
    out.Write(ustring::sprintf_stc(L"tavrin-log: replaying %ls on %ls\r\n", path.c_str(), port.c_str()));
    out.Flush();
    return link;
}

} // namespace

int RunReplay(const CCommandLine& line)
{
    ustring listen, port;
    const bool tcp = line.Get(L"listen", listen);
    if (tcp == line.Get(L"port", port))
        Fail(kExitUsage, L"replay: give one of -listen <port> and -port <COMx>");
    unsigned int baud = 0, timeout = 10000, wait = 60000;
    if (line.Get(L"baud", baud, 1, 100000000) && tcp)
        Fail(kExitUsage, L"option \"-baud\" applies to -port only");
    if (tcp)
        ListenAddress(listen); // a usage error before anything else is done
    line.Get(L"timeout", timeout, 1, 86400000);
    line.Get(L"wait", wait, 1, 86400000);
    double speed = 1;
    line.Get(L"speed", speed, 0, 1000000);
    std::vector<std::unique_ptr<CLogSource>> sources = OpenSources(line);
    if (sources.size() != 1)
        Fail(kExitUsage, L"replay plays one data log file, not %u", static_cast<unsigned int>(sources.size()));
    CLogSource& source = *sources.front();
    const CRecordFilter filter(line);
    CStdOut out(line.Has(L"plain"));

    // The replay's own side of the session goes into a data log file of its own.
    tavrin::CLogFileServer& server = tavrin::CLogFileServer::Ref();
    ustring folder;
    if (line.Get(L"logdir", folder))
        server.SetFolder(folder, false);
    server.SetDetail(tavrin::eLogFileDetailVerbose);

    // A TCP application has connected when the replay starts; a serial one may still be
    // starting, and has `wait` for its first bytes.
    const std::unique_ptr<CLink> link =
        tcp ? ConnectSocket(listen, out, source.GetPath(), wait)
            : OpenSerialPort(port, baud, timeout, out, source.GetPath());
    if (!server.LogFileExists(link->Channel()))
        ErrorConsole().Warn(L"the replay's session cannot be logged in \"%ls\"", server.GetFolder().c_str());
    tavrin::LogChannelText(link->Channel(), true, L"tavrin-log replays \"%ls\" (speed %g, timeout %u ms).",
                           source.GetPath().c_str(), speed, timeout);

    CReplayer replayer(*link, out, source.GetChannel(), speed, timeout, tcp ? 0 : wait, line.Has(L"hex"));
    return replayer.Play(source, filter);
}

} // namespace tavrinlog
