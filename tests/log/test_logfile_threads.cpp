// Data log files under load and under faults: many threads on one channel, closing with a full
// queue, long-held proxies, and files whose writes start failing.
#include "test_logfile_support.h"

#include <tavrin/core/file.h>
#include <tavrin/log/logfile.h>

#include <gtest/gtest.h>

#include <cstring>
#include <regex>
#include <thread>

using namespace tavrin;
using namespace logtest;

namespace {

// Splits a log file into records at the empty separating lines: each piece is one record's
// header line and body, without the closing "\r\n\r\n". Fast enough for millions of records.
template <class Visitor>
std::size_t ForEachRecord(const std::string& text, Visitor visit)
{
    std::size_t count = 0;
    std::size_t start = 0;
    while (start < text.size())
    {
        const std::size_t end = text.find("\r\n\r\n", start);
        if (end == std::string::npos)
        {
            ADD_FAILURE() << "unterminated record at " << start;
            break;
        }
        visit(text.substr(start, end - start));
        ++count;
        start = end + 4;
    }
    return count;
}

unsigned int HexByte(const std::string& text, std::size_t at)
{
    return static_cast<unsigned int>(std::stoul(text.substr(at, 2), nullptr, 16));
}

// A handle of this process that refers to the file of the given name (compared at the end of
// the path, case-insensitively), or null.
HANDLE FindFileHandle(const ustring& fileName)
{
    const ustring tail = L"\\" + fileName;
    for (UINT_PTR value = 4; value < 0x10000; value += 4)
    {
        const HANDLE handle = reinterpret_cast<HANDLE>(value);
        if (::GetFileType(handle) != FILE_TYPE_DISK)
            continue;
        wchar_t path[2048];
        const DWORD length = ::GetFinalPathNameByHandleW(handle, path, 2048, FILE_NAME_NORMALIZED);
        if (length == 0 || length >= 2048 || length < tail.size())
            continue;
        if (::_wcsicmp(path + length - tail.size(), tail) == 0)
            return handle;
    }
    return nullptr;
}

} // namespace

TEST(LogFileConcurrency, EightThreadsOnOneChannelLoseNothingAndKeepTheirOrder)
{
    CTempFolder folder(L"threads");
    CServerSetup setup(folder.Path(), eLogFileDetailVerbose);
    const unsigned int channel = NextChannel();
    ASSERT_TRUE(CLogFileServer::Ref().CreateLogFile(channel, L"threads", nullptr));

    // A third of the records are data records, so that both queue paths interleave.
    const unsigned int kThreads = 8;
    const unsigned int kRecords = 100000;
    std::vector<std::thread> threads;
    for (unsigned int t = 0; t < kThreads; ++t)
    {
        threads.emplace_back([channel, t] {
            for (unsigned int i = 0; i < kRecords; ++i)
            {
                CLogFileProxy proxy(channel);
                if (i % 3 == 0)
                {
                    // A data record naming its thread and index in its first five bytes.
                    const unsigned char bytes[8] = {static_cast<unsigned char>(t),
                                                    static_cast<unsigned char>(i),
                                                    static_cast<unsigned char>(i >> 8),
                                                    static_cast<unsigned char>(i >> 16),
                                                    static_cast<unsigned char>(i >> 24),
                                                    0xAB, 0xCD, 0xEF};
                    proxy().LogSentData(bytes, sizeof(bytes), true);
                }
                else
                    proxy().LogText(true, L"T%u #%u", t, i);
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    // The map holds the last reference: the file is closed, everything queued written.
    ASSERT_TRUE(CLogFileServer::Ref().CloseLogFile(channel));

    const std::string text = ReadBytes(OnlyLogFile(folder.Path()));
    std::vector<unsigned int> next(kThreads, 0);
    unsigned int misordered = 0;
    const std::size_t count = ForEachRecord(text, [&](const std::string& record) {
        const std::size_t lineEnd = record.find("\r\n");
        if (lineEnd == std::string::npos)
        {
            ++misordered;
            return;
        }
        const std::string body = record.substr(lineEnd + 2);
        unsigned int t = 0, i = 0;
        if (record.compare(0, 12, "Text Event, ") == 0)
        {
            if (std::sscanf(body.c_str(), "T%u #%u", &t, &i) != 2)
                t = kThreads;
        }
        else if (record.compare(0, 45, "SYNC WRITE request completed: 8 (0x8) bytes, ") == 0 &&
                 body.compare(1 + 5 * 3, 9, "AB CD EF ") == 0)
        {
            t = HexByte(body, 1);
            i = HexByte(body, 4) | HexByte(body, 7) << 8 | HexByte(body, 10) << 16 | HexByte(body, 13) << 24;
        }
        else
            t = kThreads;
        if (t >= kThreads || i != next[t])
        {
            ++misordered;
            return;
        }
        ++next[t];
    });
    EXPECT_EQ(static_cast<std::size_t>(kThreads) * kRecords, count);
    EXPECT_EQ(0u, misordered);
    for (unsigned int t = 0; t < kThreads; ++t)
        EXPECT_EQ(kRecords, next[t]) << "thread " << t;
}

TEST(LogFileConcurrency, CloseWritesEverythingQueuedBeforeItReturns)
{
    CTempFolder folder(L"closeall");
    const ustring path = folder / L"close.log";
    const unsigned int kRecords = 20000;
    {
        CLogFile log(eLogFileDetailVerbose);
        ASSERT_TRUE(log.Open(path));
        for (unsigned int i = 0; i < kRecords; ++i)
            log.LogText(false, L"record %u", i);
        log.Close();
        EXPECT_EQ(kRecords, ForEachRecord(ReadBytes(path), [](const std::string&) {}));

        // Again through the destructor, appending to the same file.
        ASSERT_TRUE(log.Open(path));
        for (unsigned int i = 0; i < kRecords; ++i)
            log.LogText(false, L"record %u", i);
    }
    EXPECT_EQ(2 * kRecords, ForEachRecord(ReadBytes(path), [](const std::string&) {}));
}

TEST(LogFileConcurrency, AProxyHeldForAWhileNeverDeadlocksTheWorker)
{
    CTempFolder folder(L"held");
    CServerSetup setup(folder.Path(), eLogFileDetailVerbose);
    const unsigned int channel = NextChannel();
    ASSERT_TRUE(CLogFileServer::Ref().CreateLogFile(channel, L"held", nullptr));
    std::thread other;
    {
        CLogFileProxy proxy(channel);
        proxy().LogText(true, L"queued while held");
        // Meanwhile another thread waits for the lock to log its own record.
        other = std::thread([channel] {
            CLogFileProxy otherProxy(channel);
            otherProxy().LogText(true, L"too late: the file is closed");
        });
        ::Sleep(350); // several worker cycles find the lock taken
        proxy().LogText(true, L"last while held");
        // Closing inside the proxy, as CFile::Close does: the worker must still get out.
        proxy().Close();
        EXPECT_FALSE(proxy().IsOK());
    }
    other.join();
    // The closed file was dropped from the map by a proxy.
    EXPECT_FALSE(CLogFileServer::Ref().LogFileExists(channel));

    const std::vector<Record> records = ParseRecords(ReadBytes(OnlyLogFile(folder.Path())));
    ASSERT_EQ(2u, records.size());
    EXPECT_EQ("queued while held\r\n\r\n", records[0].body);
    EXPECT_EQ("last while held\r\n\r\n", records[1].body);
}

TEST(LogFileFaults, AFullVolumeEndsTheWorkerAndLoggingGoesQuiet)
{
    // Wine maps the Unix root to Z:, where /dev/full fails every write with "disk full".
    CLogFile log(eLogFileDetailVerbose);
    if (!log.Open(L"Z:\\dev\\full"))
        GTEST_SKIP() << "no device that is always full";
    EXPECT_TRUE(log.IsOK());
    log.LogText(true, L"this record cannot be written");
    EXPECT_TRUE(WaitUntil([&log] { return !log.IsOK(); }));

    // Everything after is ignored without a complaint.
    OVERLAPPED ov = {};
    char buffer[4] = {};
    log.LogText(true, L"ignored");
    log.LogReceivedData(buffer, 4, true);
    EXPECT_FALSE(log.AddPendingReadOperation(buffer, 4, &ov));
    log.Close();
    EXPECT_FALSE(log.IsOK());
}

TEST(LogFileFaults, ABrokenLogFileIsDroppedAndTheChannelsFileKeepsWorking)
{
    CTempFolder folder(L"broken");
    CServerSetup setup(folder.Path(), eLogFileDetailVerbose);
    const ustring dataPath = folder / L"data.bin";
    CFile data(dataPath, GENERIC_READ | GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr,
               CFile::eLoggingModeOn);
    const unsigned int channel = LogChannel(data.GetHandle());
    ASSERT_TRUE(CLogFileServer::Ref().LogFileExists(channel));
    const ustring logPath = OnlyLogFile(folder.Path());
    ASSERT_TRUE(WaitUntil([&logPath] { return ReadBytes(logPath).find("has been opened.") != std::string::npos; }));

    // Make the log file's handle unusable for writing: close it and let a read-only handle of
    // another file take its value (the system reuses the lowest free value).
    const HANDLE logHandle = FindFileHandle(logPath.substr(logPath.rfind(L'\\') + 1));
    ASSERT_NE(nullptr, logHandle);
    const ustring decoyPath = folder / L"decoy.txt";
    WriteBytes(decoyPath, "");
    ASSERT_TRUE(::CloseHandle(logHandle));
    const HANDLE decoy = ::CreateFileW(decoyPath, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                       nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    ASSERT_EQ(logHandle, decoy) << "the handle value was not reused";

    // The next record cannot be written: the worker ends, and the log file reports it.
    unsigned int count = 0;
    EXPECT_TRUE(data.Write("abc", 3, count));
    const boost::shared_ptr<CLogFile> logFile = CLogFileServer::Ref().FindLogFile(channel);
    ASSERT_TRUE(logFile);
    EXPECT_TRUE(WaitUntil([&logFile] { return !logFile->IsOK(); }));

    // The next proxy on the channel drops it from the server.
    {
        CLogFileProxy proxy(channel);
        EXPECT_FALSE(proxy().IsOK());
    }
    EXPECT_FALSE(CLogFileServer::Ref().LogFileExists(channel));

    // The file itself goes on, unlogged and without exceptions.
    EXPECT_NO_THROW({
        EXPECT_TRUE(data.Write("def", 3, count));
        data.Seek(0, FILE_BEGIN);
        char back[8] = {};
        EXPECT_TRUE(data.Read(back, sizeof(back), count));
        EXPECT_EQ(6u, count);
        EXPECT_EQ(0, std::memcmp(back, "abcdef", 6));
        EXPECT_TRUE(data.Close());
    });
    EXPECT_EQ("", ReadBytes(decoyPath));
    const std::string logText = ReadBytes(logPath);
    EXPECT_EQ(std::string::npos, logText.find("WRITE request"));
}

TEST(LogFileFaults, AFailedWriteLeavesTheErrorLineWhenItCan)
{
    // The log file's handle is replaced by a connected UDP socket: a datagram cannot hold a large
    // record, so its write fails, while the short error line still goes out and arrives at the
    // receiving socket.
    WSADATA wsa;
    ASSERT_EQ(0, ::WSAStartup(MAKEWORD(2, 2), &wsa));
    CTempFolder folder(L"errorline");
    const ustring path = folder / L"errorline.log";
    CLogFile log(eLogFileDetailVerbose);
    ASSERT_TRUE(log.Open(path));

    const SOCKET receiver = ::WSASocketW(AF_INET, SOCK_DGRAM, IPPROTO_UDP, nullptr, 0, 0);
    ASSERT_NE(INVALID_SOCKET, receiver);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    int length = sizeof(address);
    ASSERT_EQ(0, ::bind(receiver, reinterpret_cast<sockaddr*>(&address), sizeof(address)));
    ASSERT_EQ(0, ::getsockname(receiver, reinterpret_cast<sockaddr*>(&address), &length));
    const DWORD timeoutMs = 10000;
    ::setsockopt(receiver, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char*>(&timeoutMs), sizeof(timeoutMs));

    const HANDLE logHandle = FindFileHandle(L"errorline.log");
    ASSERT_NE(nullptr, logHandle);
    ASSERT_TRUE(::CloseHandle(logHandle));
    const SOCKET sender = ::WSASocketW(AF_INET, SOCK_DGRAM, IPPROTO_UDP, nullptr, 0, 0);
    ASSERT_EQ(reinterpret_cast<UINT_PTR>(logHandle), static_cast<UINT_PTR>(sender))
        << "the handle value was not reused";
    ASSERT_EQ(0, ::connect(sender, reinterpret_cast<sockaddr*>(&address), sizeof(address)));

    // A 20,000-byte record: 625 dump lines of 103 characters plus the bytes' text column, the
    // closing empty line, and the header line with its time stamp.
    SYSTEMTIME now;
    ::GetLocalTime(&now);
    const std::vector<unsigned char> big(20000, 0x41);
    log.LogReceivedData(big.data(), static_cast<unsigned int>(big.size()), false);
    const std::size_t expected = std::string("ASYNC READ request completed: 20000 (0x4E20) bytes, ").size() +
                                 TimeText(now).size() + 2 + 625 * 103 + 20000 + 2;

    char line[256] = {};
    const int received = ::recv(receiver, line, sizeof(line) - 1, 0);
    ASSERT_GT(received, 0);
    std::cmatch parts;
    ASSERT_TRUE(std::regex_match(line, parts, std::regex("Error=(-?\\d+), BytesToWrite=(\\d+)\r\n"))) << line;
    EXPECT_NE("0", parts[1].str());
    EXPECT_EQ(std::to_string(expected), parts[2].str());

    // The worker has ended; the log file closed the handle it was given (the socket).
    EXPECT_TRUE(WaitUntil([&log] { return !log.IsOK(); }));
    log.LogText(true, L"ignored");
    log.Close();
    ::closesocket(receiver);
    ::WSACleanup();
}
