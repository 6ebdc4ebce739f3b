// A Tavrin socket under Wine talking to a peer on the Linux side: socat, which keeps its own
// hexadecimal record of every byte it receives and sends. The connection's data log file must
// hold exactly those bytes, record by record.
#include <tavrin/comm/socket.h>
#include <tavrin/log/logcall.h>
#include <tavrin/log/logfile.h>

#include "comm_test_support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <regex>
#include <sstream>

using namespace tavrin;
using namespace commtest;

namespace {

// One block of socat's -x dump: the direction ('>' received from the network, '<' sent to
// it) and the bytes.
struct PeerBlock
{
    char direction;
    std::vector<unsigned char> data;
};

// Takes socat's dump apart: a header "> 2024/03/07 09:05:01.000123456  length=5 from=0 to=4",
// then lines of hexadecimal bytes. Its other messages (lines that start differently) are skipped.
std::vector<PeerBlock> ParseDump(const std::string& dump, std::string& problems)
{
    static const std::regex header("^([<>]) \\d{4}/\\d\\d/\\d\\d \\S+\\s+length=(\\d+) from=\\d+ to=\\d+\\s*$");
    std::vector<PeerBlock> blocks;
    std::vector<std::size_t> lengths;
    std::istringstream lines(dump);
    std::string line;
    bool inBlock = false;
    while (std::getline(lines, line))
    {
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        std::smatch match;
        if (std::regex_match(line, match, header))
        {
            blocks.push_back(PeerBlock{match[1].str()[0], {}});
            lengths.push_back(std::stoul(match[2].str()));
            inBlock = true;
        }
        else if (inBlock && !line.empty() && line[0] == ' ')
        {
            std::istringstream cells(line);
            unsigned int value = 0;
            while (cells >> std::hex >> value)
                blocks.back().data.push_back(static_cast<unsigned char>(value));
        }
        else
        {
            inBlock = false;
            if (!line.empty())
                problems += line + "\n";
        }
    }
    for (std::size_t i = 0; i < blocks.size(); ++i)
        if (blocks[i].data.size() != lengths[i])
            problems += "block " + std::to_string(i) + " holds " + std::to_string(blocks[i].data.size()) +
                        " bytes, its header says " + std::to_string(lengths[i]) + "\n";
    return blocks;
}

std::vector<unsigned char> Joined(const std::vector<PeerBlock>& blocks, char direction)
{
    std::vector<unsigned char> bytes;
    for (const PeerBlock& block : blocks)
        if (block.direction == direction)
            bytes.insert(bytes.end(), block.data.begin(), block.data.end());
    return bytes;
}

std::vector<unsigned char> Concat(std::vector<unsigned char> a, const std::vector<unsigned char>& b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

} // namespace

TEST(SocketPeer, SocatExchangeMatchesTheLogRecordByRecord)
{
    COMMTEST_SKIP_WITHOUT_WINE();
    logtest::CTempFolder work(L"peer");
    logtest::CTempFolder logs(L"peerlogs");
    logtest::CServerSetup setup(logs.Path(), eLogFileDetailVerbose);

    // The peer greets with every byte value, then echoes what it receives until the end of input.
    std::vector<unsigned char> greeting(256);
    for (unsigned int i = 0; i < 256; ++i)
        greeting[i] = static_cast<unsigned char>(i);
    const std::vector<unsigned char> first = Bytes("Tavrin\r\nsays hello\x01\xFF");
    const std::vector<unsigned char> second = Pattern(1000, 11);
    logtest::WriteBytes(work / L"greeting.bin", std::string(greeting.begin(), greeting.end()));
    logtest::WriteBytes(work / L"peer.sh", "cat greeting.bin\nexec cat\n");
    logtest::WriteBytes(work / L"run-peer.sh",
                        "# $1 port\n"
                        "cd \"$(dirname \"$0\")\" || exit 1\n"
                        "exec >/dev/null 2>peer.dump </dev/null\n"
                        "timeout -k 2 30 socat -x \"TCP:127.0.0.1:$1\" 'SYSTEM:sh peer.sh'\n"
                        "echo \"exit $?\" >done.tmp && mv done.tmp done\n");

    CWSASocket listener;
    const SOCKET_ADDRESS_EX listenerAddress = ListenOnLoopback(listener, AF_INET, 1);
    ASSERT_TRUE(StartShellScript(UnixPath(work.Path()) + "/run-peer.sh", std::to_string(PortOf(listenerAddress))));

    SOCKET_ADDRESS_EX peerAddress;
    {
        ASSERT_TRUE(Readable(listener, 20000)) << "socat did not connect";
        CWSASocket connection(listener.Accept(peerAddress));
        ASSERT_TRUE(connection.IsCreated());
        LimitBlocking(connection);
        unsigned int count = 0;
        DWORD flags = 0;

        // The greeting, received synchronously.
        EXPECT_EQ(greeting, ReceiveExactly(connection, greeting.size()));

        // The echo of the first message, received through a read issued before it was sent.
        std::vector<unsigned char> buffer(4096);
        CWSAOverlapped ov;
        EXPECT_FALSE(connection.Recv(buffer.data(), 4096, count, flags, &ov));
        EXPECT_TRUE(connection.Send(first.data(), static_cast<unsigned int>(first.size()), count));
        WSAEVENT event = ov.GetEvent();
        ASSERT_EQ(WSA_WAIT_EVENT_0, ::WSAWaitForMultipleEvents(1, &event, TRUE, kWaitMs, FALSE));
        ASSERT_TRUE(connection.GetOverlappedResult(&ov, count, TRUE, flags));
        std::vector<unsigned char> echoed(buffer.begin(), buffer.begin() + count);
        const std::vector<unsigned char> rest = ReceiveExactly(connection, first.size() - count);
        echoed.insert(echoed.end(), rest.begin(), rest.end());
        EXPECT_EQ(first, echoed);

        // The second message and its echo, synchronously.
        EXPECT_TRUE(connection.Send(second.data(), static_cast<unsigned int>(second.size()), count));
        EXPECT_EQ(second, ReceiveExactly(connection, second.size()));

        // The end of our sending ends the peer's echo, and the peer closes.
        connection.Shutdown(SD_SEND);
        char byte = 0;
        EXPECT_TRUE(connection.Recv(&byte, 1, count, flags));
        EXPECT_EQ(0u, count);
    }
    std::string done;
    ASSERT_TRUE(WaitForFile(work / L"done", done, 30000)) << "socat did not end";
    EXPECT_EQ("exit 0\n", done);
    std::string problems;
    const std::vector<PeerBlock> blocks = ParseDump(logtest::ReadBytes(work / L"peer.dump"), problems);
    EXPECT_EQ("", problems);

    // One log file: the connection's, named after the peer's address.
    EXPECT_EQ(1u, logtest::ListFiles(logs.Path()).size());
    const std::vector<LogItem> records = DataRecords(ReadLog(LogFileNamed(logs.Path(), Text(peerAddress, true))));

    // Whole streams: what the peer sent is what was read, what it received is what was written.
    EXPECT_EQ(Concat(Concat(greeting, first), second), Joined(blocks, '<'));
    EXPECT_EQ(Concat(first, second), Joined(blocks, '>'));
    std::vector<std::vector<unsigned char>> writes;
    for (const LogItem& record : records)
        if (record.kind == LogItem::eWrite)
        {
            EXPECT_TRUE(record.synchronous);
            writes.push_back(record.data);
        }
    EXPECT_EQ((std::vector<std::vector<unsigned char>>{first, second}), writes);

    // Turn by turn: the runs of records in one direction match the peer's runs of blocks.
    std::vector<PeerBlock> logRuns, peerRuns;
    for (const LogItem& record : records)
    {
        const char direction = record.kind == LogItem::eRead ? '<' : '>';
        if (logRuns.empty() || logRuns.back().direction != direction)
            logRuns.push_back(PeerBlock{direction, {}});
        logRuns.back().data.insert(logRuns.back().data.end(), record.data.begin(), record.data.end());
    }
    for (const PeerBlock& block : blocks)
    {
        if (peerRuns.empty() || peerRuns.back().direction != block.direction)
            peerRuns.push_back(PeerBlock{block.direction, {}});
        peerRuns.back().data.insert(peerRuns.back().data.end(), block.data.begin(), block.data.end());
    }
    const std::vector<std::vector<unsigned char>> turns = {greeting, first, first, second, second};
    ASSERT_EQ(turns.size(), logRuns.size());
    ASSERT_EQ(turns.size(), peerRuns.size());
    for (std::size_t i = 0; i < turns.size(); ++i)
    {
        SCOPED_TRACE(i);
        EXPECT_EQ(i % 2 == 0 ? '<' : '>', logRuns[i].direction);
        EXPECT_EQ(logRuns[i].direction, peerRuns[i].direction);
        EXPECT_EQ(turns[i], logRuns[i].data);
        EXPECT_EQ(turns[i], peerRuns[i].data);
    }

    // The echo of the first message came through the overlapped read: its first record is
    // asynchronous; the receive that found the end of the stream is the last, empty record.
    const auto firstWrite =
        std::find_if(records.begin(), records.end(), [](const LogItem& r) { return r.kind == LogItem::eWrite; });
    const auto firstEcho =
        std::find_if(firstWrite, records.end(), [](const LogItem& r) { return r.kind == LogItem::eRead; });
    ASSERT_NE(records.end(), firstEcho);
    EXPECT_FALSE(firstEcho->synchronous);
    EXPECT_EQ(LogItem::eRead, records.back().kind);
    EXPECT_TRUE(records.back().data.empty());
}
