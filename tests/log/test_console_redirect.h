// Redirects the process's standard output and error (the C runtime's descriptors 1 and 2 and the
// standard output handle) into two files for the lifetime of the object, so that console tests
// can check the exact bytes that CConsole writes.
//
// Nothing may be asserted while the redirection is active: the test framework prints its
// failures to the same standard output. Collect the bytes with Stop(), then assert.
#pragma once

#include <tavrin/core/config.h>
#include <tavrin_test.h>

#include <fcntl.h>
#include <io.h>

#include <cstdio>
#include <string>
#include <vector>

namespace tavrin_test {

class CStdStreamRedirect
{
public:
    CStdStreamRedirect()
    {
        static int counter = 0;
        wchar_t folder[MAX_PATH] = {};
        ::GetTempPathW(MAX_PATH, folder);
        const std::wstring stem = std::wstring(folder) + L"tavrin_console_" + std::to_wstring(::GetCurrentProcessId()) +
                                  L"_" + std::to_wstring(++counter);
        m_strOut = stem + L"_out.bin";
        m_strErr = stem + L"_err.bin";

        std::fflush(stdout);
        std::fflush(stderr);
        m_nSavedOut = ::_dup(1);
        m_nSavedErr = ::_dup(2);
        m_hSavedStdOut = ::GetStdHandle(STD_OUTPUT_HANDLE);
        m_hSavedStdErr = ::GetStdHandle(STD_ERROR_HANDLE);
        Attach(m_strOut, 1);
        Attach(m_strErr, 2);
        ::SetStdHandle(STD_OUTPUT_HANDLE, reinterpret_cast<HANDLE>(::_get_osfhandle(1)));
        ::SetStdHandle(STD_ERROR_HANDLE, reinterpret_cast<HANDLE>(::_get_osfhandle(2)));
        m_bActive = true;
    }

    ~CStdStreamRedirect()
    {
        Stop();
        ::DeleteFileW(m_strOut.c_str());
        ::DeleteFileW(m_strErr.c_str());
    }

    CStdStreamRedirect(const CStdStreamRedirect&) = delete;
    CStdStreamRedirect& operator=(const CStdStreamRedirect&) = delete;

    // Puts the original streams back (in narrow text mode, as the test framework writes them).
    void Stop()
    {
        if (!m_bActive)
            return;
        m_bActive = false;
        std::fflush(stdout);
        std::fflush(stderr);
        ::_setmode(1, _O_TEXT);
        ::_setmode(2, _O_TEXT);
        ::_dup2(m_nSavedOut, 1);
        ::_dup2(m_nSavedErr, 2);
        ::_close(m_nSavedOut);
        ::_close(m_nSavedErr);
        ::_setmode(1, _O_TEXT);
        ::_setmode(2, _O_TEXT);
        ::SetStdHandle(STD_OUTPUT_HANDLE, m_hSavedStdOut);
        ::SetStdHandle(STD_ERROR_HANDLE, m_hSavedStdErr);
    }

    // What reached standard output / standard error so far, as UTF-16 code units.
    std::wstring Out() const { return Read(m_strOut); }
    std::wstring Err() const { return Read(m_strErr); }
    // The raw bytes.
    std::vector<unsigned char> OutBytes() const { return ReadBytes(m_strOut); }
    std::vector<unsigned char> ErrBytes() const { return ReadBytes(m_strErr); }

private:
    static void Attach(const std::wstring& path, int fd)
    {
        HANDLE file = ::CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                    nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
        const int newFd = ::_open_osfhandle(reinterpret_cast<intptr_t>(file), _O_WRONLY | _O_BINARY);
        ::_dup2(newFd, fd);
        ::_close(newFd);
    }

    static std::vector<unsigned char> ReadBytes(const std::wstring& path)
    {
        std::fflush(stdout);
        std::fflush(stderr);
        return tavrintest::ReadFileBytes(path);
    }

    static std::wstring Read(const std::wstring& path)
    {
        const std::vector<unsigned char> bytes = ReadBytes(path);
        std::wstring text;
        for (size_t i = 0; i + 1 < bytes.size(); i += 2)
            text += static_cast<wchar_t>(bytes[i] | (bytes[i + 1] << 8));
        return text;
    }

    std::wstring m_strOut;
    std::wstring m_strErr;
    int m_nSavedOut = -1;
    int m_nSavedErr = -1;
    HANDLE m_hSavedStdOut = nullptr;
    HANDLE m_hSavedStdErr = nullptr;
    bool m_bActive = false;
};

} // namespace tavrin_test
