// A program that the log tests start to log and then end in a given way, or to flood or fill a
// log file. It writes what it observed to "report.txt" in its folder as key=value lines; the
// test reads that and the log file after the program has ended.
//
//   tavrin_logtest_child exit <how> <folder> <records> <formatterMs> <delayMs>
//       logs <records> data records (the formatter, when <formatterMs> is not 0, takes that long
//       per record), waits <delayMs> and ends by <how>: return, exit, ExitProcess or throw.
//   tavrin_logtest_child holder <how> <folder> <records>
//       logs <records> text events, then another thread logs one more through a proxy and keeps
//       the proxy (and the log file's lock) while the program ends.
//   tavrin_logtest_child loggers <how> <folder> <threads> <ms>
//       <threads> threads log text events through proxies without pause; after each call they
//       store how many returned in "counts.bin", a file mapping that outlives the process; the
//       program ends after <ms>.
//   tavrin_logtest_child flood <folder> <threads> <ms> <limit>
//       <threads> threads log 64-byte records on one channel with the queue limit <limit> for
//       <ms>; a monitor samples the file's size, the queue and the process's memory.
//   tavrin_logtest_child diskfull <folder> <logFolder>
//       logs into <logFolder> (on a small volume) until writing fails, then goes on logging; the
//       report goes to <folder>.
#include <tavrin/log/logfile.h>

#include <psapi.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

using namespace tavrin;

namespace {

const unsigned int kChannel = 1;
unsigned int g_nFormatterMs = 0;
// Where the report goes, and where the log files go.
std::wstring g_strFolder;
std::wstring g_strLogFolder;

ustring __stdcall SlowFormatter(const std::vector<unsigned char>& data)
{
    ::Sleep(g_nFormatterMs);
    unsigned int index = 0;
    if (data.size() >= 4)
        index = data[0] | data[1] << 8 | data[2] << 16 | static_cast<unsigned int>(data[3]) << 24;
    return ustring::sprintf_stc(L"formatted record %u\r\n", index);
}

void Report(const std::string& lines)
{
    const std::wstring path = g_strFolder + L"\\report.txt";
    HANDLE file = ::CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr, CREATE_ALWAYS,
                                FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE)
        return;
    DWORD written = 0;
    ::WriteFile(file, lines.data(), static_cast<DWORD>(lines.size()), &written, nullptr);
    ::CloseHandle(file);
}

std::string Line(const char* key, unsigned long long value)
{
    return std::string(key) + "=" + std::to_string(value) + "\r\n";
}

void StartLog(unsigned int formatterMs, std::size_t limit = CLogFile::m_nDefaultQueueLimit)
{
    g_nFormatterMs = formatterMs;
    CLogFileServer::Ref().SetFolder(g_strLogFolder.c_str(), false);
    CLogFileServer::Ref().SetDetail(eLogFileDetailVerbose);
    CLogFileServer::Ref().SetQueueLimit(limit);
    if (!CLogFileServer::Ref().CreateLogFile(kChannel, L"child", formatterMs != 0 ? &SlowFormatter : nullptr))
    {
        std::fprintf(stderr, "the log file cannot be created\n");
        std::exit(2);
    }
}

// A data record whose first four bytes are its index.
void LogIndexed(unsigned int index, std::size_t size)
{
    unsigned char bytes[128] = {};
    for (std::size_t i = 0; i < sizeof(bytes); ++i)
        bytes[i] = static_cast<unsigned char>(i * 7);
    bytes[0] = static_cast<unsigned char>(index);
    bytes[1] = static_cast<unsigned char>(index >> 8);
    bytes[2] = static_cast<unsigned char>(index >> 16);
    bytes[3] = static_cast<unsigned char>(index >> 24);
    CLogFileProxy proxy(kChannel);
    proxy().LogSentData(bytes, static_cast<unsigned int>(std::min(size, sizeof(bytes))), true);
}

[[noreturn]] void End(const std::wstring& how)
{
    if (how == L"exit")
        std::exit(0);
    if (how == L"ExitProcess")
        ::ExitProcess(0);
    if (how == L"throw")
        throw std::runtime_error("uncaught on purpose");
    // "return": the caller returns from main instead.
    std::exit(0);
}

int Exit(const std::wstring& how, unsigned int records, unsigned int formatterMs, unsigned int delayMs)
{
    StartLog(formatterMs);
    for (unsigned int i = 0; i < records; ++i)
        LogIndexed(i, 16);
    ::Sleep(delayMs);
    if (how != L"return")
        End(how);
    return 0;
}

int Holder(const std::wstring& how, unsigned int records)
{
    StartLog(0);
    for (unsigned int i = 0; i < records; ++i)
    {
        CLogFileProxy proxy(kChannel);
        proxy().LogText(true, L"record %u", i);
    }
    HANDLE ready = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
    std::thread([ready] {
        CLogFileProxy proxy(kChannel);
        proxy().LogText(true, L"logged by the holder");
        ::SetEvent(ready);
        ::Sleep(INFINITE);
    }).detach();
    ::WaitForSingleObject(ready, 10000);
    ::Sleep(150); // the worker tries the lock a few times in vain
    if (how != L"return")
        End(how);
    return 0;
}

int Loggers(const std::wstring& how, unsigned int threads, unsigned int ms)
{
    // Unbounded: records must not be dropped here, only cut off by the exit.
    StartLog(0, static_cast<std::size_t>(-1));
    const std::wstring countsPath = g_strFolder + L"\\counts.bin";
    HANDLE file = ::CreateFileW(countsPath.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ, nullptr,
                                CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    HANDLE mapping = ::CreateFileMappingW(file, nullptr, PAGE_READWRITE, 0, threads * sizeof(LONG), nullptr);
    auto* counts = static_cast<volatile LONG*>(::MapViewOfFile(mapping, FILE_MAP_WRITE, 0, 0, 0));
    if (counts == nullptr)
        return 3;
    for (unsigned int t = 0; t < threads; ++t)
    {
        std::thread([t, counts] {
            for (unsigned int i = 0;; ++i)
            {
                {
                    CLogFileProxy proxy(kChannel);
                    proxy().LogText(true, L"T%u #%u", t, i);
                }
                ::InterlockedExchange(&counts[t], static_cast<LONG>(i + 1));
            }
        }).detach();
    }
    ::Sleep(ms);
    if (how != L"return")
        End(how);
    return 0;
}

unsigned long long FileSize(const std::wstring& folder)
{
    unsigned long long total = 0;
    WIN32_FIND_DATAW data;
    HANDLE find = ::FindFirstFileW((folder + L"\\*.log").c_str(), &data);
    if (find == INVALID_HANDLE_VALUE)
        return 0;
    do
        total += (static_cast<unsigned long long>(data.nFileSizeHigh) << 32) | data.nFileSizeLow;
    while (::FindNextFileW(find, &data));
    ::FindClose(find);
    return total;
}

// The process's committed private memory, now or at its peak (PagefileUsage: Wine leaves
// PrivateUsage empty).
unsigned long long PrivateBytes(bool peak = false)
{
    PROCESS_MEMORY_COUNTERS counters = {};
    counters.cb = sizeof(counters);
    if (!::GetProcessMemoryInfo(::GetCurrentProcess(), &counters, sizeof(counters)))
        return 0;
    return peak ? counters.PeakPagefileUsage : counters.PagefileUsage;
}

int Flood(unsigned int threads, unsigned int ms, std::size_t limit)
{
    StartLog(0, limit);
    // The threads (and their stacks) exist before the memory is first measured.
    std::atomic<bool> go(false), stop(false);
    std::vector<unsigned long long> calls(threads, 0);
    std::vector<std::thread> workers;
    for (unsigned int t = 0; t < threads; ++t)
    {
        workers.emplace_back([t, &go, &stop, &calls] {
            unsigned char bytes[64];
            for (unsigned int i = 0; i < sizeof(bytes); ++i)
                bytes[i] = static_cast<unsigned char>(t * 16 + i);
            while (!go.load())
                ::Sleep(1);
            unsigned long long count = 0;
            while (!stop.load(std::memory_order_relaxed))
            {
                CLogFileProxy proxy(kChannel);
                proxy().LogReceivedData(bytes, sizeof(bytes), false);
                ++count;
            }
            calls[t] = count;
        });
    }
    ::Sleep(100);
    const unsigned long long memoryBefore = PrivateBytes();
    const ULONGLONG start = ::GetTickCount64();
    go = true;
    // Samples every 200 ms: the file's size, the queue, the process's memory.
    std::string samples;
    unsigned long long maxQueued = 0, maxMemory = 0;
    while (::GetTickCount64() - start < ms)
    {
        ::Sleep(200);
        CLogFile::Status status = {};
        CLogFileServer::Ref().GetStatus(kChannel, status);
        const unsigned long long memory = PrivateBytes();
        maxQueued = std::max<unsigned long long>(maxQueued, status.nQueuedBytes);
        maxMemory = std::max(maxMemory, memory);
        samples += std::to_string(::GetTickCount64() - start) + ":" + std::to_string(FileSize(g_strLogFolder)) + ",";
    }
    stop = true;
    for (std::thread& worker : workers)
        worker.join();
    maxMemory = std::max(maxMemory, PrivateBytes(true));
    const boost::shared_ptr<CLogFile> file = CLogFileServer::Ref().FindLogFile(kChannel);
    CLogFileServer::Ref().CloseLogFile(kChannel);
    const ULONGLONG closeStart = ::GetTickCount64();
    file->Close();
    const ULONGLONG closeMs = ::GetTickCount64() - closeStart;
    const CLogFile::Status status = file->GetStatus();

    unsigned long long total = 0;
    for (unsigned long long count : calls)
        total += count;
    Report(Line("calls", total) + Line("written", status.nWritten) + Line("dropped", status.nDropped) +
           Line("limit", status.nQueueLimit) + Line("max_queued", maxQueued) + Line("memory_before", memoryBefore) +
           Line("memory_max", maxMemory) + Line("close_ms", closeMs) + "samples=" + samples + "\r\n");
    return 0;
}

int DiskFull()
{
    StartLog(0);
    const boost::shared_ptr<CLogFile> file = CLogFileServer::Ref().FindLogFile(kChannel);
    unsigned int logged = 0;
    const ULONGLONG start = ::GetTickCount64();
    while (file->GetStatus().bRunning && ::GetTickCount64() - start < 20000)
    {
        LogIndexed(logged++, 100);
        if (logged % 16 == 0)
            ::Sleep(1);
    }
    // Wait for the worker to have given up on what was left queued.
    const CLogFile::Status stopped = file->GetStatus();
    // Logging goes on, ignored; the next proxy drops the broken file from the server, which
    // still reports it.
    for (unsigned int i = 0; i < 10; ++i)
        LogIndexed(logged + i, 100);
    CLogFile::Status reported = {};
    const bool found = CLogFileServer::Ref().GetStatus(kChannel, reported);
    Report(Line("logged", logged) + Line("running", stopped.bRunning) +
           Line("error", static_cast<unsigned long>(stopped.nError)) + Line("written", stopped.nWritten) +
           Line("in_map", CLogFileServer::Ref().LogFileExists(kChannel)) + Line("reported", found) +
           Line("reported_running", reported.bRunning) +
           Line("reported_error", static_cast<unsigned long>(reported.nError)) +
           Line("reported_written", reported.nWritten));
    return 0;
}

} // namespace

int wmain(int argc, wchar_t** argv)
{
    if (argc < 3)
        return 2;
    const std::wstring scenario = argv[1];
    auto number = [&](int i) { return i < argc ? static_cast<unsigned int>(std::wcstoul(argv[i], nullptr, 10)) : 0u; };
    if (scenario == L"exit" && argc >= 7)
    {
        g_strFolder = g_strLogFolder = argv[3];
        return Exit(argv[2], number(4), number(5), number(6));
    }
    if (scenario == L"holder" && argc >= 5)
    {
        g_strFolder = g_strLogFolder = argv[3];
        return Holder(argv[2], number(4));
    }
    if (scenario == L"loggers" && argc >= 6)
    {
        g_strFolder = g_strLogFolder = argv[3];
        return Loggers(argv[2], number(4), number(5));
    }
    if (scenario == L"flood" && argc >= 6)
    {
        g_strFolder = g_strLogFolder = argv[2];
        return Flood(number(3), number(4), number(5));
    }
    if (scenario == L"diskfull" && argc >= 4)
    {
        g_strFolder = argv[2];
        g_strLogFolder = argv[3];
        return DiskFull();
    }
    return 2;
}
