// Helpers shared by the data log file tests: private folders, reading files back and taking
// records apart.
#pragma once

#include <tavrin/core/file.h>
#include <tavrin/log/logfile.h>

#include "tavrin_test.h"

#include <gtest/gtest.h>

#include <atomic>
#include <regex>
#include <string>
#include <vector>

namespace logtest {

using tavrin::ustring;

// A new empty folder in the temporary folder, removed (with its content) by the destructor.
class CTempFolder
{
public:
    explicit CTempFolder(const wchar_t* tag)
    {
        static std::atomic<int> counter(0);
        tavrin::CFile::GetTempPathW(m_strPath);
        m_strPath += ustring::sprintf_stc(L"tavrin-logtest-%lu-%ls-%d", ::GetCurrentProcessId(), tag, ++counter);
        tavrintest::RemoveTree(m_strPath);
        ::CreateDirectoryW(m_strPath, nullptr);
    }
    ~CTempFolder() { tavrintest::RemoveTree(m_strPath); }

    const ustring& Path() const { return m_strPath; }
    ustring operator/(const wchar_t* name) const { return m_strPath + L"\\" + name; }

private:
    ustring m_strPath;
};

// The whole content of a file as bytes in a string (empty when it cannot be read).
inline std::string ReadBytes(const ustring& path)
{
    const std::vector<unsigned char> bytes = tavrintest::ReadFileBytes(path);
    return std::string(bytes.begin(), bytes.end());
}

inline void WriteBytes(const ustring& path, const std::string& content)
{
    HANDLE file = ::CreateFileW(path, GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    ASSERT_NE(INVALID_HANDLE_VALUE, file);
    DWORD written = 0;
    ::WriteFile(file, content.data(), static_cast<DWORD>(content.size()), &written, nullptr);
    ::CloseHandle(file);
}

// Names of the entries of a folder that match the wildcard, in the order the system lists them.
inline std::vector<ustring> ListFiles(const ustring& folder, const wchar_t* mask = L"*")
{
    std::vector<ustring> names;
    WIN32_FIND_DATAW data;
    HANDLE find = ::FindFirstFileW(folder + L"\\" + mask, &data);
    if (find == INVALID_HANDLE_VALUE)
        return names;
    do
    {
        const ustring name(data.cFileName);
        if (name != L"." && name != L"..")
            names.push_back(name);
    } while (::FindNextFileW(find, &data));
    ::FindClose(find);
    return names;
}

// The one log file of a folder (an empty path, and a test failure, when there is not exactly one).
inline ustring OnlyLogFile(const ustring& folder)
{
    const std::vector<ustring> names = ListFiles(folder, L"*.log");
    EXPECT_EQ(1u, names.size());
    return names.size() == 1 ? folder + L"\\" + names[0] : ustring();
}

// One record of a log file: its header line without the time stamp, the time stamp, and what
// follows the header line (the body with its closing empty line).
struct Record
{
    std::string head; // e.g. "ASYNC READ request completed: 3 (0x3) bytes, " or "Text Event, "
    std::string time; // e.g. "2024/3/7, 09:05:01.123"
    std::string body; // everything after the header's "\r\n", the final "\r\n" included
};

// Splits a log file's text at the headers. Text events and data records only; the text of a
// record must not itself contain a header.
inline std::vector<Record> ParseRecords(const std::string& text)
{
    static const std::regex header(
        "(Text Event, |(?:A?SYNC) (?:WRITE|READ) request completed: \\d+ \\(0x[0-9A-F]+\\) bytes, )"
        "(\\d{4}/\\d{1,2}/\\d{1,2}, \\d\\d:\\d\\d:\\d\\d\\.\\d\\d\\d)\r\n");
    std::vector<Record> records;
    std::size_t bodyStart = std::string::npos;
    for (auto it = std::sregex_iterator(text.begin(), text.end(), header); it != std::sregex_iterator(); ++it)
    {
        const std::smatch& match = *it;
        const std::size_t at = static_cast<std::size_t>(match.position(0));
        if (!records.empty())
            records.back().body = text.substr(bodyStart, at - bodyStart);
        records.push_back(Record{match[1].str(), match[2].str(), std::string()});
        bodyStart = at + static_cast<std::size_t>(match.length(0));
    }
    if (!records.empty())
        records.back().body = text.substr(bodyStart);
    return records;
}

// The records of a log file in order: a text event as its text, a data record as its header
// without the time stamp, "|", and its body.
inline std::vector<std::string> Events(const ustring& logPath)
{
    std::vector<std::string> events;
    for (const Record& record : ParseRecords(ReadBytes(logPath)))
    {
        if (record.head == "Text Event, ")
            events.push_back(record.body.substr(0, record.body.size() - 4)); // without "\r\n\r\n"
        else
            events.push_back(record.head + "|" + record.body);
    }
    return events;
}

// Local time as a log record writes it.
inline std::string TimeText(const SYSTEMTIME& t)
{
    char text[64];
    std::snprintf(text, sizeof(text), "%u/%u/%u, %02u:%02u:%02u.%03u", t.wYear, t.wMonth, t.wDay, t.wHour, t.wMinute,
                  t.wSecond, t.wMilliseconds);
    return text;
}

// Whether the record's time lies between two local times (taken around the logging call).
inline bool TimeBetween(const std::string& time, const SYSTEMTIME& before, const SYSTEMTIME& after)
{
    SYSTEMTIME t = {};
    unsigned y, mo, d, h, mi, s, ms;
    if (std::sscanf(time.c_str(), "%u/%u/%u, %u:%u:%u.%u", &y, &mo, &d, &h, &mi, &s, &ms) != 7)
        return false;
    t.wYear = static_cast<WORD>(y);
    t.wMonth = static_cast<WORD>(mo);
    t.wDay = static_cast<WORD>(d);
    t.wHour = static_cast<WORD>(h);
    t.wMinute = static_cast<WORD>(mi);
    t.wSecond = static_cast<WORD>(s);
    t.wMilliseconds = static_cast<WORD>(ms);
    FILETIME ft, fb, fa;
    if (!::SystemTimeToFileTime(&t, &ft) || !::SystemTimeToFileTime(&before, &fb) ||
        !::SystemTimeToFileTime(&after, &fa))
        return false;
    return ::CompareFileTime(&fb, &ft) <= 0 && ::CompareFileTime(&ft, &fa) <= 0;
}

// The dump line of a record (see CLogFile::Bin2Text) built independently: hex cells, padding,
// four blanks and the text column.
inline std::string DumpLine(const std::vector<unsigned char>& bytes, unsigned int width = 32)
{
    std::string line = " ";
    std::string text;
    for (unsigned int i = 0; i < width; ++i)
    {
        if (i < bytes.size())
        {
            char cell[4];
            std::snprintf(cell, sizeof(cell), "%02X ", bytes[i]);
            line += cell;
            text += (bytes[i] >= 0x21 && bytes[i] <= 0x7E) ? static_cast<char>(bytes[i]) : '.';
        }
        else
            line += "   ";
    }
    return line + "    " + text + "\r\n";
}

// Polls `condition` every 10 ms for at most `limitMs`.
template <class Condition>
bool WaitUntil(Condition condition, DWORD limitMs = 10000)
{
    const ULONGLONG end = ::GetTickCount64() + limitMs;
    while (!condition())
    {
        if (::GetTickCount64() > end)
            return false;
        ::Sleep(10);
    }
    return true;
}

// Points the process's log-file server at a private folder with the given detail level, and
// puts the server back to "no logging" afterwards.
class CServerSetup
{
public:
    CServerSetup(const ustring& folder, tavrin::ELogFileDetail detail)
        : m_strOldFolder(tavrin::CLogFileServer::Ref().GetFolder())
    {
        tavrin::CLogFileServer::Ref().SetFolder(folder, false);
        tavrin::CLogFileServer::Ref().SetDetail(detail);
    }
    ~CServerSetup()
    {
        tavrin::CLogFileServer::Ref().SetDetail(tavrin::eLogFileDetailOff);
        tavrin::CLogFileServer::Ref().SetFolder(m_strOldFolder, false);
    }

private:
    ustring m_strOldFolder;
};

} // namespace logtest
