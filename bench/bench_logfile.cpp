// Data log files: the caller's cost next to its floor, the worker's throughput, and spdlog's
// asynchronous file logger for comparison.
//
// Measures, in one run:
//   - the caller's cost of logging one 64-byte data record through a CLogFileProxy while the
//     worker is writing, call by call (time-stamp counter), at p50 and p99: one thread, and 8
//     threads on one channel; next to the floor measured in alternating rounds of the same run:
//     GetLocalTime + an uncontended critical section + copying 64 bytes. Targets: p50 within
//     1.5 times the floor's p50, the 8-thread p99 within 10 times it;
//   - the worker's sustained throughput in MB/s of payload (data bytes logged), from the first
//     record until everything is on disk, for 64-byte and 4 KiB records;
//   - 8 threads logging 100,000 text events each to one channel: time, and that nothing was lost;
//   - spdlog's asynchronous file logger writing an equivalent record (header, time stamp, 32-byte
//     hexadecimal lines with a text column), two ways:
//       * as designed: the caller formats the hexadecimal dump (fmt's to_hex) and the file sink
//         buffers its writes (4 KiB stdio buffer); this is how each library is meant to be used;
//       * like for like: the caller only copies the bytes, the dump is formatted on spdlog's
//         worker (a custom pattern flag), and every record is flushed with its own write, as the
//         data log file does.
// The spdlog figures are left out when the build found no spdlog headers.
//
// Run it under Wine from the build folder: wine bin/tavrin_bench.exe
#include <tavrin/core/file.h>
#include <tavrin/log/logfile.h>

#ifdef TAVRIN_BENCH_SPDLOG
#include <spdlog/async.h>
#include <spdlog/fmt/bin_to_hex.h>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>
#endif

#include <x86intrin.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

using namespace tavrin;

namespace {

const unsigned int kRoundCalls = 500; // calls per round, timed one by one
const unsigned int kRounds = 200;     // rounds per measured kind, alternating with the floor
const DWORD kRoundPauseMs = 5;        // after each round: the worker keeps up, and is busy
const unsigned int kThreads = 8;
const unsigned int kThreadRounds = 50;     // rounds in which all threads log at once
const DWORD kThreadRoundPauseMs = 40;      // between them: about 100,000 calls a second in all
const unsigned int kThroughputRecords64 = 100000;
const unsigned int kThroughputRecords4K = 5000;
const unsigned int kRecordsPerThread = 100000;

double Now()
{
    LARGE_INTEGER frequency, counter;
    ::QueryPerformanceFrequency(&frequency);
    ::QueryPerformanceCounter(&counter);
    return static_cast<double>(counter.QuadPart) / static_cast<double>(frequency.QuadPart);
}

// Nanoseconds per tick of the time-stamp counter, against the performance counter.
double CalibrateTicks()
{
    const double start = Now();
    const unsigned long long ticks = __rdtsc();
    ::Sleep(300);
    return (Now() - start) * 1e9 / static_cast<double>(__rdtsc() - ticks);
}

const double g_nsPerTick = CalibrateTicks();

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
    HANDLE file =
        ::CreateFileW(path, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr);
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

// ---------------------------------------------------------------- per-call timing

// Costs of single calls in time-stamp ticks; percentiles in nanoseconds.
class CCallTimes
{
public:
    void Reserve(std::size_t count) { m_vecTicks.reserve(count); }
    template <class Call>
    void Round(Call& call, unsigned int calls, unsigned int& sequence)
    {
        for (unsigned int i = 0; i < calls; ++i)
        {
            const unsigned long long start = __rdtsc();
            call(sequence++);
            m_vecTicks.push_back(static_cast<unsigned int>(std::min<unsigned long long>(__rdtsc() - start, ~0u)));
        }
    }
    void Append(const CCallTimes& other)
    {
        m_vecTicks.insert(m_vecTicks.end(), other.m_vecTicks.begin(), other.m_vecTicks.end());
    }
    double Percentile(double p)
    {
        if (m_vecTicks.empty())
            return 0;
        std::size_t at = static_cast<std::size_t>(p / 100.0 * static_cast<double>(m_vecTicks.size() - 1));
        std::nth_element(m_vecTicks.begin(), m_vecTicks.begin() + at, m_vecTicks.end());
        return m_vecTicks[at] * g_nsPerTick;
    }

private:
    std::vector<unsigned int> m_vecTicks;
};

// Per-round medians, for the spread between rounds.
struct CSpread
{
    std::vector<double> medians;
    void Add(CCallTimes round) { medians.push_back(round.Percentile(50)); }
    // The 10th and 90th percentiles of the round medians.
    std::pair<double, double> Range()
    {
        if (medians.empty())
            return std::make_pair(0.0, 0.0);
        std::sort(medians.begin(), medians.end());
        return std::make_pair(medians[medians.size() / 10], medians[medians.size() * 9 / 10]);
    }
};

// The floor of a caller: what logging one 64-byte record cannot avoid.
struct CFloor
{
    CCriticalSection cs;
    unsigned char copy[64];
    const unsigned char* source;
    SYSTEMTIME time;
    void operator()(unsigned int)
    {
        ::GetLocalTime(&time);
        cs.Lock();
        std::memcpy(copy, source, sizeof(copy));
        __asm__ __volatile__("" : : "r"(copy) : "memory");
        cs.Unlock();
    }
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

struct CallerFigures
{
    double floor50 = 0, floor99 = 0;
    std::pair<double, double> floorSpread;
    double single50 = 0, single99 = 0;
    std::pair<double, double> singleSpread;
    double threads50 = 0, threads99 = 0;           // each thread at its own pace
    double together50 = 0, together99 = 0;         // rounds started together
    double text50 = 0, text99 = 0;
    unsigned long long dropped = 0;
};

// One thread: rounds of the floor and of the data log file's caller, alternating.
void TavrinSingleCaller(const ustring& folder, CallerFigures& f)
{
    const unsigned int channel = ++g_nextChannel;
    CLogFileServer::Ref().CreateLogFile(channel, L"caller", nullptr);
    const std::vector<unsigned char> payload = Payload(64);
    CFloor floor;
    floor.source = payload.data();
    auto data = [&](unsigned int) {
        CLogFileProxy proxy(channel);
        proxy().LogSentData(payload.data(), 64, true);
    };
    auto text = [&](unsigned int i) {
        CLogFileProxy proxy(channel);
        proxy().LogText(true, L"Short event number %u.", i);
    };
    CCallTimes floorTimes, dataTimes, textTimes;
    CSpread floorSpread, dataSpread;
    unsigned int sequence = 0;
    // A first round of each warms the caches, the heap and the queue's chunks.
    for (unsigned int round = 0; round <= kRounds; ++round)
    {
        CCallTimes floorRound, dataRound, textRound;
        floorRound.Round(floor, kRoundCalls, sequence);
        ::Sleep(kRoundPauseMs);
        dataRound.Round(data, kRoundCalls, sequence);
        ::Sleep(kRoundPauseMs);
        textRound.Round(text, kRoundCalls / 4, sequence);
        ::Sleep(kRoundPauseMs);
        if (round == 0)
            continue;
        floorTimes.Append(floorRound);
        dataTimes.Append(dataRound);
        textTimes.Append(textRound);
        floorSpread.Add(floorRound);
        dataSpread.Add(dataRound);
    }
    f.floor50 = floorTimes.Percentile(50);
    f.floor99 = floorTimes.Percentile(99);
    f.floorSpread = floorSpread.Range();
    f.single50 = dataTimes.Percentile(50);
    f.single99 = dataTimes.Percentile(99);
    f.singleSpread = dataSpread.Range();
    f.text50 = textTimes.Percentile(50);
    f.text99 = textTimes.Percentile(99);
    CLogFile::Status status = {};
    CLogFileServer::Ref().GetStatus(channel, status);
    f.dropped += status.nDropped;
    CLogFileServer::Ref().CloseLogFile(channel);
    WaitForWorkers(folder);
}

// Eight threads on one channel, every call timed, in rounds of calls 40 ms apart: each thread
// at its own pace (their rounds drift apart and overlap now and then), or all started together
// for each round (on two processors they then take turns and contend for the locks throughout:
// the worst case, reported beside the target).
void TavrinThreadCallers(const ustring& folder, bool together, double& p50, double& p99, unsigned long long& dropped)
{
    const unsigned int channel = ++g_nextChannel;
    CLogFileServer::Ref().CreateLogFile(channel, L"callers", nullptr);
    const std::vector<unsigned char> payload = Payload(64);
    std::vector<CCallTimes> times(kThreads);
    CEvent go(nullptr, TRUE, FALSE, nullptr);
    std::atomic<unsigned int> round(0), finished(0);
    std::vector<std::thread> threads;
    for (unsigned int t = 0; t < kThreads; ++t)
    {
        threads.emplace_back([&, t] {
            auto data = [&](unsigned int) {
                CLogFileProxy proxy(channel);
                proxy().LogSentData(payload.data(), 64, true);
            };
            times[t].Reserve(static_cast<std::size_t>(kThreadRounds) * kRoundCalls);
            unsigned int sequence = 0;
            // Round 0 warms up and is not counted.
            for (unsigned int r = 0; r <= kThreadRounds; ++r)
            {
                if (together)
                {
                    while (round.load() <= r)
                        ::WaitForSingleObject(go.GetHandle(), 100);
                }
                else
                    ::Sleep(r == 0 ? t * kThreadRoundPauseMs / kThreads : kThreadRoundPauseMs);
                CCallTimes one;
                one.Round(data, kRoundCalls, sequence);
                if (r != 0)
                    times[t].Append(one);
                ++finished;
            }
        });
    }
    if (together)
    {
        for (unsigned int r = 0; r <= kThreadRounds; ++r)
        {
            ::Sleep(kThreadRoundPauseMs);
            finished = 0;
            round = r + 1;
            go.Set();
            while (finished.load() < kThreads)
                ::Sleep(1);
            go.Reset();
        }
    }
    for (std::thread& thread : threads)
        thread.join();
    CCallTimes all;
    for (const CCallTimes& one : times)
        all.Append(one);
    p50 = all.Percentile(50);
    p99 = all.Percentile(99);
    CLogFile::Status status = {};
    CLogFileServer::Ref().GetStatus(channel, status);
    dropped += status.nDropped;
    CLogFileServer::Ref().CloseLogFile(channel);
    WaitForWorkers(folder);
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

// ---------------------------------------------------------------- spdlog

#ifdef TAVRIN_BENCH_SPDLOG

// Renders a message whose payload is the raw bytes as the data log file's record: header, local
// time, and the 32-byte dump lines. Runs on spdlog's worker.
class CHexDumpFlag : public spdlog::custom_flag_formatter
{
public:
    void format(const spdlog::details::log_msg& msg, const std::tm& tm, spdlog::memory_buf_t& dest) override
    {
        const auto* bytes = reinterpret_cast<const unsigned char*>(msg.payload.data());
        const std::size_t size = msg.payload.size();
        const auto ms =
            std::chrono::duration_cast<std::chrono::milliseconds>(msg.time.time_since_epoch()).count() % 1000;
        char header[128];
        const int length = std::snprintf(
            header, sizeof(header),
            "SYNC WRITE request completed: %zu (0x%zX) bytes, %d/%d/%d, %02d:%02d:%02d.%03d\r\n", size, size,
            tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, static_cast<int>(ms));
        dest.append(header, header + length);
        static const char digits[] = "0123456789ABCDEF";
        for (std::size_t offset = 0; offset < size; offset += 32)
        {
            char line[1 + 32 * 3 + 4 + 32 + 2];
            char* p = line;
            const std::size_t count = std::min<std::size_t>(32, size - offset);
            *p++ = ' ';
            for (std::size_t i = 0; i < 32; ++i)
            {
                if (i < count)
                {
                    *p++ = digits[bytes[offset + i] >> 4];
                    *p++ = digits[bytes[offset + i] & 15];
                }
                else
                {
                    *p++ = ' ';
                    *p++ = ' ';
                }
                *p++ = ' ';
            }
            std::memcpy(p, "    ", 4);
            p += 4;
            for (std::size_t i = 0; i < count; ++i)
            {
                const unsigned char c = bytes[offset + i];
                *p++ = c > 0x20 && c < 0x7F ? static_cast<char>(c) : '.';
            }
            *p++ = '\r';
            *p++ = '\n';
            dest.append(line, p);
        }
    }
    std::unique_ptr<custom_flag_formatter> clone() const override { return std::make_unique<CHexDumpFlag>(); }
};

enum class ESpdMode
{
    eDesign,     // dump formatted by the caller, writes buffered
    eLikeForLike // dump formatted on the worker, one flushed write per record
};

std::shared_ptr<spdlog::logger> MakeSpdLogger(const ustring& folder, const char* name, std::size_t queue, ESpdMode mode)
{
    spdlog::init_thread_pool(queue, 1);
    const std::string path = ustring::WideCharToMultiByte(folder, CP_UTF8) + "\\" + name + ".log";
    auto logger = spdlog::create_async<spdlog::sinks::basic_file_sink_mt>(name, path, true);
    if (mode == ESpdMode::eDesign)
        // The same header as a data log file's record: the event, then the caller's time stamp.
        logger->set_pattern("%v%Y/%m/%d, %H:%M:%S.%e");
    else
    {
        auto formatter = std::make_unique<spdlog::pattern_formatter>();
        formatter->add_flag<CHexDumpFlag>('*').set_pattern("%*");
        logger->set_formatter(std::move(formatter));
        logger->flush_on(spdlog::level::trace);
    }
    return logger;
}

void SpdLogData(spdlog::logger& logger, const std::vector<unsigned char>& payload, ESpdMode mode)
{
    if (mode == ESpdMode::eDesign)
        logger.info("SYNC WRITE request completed: {} (0x{:X}) bytes, {:Xa}", payload.size(), payload.size(),
                    spdlog::to_hex(payload.begin(), payload.end(), 32));
    else
        logger.log(spdlog::level::info,
                   spdlog::string_view_t(reinterpret_cast<const char*>(payload.data()), payload.size()));
}

// The caller's cost in the same paced rounds as the data log file's single caller.
void SpdCallerCost(const ustring& folder, ESpdMode mode, double& p50, double& p99)
{
    auto logger = MakeSpdLogger(folder, mode == ESpdMode::eDesign ? "spd-caller" : "spd-caller-lfl",
                                kRoundCalls * (kRounds + 1) + 1000, mode);
    const std::vector<unsigned char> payload = Payload(64);
    auto call = [&](unsigned int) { SpdLogData(*logger, payload, mode); };
    CCallTimes times;
    unsigned int sequence = 0;
    for (unsigned int round = 0; round <= kRounds; ++round)
    {
        CCallTimes one;
        one.Round(call, kRoundCalls, sequence);
        ::Sleep(kRoundPauseMs);
        if (round != 0)
            times.Append(one);
    }
    p50 = times.Percentile(50);
    p99 = times.Percentile(99);
    logger.reset();
    spdlog::shutdown();
}

double SpdThroughput(const ustring& folder, std::size_t size, unsigned int records, ESpdMode mode)
{
    auto logger =
        MakeSpdLogger(folder, mode == ESpdMode::eDesign ? "spd-throughput" : "spd-throughput-lfl", 8192, mode);
    const std::vector<unsigned char> payload = Payload(size);
    const double start = Now();
    for (unsigned int i = 0; i < records; ++i)
        SpdLogData(*logger, payload, mode);
    logger.reset();
    spdlog::shutdown(); // the pool's worker ends after the last queued record
    const double elapsed = Now() - start;
    return static_cast<double>(size) * records / 1e6 / elapsed;
}

#endif

const char* Verdict(bool met)
{
    return met ? "met" : "NOT MET";
}

} // namespace

int main()
{
    ustring folder;
    CFile::GetTempPathW(folder);
    folder += ustring::sprintf_stc(L"tavrin-bench-%lu", ::GetCurrentProcessId());
    CFile::CreateFolder(folder);
    CLogFileServer::Ref().SetFolder(folder, false);
    CLogFileServer::Ref().SetDetail(eLogFileDetailVerbose);

    std::printf(
        "Data log files (CLogFileProxy -> CLogFile), caller cost per call while the worker writes;\n"
        "%u rounds of %u calls, %lu ms apart, alternating with the floor (p10-p90 of round medians in brackets)\n",
        kRounds, kRoundCalls, kRoundPauseMs);
    CallerFigures f;
    TavrinSingleCaller(folder, f);
    TavrinThreadCallers(folder, false, f.threads50, f.threads99, f.dropped);
    TavrinThreadCallers(folder, true, f.together50, f.together99, f.dropped);
    std::printf("  floor: GetLocalTime + lock + 64-byte copy : p50 %6.0f ns [%.0f-%.0f]  p99 %6.0f ns\n", f.floor50,
                f.floorSpread.first, f.floorSpread.second, f.floor99);
    std::printf("  64-byte data record, 1 thread             : p50 %6.0f ns [%.0f-%.0f]  p99 %6.0f ns\n", f.single50,
                f.singleSpread.first, f.singleSpread.second, f.single99);
    std::printf("  64-byte data record, %u threads, 1 channel : p50 %6.0f ns  p99 %6.0f ns\n", kThreads, f.threads50,
                f.threads99);
    std::printf("    the same, rounds started together       : p50 %6.0f ns  p99 %6.0f ns  (worst case)\n",
                f.together50, f.together99);
    std::printf("  short text event, 1 thread                : p50 %6.0f ns  p99 %6.0f ns\n", f.text50, f.text99);
    const double ratio50 = f.single50 / f.floor50;
    const double ratio99 = f.threads99 / f.floor50;
    std::printf("  p50 / floor p50, 1 thread   : %5.2f  (target 1.5: %s)\n", ratio50, Verdict(ratio50 <= 1.5));
    std::printf("  p99 / floor p50, %u threads  : %5.2f  (target 10: %s)\n", kThreads, ratio99,
                Verdict(ratio99 <= 10.0));
    if (f.dropped != 0)
        std::printf("  (%llu records dropped at the queue limit: the figures include cheap dropped calls)\n",
                    f.dropped);

    const double tavrin64 = TavrinThroughput(64, kThroughputRecords64);
    const double tavrin4K = TavrinThroughput(4096, kThroughputRecords4K);
    std::printf("  worker throughput, 64-byte records: %7.2f MB/s of payload (%u records)\n", tavrin64,
                kThroughputRecords64);
    std::printf("  worker throughput, 4 KiB records  : %7.2f MB/s of payload (%u records)\n", tavrin4K,
                kThroughputRecords4K);
    TavrinThreads(folder);
    CLogFileServer::Ref().SetDetail(eLogFileDetailOff);

#ifdef TAVRIN_BENCH_SPDLOG
    std::printf("spdlog %d.%d.%d asynchronous file logger, equivalent hex-dump records\n", SPDLOG_VER_MAJOR,
                SPDLOG_VER_MINOR, SPDLOG_VER_PATCH);
    std::printf(" (its caller takes system_clock::now and its worker makes it local time; the data log file's\n"
                "  caller takes GetLocalTime, the floor's main cost, as its records' time stamps require)\n");
    for (const ESpdMode mode : {ESpdMode::eDesign, ESpdMode::eLikeForLike})
    {
        const bool design = mode == ESpdMode::eDesign;
        std::printf(design ? " as designed: dump formatted by the caller, writes buffered in 4 KiB\n"
                           : " like for like: bytes copied by the caller, dump formatted on the worker, one flushed "
                             "write per record\n");
        double p50 = 0, p99 = 0;
        SpdCallerCost(folder, mode, p50, p99);
        const double spd64 = SpdThroughput(folder, 64, kThroughputRecords64, mode);
        const double spd4K = SpdThroughput(folder, 4096, kThroughputRecords4K, mode);
        std::printf("  caller cost, 64-byte data record: p50 %6.0f ns  p99 %6.0f ns\n", p50, p99);
        std::printf("  worker throughput, 64-byte      : %7.2f MB/s\n", spd64);
        std::printf("  worker throughput, 4 KiB        : %7.2f MB/s\n", spd4K);
        std::printf("  Tavrin / spdlog (%s; caller cost below 1 and throughput above 1 favour Tavrin)\n",
                    design ? "the design's figure" : "the like-for-like figure");
        std::printf("    caller cost p50 %.2f, p99 %.2f; throughput 64-byte %.2f, 4 KiB %.2f\n", f.single50 / p50,
                    f.single99 / p99, tavrin64 / spd64, tavrin4K / spd4K);
    }
#else
    std::printf("spdlog: headers not found at build time, no comparison\n");
#endif

    RemoveFolder(folder);
    return 0;
}
