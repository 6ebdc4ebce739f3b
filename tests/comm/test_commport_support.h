// Helpers of the serial-port tests: the ports of the test harness, their peer ends, and killing
// a peer in the middle of a transfer.
//
// The harness (scripts/test-services.sh) runs one socat pseudo-terminal pair per port: one end
// is the Wine port COM<n>, the other end is read and written here through plain Win32 calls
// (the peer stands outside the library on purpose). TAVRIN_TEST_COM_PORTS names the ports,
// TAVRIN_TEST_COM<n> holds the Unix path of a port's peer end and <peer>.pid the process id of
// its socat, which the harness kills when <peer>.kill appears and starts again whenever it ends.
// Without the harness the tests that need a port skip.
#pragma once

#include <tavrin/comm/commport.h>
#include <tavrin/core/object.h>
#include <tavrin/core/ustring.h>
#include <tavrin/log/logfile.h>

#include "../log/test_logfile_support.h"
#include "tavrin_test.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace commtest {

using tavrin::ustring;

inline ustring Environment(const wchar_t* name)
{
    wchar_t value[4096];
    const DWORD length = ::GetEnvironmentVariableW(name, value, 4096);
    return (length == 0 || length >= 4096) ? ustring() : ustring(value);
}

// The Windows name of a Unix path (Wine maps the Unix root to a drive, Z: by default).
inline ustring WindowsPath(const ustring& unixPath)
{
    typedef WCHAR*(__cdecl * PFNGETDOSFILENAME)(const char*);
    const auto toDos = reinterpret_cast<PFNGETDOSFILENAME>(
        reinterpret_cast<void*>(::GetProcAddress(::GetModuleHandleW(L"kernel32.dll"), "wine_get_dos_file_name")));
    if (toDos != nullptr)
    {
        const std::string narrow(unixPath.begin(), unixPath.end()); // the harness's paths are ASCII
        if (WCHAR* dos = toDos(narrow.c_str()))
        {
            const ustring result(dos);
            ::HeapFree(::GetProcessHeap(), 0, dos);
            return result;
        }
    }
    ustring result = L"Z:" + unixPath;
    result.replace(L"/", L"\\");
    return result;
}

// One port of the harness.
struct CTestPort
{
    ustring strName;    // "COM99"
    ustring strPath;    // "\\.\COM99"
    ustring strPeer;    // Windows path of the peer end
    ustring strPidFile; // Windows path of the file holding the peer's socat process id
};

inline std::vector<CTestPort> HarnessPorts()
{
    std::vector<CTestPort> ports;
    std::vector<ustring> names;
    ustring::split(Environment(L"TAVRIN_TEST_COM_PORTS"), L' ', names);
    for (const ustring& name : names)
    {
        const ustring peer = Environment((L"TAVRIN_TEST_" + name).c_str());
        if (name.empty() || peer.empty())
            continue;
        CTestPort port;
        port.strName = name;
        port.strPath = L"\\\\.\\" + name;
        port.strPeer = WindowsPath(peer);
        port.strPidFile = WindowsPath(peer + L".pid");
        ports.push_back(port);
    }
    return ports;
}

// The process id of the port's socat, 0 while there is none.
inline unsigned long PeerProcessId(const CTestPort& port)
{
    const std::vector<unsigned char> bytes = tavrintest::ReadFileBytes(port.strPidFile);
    return std::strtoul(std::string(bytes.begin(), bytes.end()).c_str(), nullptr, 10);
}

// Waits (at most 10 s) until the port's socat runs with a process id other than `old`. Its
// process is looked for in the Unix /proc, which Wine shows like any folder.
inline bool WaitForPeer(const CTestPort& port, unsigned long old = 0)
{
    return logtest::WaitUntil(
        [&] {
            const unsigned long pid = PeerProcessId(port);
            const ustring process = WindowsPath(ustring::sprintf_stc(L"/proc/%lu", pid));
            return pid != 0 && pid != old && ::GetFileAttributesW(process) != INVALID_FILE_ATTRIBUTES;
        },
        10000);
}

// Ends the port's socat at once (SIGKILL), as a peer that disappears: the harness kills it when
// the file <peer>.kill appears. (Wine would start /bin/kill from CreateProcessW, but then closes
// a stale thread handle value of the caller, which may be any handle the test holds.)
inline bool KillPeer(const CTestPort& port)
{
    tavrin::CHandle<-1> request(::CreateFileW(port.strPeer + L".kill", GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                                              FILE_ATTRIBUTE_NORMAL, nullptr));
    return request.IsCreated();
}

// The harness's port number `index`, ready for use; the test skips without the harness.
#define COMMTEST_PORT(var, index)                                                                                      \
    const std::vector<commtest::CTestPort> var##All = commtest::HarnessPorts();                                        \
    if (var##All.size() <= (index))                                                                                    \
        GTEST_SKIP() << "no serial port from the test harness (TAVRIN_TEST_COM_PORTS)";                                \
    const commtest::CTestPort& var = var##All[index];                                                                  \
    ASSERT_TRUE(commtest::WaitForPeer(var)) << "the peer of " << var.strName.c_str() << " is not running"

// A test's own log folder, with the log-file server at detail Verbose while the scene lasts.
class CLogScene
{
public:
    explicit CLogScene(const wchar_t* tag) : m_Folder(tag), m_Setup(m_Folder.Path(), tavrin::eLogFileDetailVerbose) {}

    const ustring& Folder() const { return m_Folder.Path(); }
    // The events of the folder's one log file (see logtest::Events).
    std::vector<std::string> Events() const { return logtest::Events(logtest::OnlyLogFile(m_Folder.Path())); }

private:
    logtest::CTempFolder m_Folder;
    logtest::CServerSetup m_Setup;
};

// Opens the peer end of `port` as `peer`, or fails the test.
#define COMMTEST_PEER(peer, port)                                                                                      \
    commtest::CPeer peer(port);                                                                                        \
    ASSERT_TRUE(peer.IsOpen()) << "cannot open the peer end of " << port.strName.c_str()

// The peer end of a port, read and written with plain Win32 calls. Every read and write is
// bounded by the timeouts set here.
class CPeer
{
public:
    explicit CPeer(const CTestPort& port)
        : m_hFile(::CreateFileW(port.strPeer, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr))
    {
        // Reads give back what has come within 100 ms; writes give up after 5 s.
        COMMTIMEOUTS timeouts = {0, 0, 100, 0, 5000};
        if (m_hFile.IsCreated())
            ::SetCommTimeouts(m_hFile, &timeouts);
    }

    bool IsOpen() const { return m_hFile.IsCreated(); }
    void Close() { m_hFile.Close(); }

    bool Write(const std::vector<unsigned char>& data)
    {
        DWORD written = 0;
        return ::WriteFile(m_hFile, data.data(), static_cast<DWORD>(data.size()), &written, nullptr) &&
               written == data.size();
    }

    // Up to `count` bytes, reading until that many came or `limitMs` passed.
    std::vector<unsigned char> Read(std::size_t count, DWORD limitMs = 5000)
    {
        std::vector<unsigned char> data;
        const ULONGLONG end = ::GetTickCount64() + limitMs;
        while (data.size() < count && ::GetTickCount64() < end)
        {
            unsigned char chunk[4096];
            DWORD got = 0;
            const DWORD want = static_cast<DWORD>(std::min<std::size_t>(sizeof(chunk), count - data.size()));
            if (!::ReadFile(m_hFile, chunk, want, &got, nullptr))
                break;
            data.insert(data.end(), chunk, chunk + got);
        }
        return data;
    }

private:
    tavrin::CHandle<-1> m_hFile;
};

// `count` bytes running through every value from `first` on.
inline std::vector<unsigned char> Pattern(std::size_t count, unsigned int first = 0)
{
    std::vector<unsigned char> bytes(count);
    for (std::size_t i = 0; i < count; ++i)
        bytes[i] = static_cast<unsigned char>(first + i);
    return bytes;
}

// A DCB for byte transfers: 8 data bits, no parity, one stop bit, binary, no flow control.
inline DCB RawDcb(DWORD baudRate = 115200)
{
    DCB dcb = {};
    dcb.DCBlength = sizeof(dcb);
    dcb.BaudRate = baudRate;
    dcb.fBinary = 1;
    dcb.ByteSize = 8;
    dcb.Parity = NOPARITY;
    dcb.StopBits = ONESTOPBIT;
    dcb.fDtrControl = DTR_CONTROL_ENABLE;
    dcb.fRtsControl = RTS_CONTROL_ENABLE;
    dcb.XonChar = 0x11;
    dcb.XoffChar = 0x13;
    dcb.XonLim = 2048;
    dcb.XoffLim = 512;
    return dcb;
}

// Compares two lists of log events, reporting the count and the first difference only (a data
// record can be a hundred thousand characters long).
inline ::testing::AssertionResult SameEvents(const std::vector<std::string>& expected,
                                             const std::vector<std::string>& actual)
{
    const auto shorten = [](const std::string& text) {
        return text.size() <= 300 ? text : text.substr(0, 300) + "... (" + std::to_string(text.size()) + " chars)";
    };
    for (std::size_t i = 0; i < expected.size() && i < actual.size(); ++i)
    {
        if (expected[i] != actual[i])
            return ::testing::AssertionFailure() << "event " << i << " differs:\n  expected: " << shorten(expected[i])
                                                 << "\n  actual:   " << shorten(actual[i]);
    }
    if (expected.size() != actual.size())
    {
        const std::vector<std::string>& longer = expected.size() > actual.size() ? expected : actual;
        return ::testing::AssertionFailure()
               << expected.size() << " events expected, " << actual.size()
               << " logged; the first extra one: " << shorten(longer[std::min(expected.size(), actual.size())]);
    }
    return ::testing::AssertionSuccess();
}

// The whole body a data record of these bytes must have: its dump lines and the empty line.
inline std::string DataBody(const std::vector<unsigned char>& bytes)
{
    std::string body;
    for (std::size_t at = 0; at < bytes.size(); at += 32)
        body += logtest::DumpLine(
            std::vector<unsigned char>(bytes.begin() + static_cast<std::ptrdiff_t>(at),
                                       bytes.begin() + static_cast<std::ptrdiff_t>(std::min(at + 32, bytes.size()))));
    return body + "\r\n";
}

inline std::string DataHead(bool synchronous, bool write, std::size_t size)
{
    char head[128];
    std::snprintf(head, sizeof(head), "%s %s request completed: %u (0x%X) bytes, ", synchronous ? "SYNC" : "ASYNC",
                  write ? "WRITE" : "READ", static_cast<unsigned int>(size), static_cast<unsigned int>(size));
    return head;
}

inline std::string Narrow(const ustring& text)
{
    return std::string(text.begin(), text.end());
}

} // namespace commtest
