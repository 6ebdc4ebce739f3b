// ustring text operations: construction, comparison, masks, trimming, extraction, split/join,
// and use of one string from both sides of the DLL boundary.
#include <tavrin/core/ustring.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <deque>
#include <list>
#include <map>
#include <ostream>
#include <random>
#include <set>
#include <vector>

using namespace tavrin;

namespace tavrin {
// Readable failure output: printable ASCII as is, every other code unit as \x{XXXX}.
void PrintTo(const ustring& text, std::ostream* os)
{
    *os << "L\"";
    for (const wchar_t ch : static_cast<const std::wstring&>(text))
    {
        if (ch >= 0x20 && ch < 0x7F)
            *os << static_cast<char>(ch);
        else
        {
            char code[16];
            std::snprintf(code, sizeof(code), "\\x{%04X}", static_cast<unsigned int>(ch));
            *os << code;
        }
    }
    *os << "\" (" << text.size() << " code units)";
}
} // namespace tavrin

namespace {

template <class C>
std::vector<ustring> Items(const C& container)
{
    return std::vector<ustring>(container.begin(), container.end());
}

std::vector<ustring> V(std::initializer_list<const wchar_t*> texts)
{
    std::vector<ustring> out;
    for (const wchar_t* text : texts)
        out.push_back(text);
    return out;
}

const ustring kHighSurrogate(L"\xD83D", 1);
const ustring kLowSurrogate(L"\xDE00", 1);

} // namespace

TEST(UstringBasics, ConstructionAndAssignment)
{
    EXPECT_TRUE(ustring(nullptr, ustring::npos).empty());
    EXPECT_TRUE(ustring(nullptr, 5).empty());
    EXPECT_EQ(ustring(L"abcdef", 3), L"abc");
    // An explicit length takes exactly that many code units, NULs included.
    const ustring withNul(L"a\0b", 3);
    EXPECT_EQ(withNul.size(), 3u);
    EXPECT_EQ(withNul[1], L'\0');
    EXPECT_EQ(ustring(L"a\0b").size(), 1u);
    EXPECT_EQ(ustring(3u, L'x'), L"xxx");
    EXPECT_EQ(ustring(std::string("caf\xC3\xA9"), CP_UTF8), L"caf\x00E9");
    EXPECT_EQ(ustring::npos, 0xFFFFFFFFu);

    ustring s(L"old");
    s = static_cast<const wchar_t*>(nullptr);
    EXPECT_TRUE(s.empty());
    EXPECT_TRUE(s == nullptr);
    s = L'z';
    EXPECT_EQ(s, L"z");
    s += L"ab";
    s += L'c';
    s += ustring(L"de");
    s += static_cast<const wchar_t*>(nullptr);
    s += std::wstring(L"f");
    EXPECT_EQ(s, L"zabcdef");
    EXPECT_EQ(ustring(L"x") + ustring(L"y"), L"xy");
    EXPECT_EQ(L'<' + ustring(L"t") + L'>', L"<t>");

    const wchar_t* raw = s;
    EXPECT_EQ(std::wstring(raw), L"zabcdef");
    s[0] = L'Z';
    EXPECT_EQ(s[0], L'Z');
    EXPECT_EQ(s[6u], L'f');

    std::wstring plain(L"plain");
    ustring moved(std::move(plain));
    EXPECT_EQ(moved, std::wstring(L"plain"));
    EXPECT_TRUE(moved == std::wstring(L"plain"));
}

TEST(UstringBasics, BstrKeepsEmbeddedNuls)
{
    const wchar_t chars[] = {L'a', L'\0', L'b'};
    BSTR bstr = ::SysAllocStringLen(chars, 3);
    ASSERT_NE(bstr, nullptr);
    const ustring fromBstr{CBStrRef(bstr)};
    EXPECT_EQ(fromBstr.size(), 3u);
    EXPECT_EQ(fromBstr, ustring(chars, 3));

    ustring s(L"x");
    s += CBStrRef(bstr);
    EXPECT_EQ(s, ustring(L"xa\0b", 4));
    s = CBStrRef(bstr);
    EXPECT_EQ(s.size(), 3u);
    ::SysFreeString(bstr);

    s = CBStrRef(nullptr);
    EXPECT_TRUE(s.empty());
    EXPECT_TRUE(ustring(CBStrRef(nullptr)).empty());
}

TEST(UstringCompare, RawDifferenceAndLimits)
{
    // The result is the raw difference of the first differing code units, not -1/0/1.
    EXPECT_EQ(ustring(L"abc").compare(L"abd"), -1);
    EXPECT_EQ(ustring(L"a").compare(L"c"), -2);
    // A missing position counts as 0: a prefix orders first by the next code unit's value.
    EXPECT_EQ(ustring(L"ab").compare(L"abc"), -static_cast<int>(L'c'));
    EXPECT_EQ(ustring(L"abc").compare(L"ab"), static_cast<int>(L'c'));
    EXPECT_EQ(ustring(L"abc").compare(L"abd", 2, CaseSensitive), 0);
    EXPECT_EQ(ustring(L"abc").compare(L"xyz", 0, CaseSensitive), 0);
    EXPECT_LT(ustring(L"abc").compare(L"abd", 3, CaseSensitive), 0);
    EXPECT_EQ(ustring(L"").compare(L""), 0);
    EXPECT_EQ(ustring(L"ABC").compareNoCase(L"abc"), 0);
    EXPECT_NE(ustring(L"ABC").compare(L"abc"), 0);
    EXPECT_EQ(ustring(L"ABX").compareNoCase(L"abY", 2), 0);
    EXPECT_LT(ustring(L"ABX").compareNoCase(L"abY"), 0);
    // Any non-zero mode folds case.
    EXPECT_EQ(ustring(L"ABC").compare(L"abc", ustring::npos, static_cast<ECaseSensitivity>(7)), 0);
    // Unsigned 16-bit order: U+FFFF is above every ASCII letter.
    EXPECT_GT(ustring(L"\xFFFF").compare(L"a"), 0);
    EXPECT_EQ(ustring(L"\xFFFF").compare(L"\x0001"), 0xFFFE);

    const ustring abc(L"abc");
    EXPECT_TRUE(abc == L"abc");
    EXPECT_TRUE(abc != L"abd");
    EXPECT_TRUE(abc < L"abd");
    EXPECT_TRUE(abc <= L"abc");
    EXPECT_TRUE(abc > L"ab");
    EXPECT_TRUE(abc >= L"ab");
    EXPECT_TRUE(abc > nullptr);
    EXPECT_FALSE(abc == nullptr);
    EXPECT_TRUE(ustring() == nullptr);
    EXPECT_TRUE(ustring(L"b") > ustring(L"abc"));
    EXPECT_TRUE(ustring(L"ab") < ustring(L"abc"));
}

TEST(UstringCompare, WildcardMasks)
{
    EXPECT_EQ(ustring(L"readme.txt").compareWithMask(L"*.txt"), 0);
    EXPECT_EQ(ustring(L"a").compareWithMask(L"?"), 0);
    EXPECT_EQ(ustring(L"").compareWithMask(L"?"), -1);
    EXPECT_EQ(ustring(L"").compareWithMask(L"**"), 0);
    EXPECT_EQ(ustring(L"").compareWithMask(L""), 0);
    EXPECT_EQ(ustring(L"abc").compareWithMask(L"ab"), 1);
    EXPECT_EQ(ustring(L"ab").compareWithMask(L"abc"), -1);
    EXPECT_EQ(ustring(L"abc").compareWithMask(L"a?c"), 0);
    EXPECT_EQ(ustring(L"abc").compareWithMask(L"a*"), 0);
    EXPECT_EQ(ustring(L"abc").compareWithMask(L"*"), 0);
    EXPECT_EQ(ustring(L"abc").compareWithMask(L"*b*"), 0);
    EXPECT_EQ(ustring(L"abcbd").compareWithMask(L"*b?"), 0);
    EXPECT_NE(ustring(L"abc").compareWithMask(L"a*d"), 0);
    EXPECT_EQ(ustring(L"Data.TXT").compareWithMask(L"*.txt", CaseSensitive) != 0, true);
    EXPECT_EQ(ustring(L"Data.TXT").compareWithMask(L"*.txt", CaseInsensitive), 0);
    EXPECT_EQ(ustring(L"Data.TXT").compareWithMaskNoCase(L"DATA.*"), 0);
    // No escape: a backslash is an ordinary code unit.
    EXPECT_EQ(ustring(L"a\\b").compareWithMask(L"a\\?"), 0);

    // After a star no tail matched, so the rest of the mask is matched against the whole text
    // from its start: "ab" matches "a*ab" through that restart, and a failed match reports
    // the sign of the restart's comparison.
    EXPECT_EQ(ustring(L"ab").compareWithMask(L"a*ab"), 0);
    EXPECT_EQ(ustring(L"abc").compareWithMask(L"*x"), -1);
    EXPECT_EQ(ustring(L"xyz").compareWithMask(L"*a"), 1);
}

TEST(UstringCompare, LessStrOrderings)
{
    const LessStrWN less;
    EXPECT_TRUE(less(L"COM9", L"COM10"));
    EXPECT_FALSE(less(L"COM10", L"COM9"));
    EXPECT_FALSE(less(L"port", L"x"));
    EXPECT_FALSE(less(L"x", L"port"));
    EXPECT_FALSE(less(L"a2b", L"z2"));
    EXPECT_FALSE(less(L"z2", L"a2b"));
    EXPECT_TRUE(less(L"z", L"a1"));
    EXPECT_TRUE(less(L"x7y99", L"a8"));

    std::set<ustring, LessStrWN> ports{L"COM10", L"COM2", L"COM1", L"LPT2"};
    EXPECT_EQ(Items(ports), V({L"COM1", L"COM2", L"COM10"})); // LPT2 is equivalent to COM2

    std::map<ustring, int, LessStr<1>> names;
    names[L"Name"] = 1;
    names[L"NAME"] = 2;
    names[L"other"] = 3;
    EXPECT_EQ(names.size(), 2u);
    EXPECT_EQ(names[L"name"], 2);
    std::set<ustring, LessStr<0>> exact{L"a", L"A"};
    EXPECT_EQ(exact.size(), 2u);
}

TEST(UstringText, CaseAndSurrogates)
{
    ustring s(L"MiXeD 123");
    EXPECT_EQ(s.strlwr(), L"mixed 123");
    EXPECT_EQ(s.strupr(), L"MIXED 123");

    // Unpaired surrogates are plain code units: copied, compared, folded and trimmed unchanged.
    const ustring lone = L" " + kLowSurrogate + L"A" + kHighSurrogate + L" ";
    ustring copy(lone);
    EXPECT_EQ(copy.size(), 5u);
    EXPECT_EQ(copy, lone);
    EXPECT_EQ(copy.compareNoCase(lone), 0);
    EXPECT_GT(copy.trim().compare(L"\xD800"), 0);
    EXPECT_EQ(copy, kLowSurrogate + L"A" + kHighSurrogate);
    EXPECT_EQ(ustring(copy).strlwr(), kLowSurrogate + L"a" + kHighSurrogate);
    EXPECT_EQ(ustring(copy).trim({kLowSurrogate[0], kHighSurrogate[0]}), L"A");
    EXPECT_LT(kHighSurrogate.compare(kLowSurrogate), 0);
}

TEST(UstringText, Trimming)
{
    EXPECT_EQ(ustring(L"  a b  ").trim(), L"a b");
    EXPECT_EQ(ustring(L"xxaxx").trim_left(L'x'), L"axx");
    EXPECT_EQ(ustring(L"xxaxx").trim_right(L'x'), L"xxa");
    EXPECT_EQ(ustring(L"xxxx").trim(L'x'), L"");
    EXPECT_EQ(ustring(L"").trim(), L"");
    EXPECT_EQ(ustring(L" \t\r\nvalue\r\n").trim({L' ', L'\t', L'\r', L'\n'}), L"value");
    EXPECT_EQ(ustring(L"-+a+-").trim_left({L'+', L'-'}), L"a+-");
    EXPECT_EQ(ustring(L"-+a+-").trim_right({L'+', L'-'}), L"-+a");
    EXPECT_EQ(ustring(L"  a  ").trim(std::vector<wchar_t>()), L"  a  ");
    EXPECT_EQ(ustring(L"abab").trim(std::vector<wchar_t>{L'a', L'b'}), L"");
    ustring nulls(L"\0\0x\0", 4);
    EXPECT_EQ(nulls.trim(L'\0'), L"x");
    // Chaining returns self.
    ustring chained(L"  Hi  ");
    EXPECT_EQ(&chained.trim().strupr(), &chained);
    EXPECT_EQ(chained, L"HI");
}

TEST(UstringText, FiltersAndUnwrap)
{
    EXPECT_EQ(ustring(L"aabaca").removeForbiddenSymbols(L"a"), L"bc");
    EXPECT_EQ(ustring(L"a-b_c!").removeForbiddenSymbols(L"-_!"), L"abc");
    EXPECT_EQ(ustring(L"a1b22c333").leaveAllowedSymbols(L"0123456789"), L"122333");
    EXPECT_EQ(ustring(L"abc").leaveAllowedSymbols(L""), L"");
    // A NUL inside the text is not "listed" by the list's terminator.
    EXPECT_EQ(ustring(L"a\0b", 3).removeForbiddenSymbols(L"b"), ustring(L"a\0", 2));

    ustring quoted(L"  \"a b\"  ");
    EXPECT_TRUE(quoted.unwrap(L'"', L'"', true));
    EXPECT_EQ(quoted, L"a b");
    ustring open(L"\"a");
    EXPECT_FALSE(open.unwrap(L'"', L'"', true));
    EXPECT_EQ(open, L"\"a");
    // Trimming happens even when the call fails.
    ustring spaced(L"  \"a  ");
    EXPECT_FALSE(spaced.unwrap(L'"', L'"', true));
    EXPECT_EQ(spaced, L"\"a");
    ustring notTrimmed(L" [x] ");
    EXPECT_FALSE(notTrimmed.unwrap(L'[', L']', false));
    EXPECT_EQ(notTrimmed, L" [x] ");
    ustring single(L"\"");
    EXPECT_TRUE(single.unwrap(L'"', L'"', false));
    EXPECT_TRUE(single.empty());
    ustring empty;
    EXPECT_FALSE(empty.unwrap(L'(', L')', true));
    ustring brackets(L"[]");
    EXPECT_TRUE(brackets.unwrap(L'[', L']'));
    EXPECT_TRUE(brackets.empty());
}

TEST(UstringText, MarkerSubstr)
{
    const ustring text(L"key=[value]");
    EXPECT_EQ(text.substr(L"[", L"]", false, false), L"value");
    EXPECT_EQ(text.substr(L"[", L"]", true, false), L"[value");
    EXPECT_EQ(text.substr(L"[", L"}", false, true), L"");
    EXPECT_EQ(text.substr(L"[", L"}", false, false), L"value]");
    EXPECT_EQ(text.substr(nullptr, L"=", false, true), L"key");
    EXPECT_EQ(text.substr(L"=", nullptr, false, true), L"[value]");
    EXPECT_EQ(text.substr(nullptr, nullptr), L"key=[value]");
    EXPECT_EQ(text.substr(L"(", L"]"), L"");
    EXPECT_EQ(ustring().substr(nullptr, nullptr), L"");
    // The end marker is searched after the start marker only.
    EXPECT_EQ(ustring(L"]a[b]").substr(L"[", L"]"), L"b");
    // Same marker on both sides: the second occurrence closes.
    EXPECT_EQ(ustring(L"say 'hi' now").substr(L"'", L"'"), L"hi");
    // Positional substr of the base remains available.
    EXPECT_EQ(ustring(text.substr(4, 3)), L"[va");
    EXPECT_EQ(text, L"key=[value]");
}

TEST(UstringText, Replace)
{
    EXPECT_EQ(ustring(L"aaaa").replace(L"aa", L"a"), L"aa");
    EXPECT_EQ(ustring(L"aaaa").replace_recursively(L"aa", L"a"), L"a");
    // Inserted text is not rescanned.
    EXPECT_EQ(ustring(L"aa").replace(L"a", L"aa"), L"aaaa");
    EXPECT_EQ(ustring(L"a.b.c").replace(L".", L"::"), L"a::b::c");
    EXPECT_EQ(ustring(L"abc").replace(L"x", L"y"), L"abc");
    EXPECT_EQ(ustring(L"abc").replace(L"", L"y"), L"abc");
    EXPECT_EQ(ustring(L"abab").replace(L"ab", L""), L"");
    EXPECT_EQ(ustring(L"a\\\\\\\\b").replace_recursively(L"\\\\", L"\\"), L"a\\b");
    // A replacement containing the searched text is applied once instead of growing forever.
    EXPECT_EQ(ustring(L"xa").replace_recursively(L"a", L"ba"), L"xba");
    // The base's positional replace is still reachable.
    ustring positional(L"hello");
    positional.replace(0, 1, L"J");
    EXPECT_EQ(positional, L"Jello");
}

namespace {

// Runs the same expectations for every container and separator form.
template <class C>
void CheckSplitForms()
{
    C out;
    EXPECT_EQ(ustring::split(L"a,,b,", L",", out, false), 3u);
    EXPECT_EQ(Items(out), V({L"a", L"", L"b"}));
    EXPECT_EQ(ustring::split(L"a,,b,", L',', out, true), 4u);
    EXPECT_EQ(Items(out), V({L"a", L"", L"b", L""}));
    EXPECT_EQ(ustring::split(L",a", L',', out), 2u);
    EXPECT_EQ(Items(out), V({L"", L"a"}));
    EXPECT_EQ(ustring::split(L"", L",", out, true), 0u);
    EXPECT_TRUE(out.empty());
    EXPECT_EQ(ustring::split(L"a::b", L"::", out), 2u);
    EXPECT_EQ(Items(out), V({L"a", L"b"}));
    EXPECT_EQ(ustring::split(L"a:b", L"::", out), 1u);
    EXPECT_EQ(Items(out), V({L"a:b"}));
    EXPECT_EQ(ustring::split(L",", L',', out, true), 2u);
    EXPECT_EQ(Items(out), V({L"", L""}));

    ustring multi;
    ustring::join(V({L"x", L"y"}), multi);
    EXPECT_EQ(ustring::split(multi, out), 2u);
    EXPECT_EQ(Items(out), V({L"x", L"y"}));
}

} // namespace

TEST(UstringSplit, EveryContainerAndSeparatorForm)
{
    CheckSplitForms<std::vector<ustring>>();
    CheckSplitForms<std::list<ustring>>();
    CheckSplitForms<std::deque<ustring>>();

    // The set collapses duplicates and orders by ustring's operator<.
    std::set<ustring> set;
    EXPECT_EQ(ustring::split(L"b,a,b", L',', set), 2u);
    EXPECT_EQ(Items(set), V({L"a", L"b"}));
    EXPECT_EQ(ustring::split(L"b,,a,b,", L",", set, true), 3u);
    EXPECT_EQ(Items(set), V({L"", L"a", L"b"}));
    ustring multi;
    ustring::join(V({L"y", L"x", L"y"}), multi);
    EXPECT_EQ(ustring::split(multi, set), 2u);
    EXPECT_EQ(Items(set), V({L"x", L"y"}));

    // Output is cleared first.
    std::vector<ustring> vec = V({L"stale"});
    EXPECT_EQ(ustring::split(L"q", L',', vec), 1u);
    EXPECT_EQ(vec, V({L"q"}));
    // An empty separator never advances, so it counts as absent.
    EXPECT_EQ(ustring::split(L"abc", L"", vec), 1u);
    EXPECT_EQ(vec, V({L"abc"}));
}

TEST(UstringSplit, JoinSplitRoundTrip)
{
    ustring multi;
    ustring::join(V({L"x", L"y"}), multi);
    EXPECT_EQ(multi, ustring(L"x\0y\0", 4));

    const std::vector<ustring> parts = V({L"C:\\one", L"two words", L"\x00E9t\x00E9"});
    ustring::join(parts, multi);
    std::vector<ustring> back;
    EXPECT_EQ(ustring::split(multi, back), 3u);
    EXPECT_EQ(back, parts);

    // NULs at the ends of a part are trimmed, an empty part ends the list early.
    ustring::join({ustring(L"\0a\0", 3), ustring(L"b")}, multi);
    EXPECT_EQ(multi, ustring(L"a\0b\0", 4));
    ustring::join(V({L"a", L"", L"b"}), multi);
    EXPECT_EQ(ustring::split(multi, back), 1u);
    EXPECT_EQ(back, V({L"a"}));
    ustring::join({}, multi);
    EXPECT_TRUE(multi.empty());
    EXPECT_EQ(ustring::split(multi, back), 0u);
    // Text without a closing NUL: its own terminator ends the last piece, nothing past it is read.
    EXPECT_EQ(ustring::split(L"solo", back), 1u);
    EXPECT_EQ(back, V({L"solo"}));
    // The output may be one of the parts.
    std::vector<ustring> self = V({L"p", L"q"});
    ustring::join(self, self[0]);
    EXPECT_EQ(self[0], ustring(L"p\0q\0", 4));
}

TEST(UstringBoundary, StringTravelsBothWaysAcrossTheDll)
{
    // Built and allocated inside the DLL.
    ustring s = ustring::sprintf_stc(L"  %ls:%d  ", L"value", 42);
    ASSERT_EQ(s, L"  value:42  ");
    // Changed here with the inherited (inline) members, forcing a reallocation.
    s.append(5000, L'x');
    s.insert(0, L"#");
    s.erase(s.size() - 4990);
    // The DLL works on the caller's buffer and the caller sees its changes.
    s.trim(L'x').trim_left(L'#').trim();
    EXPECT_EQ(s, L"value:42");
    std::vector<ustring> parts;
    ASSERT_EQ(ustring::split(s, L':', parts), 2u);
    parts[1] += L"0";
    s.sprintf(L"%ls=%ls", parts[0].c_str(), parts[1].c_str());
    EXPECT_EQ(s, L"value=420");
    // An argument may point into the string being formatted.
    s.sprintf(L"[%ls]", s.c_str());
    EXPECT_EQ(s, L"[value=420]");
    EXPECT_TRUE(s.unwrap(L'[', L']'));
    s.strupr();
    s.push_back(L'!');
    EXPECT_EQ(s.compare(L"VALUE=420!"), 0);
}

// ---------------------------------------------------------------- larger inputs and reuse

namespace {

// replace as it is defined: find at or after pos, replace, continue after the inserted text.
std::wstring ReferenceReplace(std::wstring text, const std::wstring& what, const std::wstring& with)
{
    for (std::size_t pos = text.find(what); pos != std::wstring::npos; pos = text.find(what, pos + with.size()))
        text.replace(pos, what.size(), with);
    return text;
}

} // namespace

TEST(UstringText, ReplaceMatchesItsDefinition)
{
    // Random short texts over two letters, so that occurrences overlap, abut and reappear after
    // a replacement; replacements shorter, equal and longer.
    std::mt19937 random(99u);
    std::uniform_int_distribution<int> letter(0, 1);
    std::uniform_int_distribution<int> length(0, 12);
    std::uniform_int_distribution<int> whatLength(1, 3);
    std::uniform_int_distribution<int> withLength(0, 3);
    const auto make = [&](int n) {
        std::wstring text;
        for (int i = 0; i < n; ++i)
            text += letter(random) ? L'a' : L'b';
        return text;
    };
    for (unsigned int n = 0; n < 20000; ++n)
    {
        const std::wstring text = make(length(random));
        const std::wstring what = make(whatLength(random));
        const std::wstring with = make(withLength(random));
        ASSERT_EQ(static_cast<const std::wstring&>(ustring(text).replace(what, with)), ReferenceReplace(text, what, with));
        std::wstring expected = text;
        if (with.find(what) != std::wstring::npos)
            expected = ReferenceReplace(text, what, with);
        else
            for (std::wstring previous; previous != expected;)
            {
                previous = expected;
                expected = ReferenceReplace(expected, what, with);
            }
        ASSERT_EQ(static_cast<const std::wstring&>(ustring(text).replace_recursively(what, with)), expected);
    }

    // Self as the searched text or as the replacement.
    ustring self(L"aba");
    EXPECT_EQ(self.replace(self, L"x"), L"x");
    self = L"aba";
    EXPECT_EQ(self.replace(L"a", self), L"abababa");
    self = L"abab";
    EXPECT_EQ(self.replace_recursively(self, L"ab"), L"ab");
}

TEST(UstringText, ReplaceOnLargeTexts)
{
    // 100 KiB with 10,000 occurrences, replaced by shorter, equal and longer text.
    std::wstring text;
    for (int i = 0; i < 10000; ++i)
        text += L"abcd" + std::to_wstring(i % 10) + L"<x>";
    ASSERT_GE(text.size() * sizeof(wchar_t), 100000u);
    for (const wchar_t* with : {L"", L"#", L"<y>", L"[longer]"})
    {
        const ustring replaced = ustring(text).replace(L"<x>", with);
        EXPECT_EQ(replaced.size(), text.size() + 10000 * (std::wcslen(with) - 3)) << with;
        EXPECT_EQ(static_cast<const std::wstring&>(replaced), ReferenceReplace(text, L"<x>", with)) << with;
    }
    // 2^16 backslashes collapse to one in 16 passes.
    EXPECT_EQ(ustring(std::wstring(65536, L'\\')).replace_recursively(L"\\\\", L"\\"), L"\\");
    // A removal that exposes a new occurrence each pass: one per pass, 2,000 passes.
    EXPECT_EQ(ustring(std::wstring(2000, L'(') + std::wstring(2000, L')')).replace_recursively(L"()", L""), L"");
}

TEST(UstringSplit, OutputContainersAreReused)
{
    // Whatever the container held before is replaced by exactly the pieces: more, fewer, none.
    std::vector<ustring> vec(V({L"old1", L"old2", L"old3", L"old4"}));
    EXPECT_EQ(ustring::split(L"a,b", L',', vec), 2u);
    EXPECT_EQ(vec, V({L"a", L"b"}));
    EXPECT_EQ(ustring::split(L"a,b,c,d,e", L',', vec), 5u);
    EXPECT_EQ(vec, V({L"a", L"b", L"c", L"d", L"e"}));
    EXPECT_EQ(ustring::split(L"", L',', vec), 0u);
    EXPECT_TRUE(vec.empty());

    std::list<ustring> list(3, ustring(L"old"));
    EXPECT_EQ(ustring::split(L"x;;y;", L";", list, true), 4u);
    EXPECT_EQ(Items(list), V({L"x", L"", L"y", L""}));
    std::deque<ustring> deque(6, ustring(L"old"));
    ustring multi;
    ustring::join(V({L"p", L"q"}), multi);
    EXPECT_EQ(ustring::split(multi, deque), 2u);
    EXPECT_EQ(Items(deque), V({L"p", L"q"}));
    std::set<ustring> set{ustring(L"old")};
    EXPECT_EQ(ustring::split(L"b,a,b", L',', set), 2u);
    EXPECT_EQ(Items(set), V({L"a", L"b"}));
}

TEST(UstringText, TrimBySetForms)
{
    const std::vector<wchar_t> set{L' ', L'\t', L'-'};
    const std::initializer_list<wchar_t> list{L' ', L'\t', L'-'};
    const std::vector<std::pair<const wchar_t*, const wchar_t*>> cases = {
        {L"\t- a-b -\t", L"a-b"}, {L"---", L""}, {L"", L""}, {L"x", L"x"}, {L" x", L"x"}, {L"x\t", L"x"}};
    for (const auto& c : cases)
    {
        EXPECT_EQ(ustring(c.first).trim(set), c.second) << c.first;
        EXPECT_EQ(ustring(c.first).trim(list), c.second) << c.first;
    }
    EXPECT_EQ(ustring(L"-a-").trim_left(list), L"a-");
    EXPECT_EQ(ustring(L"-a-").trim_right(list), L"-a");
    EXPECT_EQ(ustring(L"-a-").trim_left(set), L"a-");
    EXPECT_EQ(ustring(L"-a-").trim_right(set), L"-a");
    EXPECT_EQ(ustring(L" a ").trim(std::vector<wchar_t>()), L" a ");
}
