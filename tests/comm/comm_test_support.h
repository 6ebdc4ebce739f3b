// Helpers shared by the socket and ICMP tests: loopback addresses, connected pairs with bounded
// waits, data log records taken apart into bytes, and Linux-side helpers (peers, network
// namespaces) started from the test program under Wine.
#pragma once

#include <tavrin/comm/socket.h>
#include <tavrin/log/logfile.h>

#include "../log/test_logfile_support.h"
#include "tavrin_test.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ostream>
#include <string>
#include <vector>

namespace commtest {

using tavrin::CWSASocket;
using tavrin::SOCKET_ADDRESS_EX;
using tavrin::ustring;

// Upper limit of every wait in these tests.
const DWORD kWaitMs = 10000;

// 127.0.0.1 or ::1 with a port (host byte order).
inline SOCKET_ADDRESS_EX Loopback(int family, unsigned short port)
{
    if (family == AF_INET6)
    {
        sockaddr_in6 a = {};
        a.sin6_family = AF_INET6;
        a.sin6_addr = in6addr_loopback;
        a.sin6_port = htons(port);
        return SOCKET_ADDRESS_EX(a);
    }
    sockaddr_in a = {};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = htons(port);
    return SOCKET_ADDRESS_EX(a);
}

// The address as Winsock prints it, with its port ("127.0.0.1:80", "[::1]:80"); with
// `fileNameSafe` as log files are named ("127.0.0.1@80", "[__1]@80").
inline ustring Text(const SOCKET_ADDRESS_EX& address, bool fileNameSafe = false)
{
    ustring text;
    address.AddressToStringEx(text, fileNameSafe);
    return text;
}

inline unsigned short PortOf(const SOCKET_ADDRESS_EX& address)
{
    return ntohs(static_cast<unsigned short>(address.GetPort()));
}

// Whether the socket becomes readable within `limitMs` (plain select: the waits of a test must
// not depend on the class under test).
inline bool Readable(SOCKET socket, DWORD limitMs = kWaitMs)
{
    fd_set read;
    FD_ZERO(&read);
    FD_SET(socket, &read);
    timeval limit = {static_cast<long>(limitMs / 1000), static_cast<long>(limitMs % 1000) * 1000};
    return ::select(0, &read, nullptr, nullptr, &limit) == 1;
}

// Blocking calls of a test socket give up after kWaitMs instead of hanging the test.
inline void LimitBlocking(SOCKET socket)
{
    const DWORD limit = kWaitMs;
    ::setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char*>(&limit), sizeof limit);
    ::setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, reinterpret_cast<const char*>(&limit), sizeof limit);
}

// Makes `listener` listen on the loopback address of `family`, on a port the system chooses;
// returns that address.
inline SOCKET_ADDRESS_EX ListenOnLoopback(CWSASocket& listener, int family, int backlog = 4)
{
    SOCKET_ADDRESS_EX address;
    listener.Create(family, SOCK_STREAM, IPPROTO_TCP);
    listener.Bind(Loopback(family, 0));
    listener.GetSockName(address);
    listener.Listen(backlog);
    return address;
}

// A listening socket on the loopback address of `family` (port chosen by the system), a client
// connected to it and the server side of that connection. The client's channel log file is
// named after the listener's address, the server's after the client's.
struct CTcpPair
{
    CWSASocket listener;
    CWSASocket client;
    CWSASocket server;
    SOCKET_ADDRESS_EX listenerAddress;
    SOCKET_ADDRESS_EX clientAddress; // as the server's Accept saw it

    explicit CTcpPair(int family)
    {
        listenerAddress = ListenOnLoopback(listener, family);
        client.Create(family, SOCK_STREAM, IPPROTO_TCP);
        LimitBlocking(client);
        client.Connect(listenerAddress);
        if (!Readable(listener))
        {
            ADD_FAILURE() << "no connection to accept";
            return;
        }
        server.Attach(listener.Accept(clientAddress));
        LimitBlocking(server);
    }
};

// Reads exactly `size` bytes (in as many receives as it takes, at most `size` + 1 of them).
inline std::vector<unsigned char> ReceiveExactly(CWSASocket& socket, std::size_t size)
{
    std::vector<unsigned char> bytes(size);
    std::size_t have = 0;
    for (std::size_t round = 0; have < size && round <= size; ++round)
    {
        unsigned int got = 0;
        DWORD flags = 0;
        socket.Recv(&bytes[have], static_cast<unsigned int>(size - have), got, flags);
        if (got == 0)
            break;
        have += got;
    }
    bytes.resize(have);
    return bytes;
}

inline std::vector<unsigned char> Pattern(std::size_t size, unsigned int seed)
{
    std::vector<unsigned char> bytes(size);
    for (std::size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<unsigned char>((i * 7 + seed) & 0xFF);
    return bytes;
}

inline std::vector<unsigned char> Bytes(const char* text)
{
    return std::vector<unsigned char>(text, text + std::strlen(text));
}

// ---------------------------------------------------------------- records of a log file

// One record of a data log file, taken apart: a text event or the bytes of a data record.
struct LogItem
{
    enum EKind
    {
        eText,
        eWrite,
        eRead
    } kind;
    bool synchronous;
    std::string text;                // a text event's text
    std::vector<unsigned char> data; // a data record's bytes, read back from its hex dump
};

inline bool operator==(const LogItem& a, const LogItem& b)
{
    return a.kind == b.kind && a.synchronous == b.synchronous && a.text == b.text && a.data == b.data;
}

inline void PrintTo(const LogItem& item, std::ostream* out)
{
    static const char* const kinds[] = {"text", "WRITE", "READ"};
    *out << (item.synchronous ? "SYNC " : "ASYNC ") << kinds[item.kind] << " \"" << item.text << "\" "
         << item.data.size() << " bytes";
}

// The data record that a log file should hold.
inline LogItem DataRecord(LogItem::EKind kind, bool synchronous, const std::vector<unsigned char>& data)
{
    return LogItem{kind, synchronous, std::string(), data};
}

// The bytes of a record's dump lines: the hex cells of each line (" XX XX ...    text").
inline std::vector<unsigned char> DumpBytes(const std::string& body)
{
    std::vector<unsigned char> bytes;
    std::size_t at = 0;
    while (at < body.size())
    {
        const std::size_t end = body.find("\r\n", at);
        const std::string line = body.substr(at, end == std::string::npos ? std::string::npos : end - at);
        at = end == std::string::npos ? body.size() : end + 2;
        for (std::size_t cell = 1; cell + 2 <= line.size() && cell < 1 + 32 * 3; cell += 3)
        {
            unsigned int value = 0;
            if (line[cell] == ' ' || std::sscanf(line.c_str() + cell, "%2X", &value) != 1)
                break;
            bytes.push_back(static_cast<unsigned char>(value));
        }
    }
    return bytes;
}

// Every record of a log file, in order.
inline std::vector<LogItem> ReadLog(const ustring& path)
{
    std::vector<LogItem> items;
    for (const logtest::Record& record : logtest::ParseRecords(logtest::ReadBytes(path)))
    {
        LogItem item;
        if (record.head == "Text Event, ")
        {
            item.kind = LogItem::eText;
            item.synchronous = true;
            // The text, then the record's own line end and the separating empty line.
            item.text = record.body.substr(0, record.body.size() >= 4 ? record.body.size() - 4 : 0);
        }
        else
        {
            item.kind = record.head.find("WRITE") != std::string::npos ? LogItem::eWrite : LogItem::eRead;
            item.synchronous = record.head.compare(0, 5, "SYNC ") == 0;
            item.data = DumpBytes(record.body);
        }
        items.push_back(item);
    }
    return items;
}

inline std::vector<std::string> Texts(const std::vector<LogItem>& items)
{
    std::vector<std::string> texts;
    for (const LogItem& item : items)
        if (item.kind == LogItem::eText)
            texts.push_back(item.text);
    return texts;
}

inline std::vector<LogItem> DataRecords(const std::vector<LogItem>& items)
{
    std::vector<LogItem> data;
    for (const LogItem& item : items)
        if (item.kind != LogItem::eText)
            data.push_back(item);
    return data;
}

// The log file of a folder whose name starts with `name` followed by the time stamp's "-" (an
// empty path, and a test failure, unless there is exactly one).
inline ustring LogFileNamed(const ustring& folder, const ustring& name)
{
    const std::vector<ustring> names = logtest::ListFiles(folder, (name + L"-*.log").c_str());
    EXPECT_EQ(1u, names.size()) << "log files named " << ustring::WideCharToMultiByte(name, CP_UTF8);
    return names.size() == 1 ? folder + L"\\" + names[0] : ustring();
}

// The texts of every log file named `name` (sockets named after one address within the same
// millisecond share a file), in the order of the files' time stamps.
inline std::vector<std::string> TextsOfLogsNamed(const ustring& folder, const ustring& name)
{
    std::vector<ustring> names = logtest::ListFiles(folder, (name + L"-*.log").c_str());
    std::sort(names.begin(), names.end());
    std::vector<std::string> texts;
    for (const ustring& file : names)
    {
        const std::vector<std::string> more = Texts(ReadLog(folder + L"\\" + file));
        texts.insert(texts.end(), more.begin(), more.end());
    }
    return texts;
}

inline std::string Narrow(const std::wstring& text)
{
    return ustring::WideCharToMultiByte(text, CP_UTF8);
}

// ---------------------------------------------------------------- Linux-side helpers

// The Linux path of a Windows path under Wine; empty when not running under Wine.
inline std::string UnixPath(const std::wstring& windowsPath)
{
    typedef char*(CDECL * Converter)(const wchar_t*);
    const Converter convert = reinterpret_cast<Converter>(
        reinterpret_cast<void*>(::GetProcAddress(::GetModuleHandleW(L"kernel32.dll"), "wine_get_unix_file_name")));
    if (convert == nullptr)
        return std::string();
    char* converted = convert(windowsPath.c_str());
    if (converted == nullptr)
        return std::string();
    const std::string path(converted);
    ::HeapFree(::GetProcessHeap(), 0, converted);
    return path;
}

inline std::wstring Widen(const std::string& text)
{
    return ustring::MultiByteToWideChar(text, CP_UTF8);
}

// Starts a Linux shell script under Wine, which runs Linux programs given by their Linux path.
// Wine hands out no process handle for them: the script reports its end through a file. The
// script inherits the test's standard streams and must redirect them first thing.
inline bool StartShellScript(const std::string& script, const std::string& arguments)
{
    std::wstring command = Widen("/bin/sh \"" + script + "\" " + arguments);
    STARTUPINFOW startup = {};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION process = {};
    if (!::CreateProcessW(nullptr, &command[0], nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &process))
        return false;
    if (process.hThread != nullptr)
        ::CloseHandle(process.hThread);
    if (process.hProcess != nullptr)
        ::CloseHandle(process.hProcess);
    return true;
}

// Waits at most `limitMs` for a file to appear; its content, or nothing when it did not.
inline bool WaitForFile(const ustring& path, std::string& content, DWORD limitMs)
{
    if (!logtest::WaitUntil([&] { return ::GetFileAttributesW(path) != INVALID_FILE_ATTRIBUTES; }, limitMs))
        return false;
    content = logtest::ReadBytes(path);
    return true;
}

// Runs the tests of this program that match `filter` (disabled ones included) in a network
// namespace of their own: loopback down ("nolo"), or up with ICMP echo requests ignored
// ("noecho"). Under Wine, sockets are made by the wineserver and echo requests sent by
// winedevice.exe, not by the test program, so the whole Wine session must live in the namespace:
// the script copies the prefix's registry into a private prefix (sharing its drive_c), and its
// first program starts that prefix's own wineserver and system processes in there. The inner
// program sees TAVRIN_NETNS_MODE. Returns false (with a test failure) when the run did not end
// in time; `output` is what it printed.
inline bool RunInNetworkNamespace(const char* mode, const char* filter, std::string& output)
{
    static const char script[] =
        "#!/bin/sh\n"
        "# $1 mode, $2 work folder, $3 test program, $4 test filter; all Linux paths.\n"
        "exec >\"$2/run.log\" 2>&1 </dev/null\n"
        "prefix=$(mktemp -d /tmp/tavrin-netns.XXXXXX) || exit 1\n"
        "trap 'rm -rf \"$prefix\"; echo done >\"$2/done\"' EXIT\n"
        "cp \"$WINEPREFIX\"/*.reg \"$WINEPREFIX/.update-timestamp\" \"$prefix\"/ &&\n"
        "  cp -a \"$WINEPREFIX/dosdevices\" \"$prefix\"/ &&\n"
        "  ln -s \"$WINEPREFIX/drive_c\" \"$prefix/drive_c\" || exit 1\n"
        "if [ \"$(id -u)\" = 0 ]; then ns='unshare -n'; else ns='unshare -rn'; fi\n"
        "$ns sh -c '\n"
        "  if [ \"$1\" = noecho ]; then\n"
        "    ip link set lo up && echo 1 >/proc/sys/net/ipv4/icmp_echo_ignore_all || exit 3\n"
        "  fi\n"
        "  export WINEPREFIX=\"$2\" TAVRIN_NETNS_MODE=\"$1\"\n"
        "  timeout -k 5 120 wine64 \"$3\" --gtest_also_run_disabled_tests --gtest_filter=\"$4\" --gtest_color=no\n"
        "  rc=$?\n"
        "  wineserver -k\n"
        "  echo \"inner exit $rc\"' sh \"$1\" \"$prefix\" \"$3\" \"$4\"\n";

    logtest::CTempFolder work(L"netns");
    wchar_t program[MAX_PATH] = {};
    ::GetModuleFileNameW(nullptr, program, MAX_PATH);
    const std::string unixWork = UnixPath(work.Path());
    const std::string unixProgram = UnixPath(program);
    if (unixWork.empty() || unixProgram.empty())
    {
        ADD_FAILURE() << "no Linux paths";
        return false;
    }
    logtest::WriteBytes(work / L"netns.sh", script);
    if (!StartShellScript(unixWork + "/netns.sh",
                          "\"" + std::string(mode) + "\" \"" + unixWork + "\" \"" + unixProgram + "\" \"" + filter + "\""))
    {
        ADD_FAILURE() << "cannot start the namespace script";
        return false;
    }
    std::string done;
    const bool finished = WaitForFile(work / L"done", done, 150000);
    output = logtest::ReadBytes(work / L"run.log");
    if (!finished)
        ADD_FAILURE() << "the namespace run did not end in time:\n" << output;
    return finished;
}

// Runs the disabled tests of `suite` in a network namespace (see RunInNetworkNamespace) and
// expects all `count` of them to pass there.
inline void ExpectPassedInNetworkNamespace(const char* mode, const std::string& suite, unsigned int count)
{
    std::string output;
    ASSERT_TRUE(RunInNetworkNamespace(mode, (suite + ".*").c_str(), output));
    const std::string passed = "[  PASSED  ] " + std::to_string(count) + (count == 1 ? " test." : " tests.");
    EXPECT_NE(std::string::npos, output.find(passed)) << output;
    EXPECT_EQ(std::string::npos, output.find("[  SKIPPED ]")) << output;
}

// Under Wine, where Linux programs can be started; the tests that need them skip elsewhere.
#define COMMTEST_SKIP_WITHOUT_WINE()                                                                     \
    if (commtest::UnixPath(L"C:\\").empty())                                                             \
    GTEST_SKIP() << "needs Wine to start Linux programs"

} // namespace commtest
