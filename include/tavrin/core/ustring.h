// ustring: the library's text type. A std::wstring of UTF-16 code units with case-aware
// comparison, wildcard matching, trimming, marker extraction, splitting/joining, and the
// conversions between text and numbers, bytes, GUIDs, narrow code pages and string resources.
//
// Positions and lengths are `unsigned int`. Note for 64-bit builds: `ustring::npos` is the
// 32-bit all-ones value, while the inherited std::wstring members (find, rfind, ...) return
// size_t and report "not found" as std::wstring::npos. Compare their results with
// std::wstring::npos, never with ustring::npos.
#pragma once

#include <tavrin/core/config.h>
#include <tavrin/core/locale.h>

#include <oleauto.h>

#include <cstdarg>
#include <deque>
#include <initializer_list>
#include <list>
#include <set>
#include <string>
#include <type_traits>
#include <vector>

namespace tavrin {

enum ECaseSensitivity
{
    CaseSensitive = 0,
    CaseInsensitive = 1, // any non-zero value folds case
};

// Borrowed view of a length-counted OLE string (BSTR), the form in which ustring takes COM
// strings (MinGW lacks the COM support library behind _bstr_t). The characters and the length
// (SysStringLen) are read, so embedded NULs survive; a null BSTR is the empty string. The view
// never frees the BSTR:  ustring text{CBStrRef(bstr)};  text += CBStrRef(other);
class CBStrRef
{
public:
    explicit CBStrRef(BSTR bstr) noexcept : m_bstr(bstr) {}
    BSTR Get() const noexcept { return m_bstr; }
    unsigned int Length() const noexcept { return m_bstr ? ::SysStringLen(m_bstr) : 0u; }

private:
    BSTR m_bstr;
};

class TAVRIN_API ustring : public std::wstring
{
public:
    // The all-ones position/length: "up to the terminator" for lengths, "to the end" for ranges.
    static const unsigned int npos = 0xFFFFFFFFu;
    // The locale used by the number members (fcvt, i64toa, ui64toa, atoi64, strtod, isnumber).
    // Built for LOCALE_USER_DEFAULT at module start; callers may assign another CLocale.
    static CLocale m_Locale;

    // ---------------------------------------------------------- construction and assignment
    ustring();
    ustring(const ustring& other);
    ustring(ustring&& other) noexcept;
    ustring(const std::wstring& other);
    ustring(std::wstring&& other) noexcept;
    // Null gives empty text; a length other than npos takes exactly that many code units.
    ustring(const wchar_t* text, unsigned int length = npos);
    ustring(unsigned int count, wchar_t ch);
    // Narrow text converted with MultiByteToWideChar under the code page and flags.
    explicit ustring(const std::string& text, unsigned int codePage = CP_ACP, unsigned long flags = 0);
    explicit ustring(const CBStrRef& bstr);
    ~ustring();

    ustring& operator=(const ustring& other);
    ustring& operator=(ustring&& other) noexcept;
    ustring& operator=(const std::wstring& other);
    ustring& operator=(std::wstring&& other) noexcept;
    ustring& operator=(const wchar_t* text); // null assigns empty text
    ustring& operator=(wchar_t ch);
    ustring& operator=(const CBStrRef& bstr);

    ustring& operator+=(const ustring& other);
    ustring& operator+=(const std::wstring& other);
    ustring& operator+=(const wchar_t* text); // null appends nothing
    ustring& operator+=(wchar_t ch);
    ustring& operator+=(const CBStrRef& bstr);

    // The terminated buffer, valid until self changes.
    operator const wchar_t*() const;

    // Unchecked element access.
    wchar_t& operator[](unsigned int index);
    const wchar_t& operator[](unsigned int index) const;
    // Any other integer type forwards here, so `s[0]` is not ambiguous with the built-in
    // subscript of `operator const wchar_t*` (notably on 32-bit, where ptrdiff_t is int).
    template <class I, class = std::enable_if_t<std::is_integral<I>::value && !std::is_same<I, unsigned int>::value>>
    wchar_t& operator[](I index) { return operator[](static_cast<unsigned int>(index)); }
    template <class I, class = std::enable_if_t<std::is_integral<I>::value && !std::is_same<I, unsigned int>::value>>
    const wchar_t& operator[](I index) const { return operator[](static_cast<unsigned int>(index)); }

    // ---------------------------------------------------------- comparison
    // The inherited positional compare overloads are hidden on purpose: `s.compare(L"x")` must
    // be this comparison (raw difference), not the base's.
    // Raw difference of the first differing code units (a missing one counts as 0) within the
    // first maxLength positions; only the sign is meaningful.
    int compare(const ustring& other, unsigned int maxLength = npos, ECaseSensitivity mode = CaseSensitive) const;
    int compareNoCase(const ustring& other, unsigned int maxLength = npos) const;

    bool operator==(const ustring& other) const;
    bool operator!=(const ustring& other) const;
    bool operator<(const ustring& other) const;
    bool operator<=(const ustring& other) const;
    bool operator>(const ustring& other) const;
    bool operator>=(const ustring& other) const;
    bool operator==(const wchar_t* other) const; // null counts as empty text
    bool operator!=(const wchar_t* other) const;
    bool operator<(const wchar_t* other) const;
    bool operator<=(const wchar_t* other) const;
    bool operator>(const wchar_t* other) const;
    bool operator>=(const wchar_t* other) const;
    // Against a plain std::wstring (same code-unit order); these make `u == w` unambiguous.
    bool operator==(const std::wstring& other) const { return base() == other; }
    bool operator!=(const std::wstring& other) const { return base() != other; }
    bool operator<(const std::wstring& other) const { return base() < other; }
    bool operator<=(const std::wstring& other) const { return base() <= other; }
    bool operator>(const std::wstring& other) const { return base() > other; }
    bool operator>=(const std::wstring& other) const { return base() >= other; }

    // Wildcard match ('*' any run, '?' one code unit, no escape); 0 means "matches". After a
    // star whose rest matches no tail of the text, the rest is matched against the whole text
    // again, and that decides the result (its sign orders failed matches). Time grows with the
    // product of text and mask length, never exponentially, and no input recurses.
    int compareWithMask(const ustring& mask, ECaseSensitivity mode = CaseSensitive) const;
    int compareWithMaskNoCase(const ustring& mask) const;

    // ---------------------------------------------------------- case, trimming, filtering
    ustring& strlwr(); // towlower per code unit
    ustring& strupr(); // towupper per code unit

    ustring& trim_left(wchar_t ch = L' ');
    ustring& trim_right(wchar_t ch = L' ');
    ustring& trim(wchar_t ch = L' ');
    ustring& trim_left(const std::vector<wchar_t>& set);
    ustring& trim_right(const std::vector<wchar_t>& set);
    ustring& trim(const std::vector<wchar_t>& set);
    ustring& trim_left(const std::initializer_list<wchar_t>& set);
    ustring& trim_right(const std::initializer_list<wchar_t>& set);
    ustring& trim(const std::initializer_list<wchar_t>& set);

    ustring& leaveAllowedSymbols(const wchar_t* allowed);
    ustring& removeForbiddenSymbols(const wchar_t* forbidden);

    // Strips `open` at the front and `close` at the back when both are there (after trimming
    // spaces when asked); false leaves self as it is.
    bool unwrap(wchar_t open, wchar_t close, bool trimSpaces = false);

    // ---------------------------------------------------------- extraction and replacement
    // The positional substr(pos, count) of the base stays available (it returns std::wstring).
    using std::wstring::substr;
    // Text after the first `from` (or from the start when null; empty when `from` is absent),
    // up to the next `to` after it (or to the end when null or, unless requireTo, absent;
    // empty when requireTo and absent). includeFrom keeps the `from` marker; `to` is never kept.
    ustring substr(const wchar_t* from, const wchar_t* to, bool includeFrom = false, bool requireTo = false) const;

    using std::wstring::replace;
    // Every occurrence, left to right, without rescanning inserted text, in time linear in the
    // text. An empty `what` changes nothing.
    ustring& replace(const ustring& what, const ustring& with);
    // Repeats replace until nothing changes (each pass linear). A `with` that contains `what`
    // would grow the text forever; it is applied in a single pass instead.
    ustring& replace_recursively(const ustring& what, const ustring& with);

    // ---------------------------------------------------------- splitting and joining
    // Splits at every occurrence of the separator text (not a character set); an empty text
    // gives no pieces; a trailing separator gives an empty last piece only when asked; an empty
    // or null separator gives the whole text as one piece. The set forms collapse duplicates.
    // Return the container's size.
    static unsigned int split(const ustring& text, const wchar_t* separator, std::vector<ustring>& out, bool keepTrailingEmpty = false);
    static unsigned int split(const ustring& text, const wchar_t* separator, std::list<ustring>& out, bool keepTrailingEmpty = false);
    static unsigned int split(const ustring& text, const wchar_t* separator, std::deque<ustring>& out, bool keepTrailingEmpty = false);
    static unsigned int split(const ustring& text, const wchar_t* separator, std::set<ustring>& out, bool keepTrailingEmpty = false);
    static unsigned int split(const ustring& text, wchar_t separator, std::vector<ustring>& out, bool keepTrailingEmpty = false);
    static unsigned int split(const ustring& text, wchar_t separator, std::list<ustring>& out, bool keepTrailingEmpty = false);
    static unsigned int split(const ustring& text, wchar_t separator, std::deque<ustring>& out, bool keepTrailingEmpty = false);
    static unsigned int split(const ustring& text, wchar_t separator, std::set<ustring>& out, bool keepTrailingEmpty = false);
    // NUL-separated multi-string (registry REG_MULTI_SZ layout), stopping at the first empty piece.
    static unsigned int split(const ustring& text, std::vector<ustring>& out);
    static unsigned int split(const ustring& text, std::list<ustring>& out);
    static unsigned int split(const ustring& text, std::deque<ustring>& out);
    static unsigned int split(const ustring& text, std::set<ustring>& out);
    // Builds the multi-string read by the separator-less split: each part (trimmed of NULs)
    // followed by one NUL.
    static void join(const std::vector<ustring>& parts, ustring& out);

    // ---------------------------------------------------------- numbers (locale of m_Locale)
    // Fixed-point text; digits < 0 uses the locale's digit count.
    static ustring fcvt(double value, int digits = -1, bool trimZeros = false);
    static ustring i64toa(__int64 value);
    // Grouped decimal, or upper-case hexadecimal without prefix or grouping.
    static ustring ui64toa(unsigned __int64 value, bool hex = false);
    // Spaces, the text "0xA0" and thousands separators are removed before _wcstoi64/_wcstoui64.
    static __int64 atoi64(const wchar_t* text, int radix = 10);
    static unsigned __int64 atoui64(const wchar_t* text, int radix = 10);
    static double strtod(const wchar_t* text);
    // `trailing` tells whether characters were left unconverted.
    static double strtod(const wchar_t* text, bool& trailing);
    // Non-empty and only decimal digits and thousands separators.
    bool isnumber() const;
    // Scaled size ("B", "KB", "MB", "GB" into `unit`) with up to `digits` fraction digits.
    static ustring BytesToStr(unsigned __int64 bytes, int digits, ustring& unit);

    // ---------------------------------------------------------- bytes and GUIDs
    static void Bin2Hex(const std::vector<unsigned char>& bytes, ustring& out);
    // Hexadecimal pairs, whitespace allowed anywhere; false (and `out` empty) on any other code
    // unit. The digits are those iswxdigit reports: ASCII and their full-width forms (U+FF10-FF19,
    // U+FF21-FF26, U+FF41-FF46), which convert to the same values.
    static bool Hex2Bin(const ustring& text, std::vector<unsigned char>& out);
    static bool GUID2String(const GUID& guid, ustring& out);
    static bool String2GUID(const wchar_t* text, GUID& guid);

    // ---------------------------------------------------------- code pages
    // `length` npos means NUL-terminated input. A failed or empty conversion leaves `out` as it
    // was. The pointer forms take no default length or code page so that a code page is never
    // mistaken for a length.
    static void MultiByteToWideChar(ustring& out, const char* text, unsigned int length, unsigned int codePage, unsigned long flags = 0);
    static void MultiByteToWideChar(ustring& out, const std::string& text, unsigned int codePage = CP_ACP, unsigned long flags = 0);
    static ustring MultiByteToWideChar(const char* text, unsigned int length, unsigned int codePage, unsigned long flags = 0);
    static ustring MultiByteToWideChar(const std::string& text, unsigned int codePage = CP_ACP, unsigned long flags = 0);
    static void WideCharToMultiByte(std::string& out, const wchar_t* text, unsigned int length, unsigned int codePage, unsigned long flags = 0);
    static void WideCharToMultiByte(std::string& out, const std::wstring& text, unsigned int codePage = CP_ACP, unsigned long flags = 0);
    static std::string WideCharToMultiByte(const wchar_t* text, unsigned int length, unsigned int codePage, unsigned long flags = 0);
    static std::string WideCharToMultiByte(const std::wstring& text, unsigned int codePage = CP_ACP, unsigned long flags = 0);

    // ---------------------------------------------------------- string resources
    // String resource `id` of `module` into self; false (self empty) when it is missing or empty.
    bool load(HINSTANCE module, unsigned int id);
    static ustring load_stc(HINSTANCE module, unsigned int id);
    // load, then the translator's translation of the text.
    bool xload(HINSTANCE module, unsigned int id);
    static ustring xload_stc(HINSTANCE module, unsigned int id);

    // ---------------------------------------------------------- formatted printing
    // Microsoft C runtime wide printf formats: "%ls" for wide strings, "%I64u"/"%I64X" for
    // 64-bit integers. Empty text for a null format, a format the runtime rejects, and a text
    // longer than 4,194,304 code units (1 << 22; a runaway width or precision such as
    // "%999999999d" would otherwise demand gigabytes). The result has no spare capacity beyond
    // what self already had. An argument may point into self.
    ustring& sprintf(const wchar_t* format, ...);
    static ustring sprintf_stc(const wchar_t* format, ...);
    ustring& vsprintf(const wchar_t* format, va_list args);
    static ustring vsprintf_stc(const wchar_t* format, va_list args);

    // ---------------------------------------------------------- percent escapes
    // Each listed code unit becomes "%" and its hexadecimal code ("%%%02X"); list "%" first to
    // have it escaped only once.
    ustring& replaceForbiddenSymbols(const wchar_t* forbidden);
    // Each code unit that is not iswalnum becomes "%" and its hexadecimal code.
    ustring& replaceNonAlphaNumericSymbols();

protected:
    const std::wstring& base() const noexcept { return *this; }
    // Places a negative sign around self in locale layout `layout` (LOCALE_INEGNUMBER values).
    void add_sign(int layout, const wchar_t* sign);
};

TAVRIN_API ustring operator+(const ustring& left, const ustring& right);

namespace ustring_detail {
template <class T>
using Bare = std::remove_cv_t<std::remove_reference_t<T>>;
template <class T>
struct IsUstring : std::is_same<Bare<T>, ustring>
{
};
// Text that concatenates with a ustring: any std::wstring (ustring included), a wide
// character pointer or array, or one wide character.
template <class T>
struct IsTextOperand
    : std::integral_constant<bool, std::is_base_of<std::wstring, Bare<T>>::value || std::is_same<Bare<T>, wchar_t>::value ||
                                       std::is_convertible<std::decay_t<T>, const wchar_t*>::value>
{
};
inline void AppendText(std::wstring& out, const std::wstring& text) { out.append(text); }
inline void AppendText(std::wstring& out, const wchar_t* text)
{
    if (text)
        out.append(text);
}
inline void AppendText(std::wstring& out, wchar_t ch) { out.push_back(ch); }
} // namespace ustring_detail

// Every other concatenation with a ustring operand (a temporary, a std::wstring, a literal, a
// character) yields a ustring as well. Without this the standard library's rvalue overloads
// compete with the exported operator and the result silently decays to std::wstring.
template <class L, class R,
          std::enable_if_t<(ustring_detail::IsUstring<L>::value || ustring_detail::IsUstring<R>::value) &&
                               ustring_detail::IsTextOperand<L>::value && ustring_detail::IsTextOperand<R>::value,
                           int> = 0>
ustring operator+(L&& left, R&& right)
{
    if constexpr (ustring_detail::IsUstring<L>::value && !std::is_reference<L>::value && !std::is_const<L>::value)
    {
        ustring result(std::move(left)); // reuse a temporary's buffer
        ustring_detail::AppendText(result, right);
        return result;
    }
    else
    {
        ustring result;
        ustring_detail::AppendText(result, left);
        ustring_detail::AppendText(result, right);
        return result;
    }
}

// Orders names by their first embedded number ("COM9" before "COM10"); the surrounding text
// plays no part, so names with the same number are equivalent.
struct TAVRIN_API LessStrWN
{
    bool operator()(const ustring& a, const ustring& b) const;
};

// Ordering of ustring for sets and maps: LessStr<0> case-sensitive, LessStr<1> case-insensitive.
template <int CaseMode>
struct LessStr
{
    bool operator()(const ustring& a, const ustring& b) const
    {
        return a.compare(b, ustring::npos, CaseMode ? CaseInsensitive : CaseSensitive) < 0;
    }
};

} // namespace tavrin
