// Console fonts, escape sequences, redirected output, the capture string and the Markdown copy.
#include <tavrin/log/console.h>

#include "test_console_redirect.h"

#include <gtest/gtest.h>

#include <thread>

using namespace tavrin;
using tavrin_test::CStdStreamRedirect;

namespace {

const wchar_t* const kReset = L"\x1b[0m";
// Default font of a redirected stream: styles off, black text (no colour sequence), white ground.
const std::wstring kRedirectedDefault = std::wstring(kReset) + L"\x1b[107m";

std::wstring Esc(const wchar_t* code)
{
    return std::wstring(L"\x1b[") + code + L"m";
}

// Runs `body` on a console whose output goes to two files; returns what reached them.
struct ConsoleRun
{
    std::wstring out;
    std::wstring err;
    std::vector<unsigned char> errBytes;
    bool isConsole = true;
    bool escapes = false;
    ConsoleFont defaultFont;
};

template <class Body>
ConsoleRun RunRedirected(ustring& capture, ustring& markdown, Body body, bool useEscapeSequences = false)
{
    ConsoleRun run;
    CStdStreamRedirect redirect;
    {
        CConsole console(useEscapeSequences, capture, markdown);
        run.isConsole = console.IsConsole();
        run.escapes = console.UsesEscapeSequences();
        run.defaultFont = console.GetDefaultFont();
        body(console);
    }
    redirect.Stop();
    run.out = redirect.Out();
    run.err = redirect.Err();
    run.errBytes = redirect.ErrBytes();
    return run;
}

} // namespace

TEST(ConsoleFont, ConstructorsFillTheEightFields)
{
    const ConsoleFont defaults(ConsoleFont::InitDefault, false);
    EXPECT_EQ(defaults.m_eBold, ConsoleFont::BoldNormal);
    EXPECT_EQ(defaults.m_eItalic, ConsoleFont::TriOff);
    EXPECT_EQ(defaults.m_eUnderline, ConsoleFont::TriOff);
    EXPECT_EQ(defaults.m_eDoubleUnderline, ConsoleFont::TriOff);
    EXPECT_EQ(defaults.m_eOverline, ConsoleFont::TriOff);
    EXPECT_EQ(defaults.m_eStrikeThrough, ConsoleFont::TriOff);
    EXPECT_EQ(static_cast<int>(defaults.m_eTextColor), 7);
    EXPECT_EQ(static_cast<int>(defaults.m_eBkColor), 0);

    const ConsoleFont inverse(ConsoleFont::InitDefault, true);
    EXPECT_EQ(static_cast<int>(inverse.m_eTextColor), 0);
    EXPECT_EQ(static_cast<int>(inverse.m_eBkColor), 240);
    EXPECT_EQ(inverse.m_eBold, ConsoleFont::BoldNormal);

    const ConsoleFont empty(ConsoleFont::InitEmpty, true);
    EXPECT_EQ(empty.m_eBold, ConsoleFont::BoldUnspecified);
    EXPECT_EQ(empty.m_eStrikeThrough, ConsoleFont::TriUnspecified);
    EXPECT_EQ(static_cast<int>(empty.m_eTextColor), -1);
    EXPECT_EQ(static_cast<int>(empty.m_eBkColor), -1);
    EXPECT_EQ(empty, ConsoleFont());
    EXPECT_EQ(sizeof(ConsoleFont), 8u * 4u);

    // Attributes: bit 15 is the underline, the low nibble the text, the next the background.
    const ConsoleFont fromAttributes(ConsoleFont::InitDefault, static_cast<unsigned short>(0x8000 | 0x1E));
    EXPECT_EQ(fromAttributes.m_eUnderline, ConsoleFont::TriOn);
    EXPECT_EQ(static_cast<int>(fromAttributes.m_eTextColor), 14);
    EXPECT_EQ(static_cast<int>(fromAttributes.m_eBkColor), 16);
    EXPECT_EQ(fromAttributes.m_eBold, ConsoleFont::BoldNormal);
    const ConsoleFont plainAttributes(ConsoleFont::InitDefault, static_cast<unsigned short>(0x7FFF));
    EXPECT_EQ(plainAttributes.m_eUnderline, ConsoleFont::TriOff);
    EXPECT_EQ(static_cast<int>(plainAttributes.m_eTextColor), 15);
    EXPECT_EQ(static_cast<int>(plainAttributes.m_eBkColor), 240);
    // Another mode starts from the empty font; only the three attribute fields are set.
    const ConsoleFont emptyAttributes(ConsoleFont::InitEmpty, static_cast<unsigned short>(0x0021));
    EXPECT_EQ(emptyAttributes.m_eBold, ConsoleFont::BoldUnspecified);
    EXPECT_EQ(emptyAttributes.m_eUnderline, ConsoleFont::TriOff);
    EXPECT_EQ(static_cast<int>(emptyAttributes.m_eTextColor), 1);
    EXPECT_EQ(static_cast<int>(emptyAttributes.m_eBkColor), 32);

    const ConsoleFont colours(ConsoleFont::TextGreen, ConsoleFont::BkBlue);
    EXPECT_EQ(colours.m_eBold, ConsoleFont::BoldUnspecified);
    EXPECT_EQ(static_cast<int>(colours.m_eTextColor), 2);
    EXPECT_EQ(static_cast<int>(colours.m_eBkColor), 16);
    const ConsoleFont background(ConsoleFont::BkRed);
    EXPECT_EQ(static_cast<int>(background.m_eTextColor), -1);
    EXPECT_EQ(static_cast<int>(background.m_eBkColor), 64);

    EXPECT_EQ(static_cast<int>(ConsoleFont(CConsoleBase::SeverityError, false).m_eTextColor), 12);
    EXPECT_EQ(static_cast<int>(ConsoleFont(CConsoleBase::SeverityError, true).m_eTextColor), 12);
    EXPECT_EQ(static_cast<int>(ConsoleFont(CConsoleBase::SeverityWarning, false).m_eTextColor), 14);
    EXPECT_EQ(static_cast<int>(ConsoleFont(CConsoleBase::SeverityWarning, true).m_eTextColor), 6);
    EXPECT_EQ(ConsoleFont(CConsoleBase::SeverityInfo, false), ConsoleFont());
    EXPECT_EQ(ConsoleFont(CConsoleBase::SeverityVerbose, true), ConsoleFont());
    EXPECT_EQ(ConsoleFont(CConsoleBase::SeverityDebug, false), ConsoleFont());

    const ConsoleFont bold = ConsoleFont::BoldFont(ConsoleFont::BoldHeading2, ConsoleFont::TriOn);
    EXPECT_EQ(static_cast<int>(bold.m_eBold), 4);
    EXPECT_EQ(bold.m_eUnderline, ConsoleFont::TriOn);
    EXPECT_EQ(bold.m_eItalic, ConsoleFont::TriUnspecified);
    EXPECT_EQ(static_cast<int>(bold.m_eTextColor), -1);

    // Equality looks at every field.
    ConsoleFont other = defaults;
    EXPECT_EQ(other, defaults);
    other.m_eOverline = ConsoleFont::TriOn;
    EXPECT_NE(other, defaults);
    other = defaults;
    other.m_eBkColor = ConsoleFont::BkBlue;
    EXPECT_NE(other, defaults);
}

TEST(ConsoleFontChain, LaterFontsOverrideWhatTheySpecify)
{
    const ConsoleFont base(ConsoleFont::InitDefault, false);
    ConsoleFont italic;
    italic.m_eItalic = ConsoleFont::TriOn;
    const ConsoleFontChain chain(base, ConsoleFont(ConsoleFont::TextLightRed), italic,
                                 ConsoleFont::BoldFont(ConsoleFont::Bold, ConsoleFont::TriOn));
    EXPECT_EQ(chain.GetFonts().size(), 4u);
    const ConsoleFont unwound = chain.Unwind();
    EXPECT_EQ(unwound.m_eBold, ConsoleFont::Bold);
    EXPECT_EQ(unwound.m_eItalic, ConsoleFont::TriOn);
    EXPECT_EQ(unwound.m_eUnderline, ConsoleFont::TriOn);
    EXPECT_EQ(unwound.m_eStrikeThrough, ConsoleFont::TriOff);
    EXPECT_EQ(static_cast<int>(unwound.m_eTextColor), 12);
    EXPECT_EQ(static_cast<int>(unwound.m_eBkColor), 0);
    EXPECT_EQ(chain.ComposeConsoleTextAttribute(), 0x8000 | 12);

    // The last word wins, also for an explicit "off".
    ConsoleFont off;
    off.m_eUnderline = ConsoleFont::TriOff;
    EXPECT_EQ(ConsoleFontChain(chain.Unwind(), off).Unwind().m_eUnderline, ConsoleFont::TriOff);
    EXPECT_EQ(ConsoleFontChain(ConsoleFont(ConsoleFont::TextBlue, ConsoleFont::BkYellow)).ComposeConsoleTextAttribute(),
              1 | 224);
    EXPECT_EQ(ConsoleFontChain().Unwind(), ConsoleFont());
    EXPECT_EQ(ConsoleFontChain().ComposeConsoleTextAttribute(), 0);
}

TEST(ConsoleFontChain, EscapeSequencesFollowTheAnsiTables)
{
    static const wchar_t* const text[16] = {L"30", L"34", L"32", L"36", L"31", L"35", L"33", L"37",
                                            L"90", L"94", L"92", L"96", L"91", L"95", L"93", L"97"};
    static const wchar_t* const background[16] = {L"40", L"44", L"42", L"46", L"41", L"45", L"43", L"47",
                                                  L"100", L"104", L"102", L"106", L"101", L"105", L"103", L"107"};
    const ConsoleFont plain = ConsoleFont::BoldFont(ConsoleFont::BoldNormal);
    for (int colour = 0; colour < 16; ++colour)
    {
        const ConsoleFontChain chain(plain, ConsoleFont(static_cast<ConsoleFont::ETextColor>(colour)));
        EXPECT_EQ(chain.ComposeEscapeSequence(false), kReset + Esc(text[colour])) << colour;
        const ConsoleFontChain ground(plain, ConsoleFont(static_cast<ConsoleFont::EBkColor>(colour * 16)));
        EXPECT_EQ(ground.ComposeEscapeSequence(true), kReset + Esc(background[colour])) << colour;
    }

    // Black text is left to a redirected stream; on a console it is written.
    const ConsoleFontChain black(ConsoleFont(ConsoleFont::InitDefault, true));
    EXPECT_EQ(black.ComposeEscapeSequence(true), kReset + Esc(L"107"));
    EXPECT_EQ(black.ComposeEscapeSequence(false), kReset + Esc(L"30") + Esc(L"107"));

    // Only an explicit normal weight suppresses bold; an unspecified one emits it.
    EXPECT_EQ(ConsoleFontChain(ConsoleFont()).ComposeEscapeSequence(false), kReset + Esc(L"1"));
    EXPECT_EQ(ConsoleFontChain(ConsoleFont::BoldFont(ConsoleFont::BoldTitle)).ComposeEscapeSequence(false),
              kReset + Esc(L"1"));

    // Styles in their fixed order, before the colours.
    ConsoleFont all(ConsoleFont::InitDefault, false);
    all.m_eBold = ConsoleFont::Bold;
    all.m_eItalic = all.m_eUnderline = all.m_eDoubleUnderline = all.m_eOverline = all.m_eStrikeThrough =
        ConsoleFont::TriOn;
    EXPECT_EQ(ConsoleFontChain(all).ComposeEscapeSequence(false),
              kReset + Esc(L"1") + Esc(L"3") + Esc(L"4") + Esc(L"21") + Esc(L"53") + Esc(L"9") + Esc(L"37") +
                  Esc(L"40"));

    // Values outside the tables add nothing.
    ConsoleFont odd = plain;
    odd.m_eTextColor = static_cast<ConsoleFont::ETextColor>(16);
    odd.m_eBkColor = static_cast<ConsoleFont::EBkColor>(17);
    EXPECT_EQ(ConsoleFontChain(odd).ComposeEscapeSequence(false), std::wstring(kReset));
    odd.m_eBkColor = static_cast<ConsoleFont::EBkColor>(256);
    EXPECT_EQ(ConsoleFontChain(odd).ComposeEscapeSequence(false), std::wstring(kReset));
}

TEST(Console, RedirectedOutputUsesEscapeSequencesOnBlackOnWhite)
{
    ustring capture(L"before|"), markdown;
    const ConsoleRun run = RunRedirected(capture, markdown, [](CConsole& console) {
        console.Print(CConsoleBase::SeverityInfo, false, ustring(L"plain\r\n"));
        console.Print(CConsoleBase::SeverityError, false, ustring(L"bad\r\n"));
        console.PrintF(CConsoleBase::SeverityWarning, false, L"%ls=%d\r\n", L"n", 42);
        console.Print(ConsoleFont(ConsoleFont::TextGreen), CConsoleBase::SeverityInfo, false, L'x');
        console.Print(CConsoleBase::SeverityInfo, true, ustring(L"progress only\r\n")); // console-only
        console.SetCurrentFont(ConsoleFont::BoldFont(ConsoleFont::Bold));
        console.Print(CConsoleBase::SeverityInfo, false, ustring(L"\n"));
    });

    EXPECT_FALSE(run.isConsole);
    EXPECT_TRUE(run.escapes);
    EXPECT_EQ(run.defaultFont, ConsoleFont(ConsoleFont::InitDefault, true));

    // Text (to standard error): "\r" removed and put back by the UTF-16 text mode, once.
    EXPECT_EQ(run.err, L"plain\r\nbad\r\nn=42\r\nx\r\n");
    const unsigned char expectedStart[] = {'p', 0, 'l', 0, 'a', 0, 'i', 0, 'n', 0, '\r', 0, '\n', 0, 'b', 0};
    ASSERT_GE(run.errBytes.size(), sizeof(expectedStart));
    EXPECT_TRUE(std::equal(expectedStart, expectedStart + sizeof(expectedStart), run.errBytes.begin()));

    // Fonts (to standard output): the default at construction, one sequence per print (also for
    // the suppressed console-only text), and a plain reset at the end.
    EXPECT_EQ(run.out, kRedirectedDefault +               // construction
                           kRedirectedDefault +           // plain
                           kReset + Esc(L"91") + Esc(L"107") + // error
                           kReset + Esc(L"33") + Esc(L"107") + // warning on white: brown
                           kReset + Esc(L"32") + Esc(L"107") + // green
                           kRedirectedDefault +           // console-only text, not written
                           kReset + Esc(L"1") + Esc(L"107") +  // current font: bold
                           kReset);                       // destruction

    // The capture has every text as given, the suppressed one too, after what it held.
    EXPECT_EQ(capture, L"before|plain\r\nbad\r\nn=42\r\nx" L"progress only\r\n" L"\n");
}

TEST(Console, EscapeSequencesAndRestoreDefaults)
{
    ustring capture, markdown;
    bool applied = false, restored = false;
    unsigned short column = 1;
    ConsoleFont red, stacked, defaults;
    const ConsoleRun run = RunRedirected(
        capture, markdown,
        [&](CConsole& console) {
            applied = console.ApplyFont(ConsoleFont(ConsoleFont::TextWhite, ConsoleFont::BkBlue));
            restored = console.RestoreDefaults();
            column = console.GetConsoleCursorPositionX();
            red = console.CreateConsoleFontChain(ConsoleFont(ConsoleFont::TextRed)).Unwind();
            stacked = console.CreateConsoleFontChain(ConsoleFont()).Unwind();
            defaults = console.GetDefaultFont();
        },
        true);
    EXPECT_TRUE(applied);
    EXPECT_TRUE(restored);
    EXPECT_EQ(column, 0);
    EXPECT_EQ(red.m_eTextColor, ConsoleFont::TextRed);
    EXPECT_EQ(red.m_eBkColor, ConsoleFont::BkWhite);
    EXPECT_EQ(stacked, defaults);
    EXPECT_EQ(run.out, kRedirectedDefault + kReset + Esc(L"97") + Esc(L"44") + kRedirectedDefault + kReset);
    EXPECT_TRUE(run.err.empty());
    EXPECT_TRUE(capture.empty());
    EXPECT_TRUE(markdown.empty());
}

TEST(Console, TeamCityIsDetectedFromTheEnvironment)
{
    wchar_t saved[256] = {};
    const bool had = ::GetEnvironmentVariableW(L"TEAMCITY_VERSION", saved, 256) > 0;
    ustring capture, markdown;
    bool without = true, with = false;
    {
        ::SetEnvironmentVariableW(L"TEAMCITY_VERSION", nullptr);
        RunRedirected(capture, markdown, [&](CConsole& console) { without = console.IsRunningUnderTeamCity(); });
        ::SetEnvironmentVariableW(L"TEAMCITY_VERSION", L"2024.1");
        RunRedirected(capture, markdown, [&](CConsole& console) { with = console.IsRunningUnderTeamCity(); });
    }
    ::SetEnvironmentVariableW(L"TEAMCITY_VERSION", had ? saved : nullptr);
    EXPECT_FALSE(without);
    EXPECT_TRUE(with);
}

TEST(ConsoleMarkdown, SeveritiesEmphasisAndFlushing)
{
    ustring capture, markdown;
    std::wstring beforeFlush, afterFirstLine;
    RunRedirected(capture, markdown, [&](CConsole& console) {
        console.Print(CConsoleBase::SeverityInfo, false, ustring(L"Copied "));
        console.Print(CConsoleBase::SeverityVerbose, false, ustring(L"verbose\r\n")); // not copied, no flush
        console.Print(CConsoleBase::SeverityDebug, false, ustring(L"debug\r\n"));
        console.Print(CConsoleBase::SeverityInfo, false, ustring());                   // adds nothing
        beforeFlush = markdown;
        console.Print(ConsoleFont::BoldFont(ConsoleFont::Bold), CConsoleBase::SeverityInfo, false,
                      ustring(L"bold"));
        console.Print(CConsoleBase::SeverityInfo, false, ustring(L" text\r\n"));
        afterFirstLine = markdown;

        ConsoleFont italic;
        italic.m_eItalic = ConsoleFont::TriOn;
        console.Print(italic, CConsoleBase::SeverityWarning, false, ustring(L" a*b_c\\d "));
        console.Print(CConsoleBase::SeverityError, false, ustring(L"\r\n\r\n"));
        // Adjacent pieces in one font are merged before they are decorated.
        console.Print(ConsoleFont::BoldFont(ConsoleFont::Bold), CConsoleBase::SeverityInfo, false, ustring(L"one"));
        console.Print(ConsoleFont::BoldFont(ConsoleFont::Bold), CConsoleBase::SeverityInfo, false, ustring(L"two\r\n"));
        // Markdown-only output reaches neither stream nor capture.
        console.Print(CConsoleBase::SeverityInfo, false, ustring(L"md only\r\n"), CConsoleBase::OutputMarkdown);
        console.Print(CConsoleBase::SeverityInfo, false, ustring(L"console only\r\n"), CConsoleBase::OutputConsole);
        // A piece without line end waits for Flush.
        console.Print(CConsoleBase::SeverityInfo, false, ustring(L"tail"));
        console.Flush();
    });

    EXPECT_EQ(beforeFlush, L"");
    EXPECT_EQ(afterFirstLine, L"Copied __bold__ text\r\n");
    EXPECT_EQ(markdown, L"Copied __bold__ text\r\n"
                        L" _a\\*b\\_c\\\\d_ \r\n"
                        L"\x00A0\r\n"
                        L"__onetwo__\r\n"
                        L"md only\r\n"
                        L"tail\r\n");
    EXPECT_EQ(capture, L"Copied verbose\r\ndebug\r\nbold text\r\n a*b_c\\d \r\n\r\nonetwo\r\nconsole only\r\ntail");
}

TEST(ConsoleMarkdown, HeadingLevelsAndEmptyLines)
{
    ustring capture, markdown;
    RunRedirected(capture, markdown, [&](CConsole& console) {
        const CConsoleBase::ESeverity info = CConsoleBase::SeverityInfo;
        console.Print(ConsoleFont::BoldFont(ConsoleFont::BoldTitle), info, false, ustring(L"Report\r\n"));
        console.Print(ConsoleFont::BoldFont(ConsoleFont::BoldHeading1), info, false, ustring(L"Part_1\r\n"));
        console.Print(ConsoleFont::BoldFont(ConsoleFont::BoldHeading2), info, false, ustring(L"  Section  "));
        console.Print(info, false, ustring(L"(plain)\r\n"));
        console.Print(ConsoleFont::BoldFont(ConsoleFont::BoldHeading3), info, false, ustring(L"Sub\r\n   \r\n"));
        console.Print(info, false, ustring(L"a\nb\r\n"));
    });
    EXPECT_EQ(markdown, L"***\r\n# Report #\r\n***\r\n"
                        L"# Part\\_1 #\r\n"
                        L"## Section  (plain) ##\r\n"
                        L"### Sub ###\r\n"
                        L"\x00A0\r\n"
                        L"a\r\nb\r\n");
}

TEST(Console, ConcurrentPrintsStayWhole)
{
    ustring capture, markdown;
    const int perThread = 200;
    RunRedirected(capture, markdown, [&](CConsole& console) {
        auto worker = [&console](wchar_t tag) {
            for (int i = 0; i < perThread; ++i)
                console.PrintF(CConsoleBase::SeverityInfo, false, L"%lc%lc%lc%lc%lc%lc\r\n", tag, tag, tag, tag, tag, tag);
        };
        std::thread a(worker, L'a'), b(worker, L'b');
        {
            // A caller holding the lock prints a block that no other message splits.
            CLocker<CCriticalSection> lock(&console.CriticalSection());
            console.Print(CConsoleBase::SeverityInfo, false, ustring(L"<block "));
            ::Sleep(5);
            console.Print(CConsoleBase::SeverityInfo, false, ustring(L"end>\r\n"));
        }
        a.join();
        b.join();
    });

    std::vector<ustring> lines;
    ustring::split(capture, L"\r\n", lines);
    int as = 0, bs = 0, blocks = 0;
    for (const ustring& line : lines)
    {
        if (line == L"aaaaaa")
            ++as;
        else if (line == L"bbbbbb")
            ++bs;
        else if (line == L"<block end>")
            ++blocks;
        else
            ADD_FAILURE() << "torn line: " << line.c_str();
    }
    EXPECT_EQ(as, perThread);
    EXPECT_EQ(bs, perThread);
    EXPECT_EQ(blocks, 1);
    // The Markdown copy holds the same lines.
    EXPECT_EQ(markdown, capture);
}

// A console screen buffer of the process's own for the lifetime of the object. Wine needs a
// display for a console of its own; without one the buffer is not usable and the test skips.
class CConsoleBuffer
{
public:
    CConsoleBuffer()
    {
        for (int i = 0; i < 3; ++i)
            m_aSaved[i] = ::GetStdHandle(kStdIds[i]);
        DWORD mode = 0;
        if (!::GetConsoleMode(m_aSaved[1], &mode))
        {
            // Standard output is no console (a pipe under the test runner): start a console of
            // our own. The C runtime keeps writing to the saved handles.
            ::FreeConsole();
            m_bAllocated = ::AllocConsole() != FALSE;
        }
        m_hBuffer = ::CreateConsoleScreenBuffer(GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                                nullptr, CONSOLE_TEXTMODE_BUFFER, nullptr);
        CONSOLE_SCREEN_BUFFER_INFO info;
        m_bUsable = m_hBuffer != INVALID_HANDLE_VALUE && ::GetConsoleScreenBufferInfo(m_hBuffer, &info);
    }
    ~CConsoleBuffer()
    {
        if (m_hBuffer != INVALID_HANDLE_VALUE)
            ::CloseHandle(m_hBuffer);
        if (m_bAllocated)
            ::FreeConsole();
        for (int i = 0; i < 3; ++i)
            ::SetStdHandle(kStdIds[i], m_aSaved[i]);
    }
    CConsoleBuffer(const CConsoleBuffer&) = delete;
    CConsoleBuffer& operator=(const CConsoleBuffer&) = delete;

    bool IsUsable() const { return m_bUsable; }
    HANDLE Get() const { return m_hBuffer; }
    WORD Attributes() const
    {
        CONSOLE_SCREEN_BUFFER_INFO info;
        return ::GetConsoleScreenBufferInfo(m_hBuffer, &info) ? info.wAttributes : 0xFFFF;
    }
    SHORT CursorX() const
    {
        CONSOLE_SCREEN_BUFFER_INFO info;
        return ::GetConsoleScreenBufferInfo(m_hBuffer, &info) ? info.dwCursorPosition.X : -1;
    }

private:
    static constexpr DWORD kStdIds[3] = {STD_INPUT_HANDLE, STD_OUTPUT_HANDLE, STD_ERROR_HANDLE};
    HANDLE m_aSaved[3] = {};
    HANDLE m_hBuffer = INVALID_HANDLE_VALUE;
    bool m_bAllocated = false;
    bool m_bUsable = false;
};

TEST(Console, RealConsoleTakesTextAttributes)
{
    CConsoleBuffer buffer;
    if (!buffer.IsUsable())
        GTEST_SKIP() << "no console screen buffer available (Wine needs a display for one)";
    ::SetConsoleTextAttribute(buffer.Get(), 0x8000 | 0x1E);
    DWORD written = 0;
    ::WriteConsoleW(buffer.Get(), L"abc", 3, &written, nullptr);

    ustring capture, markdown;
    bool isConsole = false, escapes = true, applied = false, restored = false;
    unsigned short column = 0;
    ConsoleFont defaults;
    WORD afterApply = 0, afterError = 0, afterRestore = 0, afterDestroy = 0;
    std::wstring err, out;
    {
        CStdStreamRedirect redirect;
        ::SetStdHandle(STD_OUTPUT_HANDLE, buffer.Get());
        {
            CConsole console(false, capture, markdown);
            isConsole = console.IsConsole();
            escapes = console.UsesEscapeSequences();
            defaults = console.GetDefaultFont();
            column = console.GetConsoleCursorPositionX();
            applied = console.ApplyFont(ConsoleFont(ConsoleFont::TextLightGreen, ConsoleFont::BkRed));
            afterApply = buffer.Attributes();
            console.Print(CConsoleBase::SeverityError, false, ustring(L"err\r\n"));
            afterError = buffer.Attributes();
            restored = console.RestoreDefaults();
            afterRestore = buffer.Attributes();
            console.SetCurrentFont(ConsoleFont(ConsoleFont::TextBlack, ConsoleFont::BkWhite));
        }
        afterDestroy = buffer.Attributes();
        redirect.Stop();
        err = redirect.Err();
        out = redirect.Out();
    }

    EXPECT_TRUE(isConsole);
    EXPECT_FALSE(escapes);
    EXPECT_EQ(defaults, ConsoleFont(ConsoleFont::InitDefault, static_cast<unsigned short>(0x8000 | 0x1E)));
    EXPECT_EQ(column, 3);
    EXPECT_TRUE(applied);
    EXPECT_TRUE(restored);
    // The attribute of the chain: the default's underline stays, the colours are replaced.
    EXPECT_EQ(afterApply, 0x8000 | 10 | 64);
    EXPECT_EQ(afterError, 0x8000 | 12 | 16);
    EXPECT_EQ(afterRestore, 0x8000 | 0x1E);
    EXPECT_EQ(afterDestroy, 0x8000 | 0x1E);
    // On a console the fonts are attributes: no escape sequence reaches standard output.
    EXPECT_TRUE(out.empty());
    EXPECT_EQ(err, L"err\r\n");
    EXPECT_EQ(capture, L"err\r\n");
}
