// tavrin-log: command line, output streams and files, and the text forms of records.
#include "tool.h"

#include <cstdarg>
#include <cwchar>
#include <cwctype>

namespace tavrinlog {

using tavrin::CCommandLineParser;
using tavrin::ConsoleFont;

// ---------------------------------------------------------------- failures

void Fail(int exitCode, const wchar_t* format, ...)
{
    va_list args;
    va_start(args, format);
    const ustring message = ustring::vsprintf_stc(format, args);
    va_end(args);
    throw CToolError(exitCode, message);
}

ustring DescribeException(const tavrin::CStdException& e)
{
    ustring message;
    e.GetErrorMessage(message);
    while (!message.empty() && (message.back() == L'\n' || message.back() == L'\r' || message.back() == L' '))
        message.pop_back();
    return ustring::sprintf_stc(L"%ls (%ls, %ls)", message.c_str(), e.GetFunction().c_str(),
                                e.GetErrorCodeStr().c_str());
}

// ---------------------------------------------------------------- command line

const std::vector<OptionSpec>& CCommandLine::Options()
{
    // The filters that select records to show or export; a replay plays a stretch of time.
    const unsigned int reading = kCat | kStats | kMerge | kExport;
    static const std::vector<OptionSpec> options = {
        {L"help", nullptr, kAllCommands, L"this text"},
        {L"dir", L"kinds", reading, L"only these kinds of record: sent, received, text, damaged (comma-separated)"},
        {L"from", L"time", kAllCommands, L"only records at or after this local time (2024-03-07 09:05:01.123, or 09:05)"},
        {L"to", L"time", kAllCommands, L"only records at or before this local time"},
        {L"text", L"text", reading, L"only records whose text or bytes hold this text"},
        {L"nocase", nullptr, reading, L"-text ignores letter case"},
        {L"bytes", L"hex", reading, L"only data records that hold these bytes (\"02 ?? 03\", ?? any byte)"},
        {L"plain", nullptr, kCat | kMerge | kStats | kReplay, L"no colours (for pipes; also when output is redirected)"},
        {L"hex", nullptr, kCat | kMerge | kReplay, L"data in hexadecimal instead of text"},
        {L"gap", L"ms", kStats, L"count pauses longer than this between records (default 1000)"},
        {L"pcapng", L"file", kExport, L"Wireshark capture: one interface per channel"},
        {L"raw", L"base", kExport, L"the bytes sent into <base>-sent.bin and those received into <base>-received.bin"},
        {L"csv", L"file", kExport, L"one row per record"},
        {L"link", L"kind", kExport, L"how channels are exported: auto (default), tcp, udp or serial"},
        {L"dlt", L"n", kExport, L"link type of serial channels, 147 (USER0, default) to 162 (USER15)"},
        {L"local", L"address", kExport, L"this side of socket channels, e.g. 127.0.0.1:49152 or [::1]:49152"},
        {L"remote", L"address", kExport, L"the peer of socket channels when their file name does not say"},
        {L"tz", L"offset", kExport, L"the log's local time is UTC plus this (+02:00, -05:30); default: this computer's zone"},
        {L"listen", L"address", kReplay, L"be the device as a TCP server: a port on 127.0.0.1 (0: any free one), "
                                         L"or 0.0.0.0:5000, [::1]:5000"},
        {L"port", L"COMx", kReplay, L"be the device on this serial port"},
        {L"baud", L"n", kReplay, L"the serial port's bit rate (default: as the port is set)"},
        {L"speed", L"factor", kReplay, L"the recorded pauses before answers divided by this (default 1; 0: none)"},
        {L"timeout", L"ms", kReplay, L"how much longer than in the recording the application may take (default 10000)"},
        {L"wait", L"ms", kReplay, L"how long the application may take to connect, or on a serial port to send "
                                  L"first (default 60000)"},
        {L"logdir", L"folder", kReplay, L"folder of the replay's own data log file (default: the library's log folder)"},
    };
    return options;
}

namespace {

const OptionSpec* FindOption(const ustring& name)
{
    for (const OptionSpec& option : CCommandLine::Options())
        if (name.compareNoCase(option.pszName) == 0)
            return &option;
    return nullptr;
}

// The name of an item written as an option ("-x", "/x", "--x"), or empty text.
ustring OptionName(const ustring& item)
{
    if (item.size() < 2 || (item[0] != L'-' && item[0] != L'/'))
        return ustring();
    return ustring(item.substr(item[0] == L'-' && item[1] == L'-' ? 2 : 1));
}

} // namespace

CCommandLine::CCommandLine(int argc, wchar_t** argv, wchar_t** envp) : m_Parser(nullptr, envp)
{
    CCommandLineParser::VariableMap options;
    for (int i = 1; i < argc; ++i)
    {
        const ustring item(argv[i]);
        // "-?" and "/?" ask for help as well.
        const ustring name = OptionName(item) == L"?" ? ustring(L"help") : OptionName(item);
        const OptionSpec* option = name.empty() ? nullptr : FindOption(name);
        if (option == nullptr)
        {
            // "/" also begins paths; only "-" items must be options.
            if (!name.empty() && item[0] == L'-')
                Fail(kExitUsage, L"unknown option \"%ls\"", item.c_str());
            if (m_strCommand.empty())
                m_strCommand = item;
            else
                m_vecFiles.push_back(item);
            continue;
        }
        ustring value;
        if (option->pszValue != nullptr)
        {
            if (i + 1 >= argc)
                Fail(kExitUsage, L"option \"%ls\" needs a value (%ls)", item.c_str(), option->pszValue);
            value = argv[++i];
        }
        options[ustring(option->pszName)] = value;
        m_vecGiven.push_back(option->pszName);
    }
    m_Parser.AppendParameters(CCommandLineParser::CommandLineParameter, options);
}

void CCommandLine::Validate(ECommand command, const wchar_t* commandName) const
{
    for (const ustring& name : m_vecGiven)
    {
        const OptionSpec* option = FindOption(name);
        if (option != nullptr && (option->nCommands & command) == 0)
            Fail(kExitUsage, L"option \"-%ls\" does not apply to %ls", name.c_str(), commandName);
    }
}

bool CCommandLine::Has(const wchar_t* name) const
{
    ustring value;
    return m_Parser.GetVariable(CCommandLineParser::CommandLineParameter, name, value, true);
}

bool CCommandLine::Get(const wchar_t* name, ustring& value) const
{
    // The parser clears its out-parameter first; a default must survive a missing option.
    ustring text;
    if (!m_Parser.GetVariable(CCommandLineParser::CommandLineParameter, name, text, true))
        return false;
    value.swap(text);
    return true;
}

bool CCommandLine::Get(const wchar_t* name, unsigned int& value, unsigned int minimum, unsigned int maximum) const
{
    ustring text;
    if (!Get(name, text))
        return false;
    unsigned int number = 0;
    m_Parser.GetVariable(CCommandLineParser::CommandLineParameter, name, number, true);
    // The parser reads any text as a number; only digits are one here.
    if (text.empty() || text.size() > 9 || text.find_first_not_of(L"0123456789") != std::wstring::npos || number < minimum ||
        number > maximum)
        Fail(kExitUsage, L"option \"-%ls\" takes a number from %u to %u, not \"%ls\"", name, minimum, maximum,
             text.c_str());
    value = number;
    return true;
}

bool CCommandLine::Get(const wchar_t* name, double& value, double minimum, double maximum) const
{
    ustring text;
    if (!Get(name, text))
        return false;
    // Digits with at most one point, read in the C locale: an option means the same on every
    // computer, and no exponents, infinities or hexadecimal forms slip through.
    const std::size_t point = text.find(L'.');
    const bool digits = !text.empty() && text.size() <= 16 && text != L"." &&
                        text.find_first_not_of(L"0123456789.") == std::wstring::npos &&
                        (point == std::wstring::npos || text.find(L'.', point + 1) == std::wstring::npos);
    const double number = digits ? std::wcstod(text.c_str(), nullptr) : -1.0;
    if (!digits || number < minimum || number > maximum)
        Fail(kExitUsage, L"option \"-%ls\" takes a number from %g to %g, not \"%ls\"", name, minimum, maximum,
             text.c_str());
    value = number;
    return true;
}

// ---------------------------------------------------------------- standard output

namespace {

// Writes UTF-8 to a handle; false when the reader has gone.
bool WriteAll(HANDLE handle, const std::string& bytes)
{
    std::size_t done = 0;
    while (done < bytes.size())
    {
        DWORD written = 0;
        const DWORD chunk = static_cast<DWORD>(std::min<std::size_t>(bytes.size() - done, 1u << 20));
        if (!::WriteFile(handle, bytes.data() + done, chunk, &written, nullptr) || written == 0)
            return false;
        done += written;
    }
    return true;
}

bool IsConsoleHandle(HANDLE handle)
{
    DWORD mode = 0;
    return handle != nullptr && handle != INVALID_HANDLE_VALUE && ::GetConsoleMode(handle, &mode);
}

void WriteConsoleText(HANDLE handle, const ustring& text)
{
    DWORD written = 0;
    ::WriteConsoleW(handle, text.c_str(), static_cast<DWORD>(text.size()), &written, nullptr);
}

} // namespace

CStdOut::CStdOut(bool plain)
    : m_hOut(::GetStdHandle(STD_OUTPUT_HANDLE)), m_bConsole(IsConsoleHandle(m_hOut)), m_bColour(false),
      m_bClosed(false), m_nAttributes(7)
{
    CONSOLE_SCREEN_BUFFER_INFO info;
    if (m_bConsole && ::GetConsoleScreenBufferInfo(m_hOut, &info))
    {
        m_nAttributes = info.wAttributes;
        m_bColour = !plain;
    }
}

CStdOut::~CStdOut()
{
    Flush();
}

void CStdOut::Write(const ustring& text, ConsoleFont::ETextColor colour)
{
    if (m_bClosed)
        return;
    if (!m_bConsole)
    {
        m_Buffer += ustring::WideCharToMultiByte(text, CP_UTF8);
        if (m_Buffer.size() >= (1u << 16))
            Flush();
        return;
    }
    if (m_bColour && colour != ConsoleFont::TextUnspecified)
    {
        // The colour over the window's own attributes, as the library's console composes them.
        const tavrin::ConsoleFontChain chain(ConsoleFont(ConsoleFont::InitDefault, m_nAttributes), ConsoleFont(colour));
        ::SetConsoleTextAttribute(m_hOut, chain.ComposeConsoleTextAttribute());
        WriteConsoleText(m_hOut, text);
        ::SetConsoleTextAttribute(m_hOut, m_nAttributes);
    }
    else
        WriteConsoleText(m_hOut, text);
}

void CStdOut::Flush()
{
    if (m_Buffer.empty())
        return;
    if (!m_bClosed && !WriteAll(m_hOut, m_Buffer))
        m_bClosed = true;
    m_Buffer.clear();
}

// ---------------------------------------------------------------- standard error

CStdErrConsole::CStdErrConsole() : m_hErr(::GetStdHandle(STD_ERROR_HANDLE)), m_bConsole(IsConsoleHandle(m_hErr))
{
}

void CStdErrConsole::Print(ESeverity severity, bool consoleOnly, const ustring& text, EOutput)
{
    tavrin::CLocker<tavrin::CCriticalSection> lock(&m_cs);
    if (consoleOnly && !m_bConsole)
        return;
    if (!m_bConsole)
    {
        WriteAll(m_hErr, ustring::WideCharToMultiByte(text, CP_UTF8));
        return;
    }
    CONSOLE_SCREEN_BUFFER_INFO info;
    const bool coloured = (severity == SeverityError || severity == SeverityWarning) &&
                          ::GetConsoleScreenBufferInfo(m_hErr, &info);
    if (coloured)
    {
        const tavrin::ConsoleFontChain chain(ConsoleFont(ConsoleFont::InitDefault, info.wAttributes),
                                             ConsoleFont(severity, false));
        ::SetConsoleTextAttribute(m_hErr, chain.ComposeConsoleTextAttribute());
    }
    WriteConsoleText(m_hErr, text);
    if (coloured)
        ::SetConsoleTextAttribute(m_hErr, info.wAttributes);
}

void CStdErrConsole::Print(const ConsoleFont&, ESeverity severity, bool consoleOnly, const ustring& text, EOutput output)
{
    Print(severity, consoleOnly, text, output);
}

void CStdErrConsole::Print(ESeverity severity, bool consoleOnly, wchar_t ch)
{
    Print(severity, consoleOnly, ustring(1u, ch));
}

void CStdErrConsole::Print(const ConsoleFont&, ESeverity severity, bool consoleOnly, wchar_t ch)
{
    Print(severity, consoleOnly, ustring(1u, ch));
}

void CStdErrConsole::VPrintF(ESeverity severity, bool consoleOnly, const wchar_t* format, va_list args)
{
    Print(severity, consoleOnly, ustring::vsprintf_stc(format, args));
}

void CStdErrConsole::VPrintF(const ConsoleFont&, ESeverity severity, bool consoleOnly, const wchar_t* format,
                             va_list args)
{
    Print(severity, consoleOnly, ustring::vsprintf_stc(format, args));
}

void CStdErrConsole::Warn(const wchar_t* format, ...)
{
    va_list args;
    va_start(args, format);
    const ustring text = ustring::vsprintf_stc(format, args);
    va_end(args);
    Print(SeverityWarning, false, L"tavrin-log: " + text + L"\r\n");
}

CStdErrConsole& ErrorConsole()
{
    static CStdErrConsole console;
    return console;
}

// ---------------------------------------------------------------- output files

COutputFile::COutputFile(const ustring& path)
    : m_strPath(path),
      m_strTemporary(ustring::sprintf_stc(L"%ls.%lu.partial", path.c_str(), ::GetCurrentProcessId())),
      m_bCommitted(false)
{
    try
    {
        m_File.Open(m_strTemporary, GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr,
                    tavrin::CFile::eLoggingModeOff, nullptr, false);
    }
    catch (const tavrin::CStdException& e)
    {
        Fail(kExitFailure, L"cannot write \"%ls\": %ls", path.c_str(), DescribeException(e).c_str());
    }
}

COutputFile::~COutputFile()
{
    if (m_bCommitted)
        return;
    try
    {
        if (m_File.IsCreated())
            m_File.Close();
        tavrin::CFile::DeleteFileW(m_strTemporary);
    }
    catch (const tavrin::CStdException&)
    {
    }
}

void COutputFile::Write(const void* data, std::size_t size)
{
    m_Buffer.append(static_cast<const char*>(data), size);
    if (m_Buffer.size() >= (1u << 20))
        FlushBuffer();
}

void COutputFile::FlushBuffer()
{
    std::size_t done = 0;
    try
    {
        while (done < m_Buffer.size())
        {
            unsigned int written = 0;
            const unsigned int chunk = static_cast<unsigned int>(std::min<std::size_t>(m_Buffer.size() - done, 1u << 24));
            m_File.Write(m_Buffer.data() + done, chunk, written);
            if (written == 0)
                throw tavrin::CWinException(__LINE__, TAVRIN_WFILE, L"WriteFile", ERROR_WRITE_FAULT);
            done += written;
        }
    }
    catch (const tavrin::CStdException& e)
    {
        Fail(kExitFailure, L"cannot write \"%ls\": %ls", m_strPath.c_str(), DescribeException(e).c_str());
    }
    m_Buffer.clear();
}

void COutputFile::Commit()
{
    FlushBuffer();
    try
    {
        m_File.Close();
        if (!::MoveFileExW(tavrin::CFile::OptAddFileNamePrefix(m_strTemporary),
                           tavrin::CFile::OptAddFileNamePrefix(m_strPath), MOVEFILE_REPLACE_EXISTING))
            throw tavrin::CWinException(__LINE__, TAVRIN_WFILE, L"MoveFileExW", static_cast<long>(::GetLastError()));
    }
    catch (const tavrin::CStdException& e)
    {
        Fail(kExitFailure, L"cannot write \"%ls\": %ls", m_strPath.c_str(), DescribeException(e).c_str());
    }
    m_bCommitted = true;
}

// ---------------------------------------------------------------- text forms of records

ustring FormatTime(const SYSTEMTIME& t)
{
    return ustring::sprintf_stc(L"%04u-%02u-%02u %02u:%02u:%02u.%03u", t.wYear, t.wMonth, t.wDay, t.wHour, t.wMinute,
                                t.wSecond, t.wMilliseconds);
}

namespace {

const wchar_t* const kControlNames[32] = {L"NUL", L"SOH", L"STX", L"ETX", L"EOT", L"ENQ", L"ACK", L"BEL",
                                          L"BS",  L"HT",  L"LF",  L"VT",  L"FF",  L"CR",  L"SO",  L"SI",
                                          L"DLE", L"DC1", L"DC2", L"DC3", L"DC4", L"NAK", L"SYN", L"ETB",
                                          L"CAN", L"EM",  L"SUB", L"ESC", L"FS",  L"GS",  L"RS",  L"US"};

void AppendNamed(ustring& out, unsigned int code)
{
    out += L'<';
    if (code < 32)
        out += kControlNames[code];
    else if (code == 0x7F)
        out += L"DEL";
    else
        out += ustring::sprintf_stc(L"%02X", code);
    out += L'>';
}

} // namespace

ustring NameControls(const std::vector<unsigned char>& data)
{
    ustring out;
    out.reserve(data.size());
    for (unsigned char byte : data)
    {
        if (byte >= 0x20 && byte < 0x7F)
            out += static_cast<wchar_t>(byte);
        else
            AppendNamed(out, byte);
    }
    return out;
}

ustring NameControls(const ustring& text)
{
    ustring out;
    out.reserve(text.size());
    for (wchar_t ch : text)
    {
        if (ch < 0x20 || ch == 0x7F)
            AppendNamed(out, ch);
        else
            out += ch;
    }
    return out;
}

const wchar_t* KindName(unsigned int kind)
{
    switch (kind)
    {
    case LogRecord::eText:
        return L"text";
    case LogRecord::eWrite:
        return L"write";
    case LogRecord::eRead:
        return L"read";
    case LogRecord::eWriteError:
        return L"error";
    default:
        return L"damaged";
    }
}

} // namespace tavrinlog
