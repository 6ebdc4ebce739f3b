// CConsole: severities, fonts, the plain-text capture and the Markdown copy of console output.
#include <tavrin/log/console.h>

#include "log/console_markdown.h"

#include <fcntl.h>
#include <io.h>

#include <algorithm>
#include <cstdio>

namespace tavrin {

namespace {

const wchar_t kNoBreakSpace = L'\x00A0';

bool IsBlank(const ustring& text)
{
    return text.find_first_not_of(L" \t") == std::wstring::npos;
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

void WriteStream(FILE* stream, const ustring& text)
{
    if (!text.empty())
        std::fputws(text.c_str(), stream);
    std::fflush(stream);
}

typedef std::vector<std::pair<ConsoleFont, ustring>> MarkdownLine;

ustring RenderMarkdownLine(const MarkdownLine& line)
{
    int level = 0;
    for (const auto& segment : line)
        if (!IsBlank(segment.second) && HeadingStrength(HeadingLevel(segment.first.m_eBold)) > HeadingStrength(level))
            level = HeadingLevel(segment.first.m_eBold);

    ustring body;
    for (const auto& segment : line)
        body += detail::DecorateMarkdown(segment.second, segment.first, level != 0);

    if (IsBlank(body))
        return ustring(1u, kNoBreakSpace) + L"\r\n";
    if (level == 0)
        return body + L"\r\n";
    body.trim();
    if (level == -1)
        return L"***\r\n# " + body + L" #\r\n***\r\n";
    const ustring marks(static_cast<unsigned int>(level), L'#');
    return marks + L' ' + body + L' ' + marks + L"\r\n";
}

} // namespace

// ------------------------------------------------------------------------------- Markdown helpers

ustring detail::EscapeMarkdown(const ustring& text)
{
    ustring escaped;
    escaped.reserve(text.size());
    for (wchar_t ch : text)
    {
        if (ch == L'*' || ch == L'\\' || ch == L'_')
            escaped += L'\\';
        escaped += ch;
    }
    return escaped;
}

ustring detail::DecorateMarkdown(const ustring& text, const ConsoleFont& font, bool boldImplied)
{
    if (IsBlank(text))
        return text;
    const size_t first = text.find_first_not_of(L" \t");
    const size_t last = text.find_last_not_of(L" \t");
    ustring core = EscapeMarkdown(ustring(text.substr(first, last - first + 1)));
    if (!boldImplied && font.m_eBold >= ConsoleFont::Bold)
        core = L"__" + core + L"__";
    if (font.m_eItalic == ConsoleFont::TriOn)
        core = L"_" + core + L"_";
    return ustring(text.substr(0, first)) + core + ustring(text.substr(last + 1));
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
    return ConsoleFontChain(font, ConsoleFont(severity, IsLightBackground(m_DefaultFont.m_eBkColor))).Unwind();
}

bool CConsole::ApplyFont(const ConsoleFont& font)
{
    CLocker<CCriticalSection> lock(&m_CriticalSection);
    const ConsoleFontChain chain = CreateConsoleFontChain(font);
    if (m_bUseEscapeSequences)
    {
        // Flushed at once: the text goes to the other stream and must not overtake it.
        WriteStream(stdout, chain.ComposeEscapeSequence(m_bNotConsole));
        return true;
    }
    return ::SetConsoleTextAttribute(m_hStdOut, chain.ComposeConsoleTextAttribute()) != FALSE;
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
        // The stream's text mode turns each "\n" into "\r\n" itself.
        ustring copy(text);
        copy.erase(std::remove(copy.begin(), copy.end(), L'\r'), copy.end());
        ApplyFont(font);
        if (!(consoleOnly && m_bNotConsole))
            WriteStream(stderr, copy);
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
    if (!text.empty())
        m_aMarkdownBuffer.emplace_back(font, text);
    if (text.find(L"\r\n") != std::wstring::npos)
        FlushMarkdownBuffer();
}

void CConsole::FlushMarkdownBuffer()
{
    CLocker<CCriticalSection> lock(&m_CriticalSection);
    if (m_aMarkdownBuffer.empty())
        return;

    // Adjacent pieces in one font are one piece.
    std::vector<std::pair<ConsoleFont, ustring>> merged;
    for (auto& entry : m_aMarkdownBuffer)
    {
        if (!merged.empty() && merged.back().first == entry.first)
            merged.back().second += entry.second;
        else
            merged.push_back(std::move(entry));
    }
    m_aMarkdownBuffer.clear();

    // Cut the pieces into lines; a line may hold pieces in several fonts.
    std::vector<MarkdownLine> lines;
    MarkdownLine current;
    bool open = false; // the current line has begun (text after the last line break)
    for (auto& entry : merged)
    {
        ustring text(entry.second);
        text.replace(ustring(L"\r\n"), ustring(L"\n"));
        text.erase(std::remove(text.begin(), text.end(), L'\r'), text.end());
        size_t start = 0;
        for (;;)
        {
            const size_t end = text.find(L'\n', start);
            const ustring piece(text.substr(start, end == std::wstring::npos ? std::wstring::npos : end - start));
            if (!piece.empty())
            {
                current.emplace_back(entry.first, piece);
                open = true;
            }
            if (end == std::wstring::npos)
                break;
            lines.push_back(std::move(current));
            current.clear();
            open = false;
            start = end + 1;
        }
    }
    if (open)
        lines.push_back(std::move(current));

    for (const MarkdownLine& line : lines)
        m_strMarkdown += RenderMarkdownLine(line);
}

} // namespace tavrin
