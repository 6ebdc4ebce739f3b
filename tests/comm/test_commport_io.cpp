// CCommPort transfers on a real serial device: opening both ways, synchronous and overlapped
// reads and writes, cancelled operations and event waits, each compared record by record with
// what the peer actually sent and received; and a peer that disappears in the middle of it.
#include "test_commport_support.h"

#include <tavrin/comm/commport.h>
#include <tavrin/log/logcall.h>
#include <tavrin/log/logfile.h>

#include <gtest/gtest.h>

#include <thread>

using namespace tavrin;
using namespace commtest;
using logtest::ListFiles;
using tavrintest::CatchWinException;

namespace {

std::string Opened(const CTestPort& port)
{
    return "\"" + Narrow(port.strPath) + "\" has been opened.";
}

std::string Record(bool synchronous, bool write, const std::vector<unsigned char>& bytes)
{
    return DataHead(synchronous, write, bytes.size()) + "|" + DataBody(bytes);
}

std::string GetResultFailure(long error, bool wait)
{
    return "GetOverlappedResult() failed. GetLastError()=" + std::to_string(error) +
           ", bWait=" + (wait ? "TRUE" : "FALSE") + ".";
}

bool Signalled(const COverlapped& ov, DWORD limitMs = 10000)
{
    return ::WaitForSingleObject(ov.GetEvent(), limitMs) == WAIT_OBJECT_0;
}

std::vector<unsigned char> Bytes(const char* text)
{
    return std::vector<unsigned char>(text, text + std::strlen(text));
}

} // namespace

TEST(CommPortOpen, TheConstructorLogsNothingAndOpenCreatesTheChannelsLogFile)
{
    COMMTEST_PORT(testPort, 0);
    CLogScene scene(L"comm-open");
    COMMTEST_PEER(peer, testPort);
    unsigned int count = 0;
    {
        // Opened at once, without a log file; the port works all the same.
        CCommPort port(testPort.strPath, 0);
        ASSERT_TRUE(port.IsCreated());
        EXPECT_EQ(testPort.strPath, port.GetFileName());
        EXPECT_FALSE(CLogFileServer::Ref().LogFileExists(LogChannel(port.GetHandle())));
        EXPECT_TRUE(port.Write("ctor", 4, count));
        EXPECT_EQ(Bytes("ctor"), peer.Read(4));
    }
    EXPECT_TRUE(ListFiles(scene.Folder()).empty());

    // Opened later: the channel's log file is named after the port.
    {
        CCommPort port;
        port.Open(testPort.strPath, 0);
        EXPECT_TRUE(CLogFileServer::Ref().LogFileExists(LogChannel(port.GetHandle())));
        EXPECT_TRUE(port.Write("open", 4, count));
        EXPECT_EQ(Bytes("open"), peer.Read(4));
    }
    const ustring log = logtest::OnlyLogFile(scene.Folder());
    EXPECT_EQ(0u, log.find(scene.Folder() + L"\\" + testPort.strName + L"-"));
    const std::vector<std::string> expected = {Opened(testPort), Record(true, true, Bytes("open")),
                                               "The handle has been closed."};
    EXPECT_TRUE(SameEvents(expected, logtest::Events(log)));

    // A port that is not there fails both ways alike and leaves no log file.
    CLogScene none(L"comm-open-none");
    const ustring missing = L"\\\\.\\COM77";
    const CWinException fromConstructor = CatchWinException([&] { CCommPort port(missing, 0); });
    CCommPort unopened;
    const CWinException fromOpen = CatchWinException([&] { unopened.Open(missing, FILE_FLAG_OVERLAPPED); });
    for (const CWinException* e : {&fromConstructor, &fromOpen})
    {
        EXPECT_EQ(L"CreateFileW", e->GetFunction());
        EXPECT_EQ(118u, e->GetLine());
        EXPECT_EQ(ERROR_FILE_NOT_FOUND, e->GetErrorCode());
    }
    EXPECT_FALSE(unopened.IsCreated());
    EXPECT_TRUE(ListFiles(none.Folder()).empty());
}

TEST(CommPortOpen, AFileThatIsNoPortFailsEveryCommunicationsCallInItsLog)
{
    CLogScene scene(L"comm-notaport");
    const ustring path = scene.Folder() + L"\\plain.bin";
    logtest::WriteBytes(path, "plain");

    CCommPort port;
    port.Open(path, 0);
    ASSERT_EQ(1u, ListFiles(scene.Folder(), L"*.log").size());
    DCB dcb = {};
    dcb.DCBlength = sizeof(dcb);
    const CWinException e = CatchWinException([&] { port.GetCommState(dcb); });
    EXPECT_EQ(L"GetCommState", e.GetFunction());
    EXPECT_NE(0, e.GetErrorCode());
    port.Close();

    const std::vector<std::string> expected = {
        "\"" + Narrow(path) + "\" has been opened.",
        "GetCommState() failed. GetLastError()=" + std::to_string(e.GetErrorCode()) + ".",
        "The handle has been closed."};
    EXPECT_TRUE(SameEvents(expected, scene.Events()));
}

// A whole synchronous session: every byte the port wrote is what the peer received, every read
// record holds exactly what the peer sent, a read that runs out of time is a clean zero-byte
// read, and the records come in the order of the calls with their times.
TEST(CommPortSession, SynchronousRecordsMatchWhatThePeerSentAndReceived)
{
    COMMTEST_PORT(testPort, 0);
    CLogScene scene(L"comm-sync");
    COMMTEST_PEER(peer, testPort);

    SYSTEMTIME before, after;
    ::GetLocalTime(&before);
    std::vector<std::string> expected;
    std::vector<unsigned char> received; // by the port, all reads together
    const std::vector<unsigned char> fromPeer = Pattern(300, 0x80);
    {
        CCommPort port;
        port.Open(testPort.strPath, 0);
        expected.push_back(Opened(testPort));
        port.SetCommState(RawDcb());
        const COMMTIMEOUTS timeouts = {0, 0, 200, 0, 5000};
        port.SetCommTimeouts(timeouts);
        port.PurgeComm(PURGE_RXCLEAR | PURGE_TXCLEAR);
        expected.push_back("PurgeComm(DWORD dwFlags=0xC) succeeded.");

        // Every byte value, and line ends that must not be translated.
        const std::vector<unsigned char> chunks[] = {Pattern(256), Bytes("hello\r\n"), Pattern(1, 0x1A)};
        for (const std::vector<unsigned char>& chunk : chunks)
        {
            unsigned int written = 0;
            ASSERT_TRUE(port.Write(chunk.data(), static_cast<unsigned int>(chunk.size()), written));
            ASSERT_EQ(chunk.size(), written);
            EXPECT_EQ(chunk, peer.Read(chunk.size()));
            expected.push_back(Record(true, true, chunk));
        }

        // The peer sends; the port reads in pieces until everything is there.
        ASSERT_TRUE(peer.Write(fromPeer));
        for (int attempt = 0; attempt < 50 && received.size() < fromPeer.size(); ++attempt)
        {
            unsigned char buffer[128];
            unsigned int got = 0;
            ASSERT_TRUE(port.Read(buffer, sizeof(buffer), got));
            const std::vector<unsigned char> piece(buffer, buffer + got);
            received.insert(received.end(), piece.begin(), piece.end());
            expected.push_back(Record(true, false, piece));
        }
        // Nothing more comes: the read ends after its timeout with nothing.
        unsigned char buffer[16];
        unsigned int got = 99;
        ASSERT_TRUE(port.Read(buffer, sizeof(buffer), got));
        EXPECT_EQ(0u, got);
        expected.push_back(Record(true, false, {}));
    }
    expected.push_back("The handle has been closed.");
    ::GetLocalTime(&after);
    EXPECT_EQ(fromPeer, received);

    const ustring log = logtest::OnlyLogFile(scene.Folder());
    std::vector<std::string> events = logtest::Events(log);
    // The two dumps are checked by the text tests; here their place in the order counts.
    ASSERT_EQ(expected.size() + 2, events.size());
    EXPECT_EQ(0u, events[1].find("SetCommState(LPDCB lpDCB) succeeded."));
    EXPECT_EQ(0u, events[2].find("SetCommTimeouts(LPCOMMTIMEOUTS lpCommTimeouts) succeeded."));
    events.erase(events.begin() + 1, events.begin() + 3);
    EXPECT_TRUE(SameEvents(expected, events));
    for (const logtest::Record& record : logtest::ParseRecords(logtest::ReadBytes(log)))
        EXPECT_TRUE(logtest::TimeBetween(record.time, before, after)) << record.time;
}

// Overlapped transfers: pending operations are logged when GetOverlappedResult completes them,
// and a cancelled one leaves only its failure line.
TEST(CommPortOverlapped, PendingTransfersAndCancel)
{
    COMMTEST_PORT(testPort, 1);
    CLogScene scene(L"comm-overlapped");
    COMMTEST_PEER(peer, testPort);

    std::vector<std::string> expected;
    const std::vector<unsigned char> big = Pattern(100000, 7);
    // The buffers and OVERLAPPEDs outlive the port, so that nothing completes into freed memory.
    COverlapped readOv(nullptr, TRUE, FALSE, nullptr);
    unsigned char buffer[16] = {};
    COverlapped writeOv(nullptr, TRUE, FALSE, nullptr);
    COverlapped cancelOv(nullptr, TRUE, FALSE, nullptr);
    unsigned char cancelled[8] = {};
    unsigned char next[8] = {};
    {
        CCommPort port;
        port.Open(testPort.strPath, FILE_FLAG_OVERLAPPED);
        const unsigned int channel = LogChannel(port.GetHandle());
        expected.push_back(Opened(testPort));
        port.PurgeComm(PURGE_RXCLEAR | PURGE_TXCLEAR);
        expected.push_back("PurgeComm(DWORD dwFlags=0xC) succeeded.");
        unsigned int count = 0;

        // A read waits for the peer.
        ASSERT_FALSE(port.Read(buffer, sizeof(buffer), count, &readOv));
        expected.push_back("Pending read request initiated. Buffer size: 16.");
        const std::vector<unsigned char> sixteen = Pattern(16, 0xF0);
        ASSERT_TRUE(peer.Write(sixteen));
        ASSERT_TRUE(Signalled(readOv));
        ASSERT_TRUE(port.GetOverlappedResult(&readOv, count, false));
        ASSERT_EQ(16u, count);
        EXPECT_EQ(sixteen, std::vector<unsigned char>(buffer, buffer + 16));
        expected.push_back(Record(false, false, sixteen));

        // A write larger than the line's buffers stays pending until the peer reads.
        if (port.Write(big.data(), static_cast<unsigned int>(big.size()), count, &writeOv))
        {
            ADD_FAILURE() << "a write of " << big.size() << " bytes completed at once";
            expected.push_back(Record(true, true, big));
        }
        else
        {
            expected.push_back("Pending write request initiated. Buffer size: 100000.");
            EXPECT_EQ(big, peer.Read(big.size(), 20000));
            ASSERT_TRUE(Signalled(writeOv));
            ASSERT_TRUE(port.GetOverlappedResult(&writeOv, count, true));
            EXPECT_EQ(big.size(), count);
            expected.push_back(Record(false, true, big));
        }

        // A cancelled read: its failure line, no record, and nothing left registered.
        ASSERT_FALSE(port.Read(cancelled, sizeof(cancelled), count, &cancelOv));
        expected.push_back("Pending read request initiated. Buffer size: 8.");
        port.CancelIo();
        expected.push_back("CancelIo succeeded.");
        ASSERT_TRUE(Signalled(cancelOv));
        const CWinException aborted = CatchWinException([&] { port.GetOverlappedResult(&cancelOv, count, true); });
        EXPECT_EQ(ERROR_OPERATION_ABORTED, aborted.GetErrorCode());
        expected.push_back(GetResultFailure(ERROR_OPERATION_ABORTED, true));
        EXPECT_FALSE(CLogFileProxy(channel)().CommitPendingOperation(&cancelOv, 8));
        // The same OVERLAPPED serves the next read, which logs its own bytes.
        ASSERT_FALSE(port.Read(next, sizeof(next), count, &cancelOv));
        expected.push_back("Pending read request initiated. Buffer size: 8.");
        ASSERT_TRUE(peer.Write(Bytes("8 bytes!")));
        ASSERT_TRUE(Signalled(cancelOv));
        ASSERT_TRUE(port.GetOverlappedResult(&cancelOv, count, true));
        ASSERT_EQ(8u, count);
        expected.push_back(Record(false, false, Bytes("8 bytes!")));
    }
    expected.push_back("The handle has been closed.");
    EXPECT_TRUE(SameEvents(expected, scene.Events()));
}

// An event wait is handed to the log file, which logs it with the port's own mask text when it
// completes.
TEST(CommPortOverlapped, EventWaitsAreHandedToTheLogFile)
{
    // Wine 8 in its WoW64 mode ends a 32-bit program at any WaitCommEvent on a serial port (a
    // jump to a truncated address), whether the wait is overlapped or not.
    if (tavrintest::IsWineWow64())
        GTEST_SKIP() << "Wine's WoW64 mode crashes 32-bit programs in WaitCommEvent on a serial port";
    COMMTEST_PORT(testPort, 1);
    CLogScene scene(L"comm-eventwait");
    COMMTEST_PEER(peer, testPort);

    std::vector<std::string> expected;
    // The mask and the OVERLAPPED outlive the port, so that nothing completes into freed memory.
    COverlapped waitOv(nullptr, TRUE, FALSE, nullptr);
    DWORD mask = 0;
    {
        CCommPort port;
        port.Open(testPort.strPath, FILE_FLAG_OVERLAPPED);
        const unsigned int channel = LogChannel(port.GetHandle());
        expected.push_back(Opened(testPort));
        unsigned int count = 0;

        // The wait is registered with the caller's mask: whatever the mask holds when the wait is
        // committed is logged, through the port's own mask text.
        port.SetCommMask(EV_RXCHAR);
        expected.push_back("SetCommMask(DWORD dwEvtMask=0x1 (EV_RXCHAR)) succeeded.");
        if (port.WaitCommEvent(mask, &waitOv))
        {
            EXPECT_EQ(static_cast<DWORD>(EV_RXCHAR), mask);
            expected.push_back("WaitCommEvent(LPDWORD lpEvtMask) succeeded. *lpEvtMask=0x1 (EV_RXCHAR).");
        }
        else
        {
            expected.push_back("Pending WaitCommEvent initiated.");
            ASSERT_TRUE(peer.Write(Bytes("x")));
            ASSERT_TRUE(Signalled(waitOv));
            mask = EV_RXCHAR | EV_TXEMPTY | EV_RING;
            EXPECT_TRUE(CLogFileProxy(channel)().CommitPendingOperation(&waitOv, 4));
            EXPECT_FALSE(CLogFileProxy(channel)().CommitPendingOperation(&waitOv, 4));
            expected.push_back(
                "ASYNC WaitCommEvent(LPDWORD lpEvtMask) succeeded. *lpEvtMask=0x105 (EV_RXCHAR|EV_TXEMPTY|EV_RING).");
        }

        // The same wait completed through GetOverlappedResult: logged with the mask it got, or
        // (a pseudo-terminal under Wine ends every wait with ERROR_OPERATION_ABORTED) dropped
        // after its failure line.
        port.PurgeComm(PURGE_RXCLEAR);
        expected.push_back("PurgeComm(DWORD dwFlags=0x8) succeeded.");
        mask = 0;
        waitOv.ResetEvent();
        if (!port.WaitCommEvent(mask, &waitOv))
        {
            expected.push_back("Pending WaitCommEvent initiated.");
            ASSERT_TRUE(peer.Write(Bytes("y")));
            ASSERT_TRUE(Signalled(waitOv));
            try
            {
                ASSERT_TRUE(port.GetOverlappedResult(&waitOv, count, true));
                // Only the bits asked for; Wine has been seen to end such a wait with none.
                EXPECT_EQ(0u, mask & ~static_cast<DWORD>(EV_RXCHAR));
                expected.push_back(Narrow(ustring::sprintf_stc(
                    L"ASYNC WaitCommEvent(LPDWORD lpEvtMask) succeeded. *lpEvtMask=0x%X (%ls).", mask,
                    CommEventMaskText(mask).c_str())));
            }
            catch (const CWinException& e)
            {
                EXPECT_EQ(0u, mask);
                expected.push_back(GetResultFailure(e.GetErrorCode(), true));
                EXPECT_FALSE(CLogFileProxy(channel)().CommitPendingOperation(&waitOv, 4));
            }
        }
        else
        {
            expected.push_back("WaitCommEvent(LPDWORD lpEvtMask) succeeded. *lpEvtMask=0x1 (EV_RXCHAR).");
        }
    }
    expected.push_back("The handle has been closed.");
    EXPECT_TRUE(SameEvents(expected, scene.Events()));
}

// The peer disappears while a write is half done and a read is waiting: both end, the bytes that
// went out are logged, every later call fails at once, and Close returns.
TEST(CommPortPeerLoss, PendingTransfersEndAndThePartialWriteIsLogged)
{
    COMMTEST_PORT(testPort, 3);
    CLogScene scene(L"comm-peerloss");
    COMMTEST_PEER(peer, testPort);
    const unsigned long socat = PeerProcessId(testPort);

    std::vector<std::string> expected;
    const std::vector<unsigned char> big = Pattern(256 * 1024, 3);
    std::vector<unsigned char> partial;
    // The buffers and OVERLAPPEDs outlive the port, so that nothing completes into freed memory.
    COverlapped writeOv(nullptr, TRUE, FALSE, nullptr);
    COverlapped readOv(nullptr, TRUE, FALSE, nullptr);
    unsigned char buffer[64];
    {
        CCommPort port;
        port.Open(testPort.strPath, FILE_FLAG_OVERLAPPED);
        expected.push_back(Opened(testPort));
        unsigned int count = 0;

        ASSERT_FALSE(port.Write(big.data(), static_cast<unsigned int>(big.size()), count, &writeOv));
        expected.push_back("Pending write request initiated. Buffer size: 262144.");
        // The transfer is under way: the first bytes arrive.
        EXPECT_EQ(std::vector<unsigned char>(big.begin(), big.begin() + 1000), peer.Read(1000));

        ASSERT_FALSE(port.Read(buffer, sizeof(buffer), count, &readOv));
        expected.push_back("Pending read request initiated. Buffer size: 64.");
        EXPECT_FALSE(Signalled(readOv, 0));

        ASSERT_TRUE(KillPeer(testPort));
        ASSERT_TRUE(Signalled(writeOv)) << "the pending write did not end after the peer was killed";
        ASSERT_TRUE(Signalled(readOv)) << "the pending read did not end after the peer was killed";

        unsigned int moved = 0;
        const CWinException writeError = CatchWinException([&] { port.GetOverlappedResult(&writeOv, moved, false); });
        EXPECT_NE(0, writeError.GetErrorCode());
        EXPECT_GE(moved, 1000u);
        EXPECT_LT(moved, big.size());
        partial.assign(big.begin(), big.begin() + moved);
        if (moved > 0)
            expected.push_back(Record(false, true, partial));
        expected.push_back(GetResultFailure(writeError.GetErrorCode(), false));

        const CWinException readError = CatchWinException([&] { port.GetOverlappedResult(&readOv, count, false); });
        EXPECT_NE(0, readError.GetErrorCode());
        EXPECT_EQ(0u, count);
        expected.push_back(GetResultFailure(readError.GetErrorCode(), false));

        // Everything after that fails without waiting for anyone.
        DCB dcb = {};
        dcb.DCBlength = sizeof(dcb);
        const CWinException stateError = CatchWinException([&] { port.GetCommState(dcb); });
        EXPECT_NE(0, stateError.GetErrorCode());
        expected.push_back("GetCommState() failed. GetLastError()=" + std::to_string(stateError.GetErrorCode()) + ".");

        readOv.ResetEvent();
        try
        {
            if (port.Read(buffer, sizeof(buffer), count, &readOv))
            {
                ADD_FAILURE() << "a read succeeded after the peer was gone";
            }
            else
            {
                expected.push_back("Pending read request initiated. Buffer size: 64.");
                ASSERT_TRUE(Signalled(readOv));
                const CWinException e = CatchWinException([&] { port.GetOverlappedResult(&readOv, count, true); });
                expected.push_back(GetResultFailure(e.GetErrorCode(), true));
            }
        }
        catch (const CWinException& e)
        {
            EXPECT_EQ(L"ReadFile", e.GetFunction());
            expected.push_back("ReadFile(DWORD nNumberOfBytesToRead=64) failed. GetLastError()=" +
                               std::to_string(e.GetErrorCode()) + ".");
        }
        port.Close();
        expected.push_back("The handle has been closed.");
    }
    // Only now the peer's own end: a port is closed before its peer goes.
    peer.Close();
    EXPECT_TRUE(SameEvents(expected, scene.Events()));
    EXPECT_TRUE(WaitForPeer(testPort, socat)) << "the harness did not start the peer again";
}

// A synchronous read that waits when the peer is killed ends, bounded by its timeouts, with an
// exception or a clean zero-byte read (under Wine: at its timeout, with nothing).
TEST(CommPortPeerLoss, ABlockedSynchronousReadEnds)
{
    COMMTEST_PORT(testPort, 3);
    CLogScene scene(L"comm-peerloss-sync");
    COMMTEST_PEER(peer, testPort);
    const unsigned long socat = PeerProcessId(testPort);

    std::vector<std::string> expected;
    {
        CCommPort port;
        port.Open(testPort.strPath, 0);
        expected.push_back(Opened(testPort));
        const COMMTIMEOUTS timeouts = {0, 0, 2000, 0, 2000};
        port.SetCommTimeouts(timeouts);

        std::thread killer([&testPort] {
            ::Sleep(300);
            KillPeer(testPort);
        });
        unsigned char buffer[32];
        unsigned int got = 0;
        try
        {
            EXPECT_TRUE(port.Read(buffer, sizeof(buffer), got));
            EXPECT_EQ(0u, got);
            expected.push_back(Record(true, false, {}));
        }
        catch (const CWinException& e)
        {
            EXPECT_EQ(L"ReadFile", e.GetFunction());
            EXPECT_EQ(205u, e.GetLine());
            expected.push_back("ReadFile(DWORD nNumberOfBytesToRead=32) failed. GetLastError()=" +
                               std::to_string(e.GetErrorCode()) + ".");
        }
        killer.join();
        // Once the peer is really gone (the harness clears its process id), a write fails.
        ASSERT_TRUE(logtest::WaitUntil([&] { return PeerProcessId(testPort) != socat; }));
        const CWinException writeError = CatchWinException([&] { port.Write("late", 4, got); });
        EXPECT_EQ(L"WriteFile", writeError.GetFunction());
        expected.push_back("WriteFile(DWORD nNumberOfBytesToWrite=4) failed. GetLastError()=" +
                           std::to_string(writeError.GetErrorCode()) + ".");
    }
    peer.Close();
    expected.push_back("The handle has been closed.");
    std::vector<std::string> events = scene.Events();
    ASSERT_EQ(expected.size() + 1, events.size());
    events.erase(events.begin() + 1); // the timeouts dump
    EXPECT_TRUE(SameEvents(expected, events));
    EXPECT_TRUE(WaitForPeer(testPort, socat)) << "the harness did not start the peer again";
}
