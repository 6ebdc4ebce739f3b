// Everything tavrin-term shows: messages, traffic lines and tables on the console (in colour, or
// plain UTF-8 lines for pipes), and the session's Markdown report.
#pragma once

#include "options.h"

#include <tavrin/core/exception.h>
#include <tavrin/log/console.h>
#include <tavrin/util/systemtime.h>

#include <memory>

namespace term {

// The library's console with the styles tavrin-term needs: no colour at all (-color never,
// NO_COLOR), colours on a redirected stream that keep the terminal's own background, and plain
// UTF-8 text on standard output (-plain). The Markdown copy is the console's in every case.
class CTermConsole : public tavrin::CConsole
{
public:
    enum EStyle
    {
        StyleColor, // the console's colours (escape sequences when redirected)
        StyleMono,  // no colours or styles
        StylePlain  // UTF-8 text on standard output, no colours
    };

    // `plainOut` is the stream of the plain style (INVALID_HANDLE_VALUE otherwise).
    CTermConsole(EStyle style, HANDLE plainOut, tavrin::ustring& capture, tavrin::ustring& markdown);
    ~CTermConsole() override;

    bool ApplyFont(const tavrin::ConsoleFont& font) override;
    EStyle Style() const { return m_eStyle; }

protected:
    void PrintToConsole(const tavrin::ConsoleFont& font, ESeverity severity, bool consoleOnly,
                        const tavrin::ustring& text, EOutput output = OutputAll) override;

private:
    EStyle m_eStyle;
    HANDLE m_hPlainOut;
};

// Which way a traffic line went, or what kind of message it is.
enum EMark
{
    MarkSent,     // "TX"
    MarkReceived, // "RX"
    MarkInfo,     // "--"
    MarkError     // "!!"
};

class CTermOutput
{
public:
    explicit CTermOutput(const Options& options);
    ~CTermOutput();
    CTermOutput(const CTermOutput&) = delete;
    CTermOutput& operator=(const CTermOutput&) = delete;

    tavrin::CConsole& Console() { return *m_pConsole; }
    bool Plain() const { return m_pConsole->Style() == CTermConsole::StylePlain; }
    tavrin::CTable::EBorderStyle TableStyle() const;

    // A message line, shown and kept for the report's transcript.
    void Message(tavrin::CConsoleBase::ESeverity severity, const tavrin::ustring& text);
    // A message on the console only (prompts, help texts of the interactive console).
    void Note(const tavrin::ustring& text);
    // A traffic line: `text` shown after the time stamp (when on) and the direction mark;
    // `detail` lines (a hex dump) follow it, indented.
    void Traffic(EMark mark, const tavrin::CSystemTime& time, const tavrin::ustring& text,
                 const std::vector<tavrin::ustring>& detail);
    // The exception block of the library, then a one-line hint; both kept for the report.
    void Failure(const tavrin::CStdException& e, const wchar_t* file, unsigned int line, const tavrin::ustring& hint);
    // A table on the console and, when `toReport`, in the report (`header`: its first row is
    // the header, as the table was made).
    void Table(const tavrin::CTable& table, bool toReport, bool header = true);
    // A heading in the report only.
    void ReportHeading(const tavrin::ustring& text, tavrin::ConsoleFont::EBold level);

    // The report's transcript keeps the first lines of a session; a flood of traffic is the data
    // log file's business, not the memory's.
    static const unsigned int kMaxTranscriptRows = 2000;

    // Writes the report: headings and tables written so far, the transcript and then `closing`
    // (tables for the end of the report). False, with `error`, when the file cannot be written.
    bool WriteReport(const tavrin::ustring& path, tavrin::ustring& error);
    // The report's transcript table (time, direction, text).
    const tavrin::CTable& Transcript() const { return m_Transcript; }
    void PrintTranscriptToReport();
    // Starts a new transcript (one per session).
    void StartTranscript();

    bool Timestamps() const { return m_bTimestamps; }
    void SetTimestamps(bool on) { m_bTimestamps = on; }

private:
    void AddTranscriptRow(EMark mark, const tavrin::CSystemTime& time, const tavrin::ustring& text);
    static const wchar_t* MarkText(EMark mark);

    tavrin::ustring m_strCapture;
    tavrin::ustring m_strMarkdown;
    HANDLE m_hPlainOut;
    std::unique_ptr<CTermConsole> m_pConsole;
    tavrin::CTable m_Transcript;
    unsigned int m_nTranscriptOmitted; // lines past kMaxTranscriptRows, left to the data log file
    bool m_bTimestamps;
};

// Time of a traffic line: "09:05:01.123".
tavrin::ustring FormatTime(const tavrin::CSystemTime& time);

} // namespace term
