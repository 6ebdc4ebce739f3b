// CConsole: severities, fonts, the plain-text capture and the Markdown copy of console output.
#include <tavrin/log/console.h>

#include "log/console_markdown.h"
#include "log/console_style.h"

#include <fcntl.h>
#include <io.h>

#include <algorithm>
#include <cstdio>
#include <cwchar>

namespace tavrin {

namespace {

const wchar_t kNoBreakSpace = L'\x00A0';

inline bool IsBlankUnit(wchar_t ch)
{
    return ch == L' ' || ch == L'\t';
}

// A light background asks for darker severity colours.
bool IsLightBackground(ConsoleFont::EBkColor background)
{
    return background == ConsoleFont::BkLightGray ||
           (background > ConsoleFont::BkDarkGray && (background & 0x80) != 0);
}

// Heading level of a weight: 0 none, 3 "###", 2 "##", 1 "#", and -1 for the ruled title.
int HeadingLevel(ConsoleFont::EBold bold)
{
    if (bold >= ConsoleFont::BoldTitle)
        return -1;
    switch (bold)
    {
    case ConsoleFont::BoldHeading3:
        return 3;
    case ConsoleFont::BoldHeading2:
        return 2;
    case ConsoleFont::BoldHeading1:
        return 1;
    default:
        return 0;
    }
}

// Orders heading levels by strength: none < ### < ## < # < ruled title.
int HeadingStrength(int level)
{
    return level == -1 ? 4 : (level == 0 ? 0 : 4 - level);
}

// Writes text to a stream and flushes it; the stream's UTF-16 text mode turns each "\n" into
// "\r\n" itself, so carriage returns are left out. The text ends at its first NUL, as the stream
// functions read it.
void WriteStream(FILE* stream, const wchar_t* text)
{
    const wchar_t* const end = text + std::wcslen(text);
    if (std::find(text, end, L'\r') == end)
    {
        if (text != end)
            std::fputws(text, stream);
    }
    else
    {
        wchar_t chunk[256];
        std::size_t used = 0;
        for (const wchar_t* p = text; p != end; ++p)
        {
            if (*p == L'\r')
                continue;
            chunk[used++] = *p;
            if (used == sizeof(chunk) / sizeof(chunk[0]) - 1)
            {
                chunk[used] = L'\0';
                std::fputws(chunk, stream);
                used = 0;
            }
        }
        chunk[used] = L'\0';
        if (used != 0)
            std::fputws(chunk, stream);
    }
    std::fflush(stream);
}

// One piece of Markdown text in one font: a run of buffered pieces whose fonts were equal.
// Carriage returns in it count for nothing.
struct MarkdownRun
{
    const ConsoleFont* font;
    const wchar_t* text;
    std::size_t length;
};

// A position in a sequence of runs.
struct RunPosition
{
    std::size_t run;
    std::size_t offset;
};

// Calls f(font, text, length) for every piece of the runs between two positions that holds more
// than carriage returns.
template <class F>
void ForEachPiece(const MarkdownRun* runs, RunPosition from, RunPosition to, F f)
{
    for (std::size_t r = from.run; r <= to.run; ++r)
    {
        const wchar_t* const begin = runs[r].text + (r == from.run ? from.offset : 0);
        const wchar_t* const end = runs[r].text + (r == to.run ? to.offset : runs[r].length);
        if (std::find_if(begin, end, [](wchar_t ch) { return ch != L'\r'; }) != end)
            f(*runs[r].font, begin, static_cast<std::size_t>(end - begin));
    }
}

// One Markdown line from the pieces between two positions: the strongest heading among its
// non-blank pieces decides its form; a blank line is a no-break space, so that Markdown keeps it.
void RenderMarkdownLine(ustring& out, const MarkdownRun* runs, RunPosition from, RunPosition to)
{
    int level = 0;
    bool blank = true;
    ForEachPiece(runs, from, to, [&](const ConsoleFont& font, const wchar_t* text, std::size_t length) {
        if (std::find_if(text, text + length, [](wchar_t ch) { return ch != L'\r' && !IsBlankUnit(ch); }) ==
            text + length)
            return;
        blank = false;
        if (HeadingStrength(HeadingLevel(font.m_eBold)) > HeadingStrength(level))
            level = HeadingLevel(font.m_eBold);
    });
    if (blank)
    {
        out += kNoBreakSpace;
        out += L"\r\n";
        return;
    }
    if (level == -1)
        out += L"***\r\n# ";
    else if (level > 0)
        out.append(static_cast<std::size_t>(level), L'#').append(1, L' ');
    const std::size_t body = out.size();
    ForEachPiece(runs, from, to, [&](const ConsoleFont& font, const wchar_t* text, std::size_t length) {
        if (std::find(text, text + length, L'\r') == text + length)
        {
            detail::AppendDecoratedMarkdown(out, text, length, font, level != 0);
            return;
        }
        std::wstring plain(text, length);
        plain.erase(std::remove(plain.begin(), plain.end(), L'\r'), plain.end());
        detail::AppendDecoratedMarkdown(out, plain.data(), plain.size(), font, level != 0);
    });
    if (level != 0)
    {
        // The heading's text is trimmed of spaces between its marks.
        while (out.size() > body && out.back() == L' ')
            out.pop_back();
        out.erase(body, out.find_first_not_of(L' ', body) - body);
    }
    if (level == -1)
        out += L" #\r\n***\r\n";
    else if (level > 0)
        out.append(1, L' ').append(static_cast<std::size_t>(level), L'#').append(L"\r\n");
    else
        out += L"\r\n";
}

// Renders runs (adjacent runs differ in font) as Markdown lines: every line feed ends a line,
// and text after the last one makes a last line.
void RenderMarkdown(ustring& out, const MarkdownRun* runs, std::size_t count)
{
    RunPosition start{0, 0};
    for (std::size_t r = 0; r < count; ++r)
    {
        const wchar_t* const text = runs[r].text;
        for (const wchar_t* p = text + (r == start.run ? start.offset : 0); p != text + runs[r].length; ++p)
        {
            if (*p != L'\n')
                continue;
            const RunPosition stop{r, static_cast<std::size_t>(p - text)};
            RenderMarkdownLine(out, runs, start, stop);
            start = RunPosition{r, stop.offset + 1};
        }
    }
    const RunPosition end{count - 1, runs[count - 1].length};
    bool open = false;
    ForEachPiece(runs, start, end, [&](const ConsoleFont&, const wchar_t*, std::size_t) { open = true; });
    if (open)
        RenderMarkdownLine(out, runs, start, end);
}

} // namespace

// ------------------------------------------------------------------------------- Markdown helpers

void detail::AppendDecoratedMarkdown(ustring& out, const wchar_t* text, std::size_t length, const ConsoleFont& font,
                                     bool boldImplied)
{
    const wchar_t* const end = text + length;
    const wchar_t* const first = std::find_if(text, end, [](wchar_t ch) { return !IsBlankUnit(ch); });
    if (first == end)
    {
        out.append(text, length);
        return;
    }
    const wchar_t* last = end;
    while (IsBlankUnit(last[-1]))
        --last;
    const bool bold = !boldImplied && font.m_eBold >= ConsoleFont::Bold;
    const bool italic = font.m_eItalic == ConsoleFont::TriOn;
    out.append(text, first);
    if (italic)
        out += L'_';
    if (bold)
        out += L"__";
    for (const wchar_t* p = first; p != last; ++p)
    {
        if (*p == L'*' || *p == L'\\' || *p == L'_')
            out += L'\\';
        out += *p;
    }
    if (bold)
        out += L"__";
    if (italic)
        out += L'_';
    out.append(last, end);
}

bool detail::IsMarkdownSeverity(CConsoleBase::ESeverity severity)
{
    return severity == CConsoleBase::SeverityInfo || severity == CConsoleBase::SeverityError ||
           severity == CConsoleBase::SeverityWarning;
}

// ------------------------------------------------------------------------------- CConsoleBase

CConsoleBase::~CConsoleBase() = default;

void CConsoleBase::PrintF(ESeverity severity, bool consoleOnly, const wchar_t* format, ...)
{
    va_list args;
    va_start(args, format);
    VPrintF(severity, consoleOnly, format, args);
    va_end(args);
}

void CConsoleBase::PrintF(const ConsoleFont& font, ESeverity severity, bool consoleOnly, const wchar_t* format, ...)
{
    va_list args;
    va_start(args, format);
    VPrintF(font, severity, consoleOnly, format, args);
    va_end(args);
}

const wchar_t* CConsoleBase::GetSeverityPrefix(ESeverity severity)
{
    switch (severity)
    {
    case SeverityError:
        return L"Error: ";
    case SeverityWarning:
        return L"Warning: ";
    case SeverityDebug:
        return L"Debug: ";
    default:
        return L"";
    }
}

// ------------------------------------------------------------------------------- CConsole

CConsole::CConsole(bool useEscapeSequences, ustring& capture, ustring& markdown)
    : m_hStdOut(INVALID_HANDLE_VALUE),
      m_bNotConsole(false),
      m_bUseEscapeSequences(useEscapeSequences),
      m_strCapture(capture),
      m_strMarkdown(markdown),
      m_DefaultFont(ConsoleFont::InitDefault, false),
      m_CurrentFont(ConsoleFont::InitEmpty, false),
      m_bTeamCity(::GetEnvironmentVariableW(L"TEAMCITY_VERSION", nullptr, 0) > 0)
{
    // UTF-16 text mode: wide text reaches the stream unconverted and "\n" becomes "\r\n".
    ::_setmode(::_fileno(stdout), _O_U16TEXT);
    ::_setmode(::_fileno(stderr), _O_U16TEXT);

    m_hStdOut = ::GetStdHandle(STD_OUTPUT_HANDLE);
    CONSOLE_SCREEN_BUFFER_INFO info;
    if (m_hStdOut != INVALID_HANDLE_VALUE && m_hStdOut != nullptr)
    {
        ::SetConsoleMode(m_hStdOut, ENABLE_PROCESSED_OUTPUT | ENABLE_VIRTUAL_TERMINAL_PROCESSING);
        if (::GetConsoleScreenBufferInfo(m_hStdOut, &info))
            m_DefaultFont = ConsoleFont(ConsoleFont::InitDefault, info.wAttributes);
        else
            m_bNotConsole = true;
    }
    else
    {
        m_bNotConsole = true;
    }
    if (m_bNotConsole)
    {
        // A redirected stream cannot take console attributes; a report is mostly read on white.
        m_bUseEscapeSequences = true;
        m_DefaultFont = ConsoleFont(ConsoleFont::InitDefault, true);
    }
    RestoreDefaults();
}

CConsole::~CConsole()
{
    try
    {
        CLocker<CCriticalSection> lock(&m_CriticalSection);
        FlushMarkdownBuffer();
        // Hand the stream back in the terminal's own style rather than in the assumed default.
        if (m_bUseEscapeSequences)
            WriteStream(stdout, L"\x1b[0m");
        else
            RestoreDefaults();
    }
    catch (...)
    {
    }
}

CCriticalSection& CConsole::CriticalSection()
{
    return m_CriticalSection;
}

ConsoleFontChain CConsole::CreateConsoleFontChain(const ConsoleFont& font) const
{
    CLocker<CCriticalSection> lock(&m_CriticalSection);
    return ConsoleFontChain(m_DefaultFont, font);
}

ConsoleFont CConsole::ComposeFont(const ConsoleFont& font, ESeverity severity) const
{
    CLocker<CCriticalSection> lock(&m_CriticalSection);
    // The severity's colour wins over the caller's: an error stays red whatever the style.
    ConsoleFont composed(font);
    detail::OverlayFont(composed, ConsoleFont(severity, IsLightBackground(m_DefaultFont.m_eBkColor)));
    return composed;
}

bool CConsole::ApplyFont(const ConsoleFont& font)
{
    CLocker<CCriticalSection> lock(&m_CriticalSection);
    // The chain of CreateConsoleFontChain, unwound in place.
    ConsoleFont unwound(m_DefaultFont);
    detail::OverlayFont(unwound, font);
    if (m_bUseEscapeSequences)
    {
        // Flushed at once: the text goes to the other stream and must not overtake it.
        wchar_t sequence[detail::kEscapeSequenceRoom];
        detail::ComposeEscapeSequence(unwound, m_bNotConsole, sequence);
        WriteStream(stdout, sequence);
        return true;
    }
    return ::SetConsoleTextAttribute(m_hStdOut, detail::ComposeConsoleTextAttribute(unwound)) != FALSE;
}

void CConsole::SetCurrentFont(const ConsoleFont& font)
{
    CLocker<CCriticalSection> lock(&m_CriticalSection);
    m_CurrentFont = font;
}

ConsoleFont CConsole::GetCurrentFont() const
{
    CLocker<CCriticalSection> lock(&m_CriticalSection);
    return m_CurrentFont;
}

ConsoleFont CConsole::GetDefaultFont() const
{
    CLocker<CCriticalSection> lock(&m_CriticalSection);
    return m_DefaultFont;
}

bool CConsole::RestoreDefaults()
{
    return ApplyFont(GetDefaultFont());
}

unsigned short CConsole::GetConsoleCursorPositionX() const
{
    CONSOLE_SCREEN_BUFFER_INFO info;
    if (m_bNotConsole || !::GetConsoleScreenBufferInfo(m_hStdOut, &info))
        return 0;
    return static_cast<unsigned short>(info.dwCursorPosition.X);
}

void CConsole::Flush()
{
    CLocker<CCriticalSection> lock(&m_CriticalSection);
    FlushMarkdownBuffer();
}

bool CConsole::IsRunningUnderTeamCity() const
{
    return m_bTeamCity;
}

void CConsole::Print(const ConsoleFont& font, ESeverity severity, bool consoleOnly,
                     const CTextObject& object, const ustring& caption, EOutput output)
{
    CLocker<CCriticalSection> lock(&m_CriticalSection);
    const ConsoleFont composed = ComposeFont(font, severity);
    const ustring title = caption.empty() ? object.GetCaption() : caption;
    if (output != OutputMarkdown)
        object.PrintToConsole(*this, composed, severity, consoleOnly, title);
    if (output != OutputConsole && detail::IsMarkdownSeverity(severity))
    {
        FlushMarkdownBuffer();
        if (!title.empty())
            SaveToMarkdown(ConsoleFont::BoldFont(ConsoleFont::Bold), severity, title + L"\r\n");
        // Blank lines around the object: a table neither continues a paragraph nor swallows
        // the line after it.
        m_strMarkdown += L"\r\n";
        object.SaveToMarkdown(m_strMarkdown);
        m_strMarkdown += L"\r\n";
    }
}

void CConsole::Print(ESeverity severity, bool consoleOnly, const CTextObject& object,
                     const ustring& caption, EOutput output)
{
    Print(GetCurrentFont(), severity, consoleOnly, object, caption, output);
}

void CConsole::Print(const ConsoleFont& font, ESeverity severity, bool consoleOnly, const ustring& text,
                     EOutput output)
{
    PrintToConsole(ComposeFont(font, severity), severity, consoleOnly, text, output);
}

void CConsole::Print(ESeverity severity, bool consoleOnly, const ustring& text, EOutput output)
{
    Print(GetCurrentFont(), severity, consoleOnly, text, output);
}

void CConsole::Print(const ConsoleFont& font, ESeverity severity, bool consoleOnly, wchar_t ch)
{
    Print(font, severity, consoleOnly, ustring(1u, ch), OutputAll);
}

void CConsole::Print(ESeverity severity, bool consoleOnly, wchar_t ch)
{
    Print(GetCurrentFont(), severity, consoleOnly, ustring(1u, ch), OutputAll);
}

void CConsole::VPrintF(const ConsoleFont& font, ESeverity severity, bool consoleOnly,
                       const wchar_t* format, va_list args)
{
    Print(font, severity, consoleOnly, format != nullptr ? ustring::vsprintf_stc(format, args) : ustring(),
          OutputAll);
}

void CConsole::VPrintF(ESeverity severity, bool consoleOnly, const wchar_t* format, va_list args)
{
    VPrintF(GetCurrentFont(), severity, consoleOnly, format, args);
}

void CConsole::PrintToConsole(const ConsoleFont& font, ESeverity severity, bool consoleOnly,
                              const ustring& text, EOutput output)
{
    CLocker<CCriticalSection> lock(&m_CriticalSection);
    if (output != OutputMarkdown)
    {
        ApplyFont(font);
        if (!(consoleOnly && m_bNotConsole))
            WriteStream(stderr, text.c_str());
        m_strCapture += text;
    }
    if (output != OutputConsole)
        SaveToMarkdown(font, severity, text);
}

void CConsole::SaveToMarkdown(const ConsoleFont& font, ESeverity severity, const ustring& text)
{
    if (!detail::IsMarkdownSeverity(severity))
        return;
    CLocker<CCriticalSection> lock(&m_CriticalSection);
    if (text.find(L"\r\n") == std::wstring::npos)
    {
        if (!text.empty())
            m_aMarkdownBuffer.emplace_back(font, text);
        return;
    }
    if (m_aMarkdownBuffer.empty() && &text != &m_strMarkdown)
    {
        // The usual case, a whole line: rendered straight from the caller's text.
        const MarkdownRun run{&font, text.data(), text.size()};
        RenderMarkdown(m_strMarkdown, &run, 1);
        return;
    }
    m_aMarkdownBuffer.emplace_back(font, text);
    FlushMarkdownBuffer();
}

void CConsole::FlushMarkdownBuffer()
{
    CLocker<CCriticalSection> lock(&m_CriticalSection);
    if (m_aMarkdownBuffer.empty())
        return;
    // Adjacent pieces in one font are one run: merged in place.
    std::size_t count = 0;
    for (std::size_t i = 0; i < m_aMarkdownBuffer.size(); ++i)
    {
        if (count != 0 && m_aMarkdownBuffer[count - 1].first == m_aMarkdownBuffer[i].first)
        {
            m_aMarkdownBuffer[count - 1].second += m_aMarkdownBuffer[i].second;
            continue;
        }
        if (count != i)
            m_aMarkdownBuffer[count] = std::move(m_aMarkdownBuffer[i]);
        ++count;
    }
    std::vector<MarkdownRun> runs;
    runs.reserve(count);
    for (std::size_t i = 0; i < count; ++i)
        runs.push_back(MarkdownRun{&m_aMarkdownBuffer[i].first, m_aMarkdownBuffer[i].second.data(),
                                   m_aMarkdownBuffer[i].second.size()});
    RenderMarkdown(m_strMarkdown, runs.data(), runs.size());
    m_aMarkdownBuffer.clear();
}

} // namespace tavrin
