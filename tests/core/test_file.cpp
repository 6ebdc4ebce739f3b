// CFile's instance members: transfers and positioning on real files, failures with their
// recorded lines and functions, temporary files, and the logging of each call to the channel's
// data log file (plain files and overlapped named pipes).
#include "../log/test_logfile_support.h"

#include <tavrin/core/file.h>
#include <tavrin/log/logfile.h>

#include <gtest/gtest.h>

#include <cstring>

using namespace tavrin;
using namespace logtest;
using tavrintest::CatchWinException;

namespace {

bool EndsWith(const ustring& text, const wchar_t* tail)
{
    const std::size_t length = std::wcslen(tail);
    return text.size() >= length && static_cast<const std::wstring&>(text).compare(text.size() - length, length, tail) == 0;
}

std::string Narrow(const ustring& text)
{
    return ustring::WideCharToMultiByte(text, CP_UTF8);
}

ustring __stdcall DescribeBytes(const std::vector<unsigned char>& data)
{
    return ustring::sprintf_stc(L"<%u bytes>\r\n", static_cast<unsigned int>(data.size()));
}

} // namespace

TEST(File, TransfersAndPositionsRoundTrip)
{
    CTempFolder folder(L"file-rw");
    const ustring path = folder / L"data.bin";
    CFile file(path, GENERIC_READ | GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    EXPECT_TRUE(file.IsCreated());
    EXPECT_EQ(path, file.GetFileName());
    EXPECT_FALSE(file.GetDeleteOnClose());

    unsigned int count = 0;
    EXPECT_TRUE(file.Write("0123456789", 10, count));
    EXPECT_EQ(10u, count);
    EXPECT_EQ(10u, file.GetPosition());
    EXPECT_EQ(10u, file.GetLength());

    EXPECT_EQ(2u, file.Seek(2, FILE_BEGIN));
    char buffer[16] = {};
    EXPECT_TRUE(file.Read(buffer, 4, count));
    EXPECT_EQ(4u, count);
    EXPECT_EQ(0, std::memcmp(buffer, "2345", 4));
    EXPECT_EQ(9u, file.Seek(-1, FILE_END));
    EXPECT_EQ(7u, file.Seek(-2, FILE_CURRENT));

    // Both halves of a 64-bit position travel through the split distance.
    const unsigned __int64 beyond4G = 0x100000005ull;
    EXPECT_EQ(beyond4G, file.Seek(static_cast<__int64>(beyond4G), FILE_BEGIN));
    EXPECT_EQ(beyond4G, file.GetPosition());
    EXPECT_EQ(10u, file.GetLength());

    file.SetLength(4);
    EXPECT_EQ(4u, file.GetLength());
    EXPECT_EQ(4u, file.GetPosition());
    EXPECT_TRUE(file.Read(buffer, sizeof(buffer), count)); // at the end: complete, nothing read
    EXPECT_EQ(0u, count);
    file.Flush();

    EXPECT_TRUE(file.Close());
    EXPECT_FALSE(file.IsCreated());
    EXPECT_FALSE(file.Close());
    EXPECT_EQ("0123", ReadBytes(path));

    // Re-opening an open object closes the first handle.
    file.Open(path, GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr,
              CFile::eLoggingModeOff, nullptr, false);
    file.Open(path, GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr,
              CFile::eLoggingModeOff, nullptr, false);
    EXPECT_EQ(4u, file.GetLength());
}

TEST(File, FailuresThrowWithTheirFunctionLineAndCode)
{
    CTempFolder folder(L"file-fail");

    CFile file;
    const CWinException open = CatchWinException([&] {
        file.Open(folder / L"missing\\x.bin", GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr,
                  CFile::eLoggingModeOn, nullptr, false);
    });
    EXPECT_EQ(118u, open.GetLine());
    EXPECT_EQ(L"CreateFileW", open.GetFunction());
    EXPECT_EQ(ERROR_PATH_NOT_FOUND, open.GetErrorCode());
    EXPECT_TRUE(EndsWith(open.GetFileName(), L"file.cpp")) << Narrow(open.GetFileName());
    EXPECT_FALSE(file.IsCreated());
    EXPECT_TRUE(file.GetFileName().empty());

    // The opening constructor leaves no object behind.
    EXPECT_THROW(CFile(folder / L"missing\\y.bin", GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr),
                 CWinException);

    const ustring path = folder / L"data.bin";
    WriteBytes(path, "abcd");
    {
        CFile writeOnly(path, GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr);
        char buffer[4];
        unsigned int count = 0;
        const CWinException read = CatchWinException([&] { writeOnly.Read(buffer, 4, count); });
        EXPECT_EQ(205u, read.GetLine());
        EXPECT_EQ(L"ReadFile", read.GetFunction());
        EXPECT_EQ(ERROR_ACCESS_DENIED, read.GetErrorCode());

        const CWinException seek = CatchWinException([&] { writeOnly.Seek(-5, FILE_BEGIN); });
        EXPECT_EQ(L"SetFilePointer", seek.GetFunction());
        EXPECT_EQ(ERROR_NEGATIVE_SEEK, seek.GetErrorCode());

        const CWinException ioctl = CatchWinException([&] { writeOnly.DeviceIoControlLL(0x12345678, nullptr, 0, nullptr); });
        EXPECT_EQ(L"DeviceIoControl", ioctl.GetFunction());
        EXPECT_NE(0, ioctl.GetErrorCode());
    }
    {
        CFile readOnly(path, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr);
        unsigned int count = 0;
        const CWinException write = CatchWinException([&] { readOnly.Write("x", 1, count); });
        EXPECT_EQ(244u, write.GetLine());
        EXPECT_EQ(L"WriteFile", write.GetFunction());
        EXPECT_EQ(ERROR_ACCESS_DENIED, write.GetErrorCode());
    }

    // Calls on a handle value that refers to nothing fail with ERROR_INVALID_HANDLE. (The
    // "no handle" value itself, -1, is the current process's pseudo-handle.)
    CFile stale;
    ASSERT_TRUE(stale.Attach(reinterpret_cast<HANDLE>(static_cast<UINT_PTR>(0x7FFFFF00))));
    const CWinException cancel = CatchWinException([&] { stale.CancelIo(); });
    EXPECT_EQ(916u, cancel.GetLine());
    EXPECT_EQ(L"CancelIo", cancel.GetFunction());
    EXPECT_EQ(ERROR_INVALID_HANDLE, cancel.GetErrorCode());
    const CWinException length = CatchWinException([&] { stale.GetLength(); });
    EXPECT_EQ(L"GetFileSize", length.GetFunction());
    EXPECT_EQ(ERROR_INVALID_HANDLE, length.GetErrorCode());
    EXPECT_EQ(L"FlushFileBuffers", CatchWinException([&] { stale.Flush(); }).GetFunction());
    stale.Detach();
    EXPECT_EQ(L"SetEndOfFile", CatchWinException([&] {
                                   CFile readOnly(path, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                                  OPEN_EXISTING, 0, nullptr);
                                   readOnly.SetLength(1);
                               }).GetFunction());
}

TEST(File, TemporaryFilesAreCreatedAndDeletedOnClose)
{
    ustring tempFolder;
    CFile::GetTempPathW(tempFolder);

    ustring name;
    CFile temp(GENERIC_READ | GENERIC_WRITE, 0, nullptr, FILE_ATTRIBUTE_NORMAL, L"tvn", name, true);
    EXPECT_TRUE(temp.IsCreated());
    EXPECT_EQ(0u, name.find(tempFolder)) << Narrow(name);
    EXPECT_EQ(0u, name.find(tempFolder + L"tvn")) << Narrow(name);
    EXPECT_TRUE(EndsWith(name, L".tmp"));
    EXPECT_EQ(name, temp.GetFileName());
    EXPECT_TRUE(temp.GetDeleteOnClose());
    unsigned int count = 0;
    EXPECT_TRUE(temp.Write("temporary", 9, count));
    EXPECT_TRUE(CFile::FileExists(name));

    EXPECT_TRUE(temp.Close());
    EXPECT_FALSE(CFile::FileExists(name));
    EXPECT_TRUE(temp.GetFileName().empty());
    EXPECT_FALSE(temp.GetDeleteOnClose());
    EXPECT_FALSE(temp.Close()); // nothing left to do

    // Kept when asked; each call picks a new name.
    ustring kept;
    {
        CFile keep(GENERIC_WRITE, 0, nullptr, FILE_ATTRIBUTE_NORMAL, nullptr, kept, false);
        EXPECT_NE(name, kept);
        EXPECT_TRUE(keep.Write("kept", 4, count));
    }
    EXPECT_EQ("kept", ReadBytes(kept));
    CFile::DeleteFileW(kept);

    // Open with delete-on-close does the same for a named file.
    CTempFolder folder(L"file-doc");
    const ustring path = folder / L"scratch.bin";
    CFile scratch;
    scratch.Open(path, GENERIC_WRITE, 0, nullptr, CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr, CFile::eLoggingModeOff,
                 nullptr, true);
    EXPECT_TRUE(CFile::FileExists(path));
    EXPECT_TRUE(scratch.Close());
    EXPECT_FALSE(CFile::FileExists(path));
}

TEST(File, EveryCallIsLoggedToTheChannelsLogFile)
{
    CTempFolder folder(L"file-log");
    const ustring logs = folder / L"logs";
    CServerSetup setup(logs, eLogFileDetailVerbose);
    const ustring path = folder / L"my.data.bin";

    CFile file(path, GENERIC_READ | GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr,
               CFile::eLoggingModeOn, &DescribeBytes);
    const unsigned int channel = LogChannel(file.GetHandle());
    EXPECT_TRUE(CLogFileServer::Ref().LogFileExists(channel));

    // The log file is named by the file's name without the characters that no file name takes.
    ustring channelName(path);
    channelName.removeForbiddenSymbols(L"/\\:*?\"<>|.");
    const std::vector<ustring> names = ListFiles(logs, L"*.log");
    ASSERT_EQ(1u, names.size());
    EXPECT_EQ(0u, names[0].find(channelName + L"-")) << Narrow(names[0]);
    EXPECT_EQ(channelName.size() + 1 + 23 + 4, names[0].size());

    unsigned int count = 0;
    EXPECT_TRUE(file.Write("ABC", 3, count));
    file.Seek(0, FILE_BEGIN);
    char buffer[16] = {};
    EXPECT_TRUE(file.Read(buffer, sizeof(buffer), count));
    EXPECT_EQ(3u, count);
    EXPECT_THROW(file.Seek(-1, FILE_BEGIN), CWinException);
    EXPECT_TRUE(file.Close());
    EXPECT_FALSE(CLogFileServer::Ref().LogFileExists(channel)); // closed with the handle
    EXPECT_FALSE(file.Close()); // a second close logs nothing

    const std::vector<std::string> events = Events(logs + L"\\" + names[0]);
    const std::vector<unsigned char> abc = {'A', 'B', 'C'};
    const std::vector<std::string> expected = {
        "\"" + Narrow(path) + "\" has been opened.",
        "SYNC WRITE request completed: 3 (0x3) bytes, |<3 bytes>\r\n" + DumpLine(abc) + "\r\n",
        "SYNC READ request completed: 3 (0x3) bytes, |<3 bytes>\r\n" + DumpLine(abc) + "\r\n",
        "SetFilePointer(LONGLONG liDistanceToMove=-1, DWORD dwMoveMethod=0) failed. GetLastError()=131.",
        "The handle has been closed.",
    };
    EXPECT_EQ(expected, events);

    // Failing transfers log their failure line before throwing.
    CFile writeOnly(path, GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr,
                    CFile::eLoggingModeOn);
    EXPECT_THROW(writeOnly.Read(buffer, 4, count), CWinException);
    writeOnly.Close();
    const std::vector<ustring> after = ListFiles(logs, L"*.log");
    ASSERT_EQ(2u, after.size());
    const ustring second = (after[0] == names[0]) ? after[1] : after[0];
    const std::vector<std::string> failure = Events(logs + L"\\" + second);
    ASSERT_EQ(3u, failure.size());
    EXPECT_EQ("ReadFile(DWORD nNumberOfBytesToRead=4) failed. GetLastError()=5.", failure[1]);
    EXPECT_EQ("The handle has been closed.", failure[2]);
}

TEST(File, OverlappedTransfersArePendingUntilTheirResultIsTaken)
{
    CTempFolder folder(L"file-pipe");
    CServerSetup setup(folder.Path(), eLogFileDetailVerbose);
    const ustring pipeName = ustring::sprintf_stc(L"\\\\.\\pipe\\tavrin-file-test-%lu", ::GetCurrentProcessId());
    CHandle<-1> server(::CreateNamedPipeW(pipeName, PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED,
                                          PIPE_TYPE_BYTE | PIPE_WAIT, 1, 4096, 4096, 0, nullptr));
    ASSERT_TRUE(server.IsCreated());

    CFile client(pipeName, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, FILE_FLAG_OVERLAPPED, nullptr,
                 CFile::eLoggingModeOn);
    COverlapped connect(nullptr, TRUE, FALSE, nullptr);
    ::ConnectNamedPipe(server, &connect); // the client is there already: ERROR_PIPE_CONNECTED

    // A read on the empty pipe is pending; asking without waiting is an error (996), not "pending".
    COverlapped ov(nullptr, TRUE, FALSE, nullptr);
    char buffer[16] = {};
    unsigned int count = 0;
    EXPECT_FALSE(client.Read(buffer, sizeof(buffer), count, &ov));
    const CWinException incomplete = CatchWinException([&] { client.GetOverlappedResult(&ov, count, false); });
    EXPECT_EQ(954u, incomplete.GetLine());
    EXPECT_EQ(L"GetOverlappedResult", incomplete.GetFunction());
    EXPECT_EQ(ERROR_IO_INCOMPLETE, incomplete.GetErrorCode());

    // The peer writes; the completion logs the data that arrived.
    COverlapped send(nullptr, TRUE, FALSE, nullptr);
    DWORD sent = 0;
    if (!::WriteFile(server, "hello", 5, &sent, &send))
    {
        ASSERT_EQ(ERROR_IO_PENDING, ::GetLastError());
    }
    ASSERT_TRUE(::GetOverlappedResult(server, &send, &sent, TRUE));
    EXPECT_TRUE(client.GetOverlappedResult(&ov, count, true));
    EXPECT_EQ(5u, count);
    EXPECT_EQ(0, std::memcmp(buffer, "hello", 5));

    // A cancelled read completes with ERROR_OPERATION_ABORTED, which throws.
    COverlapped ov2(nullptr, TRUE, FALSE, nullptr);
    EXPECT_FALSE(client.Read(buffer, 8, count, &ov2));
    client.CancelIo();
    EXPECT_EQ(ERROR_OPERATION_ABORTED,
              CatchWinException([&] { client.GetOverlappedResult(&ov2, count, true); }).GetErrorCode());

    // A write that completes at once is logged as SYNC even on an overlapped handle.
    COverlapped ov3(nullptr, TRUE, FALSE, nullptr);
    if (client.Write("ok", 2, count, &ov3))
    {
        EXPECT_EQ(2u, count);
    }
    else
    {
        EXPECT_TRUE(client.GetOverlappedResult(&ov3, count, true));
    }
    client.Close();

    const std::vector<std::string> events = Events(OnlyLogFile(folder.Path()));
    ASSERT_GE(events.size(), 9u);
    EXPECT_EQ("\"" + Narrow(pipeName) + "\" has been opened.", events[0]);
    EXPECT_EQ("Pending read request initiated. Buffer size: 16.", events[1]);
    EXPECT_EQ("GetOverlappedResult() failed. GetLastError()=996, bWait=FALSE.", events[2]);
    EXPECT_EQ("ASYNC READ request completed: 5 (0x5) bytes, |" + DumpLine({'h', 'e', 'l', 'l', 'o'}) + "\r\n",
              events[3]);
    EXPECT_EQ("Pending read request initiated. Buffer size: 8.", events[4]);
    EXPECT_EQ("CancelIo succeeded.", events[5]);
    EXPECT_EQ("GetOverlappedResult() failed. GetLastError()=995, bWait=TRUE.", events[6]);
    const std::string written = "request completed: 2 (0x2) bytes, |" + DumpLine({'o', 'k'}) + "\r\n";
    if (events.size() == 9)
    {
        EXPECT_EQ("SYNC WRITE " + written, events[7]);
    }
    else
    {
        ASSERT_EQ(10u, events.size());
        EXPECT_EQ("Pending write request initiated. Buffer size: 2.", events[7]);
        EXPECT_EQ("ASYNC WRITE " + written, events[8]);
    }
    EXPECT_EQ("The handle has been closed.", events.back());
}
