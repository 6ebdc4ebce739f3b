// Data log files against spdlog's asynchronous file logger.
//
// Measures, in one run:
//   - the caller's cost of logging one 64-byte data record and one short text event through a
//     CLogFileProxy (the work that stays on the communicating thread): warm, at a steady rate
//     that the worker keeps up with, and cold, the first burst on a new file;
//   - the worker's sustained throughput in MB/s of payload (data bytes logged), from the first
//     record until everything is on disk, for 64-byte and 4 KiB records;
//   - 8 threads logging 100,000 records each to one channel: time, and that nothing was lost;
//   - the same caller costs and throughput for spdlog's asynchronous file logger writing an
//     equivalent record (header, time stamp, 32-byte hexadecimal lines with a text column).
// The spdlog figures are left out when the build found no spdlog headers.
//
// Run it under Wine from the build folder: wine bin/tavrin_bench.exe
#include <tavrin/core/file.h>
#include <tavrin/log/logfile.h>

#ifdef TAVRIN_BENCH_SPDLOG
#include <spdlog/async.h>
#include <spdlog/fmt/bin_to_hex.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>
#endif

#include <algorithm>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

using namespace tavrin;

namespace {

const unsigned int kCallerRecords = 1000; // per round
const unsigned int kCallerRounds = 100;   // warm rounds after the cold one
const DWORD kCallerPauseMs = 10;          // after each round: about 100,000 calls a second at most
const unsigned int kThroughputRecords64 = 100000;
const unsigned int kThroughputRecords4K = 5000;
const unsigned int kThreads = 8;
const unsigned int kRecordsPerThread = 100000;

double Now()
{
    LARGE_INTEGER frequency, counter;
    ::QueryPerformanceFrequency(&frequency);
    ::QueryPerformanceCounter(&counter);
    return static_cast<double>(counter.QuadPart) / static_cast<double>(frequency.QuadPart);
}

std::vector<unsigned char> Payload(std::size_t size)
{
    std::vector<unsigned char> bytes(size);
    for (std::size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<unsigned char>(i * 37 + 11);
    return bytes;
}

// Number of occurrences of `what` in the file.
std::size_t CountInFile(const ustring& path, const char* what)
{
    std::string content;
    HANDLE file = ::CreateFileW(path, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0,
                                nullptr);
    if (file == INVALID_HANDLE_VALUE)
        return 0;
    std::vector<char> buffer(1 << 20);
    DWORD got = 0;
    while (::ReadFile(file, buffer.data(), static_cast<DWORD>(buffer.size()), &got, nullptr) && got != 0)
        content.append(buffer.data(), got);
    ::CloseHandle(file);
    std::size_t count = 0;
    const std::string needle(what);
    for (std::size_t at = content.find(needle); at != std::string::npos; at = content.find(needle, at + 1))
        ++count;
    return count;
}

void RemoveFolder(const ustring& folder)
{
    WIN32_FIND_DATAW data;
    HANDLE find = ::FindFirstFileW(folder + L"\\*", &data);
    if (find != INVALID_HANDLE_VALUE)
    {
        do
        {
            const ustring name(data.cFileName);
            if (name != L"." && name != L"..")
                ::DeleteFileW(folder + L"\\" + name);
        } while (::FindNextFileW(find, &data));
        ::FindClose(find);
    }
    ::RemoveDirectoryW(folder);
}

struct Figures
{
    double dataCallNs = 0; // warm
    double textCallNs = 0;
    double dataCallColdNs = 0;
    double textCallColdNs = 0;
    double throughput64 = 0; // MB/s of payload
    double throughput4K = 0;
};

// ---------------------------------------------------------------- Tavrin

unsigned int g_nextChannel = 0x6F000000u;

// Waits until the log files of the folder stop growing: the workers have written their queues.
void WaitForWorkers(const ustring& folder)
{
    unsigned __int64 last = ~0ull;
    for (;;)
    {
        unsigned __int64 total = 0;
        WIN32_FIND_DATAW data;
        HANDLE find = ::FindFirstFileW(folder + L"\\*.log", &data);
        if (find != INVALID_HANDLE_VALUE)
        {
            do
                total += (static_cast<unsigned __int64>(data.nFileSizeHigh) << 32) | data.nFileSizeLow;
            while (::FindNextFileW(find, &data));
            ::FindClose(find);
        }
        if (total == last)
            return;
        last = total;
        ::Sleep(400); // several worker cycles
    }
}

// Median of the per-call costs of many rounds: the caller shares two loaded cores with the
// worker and other processes, and the median is the round least disturbed either way.
double Median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

// Caller cost in ns per call, at a steady rate that the worker keeps up with: rounds of calls,
// each followed by a pause. `cold` is the first round on a new file (queue, heap and pages still
// growing); `warm` is the median of the following rounds.
template <class Call>
void CallerCost(Call call, const ustring& folder, double& cold, double& warm)
{
    std::vector<double> rounds;
    unsigned int sequence = 0;
    for (unsigned int round = 0; round <= kCallerRounds; ++round)
    {
        const double start = Now();
        for (unsigned int i = 0; i < kCallerRecords; ++i)
            call(sequence++);
        const double perCall = (Now() - start) / kCallerRecords * 1e9;
        if (round == 0)
            cold = perCall;
        else
            rounds.push_back(perCall);
        ::Sleep(kCallerPauseMs);
    }
    warm = Median(rounds);
    WaitForWorkers(folder);
}

void TavrinCallerCost(const ustring& folder, bool data, double& cold, double& warm)
{
    const unsigned int channel = ++g_nextChannel;
    CLogFileServer::Ref().CreateLogFile(channel, data ? L"caller-data" : L"caller-text", nullptr);
    const std::vector<unsigned char> payload = Payload(64);
    CallerCost(
        [&](unsigned int i) {
            CLogFileProxy proxy(channel);
            if (data)
                proxy().LogSentData(payload.data(), 64, true);
            else
                proxy().LogText(true, L"Short event number %u.", i);
        },
        folder, cold, warm);
    CLogFileServer::Ref().CloseLogFile(channel);
}

double TavrinThroughput(std::size_t size, unsigned int records)
{
    const unsigned int channel = ++g_nextChannel;
    CLogFileServer::Ref().CreateLogFile(channel, L"throughput", nullptr);
    const std::vector<unsigned char> payload = Payload(size);
    const double start = Now();
    for (unsigned int i = 0; i < records; ++i)
    {
        CLogFileProxy proxy(channel);
        proxy().LogReceivedData(payload.data(), static_cast<unsigned int>(size), false);
    }
    CLogFileServer::Ref().CloseLogFile(channel); // the last holder: Close writes everything queued
    const double elapsed = Now() - start;
    return static_cast<double>(size) * records / 1e6 / elapsed;
}

void TavrinThreads(const ustring& folder)
{
    const unsigned int channel = ++g_nextChannel;
    CLogFileServer::Ref().CreateLogFile(channel, L"threads", nullptr);
    const double start = Now();
    std::vector<std::thread> threads;
    for (unsigned int t = 0; t < kThreads; ++t)
    {
        threads.emplace_back([channel, t] {
            for (unsigned int i = 0; i < kRecordsPerThread; ++i)
            {
                CLogFileProxy proxy(channel);
                proxy().LogText(true, L"T%u #%u", t, i);
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    const double produced = Now() - start;
    CLogFileServer::Ref().CloseLogFile(channel);
    const double written = Now() - start;

    std::size_t count = 0;
    WIN32_FIND_DATAW data;
    HANDLE find = ::FindFirstFileW(folder + L"\\threads-*.log", &data);
    if (find != INVALID_HANDLE_VALUE)
    {
        count = CountInFile(folder + L"\\" + data.cFileName, "Text Event, ");
        ::FindClose(find);
    }
    std::printf("  %u threads x %u text events on one channel: queued in %.2f s, all written after %.2f s, "
                "%zu of %u records in the file%s\n",
                kThreads, kRecordsPerThread, produced, written, count, kThreads * kRecordsPerThread,
                count == static_cast<std::size_t>(kThreads) * kRecordsPerThread ? "" : "  <-- RECORDS LOST");
}

Figures MeasureTavrin(const ustring& folder)
{
    CLogFileServer::Ref().SetFolder(folder, false);
    CLogFileServer::Ref().SetDetail(eLogFileDetailVerbose);
    Figures f;
    TavrinCallerCost(folder, true, f.dataCallColdNs, f.dataCallNs);
    TavrinCallerCost(folder, false, f.textCallColdNs, f.textCallNs);
    f.throughput64 = TavrinThroughput(64, kThroughputRecords64);
    f.throughput4K = TavrinThroughput(4096, kThroughputRecords4K);
    return f;
}

// ---------------------------------------------------------------- spdlog

#ifdef TAVRIN_BENCH_SPDLOG

std::shared_ptr<spdlog::logger> MakeSpdLogger(const ustring& folder, const char* name, std::size_t queue)
{
    spdlog::init_thread_pool(queue, 1);
    const std::string path = ustring::WideCharToMultiByte(folder, CP_UTF8) + "\\" + name + ".log";
    auto logger = spdlog::create_async<spdlog::sinks::basic_file_sink_mt>(name, path, true);
    // The same header as a data log file's record: the event, then the caller's time stamp.
    logger->set_pattern("%v%Y/%m/%d, %H:%M:%S.%e");
    return logger;
}

// One record equivalent to a data log file's: header, time, 32-byte dump lines with a text column.
void SpdLogData(spdlog::logger& logger, const std::vector<unsigned char>& payload)
{
    logger.info("SYNC WRITE request completed: {} (0x{:X}) bytes, {:Xa}", payload.size(), payload.size(),
                spdlog::to_hex(payload.begin(), payload.end(), 32));
}

// Measured as for the data log files, on one logger whose queue holds all rounds.
void SpdCallerCost(const ustring& folder, bool data, double& cold, double& warm)
{
    auto logger = MakeSpdLogger(folder, data ? "spd-caller-data" : "spd-caller-text",
                                kCallerRecords * (kCallerRounds + 1) + 1000);
    const std::vector<unsigned char> payload = Payload(64);
    CallerCost(
        [&](unsigned int i) {
            if (data)
                SpdLogData(*logger, payload);
            else
                logger->info("Short event number {}.", i);
        },
        folder, cold, warm);
    logger.reset();
    spdlog::shutdown();
}

double SpdThroughput(const ustring& folder, std::size_t size, unsigned int records)
{
    auto logger = MakeSpdLogger(folder, "spd-throughput", 8192);
    const std::vector<unsigned char> payload = Payload(size);
    const double start = Now();
    for (unsigned int i = 0; i < records; ++i)
        SpdLogData(*logger, payload);
    logger.reset();
    spdlog::shutdown(); // the pool's worker ends after the last queued record
    const double elapsed = Now() - start;
    return static_cast<double>(size) * records / 1e6 / elapsed;
}

Figures MeasureSpdlog(const ustring& folder)
{
    Figures f;
    SpdCallerCost(folder, true, f.dataCallColdNs, f.dataCallNs);
    SpdCallerCost(folder, false, f.textCallColdNs, f.textCallNs);
    f.throughput64 = SpdThroughput(folder, 64, kThroughputRecords64);
    f.throughput4K = SpdThroughput(folder, 4096, kThroughputRecords4K);
    return f;
}

#endif

void PrintCallerCosts(const Figures& f)
{
    std::printf("  caller cost, 64-byte data record : %8.0f ns  (cold: %8.0f ns)\n", f.dataCallNs, f.dataCallColdNs);
    std::printf("  caller cost, short text event    : %8.0f ns  (cold: %8.0f ns)\n", f.textCallNs, f.textCallColdNs);
}

} // namespace

int main()
{
    ustring folder;
    CFile::GetTempPathW(folder);
    folder += ustring::sprintf_stc(L"tavrin-bench-%lu", ::GetCurrentProcessId());
    CFile::CreateFolder(folder);

    std::printf("Data log files (CLogFileProxy -> CLogFile); caller cost: median of %u rounds of %u calls, "
                "%lu ms apart\n",
                kCallerRounds, kCallerRecords, kCallerPauseMs);
    const Figures tavrin = MeasureTavrin(folder);
    PrintCallerCosts(tavrin);
    std::printf("  worker throughput, 64-byte records: %7.2f MB/s of payload (%u records)\n", tavrin.throughput64,
                kThroughputRecords64);
    std::printf("  worker throughput, 4 KiB records  : %7.2f MB/s of payload (%u records)\n", tavrin.throughput4K,
                kThroughputRecords4K);
    TavrinThreads(folder);
    CLogFileServer::Ref().SetDetail(eLogFileDetailOff);

#ifdef TAVRIN_BENCH_SPDLOG
    std::printf("spdlog %d.%d.%d asynchronous file logger, equivalent hex-dump records\n", SPDLOG_VER_MAJOR,
                SPDLOG_VER_MINOR, SPDLOG_VER_PATCH);
    const Figures spd = MeasureSpdlog(folder);
    PrintCallerCosts(spd);
    std::printf("  worker throughput, 64-byte records: %7.2f MB/s of payload\n", spd.throughput64);
    std::printf("  worker throughput, 4 KiB records  : %7.2f MB/s of payload\n", spd.throughput4K);

    std::printf("Ratios (Tavrin / spdlog; caller cost below 1 and throughput above 1 favour Tavrin)\n");
    std::printf("  caller cost, data record : %.2f (cold %.2f)\n", tavrin.dataCallNs / spd.dataCallNs,
                tavrin.dataCallColdNs / spd.dataCallColdNs);
    std::printf("  caller cost, text event  : %.2f (cold %.2f)\n", tavrin.textCallNs / spd.textCallNs,
                tavrin.textCallColdNs / spd.textCallColdNs);
    std::printf("  throughput, 64-byte      : %.2f\n", tavrin.throughput64 / spd.throughput64);
    std::printf("  throughput, 4 KiB        : %.2f\n", tavrin.throughput4K / spd.throughput4K);
#else
    std::printf("spdlog: headers not found at build time, no comparison\n");
#endif

    RemoveFolder(folder);
    return 0;
}
