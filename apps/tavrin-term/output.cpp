#include "output.h"

#include <tavrin/core/file.h>

#include <fcntl.h>
#include <io.h>

#include <cstdio>

using namespace tavrin;

namespace term {

namespace {

// CConsole writes its style changes to the C runtime's standard output (and its text to standard
// error). Where no style may appear (plain UTF-8 output, no colours), that stream is pointed at
// NUL; plain text goes to a private duplicate of the real standard output, taken first.
HANDLE DivertRuntimeStdout(bool keepDuplicate)
{
    HANDLE duplicate = INVALID_HANDLE_VALUE;
    const HANDLE out = ::GetStdHandle(STD_OUTPUT_HANDLE);
    if (keepDuplicate && out != nullptr && out != INVALID_HANDLE_VALUE)
        ::DuplicateHandle(::GetCurrentProcess(), out, ::GetCurrentProcess(), &duplicate, 0, FALSE, DUPLICATE_SAME_ACCESS);
    std::fflush(stdout);
    const int nul = ::_wopen(L"NUL", _O_WRONLY | _O_BINARY);
    if (nul >= 0)
    {
        ::_dup2(nul, 1);
        ::_close(nul);
    }
    return duplicate;
}

void WriteUtf8(HANDLE handle, const ustring& text)
{
    if (handle == INVALID_HANDLE_VALUE || text.empty())
        return;
    const std::string utf8 = ustring::WideCharToMultiByte(text, CP_UTF8, 0);
    DWORD written = 0;
    ::WriteFile(handle, utf8.data(), static_cast<DWORD>(utf8.size()), &written, nullptr);
}

// Forwards the library's reporters (CStdException::ReportErrorConsole) to the console without
// the Markdown copy: in the report, failures are rows of the transcript, where lines stay lines.
class CConsoleOnly : public CConsoleBase
{
public:
    explicit CConsoleOnly(CConsole& console) : m_Console(console) {}

    void Print(ESeverity severity, bool consoleOnly, const ustring& text, EOutput) override
    {
        m_Console.Print(severity, consoleOnly, text, OutputConsole);
    }
    void Print(const ConsoleFont& font, ESeverity severity, bool consoleOnly, const ustring& text, EOutput) override
    {
        m_Console.Print(font, severity, consoleOnly, text, OutputConsole);
    }
    void Print(ESeverity severity, bool consoleOnly, wchar_t ch) override
    {
        m_Console.Print(severity, consoleOnly, ustring(1u, ch), OutputConsole);
    }
    void Print(const ConsoleFont& font, ESeverity severity, bool consoleOnly, wchar_t ch) override
    {
        m_Console.Print(font, severity, consoleOnly, ustring(1u, ch), OutputConsole);
    }
    void VPrintF(ESeverity severity, bool consoleOnly, const wchar_t* format, va_list args) override
    {
        m_Console.Print(severity, consoleOnly, ustring::vsprintf_stc(format, args), OutputConsole);
    }
    void VPrintF(const ConsoleFont& font, ESeverity severity, bool consoleOnly, const wchar_t* format,
                 va_list args) override
    {
        m_Console.Print(font, severity, consoleOnly, ustring::vsprintf_stc(format, args), OutputConsole);
    }
    CCriticalSection& CriticalSection() override { return m_Console.CriticalSection(); }

private:
    CConsole& m_Console;
};

ConsoleFont MarkFont(EMark mark)
{
    switch (mark)
    {
    case MarkSent: return ConsoleFont(ConsoleFont::TextLightCyan);
    case MarkReceived: return ConsoleFont(ConsoleFont::TextLightGreen);
    default: return ConsoleFont();
    }
}

} // namespace

CTermConsole::CTermConsole(EStyle style, HANDLE plainOut, ustring& capture, ustring& markdown)
    : CConsole(false, capture, markdown), m_eStyle(style), m_hPlainOut(plainOut)
{
}

CTermConsole::~CTermConsole() = default;

bool CTermConsole::ApplyFont(const ConsoleFont& font)
{
    if (m_eStyle != StyleColor)
        return true;
    if (IsConsole())
        return CConsole::ApplyFont(font);
    // A redirected stream ends on a terminal whose background the console cannot know: only the
    // colours that the text asks for are set, on the terminal's own background and weight.
    CLocker<CCriticalSection> lock(&CriticalSection());
    ConsoleFont base(ConsoleFont::InitEmpty);
    base.m_eBold = ConsoleFont::BoldNormal;
    const ustring sequence = ConsoleFontChain(base, font).ComposeEscapeSequence(true);
    std::fputws(sequence.c_str(), stdout);
    std::fflush(stdout);
    return true;
}

void CTermConsole::PrintToConsole(const ConsoleFont& font, ESeverity severity, bool consoleOnly, const ustring& text,
                                  EOutput output)
{
    if (m_eStyle != StylePlain)
    {
        CConsole::PrintToConsole(font, severity, consoleOnly, text, output);
        return;
    }
    CLocker<CCriticalSection> lock(&CriticalSection());
    if (output != OutputMarkdown && !consoleOnly)
        WriteUtf8(m_hPlainOut, text);
    if (output != OutputConsole)
        SaveToMarkdown(font, severity, text);
}

ustring FormatTime(const CSystemTime& time)
{
    return ustring::sprintf_stc(L"%02u:%02u:%02u.%03u", time.wHour, time.wMinute, time.wSecond, time.wMilliseconds);
}

CTermOutput::CTermOutput(const Options& options)
    : m_hPlainOut(INVALID_HANDLE_VALUE), m_Transcript(true, CTable::BorderSingle),
      m_nTranscriptOmitted(0), m_bTimestamps(options.bTimestamps)
{
    CTermConsole::EStyle style = CTermConsole::StyleColor;
    if (options.bPlain)
        style = CTermConsole::StylePlain;
    else if (options.eColor == Options::ColorNever)
        style = CTermConsole::StyleMono;
    if (style != CTermConsole::StyleColor)
        m_hPlainOut = DivertRuntimeStdout(style == CTermConsole::StylePlain);
    m_pConsole.reset(new CTermConsole(style, m_hPlainOut, m_strCapture, m_strMarkdown));
    StartTranscript();
}

void CTermOutput::StartTranscript()
{
    m_Transcript.Clear();
    m_nTranscriptOmitted = 0;
    m_Transcript.InsertRow(std::vector<ustring>{Tr(L"time"), Tr(L"way"), Tr(L"data or event")});
}

CTermOutput::~CTermOutput()
{
    m_pConsole.reset();
    if (m_hPlainOut != INVALID_HANDLE_VALUE)
        ::CloseHandle(m_hPlainOut);
}

CTable::EBorderStyle CTermOutput::TableStyle() const
{
    return Plain() ? CTable::BorderAscii : CTable::BorderSingle;
}

const wchar_t* CTermOutput::MarkText(EMark mark)
{
    switch (mark)
    {
    case MarkSent: return L"TX";
    case MarkReceived: return L"RX";
    case MarkInfo: return L"--";
    default: return L"!!";
    }
}

void CTermOutput::AddTranscriptRow(EMark mark, const CSystemTime& time, const ustring& text)
{
    // The console keeps a copy of everything printed in the capture string; nothing here reads
    // it, and a long session must not grow it without end.
    {
        CLocker<CCriticalSection> lock(&m_pConsole->CriticalSection());
        m_strCapture.clear();
    }
    if (m_Transcript.GetNumberOfRows() > kMaxTranscriptRows)
    {
        ++m_nTranscriptOmitted;
        return;
    }
    // Cells are literal: "<CR>" must not become an HTML tag of the rendered report.
    m_Transcript.InsertRow(std::vector<ustring>{FormatTime(time), MarkText(mark), MarkdownLiteral(text)});
}

void CTermOutput::Message(CConsoleBase::ESeverity severity, const ustring& text)
{
    const CSystemTime now = CSystemTime::GetLocalTime();
    const EMark mark = severity == CConsoleBase::SeverityError || severity == CConsoleBase::SeverityWarning ? MarkError : MarkInfo;
    ustring line;
    if (m_bTimestamps)
        line = FormatTime(now) + L" ";
    line += MarkText(mark);
    line += L" " + text + L"\r\n";
    m_pConsole->Print(severity, false, line, CConsoleBase::OutputConsole);
    AddTranscriptRow(mark, now, text);
}

void CTermOutput::Note(const ustring& text)
{
    m_pConsole->Print(CConsoleBase::SeverityInfo, false, text + L"\r\n", CConsoleBase::OutputConsole);
}

void CTermOutput::Traffic(EMark mark, const CSystemTime& time, const ustring& text, const std::vector<ustring>& detail)
{
    ustring prefix;
    if (m_bTimestamps)
        prefix = FormatTime(time) + L" ";
    prefix += MarkText(mark);
    ustring block;
    if (!text.empty())
        block += prefix + L" " + text + L"\r\n";
    for (const ustring& line : detail)
        block += prefix + L" " + line + L"\r\n";
    {
        // One block: lines of the two directions never interleave.
        CLocker<CCriticalSection> lock(&m_pConsole->CriticalSection());
        m_pConsole->Print(MarkFont(mark), CConsoleBase::SeverityInfo, false, block, CConsoleBase::OutputConsole);
    }
    ustring cell(text);
    for (const ustring& line : detail)
        cell += (cell.empty() ? L"" : L"\n") + line;
    AddTranscriptRow(mark, time, cell);
}

void CTermOutput::Failure(const CStdException& e, const wchar_t* file, unsigned int line, const ustring& hint)
{
    const CStdException::CExInfo info(e);
    ustring message(info.GetErrorMessage());
    message.trim({L' ', L'\r', L'\n', L'.'});
    AddTranscriptRow(MarkError, CSystemTime::GetLocalTime(),
                     message + L" (" + info.GetFunction() + L", " + info.GetErrorCodeStr() + L")");
    CConsoleOnly console(*m_pConsole);
    e.ReportErrorConsole(console, file, line);
    Message(CConsoleBase::SeverityWarning, hint);
}

void CTermOutput::Table(const CTable& table, bool toReport, bool header)
{
    m_pConsole->Print(CConsoleBase::SeverityInfo, false, table, ustring(), CConsoleBase::OutputConsole);
    if (!toReport)
        return;
    // The report's copy holds its cells literally: a step such as -expect "<OK>" stays text.
    CTable literal(header, CTable::BorderSingle, table.GetCaption());
    for (unsigned int row = 0; row < table.GetNumberOfRows(); ++row)
    {
        std::vector<TableItem> items = table.GetRow(row);
        for (TableItem& item : items)
            item.m_strText = MarkdownLiteral(item.m_strText);
        literal.InsertRow(items);
    }
    m_pConsole->Print(CConsoleBase::SeverityInfo, false, literal, ustring(), CConsoleBase::OutputMarkdown);
}

void CTermOutput::ReportHeading(const ustring& text, ConsoleFont::EBold level)
{
    m_pConsole->Print(ConsoleFont::BoldFont(level), CConsoleBase::SeverityInfo, false, text + L"\r\n",
                      CConsoleBase::OutputMarkdown);
}

void CTermOutput::PrintTranscriptToReport()
{
    if (m_nTranscriptOmitted > 0)
        m_Transcript.InsertRow(std::vector<ustring>{L"", L"--", TrF(L"%u more lines: the data log file has them all", m_nTranscriptOmitted)});
    ReportHeading(Tr(L"Transcript"), ConsoleFont::BoldHeading3);
    m_pConsole->Print(CConsoleBase::SeverityInfo, false, m_Transcript, ustring(), CConsoleBase::OutputMarkdown);
}

bool CTermOutput::WriteReport(const ustring& path, ustring& error)
{
    m_pConsole->Flush();
    const std::string utf8 = ustring::WideCharToMultiByte(m_strMarkdown, CP_UTF8, 0);
    try
    {
        CFile report(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
        unsigned int written = 0;
        if (!utf8.empty())
            report.Write(utf8.data(), static_cast<unsigned int>(utf8.size()), written);
        if (written != utf8.size())
        {
            error = Tr(L"the disk took only part of it");
            return false;
        }
        return true;
    }
    catch (const CStdException& e)
    {
        e.GetErrorMessage(error);
        error.trim({L' ', L'\r', L'\n'});
        return false;
    }
}

} // namespace term
