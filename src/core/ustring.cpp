// ustring: construction, comparison, wildcard matching, trimming, extraction, splitting.
#include <tavrin/core/ustring.h>

#include <algorithm>
#include <cstdlib>
#include <cwchar>
#include <cwctype>

namespace tavrin {

namespace {

// The base string's "not found"; differs from ustring::npos on 64-bit.
constexpr std::size_t kNotFound = std::wstring::npos;

inline wchar_t Fold(wchar_t ch, ECaseSensitivity mode)
{
    return mode != CaseSensitive ? static_cast<wchar_t>(::towlower(ch)) : ch;
}

inline std::size_t SafeLength(const wchar_t* text)
{
    return text ? std::wcslen(text) : 0;
}

// The comparison core shared by compare and the operators: a position past a text's end reads
// as 0, so a prefix orders before the longer text; the result is the raw code-unit difference.
int CompareUnits(const wchar_t* a, std::size_t an, const wchar_t* b, std::size_t bn, std::size_t maxLength,
                 ECaseSensitivity mode)
{
    const std::size_t limit = std::min(std::max(an, bn), maxLength);
    for (std::size_t i = 0; i < limit; ++i)
    {
        const wchar_t ca = i < an ? Fold(a[i], mode) : L'\0';
        const wchar_t cb = i < bn ? Fold(b[i], mode) : L'\0';
        if (ca != cb)
            return static_cast<int>(static_cast<unsigned short>(ca)) - static_cast<int>(static_cast<unsigned short>(cb));
    }
    return 0;
}

// Wildcard match of text s against mask m. After a '*' every tail of s is tried against the rest
// of the mask; when none matches, the rest of the mask is matched against the whole of s again.
// That restart is long-standing behaviour that callers' sort orders depend on, so it is kept.
int MatchMask(const wchar_t* s, std::size_t sn, const wchar_t* m, std::size_t mn, ECaseSensitivity mode)
{
    std::size_t i = 0;
    std::size_t j = 0;
    while (i < sn)
    {
        if (j >= mn)
            return 1;
        if (m[j] == L'*')
        {
            const wchar_t* rest = m + j + 1;
            const std::size_t restLength = mn - j - 1;
            for (std::size_t k = i; k <= sn; ++k)
            {
                if (MatchMask(s + k, sn - k, rest, restLength, mode) == 0)
                    return 0;
            }
            return MatchMask(s, sn, rest, restLength, mode);
        }
        if (m[j] != L'?')
        {
            const int diff = CompareUnits(s + i, 1, m + j, 1, 1, mode);
            if (diff < 0)
                return -1;
            if (diff > 0)
                return 1;
        }
        ++i;
        ++j;
    }
    while (j < mn && m[j] == L'*')
        ++j;
    return j == mn ? 0 : -1;
}

inline bool InSet(const std::vector<wchar_t>& set, wchar_t ch)
{
    return std::find(set.begin(), set.end(), ch) != set.end();
}

inline bool InList(const wchar_t* list, wchar_t ch)
{
    // wcschr would also find the terminator itself; a NUL code unit is never "in" the list.
    return list && ch != L'\0' && std::wcschr(list, ch) != nullptr;
}

template <class C>
inline void AddPiece(C& out, std::wstring&& piece)
{
    out.push_back(ustring(std::move(piece)));
}

inline void AddPiece(std::set<ustring>& out, std::wstring&& piece)
{
    out.insert(ustring(std::move(piece)));
}

// One splitting algorithm for every container and separator form. An empty separator would
// never advance; it is treated as absent, giving the whole text as the only piece.
template <class C>
unsigned int SplitBySeparator(const ustring& text, const wchar_t* separator, std::size_t separatorLength, C& out,
                              bool keepTrailingEmpty)
{
    out.clear();
    const std::size_t length = text.size();
    std::size_t pos = 0;
    while (pos < length)
    {
        const std::size_t hit = separatorLength ? text.find(separator, pos, separatorLength) : kNotFound;
        if (hit == kNotFound)
        {
            AddPiece(out, text.std::wstring::substr(pos));
            pos = kNotFound;
        }
        else
        {
            AddPiece(out, text.std::wstring::substr(pos, hit - pos));
            pos = hit + separatorLength;
        }
        if (pos == length && keepTrailingEmpty)
            AddPiece(out, std::wstring());
    }
    return static_cast<unsigned int>(out.size());
}

// Reads a NUL-separated list up to its first empty piece, never past the text's own end.
template <class C>
unsigned int SplitMultiString(const ustring& text, C& out)
{
    out.clear();
    const wchar_t* p = text.c_str();
    const wchar_t* const end = p + text.size();
    while (p < end && *p != L'\0')
    {
        const wchar_t* const stop = std::find(p, end, L'\0');
        AddPiece(out, std::wstring(p, stop));
        p = stop + 1;
    }
    return static_cast<unsigned int>(out.size());
}

} // namespace

const unsigned int ustring::npos;

// ---------------------------------------------------------------- construction and assignment

ustring::ustring() = default;
ustring::ustring(const ustring& other) = default;
ustring::ustring(ustring&& other) noexcept = default;
ustring::ustring(const std::wstring& other) : std::wstring(other) {}
ustring::ustring(std::wstring&& other) noexcept : std::wstring(std::move(other)) {}

ustring::ustring(const wchar_t* text, unsigned int length)
{
    if (!text)
        return;
    if (length == npos)
        std::wstring::assign(text);
    else
        std::wstring::assign(text, length);
}

ustring::ustring(unsigned int count, wchar_t ch) : std::wstring(count, ch) {}

ustring::ustring(const std::string& text, unsigned int codePage, unsigned long flags)
{
    MultiByteToWideChar(*this, text, codePage, flags);
}

ustring::ustring(const CBStrRef& bstr)
{
    if (bstr.Get())
        std::wstring::assign(bstr.Get(), bstr.Length());
}

ustring::~ustring() = default;

ustring& ustring::operator=(const ustring& other) = default;
ustring& ustring::operator=(ustring&& other) noexcept = default;

ustring& ustring::operator=(const std::wstring& other)
{
    std::wstring::operator=(other);
    return *this;
}

ustring& ustring::operator=(std::wstring&& other) noexcept
{
    std::wstring::operator=(std::move(other));
    return *this;
}

ustring& ustring::operator=(const wchar_t* text)
{
    if (text)
        std::wstring::assign(text);
    else
        clear();
    return *this;
}

ustring& ustring::operator=(wchar_t ch)
{
    std::wstring::assign(1, ch);
    return *this;
}

ustring& ustring::operator=(const CBStrRef& bstr)
{
    if (bstr.Get())
        std::wstring::assign(bstr.Get(), bstr.Length());
    else
        clear();
    return *this;
}

ustring& ustring::operator+=(const ustring& other)
{
    std::wstring::append(other);
    return *this;
}

ustring& ustring::operator+=(const std::wstring& other)
{
    std::wstring::append(other);
    return *this;
}

ustring& ustring::operator+=(const wchar_t* text)
{
    if (text)
        std::wstring::append(text);
    return *this;
}

ustring& ustring::operator+=(wchar_t ch)
{
    std::wstring::push_back(ch);
    return *this;
}

ustring& ustring::operator+=(const CBStrRef& bstr)
{
    if (bstr.Get())
        std::wstring::append(bstr.Get(), bstr.Length());
    return *this;
}

ustring::operator const wchar_t*() const
{
    return c_str();
}

wchar_t& ustring::operator[](unsigned int index)
{
    return std::wstring::operator[](index);
}

const wchar_t& ustring::operator[](unsigned int index) const
{
    return std::wstring::operator[](index);
}

ustring operator+(const ustring& left, const ustring& right)
{
    ustring result;
    result.reserve(left.size() + right.size());
    result += left;
    result += right;
    return result;
}

// ---------------------------------------------------------------- comparison

int ustring::compare(const ustring& other, unsigned int maxLength, ECaseSensitivity mode) const
{
    return CompareUnits(data(), size(), other.data(), other.size(), maxLength, mode);
}

int ustring::compareNoCase(const ustring& other, unsigned int maxLength) const
{
    return compare(other, maxLength, CaseInsensitive);
}

bool ustring::operator==(const ustring& other) const { return compare(other, npos, CaseSensitive) == 0; }
bool ustring::operator!=(const ustring& other) const { return compare(other, npos, CaseSensitive) != 0; }
bool ustring::operator<(const ustring& other) const { return compare(other, npos, CaseSensitive) < 0; }
bool ustring::operator<=(const ustring& other) const { return compare(other, npos, CaseSensitive) <= 0; }
bool ustring::operator>(const ustring& other) const { return compare(other, npos, CaseSensitive) > 0; }
bool ustring::operator>=(const ustring& other) const { return compare(other, npos, CaseSensitive) >= 0; }

namespace {
// The pointer forms compare in place instead of building a ustring; null reads as empty text.
inline int ComparePointer(const ustring& self, const wchar_t* other)
{
    return CompareUnits(self.data(), self.size(), other ? other : L"", SafeLength(other), ustring::npos, CaseSensitive);
}
} // namespace

bool ustring::operator==(const wchar_t* other) const { return ComparePointer(*this, other) == 0; }
bool ustring::operator!=(const wchar_t* other) const { return ComparePointer(*this, other) != 0; }
bool ustring::operator<(const wchar_t* other) const { return ComparePointer(*this, other) < 0; }
bool ustring::operator<=(const wchar_t* other) const { return ComparePointer(*this, other) <= 0; }
bool ustring::operator>(const wchar_t* other) const { return ComparePointer(*this, other) > 0; }
bool ustring::operator>=(const wchar_t* other) const { return ComparePointer(*this, other) >= 0; }

int ustring::compareWithMask(const ustring& mask, ECaseSensitivity mode) const
{
    return MatchMask(data(), size(), mask.data(), mask.size(), mode);
}

int ustring::compareWithMaskNoCase(const ustring& mask) const
{
    return compareWithMask(mask, CaseInsensitive);
}

bool LessStrWN::operator()(const ustring& a, const ustring& b) const
{
    // The first embedded number decides; text without digits counts as 0.
    const auto number = [](const ustring& text) {
        const auto digit = std::find_if(text.begin(), text.end(), [](wchar_t ch) { return ::iswdigit(ch) != 0; });
        return ::_wtoi(text.c_str() + (digit - text.begin()));
    };
    return number(a) < number(b);
}

// ---------------------------------------------------------------- case, trimming, filtering

ustring& ustring::strlwr()
{
    for (wchar_t& ch : static_cast<std::wstring&>(*this))
        ch = static_cast<wchar_t>(::towlower(ch));
    return *this;
}

ustring& ustring::strupr()
{
    for (wchar_t& ch : static_cast<std::wstring&>(*this))
        ch = static_cast<wchar_t>(::towupper(ch));
    return *this;
}

ustring& ustring::trim_left(wchar_t ch)
{
    std::wstring::erase(0, std::min(size(), find_first_not_of(ch)));
    return *this;
}

ustring& ustring::trim_right(wchar_t ch)
{
    const std::size_t last = find_last_not_of(ch);
    std::wstring::erase(last == kNotFound ? 0 : last + 1);
    return *this;
}

ustring& ustring::trim(wchar_t ch)
{
    return trim_left(ch).trim_right(ch);
}

ustring& ustring::trim_left(const std::vector<wchar_t>& set)
{
    std::size_t count = 0;
    while (count < size() && InSet(set, data()[count]))
        ++count;
    std::wstring::erase(0, count);
    return *this;
}

ustring& ustring::trim_right(const std::vector<wchar_t>& set)
{
    std::size_t keep = size();
    while (keep > 0 && InSet(set, data()[keep - 1]))
        --keep;
    std::wstring::erase(keep);
    return *this;
}

ustring& ustring::trim(const std::vector<wchar_t>& set)
{
    return trim_left(set).trim_right(set);
}

ustring& ustring::trim_left(const std::initializer_list<wchar_t>& set)
{
    return trim_left(std::vector<wchar_t>(set));
}

ustring& ustring::trim_right(const std::initializer_list<wchar_t>& set)
{
    return trim_right(std::vector<wchar_t>(set));
}

ustring& ustring::trim(const std::initializer_list<wchar_t>& set)
{
    return trim(std::vector<wchar_t>(set));
}

ustring& ustring::leaveAllowedSymbols(const wchar_t* allowed)
{
    std::wstring::erase(std::remove_if(begin(), end(), [allowed](wchar_t ch) { return !InList(allowed, ch); }), end());
    return *this;
}

ustring& ustring::removeForbiddenSymbols(const wchar_t* forbidden)
{
    std::wstring::erase(std::remove_if(begin(), end(), [forbidden](wchar_t ch) { return InList(forbidden, ch); }), end());
    return *this;
}

bool ustring::unwrap(wchar_t open, wchar_t close, bool trimSpaces)
{
    if (trimSpaces)
        trim(L' ');
    if (empty() || front() != open || back() != close)
        return false;
    pop_back();
    if (!empty()) // a one-character text was both markers at once
        std::wstring::erase(0, 1);
    return true;
}

// ---------------------------------------------------------------- extraction and replacement

ustring ustring::substr(const wchar_t* from, const wchar_t* to, bool includeFrom, bool requireTo) const
{
    if (empty())
        return ustring();
    std::size_t start = 0;
    const std::size_t fromLength = SafeLength(from);
    if (from)
    {
        start = find(from, 0, fromLength);
        if (start == kNotFound)
            return ustring();
    }
    std::size_t stop = kNotFound;
    if (to)
    {
        stop = find(to, from ? start + fromLength : 0, SafeLength(to));
        if (stop == kNotFound && requireTo)
            return ustring();
    }
    if (from && !includeFrom)
        start += fromLength;
    return ustring(std::wstring::substr(start, stop == kNotFound ? kNotFound : stop - start));
}

ustring& ustring::replace(const ustring& what, const ustring& with)
{
    if (what.empty())
        return *this; // nothing to find; searching for "" would never advance
    std::size_t pos = 0;
    while ((pos = find(what, pos)) != kNotFound)
    {
        std::wstring::replace(pos, what.size(), with);
        pos += with.size();
    }
    return *this;
}

ustring& ustring::replace_recursively(const ustring& what, const ustring& with)
{
    if (what.empty())
        return *this;
    // A replacement that contains the searched text would grow without end: one pass only.
    if (with.find(what) != kNotFound)
        return replace(what, with);
    std::wstring previous;
    do
    {
        previous = *this;
        replace(what, with);
    } while (static_cast<const std::wstring&>(*this) != previous);
    return *this;
}

// ---------------------------------------------------------------- splitting and joining

unsigned int ustring::split(const ustring& text, const wchar_t* separator, std::vector<ustring>& out, bool keepTrailingEmpty)
{
    return SplitBySeparator(text, separator, SafeLength(separator), out, keepTrailingEmpty);
}

unsigned int ustring::split(const ustring& text, const wchar_t* separator, std::list<ustring>& out, bool keepTrailingEmpty)
{
    return SplitBySeparator(text, separator, SafeLength(separator), out, keepTrailingEmpty);
}

unsigned int ustring::split(const ustring& text, const wchar_t* separator, std::deque<ustring>& out, bool keepTrailingEmpty)
{
    return SplitBySeparator(text, separator, SafeLength(separator), out, keepTrailingEmpty);
}

unsigned int ustring::split(const ustring& text, const wchar_t* separator, std::set<ustring>& out, bool keepTrailingEmpty)
{
    return SplitBySeparator(text, separator, SafeLength(separator), out, keepTrailingEmpty);
}

unsigned int ustring::split(const ustring& text, wchar_t separator, std::vector<ustring>& out, bool keepTrailingEmpty)
{
    return SplitBySeparator(text, &separator, 1, out, keepTrailingEmpty);
}

unsigned int ustring::split(const ustring& text, wchar_t separator, std::list<ustring>& out, bool keepTrailingEmpty)
{
    return SplitBySeparator(text, &separator, 1, out, keepTrailingEmpty);
}

unsigned int ustring::split(const ustring& text, wchar_t separator, std::deque<ustring>& out, bool keepTrailingEmpty)
{
    return SplitBySeparator(text, &separator, 1, out, keepTrailingEmpty);
}

unsigned int ustring::split(const ustring& text, wchar_t separator, std::set<ustring>& out, bool keepTrailingEmpty)
{
    return SplitBySeparator(text, &separator, 1, out, keepTrailingEmpty);
}

unsigned int ustring::split(const ustring& text, std::vector<ustring>& out)
{
    return SplitMultiString(text, out);
}

unsigned int ustring::split(const ustring& text, std::list<ustring>& out)
{
    return SplitMultiString(text, out);
}

unsigned int ustring::split(const ustring& text, std::deque<ustring>& out)
{
    return SplitMultiString(text, out);
}

unsigned int ustring::split(const ustring& text, std::set<ustring>& out)
{
    return SplitMultiString(text, out);
}

void ustring::join(const std::vector<ustring>& parts, ustring& out)
{
    // Built aside so that `out` may itself be one of the parts.
    ustring result;
    for (const ustring& part : parts)
    {
        ustring piece(part);
        result += piece.trim(L'\0');
        result += L'\0';
    }
    out.swap(result);
}

} // namespace tavrin
