// Helpers shared by the test suites: they stand outside the library on purpose (plain Win32
// calls), so that a fault in the library cannot hide itself in its own test's set-up.
#pragma once

#include <tavrin/core/exception.h>
#include <tavrin/core/file.h>
#include <tavrin/core/ustring.h>

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

namespace tavrintest
{
// Whole contents of a file, or nothing when it cannot be opened. Opened with every sharing mode
// so that files still held by a writer (log files, redirected streams) can be read.
inline std::vector<unsigned char> ReadFileBytes(const std::wstring& path)
{
    std::vector<unsigned char> bytes;
    HANDLE file = ::CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE)
        return bytes;
    unsigned char chunk[4096];
    DWORD read = 0;
    while (::ReadFile(file, chunk, sizeof(chunk), &read, nullptr) && read > 0)
        bytes.insert(bytes.end(), chunk, chunk + read);
    ::CloseHandle(file);
    return bytes;
}

// Removes a file or a folder tree; goes through the long-path form so that deep trees go too.
inline void RemoveTree(const tavrin::ustring& path)
{
    const tavrin::ustring longName = tavrin::CFile::OptAddFileNamePrefix(path);
    const DWORD attributes = ::GetFileAttributesW(longName);
    if (attributes == INVALID_FILE_ATTRIBUTES)
        return;
    if ((attributes & FILE_ATTRIBUTE_DIRECTORY) == 0)
    {
        ::SetFileAttributesW(longName, FILE_ATTRIBUTE_NORMAL);
        ::DeleteFileW(longName);
        return;
    }
    WIN32_FIND_DATAW data;
    HANDLE find = ::FindFirstFileW(longName + L"\\*", &data);
    if (find != INVALID_HANDLE_VALUE)
    {
        do
        {
            const tavrin::ustring name(data.cFileName);
            if (name != L"." && name != L"..")
                RemoveTree(path + L"\\" + name);
        } while (::FindNextFileW(find, &data));
        ::FindClose(find);
    }
    ::RemoveDirectoryW(longName);
}

// Wine creates windows only with a display; window tests skip without one.
inline bool CanCreateWindows()
{
    HWND probe = ::CreateWindowExW(0, L"Static", L"", WS_POPUP, 0, 0, 1, 1, nullptr, nullptr, nullptr, nullptr);
    if (probe == nullptr)
        return false;
    ::DestroyWindow(probe);
    return true;
}

// True for a 32-bit program in the WoW64 mode of Wine's wine64. That mode gives 32-bit programs
// no device contexts (CreateCompatibleDC and CreateCompatibleBitmap return NULL, even in a plain
// C program) and crashes inside its 32-bit gdi32 when a dialog is shown.
inline bool IsWineWow64()
{
#ifdef _WIN64
    return false;
#else
    const HMODULE ntdll = ::GetModuleHandleW(L"ntdll.dll");
    BOOL wow64 = FALSE;
    return ntdll != nullptr && ::GetProcAddress(ntdll, "wine_get_version") != nullptr &&
           ::IsWow64Process(::GetCurrentProcess(), &wow64) && wow64;
#endif
}

// Opens a test that draws into a device context or shows a dialog.
#define TAVRIN_SKIP_WITHOUT_32BIT_GDI()                                                                  \
    if (tavrintest::IsWineWow64())                                                                       \
    GTEST_SKIP() << "Wine's WoW64 mode has no device contexts or dialogs for 32-bit programs"

// Runs `call`, which must throw E, and returns the caught exception (a test failure otherwise).
template <class E>
E CatchAs(const std::function<void()>& call, const E& placeholder)
{
    try
    {
        call();
    }
    catch (const E& e)
    {
        return e;
    }
    ADD_FAILURE() << "the expected exception was not thrown";
    return placeholder;
}

inline tavrin::CWinException CatchWinException(const std::function<void()>& call)
{
    return CatchAs<tavrin::CWinException>(call, tavrin::CWinException(0, L"", L"", 0));
}
} // namespace tavrintest
