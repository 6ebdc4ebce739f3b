#include "session.h"

#include <tavrin/core/file.h>
#include <tavrin/log/logfile.h>

#include <algorithm>
#include <functional>
#include <set>

using namespace tavrin;

namespace term {

namespace {

const unsigned int kWriteTimeoutMs = 10000;
const unsigned int kFirstRetryMs = 250;
const unsigned int kLongestRetryMs = 8000;
const wchar_t kPrefixKey = 0x14; // Ctrl+T
const wchar_t kCtrlC = 0x03;

long ErrorCode(const CStdException& e)
{
    const CWinException* win = dynamic_cast<const CWinException*>(&e);
    return win != nullptr ? win->GetErrorCode() : 0;
}

} // namespace

// The keyboard of the interactive console: key presses as characters, without echo or line
// editing, and Ctrl+C as a key.
class CKeyboard
{
public:
    CKeyboard() : m_hInput(::GetStdHandle(STD_INPUT_HANDLE)), m_nMode(0), m_bConsole(false)
    {
        if (m_hInput != nullptr && m_hInput != INVALID_HANDLE_VALUE && ::GetConsoleMode(m_hInput, &m_nMode))
            m_bConsole = ::SetConsoleMode(m_hInput, 0) != FALSE;
    }
    ~CKeyboard()
    {
        if (m_bConsole)
            ::SetConsoleMode(m_hInput, m_nMode);
    }
    CKeyboard(const CKeyboard&) = delete;
    CKeyboard& operator=(const CKeyboard&) = delete;

    bool IsConsole() const { return m_bConsole; }
    HANDLE Handle() const { return m_hInput; }

    // The characters typed since the last call; never waits.
    ustring Read()
    {
        ustring typed;
        DWORD count = 0;
        while (::GetNumberOfConsoleInputEvents(m_hInput, &count) && count > 0)
        {
            INPUT_RECORD records[32];
            DWORD got = 0;
            if (!::ReadConsoleInputW(m_hInput, records, 32, &got) || got == 0)
                break;
            for (DWORD i = 0; i < got; ++i)
            {
                const KEY_EVENT_RECORD& key = records[i].Event.KeyEvent;
                if (records[i].EventType == KEY_EVENT && key.bKeyDown && key.uChar.UnicodeChar != 0)
                    typed.append(key.wRepeatCount > 0 ? key.wRepeatCount : 1, key.uChar.UnicodeChar);
            }
        }
        return typed;
    }

    // A line typed by the user (Enter ends it, Escape abandons it); false when abandoned or stopped.
    bool ReadLine(HANDLE stop, CTermOutput& output, ustring& line)
    {
        line.clear();
        for (;;)
        {
            const HANDLE handles[2] = {stop, m_hInput};
            if (::WaitForMultipleObjects(2, handles, FALSE, INFINITE) != WAIT_OBJECT_0 + 1)
                return false;
            for (wchar_t ch : static_cast<const std::wstring&>(Read()))
            {
                if (ch == L'\r' || ch == L'\n')
                    return true;
                if (ch == 0x1B || ch == kCtrlC)
                    return false;
                if (ch == L'\b')
                {
                    if (!line.empty())
                        line.pop_back();
                }
                else
                {
                    line += ch;
                }
            }
            output.Note(L"> " + line);
        }
    }

private:
    HANDLE m_hInput;
    DWORD m_nMode;
    bool m_bConsole;
};

CSession::CSession(const Options& options, CTermOutput& output, HANDLE stop)
    : CSession(options, output, stop, MakeTransport(options))
{
}

CSession::CSession(const Options& options, CTermOutput& output, HANDLE stop, std::unique_ptr<CTransport> transport)
    : m_Options(options), m_Output(output), m_hStop(stop), m_pTransport(std::move(transport)), m_View(output),
      m_Expectations(true, output.TableStyle(), Tr(L"Expectations")), m_bSent(false)
{
    m_View.SetView(options.eView);
    m_Expectations.InsertRow(std::vector<ustring>{Tr(L"step"), Tr(L"result"), Tr(L"after")});
}

CSession::~CSession()
{
    if (m_pTransport)
        m_pTransport->Close();
}

bool CSession::Stopped() const
{
    return ::WaitForSingleObject(m_hStop, 0) == WAIT_OBJECT_0;
}

std::vector<ustring> CSession::ListLogFolder() const
{
    std::vector<ustring> names;
    const ustring folder = CLogFileServer::Ref().GetFolder();
    const ustring mask = CFile::OptAddFileNamePrefix((folder + L"\\*.log").c_str());
    WIN32_FIND_DATAW data;
    const HANDLE find = ::FindFirstFileW(mask.c_str(), &data);
    if (find == INVALID_HANDLE_VALUE)
        return names;
    do
        names.push_back(data.cFileName);
    while (::FindNextFileW(find, &data));
    ::FindClose(find);
    return names;
}

void CSession::FindLogFiles(const std::vector<ustring>& before)
{
    // The log file of a connection is named "<name>-<date>-<time>.log" by the library when the
    // connection is made; it is the new file whose name begins with the connection's name.
    const ustring name = m_pTransport->LogName();
    if (name.empty())
        return; // no connection was named (the address did not resolve)
    const std::set<ustring> known(before.begin(), before.end());
    const ustring prefix = name + L"-";
    const ustring folder = CLogFileServer::Ref().GetFolder();
    for (const ustring& name : ListLogFolder())
    {
        if (known.count(name) != 0 || name.compare(prefix, static_cast<unsigned int>(prefix.size()), CaseInsensitive) != 0)
            continue;
        ustring path;
        CFile::MakePath(path, nullptr, folder.c_str(), name.c_str(), nullptr);
        if (std::find(m_LogFiles.begin(), m_LogFiles.end(), path) == m_LogFiles.end())
        {
            m_LogFiles.push_back(path);
            m_Output.Message(CConsoleBase::SeverityInfo, TrF(L"Data log file: %ls", path.c_str()));
        }
    }
}

bool CSession::Connect(bool afterLoss)
{
    unsigned int delay = kFirstRetryMs;
    for (unsigned int attempt = 1;; ++attempt)
    {
        if (Stopped())
            return false;
        ++m_Stats.nAttempts;
        if (attempt > 1 || afterLoss)
            m_Output.Message(CConsoleBase::SeverityInfo,
                             m_pTransport->IsServer() ? TrF(L"Waiting for the next client on %ls", m_Options.strListen.c_str())
                                                      : TrF(L"Attempt %u: connecting to %ls", attempt, m_pTransport->Peer().c_str()));
        else if (m_pTransport->IsServer())
            m_Output.Message(CConsoleBase::SeverityInfo, TrF(L"Waiting for a client on %ls", m_Options.strListen.c_str()));
        const std::vector<ustring> before = ListLogFolder();
        try
        {
            if (!m_pTransport->Open(m_hStop, m_Options.nTimeoutMs))
                return false;
            ++m_Stats.nConnections;
            m_Output.Message(CConsoleBase::SeverityInfo,
                             m_pTransport->IsServer() ? TrF(L"Client %ls connected", m_pTransport->Peer().c_str())
                                                      : TrF(L"Connected to %ls", m_Options.Describe().c_str()));
            FindLogFiles(before);
            return true;
        }
        catch (const CStdException& e)
        {
            ++m_Stats.nErrors;
            m_Output.Failure(e, TAVRIN_WFILE, __LINE__, m_pTransport->Hint(ErrorCode(e)));
            FindLogFiles(before); // a failed connection leaves its log file too
        }
        if (!m_Options.bReconnect)
            return false;
        if (m_Options.nReconnectLimit != 0 && attempt >= m_Options.nReconnectLimit)
        {
            m_Output.Message(CConsoleBase::SeverityError, TrF(L"Giving up after %u attempts", attempt));
            return false;
        }
        m_Output.Message(CConsoleBase::SeverityInfo, TrF(L"Trying again in %u ms", delay));
        if (::WaitForSingleObject(m_hStop, delay) == WAIT_OBJECT_0)
            return false;
        delay = std::min(delay * 2, kLongestRetryMs);
    }
}

bool CSession::ConnectionLost(const CStdException& e)
{
    m_View.Flush();
    if (Stopped())
        return false;
    ++m_Stats.nErrors;
    m_Output.Failure(e, TAVRIN_WFILE, __LINE__, m_pTransport->Hint(ErrorCode(e)));
    m_pTransport->Close();
    if (!m_Options.bReconnect && !m_pTransport->IsServer())
        return false;
    return Connect(true);
}

void CSession::Received(const Bytes& data)
{
    m_Stats.received.nBytes += data.size();
    ++m_Stats.received.nRecords;
    m_Received.Append(data.data(), data.size());
    m_View.Add(MarkReceived, data.data(), data.size());
    if (m_Options.bEcho)
        Send(data);
}

bool CSession::Send(const Bytes& data)
{
    if (data.empty())
        return true;
    try
    {
        m_pTransport->Write(data.data(), data.size(), m_hStop, kWriteTimeoutMs);
    }
    catch (const CStdException& e)
    {
        ConnectionLost(e);
        return false;
    }
    m_Stats.sent.nBytes += data.size();
    ++m_Stats.sent.nRecords;
    m_View.Add(MarkSent, data.data(), data.size());
    m_SinceSend.Reset();
    m_bSent = true;
    return true;
}

CSession::EWake CSession::Pump(unsigned int timeoutMs, CKeyboard* keys)
{
    CStopWatch watch;
    for (;;)
    {
        HANDLE handles[3] = {m_hStop, nullptr, nullptr};
        DWORD count = 1;
        try
        {
            if (m_pTransport->IsOpen())
                handles[count++] = m_pTransport->BeginRead();
        }
        catch (const CStdException& e)
        {
            if (!ConnectionLost(e))
                return Stopped() ? WakeStop : WakeLost;
            continue;
        }
        const DWORD keyIndex = count;
        if (keys != nullptr)
            handles[count++] = keys->Handle();

        DWORD wait = INFINITE;
        if (timeoutMs != INFINITE)
        {
            const __int64 elapsed = watch.GetElapsedTime().GetTimeSpan();
            if (elapsed >= timeoutMs)
            {
                m_View.Tick();
                return WakeTimeout;
            }
            wait = static_cast<DWORD>(timeoutMs - elapsed);
        }
        wait = std::min<DWORD>(wait, CTrafficView::kIdleMs);
        const DWORD result = ::WaitForMultipleObjects(count, handles, FALSE, wait);
        if (result == WAIT_OBJECT_0)
        {
            m_View.Flush();
            return WakeStop;
        }
        if (result == WAIT_TIMEOUT)
        {
            m_View.Tick();
            continue;
        }
        if (keys != nullptr && result == WAIT_OBJECT_0 + keyIndex)
            return WakeKey;
        if (result == WAIT_OBJECT_0 + 1 && count > 1 && keyIndex != 1)
        {
            Bytes data;
            try
            {
                m_pTransport->EndRead(data);
            }
            catch (const CStdException& e)
            {
                if (!ConnectionLost(e))
                    return Stopped() ? WakeStop : WakeLost;
                continue;
            }
            if (!data.empty())
            {
                Received(data);
                return WakeData;
            }
            continue;
        }
        throw CWinException(__LINE__, TAVRIN_WFILE, L"WaitForMultipleObjects", static_cast<long>(::GetLastError()));
    }
}

int CSession::PumpUntil(unsigned int timeoutMs, const std::function<bool()>& done, __int64& elapsed)
{
    CStopWatch waited;
    for (;;)
    {
        elapsed = waited.GetElapsedTime().GetTimeSpan();
        if (done() || elapsed >= timeoutMs)
            return ExitOk;
        const EWake wake = Pump(static_cast<unsigned int>(timeoutMs - elapsed), nullptr);
        if (wake == WakeStop)
            return ExitInterrupted;
        if (wake == WakeLost)
            return ExitConnection;
    }
}

int CSession::RunScript()
{
    for (const Step& step : m_Options.steps)
    {
        if (step.eKind == Step::Send)
        {
            if (!Send(step.bytes))
                return Stopped() ? ExitInterrupted : ExitConnection;
            continue;
        }
        // A wait shows what comes; an expectation's bytes may have come already, or come in time.
        bool met = false;
        __int64 elapsed = 0;
        const int code = PumpUntil(step.nTimeoutMs, [&] { return met = step.eKind == Step::Expect && m_Received.Consume(step.bytes); },
                                   elapsed);
        m_View.Flush();
        if (code != ExitOk)
            return code;
        if (step.eKind == Step::Wait)
            continue;
        if (!met)
        {
            ++m_Stats.nExpectationsFailed;
            ++m_Stats.nErrors;
            m_Output.Message(CConsoleBase::SeverityError,
                             TrF(L"Expectation not met within %u ms: %ls", step.nTimeoutMs, step.strSource.c_str()));
            if (m_Received.Size() > 0)
                m_Output.Message(CConsoleBase::SeverityWarning,
                                 TrF(L"Received instead: %ls", BytesToDisplay(m_Received.Data()).c_str()));
            m_Expectations.InsertRow(std::vector<ustring>{step.strSource, Tr(L"not met"), FormatMilliseconds(elapsed)});
            return ExitExpectation;
        }
        ++m_Stats.nExpectationsMet;
        ustring after = Tr(L"at once");
        if (m_bSent)
        {
            // The round trip: from the end of the last send to the arrival that completed the match.
            const __int64 roundTrip = m_SinceSend.GetElapsedTime().GetTimeSpan();
            m_Stats.AddRoundTrip(roundTrip);
            after = FormatMilliseconds(roundTrip);
            m_bSent = false;
        }
        m_Output.Message(CConsoleBase::SeverityInfo, TrF(L"Expectation met: %ls (%ls)", step.strSource.c_str(), after.c_str()));
        m_Expectations.InsertRow(std::vector<ustring>{step.strSource, Tr(L"met"), after});
    }
    m_View.Flush();
    return ExitOk;
}

void CSession::ShowCommands()
{
    m_Output.Note(Tr(L"Ctrl+T then: h view text/hex/both, t time stamps on/off, b send a break, s statistics, f send a file, c send Ctrl+C, Ctrl+T send Ctrl+T, q quit, ? this list"));
}

void CSession::SendFile(CKeyboard& keys)
{
    m_Output.Note(Tr(L"File to send (Enter sends it, Escape cancels):"));
    ustring path;
    if (!keys.ReadLine(m_hStop, m_Output, path) || path.trim().empty())
        return;
    path.unwrap(L'"', L'"');
    Bytes bytes;
    ustring error;
    if (!ReadFileBytes(path, bytes, error))
    {
        m_Output.Message(CConsoleBase::SeverityError, error);
        return;
    }
    m_Output.Message(CConsoleBase::SeverityInfo, TrF(L"Sending %ls (%ls bytes)", path.c_str(), ustring::ui64toa(bytes.size()).c_str()));
    Send(bytes);
}

bool CSession::Command(wchar_t key, CKeyboard& keys)
{
    switch (key)
    {
    case L'h':
    case L'H':
    {
        const Options::EView next = static_cast<Options::EView>((m_View.GetView() + 1) % 3);
        m_View.SetView(next);
        static const wchar_t* const names[] = {TERM_TEXT(L"text"), TERM_TEXT(L"hex"), TERM_TEXT(L"both")};
        m_Output.Note(TrF(L"View: %ls", Tr(names[next]).c_str()));
        return true;
    }
    case L't':
    case L'T':
        m_View.Flush();
        m_Output.SetTimestamps(!m_Output.Timestamps());
        m_Output.Note(m_Output.Timestamps() ? Tr(L"Time stamps on") : Tr(L"Time stamps off"));
        return true;
    case L'b':
    case L'B':
        try
        {
            if (m_pTransport->SendBreak())
                m_Output.Message(CConsoleBase::SeverityInfo, Tr(L"Break sent"));
            else
                m_Output.Note(Tr(L"A TCP connection has no break"));
        }
        catch (const CStdException& e)
        {
            m_Output.Failure(e, TAVRIN_WFILE, __LINE__, Tr(L"The port or its driver cannot send a break."));
        }
        return true;
    case L's':
    case L'S':
        m_View.Flush();
        m_Output.Table(StatisticsTable(), false);
        m_Output.Table(SessionTable(ExitOk), false, false);
        return true;
    case L'f':
    case L'F':
        SendFile(keys);
        return true;
    case L'c':
    case L'C':
        Send(Bytes(1, 0x03));
        return true;
    case kPrefixKey:
        Send(Bytes(1, 0x14));
        return true;
    case L'q':
    case L'Q':
        return false;
    default:
        ShowCommands();
        return true;
    }
}

int CSession::RunInteractive()
{
    CKeyboard keys;
    if (!keys.IsConsole())
        return RunMonitor();
    m_Output.Note(Tr(L"Keys go to the device. Ctrl+T ? lists the local commands; Ctrl+C ends."));
    bool prefix = false;
    for (;;)
    {
        const EWake wake = Pump(INFINITE, &keys);
        if (wake == WakeStop)
            return ExitOk;
        if (wake == WakeLost)
            return ExitConnection;
        if (wake != WakeKey)
            continue;
        Bytes typed;
        for (wchar_t ch : static_cast<const std::wstring&>(keys.Read()))
        {
            if (prefix)
            {
                prefix = false;
                if (!Send(typed))
                    return Stopped() ? ExitOk : ExitConnection;
                typed.clear();
                if (!Command(ch, keys))
                    return ExitOk;
                continue;
            }
            if (ch == kPrefixKey)
            {
                prefix = true;
                continue;
            }
            if (ch == kCtrlC)
                return ExitOk;
            const ustring text = ch == L'\r' ? m_Options.strEol : ustring(1u, ch);
            const std::string utf8 = ustring::WideCharToMultiByte(text, CP_UTF8, 0);
            typed.insert(typed.end(), utf8.begin(), utf8.end());
        }
        if (!Send(typed))
            return Stopped() ? ExitOk : ExitConnection;
    }
}

int CSession::RunMonitor()
{
    // No keyboard (standard input is redirected): show what the device sends until Ctrl+C or
    // the end of the connection.
    for (;;)
    {
        const EWake wake = Pump(INFINITE, nullptr);
        if (wake == WakeStop)
            return ExitOk;
        if (wake == WakeLost)
            return ExitConnection;
    }
}

CTable CSession::StatisticsTable() const
{
    CTable table(true, m_Output.TableStyle(), Tr(L"Traffic"));
    table.InsertRow(std::vector<ustring>{L"", Tr(L"sent"), Tr(L"received")});
    table.InsertRow(std::vector<ustring>{Tr(L"bytes"), ustring::ui64toa(m_Stats.sent.nBytes), ustring::ui64toa(m_Stats.received.nBytes)});
    table.InsertRow(std::vector<ustring>{Tr(L"records"), ustring::ui64toa(m_Stats.sent.nRecords),
                                         ustring::ui64toa(m_Stats.received.nRecords)});
    return table;
}

CTable CSession::SessionTable(int exitCode) const
{
    CTable table(false, m_Output.TableStyle(), Tr(L"Session"));
    table.SetMaxColumnWidth(110);
    table.InsertRow(std::vector<ustring>{Tr(L"connection"), m_Options.Describe()});
    table.InsertRow(std::vector<ustring>{Tr(L"started"), m_Started.Format(LOCALE_USER_DEFAULT, L"%x %X")});
    table.InsertRow(std::vector<ustring>{Tr(L"ended"), CSystemTime::GetLocalTime().Format(LOCALE_USER_DEFAULT, L"%x %X")});
    __int64 minimum = 0, maximum = 0;
    double median = 0;
    if (m_Stats.RoundTripFigures(minimum, median, maximum))
        table.InsertRow(std::vector<ustring>{TrF(L"round trips (%u): min / median / max", static_cast<unsigned int>(m_Stats.RoundTrips().size())),
                                             FormatMilliseconds(minimum) + L" / " + FormatMilliseconds(median) + L" / " + FormatMilliseconds(maximum)});
    if (m_Stats.nExpectationsMet + m_Stats.nExpectationsFailed > 0)
        table.InsertRow(std::vector<ustring>{Tr(L"expectations met"),
                                             TrF(L"%u of %u", m_Stats.nExpectationsMet, m_Stats.nExpectationsMet + m_Stats.nExpectationsFailed)});
    table.InsertRow(std::vector<ustring>{Tr(L"connections"), TrF(L"%u (%u attempts)", m_Stats.nConnections, m_Stats.nAttempts)});
    table.InsertRow(std::vector<ustring>{Tr(L"errors"), ustring::ui64toa(m_Stats.nErrors)});
    static const wchar_t* const results[] = {TERM_TEXT(L"every expectation met"), TERM_TEXT(L"an expectation not met in time"),
                                             TERM_TEXT(L"connection failed or lost"), TERM_TEXT(L"bad command line"),
                                             TERM_TEXT(L"interrupted"), TERM_TEXT(L"report not written")};
    table.InsertRow(std::vector<ustring>{Tr(L"result"), ustring::sprintf_stc(L"%d: ", exitCode) + Tr(results[exitCode])});
    ustring files;
    for (const ustring& path : m_LogFiles)
        files += (files.empty() ? L"" : L"\n") + path;
    table.InsertRow(std::vector<ustring>{Tr(L"data log files"), files.empty() ? Tr(L"none (logging is off)") : files});
    return table;
}

void CSession::PrintSummary(int exitCode)
{
    m_View.Flush();
    m_Output.PrintTranscriptToReport();
    if (m_Expectations.GetNumberOfRows() > 1)
        m_Output.Table(m_Expectations, true);
    m_Output.Table(StatisticsTable(), true);
    m_Output.Table(SessionTable(exitCode), true, false);
}

int CSession::Run()
{
    m_Started = CSystemTime::GetLocalTime();
    m_Output.StartTranscript();
    m_Output.ReportHeading(m_Options.Describe(), ConsoleFont::BoldHeading2);
    int code = ExitConnection;
    if (Connect(false))
    {
        if (m_Options.bEcho)
            code = RunMonitor();
        else if (!m_Options.steps.empty())
            code = RunScript();
        else
            code = RunInteractive();
    }
    else if (Stopped())
    {
        code = ExitInterrupted;
    }
    m_View.Flush();
    // The log files are complete once the connection is closed: the library writes everything
    // queued when a channel's log file closes.
    m_pTransport->Close();
    if (Stopped() && code == ExitOk && !m_Options.steps.empty())
        code = ExitInterrupted;
    PrintSummary(code);
    return code;
}

// ---------------------------------------------------------------------------------- echo device

CEchoDevice::CEchoDevice(std::unique_ptr<CTransport> transport)
    : m_pTransport(std::move(transport)), m_Thread([this] { return Run(); }), m_nEchoed(0)
{
}

CEchoDevice::~CEchoDevice()
{
    Stop();
}

void CEchoDevice::Start()
{
    m_Thread.Start();
}

void CEchoDevice::Stop()
{
    m_Thread.RequestStop();
    m_Thread.Wait(10000);
}

unsigned int CEchoDevice::Run()
{
    const HANDLE stop = m_Thread.GetStopEvent();
    Bytes data;
    while (!m_Thread.IsStopRequested())
    {
        try
        {
            if (!m_pTransport->IsOpen() && !m_pTransport->Open(stop, 5000))
                break;
            const HANDLE handles[2] = {stop, m_pTransport->BeginRead()};
            if (::WaitForMultipleObjects(2, handles, FALSE, INFINITE) != WAIT_OBJECT_0 + 1)
                break;
            m_pTransport->EndRead(data);
            if (!data.empty())
            {
                m_pTransport->Write(data.data(), data.size(), stop, kWriteTimeoutMs);
                m_nEchoed += data.size();
            }
        }
        catch (const CStdException&)
        {
            // The client went (or the port failed): the data log file has the details. A server
            // takes the next client; a port is opened again after a pause.
            m_pTransport->Close();
            if (!m_pTransport->IsServer() && m_Thread.WaitForStopRequest(500))
                break;
        }
    }
    m_pTransport->Close();
    return 0;
}

} // namespace term
