// Data log files over their whole life, each case in a child process with a time limit: every
// way a process ends with records in flight, threads that log or hold a proxy at that moment,
// unloading the library with and without Shutdown, a plug-in unloaded while its formatter is in
// use, a flood of sixteen threads, and a volume that fills up.
#include "test_logfile_support.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <string>

using namespace tavrin;
using namespace logtest;

namespace {

const DWORD kChildLimitMs = 90000;

std::string Narrow(const std::wstring& text)
{
    return ustring::WideCharToMultiByte(text, CP_UTF8);
}

// The folder of this test program, where the helper programs are built beside it.
ustring ProgramFolder()
{
    wchar_t path[MAX_PATH];
    const DWORD length = ::GetModuleFileNameW(nullptr, path, MAX_PATH);
    ustring folder(path, length);
    return folder.substr(0, folder.rfind(L'\\'));
}

struct ChildRun
{
    bool bEnded; // within the time limit
    DWORD nExitCode;
    DWORD nMs; // from start to end
};

// Runs a helper program with its standard streams on NUL, for at most `limitMs`; a program that
// overruns is terminated and reported as not ended.
ChildRun RunChild(const wchar_t* program, const ustring& arguments, DWORD limitMs = kChildLimitMs)
{
    ChildRun run = {false, 0, 0};
    const ustring commandLine = L"\"" + ProgramFolder() + L"\\" + program + L"\" " + arguments;
    SECURITY_ATTRIBUTES inherit = {sizeof(inherit), nullptr, TRUE};
    HANDLE nul = ::CreateFileW(L"NUL", GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, &inherit,
                               OPEN_EXISTING, 0, nullptr);
    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = startup.hStdOutput = startup.hStdError = nul;
    PROCESS_INFORMATION process = {};
    std::wstring mutableLine = commandLine;
    const ULONGLONG start = ::GetTickCount64();
    const BOOL created =
        ::CreateProcessW(nullptr, &mutableLine[0], nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup, &process);
    ::CloseHandle(nul);
    EXPECT_TRUE(created) << "cannot start " << Narrow(commandLine);
    if (!created)
        return run;
    run.bEnded = ::WaitForSingleObject(process.hProcess, limitMs) == WAIT_OBJECT_0;
    run.nMs = static_cast<DWORD>(::GetTickCount64() - start);
    if (!run.bEnded)
    {
        ::TerminateProcess(process.hProcess, 999);
        ::WaitForSingleObject(process.hProcess, 10000);
    }
    ::GetExitCodeProcess(process.hProcess, &run.nExitCode);
    ::CloseHandle(process.hThread);
    ::CloseHandle(process.hProcess);
    return run;
}

// The key=value lines that a helper wrote to "report.txt" in its folder.
std::map<std::string, std::string> ReadReport(const ustring& folder)
{
    std::map<std::string, std::string> report;
    const std::string text = ReadBytes(folder + L"\\report.txt");
    std::size_t start = 0;
    while (start < text.size())
    {
        std::size_t end = text.find("\r\n", start);
        if (end == std::string::npos)
            end = text.size();
        const std::string line = text.substr(start, end - start);
        const std::size_t equals = line.find('=');
        if (equals != std::string::npos)
            report[line.substr(0, equals)] = line.substr(equals + 1);
        start = end + 2;
    }
    return report;
}

unsigned long long Number(const std::map<std::string, std::string>& report, const char* key)
{
    const auto it = report.find(key);
    EXPECT_TRUE(it != report.end()) << "no " << key << " in the report";
    return it == report.end() ? 0 : std::strtoull(it->second.c_str(), nullptr, 10);
}

// Calls `visit` with each complete line of a file (without its "\r\n"), reading it in blocks so
// that files of hundreds of megabytes pass through a 32-bit process.
void ForEachLine(const ustring& path, const std::function<void(const std::string&)>& visit)
{
    HANDLE file =
        ::CreateFileW(path, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr);
    ASSERT_NE(INVALID_HANDLE_VALUE, file) << Narrow(path);
    std::string pending;
    std::vector<char> block(4 << 20);
    DWORD got = 0;
    while (::ReadFile(file, block.data(), static_cast<DWORD>(block.size()), &got, nullptr) && got != 0)
    {
        pending.append(block.data(), got);
        std::size_t start = 0;
        for (std::size_t end = pending.find("\r\n"); end != std::string::npos; end = pending.find("\r\n", start))
        {
            visit(pending.substr(start, end - start));
            start = end + 2;
        }
        pending.erase(0, start);
    }
    ::CloseHandle(file);
}

// The data records of a helper's log file, in file order: the index in the first four bytes of
// each, and whether the line before its dump came from a formatter with that index.
struct IndexedRecords
{
    std::vector<unsigned int> indexes;
    unsigned int formatted = 0; // records whose formatter line names their own index
    unsigned int other = 0;     // lines that belong to no data record
};

IndexedRecords ReadIndexedRecords(const ustring& path, const char* header, const char* formatterText)
{
    IndexedRecords records;
    enum
    {
        eHeader,
        eBody,
        eDump
    } state = eHeader;
    unsigned int formatterIndex = ~0u;
    ForEachLine(path, [&](const std::string& line) {
        if (line.empty())
        {
            state = eHeader;
            return;
        }
        if (state == eHeader)
        {
            if (line.compare(0, std::strlen(header), header) == 0)
                state = eBody;
            else
                ++records.other;
            formatterIndex = ~0u;
            return;
        }
        unsigned int index = 0;
        if (state == eDump)
        {
            // The further dump lines of a longer record.
            if (line.size() <= 12 || line[0] != ' ')
                ++records.other;
            return;
        }
        if (formatterText != nullptr && std::sscanf(line.c_str(), formatterText, &index) == 1)
        {
            formatterIndex = index;
            return;
        }
        if (line.size() > 12 && line[0] == ' ')
        {
            state = eDump;
            index = static_cast<unsigned int>(std::strtoul(line.substr(1, 2).c_str(), nullptr, 16)) |
                    static_cast<unsigned int>(std::strtoul(line.substr(4, 2).c_str(), nullptr, 16)) << 8 |
                    static_cast<unsigned int>(std::strtoul(line.substr(7, 2).c_str(), nullptr, 16)) << 16 |
                    static_cast<unsigned int>(std::strtoul(line.substr(10, 2).c_str(), nullptr, 16)) << 24;
            records.indexes.push_back(index);
            if (formatterIndex == index)
                ++records.formatted;
        }
        else
            ++records.other;
    });
    return records;
}

// Whether `indexes` is exactly 0, 1, ... count-1; a message naming the first fault otherwise.
::testing::AssertionResult IsSequence(const std::vector<unsigned int>& indexes, unsigned int count)
{
    for (std::size_t i = 0; i < indexes.size() && i < count; ++i)
    {
        if (indexes[i] != i)
            return ::testing::AssertionFailure() << "record " << i << " has the index " << indexes[i];
    }
    if (indexes.size() != count)
        return ::testing::AssertionFailure() << indexes.size() << " records instead of " << count;
    return ::testing::AssertionSuccess();
}

const char* const kSyncWrite16 = "SYNC WRITE request completed: 16 (0x10) bytes, ";

} // namespace

// ---------------------------------------------------------------- process exit

TEST(LogFileLifecycle, EveryWayOfEndingWritesTheRecordsInFlight)
{
    // A slow formatter keeps the worker inside its batch when the process ends; with many
    // records and no pause, most of them are still queued.
    const struct
    {
        const wchar_t* how;
        unsigned int records;
        unsigned int formatterMs;
        unsigned int delayMs;
    } cases[] = {
        {L"return", 1000, 1, 300}, {L"exit", 1000, 1, 300},        {L"ExitProcess", 1000, 1, 300},
        {L"throw", 1000, 1, 300},  {L"ExitProcess", 200000, 0, 0}, {L"return", 50000, 0, 0},
        {L"exit", 50000, 0, 0},    {L"throw", 50000, 0, 0},
    };
    for (const auto& c : cases)
    {
        SCOPED_TRACE(Narrow(c.how) + " with " + std::to_string(c.records) + " records");
        CTempFolder folder(L"exit");
        const ChildRun run = RunChild(L"tavrin_logtest_child.exe",
                                      ustring::sprintf_stc(L"exit %ls \"%ls\" %u %u %u", c.how, folder.Path().c_str(),
                                                           c.records, c.formatterMs, c.delayMs));
        ASSERT_TRUE(run.bEnded);
        if (std::wcscmp(c.how, L"throw") == 0)
            EXPECT_NE(0u, run.nExitCode);
        else
            EXPECT_EQ(0u, run.nExitCode);
        const IndexedRecords records = ReadIndexedRecords(OnlyLogFile(folder.Path()), kSyncWrite16,
                                                          c.formatterMs ? "formatted record %u" : nullptr);
        EXPECT_TRUE(IsSequence(records.indexes, c.records));
        EXPECT_EQ(c.formatterMs ? c.records : 0u, records.formatted);
        EXPECT_EQ(0u, records.other);
    }
}

TEST(LogFileLifecycle, AThreadHoldingAProxyAtTheEndCostsNothing)
{
    // The holder's thread is stopped with the log file's lock taken; its own record was queued
    // before, and it is written with the others.
    for (const wchar_t* how : {L"return", L"ExitProcess", L"throw"})
    {
        SCOPED_TRACE(Narrow(how));
        CTempFolder folder(L"holder");
        const ChildRun run = RunChild(L"tavrin_logtest_child.exe",
                                      ustring::sprintf_stc(L"holder %ls \"%ls\" 1000", how, folder.Path().c_str()));
        ASSERT_TRUE(run.bEnded);
        const std::vector<Record> records = ParseRecords(ReadBytes(OnlyLogFile(folder.Path())));
        ASSERT_EQ(1001u, records.size());
        for (unsigned int i = 0; i < 1000; ++i)
        {
            if (records[i].body != "record " + std::to_string(i) + "\r\n\r\n")
            {
                ADD_FAILURE() << "record " << i << ": " << records[i].body;
                break;
            }
        }
        EXPECT_EQ("logged by the holder\r\n\r\n", records[1000].body);
    }
}

TEST(LogFileLifecycle, ThreadsStillLoggingAtTheEndLoseAtMostTheCallCutShort)
{
    // Each thread counts its returned calls in a file mapping that outlives the process: every
    // one of them is in the file, and at most one more (queued, but stopped before counting).
    const unsigned int kThreads = 4;
    for (const wchar_t* how : {L"return", L"ExitProcess"})
    {
        SCOPED_TRACE(Narrow(how));
        CTempFolder folder(L"loggers");
        const ChildRun run =
            RunChild(L"tavrin_logtest_child.exe",
                     ustring::sprintf_stc(L"loggers %ls \"%ls\" %u 300", how, folder.Path().c_str(), kThreads));
        ASSERT_TRUE(run.bEnded);
        const std::vector<unsigned char> counts = tavrintest::ReadFileBytes(folder / L"counts.bin");
        ASSERT_EQ(kThreads * sizeof(LONG), counts.size());

        std::vector<unsigned int> next(kThreads, 0);
        unsigned int misordered = 0;
        ForEachLine(OnlyLogFile(folder.Path()), [&](const std::string& line) {
            unsigned int t = 0, i = 0;
            if (line.empty() || line.compare(0, 12, "Text Event, ") == 0)
                return;
            if (std::sscanf(line.c_str(), "T%u #%u", &t, &i) != 2 || t >= kThreads || i != next[t])
                ++misordered;
            else
                ++next[t];
        });
        EXPECT_EQ(0u, misordered);
        for (unsigned int t = 0; t < kThreads; ++t)
        {
            LONG returned = 0;
            std::memcpy(&returned, &counts[t * sizeof(LONG)], sizeof(LONG));
            EXPECT_GT(returned, 0) << "thread " << t;
            EXPECT_GE(next[t], static_cast<unsigned int>(returned)) << "thread " << t;
            EXPECT_LE(next[t], static_cast<unsigned int>(returned) + 1) << "thread " << t;
        }
    }
}

// ---------------------------------------------------------------- unloading

TEST(LogFileUnload, FreeLibraryReturnsAtOnceAndLosesNothingWithOrWithoutShutdown)
{
    // Shutdown before FreeLibrary, in the plug-in's DllMain (under the loader lock, which the
    // workers need to end: Shutdown must not wait for their threads' end), or not at all.
    const unsigned int kRecords = 5000;
    for (const unsigned int shutdown : {1u, 2u, 0u})
    {
        SCOPED_TRACE(shutdown == 1 ? "with Shutdown" : shutdown == 2 ? "with Shutdown in DllMain" : "without Shutdown");
        CTempFolder folder(L"unload");
        const ChildRun run =
            RunChild(L"tavrin_logtest_host.exe",
                     ustring::sprintf_stc(L"unload \"%ls\" %u %u", folder.Path().c_str(), kRecords, shutdown), 60000);
        ASSERT_TRUE(run.bEnded);
        ASSERT_EQ(0u, run.nExitCode);
        const auto report = ReadReport(folder.Path());
        EXPECT_LT(Number(report, "plugin_free_ms"), 2000u);
        EXPECT_LT(Number(report, "library_free_ms"), 2000u);
        // After Shutdown the library is unloaded; without it, the running worker keeps it loaded
        // and goes on writing.
        EXPECT_EQ(shutdown != 0 ? 0u : 1u, Number(report, "library_loaded"));
        EXPECT_EQ(1u, Number(report, "complete_before_exit"));
        EXPECT_TRUE(
            IsSequence(ReadIndexedRecords(OnlyLogFile(folder.Path()), kSyncWrite16, nullptr).indexes, kRecords));
    }
}

TEST(LogFileUnload, APluginsFormatterStaysUsableAfterThePluginIsFreed)
{
    // The plug-in is freed while its slow formatter has most records still to format: the log
    // file keeps the plug-in loaded, every record gets its formatted line, and the process ends
    // normally.
    const unsigned int kRecords = 300;
    CTempFolder folder(L"formatter");
    const ChildRun run =
        RunChild(L"tavrin_logtest_host.exe",
                 ustring::sprintf_stc(L"formatter \"%ls\" %u 2", folder.Path().c_str(), kRecords), 60000);
    ASSERT_TRUE(run.bEnded);
    EXPECT_EQ(0u, run.nExitCode);
    const auto report = ReadReport(folder.Path());
    EXPECT_EQ(1u, Number(report, "plugin_loaded"));
    EXPECT_EQ(1u, Number(report, "complete_before_exit"));
    EXPECT_LT(Number(report, "library_free_ms"), 2000u);
    const IndexedRecords records =
        ReadIndexedRecords(OnlyLogFile(folder.Path()), kSyncWrite16, "plug-in formatted record %u");
    EXPECT_TRUE(IsSequence(records.indexes, kRecords));
    EXPECT_EQ(kRecords, records.formatted);
}

// ---------------------------------------------------------------- floods

TEST(LogFileFlood, SixteenThreadsOnOneChannelWriteOnWithinTheLimit)
{
    const unsigned long long kLimit = 4 << 20;
    const unsigned int kMs = 3000;
    CTempFolder folder(L"flood");
    const ChildRun run =
        RunChild(L"tavrin_logtest_child.exe",
                 ustring::sprintf_stc(L"flood \"%ls\" 16 %u %llu", folder.Path().c_str(), kMs, kLimit));
    ASSERT_TRUE(run.bEnded);
    ASSERT_EQ(0u, run.nExitCode);
    const auto report = ReadReport(folder.Path());

    // The file grows during the flood, from the first samples on: the worker is not starved.
    std::vector<std::pair<unsigned long long, unsigned long long>> samples; // ms, bytes
    const std::string text = report.count("samples") ? report.at("samples") : std::string();
    for (std::size_t at = 0; at < text.size();)
    {
        unsigned long long ms = 0, bytes = 0;
        if (std::sscanf(text.c_str() + at, "%llu:%llu", &ms, &bytes) == 2)
            samples.emplace_back(ms, bytes);
        const std::size_t comma = text.find(',', at);
        at = comma == std::string::npos ? text.size() : comma + 1;
    }
    ASSERT_GE(samples.size(), 5u);
    EXPECT_GT(samples[1].second, 0u) << "nothing written after " << samples[1].first << " ms";
    for (std::size_t i = 3; i < samples.size(); ++i)
        EXPECT_GT(samples[i].second, samples[i - 3].second) << "no growth from " << samples[i - 3].first << " ms";

    // Memory stays within the limit (plus the buffers kept for reuse and the heap's own slack).
    EXPECT_LE(Number(report, "max_queued"), kLimit);
    const unsigned long long before = Number(report, "memory_before");
    const unsigned long long peak = Number(report, "memory_max");
    EXPECT_LT(peak > before ? peak - before : 0, kLimit + (24u << 20));
    EXPECT_LT(Number(report, "close_ms"), 5000u);

    // Every call is accounted for: written, or dropped and counted in the file's notices.
    const unsigned long long calls = Number(report, "calls");
    const unsigned long long written = Number(report, "written");
    const unsigned long long dropped = Number(report, "dropped");
    EXPECT_GT(dropped, 0u) << "the flood never reached the limit";
    EXPECT_EQ(calls, written + dropped);
    unsigned long long records = 0, noticed = 0, notices = 0;
    ForEachLine(OnlyLogFile(folder.Path()), [&](const std::string& line) {
        if (line.compare(0, 47, "ASYNC READ request completed: 64 (0x40) bytes, ") == 0)
            ++records;
        unsigned long long count = 0;
        const std::size_t at = line.find("records dropped: ");
        if (line.compare(0, 15, "Queue limit of ") == 0 && at != std::string::npos &&
            std::sscanf(line.c_str() + at, "records dropped: %llu", &count) == 1)
        {
            noticed += count;
            ++notices;
        }
    });
    EXPECT_EQ(written, records);
    EXPECT_EQ(dropped, noticed);
    // Drops come in runs, one notice each, not one between every two records.
    EXPECT_LT(notices * 100, records);
}

// ---------------------------------------------------------------- a full volume

namespace {

// Runs a command line of the Unix side: Wine starts Unix programs given by their DOS path. The
// status arrives through a marker file, as Wine gives no handle for a Unix process. False when
// this is no Wine or the command did not report within the limit.
bool RunUnixShell(const std::string& script, int& status)
{
    typedef char*(CDECL * LPUNIXNAME)(const wchar_t*);
    typedef wchar_t*(CDECL * LPDOSNAME)(const char*);
    const HMODULE kernel = ::GetModuleHandleW(L"kernel32.dll");
    const auto unixName =
        reinterpret_cast<LPUNIXNAME>(reinterpret_cast<void (*)()>(::GetProcAddress(kernel, "wine_get_unix_file_name")));
    const auto dosName =
        reinterpret_cast<LPDOSNAME>(reinterpret_cast<void (*)()>(::GetProcAddress(kernel, "wine_get_dos_file_name")));
    if (unixName == nullptr || dosName == nullptr)
        return false;
    static int counter = 0;
    const std::string marker =
        "/tmp/tavrin-logtest-" + std::to_string(::GetCurrentProcessId()) + "-" + std::to_string(++counter) + ".status";
    wchar_t* shell = dosName("/bin/sh");
    wchar_t* markerDos = dosName(marker.c_str());
    if (shell == nullptr || markerDos == nullptr)
        return false;
    const ustring shellPath(shell), markerPath(markerDos);
    ::HeapFree(::GetProcessHeap(), 0, shell);
    ::HeapFree(::GetProcessHeap(), 0, markerDos);

    const std::string line = "sh -c \"(" + script + ") >/dev/null 2>&1; echo $? >" + marker + ".part; mv " + marker +
                             ".part " + marker + "\"";
    std::wstring commandLine = ustring::MultiByteToWideChar(line, CP_UTF8);
    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION process = {};
    if (!::CreateProcessW(shellPath, &commandLine[0], nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &process))
        return false;
    if (process.hThread)
        ::CloseHandle(process.hThread);
    if (process.hProcess)
        ::CloseHandle(process.hProcess);
    if (!WaitUntil([&markerPath] { return ::GetFileAttributesW(markerPath) != INVALID_FILE_ATTRIBUTES; }, 30000))
        return false;
    status = std::atoi(ReadBytes(markerPath).c_str());
    ::DeleteFileW(markerPath);
    return true;
}

// A small tmpfs volume mounted for the test and linked as a drive of the Wine prefix.
class CTmpfsDrive
{
public:
    explicit CTmpfsDrive(unsigned int kilobytes)
    {
        typedef char*(CDECL * LPUNIXNAME)(const wchar_t*);
        const auto unixName = reinterpret_cast<LPUNIXNAME>(reinterpret_cast<void (*)()>(
            ::GetProcAddress(::GetModuleHandleW(L"kernel32.dll"), "wine_get_unix_file_name")));
        if (unixName == nullptr)
        {
            m_strWhyNot = "not running under Wine";
            return;
        }
        // The prefix's drive links are beside that of C:.
        char* drive = unixName(L"C:\\");
        if (drive == nullptr)
        {
            m_strWhyNot = "no Unix name for C:";
            return;
        }
        std::string devices(drive);
        ::HeapFree(::GetProcessHeap(), 0, drive);
        while (!devices.empty() && devices.back() == '/')
            devices.pop_back();
        devices = devices.substr(0, devices.rfind('/'));
        for (wchar_t letter = L'T'; letter <= L'Y' && m_cLetter == 0; ++letter)
        {
            const wchar_t root[] = {letter, L':', L'\\', 0};
            if (::GetDriveTypeW(root) == DRIVE_NO_ROOT_DIR)
                m_cLetter = letter;
        }
        if (m_cLetter == 0)
        {
            m_strWhyNot = "no free drive letter";
            return;
        }
        m_strMount = "/tmp/tavrin-logtest-volume-" + std::to_string(::GetCurrentProcessId());
        m_strLink = devices + "/" + static_cast<char>(m_cLetter - L'A' + 'a') + ":";
        int status = -1;
        if (!RunUnixShell("mkdir -p " + m_strMount + " && mount -t tmpfs -o size=" + std::to_string(kilobytes) +
                              "k tavrin-logtest " + m_strMount + " && ln -sfn " + m_strMount + " " + m_strLink,
                          status) ||
            status != 0)
        {
            m_strWhyNot = "cannot mount a tmpfs volume (status " + std::to_string(status) + ")";
            RunUnixShell("rmdir " + m_strMount, status);
            m_strMount.clear();
        }
    }
    ~CTmpfsDrive()
    {
        int status = 0;
        if (!m_strMount.empty())
            RunUnixShell("rm -f " + m_strLink + "; umount " + m_strMount + " || umount -l " + m_strMount + "; rmdir " +
                             m_strMount,
                         status);
    }
    CTmpfsDrive(const CTmpfsDrive&) = delete;
    CTmpfsDrive& operator=(const CTmpfsDrive&) = delete;

    bool IsReady() const { return !m_strMount.empty(); }
    const std::string& WhyNot() const { return m_strWhyNot; }
    ustring Root() const { return ustring(1, m_cLetter) + L":"; }

private:
    wchar_t m_cLetter = 0;
    std::string m_strMount;
    std::string m_strLink;
    std::string m_strWhyNot;
};

} // namespace

TEST(LogFileFaults, AFullVolumeStopsTheLogAndTheStatusSaysWhy)
{
    CTmpfsDrive drive(256);
    if (!drive.IsReady())
        GTEST_SKIP() << drive.WhyNot();
    CTempFolder reports(L"diskfull");
    const ustring logFolder = drive.Root() + L"\\logs";
    const ChildRun run =
        RunChild(L"tavrin_logtest_child.exe",
                 ustring::sprintf_stc(L"diskfull \"%ls\" \"%ls\"", reports.Path().c_str(), logFolder.c_str()));
    ASSERT_TRUE(run.bEnded);
    ASSERT_EQ(0u, run.nExitCode);
    const auto report = ReadReport(reports.Path());
    // The worker stopped at the first failed write, with the system's reason; logging went on
    // without a complaint, and the next proxy dropped the file from the server, which still
    // reports what became of it.
    EXPECT_EQ(0u, Number(report, "running"));
    EXPECT_EQ(static_cast<unsigned long long>(ERROR_DISK_FULL), Number(report, "error"));
    EXPECT_GT(Number(report, "logged"), Number(report, "written"));
    EXPECT_EQ(0u, Number(report, "in_map"));
    EXPECT_EQ(1u, Number(report, "reported"));
    EXPECT_EQ(0u, Number(report, "reported_running"));
    EXPECT_EQ(Number(report, "error"), Number(report, "reported_error"));
    EXPECT_EQ(Number(report, "written"), Number(report, "reported_written"));

    // The file holds every record written, complete and in order, then at most the part of the
    // record that did not fit (and the error line, when there was room for it).
    const IndexedRecords records =
        ReadIndexedRecords(OnlyLogFile(logFolder), "SYNC WRITE request completed: 100 (0x64) bytes, ", nullptr);
    const unsigned int written = static_cast<unsigned int>(Number(report, "written"));
    ASSERT_GE(records.indexes.size(), written);
    std::vector<unsigned int> complete(records.indexes.begin(), records.indexes.begin() + written);
    EXPECT_TRUE(IsSequence(complete, written));
    EXPECT_LE(records.indexes.size(), written + 1u);
}
