// ustring: construction, comparison, wildcard matching, trimming, extraction, splitting.
#include <tavrin/core/ustring.h>

#include "core/ustring_internal.h"

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

inline int CompareUnit(wchar_t a, wchar_t b, ECaseSensitivity mode)
{
    const auto x = static_cast<unsigned short>(Fold(a, mode));
    const auto y = static_cast<unsigned short>(Fold(b, mode));
    return x < y ? -1 : (x > y ? 1 : 0);
}

// Wildcard matching.
//
// The result is that of a recursive definition. Text from position a against the mask from
// level t (the t-th star-free segment of the mask): the segment is compared code unit by code
// unit ('?' matches any); at the star after it, every tail of the text from the end of the
// segment on is tried against the rest of the mask, and when none matches, the rest of the mask
// is matched again against the text from a. That restart, and the sign it gives a failed match,
// are long-standing behaviour that callers' sort orders depend on, so they are kept. Taken
// literally the definition costs time exponential in the number of stars and recursion as deep
// as the mask is long.
//
// The result is 0 exactly when some path of steps from (level 0, position 0) ends in a match,
// where a step from (t, p), whose segment matches at p with text remaining after it, goes to
// (t + 1, q) for any q from p + length on (a tail) or for q = p (the restart). So the positions
// reachable at each level are followed forward: they are always one interval [x, end of text]
// plus a few single positions below x, which only restarts create. For an everyday mask that is
// the work of an iterative matcher. A failed match's sign is the definition's own: since no step
// could lead to a match, every star restarts, so the result is that of the first segment that
// fails at position 0. Time O(text x mask) at worst, no recursion.

// A few text positions, on the stack while they are few.
class CPositions
{
public:
    std::size_t size() const { return m_nCount; }
    std::size_t operator[](std::size_t i) const { return i < kLocal ? m_local[i] : m_heap[i - kLocal]; }
    void clear()
    {
        m_nCount = 0;
        m_heap.clear();
    }
    void push_back(std::size_t position)
    {
        if (m_nCount < kLocal)
            m_local[m_nCount] = position;
        else
            m_heap.push_back(position);
        ++m_nCount;
    }
    bool contains(std::size_t position) const
    {
        for (std::size_t i = 0; i < m_nCount; ++i)
            if ((*this)[i] == position)
                return true;
        return false;
    }

private:
    static const std::size_t kLocal = 8;
    std::size_t m_local[kLocal];
    std::vector<std::size_t> m_heap;
    std::size_t m_nCount = 0;
};

// The case mode is a template argument, so that the case-sensitive loops carry no folding.
template <ECaseSensitivity Mode>
class CMaskMatcher
{
public:
    CMaskMatcher(const wchar_t* s, std::size_t n, const wchar_t* m, std::size_t mn)
        : m_s(s), m_n(n), m_m(m), m_nMask(mn)
    {
    }

    int Run()
    {
        // A text that differs from the first segment, or a mask without a star, is decided by
        // the first step alone; otherwise the reachable positions decide.
        std::size_t i = 0, j = 0;
        const int first = CompareSegment(0, 0, i, j);
        if (first != kAtStar)
            return first;
        if (Matches(j))
            return 0;
        // No path leads to a match: each star restarts at position 0 with the next segment.
        for (;;)
        {
            const int result = CompareSegment(j + 1, 0, i, j);
            if (result != kAtStar)
                return result;
        }
    }

private:
    static constexpr int kAtStar = 2;
    static constexpr std::size_t kNone = kNotFound;

    int CompareAt(std::size_t i, std::size_t j) const
    {
        return m_m[j] == L'?' ? 0 : CompareUnit(m_s[i], m_m[j], Mode);
    }

    // Whether only stars are left of the mask from j on.
    bool OnlyStarsFrom(std::size_t j)
    {
        if (m_nLastLiteral == kNone)
        {
            m_nLastLiteral = m_nMask;
            while (m_nLastLiteral > 0 && m_m[m_nLastLiteral - 1] == L'*')
                --m_nLastLiteral;
        }
        return m_nLastLiteral <= j;
    }

    // The segment from mask position `begin` against the text at a: the step's result, or
    // kAtStar when it matched and reached a star with text remaining. `i` and `j` end where the
    // comparison stopped (text and mask).
    int CompareSegment(std::size_t begin, std::size_t a, std::size_t& i, std::size_t& j)
    {
        for (i = a, j = begin;; ++i, ++j)
        {
            const bool segmentEnd = j == m_nMask || m_m[j] == L'*';
            if (i >= m_n) // the text ends first: only stars may be left of the mask
                return segmentEnd && OnlyStarsFrom(j) ? 0 : -1;
            if (segmentEnd) // the mask ends before the text, or a star
                return j == m_nMask ? 1 : kAtStar;
            if (const int diff = CompareAt(i, j))
                return diff;
        }
    }

    // mask[begin, end) equals the text at a (which has room for it).
    bool SegmentMatches(std::size_t begin, std::size_t end, std::size_t a) const
    {
        for (std::size_t j = begin; j < end; ++j, ++a)
            if (CompareAt(a, j) != 0)
                return false;
        return true;
    }

    // The first position from `from` on at which the segment matches with text remaining after
    // it, or kNone. Most positions fail on the segment's first code unit, tested on its own first.
    std::size_t FindSegment(std::size_t begin, std::size_t end, std::size_t from) const
    {
        const std::size_t length = end - begin;
        if (length == 0)
            return from < m_n ? from : kNone;
        const wchar_t first = m_m[begin];
        const wchar_t folded = Fold(first, Mode);
        for (std::size_t p = from; p + length < m_n; ++p)
        {
            if ((first == L'?' || Fold(m_s[p], Mode) == folded) && SegmentMatches(begin, end, p))
                return p;
        }
        return kNone;
    }

    // Whether a path of steps leads from level 0 at position 0 to a match. The level from mask
    // position `star` + 1 on is reached at position 0 (the first segment matched there).
    bool Matches(std::size_t star)
    {
        // Reachable positions of the current level: [x, end of text] and the single `points`
        // below x. Level 0 matched at 0 with text remaining, so level 1 is reached at 0 (the
        // restart) and from level 0's length on.
        std::size_t x = star;
        CPositions points, next;
        if (x > 0)
            points.push_back(0);
        for (std::size_t begin = star + 1;;)
        {
            const std::size_t end = static_cast<std::size_t>(std::find(m_m + begin, m_m + m_nMask, L'*') - m_m);
            const std::size_t length = end - begin;
            const bool last = end == m_nMask;
            // A match: the segment ends the text, and only stars follow it.
            if (m_n >= length)
            {
                const std::size_t p = m_n - length;
                if ((last || OnlyStarsFrom(end)) && (p >= x || points.contains(p)) && SegmentMatches(begin, end, p))
                    return true;
            }
            if (last)
                return false;
            // Steps to the next level: from every position at which the segment matches with
            // text remaining, to that position (restart) and to every one from its end on.
            next.clear();
            std::size_t nextX = kNone;
            for (std::size_t k = 0; k < points.size(); ++k)
            {
                const std::size_t p = points[k];
                if (p + length < m_n && SegmentMatches(begin, end, p))
                {
                    next.push_back(p);
                    nextX = std::min(nextX, p + length);
                }
            }
            const std::size_t v = FindSegment(begin, end, x);
            if (v != kNone)
            {
                nextX = std::min(nextX, v + length);
                // Positions of the interval where the segment matches below the new interval's
                // start stay single positions.
                for (std::size_t w = v; w < nextX; ++w)
                    if (w == v || (w + length < m_n && SegmentMatches(begin, end, w)))
                        next.push_back(w);
            }
            if (nextX == kNone)
                return false;
            points.clear();
            for (std::size_t k = 0; k < next.size(); ++k)
                if (next[k] < nextX)
                    points.push_back(next[k]);
            x = nextX;
            begin = end + 1;
        }
    }

    const wchar_t* m_s;
    std::size_t m_n;
    const wchar_t* m_m;
    std::size_t m_nMask;
    std::size_t m_nLastLiteral = kNone;
};

int MatchMask(const wchar_t* s, std::size_t n, const wchar_t* m, std::size_t mn, ECaseSensitivity mode)
{
    if (mode == CaseSensitive)
        return CMaskMatcher<CaseSensitive>(s, n, m, mn).Run();
    return CMaskMatcher<CaseInsensitive>(s, n, m, mn).Run();
}

inline bool InSet(const wchar_t* set, std::size_t count, wchar_t ch)
{
    return std::find(set, set + count, ch) != set + count;
}

inline bool InList(const wchar_t* list, wchar_t ch)
{
    // wcschr would also find the terminator itself; a NUL code unit is never "in" the list.
    return list && ch != L'\0' && std::wcschr(list, ch) != nullptr;
}

// Removes the code units that are in the set from the front and/or the back of the text.
void TrimSet(std::wstring& text, const wchar_t* set, std::size_t count, bool front, bool back)
{
    std::size_t end = text.size();
    if (back)
    {
        while (end > 0 && InSet(set, count, text[end - 1]))
            --end;
        text.erase(end);
    }
    if (front)
    {
        std::size_t begin = 0;
        while (begin < end && InSet(set, count, text[begin]))
            ++begin;
        text.erase(0, begin);
    }
}

// Fills a sequence container with pieces, reusing the strings it already holds (and their
// storage) before appending new ones; what is left over goes at the end.
template <class C>
class CPieceWriter
{
public:
    explicit CPieceWriter(C& out) : m_out(out), m_next(out.begin()) {}

    void Add(const wchar_t* piece, std::size_t length)
    {
        if (m_next != m_out.end())
        {
            m_next->assign(piece, length);
            ++m_next;
        }
        else
        {
            m_out.emplace_back();
            m_out.back().assign(piece, length);
            m_next = m_out.end();
        }
    }

    unsigned int Finish()
    {
        m_out.erase(m_next, m_out.end());
        return static_cast<unsigned int>(m_out.size());
    }

private:
    C& m_out;
    typename C::iterator m_next;
};

// A set orders its pieces and collapses duplicates, so it is cleared and filled.
template <>
class CPieceWriter<std::set<ustring>>
{
public:
    explicit CPieceWriter(std::set<ustring>& out) : m_out(out) { m_out.clear(); }
    void Add(const wchar_t* piece, std::size_t length) { m_out.insert(ustring(std::wstring(piece, length))); }
    unsigned int Finish() { return static_cast<unsigned int>(m_out.size()); }

private:
    std::set<ustring>& m_out;
};

// One splitting algorithm for every container and separator form. An empty separator would
// never advance; it is treated as absent, giving the whole text as the only piece.
template <class C>
unsigned int SplitBySeparator(const ustring& text, const wchar_t* separator, std::size_t separatorLength, C& out,
                              bool keepTrailingEmpty)
{
    CPieceWriter<C> writer(out);
    const wchar_t* const data = text.data();
    const std::size_t length = text.size();
    std::size_t pos = 0;
    while (pos < length)
    {
        const std::size_t hit = separatorLength == 1 ? text.find(*separator, pos)
                                : separatorLength ? text.find(separator, pos, separatorLength)
                                                  : kNotFound;
        if (hit == kNotFound)
        {
            writer.Add(data + pos, length - pos);
            pos = kNotFound;
        }
        else
        {
            writer.Add(data + pos, hit - pos);
            pos = hit + separatorLength;
        }
        if (pos == length && keepTrailingEmpty)
            writer.Add(data, 0);
    }
    return writer.Finish();
}

// Reads a NUL-separated list up to its first empty piece, never past the text's own end.
template <class C>
unsigned int SplitMultiString(const ustring& text, C& out)
{
    CPieceWriter<C> writer(out);
    const wchar_t* p = text.c_str();
    const wchar_t* const end = p + text.size();
    while (p < end && *p != L'\0')
    {
        const wchar_t* const stop = std::find(p, end, L'\0');
        writer.Add(p, static_cast<std::size_t>(stop - p));
        p = stop + 1;
    }
    return writer.Finish();
}

// Replaces every occurrence of `what` (not empty, not aliasing the text) by `with` in one pass;
// false when there was none. A replacement that is not longer works in place; a longer one builds
// the result once, at its final size.
bool ReplaceAll(std::wstring& text, std::wstring_view what, std::wstring_view with)
{
    const std::size_t first = text.find(what.data(), 0, what.size());
    if (first == kNotFound)
        return false;
    if (with.size() <= what.size())
    {
        text.resize(first + detail::ReplaceInPlace(&text[first], text.size() - first, what, with));
        return true;
    }
    const std::wstring_view source(text);
    const std::size_t count = 1 + detail::CountOccurrences(source.substr(first + what.size()), what);
    std::wstring result;
    result.reserve(text.size() + count * (with.size() - what.size()));
    std::size_t pos = 0;
    for (std::size_t hit = first; hit != kNotFound; hit = source.find(what, pos))
    {
        result.append(source.data() + pos, hit - pos);
        result.append(with.data(), with.size());
        pos = hit + what.size();
    }
    result.append(source.data() + pos, source.size() - pos);
    text.swap(result);
    return true;
}

} // namespace

// ---------------------------------------------------------------- shared text helpers

std::size_t detail::ReplaceInPlace(wchar_t* text, std::size_t length, std::wstring_view what, std::wstring_view with)
{
    // The untouched source [read, length) always lies at or after the written result [0, write).
    const std::wstring_view source(text, length);
    std::size_t read = 0;
    std::size_t write = 0;
    for (std::size_t hit = source.find(what); hit != kNotFound; hit = source.find(what, read))
    {
        std::wmemmove(text + write, text + read, hit - read);
        write += hit - read;
        std::wmemcpy(text + write, with.data(), with.size());
        write += with.size();
        read = hit + what.size();
    }
    std::wmemmove(text + write, text + read, length - read);
    return write + (length - read);
}

std::size_t detail::CountOccurrences(std::wstring_view text, std::wstring_view what)
{
    std::size_t count = 0;
    for (std::size_t hit = text.find(what); hit != kNotFound; hit = text.find(what, hit + what.size()))
        ++count;
    return count;
}

detail::CScratchText::CScratchText(const wchar_t* text, wchar_t drop) : m_pText(m_local), m_nLength(0)
{
    const std::size_t length = SafeLength(text);
    if (length >= kLocal)
    {
        m_heap.reset(new wchar_t[length + 1]);
        m_pText = m_heap.get();
    }
    for (std::size_t i = 0; i < length; ++i)
    {
        if (text[i] != drop)
            m_pText[m_nLength++] = text[i];
    }
    m_pText[m_nLength] = L'\0';
}

void detail::CScratchText::Replace(const wchar_t* what, std::wstring_view with)
{
    const std::size_t whatLength = SafeLength(what);
    if (whatLength == 0)
        return;
    m_nLength = ReplaceInPlace(m_pText, m_nLength, std::wstring_view(what, whatLength), with);
    m_pText[m_nLength] = L'\0';
}

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

// The set forms read the set in place, so the initializer-list forms need no copy of it.
ustring& ustring::trim_left(const std::vector<wchar_t>& set)
{
    TrimSet(*this, set.data(), set.size(), true, false);
    return *this;
}

ustring& ustring::trim_right(const std::vector<wchar_t>& set)
{
    TrimSet(*this, set.data(), set.size(), false, true);
    return *this;
}

ustring& ustring::trim(const std::vector<wchar_t>& set)
{
    TrimSet(*this, set.data(), set.size(), true, true);
    return *this;
}

ustring& ustring::trim_left(const std::initializer_list<wchar_t>& set)
{
    TrimSet(*this, set.begin(), set.size(), true, false);
    return *this;
}

ustring& ustring::trim_right(const std::initializer_list<wchar_t>& set)
{
    TrimSet(*this, set.begin(), set.size(), false, true);
    return *this;
}

ustring& ustring::trim(const std::initializer_list<wchar_t>& set)
{
    TrimSet(*this, set.begin(), set.size(), true, true);
    return *this;
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
    if (&what == this || &with == this)
        return replace(ustring(what), ustring(with));
    ReplaceAll(*this, what, with);
    return *this;
}

ustring& ustring::replace_recursively(const ustring& what, const ustring& with)
{
    if (what.empty())
        return *this;
    if (&what == this || &with == this)
        return replace_recursively(ustring(what), ustring(with));
    // A replacement that contains the searched text would grow without end: one pass only.
    if (with.find(what) != kNotFound)
        return replace(what, with);
    // Since `with` differs from `what`, a pass changes the text exactly when it finds an
    // occurrence, so no copy is needed to see that nothing changed.
    while (ReplaceAll(*this, what, with))
    {
    }
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
