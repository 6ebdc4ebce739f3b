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

// Points a standard descriptor and its standard handle at a new file, as when a program's output
// is redirected; returns a duplicate of what the descriptor pointed at.
int RedirectToFile(int fd, const std::wstring& path)
{
    std::fflush(fd == 1 ? stdout : stderr);
    const int saved = ::_dup(fd);
    const int file = ::_wopen(path.c_str(), _O_WRONLY | _O_CREAT | _O_TRUNC | _O_BINARY, 0600);
    ::_dup2(file, fd);
    ::_close(file);
    ::SetStdHandle(fd == 1 ? STD_OUTPUT_HANDLE : STD_ERROR_HANDLE, reinterpret_cast<HANDLE>(::_get_osfhandle(fd)));
    return saved;
}

// Points the descriptor back, in the narrow text mode the rest of the program prints in.
void RestoreFrom(int fd, int saved)
{
    std::fflush(fd == 1 ? stdout : stderr);
    ::_setmode(fd, _O_TEXT);
    ::_dup2(saved, fd);
    ::_close(saved);
    ::_setmode(fd, _O_TEXT);
    ::SetStdHandle(fd == 1 ? STD_OUTPUT_HANDLE : STD_ERROR_HANDLE, reinterpret_cast<HANDLE>(::_get_osfhandle(fd)));
}

std::wstring TempFile(const wchar_t* name)
{
    wchar_t folder[MAX_PATH] = {};
    ::GetTempPathW(MAX_PATH, folder);
    return std::wstring(folder) + L"tavrin_bench_console_" + std::to_wstring(::GetCurrentProcessId()) + name;
}

} // namespace

int main()
{
    std::vector<double> ratios, libraryNs, baselineNs;
    std::size_t captured = 0, markdown = 0;
    const std::wstring outFile = TempFile(L"_out.txt"), errFile = TempFile(L"_err.txt");
    const int savedOut = RedirectToFile(1, outFile);
    const int savedErr = RedirectToFile(2, errFile);
    {
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
    RestoreFrom(1, savedOut);
    RestoreFrom(2, savedErr);
    ::DeleteFileW(outFile.c_str());
    ::DeleteFileW(errFile.c_str());
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
