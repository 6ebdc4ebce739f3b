// Console output: messages by severity, in colours and text styles, with a plain-text capture of
// everything printed and a Markdown copy that can be saved as a report.
//
// Styles are ConsoleFont values. Fonts are stacked in a ConsoleFontChain (later fonts override
// the fields they specify) and rendered either as a console text attribute (real console) or as
// ANSI escape sequences (redirected output, or on request).
//
//     ustring capture, markdown;
//     CConsole console(false, capture, markdown);
//     console.PrintF(CConsoleBase::SeverityInfo, false, L"%d files\r\n", 3);
//     console.Print(ConsoleFont::BoldFont(ConsoleFont::Bold), CConsoleBase::SeverityInfo, false,
//                   ustring(L"Summary\r\n"));
//     CTable table(true, CTable::BorderSingle, L"Results");
//     table.InsertRow(L"Name|Value", L'|');
//     table.InsertRow(L"alpha|1", L'|');
//     console.Print(CConsoleBase::SeverityInfo, false, table, ustring());
//     console.Flush();   // markdown now holds the report
//
// One CConsole serialises all of its output with its critical section; a caller that prints
// several pieces as one block holds CriticalSection() through a CLocker itself.
#pragma once

#include <tavrin/core/config.h>
#include <tavrin/core/object.h>
#include <tavrin/core/ustring.h>
#include <tavrin/util/systemtime.h>

#include <cstdarg>
#include <utility>
#include <vector>

namespace tavrin {

struct ConsoleFont;
class CTextObject;

// The output sink of the library's reporters (CStdException::ReportErrorConsole). CConsole is the
// implementation; the base keeps the reporters independent of it.
class TAVRIN_API CConsoleBase
{
public:
    // Severity of a message. Errors print in red, warnings in yellow. The Markdown copy keeps
    // SeverityInfo, SeverityError and SeverityWarning only.
    enum ESeverity : int
    {
        SeverityInfo = 0,
        SeverityVerbose = 1,
        SeverityError = 2,
        SeverityWarning = 3,
        SeverityDebug = 4
    };

    // Where a message goes: the console stream (with the capture string) and/or the Markdown copy.
    enum EOutput : int
    {
        OutputAll = 0,
        OutputConsole = 1,
        OutputMarkdown = 2
    };

    CConsoleBase() = default;
    CConsoleBase(const CConsoleBase&) = delete;
    CConsoleBase& operator=(const CConsoleBase&) = delete;
    virtual ~CConsoleBase();

    // Prints text in the current font. `consoleOnly` true suppresses the stream output when
    // standard output is not a console (interactive decoration such as progress lines); the
    // capture string and the Markdown copy still receive the text.
    virtual void Print(ESeverity severity, bool consoleOnly, const ustring& text,
                       EOutput output = OutputAll) = 0;
    // Prints text in `font` stacked on the default font.
    virtual void Print(const ConsoleFont& font, ESeverity severity, bool consoleOnly,
                       const ustring& text, EOutput output = OutputAll) = 0;
    // One character.
    virtual void Print(ESeverity severity, bool consoleOnly, wchar_t ch) = 0;
    virtual void Print(const ConsoleFont& font, ESeverity severity, bool consoleOnly, wchar_t ch) = 0;
    // printf-style text (Microsoft wide formats: "%ls", "%I64u"), then as Print.
    virtual void VPrintF(ESeverity severity, bool consoleOnly, const wchar_t* format, va_list args) = 0;
    virtual void VPrintF(const ConsoleFont& font, ESeverity severity, bool consoleOnly,
                         const wchar_t* format, va_list args) = 0;
    // The lock that serialises this console's output (recursive for the owning thread).
    virtual CCriticalSection& CriticalSection() = 0;

    void PrintF(ESeverity severity, bool consoleOnly, const wchar_t* format, ...);
    void PrintF(const ConsoleFont& font, ESeverity severity, bool consoleOnly, const wchar_t* format, ...);

    // The text put in front of a progress line of this severity: "" for information and verbose
    // output, "Error: ", "Warning: ", "Debug: " for the others.
    static const wchar_t* GetSeverityPrefix(ESeverity severity);
};

// A text style: eight 32-bit fields; 0 (or -1 for the colours) means "unspecified", so that a
// font stacked on another overrides only what it specifies.
struct TAVRIN_API ConsoleFont
{
    // Weight. 2 and above are bold; the Markdown copy turns the higher values into headings.
    enum EBold : int
    {
        BoldUnspecified = 0,
        BoldNormal = 1,
        Bold = 2,
        BoldHeading3 = 3, // "### text ###"
        BoldHeading2 = 4, // "## text ##"
        BoldHeading1 = 5, // "# text #"
        BoldTitle = 6     // "# text #" between two rules
    };

    enum ETriState : int
    {
        TriUnspecified = 0,
        TriOff = 1,
        TriOn = 2
    };

    // The console's foreground bits: blue 1, green 2, red 4, intensity 8.
    enum ETextColor : int
    {
        TextUnspecified = -1,
        TextBlack = 0,
        TextBlue = 1,
        TextGreen = 2,
        TextCyan = 3,
        TextRed = 4,
        TextMagenta = 5,
        TextBrown = 6,
        TextLightGray = 7,
        TextDarkGray = 8,
        TextLightBlue = 9,
        TextLightGreen = 10,
        TextLightCyan = 11,
        TextLightRed = 12,
        TextLightMagenta = 13,
        TextYellow = 14,
        TextWhite = 15
    };

    // The console's background bits: colour index x 16.
    enum EBkColor : int
    {
        BkUnspecified = -1,
        BkBlack = 0,
        BkBlue = 16,
        BkGreen = 32,
        BkCyan = 48,
        BkRed = 64,
        BkMagenta = 80,
        BkBrown = 96,
        BkLightGray = 112,
        BkDarkGray = 128,
        BkLightBlue = 144,
        BkLightGreen = 160,
        BkLightCyan = 176,
        BkLightRed = 192,
        BkLightMagenta = 208,
        BkYellow = 224,
        BkWhite = 240
    };

    enum EInitializationMode : int
    {
        InitDefault = 0, // every style off, light gray on black (or black on white when inverse)
        InitEmpty = 1    // everything unspecified
    };

    // InitDefault: styles off, text 7 on background 0, or text 0 on background 240 when
    // `inverse`. Any other mode: everything unspecified.
    explicit ConsoleFont(EInitializationMode mode = InitEmpty, bool inverse = false);
    // As (mode, false), then underline, text colour and background from console attributes.
    ConsoleFont(EInitializationMode mode, unsigned short attributes);
    // Unspecified font with these colours.
    explicit ConsoleFont(ETextColor text, EBkColor background = BkUnspecified);
    explicit ConsoleFont(EBkColor background);
    // Unspecified font with the severity's colour: errors 12 (light red); warnings 14 (yellow),
    // or 6 (brown) on an inverse (light) background.
    ConsoleFont(CConsoleBase::ESeverity severity, bool inverse);

    // Unspecified font with only the weight and the underline set.
    static ConsoleFont BoldFont(EBold bold, ETriState underline = TriUnspecified);

    bool operator==(const ConsoleFont& other) const;
    bool operator!=(const ConsoleFont& other) const { return !(*this == other); }

    EBold m_eBold;
    ETriState m_eItalic;
    ETriState m_eUnderline;
    ETriState m_eDoubleUnderline;
    ETriState m_eOverline;
    ETriState m_eStrikeThrough;
    ETextColor m_eTextColor;
    EBkColor m_eBkColor;
};

// Fonts stacked in order; later fonts override the fields they specify.
class TAVRIN_API ConsoleFontChain
{
public:
    ConsoleFontChain() = default;
    explicit ConsoleFontChain(const ConsoleFont& f1);
    ConsoleFontChain(const ConsoleFont& f1, const ConsoleFont& f2);
    ConsoleFontChain(const ConsoleFont& f1, const ConsoleFont& f2, const ConsoleFont& f3);
    ConsoleFontChain(const ConsoleFont& f1, const ConsoleFont& f2, const ConsoleFont& f3,
                     const ConsoleFont& f4);

    void push_back(const ConsoleFont& font) { m_aFonts.push_back(font); }
    const std::vector<ConsoleFont>& GetFonts() const { return m_aFonts; }

    // The chain collapsed into one font (an empty chain gives the unspecified font).
    ConsoleFont Unwind() const;
    // Text colour | background | COMMON_LVB_UNDERSCORE (underline on) of the unwound font;
    // unspecified colours count as 0.
    unsigned short ComposeConsoleTextAttribute() const;
    // "\e[0m", the style sequences and the ANSI colours of the unwound font. With `notConsole`
    // true, black text (colour 0) emits no colour, so a redirected stream is not forced to black.
    ustring ComposeEscapeSequence(bool notConsole) const;

private:
    std::vector<ConsoleFont> m_aFonts;
};

class CConsole;

// Base of objects that print themselves on a console and into Markdown (tables).
class TAVRIN_API CTextObject
{
public:
    CTextObject() = default;
    CTextObject(const CTextObject&) = default;
    CTextObject& operator=(const CTextObject&) = default;
    virtual ~CTextObject();

    virtual ustring GetCaption() const = 0;
    // Draws the object on the console (no Markdown); `caption`, when not empty, is printed above it.
    virtual void PrintToConsole(CConsole& console, const ConsoleFont& font,
                                CConsoleBase::ESeverity severity, bool consoleOnly,
                                const ustring& caption) const = 0;
    // Appends the object's Markdown form.
    virtual void SaveToMarkdown(ustring& markdown) const = 0;
};

// The library's console. Output goes to the process's standard streams, switched to UTF-16 text
// mode: font changes (escape sequences) to standard output, text to standard error.
class TAVRIN_API CConsole : public CConsoleBase
{
public:
    // `capture` receives every printed text, `markdown` the Markdown copy; both are owned by the
    // caller and must outlive the console. `useEscapeSequences` forces escape sequences even on
    // a real console; redirected output always uses them.
    CConsole(bool useEscapeSequences, ustring& capture, ustring& markdown);
    // Flushes the Markdown copy and restores the default font.
    ~CConsole() override;

    // A text object (table) with a caption (empty: the object's own caption).
    virtual void Print(const ConsoleFont& font, ESeverity severity, bool consoleOnly,
                       const CTextObject& object, const ustring& caption, EOutput output = OutputAll);
    virtual void Print(ESeverity severity, bool consoleOnly, const CTextObject& object,
                       const ustring& caption, EOutput output = OutputAll);

    void Print(const ConsoleFont& font, ESeverity severity, bool consoleOnly, const ustring& text,
               EOutput output = OutputAll) override;
    void Print(ESeverity severity, bool consoleOnly, const ustring& text,
               EOutput output = OutputAll) override;
    void Print(const ConsoleFont& font, ESeverity severity, bool consoleOnly, wchar_t ch) override;
    void Print(ESeverity severity, bool consoleOnly, wchar_t ch) override;
    void VPrintF(const ConsoleFont& font, ESeverity severity, bool consoleOnly,
                 const wchar_t* format, va_list args) override;
    void VPrintF(ESeverity severity, bool consoleOnly, const wchar_t* format, va_list args) override;
    CCriticalSection& CriticalSection() override;

    // Stacks `font` on the default font and makes it the stream's style: escape sequences on
    // standard output when they are used (true), else SetConsoleTextAttribute (its result).
    virtual bool ApplyFont(const ConsoleFont& font);
    // The font used by the forms without a font; stacked on the default font when printing.
    void SetCurrentFont(const ConsoleFont& font);
    ConsoleFont GetCurrentFont() const;
    // The console's own colours at construction (black on white when redirected).
    ConsoleFont GetDefaultFont() const;
    // Applies the default font.
    bool RestoreDefaults();
    // Cursor column of the console screen buffer; 0 when output is not a console.
    unsigned short GetConsoleCursorPositionX() const;
    // Writes the pending Markdown buffer into the Markdown string.
    void Flush();
    // True when the program runs under the TeamCity build server (TEAMCITY_VERSION is set).
    bool IsRunningUnderTeamCity() const;

    // Whether standard output is a real console / whether escape sequences are used.
    bool IsConsole() const { return !m_bNotConsole; }
    bool UsesEscapeSequences() const { return m_bUseEscapeSequences; }

    // The default font with `font` stacked on it.
    ConsoleFontChain CreateConsoleFontChain(const ConsoleFont& font) const;

protected:
    // Writes text in `font` (already combined with the severity): "\r" removed, font applied,
    // text to standard error unless `consoleOnly` on a redirected stream, text appended to the
    // capture; then the Markdown copy unless `output` excludes it.
    virtual void PrintToConsole(const ConsoleFont& font, ESeverity severity, bool consoleOnly,
                                const ustring& text, EOutput output = OutputAll);
    // Adds text to the Markdown buffer (severities 0, 2 and 3 only); a text with "\r\n" flushes it.
    virtual void SaveToMarkdown(const ConsoleFont& font, ESeverity severity, const ustring& text);
    // Turns the Markdown buffer into Markdown text appended to the Markdown string.
    void FlushMarkdownBuffer();
    // `font` with the severity's colour stacked on it.
    ConsoleFont ComposeFont(const ConsoleFont& font, ESeverity severity) const;

private:
    mutable CCriticalSection m_CriticalSection;
    HANDLE m_hStdOut;
    bool m_bNotConsole;
    bool m_bUseEscapeSequences;
    ustring& m_strCapture;
    ustring& m_strMarkdown;
    ConsoleFont m_DefaultFont;
    ConsoleFont m_CurrentFont;
    std::vector<std::pair<ConsoleFont, ustring>> m_aMarkdownBuffer;
    bool m_bTeamCity;
};

// One cell of a table: its text (line breaks allowed) and its font, stacked on the table's font.
struct TableItem
{
    TableItem() = default;
    TableItem(const ustring& text) : m_strText(text) {}
    TableItem(const ustring& text, const ConsoleFont& font) : m_strText(text), m_Font(font) {}

    bool operator==(const TableItem& other) const
    {
        return m_strText == other.m_strText && m_Font == other.m_Font;
    }
    bool operator!=(const TableItem& other) const { return !(*this == other); }

    ustring m_strText;
    ConsoleFont m_Font;
};

// A bordered console table, also written as a Markdown table. Items longer than the column
// limit, and items with line breaks, are wrapped over several lines.
class TAVRIN_API CTable : public CTextObject
{
public:
    enum EBorderStyle : int
    {
        BorderNone = 0,   // columns separated by two spaces, no lines
        BorderAscii = 1,  // +---+ and |
        BorderSingle = 2, // single box-drawing lines
        BorderDouble = 3  // double box-drawing lines
    };

    static const unsigned int npos = 0xFFFFFFFFu;

    // `header`: the first row is a header, set off by a separator (and the Markdown header row).
    explicit CTable(bool header = true, EBorderStyle style = BorderSingle,
                    const ustring& caption = ustring());
    ~CTable() override;

    // Inserts a row before row `index` (npos or past the end: appends).
    void InsertRow(const TableItem& item, unsigned int index = npos);
    void InsertRow(const std::vector<TableItem>& items, unsigned int index = npos);
    void InsertRow(const std::vector<ustring>& items, unsigned int index = npos);
    // The text split at every `separator` (empty pieces kept, so "a||b" has three cells).
    void InsertRow(const ustring& text, wchar_t separator, unsigned int index = npos);
    // False when there is no such row.
    bool DeleteRow(unsigned int index);
    void Clear();
    unsigned int GetNumberOfRows() const;
    // The length of the longest row.
    unsigned int GetNumberOfColumns() const;
    const std::vector<TableItem>& GetRow(unsigned int index) const { return m_aRows.at(index); }

    // Widest column on the console before items wrap (at least 1; 48 by default).
    void SetMaxColumnWidth(unsigned int width);
    unsigned int GetMaxColumnWidth() const { return m_nMaxColumnWidth; }

    bool operator==(const CTable& other) const;
    bool operator!=(const CTable& other) const { return !(*this == other); }

    ustring GetCaption() const override;
    void PrintToConsole(CConsole& console, const ConsoleFont& font, CConsoleBase::ESeverity severity,
                        bool consoleOnly, const ustring& caption) const override;
    // "| a | b |" rows; the alignment row is "|:---:|...|:---:|\r\n"; a table without header
    // gets an empty header row, as Markdown requires one.
    void SaveToMarkdown(ustring& markdown) const override;

protected:
    // Which horizontal line: above the table, below the header, below the table.
    enum ESeparator : int
    {
        SeparatorTop = 0,
        SeparatorHeader = 1,
        SeparatorBottom = 2
    };

    void PrintHorizontalSeparatorToConsole(CConsole& console, const ConsoleFont& font,
                                           CConsoleBase::ESeverity severity, bool consoleOnly,
                                           const std::vector<unsigned int>& widths,
                                           ESeparator kind) const;
    // Number of console lines the item takes in a column of `width`.
    unsigned int GetItemLinesCount(const TableItem& item, unsigned int width) const;
    // Line `line` of the wrapped item, padded with spaces to `width`.
    ustring GetItemToPrint(const TableItem& item, unsigned int width, unsigned int line) const;
    // Column widths on the console.
    std::vector<unsigned int> GetColumnWidths() const;

private:
    bool m_bHeader;
    EBorderStyle m_eBorderStyle;
    ustring m_strCaption;
    std::vector<std::vector<TableItem>> m_aRows;
    unsigned int m_nMaxColumnWidth;
};

// Percentage progress lines ("42%" or "42.5%"), throttled.
class TAVRIN_API CConsoleProgress
{
public:
    // A line is printed when the value moved by at least `minStepPermille` (per mille) and at
    // least `minIntervalMs` passed since the last line; the first value and 100% always print.
    // A step below 10 per mille prints one decimal ("%ls%u.%01u%%\r\n"), else whole percent.
    CConsoleProgress(CConsole& console, CConsoleBase::ESeverity severity = CConsoleBase::SeverityInfo,
                     bool consoleOnly = true, unsigned long minIntervalMs = 250,
                     unsigned int minStepPermille = 10);
    CConsoleProgress(const CConsoleProgress&) = delete;
    CConsoleProgress& operator=(const CConsoleProgress&) = delete;
    ~CConsoleProgress();

    // True when a line was printed. `done` beyond `total` counts as complete; a total of 0 as
    // complete.
    bool UpdateProgress(unsigned long long done, unsigned long long total);
    // Forgets the last line, so the next update prints.
    void Reset();

private:
    CConsole& m_Console;
    CConsoleBase::ESeverity m_eSeverity;
    bool m_bConsoleOnly;
    unsigned long m_nMinIntervalMs;
    unsigned int m_nMinStepPermille;
    unsigned int m_nLastPermille; // 0xFFFFFFFF: nothing printed yet
    CStopWatch m_StopWatch;       // time since the last line
};

} // namespace tavrin
