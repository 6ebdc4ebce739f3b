// Tavrin sample application: exercises the library end to end with no arguments needed.
//
//   tavrin_sample [-lcid <locale id>] [-report <file.md>] [-logdir <folder>] [-blocks <count>]
//
// It prints numbers in a chosen locale, classifies network addresses, solves a linear system,
// writes and reads a file through a logged channel (the data log file shows every call and
// byte), shows a failing call as an exception block, and saves a Markdown report of the run.
#include <tavrin/core/exception.h>
#include <tavrin/core/file.h>
#include <tavrin/core/ustring.h>
#include <tavrin/log/console.h>
#include <tavrin/log/logfile.h>
#include <tavrin/util/commandlineparser.h>
#include <tavrin/util/matrix.h>
#include <tavrin/util/network.h>
#include <tavrin/util/systemtime.h>

#include <vector>

using namespace tavrin;

namespace
{
struct Options
{
    unsigned long lcid = LOCALE_USER_DEFAULT;
    ustring report;
    ustring logFolder;
    unsigned int blocks = 64;
};

Options ParseOptions(const CCommandLineParser& parser)
{
    Options options;
    unsigned long lcid = 0;
    if (parser.GetVariable(CCommandLineParser::CommandLineParameter, L"lcid", lcid) && lcid != 0)
        options.lcid = lcid;
    parser.GetVariable(CCommandLineParser::CommandLineParameter, L"report", options.report);
    parser.GetVariable(CCommandLineParser::CommandLineParameter, L"logdir", options.logFolder);
    unsigned int blocks = 0;
    if (parser.GetVariable(CCommandLineParser::CommandLineParameter, L"blocks", blocks) && blocks > 0)
        options.blocks = blocks;

    ustring temp;
    CFile::GetTempPathW(temp);
    if (options.report.empty())
        options.report = temp + L"tavrin_sample_report.md";
    if (options.logFolder.empty())
        options.logFolder = temp + L"tavrin_sample_logs";
    return options;
}

void ShowNumbers(CConsole& console, const Options& options)
{
    const CLocale saved = ustring::m_Locale;
    ustring::m_Locale = CLocale(options.lcid);

    CTable table(true, CTable::BorderSingle, ustring::sprintf_stc(L"Numbers in locale 0x%lX", options.lcid));
    table.InsertRow(std::vector<ustring>{L"Value", L"Text", L"Parsed back"});
    const __int64 integers[] = {0, 1234567, -9876543210LL};
    for (__int64 value : integers)
    {
        const ustring text = ustring::i64toa(value);
        table.InsertRow(std::vector<ustring>{ustring::sprintf_stc(L"%I64d", value), text,
                                             ustring::sprintf_stc(L"%I64d", ustring::atoi64(text, 10))});
    }
    const double reals[] = {3.14159, -0.5, 1234.5};
    for (double value : reals)
    {
        const ustring text = ustring::fcvt(value, 2, false);
        table.InsertRow(std::vector<ustring>{ustring::sprintf_stc(L"%g", value), text,
                                             ustring::sprintf_stc(L"%g", ustring::strtod(text))});
    }
    ustring unit;
    const ustring size = ustring::BytesToStr(5u * 1024u * 1024u + 300u * 1024u, 1, unit);
    table.InsertRow(std::vector<ustring>{L"5,544,320 bytes", size + L" " + unit, L""});
    console.Print(CConsoleBase::SeverityInfo, false, table, ustring());

    ustring::m_Locale = saved;
}

void ShowAddresses(CConsole& console)
{
    static const wchar_t* const texts[] = {L"127.0.0.1", L"192.168.1.20", L"8.8.8.8", L"256.1.1.1",
                                           L"::1", L"fe80::1", L"00:1A:2b:3C:4d:5E"};
    static const wchar_t* const kinds[] = {L"invalid", L"private", L"public"};
    CTable table(true, CTable::BorderSingle, L"Network addresses");
    table.InsertRow(std::vector<ustring>{L"Text", L"IPv4", L"IPv6", L"MAC"});
    for (const wchar_t* text : texts)
    {
        const int v4 = ValidateIPv4(text), v6 = ValidateIPv6(text), mac = ValidateMAC(text);
        table.InsertRow(std::vector<ustring>{text, kinds[v4], kinds[v6], kinds[mac]});
    }
    console.Print(CConsoleBase::SeverityInfo, false, table, ustring());
}

void SolveSystem(CConsole& console)
{
    // 2x + y - z = 8, -3x - y + 2z = -11, -2x + y + 2z = -3  =>  x = 2, y = 3, z = -1
    matrix a(3, 3), b(3, 1);
    const double coefficients[3][3] = {{2, 1, -1}, {-3, -1, 2}, {-2, 1, 2}};
    const double constants[3] = {8, -11, -3};
    for (unsigned int i = 1; i <= 3; ++i)
    {
        for (unsigned int j = 1; j <= 3; ++j)
            a(i, j) = coefficients[i - 1][j - 1];
        b(i, 1) = constants[i - 1];
    }
    const matrix x = gauss(a, b);
    console.PrintF(CConsoleBase::SeverityInfo, false,
                   L"Linear system: det(A) = %ls, x = %ls, y = %ls, z = %ls\r\n",
                   ustring::fcvt(determinant(a), 3, true).c_str(), ustring::fcvt(x(1, 1), 3, true).c_str(),
                   ustring::fcvt(x(2, 1), 3, true).c_str(), ustring::fcvt(x(3, 1), 3, true).c_str());
}

// Writes `blocks` blocks through a logged channel and reads them back; returns the bytes verified.
unsigned long long LoggedFileRoundTrip(CConsole& console, const Options& options)
{
    CLogFileServer& server = CLogFileServer::Ref();
    server.SetFolder(options.logFolder, false);
    server.SetDetail(eLogFileDetailNormal);

    const ustring path = options.logFolder + L"\\sample_data.bin";
    CFile::CreateFolder(options.logFolder);
    std::vector<unsigned char> block(4096);
    CStopWatch watch;
    {
        CFile file(path, GENERIC_READ | GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr,
                   CFile::eLoggingModeOn);
        CConsoleProgress progress(console);
        for (unsigned int n = 0; n < options.blocks; ++n)
        {
            for (std::size_t i = 0; i < block.size(); ++i)
                block[i] = static_cast<unsigned char>((n * 31 + i) & 0xFF);
            unsigned int written = 0;
            file.Write(block.data(), static_cast<unsigned int>(block.size()), written);
            progress.UpdateProgress(n + 1, options.blocks);
        }
        file.Seek(0, FILE_BEGIN);
        unsigned long long verified = 0;
        for (unsigned int n = 0; n < options.blocks; ++n)
        {
            unsigned int read = 0;
            file.Read(block.data(), static_cast<unsigned int>(block.size()), read);
            for (unsigned int i = 0; i < read; ++i)
                if (block[i] == static_cast<unsigned char>((n * 31 + i) & 0xFF))
                    ++verified;
        }
        console.PrintF(CConsoleBase::SeverityInfo, false, L"Logged file: %ls bytes written and verified in %ls\r\n",
                       ustring::ui64toa(verified, false).c_str(),
                       watch.GetElapsedTime().FormatConsole(true).c_str());
        console.PrintF(CConsoleBase::SeverityInfo, false, L"Data log folder: %ls\r\n", server.GetFolder().c_str());
        return verified;
    }
}

void ShowCaughtException(CConsole& console, const Options& options)
{
    try
    {
        CFile missing(ustring(options.logFolder + L"\\no such folder\\missing.bin"), GENERIC_READ, FILE_SHARE_READ,
                      nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    }
    catch (const CStdException& e)
    {
        console.Print(CConsoleBase::SeverityWarning, false,
                      ustring(L"Opening a missing file failed as expected; the library reports:\r\n"));
        e.ReportErrorConsole(console, TAVRIN_WFILE, __LINE__);
    }
}

bool WriteReport(const ustring& path, const ustring& markdown)
{
    const std::string utf8 = ustring::WideCharToMultiByte(markdown, CP_UTF8, 0);
    try
    {
        CFile report(path, GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
        unsigned int written = 0;
        report.Write(utf8.data(), static_cast<unsigned int>(utf8.size()), written);
        return written == utf8.size();
    }
    catch (const CStdException&)
    {
        return false;
    }
}
} // namespace

int wmain(int argc, wchar_t** argv, wchar_t** envp)
{
    CStdException::SetAppName(L"Tavrin sample");
    const CCommandLineParser parser(argv, envp);
    const Options options = ParseOptions(parser);

    ustring capture, markdown;
    int exitCode = 0;
    {
        CConsole console(false, capture, markdown);
        console.PrintF(ConsoleFont::BoldFont(ConsoleFont::Bold), CConsoleBase::SeverityInfo, false,
                       L"Tavrin sample, %ls\r\n",
                       CSystemTime::GetLocalTime().Format(0x409, L"%Y-%m-%d %H:%M:%S").c_str());
        try
        {
            ShowNumbers(console, options);
            ShowAddresses(console);
            SolveSystem(console);
            const unsigned long long verified = LoggedFileRoundTrip(console, options);
            if (verified != 4096ull * options.blocks)
            {
                console.Print(CConsoleBase::SeverityError, false, ustring(L"Logged file round trip lost data\r\n"));
                exitCode = 1;
            }
            ShowCaughtException(console, options);
        }
        catch (const CStdException& e)
        {
            e.ReportErrorConsole(console, TAVRIN_WFILE, __LINE__);
            exitCode = 2;
        }
        console.Flush();
        const bool saved = WriteReport(options.report, markdown);
        console.PrintF(saved ? CConsoleBase::SeverityInfo : CConsoleBase::SeverityError, false,
                       L"Markdown report %ls: %ls\r\n", saved ? L"written" : L"NOT written", options.report.c_str());
        if (!saved)
            exitCode = 3;
    }
    return exitCode;
}
