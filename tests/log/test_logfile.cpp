// Data log files: dumps, the record layout on disk, detail levels, pending operations, the
// server's channel map and the proxy.
#include "test_logfile_support.h"

#include <tavrin/l10n/registry.h>
#include <tavrin/log/logfile.h>

#include <gtest/gtest.h>

#include <shlobj.h>

using namespace tavrin;
using namespace logtest;

namespace {

std::vector<unsigned char> Bytes(std::initializer_list<int> values)
{
    std::vector<unsigned char> bytes;
    for (int v : values)
        bytes.push_back(static_cast<unsigned char>(v));
    return bytes;
}

// Distinct channel numbers per test, far from real handle values.
unsigned int NextChannel()
{
    static unsigned int next = 0x7F000000u;
    return ++next;
}

ustring __stdcall DescribeFrame(const std::vector<unsigned char>& data)
{
    return ustring::sprintf_stc(L"frame of %u bytes, first 0x%02X\r\n", static_cast<unsigned int>(data.size()),
                                data.empty() ? 0u : data[0]);
}

} // namespace

// ---------------------------------------------------------------- dumps

TEST(LogFileDump, Bin2HexSeparatesBytesBySingleBlanks)
{
    const unsigned char bytes[] = {0x01, 0xA2, 0xFF};
    EXPECT_EQ(L"01 A2 FF", CLogFile::Bin2Hex(bytes, 3));
    EXPECT_EQ(L"0A", CLogFile::Bin2Hex(bytes + 0, 0) + CLogFile::Bin2Hex("\n", 1));
    EXPECT_EQ(L"", CLogFile::Bin2Hex(nullptr, 5));

    ustring out = L"stale";
    CLogFile::Bin2Hex(bytes, 0, out);
    EXPECT_EQ(L"", out);
    CLogFile::Bin2Hex(bytes + 1, 2, out);
    EXPECT_EQ(L"A2 FF", out);
}

TEST(LogFileDump, Bin2TextPadsTheHexColumnAndShowsOnlyGraphicBytes)
{
    // The worked example: 41 42 0A on a 32-byte line.
    const ustring three = CLogFile::Bin2Text(Bytes({0x41, 0x42, 0x0A}), 32);
    EXPECT_EQ(L" 41 42 0A " + ustring(87u, L' ') + L"    AB.\r\n", three);
    EXPECT_EQ(101u, three.find(L"AB."));

    // 33 bytes: a full line, then one cell and 31 blank cells.
    std::vector<unsigned char> many(33);
    for (unsigned int i = 0; i < many.size(); ++i)
        many[i] = static_cast<unsigned char>(0x30 + i);
    const ustring two = CLogFile::Bin2Text(many, 32);
    const std::size_t firstEnd = two.find(L"\r\n");
    ASSERT_NE(std::wstring::npos, firstEnd);
    EXPECT_EQ(1u + 96u + 4u + 32u, firstEnd);
    const ustring second = two.substr(firstEnd + 2);
    EXPECT_EQ(L" 50 " + ustring(93u, L' ') + L"    P\r\n", second);

    // Blank, DEL, bytes above 0x7E and controls are "."; letters are themselves.
    EXPECT_EQ(L" 20 7F 41 80     ..A.\r\n FF 00           ..\r\n",
              CLogFile::Bin2Text(Bytes({0x20, 0x7F, 0x41, 0x80, 0xFF, 0x00}), 4));
    EXPECT_EQ(L" 21 7E     !~\r\n", CLogFile::Bin2Text(Bytes({0x21, 0x7E}), 2));

    // Nothing to dump, or no width: empty text, and the out-parameter is cleared.
    ustring out = L"stale";
    CLogFile::Bin2Text(std::vector<unsigned char>(), 32, out);
    EXPECT_EQ(L"", out);
    CLogFile::Bin2Text(Bytes({1, 2}), 0, out);
    EXPECT_EQ(L"", out);
}

// ---------------------------------------------------------------- records on disk

TEST(LogFileRecords, DataAndTextRecordsMatchTheLayoutByteForByte)
{
    CTempFolder folder(L"layout");
    const ustring path = folder / L"layout.log";
    CLogFile log(eLogFileDetailVerbose);
    ASSERT_TRUE(log.Open(path));
    EXPECT_TRUE(log.IsOK());

    SYSTEMTIME before, after;
    ::GetLocalTime(&before);
    const std::vector<unsigned char> abc = Bytes({0x41, 0x42, 0x0A});
    log.LogReceivedData(abc.data(), 3, false);
    log.LogSentData(abc.data(), 0, true);
    std::vector<unsigned char> many(33);
    for (unsigned int i = 0; i < many.size(); ++i)
        many[i] = static_cast<unsigned char>(i * 7);
    log.LogSentData(many.data(), 33, true);
    log.LogText(false, L"Value %u of %ls.", 42u, L"the answer");
    ::GetLocalTime(&after);
    log.Close();
    EXPECT_FALSE(log.IsOK());

    const std::string text = ReadBytes(path);
    const std::vector<Record> records = ParseRecords(text);
    ASSERT_EQ(4u, records.size());

    EXPECT_EQ("ASYNC READ request completed: 3 (0x3) bytes, ", records[0].head);
    EXPECT_EQ(DumpLine(abc) + "\r\n", records[0].body);
    EXPECT_EQ(" 41 42 0A " + std::string(87, ' ') + "    AB.\r\n\r\n", records[0].body);

    EXPECT_EQ("SYNC WRITE request completed: 0 (0x0) bytes, ", records[1].head);
    EXPECT_EQ("\r\n", records[1].body);

    EXPECT_EQ("SYNC WRITE request completed: 33 (0x21) bytes, ", records[2].head);
    EXPECT_EQ(DumpLine(std::vector<unsigned char>(many.begin(), many.begin() + 32)) +
                  DumpLine(std::vector<unsigned char>(many.begin() + 32, many.end())) + "\r\n",
              records[2].body);

    EXPECT_EQ("Text Event, ", records[3].head);
    EXPECT_EQ("Value 42 of the answer.\r\n\r\n", records[3].body);

    // Every record carries the caller's time; the file is nothing but the records.
    std::string rebuilt;
    for (const Record& record : records)
    {
        EXPECT_TRUE(TimeBetween(record.time, before, after)) << record.time;
        rebuilt += record.head + record.time + "\r\n" + record.body;
    }
    EXPECT_EQ(text, rebuilt);
}

TEST(LogFileRecords, FormatterTextPrecedesTheDumpAndTextIsUtf8)
{
    CTempFolder folder(L"formatter");
    const ustring path = folder / L"formatted.log";
    CLogFile log(eLogFileDetailVerbose, &DescribeFrame);
    ASSERT_TRUE(log.Open(path));
    const std::vector<unsigned char> frame = Bytes({0x02, 0x31, 0x03});
    log.LogSentData(frame.data(), 3, false);
    log.LogText(true, L"Gr\u00FC\u00DFe %ls", L"\u20AC \U0001F600");
    log.Close();

    const std::vector<Record> records = ParseRecords(ReadBytes(path));
    ASSERT_EQ(2u, records.size());
    EXPECT_EQ("ASYNC WRITE request completed: 3 (0x3) bytes, ", records[0].head);
    EXPECT_EQ("frame of 3 bytes, first 0x02\r\n" + DumpLine(frame) + "\r\n", records[0].body);
    EXPECT_EQ("Gr\xC3\xBC\xC3\x9F"
              "e \xE2\x82\xAC \xF0\x9F\x98\x80\r\n\r\n",
              records[1].body);
}

TEST(LogFileRecords, ExistingFilesAreAppendedTo)
{
    CTempFolder folder(L"append");
    const ustring path = folder / L"append.log";
    WriteBytes(path, "earlier content\r\n");
    {
        CLogFile log(eLogFileDetailVerbose);
        ASSERT_TRUE(log.Open(path));
        log.LogText(false, L"first");
    } // the destructor writes what was queued
    {
        CLogFile log(eLogFileDetailVerbose);
        ASSERT_TRUE(log.Open(path));
        // Re-opening a running log file starts over on the same path, after the queued records.
        log.LogText(false, L"second");
        ASSERT_TRUE(log.Open(path));
        log.LogText(false, L"third");
        log.Close();
    }
    const std::string text = ReadBytes(path);
    ASSERT_EQ(0u, text.find("earlier content\r\nText Event, "));
    const std::vector<Record> records = ParseRecords(text);
    ASSERT_EQ(3u, records.size());
    EXPECT_EQ("first\r\n\r\n", records[0].body);
    EXPECT_EQ("second\r\n\r\n", records[1].body);
    EXPECT_EQ("third\r\n\r\n", records[2].body);
}

TEST(LogFileRecords, DetailLevelsFilterWhatIsQueued)
{
    CTempFolder folder(L"detail");
    const unsigned long mask = EV_RXCHAR;
    const unsigned char byte = 0x55;
    struct Case
    {
        ELogFileDetail detail;
        const char* expected; // record heads and bodies, in order
    };
    const Case cases[] = {
        {eLogFileDetailOff, ""},
        {eLogFileDetailNormal, "Text Event, |important\r\n\r\n|SYNC READ request completed: 1 (0x1) bytes, |"},
        {eLogFileDetailVerbose, "Text Event, |important\r\n\r\n|Text Event, |minor\r\n\r\n|"
                                "SYNC READ request completed: 1 (0x1) bytes, |Text Event, |"
                                "ASYNC WaitCommEvent(LPDWORD lpEvtMask) succeeded. *lpEvtMask=0x1 (EV_RXCHAR).\r\n\r\n|"},
    };
    for (const Case& c : cases)
    {
        const ustring path = folder / ustring::sprintf_stc(L"detail%u.log", static_cast<unsigned int>(c.detail));
        CLogFile log(c.detail);
        ASSERT_TRUE(log.Open(path));
        log.LogText(true, L"important");
        log.LogText(false, L"minor");
        log.LogReceivedData(&byte, 1, true);
        OVERLAPPED wait = {};
        EXPECT_TRUE(log.AddPendingWaitOperation(&mask, &wait));
        EXPECT_TRUE(log.CommitPendingOperation(&wait, 4));
        log.Close();

        std::string summary;
        for (const Record& record : ParseRecords(ReadBytes(path)))
        {
            summary += record.head + "|";
            if (record.head == "Text Event, ")
                summary += record.body + "|";
        }
        EXPECT_EQ(c.expected, summary) << "detail " << c.detail;
    }
}

TEST(LogFileRecords, OpenFailsCleanlyAndClosedFilesIgnoreEverything)
{
    CTempFolder folder(L"openfail");
    CLogFile log(eLogFileDetailVerbose);
    EXPECT_FALSE(log.IsOK());
    EXPECT_FALSE(log.Open(folder / L"missing\\sub\\x.log")); // the folder does not exist
    EXPECT_FALSE(log.IsOK());
    EXPECT_FALSE(log.Open(folder.Path())); // a folder is no file
    EXPECT_FALSE(log.IsOK());

    OVERLAPPED ov = {};
    char buffer[4] = {};
    log.LogText(true, L"ignored %ls", L"text");
    log.LogSentData(buffer, 4, true);
    EXPECT_FALSE(log.AddPendingReadOperation(buffer, 4, &ov));
    EXPECT_FALSE(log.CommitPendingOperation(&ov, 4));
    log.Close();
    log.Close();
    EXPECT_TRUE(ListFiles(folder.Path()).empty());
}

// ---------------------------------------------------------------- pending operations

TEST(LogFilePending, CommitPairsCompletionsWithRegistrations)
{
    CTempFolder folder(L"pending");
    const ustring path = folder / L"pending.log";
    CLogFile log(eLogFileDetailVerbose);
    ASSERT_TRUE(log.Open(path));

    OVERLAPPED ov1 = {}, ov2 = {}, ov3 = {};
    const std::vector<unsigned char> readBuffer = Bytes({0x10, 0x11, 0x12, 0x13});
    const std::vector<unsigned char> stale = Bytes({0xEE, 0xEE});
    const std::vector<unsigned char> writeBuffer = Bytes({0x20, 0x21, 0x22});

    ASSERT_TRUE(log.AddPendingReadOperation(readBuffer.data(), 4, &ov1));
    EXPECT_FALSE(log.CommitPendingOperation(&ov2, 4)); // never registered
    // More bytes reported than the registered size: only the registered size is logged.
    EXPECT_TRUE(log.CommitPendingOperation(&ov1, 100));
    EXPECT_FALSE(log.CommitPendingOperation(&ov1, 4)); // already committed

    // A reused OVERLAPPED replaces its stale registration, kind included.
    ASSERT_TRUE(log.AddPendingReadOperation(stale.data(), 2, &ov2));
    ASSERT_TRUE(log.AddPendingWriteOperation(writeBuffer.data(), 3, &ov2));
    EXPECT_TRUE(log.CommitPendingOperation(&ov2, 2));

    const unsigned long mask = EV_RXCHAR | EV_TXEMPTY | EV_RING;
    ASSERT_TRUE(log.AddPendingWaitOperation(&mask, &ov3));
    EXPECT_TRUE(log.CommitPendingOperation(&ov3, 0));

    // Clear forgets registrations (and whatever is still queued: let the worker write first).
    ASSERT_TRUE(WaitUntil([&path] { return ParseRecords(ReadBytes(path)).size() == 3; }));
    ASSERT_TRUE(log.AddPendingReadOperation(readBuffer.data(), 4, &ov1));
    log.Clear();
    EXPECT_FALSE(log.CommitPendingOperation(&ov1, 4));
    log.Close();

    const std::vector<Record> records = ParseRecords(ReadBytes(path));
    ASSERT_EQ(3u, records.size());
    EXPECT_EQ("ASYNC READ request completed: 4 (0x4) bytes, ", records[0].head);
    EXPECT_EQ(DumpLine(readBuffer) + "\r\n", records[0].body);
    EXPECT_EQ("ASYNC WRITE request completed: 2 (0x2) bytes, ", records[1].head);
    EXPECT_EQ(DumpLine(Bytes({0x20, 0x21})) + "\r\n", records[1].body);
    EXPECT_EQ("Text Event, ", records[2].head);
    EXPECT_EQ("ASYNC WaitCommEvent(LPDWORD lpEvtMask) succeeded. *lpEvtMask=0x105 (EV_RXCHAR|EV_TXEMPTY|EV_RING).\r\n\r\n",
              records[2].body);
}

TEST(LogFilePending, AbortKeepsOnlyTheBytesThatMoved)
{
    CTempFolder folder(L"abort");
    const ustring path = folder / L"abort.log";
    CLogFile log(eLogFileDetailVerbose);
    ASSERT_TRUE(log.Open(path));

    OVERLAPPED ov1 = {}, ov2 = {}, ov3 = {}, ov4 = {};
    const std::vector<unsigned char> written = Bytes({0x30, 0x31, 0x32, 0x33, 0x34});
    char readBuffer[8] = {};
    const unsigned long mask = EV_RXCHAR;
    ASSERT_TRUE(log.AddPendingWriteOperation(written.data(), 5, &ov1));
    ASSERT_TRUE(log.AddPendingReadOperation(readBuffer, 8, &ov2));
    ASSERT_TRUE(log.AddPendingWaitOperation(&mask, &ov3));

    EXPECT_FALSE(log.AbortPendingOperation(&ov4, 3)); // never registered
    EXPECT_TRUE(log.AbortPendingOperation(&ov1, 3));  // three of five bytes went out
    EXPECT_TRUE(log.AbortPendingOperation(&ov2, 0));  // nothing came: no record
    EXPECT_TRUE(log.AbortPendingOperation(&ov3, 4));  // an aborted wait is never logged
    // Each is forgotten either way.
    for (OVERLAPPED* ov : {&ov1, &ov2, &ov3})
    {
        EXPECT_FALSE(log.CommitPendingOperation(ov, 1));
        EXPECT_FALSE(log.AbortPendingOperation(ov, 1));
    }
    log.Close();

    const std::vector<Record> records = ParseRecords(ReadBytes(path));
    ASSERT_EQ(1u, records.size());
    EXPECT_EQ("ASYNC WRITE request completed: 3 (0x3) bytes, ", records[0].head);
    EXPECT_EQ(DumpLine(Bytes({0x30, 0x31, 0x32})) + "\r\n", records[0].body);
}

TEST(LogFilePending, EventMaskTextFollowsTheBitOrder)
{
    EXPECT_EQ(L"", CommEventMaskText(0));
    EXPECT_EQ(L"EV_RXCHAR|EV_TXEMPTY|EV_RING", CommEventMaskText(0x105));
    EXPECT_EQ(L"EV_EVENT2", CommEventMaskText(0x1000 | 0x2000 | 0x80000000u));
    EXPECT_EQ(L"EV_RXCHAR|EV_RXFLAG|EV_TXEMPTY|EV_CTS|EV_DSR|EV_RLSD|EV_BREAK|EV_ERR|EV_RING|EV_PERR|EV_RX80FULL|"
              L"EV_EVENT1|EV_EVENT2",
              CommEventMaskText(0x1FFF));
}

// ---------------------------------------------------------------- the server

TEST(LogFileServer, StartsOffWithTheDocumentsFolderAndTheLogsKey)
{
    CLogFileServer& server = CLogFileServer::Ref();
    EXPECT_EQ(&server, &CLogFileServer::Ref());
    EXPECT_EQ(L"SOFTWARE\\Vemko\\tavrin_log_tests\\Logs", server.GetSettingsKey());

    ustring stored;
    if (!RegGetValue(HKEY_CURRENT_USER, server.GetSettingsKey(), L"Path", stored))
    {
        ustring documents;
        CFile::GetSpecialFolderPath(CSIDL_PERSONAL, documents);
        // Other tests point the server elsewhere and put it back; the default stays.
        EXPECT_EQ(documents + L"\\_Debug", server.GetFolder());
    }
    EXPECT_EQ(eLogFileDetailOff, server.GetDetail());
}

TEST(LogFileServer, DetailOffCreatesNothing)
{
    CTempFolder folder(L"off");
    const ustring sub = folder / L"logs";
    CServerSetup setup(sub, eLogFileDetailOff);
    const unsigned int channel = NextChannel();
    EXPECT_FALSE(CLogFileServer::Ref().CreateLogFile(channel, L"COM3", nullptr));
    EXPECT_FALSE(CLogFileServer::Ref().LogFileExists(channel));
    EXPECT_FALSE(CLogFileServer::Ref().FindLogFile(channel));
    EXPECT_EQ(INVALID_FILE_ATTRIBUTES, ::GetFileAttributesW(sub));
}

TEST(LogFileServer, CreatesNamedFilesInMissingFolders)
{
    CTempFolder folder(L"names");
    const ustring sub = folder / L"a\\b\\";
    CServerSetup setup(sub, eLogFileDetailNormal);
    const unsigned int channel = NextChannel();
    SYSTEMTIME before, after;
    ::GetLocalTime(&before);
    ASSERT_TRUE(CLogFileServer::Ref().CreateLogFile(channel, L"COM3", nullptr));
    ::GetLocalTime(&after);
    EXPECT_TRUE(CLogFileServer::Ref().LogFileExists(channel));
    const boost::shared_ptr<CLogFile> file = CLogFileServer::Ref().FindLogFile(channel);
    ASSERT_TRUE(file);
    EXPECT_TRUE(file->IsOK());

    const std::vector<ustring> names = ListFiles(folder / L"a\\b");
    ASSERT_EQ(1u, names.size());
    const std::string name = ustring::WideCharToMultiByte(names[0], CP_UTF8);
    std::smatch parts;
    ASSERT_TRUE(std::regex_match(name, parts,
                                 std::regex("COM3-(\\d{4})\\.(\\d\\d)\\.(\\d\\d)-(\\d\\d)\\.(\\d\\d)\\.(\\d\\d)\\.(\\d{3})\\.log")))
        << name;
    // The name is the creation time: compare it as a record time.
    const std::string asTime = parts[1].str() + "/" + std::to_string(std::stoi(parts[2].str())) + "/" +
                               std::to_string(std::stoi(parts[3].str())) + ", " + parts[4].str() + ":" +
                               parts[5].str() + ":" + parts[6].str() + "." + parts[7].str();
    EXPECT_TRUE(TimeBetween(asTime, before, after)) << name;

    EXPECT_TRUE(CLogFileServer::Ref().CloseLogFile(channel));
    EXPECT_FALSE(CLogFileServer::Ref().CloseLogFile(channel));
    EXPECT_FALSE(CLogFileServer::Ref().LogFileExists(channel));
    EXPECT_TRUE(file->IsOK()); // still held here: it closes with its last holder
}

TEST(LogFileServer, AttachSharesFilesAndCloseLeavesTheOtherChannelLogging)
{
    CTempFolder folder(L"attach");
    CServerSetup setup(folder.Path(), eLogFileDetailVerbose);
    CLogFileServer& server = CLogFileServer::Ref();
    const unsigned int three = NextChannel();
    const unsigned int five = NextChannel();
    const unsigned int seven = NextChannel();

    EXPECT_FALSE(server.Attach(five, three)); // channel 3 has no file yet
    EXPECT_FALSE(server.LogFileExists(five));
    ASSERT_TRUE(server.CreateLogFile(three, L"shared", nullptr));
    ASSERT_TRUE(server.CreateLogFile(seven, L"own", nullptr));
    EXPECT_TRUE(server.Attach(five, three));
    EXPECT_EQ(server.FindLogFile(three), server.FindLogFile(five));
    // An existing entry is kept, not overwritten.
    EXPECT_TRUE(server.Attach(seven, three));
    EXPECT_NE(server.FindLogFile(three), server.FindLogFile(seven));

    {
        CLogFileProxy proxy(three);
        proxy().LogText(true, L"from three");
    }
    {
        CLogFileProxy proxy(five);
        proxy().LogText(true, L"from five");
    }
    EXPECT_TRUE(server.CloseLogFile(three));
    {
        CLogFileProxy proxy(five);
        EXPECT_TRUE(proxy().IsOK());
        proxy().LogText(true, L"five after three closed");
    }
    {
        CLogFileProxy proxy(three);
        EXPECT_FALSE(proxy().IsOK());
        proxy().LogText(true, L"three without a file");
    }
    EXPECT_TRUE(server.CloseLogFile(five)); // the last holder: the file closes and is written
    EXPECT_TRUE(server.CloseLogFile(seven));

    const std::vector<ustring> shared = ListFiles(folder.Path(), L"shared-*.log");
    ASSERT_EQ(1u, shared.size());
    const std::vector<Record> records = ParseRecords(ReadBytes(folder / shared[0]));
    ASSERT_EQ(3u, records.size());
    EXPECT_EQ("from three\r\n\r\n", records[0].body);
    EXPECT_EQ("from five\r\n\r\n", records[1].body);
    EXPECT_EQ("five after three closed\r\n\r\n", records[2].body);
}

TEST(LogFileServer, ANewFileReplacesTheChannelsOldOne)
{
    CTempFolder folder(L"replace");
    CServerSetup setup(folder.Path(), eLogFileDetailVerbose);
    CLogFileServer& server = CLogFileServer::Ref();
    const unsigned int channel = NextChannel();
    ASSERT_TRUE(server.CreateLogFile(channel, L"old", nullptr));
    {
        CLogFileProxy proxy(channel);
        for (unsigned int i = 0; i < 100; ++i)
            proxy().LogText(true, L"old record %u", i);
    }
    ASSERT_TRUE(server.CreateLogFile(channel, L"new", nullptr));
    {
        CLogFileProxy proxy(channel);
        proxy().LogText(true, L"new record");
    }
    // The old file was closed when the map let it go: all its records are there already.
    const std::vector<ustring> old = ListFiles(folder.Path(), L"old-*.log");
    ASSERT_EQ(1u, old.size());
    EXPECT_EQ(100u, ParseRecords(ReadBytes(folder / old[0])).size());

    EXPECT_TRUE(server.CloseLogFile(channel));
    const std::vector<ustring> fresh = ListFiles(folder.Path(), L"new-*.log");
    ASSERT_EQ(1u, fresh.size());
    const std::vector<Record> records = ParseRecords(ReadBytes(folder / fresh[0]));
    ASSERT_EQ(1u, records.size());
    EXPECT_EQ("new record\r\n\r\n", records[0].body);
}

TEST(LogFileServer, FolderIsPersistedOnlyWhenAsked)
{
    CLogFileServer& server = CLogFileServer::Ref();
    const ustring key = server.GetSettingsKey();
    const ustring original = server.GetFolder();
    ustring previous;
    const bool hadValue = RegGetValue(HKEY_CURRENT_USER, key, L"Path", previous);

    server.SetFolder(L"C:\\not\\persisted", false);
    EXPECT_EQ(L"C:\\not\\persisted", server.GetFolder());
    ustring stored;
    EXPECT_EQ(hadValue, RegGetValue(HKEY_CURRENT_USER, key, L"Path", stored));

    server.SetFolder(L"C:\\persisted\\logs", true);
    EXPECT_EQ(L"C:\\persisted\\logs", server.GetFolder());
    EXPECT_TRUE(RegGetValue(HKEY_CURRENT_USER, key, L"Path", stored));
    EXPECT_EQ(L"C:\\persisted\\logs", stored);

    if (hadValue)
        RegWriteValue(HKEY_CURRENT_USER, key, L"Path", previous);
    else
        RegDeleteValueW(HKEY_CURRENT_USER, key, L"Path");
    server.SetFolder(original, false);
}

// ---------------------------------------------------------------- the proxy

TEST(LogFileProxy, AChannelWithoutFileAcceptsEverythingAndWritesNothing)
{
    CTempFolder folder(L"nofile");
    CServerSetup setup(folder.Path(), eLogFileDetailVerbose);
    const unsigned int channel = NextChannel();
    {
        CLogFileProxy proxy(channel);
        char buffer[8] = {};
        OVERLAPPED ov = {};
        EXPECT_FALSE(proxy().IsOK());
        proxy().LogText(true, L"nothing %ls", L"here");
        proxy().LogSentData(buffer, 8, true);
        proxy().LogReceivedData(buffer, 8, false);
        EXPECT_FALSE(proxy().AddPendingReadOperation(buffer, 8, &ov));
        EXPECT_FALSE(proxy().CommitPendingOperation(&ov, 8));
        // The stand-in cannot be turned into a real file either.
        EXPECT_FALSE(proxy().Open(folder / L"stand-in.log"));
    }
    EXPECT_FALSE(CLogFileServer::Ref().LogFileExists(channel));
    EXPECT_TRUE(ListFiles(folder.Path()).empty());

    // Logging helpers of wrapped calls on such a channel: silent, and the failure still throws.
    LogChannelText(channel, true, L"silent %u", 1u);
    try
    {
        ThrowLoggedWinError(channel, true, 77, L"caller.cpp", L"PurgeComm", ERROR_INVALID_HANDLE,
                            L"PurgeComm() failed. GetLastError()=%u.", 6u);
        ADD_FAILURE() << "no exception";
    }
    catch (const CWinException& e)
    {
        EXPECT_EQ(77u, e.GetLine());
        EXPECT_EQ(L"PurgeComm", e.GetFunction());
        EXPECT_EQ(ERROR_INVALID_HANDLE, e.GetErrorCode());
    }
}

TEST(LogFileProxy, LoggingHelpersWriteSuccessAndFailureLinesBeforeThrowing)
{
    CTempFolder folder(L"helpers");
    CServerSetup setup(folder.Path(), eLogFileDetailNormal);
    const unsigned int channel = NextChannel();
    ASSERT_TRUE(CLogFileServer::Ref().CreateLogFile(channel, L"helpers", nullptr));
    LogChannelText(channel, false, L"minor %u", 1u); // not important: filtered at Normal
    LogChannelText(channel, true, L"SetupComm(DWORD dwInQueue=%u, DWORD dwOutQueue=%u) succeeded.", 16u, 32u);
    bool thrown = false;
    try
    {
        ThrowLoggedWinError(channel, true, 48, L"commport", L"SetupComm", 87,
                            L"SetupComm(DWORD dwInQueue=%u, DWORD dwOutQueue=%u) failed. GetLastError()=%u.", 1u, 2u,
                            87u);
    }
    catch (const CWinException& e)
    {
        thrown = true;
        EXPECT_EQ(48u, e.GetLine());
        EXPECT_EQ(L"commport", e.GetFileName());
    }
    EXPECT_TRUE(thrown);
    EXPECT_TRUE(CLogFileServer::Ref().CloseLogFile(channel));

    const std::vector<Record> records = ParseRecords(ReadBytes(OnlyLogFile(folder.Path())));
    ASSERT_EQ(2u, records.size());
    EXPECT_EQ("SetupComm(DWORD dwInQueue=16, DWORD dwOutQueue=32) succeeded.\r\n\r\n", records[0].body);
    EXPECT_EQ("SetupComm(DWORD dwInQueue=1, DWORD dwOutQueue=2) failed. GetLastError()=87.\r\n\r\n", records[1].body);
}
