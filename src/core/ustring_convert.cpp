// ustring conversions: locale-aware numbers, hexadecimal, GUIDs, code pages, string resources,
// formatted printing and percent escapes.
#include <tavrin/core/ustring.h>

#include <objbase.h>

#include <algorithm>
#include <climits>
#include <cmath>
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

// The one "%" escape of a code unit: "%" and at least two upper-case hexadecimal digits.
ustring PercentEscape(wchar_t ch)
{
    return ustring::sprintf_stc(L"%%%02X", static_cast<unsigned int>(ch));
}

// Removes every occurrence of `what` (nothing when it is empty or null).
void RemoveAll(ustring& text, const wchar_t* what)
{
    if (what && *what)
        text.replace(what, L"");
}

// The cleaning shared by the integer parsers: spaces, the literal text "0xA0" and the locale's
// thousands separator go. The "0xA0" removal also strips that text from hexadecimal input; it
// is long-standing behaviour that stored settings depend on.
ustring CleanInteger(const wchar_t* text)
{
    ustring clean(text);
    RemoveAll(clean, L" ");
    RemoveAll(clean, L"0xA0");
    RemoveAll(clean, ustring::m_Locale.ThousandsSep());
    return clean;
}

inline bool IsHexSeparator(wchar_t ch)
{
    return ch == L' ' || ch == L'\r' || ch == L'\n' || ch == L'\t';
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
    if (hex)
        return sprintf_stc(L"%I64X", value);
    ustring text;
    do
    {
        const int group = m_Locale.Grouping();
        unsigned __int64 quotient = 0;
        unsigned __int64 remainder = value;
        // Group sizes that do not fit a 64-bit divisor (or make no sense) mean "no grouping".
        if (group > 0 && group < 20)
        {
            const auto divisor = static_cast<unsigned __int64>(std::pow(10.0, group));
            quotient = value / divisor;
            remainder = value % divisor;
        }
        // The padding is three digits whatever the group size; saved texts rely on it.
        const ustring piece = quotient == 0 ? sprintf_stc(L"%I64u", remainder)
                                            : sprintf_stc(L"%ls%03I64u", m_Locale.ThousandsSep(), remainder);
        text.insert(0, piece);
        value = quotient;
    } while (value != 0);
    return text;
}

ustring ustring::i64toa(__int64 value)
{
    if (value >= 0)
        return ui64toa(static_cast<unsigned __int64>(value), false);
    // Two's-complement negation in unsigned arithmetic, so INT64_MIN keeps its true magnitude.
    ustring text = ui64toa(0ull - static_cast<unsigned __int64>(value), false);
    text.add_sign(m_Locale.NegNumber(), m_Locale.NegativeSign());
    return text;
}

__int64 ustring::atoi64(const wchar_t* text, int radix)
{
    return ::_wcstoi64(CleanInteger(text).c_str(), nullptr, radix);
}

unsigned __int64 ustring::atoui64(const wchar_t* text, int radix)
{
    return ::_wcstoui64(CleanInteger(text).c_str(), nullptr, radix);
}

double ustring::strtod(const wchar_t* text)
{
    bool trailing = false;
    return strtod(text, trailing);
}

double ustring::strtod(const wchar_t* text, bool& trailing)
{
    ustring clean(text);
    RemoveAll(clean, L" ");
    RemoveAll(clean, m_Locale.ThousandsSep());
    const wchar_t* const point = m_Locale.DecimalPoint();
    if (point && *point)
        clean.replace(point, L".");
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
    static const wchar_t digits[] = L"0123456789ABCDEF";
    std::wstring text;
    text.reserve(bytes.size() * 2);
    for (const unsigned char byte : bytes)
    {
        text.push_back(digits[byte >> 4]);
        text.push_back(digits[byte & 0x0F]);
    }
    out = std::move(text);
}

bool ustring::Hex2Bin(const ustring& text, std::vector<unsigned char>& out)
{
    out.clear();
    wchar_t pair[3] = {L'\0', L'\0', L'\0'};
    bool pending = false;
    for (const wchar_t ch : static_cast<const std::wstring&>(text))
    {
        if (::iswxdigit(ch))
        {
            if (!pending)
            {
                pair[0] = ch;
                pending = true;
            }
            else
            {
                pair[1] = ch;
                out.push_back(static_cast<unsigned char>(std::wcstoul(pair, nullptr, 16)));
                pending = false;
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
    // Formatted into a separate buffer so that an argument may point into self.
    std::wstring buffer(1024, L'\0');
    for (;;)
    {
        va_list attempt;
        va_copy(attempt, args);
        // The C runtime's legacy _vsnwprintf returns a negative count when the buffer is too
        // small (it does not report the needed size).
        const int written = ::_vsnwprintf(&buffer[0], buffer.size(), format, attempt);
        va_end(attempt);
        if (written >= 0)
        {
            buffer.resize(static_cast<std::size_t>(written));
            break;
        }
        // A negative count also means a malformed format; growing would never end then.
        va_copy(attempt, args);
        const int needed = ::_vscwprintf(format, attempt);
        va_end(attempt);
        if (needed < 0)
        {
            buffer.clear();
            break;
        }
        std::size_t size = buffer.size() * 2;
        while (size <= static_cast<std::size_t>(needed))
            size *= 2;
        buffer.assign(size, L'\0');
    }
    std::wstring::swap(buffer);
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
