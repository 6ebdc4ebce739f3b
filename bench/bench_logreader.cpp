// CLogFileReader on large data log files: throughput in MB/s of log text and the reading
// process's peak memory, for a 64 MB file and a large one (1024 MB unless given), to show that
// memory stays flat as files grow.
//
// The files are made of a 64 MB block of mixed records written through CLogFile (data records of
// 1 to 256 bytes, a few of 4 KiB, text events), repeated: a file appended to by many sessions.
// Each file is read in a process of its own, so that the figures hold the reading alone.
//
// Run it under Wine from the build folder: wine bin/tavrin_bench_logreader.exe [megabytes]
#include <tavrin/core/file.h>
#include <tavrin/log/logfile.h>
#include <tavrin/log/logreader.h>

#include <psapi.h>
#include <shellapi.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

using namespace tavrin;

namespace {

const unsigned __int64 kBlockBytes = 64ull << 20;

double Now()
{
    LARGE_INTEGER frequency, counter;
    ::QueryPerformanceFrequency(&frequency);
    ::QueryPerformanceCounter(&counter);
    return static_cast<double>(counter.QuadPart) / static_cast<double>(frequency.QuadPart);
}

// A 64 MB file of records logged through the library.
void WriteBlock(const ustring& path)
{
    CLogFile log(eLogFileDetailVerbose);
    if (!log.Open(path))
    {
        std::fprintf(stderr, "cannot create %ls\n", path.c_str());
        std::exit(1);
    }
    std::vector<unsigned char> data(4096);
    unsigned int state = 12345;
    for (unsigned int i = 0;; ++i)
    {
        state = state * 1103515245u + 12345u;
        const unsigned int choice = (state >> 16) % 100;
        if (choice < 10)
            log.LogText(true, L"Pending read request initiated. Buffer size: %u.", 4096u);
        else
        {
            const unsigned int size = choice < 12 ? 4096u : 1u + (state >> 8) % 256u;
            for (unsigned int b = 0; b < size; ++b)
                data[b] = static_cast<unsigned char>(b * 31 + i);
            if (choice % 2 == 0)
                log.LogSentData(data.data(), size, true);
            else
                log.LogReceivedData(data.data(), size, false);
        }
        // The worker writes at its own pace; the queue is kept short.
        if (i % 2000 == 1999)
        {
            ::Sleep(20);
            if (CFile::GetLength(path) >= kBlockBytes)
                break;
        }
    }
    log.Close();
}

// A file of `megabytes` made of copies of the block.
void Repeat(const ustring& block, const ustring& path, unsigned __int64 megabytes)
{
    std::vector<unsigned char> content(static_cast<std::size_t>(CFile::GetLength(block)));
    {
        CFile in(block, GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
        unsigned int got = 0;
        in.Read(content.data(), static_cast<unsigned int>(content.size()), got);
    }
    CFile out(path, GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    for (unsigned __int64 written = 0; written < (megabytes << 20); written += content.size())
    {
        unsigned int done = 0;
        out.Write(content.data(), static_cast<unsigned int>(content.size()), done);
    }
}

// The child: reads the file once and reports.
int Read(const wchar_t* path)
{
    const double start = Now();
    CLogFileReader reader(path);
    CLogFileReader::Record record;
    unsigned __int64 records = 0, bytes = 0, damaged = 0;
    while (reader.Read(record))
    {
        ++records;
        bytes += record.data.size();
        damaged += record.nKind == CLogFileReader::Record::eDamaged ? 1 : 0;
    }
    const double seconds = Now() - start;
    PROCESS_MEMORY_COUNTERS memory = {};
    memory.cb = sizeof(memory);
    ::K32GetProcessMemoryInfo(::GetCurrentProcess(), &memory, sizeof(memory));
    const double megabytes = static_cast<double>(reader.GetFileSize()) / (1 << 20);
    std::printf("  %6.0f MB file: %9I64u records (%I64u damaged), %7.1f MB of data, %6.2f s, %6.1f MB/s of log "
                "text, peak working set %5.1f MB, peak private bytes %5.1f MB\n",
                megabytes, records, damaged, static_cast<double>(bytes) / (1 << 20), seconds, megabytes / seconds,
                static_cast<double>(memory.PeakWorkingSetSize) / (1 << 20),
                static_cast<double>(memory.PeakPagefileUsage) / (1 << 20));
    std::fflush(stdout);
    return damaged == 0 ? 0 : 1;
}

// Runs this program on `path` in a process of its own.
bool ReadInChild(const ustring& path)
{
    ustring self;
    CFile::GetModuleFileNameW(nullptr, self);
    ustring command = L"\"" + self + L"\" -read \"" + path + L"\"";
    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION process = {};
    if (!::CreateProcessW(nullptr, &command[0], nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup, &process))
        return false;
    ::WaitForSingleObject(process.hProcess, INFINITE);
    DWORD code = 1;
    ::GetExitCodeProcess(process.hProcess, &code);
    ::CloseHandle(process.hThread);
    ::CloseHandle(process.hProcess);
    return code == 0;
}

} // namespace

int main()
{
    int argc = 0;
    wchar_t** argv = ::CommandLineToArgvW(::GetCommandLineW(), &argc);
    if (argc == 3 && ustring(argv[1]) == L"-read")
        return Read(argv[2]);
    const unsigned __int64 megabytes = argc > 1 ? std::wcstoull(argv[1], nullptr, 10) : 1024;

    ustring folder;
    CFile::GetTempPathW(folder);
    folder += ustring::sprintf_stc(L"tavrin-bench-reader-%lu", ::GetCurrentProcessId());
    CFile::CreateFolder(folder);
    const ustring block = folder + L"\\COM1-2024.03.07-09.05.01.123.log";
    const ustring large = folder + L"\\COM2-2024.03.07-09.05.01.123.log";

    std::printf("CLogFileReader, %u-bit\n", static_cast<unsigned int>(sizeof(void*) * 8));
    const double start = Now();
    WriteBlock(block);
    std::printf("  writing the 64 MB block through CLogFile took %.1f s\n", Now() - start);
    Repeat(block, large, megabytes);
    const bool ok = ReadInChild(block) && ReadInChild(large);

    CFile::DeleteFileW(block);
    CFile::DeleteFileW(large);
    ::RemoveDirectoryW(folder);
    return ok ? 0 : 1;
}
