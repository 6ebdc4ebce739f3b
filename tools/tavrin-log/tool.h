// tavrin-log: the pieces that the commands share. Each command is one entry of the command table
// in main.cpp (a name, its options and a function over the parsed command line), so that a new
// command is one more entry and one more source file.
#pragma once

#include <tavrin/core/exception.h>
#include <tavrin/core/file.h>
#include <tavrin/core/ustring.h>
#include <tavrin/log/console.h>
#include <tavrin/log/logreader.h>
#include <tavrin/util/commandlineparser.h>
#include <tavrin/util/systemtime.h>

#include <memory>
#include <string>
#include <vector>

namespace tavrinlog {

using tavrin::ustring;
typedef tavrin::CLogFileReader::Record LogRecord;

// Exit codes.
enum EExitCode
{
    kExitOk = 0,
    kExitFailure = 1, // a file could not be read or written, or is no data log
    kExitUsage = 2,   // the command line is wrong
    kExitMismatch = 3 // replay: the application did not do what the recording says
};

// A failure that ends the program with one line of text and an exit code.
class CToolError
{
public:
    CToolError(int exitCode, const ustring& message) : m_nExitCode(exitCode), m_strMessage(message) {}
    int GetExitCode() const { return m_nExitCode; }
    const ustring& GetMessage() const { return m_strMessage; }

private:
    int m_nExitCode;
    ustring m_strMessage;
};

[[noreturn]] void Fail(int exitCode, const wchar_t* format, ...);
// The system's text of an exception: its message, the function and the code.
ustring DescribeException(const tavrin::CStdException& e);

// ---------------------------------------------------------------- command line

// Commands, as bits, so that an option can belong to several.
enum ECommand : unsigned int
{
    kCat = 1,
    kStats = 2,
    kMerge = 4,
    kExport = 8,
    kReplay = 16,
    kAllCommands = 0xFF
};

struct OptionSpec
{
    const wchar_t* pszName;
    const wchar_t* pszValue; // name of the value in the usage text; null for a flag
    unsigned int nCommands;
    const wchar_t* pszHelp;
};

// The command line: the command word, the files, and the options, which the library's parser
// keeps and converts. Items are taken apart here first because the parser keeps no positional
// arguments and takes any item after an option as its value, while a flag here takes none and a
// value here may itself begin with "-" (a time-zone offset such as -05:00).
class CCommandLine
{
public:
    CCommandLine(int argc, wchar_t** argv, wchar_t** envp);

    const ustring& GetCommand() const { return m_strCommand; }
    const std::vector<ustring>& GetFiles() const { return m_vecFiles; }
    // Checks the options against those of `command`; throws a usage error for one that is not.
    void Validate(ECommand command, const wchar_t* commandName) const;

    bool Has(const wchar_t* name) const;
    bool Get(const wchar_t* name, ustring& value) const;
    // A number option; a usage error when its text is no number in [minimum, maximum].
    bool Get(const wchar_t* name, unsigned int& value, unsigned int minimum, unsigned int maximum) const;
    // A decimal option ("2", "0.5"; the point whatever the user's locale); a usage error outside
    // [minimum, maximum].
    bool Get(const wchar_t* name, double& value, double minimum, double maximum) const;

    static const std::vector<OptionSpec>& Options();

private:
    tavrin::CCommandLineParser m_Parser;
    ustring m_strCommand;
    std::vector<ustring> m_vecFiles;
    std::vector<ustring> m_vecGiven; // option names as given
};

// ---------------------------------------------------------------- output

// Standard output for the records: on a console in colours (the library's console fonts over
// the window's own attributes), otherwise UTF-8 text without any decoration, also with -plain.
// A reader that goes away (a pipe closed by "more" or "findstr /m") ends the writing quietly.
class CStdOut
{
public:
    explicit CStdOut(bool plain);
    ~CStdOut();

    void Write(const ustring& text, tavrin::ConsoleFont::ETextColor colour = tavrin::ConsoleFont::TextUnspecified);
    void Flush();
    bool IsConsole() const { return m_bConsole; }
    // Whether the reader went away.
    bool IsClosed() const { return m_bClosed; }

private:
    HANDLE m_hOut;
    bool m_bConsole;
    bool m_bColour;
    bool m_bClosed;
    WORD m_nAttributes;
    std::string m_Buffer;
};

// Messages and the library's exception reports on standard error, so that they never mix with
// the records on standard output.
class CStdErrConsole : public tavrin::CConsoleBase
{
public:
    CStdErrConsole();
    void Print(ESeverity severity, bool consoleOnly, const ustring& text, EOutput output = OutputAll) override;
    void Print(const tavrin::ConsoleFont& font, ESeverity severity, bool consoleOnly, const ustring& text,
               EOutput output = OutputAll) override;
    void Print(ESeverity severity, bool consoleOnly, wchar_t ch) override;
    void Print(const tavrin::ConsoleFont& font, ESeverity severity, bool consoleOnly, wchar_t ch) override;
    void VPrintF(ESeverity severity, bool consoleOnly, const wchar_t* format, va_list args) override;
    void VPrintF(const tavrin::ConsoleFont& font, ESeverity severity, bool consoleOnly, const wchar_t* format,
                 va_list args) override;
    tavrin::CCriticalSection& CriticalSection() override { return m_cs; }

    // "tavrin-log: <text>" as a warning.
    void Warn(const wchar_t* format, ...);

private:
    tavrin::CCriticalSection m_cs;
    HANDLE m_hErr;
    bool m_bConsole;
};

CStdErrConsole& ErrorConsole();

// A file written under a temporary name beside its final one and renamed only when complete, so
// that a failed export never leaves half a file under the name asked for.
class COutputFile
{
public:
    explicit COutputFile(const ustring& path);
    // Without Commit the temporary file is deleted.
    ~COutputFile();

    void Write(const void* data, std::size_t size);
    void Write(const std::string& text) { Write(text.data(), text.size()); }
    // Writes what is buffered and gives the file its name; throws what the system reports.
    void Commit();
    const ustring& GetPath() const { return m_strPath; }

private:
    void FlushBuffer();

    ustring m_strPath;
    ustring m_strTemporary;
    tavrin::CFile m_File;
    std::string m_Buffer;
    bool m_bCommitted;
};

// ---------------------------------------------------------------- records

// Local time in the form "2024-03-07 09:05:01.123".
ustring FormatTime(const SYSTEMTIME& time);
// Bytes as text: printable ASCII as itself, control characters by name ("<CR>", "<LF>", "<NUL>"),
// DEL and bytes above 0x7F in hexadecimal ("<DEL>", "<C3>").
ustring NameControls(const std::vector<unsigned char>& data);
// Text with its control characters named the same way.
ustring NameControls(const ustring& text);
// "text", "write", "read", "error", "damaged".
const wchar_t* KindName(unsigned int kind);
// One record as cat shows it: the time text, the channel, the direction marker and the record's
// bytes or text, in the record's colour, ending the line.
void WriteRecordLine(CStdOut& out, const ustring& time, const ustring& channel, const LogRecord& record, bool hex);

// One input file: its reader, checked to be a data log, with one record read ahead so that the
// last record is known as such.
class CLogSource
{
public:
    // Throws CToolError for a file that cannot be opened or is no data log.
    explicit CLogSource(const ustring& path);

    const ustring& GetPath() const { return m_Reader.GetPath(); }
    // The channel name from the file name, or the file's name when it does not follow the pattern.
    const ustring& GetChannel() const { return m_strChannel; }
    tavrin::CLogFileReader& Reader() { return m_Reader; }

    // The record read ahead, or null at the end of the file.
    const LogRecord* Peek() const { return m_bHasNext ? &m_Next : nullptr; }
    // Moves to the next record; `record` receives the current one.
    bool Next(LogRecord& record);
    // The time by which the record read ahead sorts: its own, or that of the last record with
    // one before it (FILETIME ticks of the local time).
    unsigned __int64 PeekSortTime() const { return m_nNextSortTime; }

private:
    void ReadAhead();

    tavrin::CLogFileReader m_Reader;
    ustring m_strChannel;
    LogRecord m_Next;
    bool m_bHasNext;
    unsigned __int64 m_nNextSortTime;
};

// The files named on the command line, wildcards expanded, opened and checked.
std::vector<std::unique_ptr<CLogSource>> OpenSources(const CCommandLine& line);

// Records of several sources, one after the other or merged on one time line.
class CRecordStream
{
public:
    CRecordStream(std::vector<std::unique_ptr<CLogSource>>& sources, bool merge);
    // The next record, its source and whether it is the last of its source.
    bool Next(LogRecord& record, std::size_t& source, bool& last);

private:
    std::vector<std::unique_ptr<CLogSource>>& m_Sources;
    bool m_bMerge;
    std::size_t m_nCurrent;
};

// The selection of records by -dir, -from, -to, -text, -nocase and -bytes.
class CRecordFilter
{
public:
    explicit CRecordFilter(const CCommandLine& line);
    bool Accept(const LogRecord& record) const;

private:
    struct TimeBound
    {
        bool bSet;
        bool bTimeOfDay;           // only a time of day was given
        unsigned __int64 nValue;   // FILETIME ticks, or milliseconds since midnight
    };
    static TimeBound ParseTime(const wchar_t* option, const ustring& text, bool upper);
    static bool Matches(const TimeBound& bound, const SYSTEMTIME& time, bool upper);

    unsigned int m_nKinds; // bit per record kind
    TimeBound m_From;
    TimeBound m_To;
    ustring m_strText;
    bool m_bNoCase;
    std::vector<int> m_vecBytes; // -1 for "??"
};

// The commands.
int RunCat(const CCommandLine& line);
int RunMerge(const CCommandLine& line);
int RunStats(const CCommandLine& line);
int RunExport(const CCommandLine& line);
int RunReplay(const CCommandLine& line);

} // namespace tavrinlog
