// tavrin-term: a console for devices on a serial port or TCP that logs every byte.
//
//   tavrin-term -port COM3 -baud 9600            interactive console on a serial port
//   tavrin-term -tcp 10.0.0.5:5000 -send "*IDN?\r\n" -expect "\r\n"   a scripted exchange
//   tavrin-term -listen 5000 -echo               an echo device for test benches
//   tavrin-term                                  the demonstration against a built-in device
//
// Every connection gets a data log file of the library (every call and every byte); the session
// ends with a summary, and -report writes it as Markdown. tavrin-term -help lists the options.
#include "options.h"
#include "output.h"
#include "session.h"
#include "text.h"

#include <tavrin/core/exception.h>
#include <tavrin/core/file.h>
#include <tavrin/log/logfile.h>
#include <tavrin/util/commandlineparser.h>

#include <algorithm>

using namespace tavrin;
using namespace term;

namespace {

// Signalled by Ctrl+C, Ctrl+Break and the closing of the console window: every wait of the
// session ends, the log files are completed and the report is written.
HANDLE g_hStop = nullptr;

BOOL WINAPI CtrlHandler(DWORD type)
{
    if (type == CTRL_C_EVENT || type == CTRL_BREAK_EVENT || type == CTRL_CLOSE_EVENT)
    {
        ::SetEvent(g_hStop);
        return TRUE;
    }
    return FALSE;
}

int ListPorts(CTermOutput& output)
{
    try
    {
        const std::vector<CCommPort::COMM_PORT_INFO> ports = CCommPort::EnumCommPorts();
        if (ports.empty())
        {
            output.Message(CConsoleBase::SeverityInfo, Tr(L"This machine publishes no serial ports."));
            return ExitOk;
        }
        CTable table(true, output.TableStyle(), Tr(L"Serial ports"));
        table.InsertRow(std::vector<ustring>{Tr(L"port"), Tr(L"open as"), Tr(L"device"), Tr(L"name")});
        for (const CCommPort::COMM_PORT_INFO& port : ports)
            table.InsertRow(std::vector<ustring>{port.strName, port.strPath, port.strDevice, port.strFriendlyName});
        output.Table(table, false);
        return ExitOk;
    }
    catch (const CStdException& e)
    {
        output.Failure(e, TAVRIN_WFILE, __LINE__, Tr(L"The system did not list its devices."));
        return ExitConnection;
    }
}

// The first lines of a data log file, as the user would see them on opening it.
void ShowLogExcerpt(CTermOutput& output, const ustring& path, unsigned int lines)
{
    std::string text;
    try
    {
        CFile file(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                   FILE_ATTRIBUTE_NORMAL, nullptr);
        text.resize(static_cast<size_t>(std::min<unsigned __int64>(file.GetLength(), 64 * 1024)));
        unsigned int got = 0;
        if (!text.empty())
            file.Read(&text[0], static_cast<unsigned int>(text.size()), got);
        text.resize(got);
    }
    catch (const CStdException& e)
    {
        output.Failure(e, TAVRIN_WFILE, __LINE__, Tr(L"The data log file could not be read back."));
        return;
    }
    std::vector<ustring> all;
    ustring::split(ustring::MultiByteToWideChar(text, CP_UTF8), L"\r\n", all, true);
    ustring excerpt;
    for (unsigned int i = 0; i < all.size() && i < lines; ++i)
        excerpt += L"    " + all[i] + L"\r\n";
    output.Note(TrF(L"The first %u lines of %ls:", std::min<unsigned int>(lines, static_cast<unsigned int>(all.size())), path.c_str()));
    output.Console().Print(ConsoleFont(ConsoleFont::TextDarkGray), CConsoleBase::SeverityInfo, false, excerpt,
                           CConsoleBase::OutputConsole);
}

// The conversation of the demonstration, written as the command line that does the same.
std::vector<ustring> DemoScript(const ustring& connection, const ustring& target)
{
    return {L"tavrin-term", connection, target,
            L"-send", L"Hello, device!\\r\\n", L"-expect", L"Hello, device!\\r\\n",
            L"-hex", L"02 41 42 43 03", L"-expect-hex", L"02 41 42 43 03",
            L"-send", L"Gr\u00fc\u00dfe aus Tavrin\\r\\n", L"-expect", L"Tavrin\\r\\n",
            L"-send", L"*IDN?\\r\\n", L"-expect", L"*IDN?\\r\\n",
            L"-timeout", L"5000"};
}

// One conversation with an echo device over `device` (its other end reached through
// `connection` `target`).
int RunDemoSession(const Options& base, CTermOutput& output, std::unique_ptr<CTransport> device,
                   const ustring& connection, const ustring& target)
{
    std::vector<ustring> script = DemoScript(connection, target);
    std::vector<wchar_t*> argv;
    ustring shown, line;
    for (ustring& item : script)
    {
        argv.push_back(&item[0]);
        // Quoted where a shell would read the item otherwise.
        const bool quote = item.find_first_not_of(L"abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-.:,@") != std::wstring::npos;
        const ustring word = quote ? L"\"" + item + L"\"" : item;
        // Short lines: a console window wraps long ones badly.
        if (!line.empty() && line.size() + word.size() > 64 && word[0] == L'-')
        {
            shown += line + L"\r\n       ";
            line.clear();
        }
        line += (line.empty() ? L"" : L" ") + word;
    }
    shown += line;
    argv.push_back(nullptr);
    wchar_t* envp[] = {nullptr};
    Options options;
    ustring error;
    if (!ParseOptions(static_cast<int>(script.size()), argv.data(), envp, options, error))
    {
        output.Message(CConsoleBase::SeverityError, error);
        return ExitUsage;
    }
    options.eView = base.eView;
    options.bTimestamps = base.bTimestamps;
    options.eLogDetail = base.eLogDetail;
    output.Message(CConsoleBase::SeverityInfo, TrF(L"The same as: %ls", shown.c_str()));

    CEchoDevice echo(std::move(device));
    echo.Start();
    CSession session(options, output, g_hStop);
    const int code = session.Run();
    echo.Stop();
    if (!session.LogFiles().empty())
        ShowLogExcerpt(output, session.LogFiles().front(), 20);
    return code;
}

int RunDemo(const Options& options, CTermOutput& output)
{
    output.Console().Print(ConsoleFont::BoldFont(ConsoleFont::Bold), CConsoleBase::SeverityInfo, false,
                           Tr(L"Demonstration: tavrin-term talks to an echo device inside this program.") + L"\r\n" +
                               Tr(L"The library records every byte and call in a data log file.") + L"\r\n",
                           CConsoleBase::OutputConsole);
    int worst = ExitOk;
    {
        std::unique_ptr<CTcpTransport> device(new CTcpTransport(L"127.0.0.1:0", true));
        ustring address;
        try
        {
            device->ListeningAddress().AddressToStringEx(address);
        }
        catch (const CStdException& e)
        {
            output.Failure(e, TAVRIN_WFILE, __LINE__, Tr(L"The echo device could not listen on 127.0.0.1."));
            return ExitConnection;
        }
        output.Message(CConsoleBase::SeverityInfo, TrF(L"Echo device listening on %ls", address.c_str()));
        worst = RunDemoSession(options, output, std::move(device), L"-tcp", address);
    }
    if (!options.strDemoSerial.empty() && ::WaitForSingleObject(g_hStop, 0) != WAIT_OBJECT_0)
    {
        // TAVRIN_TERM_SERIAL_PAIR="COM5,COM6": the two ends of a null-modem pair; the echo
        // device answers on the second.
        std::vector<ustring> ports;
        ustring::split(options.strDemoSerial, L',', ports);
        if (ports.size() != 2)
        {
            output.Message(CConsoleBase::SeverityError,
                           TrF(L"TAVRIN_TERM_SERIAL_PAIR must name two ports, such as COM5,COM6; it is \"%ls\"", options.strDemoSerial.c_str()));
            return std::max(worst, static_cast<int>(ExitUsage));
        }
        for (ustring& port : ports)
            port.trim();
        output.Message(CConsoleBase::SeverityInfo, TrF(L"Echo device on %ls, tavrin-term on %ls", ports[1].c_str(), ports[0].c_str()));
        std::unique_ptr<CTransport> device(new CSerialTransport(ports[1], options));
        const int code = RunDemoSession(options, output, std::move(device), L"-port", ports[0]);
        worst = std::max(worst, code);
    }
    return worst;
}

} // namespace

int wmain(int argc, wchar_t** argv, wchar_t** envp)
{
    CStdException::SetAppName(L"tavrin-term");
    // The language comes first: every message, those about the command line included, is translated.
    ustring language, languagePath;
    CCommandLineParser(argv, envp).GetVariable(CCommandLineParser::CommandLineParameter, L"lang", language);
    const bool languageLoaded = LoadLanguage(language, languagePath);

    Options options;
    ustring error;
    const bool parsed = ParseOptions(argc, argv, envp, options, error);
    if (!parsed)
    {
        // A command line that cannot be read still says how its errors should look.
        const CCommandLineParser parser(argv, envp);
        bool flag = false;
        options.bPlain = parser.GetVariable(CCommandLineParser::CommandLineParameter, L"plain", flag, true);
        ustring ignored;
        if (parser.GetVariable(CCommandLineParser::EnvironmentVariable, L"NO_COLOR", ignored))
            options.eColor = Options::ColorNever;
    }
    CTermOutput output(options);
    if (!languageLoaded)
        output.Message(CConsoleBase::SeverityWarning,
                       TrF(L"The language file %ls cannot be read; the texts stay in English.", languagePath.c_str()));
    if (!parsed)
    {
        output.Message(CConsoleBase::SeverityError, TrF(L"Command line: %ls", error.c_str()));
        output.Note(Tr(L"tavrin-term -help lists the options."));
        return ExitUsage;
    }
    if (options.bHelp)
    {
        PrintHelp(output.Console(), output.TableStyle());
        return ExitOk;
    }
    if (options.bList)
        return ListPorts(output);

    CEvent stop(nullptr, TRUE, FALSE, nullptr);
    g_hStop = stop;
    ::SetConsoleCtrlHandler(CtrlHandler, TRUE);

    CLogFileServer& server = CLogFileServer::Ref();
    if (!options.strLogFolder.empty())
        server.SetFolder(options.strLogFolder.c_str(), false);
    server.SetDetail(options.eLogDetail);
    if (options.eLogDetail != eLogFileDetailOff)
        output.Message(CConsoleBase::SeverityInfo, TrF(L"Data log files go to %ls", server.GetFolder().c_str()));

    output.ReportHeading(Tr(L"tavrin-term session"), ConsoleFont::BoldTitle);
    int code = ExitOk;
    try
    {
        if (options.bDemo)
        {
            code = RunDemo(options, output);
        }
        else
        {
            CSession session(options, output, g_hStop);
            code = session.Run();
        }
    }
    catch (const CStdException& e)
    {
        output.Failure(e, TAVRIN_WFILE, __LINE__, Tr(L"An unexpected failure ended the session."));
        code = ExitConnection;
    }

    ustring report = options.strReport;
    if (report.empty() && options.bDemo)
        CFile::MakePath(report, nullptr, server.GetFolder().c_str(), L"tavrin-term-demo", L".md");
    if (!report.empty())
    {
        if (output.WriteReport(report, error))
        {
            output.Message(CConsoleBase::SeverityInfo, TrF(L"Report written: %ls", report.c_str()));
        }
        else
        {
            output.Message(CConsoleBase::SeverityError, TrF(L"The report %ls was not written: %ls", report.c_str(), error.c_str()));
            if (code == ExitOk)
                code = ExitReport;
        }
    }
    ::SetConsoleCtrlHandler(CtrlHandler, FALSE);
    g_hStop = nullptr;
    return code;
}
