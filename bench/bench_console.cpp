// The console's printing cost against the writes it must make anyway. With output redirected,
// every printed line costs an escape sequence written and flushed on standard output and the
// text written and flushed on standard error; the baseline makes exactly these calls with
// prepared text. The library's figure also holds its plain-text capture and Markdown copy.
//
// Run it under Wine from the build folder: wine bin/tavrin_bench_console.exe
#include <tavrin/log/console.h>

#include "bench_support.h"

#include <fcntl.h>
#include <io.h>

#include <cstdio>
#include <string>

using namespace tavrin;

namespace {

const unsigned int kLines = 100000;
const unsigned int kRounds = 20;

// Standard output and error redirected into two files while the object lives, as when a
// program's output is redirected; the original streams come back, in narrow text mode.
class CRedirect
{
public:
    CRedirect()
    {
        wchar_t folder[MAX_PATH] = {};
        ::GetTempPathW(MAX_PATH, folder);
        const std::wstring stem = std::wstring(folder) + L"tavrin_bench_console_" + std::to_wstring(::GetCurrentProcessId());
        m_strOut = stem + L"_out.txt";
        m_strErr = stem + L"_err.txt";
        std::fflush(stdout);
        std::fflush(stderr);
        m_nSavedOut = ::_dup(1);
        m_nSavedErr = ::_dup(2);
        Attach(m_strOut, 1);
        Attach(m_strErr, 2);
    }

    ~CRedirect()
    {
        std::fflush(stdout);
        std::fflush(stderr);
        for (int fd : {1, 2})
            ::_setmode(fd, _O_TEXT);
        ::_dup2(m_nSavedOut, 1);
        ::_dup2(m_nSavedErr, 2);
        ::_close(m_nSavedOut);
        ::_close(m_nSavedErr);
        for (int fd : {1, 2})
            ::_setmode(fd, _O_TEXT);
        ::DeleteFileW(m_strOut.c_str());
        ::DeleteFileW(m_strErr.c_str());
    }

private:
    static void Attach(const std::wstring& path, int fd)
    {
        const int file = ::_wopen(path.c_str(), _O_WRONLY | _O_CREAT | _O_TRUNC | _O_BINARY, 0600);
        ::_dup2(file, fd);
        ::_close(file);
    }

    std::wstring m_strOut, m_strErr;
    int m_nSavedOut = -1, m_nSavedErr = -1;
};

} // namespace

int main()
{
    std::vector<double> ratios, libraryNs, baselineNs;
    std::size_t captured = 0, markdown = 0;
    {
        const CRedirect redirect;
        ustring capture, markdownText;
        CConsole console(false, capture, markdownText);
        // The sequence the console writes for its default font on a redirected stream.
        const ustring sequence = console.CreateConsoleFontChain(console.GetCurrentFont()).ComposeEscapeSequence(true);

        std::vector<ustring> lines;
        std::vector<std::wstring> plainLines;
        for (unsigned int i = 0; i < kLines / kRounds; ++i)
        {
            lines.push_back(L"Copied block " + std::to_wstring(i) + L" of the test file to the device.\r\n");
            plainLines.push_back(L"Copied block " + std::to_wstring(i) + L" of the test file to the device.\n");
        }
        const auto library = [&] {
            for (const ustring& line : lines)
                console.Print(CConsoleBase::SeverityInfo, false, line);
        };
        const auto baseline = [&] {
            for (const std::wstring& line : plainLines)
            {
                std::fputws(sequence.c_str(), stdout);
                std::fflush(stdout);
                std::fputws(line.c_str(), stderr);
                std::fflush(stderr);
            }
        };
        for (unsigned int round = 0; round < kRounds; ++round)
        {
            double l = 0, b = 0;
            if (round % 2 == 0)
            {
                l = bench::Time(library, 1);
                b = bench::Time(baseline, 1);
            }
            else
            {
                b = bench::Time(baseline, 1);
                l = bench::Time(library, 1);
            }
            ratios.push_back(l / b);
            libraryNs.push_back(l * 1e9 / lines.size());
            baselineNs.push_back(b * 1e9 / lines.size());
            // The capture and the Markdown copy belong to the run; keep them from growing across rounds.
            captured += capture.size();
            markdown += markdownText.size();
            capture.clear();
            markdownText.clear();
        }
    }
    bench::Ratio r;
    r.median = bench::Percentile(ratios, 0.5);
    r.low = bench::Percentile(ratios, 0.1);
    r.high = bench::Percentile(ratios, 0.9);
    r.libraryNs = bench::Percentile(libraryNs, 0.5);
    r.baselineNs = bench::Percentile(baselineNs, 0.5);
    std::printf("Console printing with output redirected: %u lines in %u alternating rounds (times per line)\n", kLines,
                kRounds);
    bench::PrintHeader("CConsole::Print against the two flushed writes per line");
    const bool met = bench::Report("Print(info, line + \"\\r\\n\")", r, 1.5);
    std::printf("  (captured %zu code units of text and %zu of Markdown)\n", captured, markdown);
    return bench::Finish(met ? 0 : 1);
}
