// Dates, durations and a millisecond stopwatch. All arithmetic runs on FILETIME ticks held as
// signed 64-bit numbers.
#include <tavrin/util/systemtime.h>
#include <tavrin/core/exception.h>
#include <tavrin/core/locale.h>

#include <cstdlib>
#include <cwchar>

namespace tavrin {

namespace {

const __int64 g_nTicksPerDay = 864000000000LL;
const __int64 g_nTicksPerMillisecond = 10000LL;
const __int64 g_nTicksPerSecond = 10000000LL;

// FILETIME ticks of a time, or a CWinException naming SystemTimeToFileTime.
__int64 ToTicks(const SYSTEMTIME& time)
{
    FILETIME fileTime;
    if (!::SystemTimeToFileTime(&time, &fileTime))
        throw CWinException(__LINE__, TAVRIN_WFILE, L"SystemTimeToFileTime", static_cast<long>(::GetLastError()));
    return static_cast<__int64>(CSystemTime::FT2ULL(fileTime));
}

// The time of a tick count, or a CWinException naming FileTimeToSystemTime. Negative counts are
// beyond the FILETIME range, which the system rejects.
CSystemTime FromTicks(__int64 ticks)
{
    return CSystemTime(CSystemTime::ULL2FT(static_cast<unsigned __int64>(ticks)));
}

// A tick count that no FILETIME can hold: arithmetic that overflowed reports the conversion
// that could not take its result.
[[noreturn]] void ThrowOutOfRange(unsigned int line)
{
    throw CWinException(line, TAVRIN_WFILE, L"FileTimeToSystemTime", ERROR_INVALID_PARAMETER);
}

// FILETIME ticks of 1970-01-01 00:00:00.000 UTC, the Unix epoch.
__int64 UnixEpochTicks()
{
    static const __int64 ticks = [] {
        SYSTEMTIME epoch = {1970, 1, 0, 1, 0, 0, 0, 0};
        return ToTicks(epoch);
    }();
    return ticks;
}

// The time `seconds` after the Unix epoch.
CSystemTime FromUnixSeconds(__int64 seconds)
{
    __int64 ticks = 0;
    if (__builtin_mul_overflow(seconds, g_nTicksPerSecond, &ticks) ||
        __builtin_add_overflow(ticks, UnixEpochTicks(), &ticks))
        ThrowOutOfRange(__LINE__);
    return FromTicks(ticks);
}

// Whole seconds since the Unix epoch (truncated toward zero), or -1 when the time lies before
// the epoch or cannot be converted at all.
__int64 ToUnixSeconds(const SYSTEMTIME& time)
{
    FILETIME fileTime;
    if (!::SystemTimeToFileTime(&time, &fileTime))
        return -1;
    __int64 seconds = (static_cast<__int64>(CSystemTime::FT2ULL(fileTime)) - UnixEpochTicks()) / g_nTicksPerSecond;
    return seconds < 0 ? -1 : seconds;
}

// Walks a percent pattern: ordinary characters are copied, "%[#]c" hands c and the flag to
// `convert`, which appends the conversion's text. A "%" (or "%#") at the very end converts a
// blank, which no converter knows, so it produces nothing.
template <class F>
ustring FormatPattern(const wchar_t* pattern, F convert)
{
    ustring result;
    if (!pattern)
        return result;
    for (const wchar_t* p = pattern; *p;)
    {
        if (*p != L'%')
        {
            result += *p++;
            continue;
        }
        ++p;
        bool alternate = *p == L'#';
        if (alternate)
            ++p;
        wchar_t conversion = *p ? *p : L' ';
        if (conversion == L'%')
            result += L'%';
        else
            convert(conversion, alternate, result);
        if (*p)
            ++p;
    }
    return result;
}

// GetDateFormatW or GetTimeFormatW of one time: the length first, then the text. False, with
// the system's error in `error`, when either call fails.
bool FormatDateOrTime(bool date, unsigned long lcid, unsigned long flags, const wchar_t* picture,
                      const SYSTEMTIME& time, ustring& out, DWORD& error)
{
    out.clear();
    auto call = [&](wchar_t* buffer, int size) {
        return date ? ::GetDateFormatW(lcid, flags, &time, picture, buffer, size)
                    : ::GetTimeFormatW(lcid, flags, &time, picture, buffer, size);
    };
    int length = call(nullptr, 0);
    if (length > 0)
    {
        out.resize(static_cast<unsigned int>(length));
        length = call(&out[0u], length);
    }
    if (length <= 0)
    {
        error = ::GetLastError();
        out.clear();
        return false;
    }
    out.resize(static_cast<unsigned int>(length - 1));
    return true;
}

ustring FormatDateOrTimeOrThrow(bool date, unsigned long lcid, unsigned long flags, const wchar_t* picture,
                                const SYSTEMTIME& time)
{
    ustring text;
    DWORD error = 0;
    if (!FormatDateOrTime(date, lcid, flags, picture, time, text, error))
        throw CWinException(__LINE__, TAVRIN_WFILE, date ? L"GetDateFormatW" : L"GetTimeFormatW",
                            static_cast<long>(error));
    return text;
}

} // namespace

// ------------------------------------------------------------------------------ CSystemTime

const CSystemTime::ELEMENT CSystemTime::m_aDateElements[4] = {
    {0, &SYSTEMTIME::wDay, {L"dddd", L"ddd", L"dd", L"d"}},
    {0, &SYSTEMTIME::wMonth, {L"MMMM", L"MMM", L"MM", L"M"}},
    {0, &SYSTEMTIME::wYear, {L"yyyy", L"yyy", L"yy", L"y"}},
    {DATE_USE_ALT_CALENDAR, nullptr, {L"gg", L"g", nullptr, nullptr}},
};

const CSystemTime::ELEMENT CSystemTime::m_aTimeElements[4] = {
    {0, &SYSTEMTIME::wHour, {L"HH", L"H", L"hh", L"h"}},
    {0, &SYSTEMTIME::wMinute, {L"mm", L"m", nullptr, nullptr}},
    {0, &SYSTEMTIME::wSecond, {L"ss", L"s", nullptr, nullptr}},
    {0, nullptr, {L"tt", L"t", nullptr, nullptr}},
};

CSystemTime::CSystemTime()
{
    Clear();
}

CSystemTime::CSystemTime(const long& unixSeconds)
{
    Clear();
    *this = unixSeconds;
}

CSystemTime::CSystemTime(const __int64& unixSeconds)
{
    Clear();
    *this = unixSeconds;
}

CSystemTime::CSystemTime(const double& variantDate)
{
    Clear();
    *this = variantDate;
}

CSystemTime::CSystemTime(const FILETIME& fileTime)
{
    Clear();
    *this = fileTime;
}

CSystemTime::CSystemTime(const SYSTEMTIME& systemTime)
{
    Clear();
    *this = systemTime;
}

CSystemTime::CSystemTime(const tm& time)
{
    Clear();
    *this = time;
}

CSystemTime::CSystemTime(unsigned short year, unsigned short month, unsigned short day, unsigned short hour,
                         unsigned short minute, unsigned short second, unsigned short milliseconds)
{
    Clear();
    wYear = year;
    wMonth = month;
    wDay = day;
    wHour = hour;
    wMinute = minute;
    wSecond = second;
    wMilliseconds = milliseconds;
    // The round trip fills in the day of the week and rejects impossible dates.
    *this = static_cast<FILETIME>(*this);
}

CSystemTime& CSystemTime::operator=(const long& unixSeconds)
{
    return *this = FromUnixSeconds(unixSeconds);
}

CSystemTime& CSystemTime::operator=(const __int64& unixSeconds)
{
    return *this = FromUnixSeconds(unixSeconds);
}

CSystemTime& CSystemTime::operator=(const double& variantDate)
{
    SYSTEMTIME time;
    // The system sets no error code for a date it cannot convert.
    if (!::VariantTimeToSystemTime(variantDate, &time))
        throw CWinException(__LINE__, TAVRIN_WFILE, L"VariantTimeToSystemTime", ERROR_INVALID_PARAMETER);
    return *this = time;
}

CSystemTime& CSystemTime::operator=(const FILETIME& fileTime)
{
    SYSTEMTIME time;
    if (!::FileTimeToSystemTime(&fileTime, &time))
        throw CWinException(__LINE__, TAVRIN_WFILE, L"FileTimeToSystemTime", static_cast<long>(::GetLastError()));
    return *this = time;
}

CSystemTime& CSystemTime::operator=(const SYSTEMTIME& systemTime)
{
    static_cast<SYSTEMTIME&>(*this) = systemTime;
    return *this;
}

CSystemTime& CSystemTime::operator=(const tm& time)
{
    wYear = static_cast<WORD>(time.tm_year + 1900);
    wMonth = static_cast<WORD>(time.tm_mon + 1);
    wDayOfWeek = static_cast<WORD>(time.tm_wday);
    wDay = static_cast<WORD>(time.tm_mday);
    wHour = static_cast<WORD>(time.tm_hour);
    wMinute = static_cast<WORD>(time.tm_min);
    wSecond = static_cast<WORD>(time.tm_sec);
    wMilliseconds = 0;
    return *this;
}

CSystemTime::operator FILETIME() const
{
    return ULL2FT(static_cast<unsigned __int64>(ToTicks(*this)));
}

CSystemTime::operator double() const
{
    SYSTEMTIME time = *this;
    double variantDate = 0.0;
    if (!::SystemTimeToVariantTime(&time, &variantDate))
        throw CWinException(__LINE__, TAVRIN_WFILE, L"SystemTimeToVariantTime", ERROR_INVALID_PARAMETER);
    return variantDate;
}

CSystemTime::operator long() const
{
    __int64 seconds = ToUnixSeconds(*this);
    return seconds > 0x7FFFFFFFLL ? -1L : static_cast<long>(seconds);
}

CSystemTime::operator __int64() const
{
    return ToUnixSeconds(*this);
}

CSystemTime::operator tm() const
{
    tm result = {};
    result.tm_sec = wSecond;
    result.tm_min = wMinute;
    result.tm_hour = wHour;
    result.tm_mday = wDay;
    result.tm_mon = wMonth - 1;
    result.tm_year = wYear - 1900;
    result.tm_wday = wDayOfWeek;
    result.tm_isdst = -1;
    result.tm_yday = GetDayOfYear();
    return result;
}

int CSystemTime::GetDayOfYear() const
{
    // Noon of the day keeps the quotient clear of a day boundary.
    SYSTEMTIME noon = {wYear, wMonth, 0, wDay, 12, 0, 0, 0};
    SYSTEMTIME newYear = {wYear, 1, 0, 1, 0, 0, 0, 0};
    return static_cast<int>((ToTicks(noon) - ToTicks(newYear)) / g_nTicksPerDay);
}

LARGE_INTEGER CSystemTime::FT2LI(const FILETIME& fileTime)
{
    LARGE_INTEGER result;
    result.LowPart = fileTime.dwLowDateTime;
    result.HighPart = static_cast<LONG>(fileTime.dwHighDateTime);
    return result;
}

unsigned __int64 CSystemTime::FT2ULL(const FILETIME& fileTime)
{
    return (static_cast<unsigned __int64>(fileTime.dwHighDateTime) << 32) | fileTime.dwLowDateTime;
}

FILETIME CSystemTime::ULL2FT(unsigned __int64 ticks)
{
    FILETIME result;
    result.dwLowDateTime = static_cast<DWORD>(ticks & 0xFFFFFFFFu);
    result.dwHighDateTime = static_cast<DWORD>(ticks >> 32);
    return result;
}

CSystemTime CSystemTime::GetLocalTime()
{
    SYSTEMTIME time;
    ::GetLocalTime(&time);
    return CSystemTime(time);
}

CSystemTime CSystemTime::GetSystemTime()
{
    SYSTEMTIME time;
    ::GetSystemTime(&time);
    return CSystemTime(time);
}

bool CSystemTime::IsValid(const SYSTEMTIME& systemTime)
{
    FILETIME fileTime;
    return ::SystemTimeToFileTime(&systemTime, &fileTime) != FALSE;
}

void CSystemTime::Clear()
{
    static_cast<SYSTEMTIME&>(*this) = SYSTEMTIME();
}

bool CSystemTime::IsNull() const
{
    return Compare(CSystemTime()) == 0;
}

bool CSystemTime::IsValid() const
{
    return IsValid(*this);
}

int CSystemTime::Compare(const SYSTEMTIME& other) const
{
    if (wYear != 0 && other.wYear != 0)
    {
        FILETIME mine = *this;
        FILETIME theirs = CSystemTime(other);
        return static_cast<int>(::CompareFileTime(&mine, &theirs));
    }
    if (wYear == 0)
        return other.wYear == 0 ? 0 : -1;
    return 1;
}

CSystemTime CSystemTime::operator+(const CSystemTimeSpan& span) const
{
    __int64 ticks = 0;
    if (__builtin_mul_overflow(span.GetTimeSpan(), g_nTicksPerMillisecond, &ticks) ||
        __builtin_add_overflow(ticks, ToTicks(*this), &ticks))
        ThrowOutOfRange(__LINE__);
    return FromTicks(ticks);
}

CSystemTime CSystemTime::operator-(const CSystemTimeSpan& span) const
{
    __int64 ticks = 0;
    if (__builtin_mul_overflow(span.GetTimeSpan(), g_nTicksPerMillisecond, &ticks) ||
        __builtin_sub_overflow(ToTicks(*this), ticks, &ticks))
        ThrowOutOfRange(__LINE__);
    return FromTicks(ticks);
}

CSystemTime& CSystemTime::operator+=(const CSystemTimeSpan& span)
{
    return *this = *this + span;
}

CSystemTime& CSystemTime::operator-=(const CSystemTimeSpan& span)
{
    return *this = *this - span;
}

CSystemTimeSpan CSystemTime::operator-(const CSystemTime& other) const
{
    return CSystemTimeSpan((ToTicks(*this) - ToTicks(other)) / g_nTicksPerMillisecond);
}

CSystemTime CSystemTime::UTCToLocal() const
{
    FILETIME utc = *this, local;
    if (!::FileTimeToLocalFileTime(&utc, &local))
        throw CWinException(__LINE__, TAVRIN_WFILE, L"FileTimeToLocalFileTime", static_cast<long>(::GetLastError()));
    return CSystemTime(local);
}

CSystemTime CSystemTime::UTCToLocal(const TIME_ZONE_INFORMATION& zone) const
{
    SYSTEMTIME local;
    if (!::SystemTimeToTzSpecificLocalTime(&zone, this, &local))
        throw CWinException(__LINE__, TAVRIN_WFILE, L"SystemTimeToTzSpecificLocalTime",
                            static_cast<long>(::GetLastError()));
    return CSystemTime(local);
}

CSystemTime CSystemTime::LocalToUTC() const
{
    FILETIME local = *this, utc;
    if (!::LocalFileTimeToFileTime(&local, &utc))
        throw CWinException(__LINE__, TAVRIN_WFILE, L"LocalFileTimeToFileTime", static_cast<long>(::GetLastError()));
    return CSystemTime(utc);
}

CSystemTime CSystemTime::LocalToUTC(const TIME_ZONE_INFORMATION& zone) const
{
    SYSTEMTIME utc;
    if (!::TzSpecificLocalTimeToSystemTime(&zone, this, &utc))
        throw CWinException(__LINE__, TAVRIN_WFILE, L"TzSpecificLocalTimeToSystemTime",
                            static_cast<long>(::GetLastError()));
    return CSystemTime(utc);
}

unsigned long CSystemTime::GetTimeZoneInformation(TIME_ZONE_INFORMATION& zone)
{
    DWORD result = ::GetTimeZoneInformation(&zone);
    if (result == TIME_ZONE_ID_INVALID)
        throw CWinException(__LINE__, TAVRIN_WFILE, L"GetTimeZoneInformation", static_cast<long>(::GetLastError()));
    return result;
}

void CSystemTime::SetTimeZoneInformation(const TIME_ZONE_INFORMATION& zone)
{
    if (!::SetTimeZoneInformation(&zone))
        throw CWinException(__LINE__, TAVRIN_WFILE, L"SetTimeZoneInformation", static_cast<long>(::GetLastError()));
}

ustring CSystemTime::GetDateFormatW(unsigned long lcid, unsigned long flags, const wchar_t* picture) const
{
    return FormatDateOrTimeOrThrow(true, lcid, flags, picture, *this);
}

ustring CSystemTime::GetTimeFormatW(unsigned long lcid, unsigned long flags, const wchar_t* picture) const
{
    return FormatDateOrTimeOrThrow(false, lcid, flags, picture, *this);
}

bool CSystemTime::GetDateFormatW(unsigned long lcid, unsigned long flags, const wchar_t* picture, ustring& out) const
{
    DWORD error = 0;
    return FormatDateOrTime(true, lcid, flags, picture, *this, out, error);
}

bool CSystemTime::GetTimeFormatW(unsigned long lcid, unsigned long flags, const wchar_t* picture, ustring& out) const
{
    DWORD error = 0;
    return FormatDateOrTime(false, lcid, flags, picture, *this, out, error);
}

ustring CSystemTime::GetDateFormatSafe(unsigned long lcid, unsigned long flags) const
{
    return CustomStringFormat(lcid, (flags & DATE_LONGDATE) ? LOCALE_SLONGDATE : LOCALE_SSHORTDATE, true,
                              m_aDateElements, 4);
}

ustring CSystemTime::GetTimeFormatSafe(unsigned long lcid) const
{
    return CustomStringFormat(lcid, LOCALE_STIMEFORMAT, false, m_aTimeElements, 4);
}

ustring CSystemTime::CustomStringFormat(unsigned long lcid, unsigned long pictureItem, bool date,
                                        const ELEMENT* elements, unsigned int elementCount) const
{
    ustring result;
    ustring picture;
    if (!CLocale::GetLocaleInfoW(lcid, pictureItem, picture))
        return result;
    ustring piece;
    while (!picture.empty())
    {
        bool matched = false;
        for (unsigned int e = 0; e < elementCount && !matched; ++e)
        {
            const ELEMENT& element = elements[e];
            for (const wchar_t* token : element.aTokens)
            {
                if (!token)
                    break;
                size_t length = std::wcslen(token);
                if (picture.size() < length || std::wmemcmp(picture.data(), token, length) != 0)
                    continue;
                DWORD error = 0;
                if (!FormatDateOrTime(date, lcid, element.nFlags, token, *this, piece, error) && element.pField)
                    piece.sprintf(length == 1 ? L"%u" : L"%02u", static_cast<unsigned int>(this->*element.pField));
                picture.erase(0, length);
                result += piece;
                matched = true;
                break;
            }
        }
        if (!matched)
        {
            result += picture[0u];
            picture.erase(0, 1);
        }
    }
    return result;
}

ustring CSystemTime::Format(unsigned long lcid, const wchar_t* pattern) const
{
    auto date = [&](unsigned long flags, const wchar_t* picture) {
        return FormatDateOrTimeOrThrow(true, lcid, flags, picture, *this);
    };
    auto time = [&](const wchar_t* picture) { return FormatDateOrTimeOrThrow(false, lcid, 0, picture, *this); };
    // Week of the year: the days before the first Sunday (Monday) are week 0.
    auto week = [&](int firstDayShift) {
        int newYearDayOfWeek = static_cast<tm>(CSystemTime(wYear, 1, 1)).tm_wday;
        return (GetDayOfYear() + ((newYearDayOfWeek + firstDayShift) % 7) + 1) / 7;
    };
    return FormatPattern(pattern, [&](wchar_t conversion, bool alternate, ustring& out) {
        switch (conversion)
        {
        case L'a': out += date(0, L"ddd"); break;
        case L'A': out += date(0, L"dddd"); break;
        case L'b': out += date(0, L"MMM"); break;
        case L'B': out += date(0, L"MMMM"); break;
        case L'c':
            out += date(alternate ? DATE_LONGDATE : DATE_SHORTDATE, nullptr);
            out += L' ';
            out += time(nullptr);
            break;
        case L'd': out += date(0, alternate ? L"d" : L"dd"); break;
        case L'f': out += ustring().sprintf(L"%03u", static_cast<unsigned int>(wMilliseconds)); break;
        case L'H': out += time(alternate ? L"H" : L"HH"); break;
        case L'I': out += time(alternate ? L"h" : L"hh"); break;
        case L'j': out += ustring().sprintf(alternate ? L"%d" : L"%03d", GetDayOfYear() + 1); break;
        case L'm': out += date(0, alternate ? L"M" : L"MM"); break;
        case L'M': out += time(alternate ? L"m" : L"mm"); break;
        case L'p': out += time(L"tt"); break;
        case L'S': out += time(alternate ? L"s" : L"ss"); break;
        case L'U': out += ustring().sprintf(alternate ? L"%d" : L"%02d", week(6)); break;
        case L'w': out += ustring().sprintf(L"%d", static_cast<int>(wDayOfWeek)); break;
        case L'W': out += ustring().sprintf(alternate ? L"%d" : L"%02d", week(5)); break;
        case L'x': out += date(alternate ? DATE_LONGDATE : DATE_SHORTDATE, nullptr); break;
        case L'X': out += time(nullptr); break;
        case L'y': out += date(0, alternate ? L"y" : L"yy"); break;
        case L'Y': out += date(0, L"yyyy"); break;
        case L'z':
        case L'Z':
        {
            TIME_ZONE_INFORMATION zone = {};
            out += GetTimeZoneInformation(zone) == TIME_ZONE_ID_DAYLIGHT ? zone.DaylightName : zone.StandardName;
            break;
        }
        default: break;
        }
    });
}

// -------------------------------------------------------------------------- CSystemTimeSpan

CSystemTimeSpan::CSystemTimeSpan(const CSystemTime& a, const CSystemTime& b) : m_nTimeSpan((a - b).GetTimeSpan())
{
}

CSystemTimeSpan::CSystemTimeSpan(unsigned short days, unsigned short hours, unsigned short minutes,
                                 unsigned short seconds, unsigned short milliseconds, bool negative)
{
    __int64 total = ((((static_cast<__int64>(days) * 24 + hours) * 60 + minutes) * 60 + seconds) * 1000) + milliseconds;
    m_nTimeSpan = negative ? -total : total;
}

unsigned __int64 CSystemTimeSpan::Abs() const
{
    // Two's-complement negation in unsigned arithmetic, so the most negative count works too.
    return m_nTimeSpan < 0 ? 0u - static_cast<unsigned __int64>(m_nTimeSpan) : static_cast<unsigned __int64>(m_nTimeSpan);
}

unsigned short CSystemTimeSpan::GetDays() const
{
    return static_cast<unsigned short>(Abs() / 86400000u);
}

unsigned short CSystemTimeSpan::GetHours() const
{
    return static_cast<unsigned short>((Abs() / 3600000u) % 24u);
}

unsigned short CSystemTimeSpan::GetMinutes() const
{
    return static_cast<unsigned short>((Abs() / 60000u) % 60u);
}

unsigned short CSystemTimeSpan::GetSeconds() const
{
    return static_cast<unsigned short>((Abs() / 1000u) % 60u);
}

unsigned short CSystemTimeSpan::GetMilliseconds() const
{
    return static_cast<unsigned short>(Abs() % 1000u);
}

ustring CSystemTimeSpan::Format(const wchar_t* pattern) const
{
    return FormatPattern(pattern, [&](wchar_t conversion, bool alternate, ustring& out) {
        ustring piece;
        switch (conversion)
        {
        case L'D': piece.sprintf(L"%d", static_cast<int>(GetDays())); break;
        case L'H': piece.sprintf(alternate ? L"%d" : L"%02d", static_cast<int>(GetHours())); break;
        case L'M': piece.sprintf(alternate ? L"%d" : L"%02d", static_cast<int>(GetMinutes())); break;
        case L'S': piece.sprintf(alternate ? L"%d" : L"%02d", static_cast<int>(GetSeconds())); break;
        case L'm': piece.sprintf(alternate ? L"%d" : L"%03d", static_cast<int>(GetMilliseconds())); break;
        case L's': piece.sprintf(L"%ls", GetSign() ? L"-" : (alternate ? L"+" : L"")); break;
        default: break;
        }
        out += piece;
    });
}

ustring CSystemTimeSpan::FormatConsole(bool withMilliseconds) const
{
    ustring result = Format(GetDays() != 0 ? L"%D.%H:%M:%S" : L"%H:%M:%S");
    if (withMilliseconds)
    {
        result += CLocale(LOCALE_USER_DEFAULT).DecimalPoint();
        result += ustring().sprintf(L"%03d", static_cast<int>(GetMilliseconds()));
    }
    return result;
}

ustring CSystemTimeSpan::FormatTestRail(bool withMilliseconds) const
{
    ustring result;
    if (withMilliseconds)
        result.sprintf(L"%u.%03us", static_cast<unsigned int>(GetSeconds()), static_cast<unsigned int>(GetMilliseconds()));
    else
        result.sprintf(L"%us", static_cast<unsigned int>(GetSeconds()));
    if (GetMinutes() != 0)
        result = ustring().sprintf(L"%um ", static_cast<unsigned int>(GetMinutes())) + result;
    if (GetHours() != 0)
        result = ustring().sprintf(L"%uh ", static_cast<unsigned int>(GetHours())) + result;
    if (GetDays() != 0)
        result = ustring().sprintf(L"%ud ", static_cast<unsigned int>(GetDays())) + result;
    return result;
}

// ------------------------------------------------------------------------------- CStopWatch

CStopWatch::CStopWatch(EResetType type) : m_nStart(0)
{
    Reset(type);
}

void CStopWatch::Reset(EResetType type)
{
    m_nStart = type == ResetToZero ? 0u : m_Kernel32.GetTickCount64();
}

CSystemTimeSpan CStopWatch::GetElapsedTime() const
{
    __int64 elapsed = static_cast<__int64>(m_Kernel32.GetTickCount64() - m_nStart);
    // Only the 32-bit fallback counter can run backwards, when it wrapped since the start.
    if (elapsed < 0)
        elapsed += 4294967295LL;
    return CSystemTimeSpan(elapsed);
}

} // namespace tavrin
