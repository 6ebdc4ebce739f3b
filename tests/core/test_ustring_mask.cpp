// compareWithMask against a step-by-step transcription of its matching algorithm (recursion and
// restart included) on every small case and on seeded random ones in both case modes, and on
// inputs whose literal evaluation would take exponential time or recurse as deep as the mask.
#include <tavrin/core/ustring.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <cwctype>
#include <random>
#include <string>
#include <vector>

using namespace tavrin;

namespace {

// The matching algorithm as it is defined, with i walking the text from `from` and j walking
// the mask from `maskFrom`. A memo, when given, holds results by (from, maskFrom) so that longer
// cases stay affordable; the recursion is the same.
class CReferenceMask
{
public:
    CReferenceMask(const std::wstring& text, const std::wstring& mask, bool fold, bool memo)
        : m_text(text), m_mask(mask), m_bFold(fold)
    {
        if (memo)
            m_memo.assign((text.size() + 1) * (mask.size() + 1), kUnknown);
    }

    int Match(std::size_t from = 0, std::size_t maskFrom = 0)
    {
        if (m_memo.empty())
            return Evaluate(from, maskFrom);
        signed char& slot = m_memo[from * (m_mask.size() + 1) + maskFrom];
        if (slot == kUnknown)
            slot = static_cast<signed char>(Evaluate(from, maskFrom));
        return slot;
    }

private:
    static constexpr signed char kUnknown = 2;

    unsigned short Unit(wchar_t ch) const
    {
        return static_cast<unsigned short>(m_bFold ? static_cast<wchar_t>(::towlower(ch)) : ch);
    }

    int Evaluate(std::size_t from, std::size_t maskFrom)
    {
        std::size_t i = from;
        std::size_t j = maskFrom;
        while (i < m_text.size())
        {
            if (j >= m_mask.size())
                return 1;
            if (m_mask[j] == L'*')
            {
                for (std::size_t k = i; k <= m_text.size(); ++k)
                {
                    if (Match(k, j + 1) == 0)
                        return 0;
                }
                return Match(from, j + 1); // the restart from the first code unit of this text
            }
            if (m_mask[j] != L'?')
            {
                const int diff = static_cast<int>(Unit(m_text[i])) - static_cast<int>(Unit(m_mask[j]));
                if (diff < 0)
                    return -1;
                if (diff > 0)
                    return 1;
            }
            ++i;
            ++j;
        }
        while (j < m_mask.size() && m_mask[j] == L'*')
            ++j;
        return j == m_mask.size() ? 0 : -1;
    }

    const std::wstring& m_text;
    const std::wstring& m_mask;
    bool m_bFold;
    std::vector<signed char> m_memo;
};

int Reference(const std::wstring& text, const std::wstring& mask, ECaseSensitivity mode, bool memo = false)
{
    return CReferenceMask(text, mask, mode != CaseSensitive, memo).Match();
}

std::string Describe(const std::wstring& text, const std::wstring& mask, ECaseSensitivity mode)
{
    std::string out = "text \"";
    for (wchar_t ch : text)
        out += ch < 0x80 ? static_cast<char>(ch) : '#';
    out += "\" mask \"";
    for (wchar_t ch : mask)
        out += ch < 0x80 ? static_cast<char>(ch) : '#';
    out += mode == CaseSensitive ? "\" case-sensitive" : "\" case-insensitive";
    return out;
}

// Compares the library with the reference on one case; reports at most a few differences.
class CMaskChecker
{
public:
    void Check(const std::wstring& text, const std::wstring& mask, ECaseSensitivity mode, bool memo = false)
    {
        ++m_nCases;
        const int expected = Reference(text, mask, mode, memo);
        const int actual = ustring(text).compareWithMask(mask, mode);
        if (actual != expected && ++m_nDifferences <= 10)
            ADD_FAILURE() << Describe(text, mask, mode) << ": expected " << expected << ", got " << actual;
    }
    unsigned int Cases() const { return m_nCases; }

private:
    unsigned int m_nCases = 0;
    unsigned int m_nDifferences = 0;
};

// Every text of the alphabet up to the given length.
std::vector<std::wstring> AllTexts(const std::wstring& alphabet, std::size_t maxLength)
{
    std::vector<std::wstring> texts{L""};
    for (std::size_t begin = 0, length = 1; length <= maxLength; ++length)
    {
        const std::size_t end = texts.size();
        for (std::size_t i = begin; i < end; ++i)
            for (wchar_t ch : alphabet)
                texts.push_back(texts[i] + ch);
        begin = end;
    }
    return texts;
}

std::wstring Repeat(const std::wstring& piece, std::size_t count)
{
    std::wstring out;
    for (std::size_t i = 0; i < count; ++i)
        out += piece;
    return out;
}

// `count` pieces chosen by `pick`, one after the other.
template <class Pick>
std::wstring Build(std::size_t count, Pick pick)
{
    std::wstring out;
    for (; count > 0; --count)
        out += pick();
    return out;
}

} // namespace

TEST(UstringMaskProperty, EverySmallCaseMatchesTheDefinition)
{
    CMaskChecker checker;
    const std::vector<std::wstring> texts = AllTexts(L"aAb", 3);
    const std::vector<std::wstring> masks = AllTexts(L"ab*?", 5);
    for (const std::wstring& text : texts)
        for (const std::wstring& mask : masks)
            for (ECaseSensitivity mode : {CaseSensitive, CaseInsensitive})
                checker.Check(text, mask, mode);
    EXPECT_EQ(checker.Cases(), 40u * 1365u * 2u);
}

TEST(UstringMaskProperty, SeededRandomCasesMatchTheDefinition)
{
    // Letters in both cases, the wildcard characters themselves in the text, code units beyond
    // ASCII (the comparison is on unsigned 16-bit values) and masks rich in stars.
    const std::wstring textAlphabet(L"aaabbbABc?*\x00E4\x00C4\xFFFF", 14);
    const std::wstring maskAlphabet(L"aabbABc??***\x00E4\xFFFF", 14);
    std::mt19937 random(20261123u);
    std::uniform_int_distribution<std::size_t> textLength(0, 7);
    std::uniform_int_distribution<std::size_t> maskLength(0, 6);
    std::uniform_int_distribution<std::size_t> textUnit(0, textAlphabet.size() - 1);
    std::uniform_int_distribution<std::size_t> maskUnit(0, maskAlphabet.size() - 1);

    CMaskChecker checker;
    for (unsigned int n = 0; n < 100000; ++n)
    {
        const std::wstring text = Build(textLength(random), [&] { return textAlphabet[textUnit(random)]; });
        const std::wstring mask = Build(maskLength(random), [&] { return maskAlphabet[maskUnit(random)]; });
        checker.Check(text, mask, CaseSensitive);
        checker.Check(text, mask, CaseInsensitive);
    }
    EXPECT_EQ(checker.Cases(), 200000u);
}

TEST(UstringMaskProperty, LongerTextsMatchTheMemoisedDefinition)
{
    // Texts of 40 to 320 code units, built from a few pieces so that masks built from the same
    // pieces often match, or nearly.
    const std::vector<std::wstring> pieces{L"ab", L"b", L"Ab", L"a", L"ba", L"x"};
    const std::vector<std::wstring> maskPieces{L"*", L"*", L"a", L"b", L"?", L"ab", L"A", L"*b", L"x"};
    std::mt19937 random(77u);
    std::uniform_int_distribution<std::size_t> piece(0, pieces.size() - 1);
    std::uniform_int_distribution<std::size_t> maskPiece(0, maskPieces.size() - 1);
    std::uniform_int_distribution<std::size_t> textPieces(40, 160);
    std::uniform_int_distribution<std::size_t> maskPieceCount(1, 10);

    CMaskChecker checker;
    for (unsigned int n = 0; n < 300; ++n)
    {
        const std::wstring text = Build(textPieces(random), [&] { return pieces[piece(random)]; });
        const std::wstring mask = Build(maskPieceCount(random), [&] { return maskPieces[maskPiece(random)]; });
        checker.Check(text, mask, n % 2 ? CaseInsensitive : CaseSensitive, true);
        // The text's own tail as the mask's end makes a match after the stars likely.
        checker.Check(text, mask + text.substr(text.size() - 3), CaseSensitive, true);
    }
    EXPECT_EQ(checker.Cases(), 600u);
}

// Inputs whose literal evaluation takes time that grows as (text length) to the power of the
// number of stars, or recursion as deep as the mask: each must simply answer.
TEST(UstringMaskPathological, ManyStarsAndLongTextsAnswer)
{
    const std::wstring as(10000, L'a');
    // 20 stars against 10,000 code units, failing at the very end: every tail is a candidate.
    EXPECT_EQ(ustring(as).compareWithMask(Repeat(L"*a", 20) + L"*b"), -1);
    EXPECT_EQ(ustring(as).compareWithMaskNoCase(Repeat(L"*A", 20) + L"*B"), -1);
    // The same shape matching.
    EXPECT_EQ(ustring(as + L"b").compareWithMask(Repeat(L"*a", 20) + L"*b"), 0);
    EXPECT_EQ(ustring(Repeat(L"ab", 5000)).compareWithMask(Repeat(L"*a*b", 10)), 0);
    // 3 stars against 10,000 and 5 stars against 100 code units, no match anywhere.
    EXPECT_EQ(ustring(as).compareWithMask(L"*a*b*c"), -1);
    EXPECT_EQ(ustring(std::wstring(100, L'a')).compareWithMask(L"*a*a*a*a*a?b"), -1);
    // 28 stars against one code unit (doubling time per star, taken literally).
    EXPECT_EQ(ustring(L"a").compareWithMask(std::wstring(28, L'*') + L"b"), -1);
    EXPECT_EQ(ustring(L"a").compareWithMask(std::wstring(28, L'*') + L"a"), 0);
    // 20,000 stars: as deep as the mask when recursing.
    const std::wstring stars(20000, L'*');
    EXPECT_EQ(ustring(L"a").compareWithMask(stars), 0);
    EXPECT_EQ(ustring(L"a").compareWithMask(stars + L"b"), -1);
    EXPECT_EQ(ustring(L"a").compareWithMask(L"a" + stars), 0);
    EXPECT_EQ(ustring(L"").compareWithMask(stars), 0);
    EXPECT_EQ(ustring(L"b").compareWithMask(L"a" + stars), 1);
    EXPECT_EQ(ustring(as).compareWithMask(Repeat(L"*?", 2000)), 0);
    EXPECT_EQ(ustring(as).compareWithMask(Repeat(L"*?", 2000) + L"b"), -1);
}

TEST(UstringMaskPathological, LongMasksAgainstTheMemoisedDefinition)
{
    // Several stars over a few hundred code units: out of reach of the plain recursion, within
    // reach of the memoised one.
    CMaskChecker checker;
    const std::wstring text = Repeat(L"abcab", 60) + L"abd";
    for (const wchar_t* mask : {L"*ab*ab*ab*abd", L"*ab*ab*ab*abe", L"a*c*?*b*d", L"*b*c*a*b*c*x", L"abc*ab*abX*",
                                L"*?*?*?*?*?*", L"ab*cab*cab*", L"*d*"})
    {
        checker.Check(text, mask, CaseSensitive, true);
        checker.Check(text, mask, CaseInsensitive, true);
    }
    // Long runs of one letter: a segment matches at many neighbouring positions, each of which
    // can start the next segment over again.
    const std::wstring run = std::wstring(60, L'a') + L"b" + std::wstring(30, L'a');
    for (const std::wstring& mask : {L"*" + std::wstring(20, L'a') + L"*" + std::wstring(20, L'a') + L"*b*",
                                     std::wstring(20, L'a') + L"*" + std::wstring(25, L'a') + L"b" + std::wstring(30, L'a'),
                                     L"a*" + std::wstring(12, L'a') + L"*" + std::wstring(12, L'?') + L"*" +
                                         std::wstring(31, L'a'),
                                     L"*" + std::wstring(10, L'a') + L"*" + std::wstring(10, L'a') + L"*c"})
    {
        checker.Check(run, mask, CaseSensitive, true);
        checker.Check(run, mask, CaseInsensitive, true);
    }
    EXPECT_EQ(checker.Cases(), 24u);
}
