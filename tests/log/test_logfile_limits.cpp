// Data log files: the queue limit with its drop notices, the status an application can ask for,
// and the server's Shutdown.
#include "test_logfile_support.h"

#include <tavrin/log/logfile.h>

#include <gtest/gtest.h>

#include <regex>

using namespace tavrin;
using namespace logtest;

namespace {

// A formatter that holds the worker inside its batch until the test lets it go.
HANDLE g_hFormatterEntered = nullptr;
HANDLE g_hFormatterRelease = nullptr;

ustring __stdcall BlockingFormatter(const std::vector<unsigned char>& data)
{
    ::SetEvent(g_hFormatterEntered);
    ::WaitForSingleObject(g_hFormatterRelease, 20000);
    return ustring();
}

// The events of the blocking formatter, for one test.
struct CFormatterGate
{
    CEvent entered{nullptr, FALSE, FALSE, nullptr};
    CEvent release{nullptr, TRUE, FALSE, nullptr};
    CFormatterGate()
    {
        g_hFormatterEntered = entered.GetHandle();
        g_hFormatterRelease = release.GetHandle();
    }
    ~CFormatterGate() { release.Set(); }
};

void LogIndexed(CLogFile& log, unsigned int index)
{
    unsigned char bytes[64] = {static_cast<unsigned char>(index), static_cast<unsigned char>(index >> 8)};
    log.LogSentData(bytes, sizeof(bytes), true);
}

unsigned int IndexOf(const Record& record)
{
    return static_cast<unsigned int>(std::stoul(record.body.substr(1, 2), nullptr, 16) |
                                     std::stoul(record.body.substr(4, 2), nullptr, 16) << 8);
}

} // namespace

TEST(LogFileQueue, RecordsBeyondTheLimitAreDroppedCountedAndNotedInTheFile)
{
    CFormatterGate gate;
    CTempFolder folder(L"limit");
    const ustring path = folder / L"limit.log";
    const std::size_t kLimit = 4096;
    const unsigned int kRecords = 200;

    CLogFile log(eLogFileDetailVerbose, &BlockingFormatter);
    log.SetQueueLimit(kLimit);
    EXPECT_EQ(kLimit, log.GetQueueLimit());
    ASSERT_TRUE(log.Open(path));
    // Record 0 is taken by the worker, which then stays in the formatter.
    LogIndexed(log, 0);
    ASSERT_EQ(WAIT_OBJECT_0, ::WaitForSingleObject(gate.entered.GetHandle(), 10000));

    // The queue fills up to the limit; everything after is dropped, and counted.
    SYSTEMTIME before, after;
    ::GetLocalTime(&before);
    for (unsigned int i = 1; i <= kRecords; ++i)
        LogIndexed(log, i);
    ::GetLocalTime(&after);
    const CLogFile::Status full = log.GetStatus();
    EXPECT_TRUE(full.bRunning);
    EXPECT_EQ(0, full.nError);
    EXPECT_EQ(0u, full.nWritten);
    EXPECT_LE(full.nQueuedBytes, kLimit);
    EXPECT_EQ(kLimit, full.nQueueLimit);
    ASSERT_GT(full.nDropped, 0u);
    ASSERT_GT(full.nQueued, 1u); // record 0 in the worker's hands, and some that fitted
    const unsigned int queued = static_cast<unsigned int>(full.nQueued) - 1;
    EXPECT_EQ(kRecords, queued + full.nDropped);

    // Once the queue has drained, the next record is taken, after the notice of the drops.
    gate.release.Set();
    ASSERT_TRUE(WaitUntil([&log] { return log.GetStatus().nQueued == 0; }));
    LogIndexed(log, kRecords + 1);
    log.Close();
    const CLogFile::Status closed = log.GetStatus();
    EXPECT_FALSE(closed.bRunning);
    EXPECT_EQ(queued + 2u, closed.nWritten);
    EXPECT_EQ(full.nDropped, closed.nDropped);

    const std::vector<Record> records = ParseRecords(ReadBytes(path));
    ASSERT_EQ(queued + 3u, records.size());
    for (unsigned int i = 0; i <= queued; ++i)
        EXPECT_EQ(i, IndexOf(records[i])) << "record " << i;
    const Record& notice = records[queued + 1];
    EXPECT_EQ("Text Event, ", notice.head);
    std::smatch parts;
    ASSERT_TRUE(
        std::regex_match(notice.body, parts,
                         std::regex("Queue limit of 4096 bytes reached: records dropped: (\\d+) \\((\\d+) bytes\\), "
                                    "from (.+) to (.+)\\.\r\n\r\n")))
        << notice.body;
    EXPECT_EQ(std::to_string(full.nDropped), parts[1].str());
    EXPECT_EQ(std::to_string(full.nDropped * 64), parts[2].str());
    // The notice carries the time of the first dropped record, and names the last one's.
    EXPECT_EQ(notice.time, parts[3].str());
    EXPECT_TRUE(TimeBetween(parts[3].str(), before, after));
    EXPECT_TRUE(TimeBetween(parts[4].str(), before, after));
    EXPECT_EQ(kRecords + 1, IndexOf(records[queued + 2]));
}

TEST(LogFileQueue, DropsAtTheEndAreNotedWhenTheFileCloses)
{
    CFormatterGate gate;
    CTempFolder folder(L"lastdrops");
    const ustring path = folder / L"last.log";
    {
        CLogFile log(eLogFileDetailVerbose, &BlockingFormatter);
        // No record fits at all: every one is dropped.
        log.SetQueueLimit(0);
        ASSERT_TRUE(log.Open(path));
        for (unsigned int i = 0; i < 10; ++i)
            LogIndexed(log, i);
        log.LogText(true, L"dropped as well");
        EXPECT_EQ(11u, log.GetStatus().nDropped);
        EXPECT_EQ(0u, log.GetStatus().nQueued);
        gate.release.Set();
    }
    const std::vector<Record> records = ParseRecords(ReadBytes(path));
    ASSERT_EQ(1u, records.size());
    EXPECT_NE(std::string::npos, records[0].body.find("Queue limit of 0 bytes reached: records dropped: 11 ("))
        << records[0].body;
}

TEST(LogFileQueue, TheServerGivesNewFilesItsLimitAndReportsTheirStatus)
{
    CTempFolder folder(L"status");
    CServerSetup setup(folder.Path(), eLogFileDetailVerbose);
    CLogFileServer& server = CLogFileServer::Ref();
    EXPECT_EQ(CLogFile::m_nDefaultQueueLimit, server.GetQueueLimit());
    const unsigned int channel = NextChannel();
    CLogFile::Status status = {};
    EXPECT_FALSE(server.GetStatus(channel, status));

    server.SetQueueLimit(1 << 20);
    ASSERT_TRUE(server.CreateLogFile(channel, L"status", nullptr));
    server.SetQueueLimit(CLogFile::m_nDefaultQueueLimit);
    EXPECT_EQ(1u << 20, server.FindLogFile(channel)->GetQueueLimit());
    for (unsigned int i = 0; i < 10; ++i)
    {
        CLogFileProxy proxy(channel);
        proxy().LogText(true, L"record %u", i);
    }
    ASSERT_TRUE(WaitUntil([&] { return server.GetStatus(channel, status) && status.nWritten == 10; }));
    EXPECT_TRUE(status.bRunning);
    EXPECT_EQ(0, status.nError);
    EXPECT_EQ(0u, status.nDropped);
    EXPECT_EQ(0u, status.nQueued);
    EXPECT_EQ(0u, status.nQueuedBytes);
    EXPECT_EQ(1u << 20, status.nQueueLimit);

    // An attached channel reports its shared file; a closed channel reports nothing.
    const unsigned int attached = NextChannel();
    ASSERT_TRUE(server.Attach(attached, channel));
    ASSERT_TRUE(server.GetStatus(attached, status));
    EXPECT_EQ(10u, status.nWritten);
    ASSERT_TRUE(server.CloseLogFile(channel));
    EXPECT_FALSE(server.GetStatus(channel, status));
    ASSERT_TRUE(server.CloseLogFile(attached));
    EXPECT_FALSE(server.GetStatus(attached, status));
}

TEST(LogFileServer, ShutdownWritesAndClosesEveryFileAndCreatesNoMore)
{
    CTempFolder folder(L"shutdown");
    CServerSetup setup(folder.Path(), eLogFileDetailVerbose);
    CLogFileServer& server = CLogFileServer::Ref();
    const unsigned int first = NextChannel(), shared = NextChannel(), second = NextChannel();
    ASSERT_TRUE(server.CreateLogFile(first, L"first", nullptr));
    ASSERT_TRUE(server.Attach(shared, first));
    ASSERT_TRUE(server.CreateLogFile(second, L"second", nullptr));
    // A holder outside the server keeps the second file alive; Shutdown closes it all the same.
    const boost::shared_ptr<CLogFile> held = server.FindLogFile(second);
    for (unsigned int i = 0; i < 1000; ++i)
    {
        for (const unsigned int channel : {first, shared, second})
        {
            CLogFileProxy proxy(channel);
            proxy().LogText(true, L"record %u", i);
        }
    }
    server.Shutdown();

    // Everything is on disk when Shutdown returns.
    EXPECT_FALSE(server.LogFileExists(first));
    EXPECT_FALSE(server.LogFileExists(shared));
    EXPECT_FALSE(server.LogFileExists(second));
    EXPECT_FALSE(held->IsOK());
    EXPECT_EQ(1000u, held->GetStatus().nWritten);
    std::vector<ustring> names = ListFiles(folder.Path(), L"*.log");
    ASSERT_EQ(2u, names.size());
    std::size_t total = 0;
    for (const ustring& name : names)
        total += ParseRecords(ReadBytes(folder / name.c_str())).size();
    EXPECT_EQ(3000u, total);

    // Later logging is ignored, and no file is made until the detail is set again.
    held->LogText(true, L"ignored");
    EXPECT_EQ(eLogFileDetailOff, server.GetDetail());
    EXPECT_FALSE(server.CreateLogFile(first, L"again", nullptr));
    EXPECT_EQ(2u, ListFiles(folder.Path(), L"*.log").size());
    server.SetDetail(eLogFileDetailVerbose);
    ASSERT_TRUE(server.CreateLogFile(first, L"again", nullptr));
    EXPECT_TRUE(server.CloseLogFile(first));
    EXPECT_EQ(3u, ListFiles(folder.Path(), L"*.log").size());
}
