// ustring conversions: locale-aware numbers, hexadecimal, GUIDs, code pages, string resources,
// formatted printing and percent escapes.
#include <tavrin/core/ustring.h>

#include "core/ustring_internal.h"

#include <objbase.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cwchar>
#include <cwctype>
#include <stdio.h>

namespace tavrin {

CLocale ustring::m_Locale(LOCALE_USER_DEFAULT);

namespace {

constexpr std::size_t kNotFound = std::wstring::npos;

// _fcvt converts in a small fixed buffer of the C runtime and returns garbage once integer and
// fraction digits overflow it, so it is asked for at most this many fraction digits; a longer
// fraction is padded with zeros (a double carries about 17 significant digits anyway).
constexpr int kMaxFcvtDigits = 48;

// Formatted text above this many code units is refused (vsprintf gives empty text). It bounds
// the buffer that a runaway width or precision could demand, and the time spent finding out:
// the runtime fills each buffer it is given before it reports that the text does not fit.
constexpr std::size_t kMaxFormattedLength = std::size_t(1) << 22;
// First formatting attempt, on the stack: nearly every text fits.
constexpr std::size_t kFirstFormatBuffer = 1024;

const wchar_t kUpperHexDigits[] = L"0123456789ABCDEF";

// The one "%" escape of a code unit: "%" and at least two upper-case hexadecimal digits.
ustring PercentEscape(wchar_t ch)
{
    return ustring::sprintf_stc(L"%%%02X", static_cast<unsigned int>(ch));
}

// The cleaning of the integer parsers: spaces, then the literal text "0xA0", then the locale's
// thousands separator go (in that order: each removal sees the result of the one before). The
// "0xA0" removal also strips that text from hexadecimal input; it is long-standing behaviour
// that stored settings depend on.
struct CCleanInteger : detail::CScratchText
{
    explicit CCleanInteger(const wchar_t* text) : CScratchText(text, L' ')
    {
        Replace(L"0xA0", {});
        Replace(ustring::m_Locale.ThousandsSep(), {});
    }
};

inline bool IsHexSeparator(wchar_t ch)
{
    return ch == L' ' || ch == L'\r' || ch == L'\n' || ch == L'\t';
}

// Value of a hexadecimal digit, or -1. The digits are those that iswxdigit reports: the ASCII
// ones and their full-width forms (U+FF10-FF19, U+FF21-FF26, U+FF41-FF46), which stand for the
// same values.
inline int HexDigitValue(wchar_t ch)
{
    if (ch >= 0xFF10)
    {
        if (ch > 0xFF46)
            return -1;
        ch = static_cast<wchar_t>(ch - 0xFF10 + L'0'); // full-width to ASCII
    }
    if (ch >= L'0' && ch <= L'9')
        return ch - L'0';
    if (ch >= L'A' && ch <= L'F')
        return ch - L'A' + 10;
    if (ch >= L'a' && ch <= L'f')
        return ch - L'a' + 10;
    return -1;
}

// Decimal digits of `value`, at least `minDigits` of them, written backwards so that they end
// just before `end`; returns where they begin.
wchar_t* WriteDecimalBackwards(wchar_t* end, unsigned __int64 value, std::size_t minDigits)
{
    wchar_t* p = end;
    do
    {
        *--p = static_cast<wchar_t>(L'0' + value % 10);
        value /= 10;
    } while (value != 0);
    while (static_cast<std::size_t>(end - p) < minDigits)
        *--p = L'0';
    return p;
}

inline std::size_t DecimalDigits(unsigned __int64 value)
{
    std::size_t digits = 1;
    while (value >= 10)
    {
        value /= 10;
        ++digits;
    }
    return digits;
}

// The grouped decimal text of ui64toa into `out`, with room for `extra` more code units (a sign).
// The value is cut into groups from the low end; every group but the first is written as the
// separator and at least three digits, whatever the group size (saved texts rely on that).
void FormatGroupedDecimal(ustring& out, unsigned __int64 value, std::size_t extra)
{
    static const unsigned __int64 powers[20] = {1ull, 10ull, 100ull, 1000ull, 10000ull, 100000ull, 1000000ull,
                                                10000000ull, 100000000ull, 1000000000ull, 10000000000ull,
                                                100000000000ull, 1000000000000ull, 10000000000000ull,
                                                100000000000000ull, 1000000000000000ull, 10000000000000000ull,
                                                100000000000000000ull, 1000000000000000000ull,
                                                10000000000000000000ull};
    const int group = ustring::m_Locale.Grouping();
    const wchar_t* const separator = ustring::m_Locale.ThousandsSep();
    const std::size_t separatorLength = std::wcslen(separator);

    // Group sizes that do not fit a 64-bit divisor (or make no sense) mean "no grouping".
    unsigned __int64 groups[20]; // least significant first; at most 20 groups of one digit
    std::size_t count = 0;
    std::size_t length = 0;
    do
    {
        unsigned __int64 quotient = 0;
        unsigned __int64 remainder = value;
        if (group > 0 && group < 20)
        {
            quotient = value / powers[group];
            remainder = value % powers[group];
        }
        groups[count++] = remainder;
        length += quotient == 0 ? DecimalDigits(remainder) : separatorLength + std::max<std::size_t>(3, DecimalDigits(remainder));
        value = quotient;
    } while (value != 0);

    out.clear();
    out.reserve(length + extra);
    out.resize(length);
    wchar_t* p = &out[0] + length;
    for (std::size_t i = 0; i + 1 < count; ++i)
    {
        p = WriteDecimalBackwards(p, groups[i], 3);
        p -= separatorLength;
        std::wmemcpy(p, separator, separatorLength);
    }
    WriteDecimalBackwards(p, groups[count - 1], 1);
}

// One formatting attempt into `buffer`; negative when the text does not fit (or the runtime
// rejects the format).
int FormatInto(wchar_t* buffer, std::size_t size, const wchar_t* format, va_list args)
{
    va_list attempt;
    va_copy(attempt, args);
    // The C runtime's legacy _vsnwprintf returns a negative count when the buffer is too small.
    const int written = ::_vsnwprintf(buffer, size, format, attempt);
    va_end(attempt);
    return written;
}

} // namespace

// ---------------------------------------------------------------- numbers

void ustring::add_sign(int layout, const wchar_t* sign)
{
    const wchar_t* const s = sign ? sign : L"";
    switch (layout)
    {
    case 0:
        insert(0, 1, L'(');
        push_back(L')');
        break;
    case 1:
        insert(0, s);
        break;
    case 2:
        insert(0, 1, L' ');
        insert(0, s);
        break;
    case 3:
        append(s);
        break;
    case 4:
        push_back(L' ');
        append(s);
        break;
    default:
        break;
    }
}

ustring ustring::fcvt(double value, int digits, bool trimZeros)
{
    if (digits < 0)
        digits = m_Locale.Digits();
    int point = 0;
    int negative = 0;
    const char* const raw = ::_fcvt(value, std::min(digits, kMaxFcvtDigits), &point, &negative);
    ustring text = raw ? MultiByteToWideChar(raw, npos, CP_UTF8) : ustring();

    if (point < 1)
    {
        if (m_Locale.LeadingZeros())
        {
            text.insert(0, static_cast<std::size_t>(1 - point), L'0');
            point = 1;
        }
        else
        {
            text.insert(0, static_cast<std::size_t>(-point), L'0');
            point = 0;
        }
    }
    const std::size_t integerLength = std::min(static_cast<std::size_t>(point), text.size());
    ustring result(text.data(), static_cast<unsigned int>(integerLength));
    if (digits >= 1)
    {
        std::wstring fraction = text.std::wstring::substr(integerLength);
        if (!trimZeros)
        {
            if (fraction.size() < static_cast<std::size_t>(digits))
                fraction.append(static_cast<std::size_t>(digits) - fraction.size(), L'0');
            result += m_Locale.DecimalPoint();
            result.append(fraction, 0, static_cast<std::size_t>(digits));
        }
        else
        {
            const std::size_t last = fraction.find_last_not_of(L'0');
            fraction.erase(last == kNotFound ? 0 : last + 1);
            if (!fraction.empty())
            {
                result += m_Locale.DecimalPoint();
                result.append(fraction);
            }
        }
    }
    // The sign follows _fcvt's flag alone: a negative value that rounds to zero keeps its sign.
    if (negative)
        result.add_sign(m_Locale.NegNumber(), m_Locale.NegativeSign());
    return result;
}

ustring ustring::ui64toa(unsigned __int64 value, bool hex)
{
    ustring text;
    if (hex)
    {
        wchar_t digits[16];
        wchar_t* p = digits + 16;
        do
        {
            *--p = kUpperHexDigits[value & 0x0F];
            value >>= 4;
        } while (value != 0);
        text.assign(p, digits + 16);
        return text;
    }
    FormatGroupedDecimal(text, value, 0);
    return text;
}

ustring ustring::i64toa(__int64 value)
{
    if (value >= 0)
        return ui64toa(static_cast<unsigned __int64>(value), false);
    // Two's-complement negation in unsigned arithmetic, so INT64_MIN keeps its true magnitude.
    const wchar_t* const sign = m_Locale.NegativeSign();
    ustring text;
    FormatGroupedDecimal(text, 0ull - static_cast<unsigned __int64>(value), std::wcslen(sign) + 2);
    text.add_sign(m_Locale.NegNumber(), sign);
    return text;
}

__int64 ustring::atoi64(const wchar_t* text, int radix)
{
    return ::_wcstoi64(CCleanInteger(text).c_str(), nullptr, radix);
}

unsigned __int64 ustring::atoui64(const wchar_t* text, int radix)
{
    return ::_wcstoui64(CCleanInteger(text).c_str(), nullptr, radix);
}

double ustring::strtod(const wchar_t* text)
{
    bool trailing = false;
    return strtod(text, trailing);
}

double ustring::strtod(const wchar_t* text, bool& trailing)
{
    // Spaces, then thousands separators go, then the locale's decimal point becomes ".".
    detail::CScratchText clean(text, L' ');
    clean.Replace(m_Locale.ThousandsSep(), {});
    clean.Replace(m_Locale.DecimalPoint(), L".");
    wchar_t* end = nullptr;
    const double value = ::wcstod(clean.c_str(), &end);
    trailing = end != nullptr && *end != L'\0';
    return value;
}

bool ustring::isnumber() const
{
    if (empty())
        return false;
    const wchar_t* const separator = m_Locale.ThousandsSep();
    const std::size_t separatorLength = std::wcslen(separator);
    std::size_t i = 0;
    while (i < size())
    {
        if (::iswdigit(data()[i]))
            ++i;
        else if (separatorLength && std::wstring::compare(i, separatorLength, separator) == 0)
            i += separatorLength;
        else
            return false;
    }
    return true;
}

ustring ustring::BytesToStr(unsigned __int64 bytes, int digits, ustring& unit)
{
    static const wchar_t* const units[] = {L"B", L"KB", L"MB", L"GB"};
    double value = static_cast<double>(bytes);
    std::size_t k = 0;
    while (value / 1024 >= 1 && k + 1 < sizeof(units) / sizeof(units[0]))
    {
        value /= 1024;
        ++k;
    }
    unit = units[k];
    return fcvt(value, digits, true);
}

// ---------------------------------------------------------------- bytes and GUIDs

void ustring::Bin2Hex(const std::vector<unsigned char>& bytes, ustring& out)
{
    // Written into `out`'s own storage, which a caller that converts repeatedly reuses.
    out.resize(bytes.size() * 2);
    wchar_t* p = &out[0];
    for (const unsigned char byte : bytes)
    {
        *p++ = kUpperHexDigits[byte >> 4];
        *p++ = kUpperHexDigits[byte & 0x0F];
    }
}

bool ustring::Hex2Bin(const ustring& text, std::vector<unsigned char>& out)
{
    out.clear();
    out.reserve(text.size() / 2);
    int high = -1; // the pending first digit of a pair
    for (const wchar_t ch : static_cast<const std::wstring&>(text))
    {
        const int digit = HexDigitValue(ch);
        if (digit >= 0)
        {
            if (high < 0)
            {
                high = digit;
            }
            else
            {
                out.push_back(static_cast<unsigned char>(high * 16 + digit));
                high = -1;
            }
        }
        else if (!IsHexSeparator(ch))
        {
            out.clear();
            return false;
        }
    }
    return true; // a last unpaired digit is dropped
}

bool ustring::GUID2String(const GUID& guid, ustring& out)
{
    wchar_t buffer[128];
    const int length = ::StringFromGUID2(guid, buffer, 128);
    if (length <= 0)
    {
        out.clear();
        return false;
    }
    out.assign(buffer, static_cast<std::size_t>(length - 1)); // the count includes the terminator
    return true;
}

bool ustring::String2GUID(const wchar_t* text, GUID& guid)
{
    if (text && SUCCEEDED(::CLSIDFromString(const_cast<LPOLESTR>(text), &guid)))
        return true;
    guid = GUID();
    return false;
}

// ---------------------------------------------------------------- code pages

void ustring::MultiByteToWideChar(ustring& out, const char* text, unsigned int length, unsigned int codePage,
                                  unsigned long flags)
{
    if (length != npos && length > static_cast<unsigned int>(INT_MAX))
        return;
    const bool terminated = length == npos;
    const int count = terminated ? -1 : static_cast<int>(length);
    const int needed = ::MultiByteToWideChar(codePage, flags, text, count, nullptr, 0);
    if (needed <= 0)
        return; // failed or empty: `out` stays as it was
    std::wstring buffer(static_cast<std::size_t>(needed) + 1, L'\0');
    const int written = ::MultiByteToWideChar(codePage, flags, text, count, &buffer[0], needed);
    if (written <= 0)
        return;
    // For terminated input the platform counted the terminator too.
    buffer.resize(static_cast<std::size_t>(terminated ? written - 1 : written));
    out = std::move(buffer);
}

void ustring::MultiByteToWideChar(ustring& out, const std::string& text, unsigned int codePage, unsigned long flags)
{
    MultiByteToWideChar(out, text.data(), static_cast<unsigned int>(text.size()), codePage, flags);
}

ustring ustring::MultiByteToWideChar(const char* text, unsigned int length, unsigned int codePage, unsigned long flags)
{
    ustring out;
    MultiByteToWideChar(out, text, length, codePage, flags);
    return out;
}

ustring ustring::MultiByteToWideChar(const std::string& text, unsigned int codePage, unsigned long flags)
{
    ustring out;
    MultiByteToWideChar(out, text, codePage, flags);
    return out;
}

void ustring::WideCharToMultiByte(std::string& out, const wchar_t* text, unsigned int length, unsigned int codePage,
                                  unsigned long flags)
{
    if (length != npos && length > static_cast<unsigned int>(INT_MAX))
        return;
    const bool terminated = length == npos;
    const int count = terminated ? -1 : static_cast<int>(length);
    const int needed = ::WideCharToMultiByte(codePage, flags, text, count, nullptr, 0, nullptr, nullptr);
    if (needed <= 0)
        return;
    std::string buffer(static_cast<std::size_t>(needed) + 1, '\0');
    const int written = ::WideCharToMultiByte(codePage, flags, text, count, &buffer[0], needed, nullptr, nullptr);
    if (written <= 0)
        return;
    buffer.resize(static_cast<std::size_t>(terminated ? written - 1 : written));
    out = std::move(buffer);
}

void ustring::WideCharToMultiByte(std::string& out, const std::wstring& text, unsigned int codePage, unsigned long flags)
{
    WideCharToMultiByte(out, text.data(), static_cast<unsigned int>(text.size()), codePage, flags);
}

std::string ustring::WideCharToMultiByte(const wchar_t* text, unsigned int length, unsigned int codePage, unsigned long flags)
{
    std::string out;
    WideCharToMultiByte(out, text, length, codePage, flags);
    return out;
}

std::string ustring::WideCharToMultiByte(const std::wstring& text, unsigned int codePage, unsigned long flags)
{
    std::string out;
    WideCharToMultiByte(out, text, codePage, flags);
    return out;
}

// ---------------------------------------------------------------- string resources

bool ustring::load(HINSTANCE module, unsigned int id)
{
    clear();
    std::size_t capacity = 128;
    int loaded = 0;
    // A string that fills the buffer to its last place may have been cut: retry with double the
    // room. Resource strings are at most 65535 code units, which bounds the loop.
    do
    {
        capacity *= 2;
        resize(capacity);
        loaded = ::LoadStringW(module, id, data(), static_cast<int>(capacity));
    } while (loaded > 0 && static_cast<std::size_t>(loaded) + 1 >= capacity);
    resize(loaded > 0 ? static_cast<std::size_t>(loaded) : 0);
    return loaded >= 1;
}

ustring ustring::load_stc(HINSTANCE module, unsigned int id)
{
    ustring text;
    text.load(module, id);
    return text;
}

// ---------------------------------------------------------------- formatted printing

ustring& ustring::sprintf(const wchar_t* format, ...)
{
    va_list args;
    va_start(args, format);
    vsprintf(format, args);
    va_end(args);
    return *this;
}

ustring ustring::sprintf_stc(const wchar_t* format, ...)
{
    ustring text;
    va_list args;
    va_start(args, format);
    text.vsprintf(format, args);
    va_end(args);
    return text;
}

ustring& ustring::vsprintf(const wchar_t* format, va_list args)
{
    if (!format)
    {
        clear();
        return *this;
    }
    // Formatted aside so that an argument may point into self, and copied at its exact length,
    // so the text keeps no spare room. Most texts fit the first buffer on the stack; a longer one
    // is retried in doubled buffers. The runtime's own length count is not asked for: for some
    // formats it takes seconds and disagrees with the formatting itself. Instead the doubling
    // ends at kMaxFormattedLength: a format that does not fit by then (or that the runtime
    // rejects at every size) gives empty text.
    wchar_t first[kFirstFormatBuffer];
    int written = FormatInto(first, kFirstFormatBuffer, format, args);
    if (written >= 0)
    {
        std::wstring::assign(first, static_cast<std::size_t>(written));
        return *this;
    }
    for (std::size_t size = 2 * kFirstFormatBuffer; size <= kMaxFormattedLength; size *= 2)
    {
        const std::unique_ptr<wchar_t[]> buffer(new wchar_t[size]);
        written = FormatInto(buffer.get(), size, format, args);
        if (written >= 0)
        {
            std::wstring::assign(buffer.get(), static_cast<std::size_t>(written));
            return *this;
        }
    }
    clear();
    return *this;
}

ustring ustring::vsprintf_stc(const wchar_t* format, va_list args)
{
    ustring text;
    text.vsprintf(format, args);
    return text;
}

// ---------------------------------------------------------------- percent escapes

ustring& ustring::replaceForbiddenSymbols(const wchar_t* forbidden)
{
    if (!forbidden)
        return *this;
    // Backwards, so inserted escapes are never rescanned. Each listed code unit is checked
    // against what is at the index now, so a "%" listed after another character escapes the
    // fresh "%" again; callers that want it escaped once list it first.
    for (std::size_t i = size(); i-- > 0;)
    {
        for (const wchar_t* f = forbidden; *f; ++f)
        {
            if (data()[i] == *f)
                std::wstring::replace(i, 1, PercentEscape(*f));
        }
    }
    return *this;
}

ustring& ustring::replaceNonAlphaNumericSymbols()
{
    for (std::size_t i = size(); i-- > 0;)
    {
        const wchar_t ch = data()[i];
        if (!::iswalnum(ch))
            std::wstring::replace(i, 1, PercentEscape(ch));
    }
    return *this;
}

} // namespace tavrin
