// tavrin-log: input files, the record stream over them, and the record filter.
#include "tool.h"

#include <algorithm>
#include <cwctype>

namespace tavrinlog {

namespace {

unsigned __int64 Ticks(const SYSTEMTIME& time)
{
    FILETIME ticks;
    if (!::SystemTimeToFileTime(&time, &ticks))
        return 0;
    return tavrin::CSystemTime::FT2ULL(ticks);
}

// The names that a path with wildcards in its last component stands for, in name order.
std::vector<ustring> Expand(const ustring& pattern)
{
    std::vector<ustring> paths;
    const std::size_t slash = pattern.find_last_of(L"\\/");
    const ustring folder = slash == std::wstring::npos ? ustring() : ustring(pattern.substr(0, slash + 1));
    WIN32_FIND_DATAW data;
    const HANDLE find = ::FindFirstFileW(tavrin::CFile::OptAddFileNamePrefix(pattern), &data);
    if (find == INVALID_HANDLE_VALUE)
        return paths;
    do
    {
        if ((data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) == 0)
            paths.push_back(folder + data.cFileName);
    } while (::FindNextFileW(find, &data));
    ::FindClose(find);
    std::sort(paths.begin(), paths.end(), tavrin::LessStr<1>());
    return paths;
}

} // namespace

// ---------------------------------------------------------------- sources

CLogSource::CLogSource(const ustring& path) : m_bHasNext(false), m_nNextSortTime(0)
{
    try
    {
        m_Reader.Open(path);
        ReadAhead();
    }
    catch (const tavrin::CStdException& e)
    {
        Fail(kExitFailure, L"cannot read \"%ls\": %ls", path.c_str(), DescribeException(e).c_str());
    }
    // Every session of the library's writer begins with a record header, so a file whose first
    // line is none is no data log (or not one of this library).
    if (m_bHasNext && m_Next.nKind == LogRecord::eDamaged && m_Next.nDeclaredKind == LogRecord::eDamaged &&
        !m_Next.bHasTime)
        Fail(kExitFailure, L"\"%ls\" is not a data log file (line 1 is no record header)", path.c_str());
    m_strChannel = m_Reader.GetChannelName();
    if (m_strChannel.empty())
    {
        ustring drive, folder, name, extension;
        tavrin::CFile::SplitPath(path, drive, folder, name, extension);
        m_strChannel = name;
    }
}

void CLogSource::ReadAhead()
{
    m_bHasNext = m_Reader.Read(m_Next);
    if (m_bHasNext && m_Next.bHasTime)
        m_nNextSortTime = Ticks(m_Next.time);
}

bool CLogSource::Next(LogRecord& record)
{
    if (!m_bHasNext)
        return false;
    std::swap(record, m_Next);
    try
    {
        ReadAhead();
    }
    catch (const tavrin::CStdException& e)
    {
        Fail(kExitFailure, L"cannot read \"%ls\": %ls", GetPath().c_str(), DescribeException(e).c_str());
    }
    return true;
}

std::vector<std::unique_ptr<CLogSource>> OpenSources(const CCommandLine& line)
{
    if (line.GetFiles().empty())
        Fail(kExitUsage, L"%ls: no data log file given", line.GetCommand().c_str());
    std::vector<std::unique_ptr<CLogSource>> sources;
    for (const ustring& file : line.GetFiles())
    {
        if (file.find_first_of(L"*?") == std::wstring::npos)
        {
            sources.emplace_back(new CLogSource(file));
            continue;
        }
        const std::vector<ustring> paths = Expand(file);
        if (paths.empty())
            Fail(kExitFailure, L"no file matches \"%ls\"", file.c_str());
        for (const ustring& path : paths)
            sources.emplace_back(new CLogSource(path));
    }
    return sources;
}

// ---------------------------------------------------------------- the stream

CRecordStream::CRecordStream(std::vector<std::unique_ptr<CLogSource>>& sources, bool merge)
    : m_Sources(sources), m_bMerge(merge), m_nCurrent(0)
{
}

bool CRecordStream::Next(LogRecord& record, std::size_t& source, bool& last)
{
    if (m_bMerge)
    {
        // The earliest head of all sources; on equal times the source named first. Records
        // without a time keep the place of the record before them in their own file.
        m_nCurrent = m_Sources.size();
        for (std::size_t i = 0; i < m_Sources.size(); ++i)
            if (m_Sources[i]->Peek() != nullptr &&
                (m_nCurrent == m_Sources.size() || m_Sources[i]->PeekSortTime() < m_Sources[m_nCurrent]->PeekSortTime()))
                m_nCurrent = i;
    }
    else
    {
        while (m_nCurrent < m_Sources.size() && m_Sources[m_nCurrent]->Peek() == nullptr)
            ++m_nCurrent;
    }
    if (m_nCurrent >= m_Sources.size())
        return false;
    source = m_nCurrent;
    m_Sources[m_nCurrent]->Next(record);
    last = m_Sources[m_nCurrent]->Peek() == nullptr;
    return true;
}

// ---------------------------------------------------------------- the filter

namespace {

enum EKindBit : unsigned int
{
    kBitText = 1u << LogRecord::eText,
    kBitWrite = 1u << LogRecord::eWrite,
    kBitRead = 1u << LogRecord::eRead,
    kBitError = 1u << LogRecord::eWriteError,
    kBitDamaged = 1u << LogRecord::eDamaged,
    kBitAll = 0x1F
};

bool ParseKinds(const ustring& list, unsigned int& kinds)
{
    static const struct
    {
        const wchar_t* pszName;
        unsigned int nBits;
    } names[] = {{L"sent", kBitWrite},         {L"write", kBitWrite},  {L"out", kBitWrite},
                 {L"received", kBitRead},      {L"read", kBitRead},    {L"in", kBitRead},
                 {L"data", kBitWrite | kBitRead}, {L"text", kBitText}, {L"event", kBitText},
                 {L"damaged", kBitDamaged | kBitError}, {L"error", kBitDamaged | kBitError}};
    std::vector<ustring> items;
    ustring::split(list, L',', items);
    kinds = 0;
    for (ustring item : items)
    {
        item.trim();
        bool known = false;
        for (const auto& name : names)
            if (item.compareNoCase(name.pszName) == 0)
            {
                kinds |= name.nBits;
                known = true;
            }
        if (!known)
            return false;
    }
    return kinds != 0;
}

// Digits into `value`; false unless there were exactly `count` of them (count 0: 1 to 4).
bool TakeNumber(const wchar_t*& p, unsigned int count, unsigned int& value)
{
    unsigned int digits = 0;
    value = 0;
    while (std::iswdigit(*p) && (count == 0 ? digits < 4 : digits < count))
    {
        value = value * 10 + static_cast<unsigned int>(*p++ - L'0');
        ++digits;
    }
    return count == 0 ? digits != 0 : digits == count;
}

// "hh:mm[:ss[.mmm]]" into milliseconds since midnight.
bool ParseTimeOfDay(const wchar_t*& p, unsigned __int64& ms)
{
    unsigned int hour = 0, minute = 0, second = 0, milli = 0;
    if (!TakeNumber(p, 0, hour) || *p++ != L':' || !TakeNumber(p, 2, minute))
        return false;
    if (*p == L':')
    {
        ++p;
        if (!TakeNumber(p, 2, second))
            return false;
        if (*p == L'.')
        {
            ++p;
            if (!TakeNumber(p, 3, milli))
                return false;
        }
    }
    if (hour > 23 || minute > 59 || second > 59)
        return false;
    ms = ((hour * 60ull + minute) * 60 + second) * 1000 + milli;
    return true;
}

unsigned __int64 TimeOfDay(const SYSTEMTIME& t)
{
    return ((t.wHour * 60ull + t.wMinute) * 60 + t.wSecond) * 1000 + t.wMilliseconds;
}

} // namespace

CRecordFilter::TimeBound CRecordFilter::ParseTime(const wchar_t* option, const ustring& text, bool upper)
{
    // "2024-03-07 09:05:01.123", "2024-03-07T09:05", "2024/3/7, 09:05:01.123" (as in the file),
    // "2024-03-07" (the whole day), or a time of day alone ("09:05"), which applies to every day.
    TimeBound bound = {true, false, 0};
    const wchar_t* p = text.c_str();
    while (*p == L' ')
        ++p;
    unsigned int year = 0, month = 0, day = 0;
    const wchar_t* start = p;
    if (TakeNumber(p, 4, year) && (*p == L'-' || *p == L'/'))
    {
        const wchar_t separator = *p++;
        unsigned __int64 ms = 0;
        bool ok = TakeNumber(p, 0, month) && *p++ == separator && TakeNumber(p, 0, day);
        bool wholeDay = true;
        if (ok && *p != 0)
        {
            if (*p == L'T' || *p == L' ')
                ++p;
            else if (*p == L',' && p[1] == L' ')
                p += 2;
            ok = ParseTimeOfDay(p, ms);
            wholeDay = false;
        }
        SYSTEMTIME t = {};
        t.wYear = static_cast<WORD>(year);
        t.wMonth = static_cast<WORD>(month);
        t.wDay = static_cast<WORD>(day);
        if (ok && *p == 0 && month >= 1 && month <= 12 && tavrin::CSystemTime::IsValid(t))
        {
            if (wholeDay && upper)
                ms = 86400000ull - 1;
            bound.nValue = Ticks(t) + ms * 10000;
            return bound;
        }
    }
    p = start;
    if (ParseTimeOfDay(p, bound.nValue) && *p == 0)
    {
        bound.bTimeOfDay = true;
        if (upper && text.find(L'.') == std::wstring::npos)
            bound.nValue += text.find(L':') != text.rfind(L':') ? 999 : 59999; // the whole second or minute
        return bound;
    }
    Fail(kExitUsage, L"option \"-%ls\": \"%ls\" is no time (2024-03-07 09:05:01.123, or 09:05)", option, text.c_str());
}

bool CRecordFilter::Matches(const TimeBound& bound, const SYSTEMTIME& time, bool upper)
{
    if (!bound.bSet)
        return true;
    const unsigned __int64 value = bound.bTimeOfDay ? TimeOfDay(time) : Ticks(time);
    return upper ? value <= bound.nValue : value >= bound.nValue;
}

CRecordFilter::CRecordFilter(const CCommandLine& line) : m_nKinds(kBitAll), m_bNoCase(line.Has(L"nocase"))
{
    m_From = TimeBound{false, false, 0};
    m_To = m_From;
    ustring value;
    if (line.Get(L"dir", value) && !ParseKinds(value, m_nKinds))
        Fail(kExitUsage, L"option \"-dir\": \"%ls\" names no kinds (sent, received, data, text, damaged)",
             value.c_str());
    if (line.Get(L"from", value))
        m_From = ParseTime(L"from", value, false);
    if (line.Get(L"to", value))
        m_To = ParseTime(L"to", value, true);
    line.Get(L"text", m_strText);
    if (m_bNoCase)
        m_strText.strlwr();
    if (line.Get(L"bytes", value))
    {
        ustring compact = value;
        compact.removeForbiddenSymbols(L" \t,");
        bool valid = !compact.empty() && compact.size() % 2 == 0;
        for (std::size_t i = 0; valid && i < compact.size(); i += 2)
        {
            const ustring pair(compact.substr(i, 2));
            std::vector<unsigned char> byte;
            if (pair == L"??")
                m_vecBytes.push_back(-1);
            else if ((valid = ustring::Hex2Bin(pair, byte) && byte.size() == 1))
                m_vecBytes.push_back(byte[0]);
        }
        if (!valid)
            Fail(kExitUsage, L"option \"-bytes\": \"%ls\" is no byte pattern (hexadecimal pairs, ?? for any byte)",
                 value.c_str());
    }
}

bool CRecordFilter::Accept(const LogRecord& record) const
{
    if ((m_nKinds & (1u << std::min<unsigned int>(record.nKind, LogRecord::eDamaged))) == 0)
        return false;
    if ((m_From.bSet || m_To.bSet) &&
        (!record.bHasTime || !Matches(m_From, record.time, false) || !Matches(m_To, record.time, true)))
        return false;
    if (!m_vecBytes.empty())
    {
        const auto equal = [](unsigned char byte, int wanted) { return wanted < 0 || byte == wanted; };
        if (std::search(record.data.begin(), record.data.end(), m_vecBytes.begin(), m_vecBytes.end(), equal) ==
            record.data.end())
            return false;
    }
    if (!m_strText.empty())
    {
        // The text of an event, of a damaged record and of the formatter, and the bytes as
        // characters (each byte one character, as a Latin-1 text).
        ustring haystack = record.text + L"\n" + record.formatted + L"\n";
        for (unsigned char byte : record.data)
            haystack += static_cast<wchar_t>(byte);
        if (m_bNoCase)
            haystack.strlwr();
        if (haystack.find(m_strText) == std::wstring::npos)
            return false;
    }
    return true;
}

} // namespace tavrinlog
