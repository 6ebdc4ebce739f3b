// Dates, durations and a millisecond stopwatch.
//
// CSystemTime is a SYSTEMTIME that converts between the Windows representations (FILETIME,
// VARIANT date, C tm, Unix seconds) and formats itself through the locale. CSystemTimeSpan is a
// signed count of milliseconds. All arithmetic runs on FILETIME ticks (100 ns since 1601-01-01).
//
//     CSystemTime start(2024, 2, 28, 23, 0, 0, 0);
//     CSystemTime end = start + CSystemTimeSpan(1, 2, 0, 0, 0, false); // 2024-03-01 01:00
//     ustring text = end.Format(0x409, L"%Y-%m-%d %H:%M:%S.%f, week %W");
//     (end - start).FormatTestRail(false);                               // "1d 2h 0s"
//
// Conversions that the system refuses throw CWinException naming the Windows function.
#pragma once

#include <tavrin/core/config.h>
#include <tavrin/core/library.h>
#include <tavrin/core/ustring.h>

#include <ctime>

namespace tavrin {

class CSystemTimeSpan;

class TAVRIN_API CSystemTime : public SYSTEMTIME
{
public:
    // The null time: all eight fields zero.
    CSystemTime();
    // Unix seconds (32 or 64 bit) since 1970-01-01 00:00:00 UTC.
    explicit CSystemTime(const long& unixSeconds);
    explicit CSystemTime(const __int64& unixSeconds);
    // A VARIANT (OLE automation) date.
    explicit CSystemTime(const double& variantDate);
    CSystemTime(const FILETIME& fileTime);
    // The fields as they are, without validation.
    CSystemTime(const SYSTEMTIME& systemTime);
    // Date and time fields of the tm; milliseconds 0.
    CSystemTime(const tm& time);
    // Normalised through FILETIME, which fills in the day of the week; an impossible date throws
    // (function "SystemTimeToFileTime").
    CSystemTime(unsigned short year, unsigned short month, unsigned short day, unsigned short hour = 0,
                unsigned short minute = 0, unsigned short second = 0, unsigned short milliseconds = 0);

    CSystemTime& operator=(const long& unixSeconds);
    CSystemTime& operator=(const __int64& unixSeconds);
    CSystemTime& operator=(const double& variantDate);
    CSystemTime& operator=(const FILETIME& fileTime);
    CSystemTime& operator=(const SYSTEMTIME& systemTime);
    CSystemTime& operator=(const tm& time);

    // Conversions out. long/__int64: Unix seconds, -1 when the time lies before 1970 (or, for
    // long, beyond 2038-01-19 03:14:07).
    operator FILETIME() const;
    operator double() const;
    operator long() const;
    operator __int64() const;
    // tm_isdst is -1; tm_yday is the day of the year counted from 0.
    operator tm() const;

    static LARGE_INTEGER FT2LI(const FILETIME& fileTime);
    static unsigned __int64 FT2ULL(const FILETIME& fileTime);
    static FILETIME ULL2FT(unsigned __int64 ticks);
    // The system's current local / UTC time.
    static CSystemTime GetLocalTime();
    static CSystemTime GetSystemTime();
    // Whether SystemTimeToFileTime accepts the time.
    static bool IsValid(const SYSTEMTIME& systemTime);

    void Clear();
    // The year is zero (a null time compares equal to any other time with year zero).
    bool IsNull() const;
    bool IsValid() const;

    // -1, 0 or 1. Times with a zero year sort before all others and are equal among themselves;
    // an impossible date with a non-zero year throws (function "SystemTimeToFileTime").
    int Compare(const SYSTEMTIME& other) const;
    bool operator==(const SYSTEMTIME& other) const { return Compare(other) == 0; }
    bool operator!=(const SYSTEMTIME& other) const { return Compare(other) != 0; }
    bool operator<(const SYSTEMTIME& other) const { return Compare(other) < 0; }
    bool operator<=(const SYSTEMTIME& other) const { return Compare(other) <= 0; }
    bool operator>(const SYSTEMTIME& other) const { return Compare(other) > 0; }
    bool operator>=(const SYSTEMTIME& other) const { return Compare(other) >= 0; }

    CSystemTime operator+(const CSystemTimeSpan& span) const;
    CSystemTime operator-(const CSystemTimeSpan& span) const;
    CSystemTime& operator+=(const CSystemTimeSpan& span);
    CSystemTime& operator-=(const CSystemTimeSpan& span);
    // This minus `other` in milliseconds, truncated toward zero.
    CSystemTimeSpan operator-(const CSystemTime& other) const;

    // New times in another zone; this one is left unchanged. The forms without a zone use the
    // system's current setting.
    CSystemTime UTCToLocal() const;
    CSystemTime UTCToLocal(const TIME_ZONE_INFORMATION& zone) const;
    CSystemTime LocalToUTC() const;
    CSystemTime LocalToUTC(const TIME_ZONE_INFORMATION& zone) const;
    // TIME_ZONE_ID_UNKNOWN (0), _STANDARD (1) or _DAYLIGHT (2).
    static unsigned long GetTimeZoneInformation(TIME_ZONE_INFORMATION& zone);
    static void SetTimeZoneInformation(const TIME_ZONE_INFORMATION& zone);

    // The system's date / time text for the locale, with the DATE_* / TIME_* flags or a picture
    // such as "dd.MM.yyyy" (null for the locale's default). The ustring& forms return false
    // instead of throwing.
    ustring GetDateFormatW(unsigned long lcid = LOCALE_USER_DEFAULT, unsigned long flags = 0,
                           const wchar_t* picture = nullptr) const;
    ustring GetTimeFormatW(unsigned long lcid = LOCALE_USER_DEFAULT, unsigned long flags = 0,
                           const wchar_t* picture = nullptr) const;
    bool GetDateFormatW(unsigned long lcid, unsigned long flags, const wchar_t* picture, ustring& out) const;
    bool GetTimeFormatW(unsigned long lcid, unsigned long flags, const wchar_t* picture, ustring& out) const;

    // The locale's short (or, with DATE_LONGDATE, long) date / its time, built element by element
    // so that an element the system refuses falls back to its number instead of failing the
    // whole text. Empty when the locale's picture cannot be read. Never throws for a refused
    // element.
    ustring GetDateFormatSafe(unsigned long lcid = LOCALE_USER_DEFAULT, unsigned long flags = 0) const;
    ustring GetTimeFormatSafe(unsigned long lcid = LOCALE_USER_DEFAULT) const;

    // strftime-like pattern: %a %A %b %B %c %d %f (milliseconds) %H %I %j %m %M %p %S %U %w %W %x
    // %X %y %Y %z %Z %%; "%#" drops leading zeros (or picks the long date for %c and %x).
    // Unknown conversions give nothing. Throws what GetDateFormatW/GetTimeFormatW throw.
    ustring Format(unsigned long lcid, const wchar_t* pattern) const;

private:
    // One element of a locale picture ("dd", "MMMM", "tt", ...), see GetDateFormatSafe.
    struct ELEMENT
    {
        unsigned long nFlags;
        const WORD SYSTEMTIME::*pField; // null when the element has no number to fall back to
        const wchar_t* aTokens[4];
    };

    ustring CustomStringFormat(unsigned long lcid, unsigned long pictureItem, bool date, const ELEMENT* elements,
                               unsigned int elementCount) const;
    // 0-based day of the year (noon of this date minus midnight of January 1, in whole days).
    int GetDayOfYear() const;

    static const ELEMENT m_aDateElements[4];
    static const ELEMENT m_aTimeElements[4];
};

class TAVRIN_API CSystemTimeSpan
{
public:
    CSystemTimeSpan() : m_nTimeSpan(0) {}
    explicit CSystemTimeSpan(__int64 milliseconds) : m_nTimeSpan(milliseconds) {}
    // a - b.
    CSystemTimeSpan(const CSystemTime& a, const CSystemTime& b);
    // Components above their usual range simply add up.
    CSystemTimeSpan(unsigned short days, unsigned short hours, unsigned short minutes, unsigned short seconds,
                    unsigned short milliseconds, bool negative);

    __int64 GetTimeSpan() const { return m_nTimeSpan; }
    void SetTimeSpan(__int64 milliseconds) { m_nTimeSpan = milliseconds; }

    // Components of the absolute value; days beyond 65535 wrap.
    unsigned short GetDays() const;
    unsigned short GetHours() const;
    unsigned short GetMinutes() const;
    unsigned short GetSeconds() const;
    unsigned short GetMilliseconds() const;
    // True when the span is negative.
    bool GetSign() const { return m_nTimeSpan < 0; }

    CSystemTimeSpan operator+(const CSystemTimeSpan& other) const { return CSystemTimeSpan(m_nTimeSpan + other.m_nTimeSpan); }
    CSystemTimeSpan operator-(const CSystemTimeSpan& other) const { return CSystemTimeSpan(m_nTimeSpan - other.m_nTimeSpan); }
    CSystemTimeSpan& operator+=(const CSystemTimeSpan& other) { m_nTimeSpan += other.m_nTimeSpan; return *this; }
    CSystemTimeSpan& operator-=(const CSystemTimeSpan& other) { m_nTimeSpan -= other.m_nTimeSpan; return *this; }
    bool operator==(const CSystemTimeSpan& other) const { return m_nTimeSpan == other.m_nTimeSpan; }
    bool operator!=(const CSystemTimeSpan& other) const { return m_nTimeSpan != other.m_nTimeSpan; }
    bool operator<(const CSystemTimeSpan& other) const { return m_nTimeSpan < other.m_nTimeSpan; }
    bool operator<=(const CSystemTimeSpan& other) const { return m_nTimeSpan <= other.m_nTimeSpan; }
    bool operator>(const CSystemTimeSpan& other) const { return m_nTimeSpan > other.m_nTimeSpan; }
    bool operator>=(const CSystemTimeSpan& other) const { return m_nTimeSpan >= other.m_nTimeSpan; }

    // Pattern: %D days, %H hours, %M minutes, %S seconds, %m milliseconds (zero-padded; "%#"
    // without padding), %s the sign ("-" or empty; "%#s" "-" or "+"), %%.
    ustring Format(const wchar_t* pattern) const;
    // "[D.]HH:MM:SS", with the user's decimal point and three digits of milliseconds when asked.
    // The sign is not shown.
    ustring FormatConsole(bool withMilliseconds) const;
    // "1d 2h 3m 4s" (or "4.005s"); zero components before the seconds are left out. The sign is
    // not shown.
    ustring FormatTestRail(bool withMilliseconds) const;

private:
    unsigned __int64 Abs() const;

    __int64 m_nTimeSpan;
};

class TAVRIN_API CStopWatch
{
public:
    enum EResetType
    {
        ResetToZero = 0, // the start is tick 0: elapsed time is the time since system start
        ResetToNow = 1   // the start is now
    };

    explicit CStopWatch(EResetType type = ResetToNow);

    void Reset(EResetType type = ResetToNow);
    bool IsZero() const { return m_nStart == 0; }
    CSystemTimeSpan GetElapsedTime() const;

private:
    unsigned __int64 m_nStart;
    CKernel32 m_Kernel32;
};

} // namespace tavrin
