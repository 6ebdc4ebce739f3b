// Dates, spans and the stopwatch. Locale-dependent checks pass explicit locale identifiers
// (0x409 English - United States, 0x407 German - Germany) instead of the machine's.
#include <tavrin/util/systemtime.h>
#include <tavrin/core/exception.h>
#include <tavrin/core/library.h>
#include <tavrin/core/locale.h>

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <functional>

using namespace tavrin;

namespace {

const unsigned long g_nEnglish = 0x409;
const unsigned long g_nGerman = 0x407;

// Runs `action` and checks that it throws CWinException naming `function` with `code`.
void ExpectWinException(const std::function<void()>& action, const wchar_t* function, long code)
{
    try
    {
        action();
        ADD_FAILURE() << "no exception";
    }
    catch (const CWinException& e)
    {
        EXPECT_EQ(ustring(function), e.GetFunction());
        EXPECT_EQ(code, e.GetErrorCode());
    }
}

void ExpectFields(const SYSTEMTIME& t, int year, int month, int dayOfWeek, int day, int hour, int minute, int second,
                  int milliseconds)
{
    EXPECT_EQ(year, t.wYear);
    EXPECT_EQ(month, t.wMonth);
    EXPECT_EQ(dayOfWeek, t.wDayOfWeek);
    EXPECT_EQ(day, t.wDay);
    EXPECT_EQ(hour, t.wHour);
    EXPECT_EQ(minute, t.wMinute);
    EXPECT_EQ(second, t.wSecond);
    EXPECT_EQ(milliseconds, t.wMilliseconds);
}

// Tuesday, 2024-03-05 13:04:05.007.
CSystemTime Sample()
{
    return CSystemTime(2024, 3, 5, 13, 4, 5, 7);
}

} // namespace

TEST(SystemTime, UnixSecondsBothWays)
{
    CSystemTime epoch(1970, 1, 1, 0, 0, 0, 0);
    EXPECT_EQ(4, epoch.wDayOfWeek); // Thursday, filled in by the normalisation
    EXPECT_EQ(0L, static_cast<long>(epoch));
    EXPECT_EQ(0LL, static_cast<__int64>(epoch));

    CSystemTime before(1969, 12, 31, 23, 59, 59, 0);
    EXPECT_EQ(-1L, static_cast<long>(before));
    EXPECT_EQ(-1LL, static_cast<__int64>(before));
    // Half a second before the epoch truncates toward zero, so it is not negative.
    EXPECT_EQ(0L, static_cast<long>(CSystemTime(1969, 12, 31, 23, 59, 59, 500)));

    EXPECT_EQ(2147483647L, static_cast<long>(CSystemTime(2038, 1, 19, 3, 14, 7)));
    EXPECT_EQ(-1L, static_cast<long>(CSystemTime(2038, 1, 19, 3, 14, 8)));
    EXPECT_EQ(2147483648LL, static_cast<__int64>(CSystemTime(2038, 1, 19, 3, 14, 8)));
    EXPECT_EQ(1709643845LL, static_cast<__int64>(Sample()));
    // A time the system cannot convert reports -1 instead of throwing.
    EXPECT_EQ(-1L, static_cast<long>(CSystemTime()));
    EXPECT_EQ(-1LL, static_cast<__int64>(CSystemTime()));

    ExpectFields(CSystemTime(0L), 1970, 1, 4, 1, 0, 0, 0, 0);
    ExpectFields(CSystemTime(-1L), 1969, 12, 3, 31, 23, 59, 59, 0);
    ExpectFields(CSystemTime(2147483647L), 2038, 1, 2, 19, 3, 14, 7, 0);
    ExpectFields(CSystemTime(static_cast<__int64>(4102444800LL)), 2100, 1, 5, 1, 0, 0, 0, 0);
    ExpectFields(CSystemTime(static_cast<__int64>(-11644473600LL)), 1601, 1, 1, 1, 0, 0, 0, 0);

    CSystemTime assigned = Sample();
    assigned = 86400L;
    ExpectFields(assigned, 1970, 1, 5, 2, 0, 0, 0, 0);
    assigned = static_cast<__int64>(1709643845LL);
    EXPECT_EQ(CSystemTime(2024, 3, 5, 13, 4, 5), assigned);

    // Before 1601 and beyond any FILETIME: the conversion fails, the target keeps its value.
    ExpectWinException([&] { assigned = static_cast<__int64>(-11644473601LL); }, L"FileTimeToSystemTime", 87);
    ExpectWinException([&] { assigned = static_cast<__int64>(LLONG_MAX); }, L"FileTimeToSystemTime", 87);
    ExpectWinException([] { CSystemTime t(static_cast<__int64>(LLONG_MIN)); }, L"FileTimeToSystemTime", 87);
    EXPECT_EQ(1709643845LL, static_cast<__int64>(assigned));
}

TEST(SystemTime, VariantFileTimeAndSystemTime)
{
    // VARIANT day 2 is 1900-01-01; the fraction is the time of day.
    ExpectFields(CSystemTime(2.5), 1900, 1, 1, 1, 12, 0, 0, 0);
    ExpectFields(CSystemTime(45356.75), 2024, 3, 2, 5, 18, 0, 0, 0);
    EXPECT_DOUBLE_EQ(45356.5, static_cast<double>(CSystemTime(2024, 3, 5, 12, 0, 0)));
    EXPECT_DOUBLE_EQ(2.0, static_cast<double>(CSystemTime(1900, 1, 1)));
    ExpectWinException([] { CSystemTime t(1e10); }, L"VariantTimeToSystemTime", 87);
    SYSTEMTIME badMonth = {2024, 13, 0, 1, 0, 0, 0, 0};
    ExpectWinException([&] { (void)static_cast<double>(CSystemTime(badMonth)); }, L"SystemTimeToVariantTime", 87);

    // FILETIME: tick 0 is 1601-01-01 (a Monday); the sample survives the round trip.
    ExpectFields(CSystemTime(CSystemTime::ULL2FT(0)), 1601, 1, 1, 1, 0, 0, 0, 0);
    FILETIME sampleTicks = Sample();
    EXPECT_EQ(133541174450070000ULL, CSystemTime::FT2ULL(sampleTicks));
    ExpectFields(CSystemTime(sampleTicks), 2024, 3, 2, 5, 13, 4, 5, 7);
    ExpectWinException([] { CSystemTime t(CSystemTime::ULL2FT(0x8000000000000000ULL)); }, L"FileTimeToSystemTime", 87);
    ExpectWinException([&] { (void)static_cast<FILETIME>(CSystemTime(badMonth)); }, L"SystemTimeToFileTime", 87);

    // A SYSTEMTIME is taken as it is, without validation.
    CSystemTime raw(badMonth);
    EXPECT_EQ(13, raw.wMonth);
    EXPECT_FALSE(raw.IsValid());
    EXPECT_FALSE(CSystemTime::IsValid(badMonth));
    EXPECT_TRUE(Sample().IsValid());
    SYSTEMTIME plain = Sample();
    CSystemTime copy;
    copy = plain;
    EXPECT_EQ(0, std::memcmp(&plain, static_cast<SYSTEMTIME*>(&copy), sizeof(plain)));

    // Impossible dates are refused by the component constructor.
    ExpectWinException([] { CSystemTime t(2023, 2, 30); }, L"SystemTimeToFileTime", 87);
    ExpectWinException([] { CSystemTime t(2023, 4, 31); }, L"SystemTimeToFileTime", 87);
    ExpectWinException([] { CSystemTime t(2023, 1, 1, 24, 0, 0); }, L"SystemTimeToFileTime", 87);

    // Helpers on raw FILETIME values.
    FILETIME ft = CSystemTime::ULL2FT(0x0123456789ABCDEFULL);
    EXPECT_EQ(0x89ABCDEFu, ft.dwLowDateTime);
    EXPECT_EQ(0x01234567u, ft.dwHighDateTime);
    EXPECT_EQ(0x0123456789ABCDEFULL, CSystemTime::FT2ULL(ft));
    EXPECT_EQ(0x0123456789ABCDEFLL, CSystemTime::FT2LI(ft).QuadPart);

    CSystemTime now = CSystemTime::GetSystemTime();
    EXPECT_TRUE(now.IsValid());
    EXPECT_GE(now.wYear, 2020);
    EXPECT_TRUE(CSystemTime::GetLocalTime().IsValid());
}

TEST(SystemTime, TmBothWays)
{
    tm in = {};
    in.tm_sec = 5;
    in.tm_min = 4;
    in.tm_hour = 13;
    in.tm_mday = 5;
    in.tm_mon = 2;
    in.tm_year = 124;
    in.tm_wday = 2;
    CSystemTime fromTm(in);
    ExpectFields(fromTm, 2024, 3, 2, 5, 13, 4, 5, 0);

    tm out = Sample();
    EXPECT_EQ(5, out.tm_sec);
    EXPECT_EQ(4, out.tm_min);
    EXPECT_EQ(13, out.tm_hour);
    EXPECT_EQ(5, out.tm_mday);
    EXPECT_EQ(2, out.tm_mon);
    EXPECT_EQ(124, out.tm_year);
    EXPECT_EQ(2, out.tm_wday);
    EXPECT_EQ(-1, out.tm_isdst);
    EXPECT_EQ(64, out.tm_yday);

    EXPECT_EQ(0, static_cast<tm>(CSystemTime(2023, 1, 1, 23, 59, 59, 999)).tm_yday);
    EXPECT_EQ(364, static_cast<tm>(CSystemTime(2023, 12, 31)).tm_yday);
    EXPECT_EQ(365, static_cast<tm>(CSystemTime(2024, 12, 31, 23, 59, 59, 999)).tm_yday);
    EXPECT_EQ(59, static_cast<tm>(CSystemTime(2024, 2, 29)).tm_yday);
}

TEST(SystemTime, ComparisonAndNull)
{
    CSystemTime null1, null2;
    EXPECT_TRUE(null1.IsNull());
    EXPECT_TRUE(null1 == null2);
    EXPECT_EQ(0, null1.Compare(null2));

    // Year zero with other fields set is still null and equal to the null time.
    SYSTEMTIME yearZero = {0, 5, 1, 17, 8, 0, 0, 0};
    CSystemTime odd(yearZero);
    EXPECT_TRUE(odd.IsNull());
    EXPECT_EQ(0, null1.Compare(odd));

    CSystemTime a = Sample();
    CSystemTime b(2024, 3, 5, 13, 4, 5, 8);
    EXPECT_FALSE(a.IsNull());
    EXPECT_EQ(-1, null1.Compare(a));
    EXPECT_EQ(1, a.Compare(null1));
    EXPECT_EQ(-1, a.Compare(b)); // one millisecond matters
    EXPECT_EQ(1, b.Compare(a));
    EXPECT_EQ(0, a.Compare(Sample()));
    EXPECT_TRUE(a < b && a <= b && b > a && b >= a && a != b && !(a == b));
    EXPECT_TRUE(a == Sample() && a <= Sample() && a >= Sample() && !(a < Sample()));
    EXPECT_TRUE(null1 < a && null1 != a);

    // The day of week plays no part.
    SYSTEMTIME wrongDay = Sample();
    wrongDay.wDayOfWeek = 6;
    EXPECT_TRUE(a == wrongDay);

    SYSTEMTIME invalid = {2024, 13, 0, 1, 0, 0, 0, 0};
    ExpectWinException([&] { (void)a.Compare(invalid); }, L"SystemTimeToFileTime", 87);

    a.Clear();
    EXPECT_TRUE(a.IsNull());
    ExpectFields(a, 0, 0, 0, 0, 0, 0, 0, 0);
}

TEST(SystemTime, ArithmeticOnTicks)
{
    CSystemTime start(2024, 2, 28, 23, 0, 0, 0);
    CSystemTime end = start + CSystemTimeSpan(1, 2, 0, 0, 0, false); // across the leap day
    ExpectFields(end, 2024, 3, 5, 1, 1, 0, 0, 0);
    ExpectFields(end - CSystemTimeSpan(1, 2, 0, 0, 0, false), 2024, 2, 3, 28, 23, 0, 0, 0);
    ExpectFields(start + CSystemTimeSpan(-1), 2024, 2, 3, 28, 22, 59, 59, 999);

    EXPECT_EQ(93600000LL, (end - start).GetTimeSpan());
    EXPECT_EQ(-93600000LL, (start - end).GetTimeSpan());
    EXPECT_EQ(-93600000LL, CSystemTimeSpan(start, end).GetTimeSpan());

    CSystemTime t = start;
    t += CSystemTimeSpan(3600000);
    ExpectFields(t, 2024, 2, 4, 29, 0, 0, 0, 0);
    t -= CSystemTimeSpan(7200001);
    ExpectFields(t, 2024, 2, 3, 28, 21, 59, 59, 999);

    // Results outside the FILETIME range, or spans whose ticks overflow, throw.
    ExpectWinException([&] { (void)(start + CSystemTimeSpan(LLONG_MAX)); }, L"FileTimeToSystemTime", 87);
    ExpectWinException([&] { (void)(start - CSystemTimeSpan(LLONG_MIN)); }, L"FileTimeToSystemTime", 87);
    ExpectWinException([] { (void)(CSystemTime(1601, 1, 1) - CSystemTimeSpan(1)); }, L"FileTimeToSystemTime", 87);
    ExpectWinException([&] { (void)(CSystemTime() + CSystemTimeSpan(1)); }, L"SystemTimeToFileTime", 87);
    ExpectFields(start, 2024, 2, 3, 28, 23, 0, 0, 0); // untouched by the failures
}

TEST(SystemTime, TimeZones)
{
    // UTC+1 without daylight saving.
    TIME_ZONE_INFORMATION plusOne = {};
    plusOne.Bias = -60;
    CSystemTime utc(2024, 7, 1, 23, 30, 0);
    ExpectFields(utc.UTCToLocal(plusOne), 2024, 7, 2, 2, 0, 30, 0, 0);
    ExpectFields(CSystemTime(2024, 7, 2, 0, 30, 0).LocalToUTC(plusOne), 2024, 7, 1, 1, 23, 30, 0, 0);
    ExpectFields(utc, 2024, 7, 1, 1, 23, 30, 0, 0); // the source is unchanged

    // UTC+1 with daylight saving from the last Sunday of March to the last Sunday of October.
    TIME_ZONE_INFORMATION europe = plusOne;
    europe.DaylightBias = -60;
    europe.DaylightDate = {0, 3, 0, 5, 2, 0, 0, 0};
    europe.StandardDate = {0, 10, 0, 5, 3, 0, 0, 0};
    EXPECT_EQ(14, CSystemTime(2024, 7, 1, 12, 0, 0).UTCToLocal(europe).wHour);
    EXPECT_EQ(13, CSystemTime(2024, 1, 15, 12, 0, 0).UTCToLocal(europe).wHour);
    EXPECT_EQ(10, CSystemTime(2024, 7, 1, 12, 0, 0).LocalToUTC(europe).wHour);

    // The system's zone: one conversion undoes the other.
    CSystemTime sample = Sample();
    EXPECT_EQ(sample, sample.UTCToLocal().LocalToUTC());
    EXPECT_EQ(sample, sample.LocalToUTC().UTCToLocal());
    TIME_ZONE_INFORMATION zone;
    unsigned long id = CSystemTime::GetTimeZoneInformation(zone);
    EXPECT_LE(id, 2u);
    // The local offset of "now" matches the zone's bias (standard or daylight).
    CSystemTime now = CSystemTime::GetSystemTime();
    long minutes = static_cast<long>((now.UTCToLocal() - now).GetTimeSpan() / 60000);
    long bias = zone.Bias + (id == TIME_ZONE_ID_DAYLIGHT ? zone.DaylightBias : id == TIME_ZONE_ID_STANDARD ? zone.StandardBias : 0);
    EXPECT_EQ(-bias, minutes);

    ExpectWinException([] { (void)CSystemTime().UTCToLocal(); }, L"SystemTimeToFileTime", 87);
}

TEST(SystemTime, SystemDateAndTimeFormats)
{
    CSystemTime t = Sample();
    EXPECT_EQ(ustring(L"2024-03-05 Tuesday"), t.GetDateFormatW(g_nEnglish, 0, L"yyyy-MM-dd dddd"));
    EXPECT_EQ(ustring(L"3/5/2024"), t.GetDateFormatW(g_nEnglish, DATE_SHORTDATE));
    EXPECT_EQ(ustring(L"Dienstag, 5. M\x00e4rz 2024"), t.GetDateFormatW(g_nGerman, 0, L"dddd, d. MMMM yyyy"));
    EXPECT_EQ(ustring(L"01:04:05 PM"), t.GetTimeFormatW(g_nEnglish, 0, L"hh:mm:ss tt"));
    EXPECT_EQ(ustring(L"13.04"), t.GetTimeFormatW(g_nGerman, 0, L"HH.mm"));
    EXPECT_EQ(ustring(L"1:04:05 PM"), t.GetTimeFormatW(g_nEnglish));

    ustring text = L"stale";
    EXPECT_TRUE(t.GetDateFormatW(g_nEnglish, 0, L"MMM d", text));
    EXPECT_EQ(ustring(L"Mar 5"), text);
    EXPECT_TRUE(t.GetTimeFormatW(g_nEnglish, 0, L"H' h'", text));
    EXPECT_EQ(ustring(L"13 h"), text);

    // Refused requests: a picture together with a format flag, an impossible date or time.
    ExpectWinException([&] { t.GetDateFormatW(g_nEnglish, DATE_SHORTDATE, L"d"); }, L"GetDateFormatW", ERROR_INVALID_FLAGS);
    SYSTEMTIME feb31 = {2024, 2, 0, 31, 13, 4, 5, 7};
    SYSTEMTIME hour25 = {2024, 3, 2, 5, 25, 4, 5, 7};
    ExpectWinException([&] { CSystemTime(feb31).GetDateFormatW(g_nEnglish); }, L"GetDateFormatW", 87);
    ExpectWinException([&] { CSystemTime(hour25).GetTimeFormatW(g_nEnglish); }, L"GetTimeFormatW", 87);
    text = L"stale";
    EXPECT_FALSE(CSystemTime(feb31).GetDateFormatW(g_nEnglish, 0, nullptr, text));
    EXPECT_TRUE(text.empty());
    EXPECT_FALSE(CSystemTime(hour25).GetTimeFormatW(g_nEnglish, 0, nullptr, text));
}

TEST(SystemTime, ElementWiseSafeFormats)
{
    CSystemTime t = Sample();
    EXPECT_EQ(ustring(L"3/5/2024"), t.GetDateFormatSafe(g_nEnglish, 0));
    EXPECT_EQ(ustring(L"1:04:05 PM"), t.GetTimeFormatSafe(g_nEnglish));
    // For a valid time the pieces add up to the system's own text (in locales whose pictures
    // hold no quoted literals, which the element walk copies as they are).
    for (unsigned long lcid : {g_nEnglish, g_nGerman, 0x40Cul})
    {
        EXPECT_EQ(t.GetDateFormatW(lcid, DATE_SHORTDATE), t.GetDateFormatSafe(lcid, DATE_SHORTDATE)) << lcid;
        EXPECT_EQ(t.GetDateFormatW(lcid, DATE_LONGDATE), t.GetDateFormatSafe(lcid, DATE_LONGDATE)) << lcid;
        EXPECT_EQ(t.GetTimeFormatW(lcid, 0), t.GetTimeFormatSafe(lcid)) << lcid;
    }

    // Elements the system refuses fall back to their numbers; separators stay.
    SYSTEMTIME feb31 = {2024, 2, 0, 31, 13, 4, 5, 7};
    EXPECT_EQ(ustring(L"2/31/2024"), CSystemTime(feb31).GetDateFormatSafe(g_nEnglish, 0));
    // Long tokens fall back to two digits; a 12-hour token shows the raw 24-hour field; the
    // marker has no number and vanishes.
    EXPECT_EQ(ustring(L"31, 02 31, 2024"), CSystemTime(feb31).GetDateFormatSafe(g_nEnglish, DATE_LONGDATE));
    SYSTEMTIME hour25 = {2024, 3, 2, 5, 25, 4, 5, 7};
    EXPECT_EQ(ustring(L"25:04:05 "), CSystemTime(hour25).GetTimeFormatSafe(g_nEnglish));

    // A locale without pictures gives empty text.
    EXPECT_TRUE(t.GetDateFormatSafe(0x12345, 0).empty());
    EXPECT_TRUE(t.GetTimeFormatSafe(0x12345).empty());
}

TEST(SystemTime, PercentPatternFormat)
{
    CSystemTime t = Sample();
    EXPECT_EQ(ustring(L"2024-03-05 13:04:05.007"), t.Format(g_nEnglish, L"%Y-%m-%d %H:%M:%S.%f"));
    EXPECT_EQ(ustring(L"5/3/24"), t.Format(g_nEnglish, L"%#d/%#m/%y"));
    EXPECT_EQ(ustring(L"Tue Tuesday Mar March"), t.Format(g_nEnglish, L"%a %A %b %B"));
    EXPECT_EQ(ustring(L"Dienstag M\x00e4rz"), t.Format(g_nGerman, L"%A %B"));
    EXPECT_EQ(ustring(L"01 1 PM 13 4 5"), t.Format(g_nEnglish, L"%I %#I %p %#H %#M %#S"));
    EXPECT_EQ(ustring(L"065 65 2"), t.Format(g_nEnglish, L"%j %#j %w"));
    EXPECT_EQ(ustring(L"3/5/2024 1:04:05 PM"), t.Format(g_nEnglish, L"%c"));
    EXPECT_EQ(t.GetDateFormatW(g_nEnglish, DATE_LONGDATE) + L" 1:04:05 PM", t.Format(g_nEnglish, L"%#c"));
    EXPECT_EQ(ustring(L"3/5/2024|1:04:05 PM"), t.Format(g_nEnglish, L"%x|%X"));
    EXPECT_EQ(t.GetDateFormatW(g_nEnglish, DATE_LONGDATE), t.Format(g_nEnglish, L"%#x"));

    // Walk rules: "%%", a trailing "%" or "%#", unknown conversions, plain text.
    EXPECT_EQ(ustring(L"100"), t.Format(g_nEnglish, L"100%"));
    EXPECT_EQ(ustring(L""), t.Format(g_nEnglish, L"%q"));
    EXPECT_EQ(ustring(L"a%b"), t.Format(g_nEnglish, L"a%%b"));
    EXPECT_EQ(ustring(L"%"), t.Format(g_nEnglish, L"%#%"));
    EXPECT_EQ(ustring(L"x"), t.Format(g_nEnglish, L"x%#"));
    EXPECT_EQ(ustring(L"[]"), t.Format(g_nEnglish, L"[%#q]"));
    EXPECT_TRUE(t.Format(g_nEnglish, nullptr).empty());

    // Week numbers: the days before the first Sunday (%U) or Monday (%W) are week 0.
    EXPECT_EQ(ustring(L"09 10 9"), t.Format(g_nEnglish, L"%U %W %#U"));
    EXPECT_EQ(ustring(L"00 01"), CSystemTime(2024, 1, 1).Format(g_nEnglish, L"%U %W"));      // a Monday
    EXPECT_EQ(ustring(L"01 00 0"), CSystemTime(2023, 1, 1).Format(g_nEnglish, L"%U %W %#W")); // a Sunday
    EXPECT_EQ(ustring(L"02 01"), CSystemTime(2023, 1, 8).Format(g_nEnglish, L"%U %W"));
    EXPECT_EQ(ustring(L"52 53 366"), CSystemTime(2024, 12, 31).Format(g_nEnglish, L"%U %W %j"));
    EXPECT_EQ(ustring(L"00 00"), CSystemTime(2022, 1, 1).Format(g_nEnglish, L"%U %W")); // a Saturday

    // The zone's name as the system reports it.
    TIME_ZONE_INFORMATION zone;
    unsigned long id = CSystemTime::GetTimeZoneInformation(zone);
    ustring name = id == TIME_ZONE_ID_DAYLIGHT ? zone.DaylightName : zone.StandardName;
    EXPECT_EQ(name + L"|" + name, t.Format(g_nEnglish, L"%z|%Z"));

    // An element the system refuses makes Format throw.
    SYSTEMTIME feb31 = {2024, 2, 0, 31, 13, 4, 5, 7};
    ExpectWinException([&] { CSystemTime(feb31).Format(g_nEnglish, L"%d"); }, L"GetDateFormatW", 87);
    // Conversions that do not ask the system still work.
    EXPECT_EQ(ustring(L"007"), CSystemTime(feb31).Format(g_nEnglish, L"%f"));
}

TEST(SystemTimeSpan, ComponentsAndArithmetic)
{
    CSystemTimeSpan span(-1500);
    EXPECT_EQ(0, span.GetDays());
    EXPECT_EQ(1, span.GetSeconds());
    EXPECT_EQ(500, span.GetMilliseconds());
    EXPECT_TRUE(span.GetSign());

    CSystemTimeSpan parts(1, 2, 3, 4, 5, false);
    EXPECT_EQ(93784005LL, parts.GetTimeSpan());
    EXPECT_EQ(-93784005LL, CSystemTimeSpan(1, 2, 3, 4, 5, true).GetTimeSpan());
    EXPECT_EQ(1, parts.GetDays());
    EXPECT_EQ(2, parts.GetHours());
    EXPECT_EQ(3, parts.GetMinutes());
    EXPECT_EQ(4, parts.GetSeconds());
    EXPECT_EQ(5, parts.GetMilliseconds());
    EXPECT_FALSE(parts.GetSign());
    EXPECT_FALSE(CSystemTimeSpan().GetSign());

    // Components beyond their range add up.
    CSystemTimeSpan overflow(0, 25, 61, 61, 1001, false);
    EXPECT_EQ(((25 * 60 + 61) * 60 + 61) * 1000LL + 1001, overflow.GetTimeSpan());
    EXPECT_EQ(1, overflow.GetDays());
    EXPECT_EQ(2, overflow.GetHours());
    EXPECT_EQ(2, overflow.GetMinutes());
    EXPECT_EQ(2, overflow.GetSeconds());
    EXPECT_EQ(1, overflow.GetMilliseconds());

    // Days beyond 65535 wrap; the most negative count still has a magnitude.
    EXPECT_EQ(0, CSystemTimeSpan(65536LL * 86400000).GetDays());
    EXPECT_EQ(1, CSystemTimeSpan(65537LL * 86400000).GetDays());
    CSystemTimeSpan minimum(LLONG_MIN);
    EXPECT_TRUE(minimum.GetSign());
    EXPECT_EQ(808, minimum.GetMilliseconds()); // 9223372036854775808 mod 1000

    CSystemTimeSpan a(1000), b(-250);
    EXPECT_EQ(750LL, (a + b).GetTimeSpan());
    EXPECT_EQ(1250LL, (a - b).GetTimeSpan());
    a += b;
    EXPECT_EQ(750LL, a.GetTimeSpan());
    a -= CSystemTimeSpan(1000);
    EXPECT_EQ(-250LL, a.GetTimeSpan());
    EXPECT_TRUE(a == b && !(a != b) && a <= b && a >= b);
    EXPECT_TRUE(b < CSystemTimeSpan(0) && CSystemTimeSpan(0) > b && !(b > CSystemTimeSpan(0)));
    a.SetTimeSpan(42);
    EXPECT_EQ(42LL, a.GetTimeSpan());
}

TEST(SystemTimeSpan, Formats)
{
    CSystemTimeSpan negative(1, 2, 3, 4, 5, true);
    CSystemTimeSpan positive(1, 2, 3, 4, 5, false);
    EXPECT_EQ(ustring(L"-1.02:03:04.005"), negative.Format(L"%s%D.%H:%M:%S.%m"));
    EXPECT_EQ(ustring(L"1.02:03:04.005"), positive.Format(L"%s%D.%H:%M:%S.%m"));
    EXPECT_EQ(ustring(L"+1.2:3:4.5"), positive.Format(L"%#s%#D.%#H:%#M:%#S.%#m"));
    EXPECT_EQ(ustring(L"-"), negative.Format(L"%#s"));
    EXPECT_EQ(ustring(L"100"), positive.Format(L"100%"));
    EXPECT_EQ(ustring(L""), positive.Format(L"%q"));
    EXPECT_EQ(ustring(L"%d"), positive.Format(L"%%d"));
    EXPECT_TRUE(positive.Format(nullptr).empty());

    EXPECT_EQ(ustring(L"1.01:01:01"), CSystemTimeSpan(90061001).FormatConsole(false));
    EXPECT_EQ(ustring(L"01:01:01"), CSystemTimeSpan(3661001).FormatConsole(false));
    EXPECT_EQ(ustring(L"01:01:01"), CSystemTimeSpan(-3661001).FormatConsole(false));
    EXPECT_EQ(ustring(L"00:00:00"), CSystemTimeSpan().FormatConsole(false));
    // The decimal point is the user's; what follows it is always three digits.
    ustring point = CLocale(LOCALE_USER_DEFAULT).DecimalPoint();
    EXPECT_EQ(ustring(L"01:01:01") + point + L"001", CSystemTimeSpan(3661001).FormatConsole(true));
    EXPECT_EQ(ustring(L"1.01:01:01") + point + L"001", CSystemTimeSpan(-90061001).FormatConsole(true));

    EXPECT_EQ(ustring(L"1h 0.000s"), CSystemTimeSpan(3600000).FormatTestRail(true));
    EXPECT_EQ(ustring(L"1h 0s"), CSystemTimeSpan(3600000).FormatTestRail(false));
    EXPECT_EQ(ustring(L"1d 5m 4.005s"), CSystemTimeSpan(1, 0, 5, 4, 5, false).FormatTestRail(true));
    EXPECT_EQ(ustring(L"1d 5m 4s"), CSystemTimeSpan(1, 0, 5, 4, 5, true).FormatTestRail(false));
    EXPECT_EQ(ustring(L"2d 3h 0s"), CSystemTimeSpan(2, 3, 0, 0, 0, false).FormatTestRail(false));
    EXPECT_EQ(ustring(L"0s"), CSystemTimeSpan().FormatTestRail(false));
    EXPECT_EQ(ustring(L"0.000s"), CSystemTimeSpan().FormatTestRail(true));
    EXPECT_EQ(ustring(L"0.999s"), CSystemTimeSpan(-999).FormatTestRail(true));
}

TEST(StopWatch, ElapsedTimeFollowsTheTickCounter)
{
    CKernel32 kernel32;
    ASSERT_TRUE(kernel32.IsLoaded());
    EXPECT_TRUE(kernel32.HasGetTickCount64());

    unsigned __int64 beforeStart = ::GetTickCount64();
    CStopWatch watch;
    unsigned __int64 afterStart = ::GetTickCount64();
    EXPECT_FALSE(watch.IsZero());
    ::Sleep(30);
    unsigned __int64 beforeRead = ::GetTickCount64();
    __int64 elapsed = watch.GetElapsedTime().GetTimeSpan();
    unsigned __int64 afterRead = ::GetTickCount64();
    EXPECT_GE(elapsed, static_cast<__int64>(beforeRead - afterStart));
    EXPECT_LE(elapsed, static_cast<__int64>(afterRead - beforeStart));

    // Reset to zero: the elapsed time is the time since system start.
    watch.Reset(CStopWatch::ResetToZero);
    EXPECT_TRUE(watch.IsZero());
    beforeRead = ::GetTickCount64();
    elapsed = watch.GetElapsedTime().GetTimeSpan();
    afterRead = ::GetTickCount64();
    EXPECT_GE(elapsed, static_cast<__int64>(beforeRead));
    EXPECT_LE(elapsed, static_cast<__int64>(afterRead));
    CStopWatch zero(CStopWatch::ResetToZero);
    EXPECT_TRUE(zero.IsZero());

    // Copies keep their start and their own binding.
    watch.Reset(CStopWatch::ResetToNow);
    CStopWatch copy(watch);
    EXPECT_FALSE(copy.IsZero());
    EXPECT_GE(copy.GetElapsedTime().GetTimeSpan(), 0);
}

TEST(Library, RunTimeBinding)
{
    CKernel32 kernel32;
    unsigned __int64 before = ::GetTickCount64();
    unsigned __int64 now = kernel32.GetTickCount64();
    EXPECT_GE(now, before);
    EXPECT_LE(now, ::GetTickCount64());

    CKernel32 copy(kernel32);
    EXPECT_TRUE(copy.IsLoaded() && copy.HasGetTickCount64());
    CKernel32 assigned;
    assigned = kernel32;
    EXPECT_TRUE(assigned.HasGetTickCount64());

    CLibrary library(L"kernel32.dll");
    ASSERT_TRUE(library.IsLoaded());
    EXPECT_EQ(ustring(L"kernel32.dll"), library.GetName());
    DWORD(WINAPI * getVersion)() = nullptr;
    EXPECT_TRUE(library.GetProcAddress("GetVersion", getVersion));
    EXPECT_EQ(::GetVersion(), getVersion());
    EXPECT_EQ(nullptr, library.GetProcAddress("NoSuchExportOfKernel32"));
    EXPECT_FALSE(library.GetProcAddress("NoSuchExportOfKernel32", getVersion));
    EXPECT_EQ(nullptr, getVersion);
    EXPECT_EQ(nullptr, library.GetProcAddress(nullptr));

    CLibrary moved(std::move(library));
    EXPECT_TRUE(moved.IsLoaded());
    EXPECT_FALSE(library.IsLoaded());
    EXPECT_EQ(nullptr, library.GetProcAddress("GetVersion"));

    CLibrary missing(L"tavrin_no_such_module.dll");
    EXPECT_FALSE(missing.IsLoaded());
    EXPECT_TRUE(missing.GetName().empty());
    EXPECT_EQ(nullptr, missing.GetProcAddress("GetVersion"));
    EXPECT_FALSE(missing.Load(nullptr));
    EXPECT_TRUE(missing.Load(L"kernel32.dll"));
    EXPECT_NE(nullptr, missing.GetProcAddress("GetVersion"));
    missing.Free();
    EXPECT_FALSE(missing.IsLoaded());
    missing.Free(); // harmless twice
}
