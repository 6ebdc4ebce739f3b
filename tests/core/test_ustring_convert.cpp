// ustring conversions: locale-aware numbers (German and US locales pinned explicitly), hex,
// GUIDs, code pages, formatted printing, percent escapes and string resources.
#include <tavrin/core/ustring.h>

#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cwctype>
#include <map>
#include <random>
#include <string>
#include <vector>

using namespace tavrin;

namespace tavrin {
void PrintTo(const ustring& text, std::ostream* os); // test_ustring.cpp
}

namespace {

constexpr unsigned long kGerman = 0x407;
constexpr unsigned long kUnitedStates = 0x409;

// Pins ustring's locale for one test and restores the previous one afterwards.
class UstringNumbers : public ::testing::Test
{
protected:
    void SetUp() override { m_saved = ustring::m_Locale; }
    void TearDown() override { ustring::m_Locale = m_saved; }

    static void Use(unsigned long lcid)
    {
        ustring::m_Locale = CLocale(lcid);
        const std::wstring point = ustring::m_Locale.DecimalPoint();
        const std::wstring separator = ustring::m_Locale.ThousandsSep();
        ASSERT_EQ(point, lcid == kGerman ? L"," : L".");
        ASSERT_EQ(separator, lcid == kGerman ? L"." : L",");
        ASSERT_EQ(ustring::m_Locale.Grouping(), 3);
        ASSERT_EQ(ustring::m_Locale.NegNumber(), 1);
        ASSERT_EQ(ustring::m_Locale.Digits(), 2);
        ASSERT_TRUE(ustring::m_Locale.LeadingZeros());
    }

private:
    CLocale m_saved;
};

// Exposes the protected sign placement.
class CSignedText : public ustring
{
public:
    explicit CSignedText(const wchar_t* text) : ustring(text) {}
    CSignedText& Sign(int layout, const wchar_t* sign)
    {
        add_sign(layout, sign);
        return *this;
    }
};

ustring FormatThrough(const wchar_t* format, ...)
{
    va_list args;
    va_start(args, format);
    ustring text = ustring::vsprintf_stc(format, args);
    va_end(args);
    return text;
}

HINSTANCE LibraryModule()
{
    return ::GetModuleHandleW(L"Tavrin.dll");
}

// A copy of this test program carrying extra string resources, loaded as a data file.
class CResourceCopy
{
public:
    explicit CResourceCopy(const std::map<unsigned int, std::wstring>& strings)
    {
        wchar_t self[MAX_PATH] = {};
        wchar_t folder[MAX_PATH] = {};
        wchar_t path[MAX_PATH] = {};
        ::GetModuleFileNameW(nullptr, self, MAX_PATH);
        ::GetTempPathW(MAX_PATH, folder);
        ::GetTempFileNameW(folder, L"tus", 0, path);
        m_strPath = path;
        if (!::CopyFileW(self, path, FALSE))
            return;
        HANDLE update = ::BeginUpdateResourceW(path, FALSE);
        if (!update)
            return;
        // String tables come in blocks of 16: block (id / 16) + 1, each entry a length and its text.
        std::map<unsigned int, std::vector<WORD>> blocks;
        for (unsigned int block = 0; block < 0x1000; ++block)
        {
            bool used = false;
            std::vector<WORD> data;
            for (unsigned int slot = 0; slot < 16; ++slot)
            {
                const auto found = strings.find(block * 16 + slot);
                const std::wstring text = found == strings.end() ? std::wstring() : found->second;
                used = used || found != strings.end();
                data.push_back(static_cast<WORD>(text.size()));
                data.insert(data.end(), text.begin(), text.end());
            }
            if (used)
                blocks[block + 1] = data;
        }
        bool ok = true;
        for (auto& block : blocks)
            ok = ok && ::UpdateResourceW(update, MAKEINTRESOURCEW(6), MAKEINTRESOURCEW(block.first),
                                         MAKELANGID(LANG_NEUTRAL, SUBLANG_NEUTRAL), block.second.data(),
                                         static_cast<DWORD>(block.second.size() * sizeof(WORD)));
        if (::EndUpdateResourceW(update, ok ? FALSE : TRUE) && ok)
            m_hModule = ::LoadLibraryExW(path, nullptr, LOAD_LIBRARY_AS_DATAFILE);
    }
    ~CResourceCopy()
    {
        if (m_hModule)
            ::FreeLibrary(m_hModule);
        ::DeleteFileW(m_strPath.c_str());
    }
    HINSTANCE Module() const { return m_hModule; }

private:
    std::wstring m_strPath;
    HINSTANCE m_hModule = nullptr;
};

} // namespace

// ---------------------------------------------------------------- numbers

TEST_F(UstringNumbers, FixedPointUnitedStates)
{
    Use(kUnitedStates);
    EXPECT_EQ(ustring::fcvt(3.14159, 2, false), L"3.14");
    EXPECT_EQ(ustring::fcvt(2.5, 3, true), L"2.5");
    EXPECT_EQ(ustring::fcvt(2.0, 3, true), L"2");
    EXPECT_EQ(ustring::fcvt(2.0, 3, false), L"2.000");
    EXPECT_EQ(ustring::fcvt(0.5, 1, false), L"0.5");
    EXPECT_EQ(ustring::fcvt(0.05, 2, false), L"0.05");
    EXPECT_EQ(ustring::fcvt(0.0, 2, false), L"0.00");
    EXPECT_EQ(ustring::fcvt(-1.5, 1, false), L"-1.5");
    EXPECT_EQ(ustring::fcvt(123.456, 2, true), L"123.46");
    EXPECT_EQ(ustring::fcvt(100.0, 2, true), L"100");
    EXPECT_EQ(ustring::fcvt(1234.56, 0, false), L"1235"); // no point, no grouping
    EXPECT_EQ(ustring::fcvt(1234567.25, 1, false), L"1234567.3");
    EXPECT_EQ(ustring::fcvt(1.0 / 3.0, -1, false), L"0.33"); // the locale's two digits
    EXPECT_EQ(ustring::fcvt(1e20, 0, false), L"100000000000000000000");
    // The sign follows the runtime's flag, so a negative value rounding to zero keeps it.
    EXPECT_EQ(ustring::fcvt(-0.001, 2, false), L"-0.00");
    // Far more digits than a double carries: the fraction is padded, never cut or overrun.
    EXPECT_EQ(ustring::fcvt(1.5, 150, false), L"1.5" + ustring(149u, L'0'));
    EXPECT_EQ(ustring::fcvt(1.5, 150, true), L"1.5");
}

TEST_F(UstringNumbers, FixedPointGerman)
{
    Use(kGerman);
    EXPECT_EQ(ustring::fcvt(3.14159, 2, false), L"3,14");
    EXPECT_EQ(ustring::fcvt(-1234.5, 1, false), L"-1234,5");
    EXPECT_EQ(ustring::fcvt(0.25, -1, true), L"0,25");
    EXPECT_EQ(ustring::fcvt(7.0, 2, true), L"7");
}

TEST_F(UstringNumbers, SignLayouts)
{
    EXPECT_EQ(CSignedText(L"1.5").Sign(0, L"-"), L"(1.5)");
    EXPECT_EQ(CSignedText(L"1.5").Sign(1, L"-"), L"-1.5");
    EXPECT_EQ(CSignedText(L"1.5").Sign(2, L"-"), L"- 1.5");
    EXPECT_EQ(CSignedText(L"1.5").Sign(3, L"-"), L"1.5-");
    EXPECT_EQ(CSignedText(L"1.5").Sign(4, L"-"), L"1.5 -");
    EXPECT_EQ(CSignedText(L"1.5").Sign(5, L"-"), L"1.5");
    EXPECT_EQ(CSignedText(L"1.5").Sign(-1, L"-"), L"1.5");
    EXPECT_EQ(CSignedText(L"7").Sign(1, L"\x2212"), L"\x2212" L"7");
}

TEST_F(UstringNumbers, GroupedIntegersBothLocales)
{
    Use(kUnitedStates);
    EXPECT_EQ(ustring::ui64toa(0, false), L"0");
    EXPECT_EQ(ustring::ui64toa(999, false), L"999");
    EXPECT_EQ(ustring::ui64toa(1000, false), L"1,000");
    EXPECT_EQ(ustring::ui64toa(1000000, false), L"1,000,000");
    EXPECT_EQ(ustring::ui64toa(1234567, false), L"1,234,567");
    EXPECT_EQ(ustring::ui64toa(UINT64_MAX, false), L"18,446,744,073,709,551,615");
    EXPECT_EQ(ustring::ui64toa(255, true), L"FF");
    EXPECT_EQ(ustring::ui64toa(UINT64_MAX, true), L"FFFFFFFFFFFFFFFF");
    EXPECT_EQ(ustring::ui64toa(0, true), L"0");
    EXPECT_EQ(ustring::i64toa(0), L"0");
    EXPECT_EQ(ustring::i64toa(-1234), L"-1,234");
    EXPECT_EQ(ustring::i64toa(INT64_MIN), L"-9,223,372,036,854,775,808");
    EXPECT_EQ(ustring::i64toa(INT64_MAX), L"9,223,372,036,854,775,807");

    Use(kGerman);
    EXPECT_EQ(ustring::ui64toa(1234567, false), L"1.234.567");
    EXPECT_EQ(ustring::ui64toa(1000, false), L"1.000");
    EXPECT_EQ(ustring::i64toa(INT64_MIN), L"-9.223.372.036.854.775.808");
    EXPECT_EQ(ustring::ui64toa(0xBEEF, true), L"BEEF");
}

TEST_F(UstringNumbers, ParsingBothLocalesAndRoundTrips)
{
    Use(kUnitedStates);
    EXPECT_EQ(ustring::atoi64(L" 1 234 ", 10), 1234);
    EXPECT_EQ(ustring::atoi64(L"1,234,567", 10), 1234567);
    EXPECT_EQ(ustring::atoi64(L"-42", 10), -42);
    EXPECT_EQ(ustring::atoi64(L"0x1F", 0), 31);
    EXPECT_EQ(ustring::atoi64(L"017", 0), 15);
    EXPECT_EQ(ustring::atoi64(L"abc", 10), 0);
    EXPECT_EQ(ustring::atoi64(nullptr, 10), 0);
    EXPECT_EQ(ustring::atoui64(L"0xA0FF", 16), 255u); // the text "0xA0" goes first
    EXPECT_EQ(ustring::atoui64(L"18,446,744,073,709,551,615", 10), UINT64_MAX);
    EXPECT_EQ(ustring::atoi64(ustring::i64toa(INT64_MIN), 10), INT64_MIN);
    EXPECT_EQ(ustring::atoi64(ustring::i64toa(-987654321), 10), -987654321);

    bool trailing = true;
    EXPECT_DOUBLE_EQ(ustring::strtod(L"1,234.5", trailing), 1234.5);
    EXPECT_FALSE(trailing);
    // In the US locale "," is the separator: "1,5x" reads as 15 with text left over.
    EXPECT_DOUBLE_EQ(ustring::strtod(L"1,5x", trailing), 15.0);
    EXPECT_TRUE(trailing);
    EXPECT_DOUBLE_EQ(ustring::strtod(ustring::fcvt(-1234.56, 2, false)), -1234.56);
    EXPECT_DOUBLE_EQ(ustring::strtod(L"", trailing), 0.0);
    EXPECT_FALSE(trailing);

    Use(kGerman);
    EXPECT_EQ(ustring::atoi64(L"1.234.567", 10), 1234567);
    EXPECT_EQ(ustring::atoi64(L"1,5", 10), 1);
    EXPECT_EQ(ustring::atoi64(ustring::i64toa(INT64_MIN), 10), INT64_MIN);
    EXPECT_EQ(ustring::atoui64(ustring::ui64toa(UINT64_MAX, false), 10), UINT64_MAX);
    EXPECT_EQ(ustring::atoui64(ustring::ui64toa(0xABCDEF, true), 16), 0xABCDEFu);
    EXPECT_DOUBLE_EQ(ustring::strtod(L"1,5x", trailing), 1.5);
    EXPECT_TRUE(trailing);
    EXPECT_DOUBLE_EQ(ustring::strtod(L"1.234,5", trailing), 1234.5);
    EXPECT_FALSE(trailing);
    EXPECT_DOUBLE_EQ(ustring::strtod(L" -0,25 "), -0.25);
    EXPECT_DOUBLE_EQ(ustring::strtod(ustring::fcvt(-1234.56, 2, false), trailing), -1234.56);
    EXPECT_FALSE(trailing);
    // A value written in one locale and read in the other is read differently.
    const ustring german = ustring::fcvt(2.5, 1, false);
    Use(kUnitedStates);
    EXPECT_DOUBLE_EQ(ustring::strtod(german), 25.0);
}

TEST_F(UstringNumbers, IsNumber)
{
    Use(kUnitedStates);
    EXPECT_FALSE(ustring().isnumber());
    EXPECT_FALSE(ustring(L"-1").isnumber());
    EXPECT_FALSE(ustring(L"1.5").isnumber());
    EXPECT_FALSE(ustring(L"1 234").isnumber());
    EXPECT_FALSE(ustring(L"12a").isnumber());
    EXPECT_TRUE(ustring(L"1234").isnumber());
    EXPECT_TRUE(ustring(L"1,234").isnumber());
    EXPECT_TRUE(ustring::ui64toa(UINT64_MAX, false).isnumber());
    Use(kGerman);
    EXPECT_TRUE(ustring(L"1.234").isnumber());
    EXPECT_FALSE(ustring(L"1,234").isnumber());
    EXPECT_TRUE(ustring::ui64toa(1234567, false).isnumber());
}

TEST_F(UstringNumbers, ByteSizes)
{
    Use(kUnitedStates);
    ustring unit;
    EXPECT_EQ(ustring::BytesToStr(1048576, 2, unit), L"1");
    EXPECT_EQ(unit, L"MB");
    EXPECT_EQ(ustring::BytesToStr(1023, 2, unit), L"1023");
    EXPECT_EQ(unit, L"B");
    EXPECT_EQ(ustring::BytesToStr(0, 2, unit), L"0");
    EXPECT_EQ(unit, L"B");
    EXPECT_EQ(ustring::BytesToStr(1536, 1, unit), L"1.5");
    EXPECT_EQ(unit, L"KB");
    EXPECT_EQ(ustring::BytesToStr(1024ull * 1024 * 1024 * 1024, 2, unit), L"1024"); // stays in GB
    EXPECT_EQ(unit, L"GB");
    Use(kGerman);
    EXPECT_EQ(ustring::BytesToStr(1536, 1, unit), L"1,5");
    EXPECT_EQ(unit, L"KB");
}

// ---------------------------------------------------------------- bytes and GUIDs

TEST(UstringBytes, HexRoundTrip)
{
    std::vector<unsigned char> bytes{0xFF};
    EXPECT_TRUE(ustring::Hex2Bin(L"0A 1b\r\n", bytes));
    EXPECT_EQ(bytes, (std::vector<unsigned char>{0x0A, 0x1B}));
    EXPECT_FALSE(ustring::Hex2Bin(L"0G", bytes));
    EXPECT_TRUE(bytes.empty());
    EXPECT_TRUE(ustring::Hex2Bin(L"ABC", bytes));
    EXPECT_EQ(bytes, std::vector<unsigned char>{0xAB});
    EXPECT_TRUE(ustring::Hex2Bin(L"A\tB c\nD", bytes)); // whitespace inside a pair
    EXPECT_EQ(bytes, (std::vector<unsigned char>{0xAB, 0xCD}));
    EXPECT_FALSE(ustring::Hex2Bin(L"AB-CD", bytes));
    EXPECT_TRUE(bytes.empty());
    EXPECT_FALSE(ustring::Hex2Bin(L"AB\x00E9", bytes));
    EXPECT_TRUE(ustring::Hex2Bin(L"", bytes));
    EXPECT_TRUE(bytes.empty());

    ustring hex(L"stale");
    ustring::Bin2Hex({0x00, 0xFF}, hex);
    EXPECT_EQ(hex, L"00FF");
    std::vector<unsigned char> all;
    for (int i = 0; i < 256; ++i)
        all.push_back(static_cast<unsigned char>(i));
    ustring::Bin2Hex(all, hex);
    EXPECT_EQ(hex.size(), 512u);
    EXPECT_EQ(hex.substr(0x7F * 2, 4), L"7F80");
    std::vector<unsigned char> back;
    EXPECT_TRUE(ustring::Hex2Bin(hex, back));
    EXPECT_EQ(back, all);
    ustring::Bin2Hex({}, hex);
    EXPECT_TRUE(hex.empty());
}

TEST(UstringBytes, GuidRoundTrip)
{
    const GUID guid = {0x6B29FC40, 0xCA47, 0x1067, {0xB3, 0x1D, 0x00, 0xDD, 0x01, 0x06, 0x62, 0xDA}};
    ustring text;
    ASSERT_TRUE(ustring::GUID2String(guid, text));
    EXPECT_EQ(text, L"{6B29FC40-CA47-1067-B31D-00DD010662DA}");
    GUID back = {};
    EXPECT_TRUE(ustring::String2GUID(text, back));
    EXPECT_TRUE(::IsEqualGUID(back, guid));
    EXPECT_TRUE(ustring::String2GUID(L"{6b29fc40-ca47-1067-b31d-00dd010662da}", back));
    EXPECT_TRUE(::IsEqualGUID(back, guid));

    GUID failed = guid;
    EXPECT_FALSE(ustring::String2GUID(L"{not-a-guid}", failed));
    EXPECT_TRUE(::IsEqualGUID(failed, GUID()));
    failed = guid;
    EXPECT_FALSE(ustring::String2GUID(nullptr, failed));
    EXPECT_TRUE(::IsEqualGUID(failed, GUID()));
}

// ---------------------------------------------------------------- code pages

TEST(UstringCodePages, RoundTripsWithNulsAndUtf8)
{
    // "a", NUL, e-acute, NUL, U+1F600 (a surrogate pair in UTF-16), "z".
    const std::string utf8("a\0\xC3\xA9\0\xF0\x9F\x98\x80z", 10);
    const ustring wide = ustring::MultiByteToWideChar(utf8, CP_UTF8);
    EXPECT_EQ(wide, ustring(L"a\0\x00E9\0\xD83D\xDE00z", 7));
    EXPECT_EQ(ustring::WideCharToMultiByte(wide, CP_UTF8), utf8);
    EXPECT_EQ(ustring(utf8, CP_UTF8), wide);

    // Terminated input stops at the first NUL and does not keep the terminator.
    EXPECT_EQ(ustring::MultiByteToWideChar(utf8.c_str(), ustring::npos, CP_UTF8), L"a");
    EXPECT_EQ(ustring::MultiByteToWideChar("abcdef", 3, CP_UTF8), L"abc");
    EXPECT_EQ(ustring::WideCharToMultiByte(L"\x00E9t\x00E9", ustring::npos, CP_UTF8), "\xC3\xA9t\xC3\xA9");
    EXPECT_EQ(ustring::WideCharToMultiByte(L"caf\x00E9", 1252), "caf\xE9");
    EXPECT_EQ(ustring::MultiByteToWideChar(std::string("caf\xE9"), 1252), L"caf\x00E9");

    ustring out(L"keep");
    ustring::MultiByteToWideChar(out, "text", ustring::npos, CP_UTF8);
    EXPECT_EQ(out, L"text");
    std::string narrow("keep");
    ustring::WideCharToMultiByte(narrow, ustring(L"x\0y", 3), CP_UTF8);
    EXPECT_EQ(narrow, std::string("x\0y", 3));
}

TEST(UstringCodePages, FailuresLeaveOutputAlone)
{
    ustring out(L"keep");
    ustring::MultiByteToWideChar(out, std::string(), CP_UTF8);
    EXPECT_EQ(out, L"keep");
    ustring::MultiByteToWideChar(out, "abc", ustring::npos, 12345); // no such code page
    EXPECT_EQ(out, L"keep");
    ustring::MultiByteToWideChar(out, std::string("\xFF\xFE"), CP_UTF8, MB_ERR_INVALID_CHARS);
    EXPECT_EQ(out, L"keep");
    ustring::MultiByteToWideChar(out, nullptr, ustring::npos, CP_UTF8);
    EXPECT_EQ(out, L"keep");
    EXPECT_TRUE(ustring::MultiByteToWideChar("abc", ustring::npos, 12345).empty());

    std::string narrow("keep");
    ustring::WideCharToMultiByte(narrow, std::wstring(), CP_UTF8);
    EXPECT_EQ(narrow, "keep");
    ustring::WideCharToMultiByte(narrow, L"abc", ustring::npos, 12345);
    EXPECT_EQ(narrow, "keep");
    EXPECT_TRUE(ustring::WideCharToMultiByte(L"abc", ustring::npos, 12345).empty());
}

// ---------------------------------------------------------------- formatted printing

TEST(UstringPrintf, MicrosoftFormatsAndGrowth)
{
    EXPECT_EQ(ustring::sprintf_stc(L"%ls|%I64u|%I64X|%d|%05.1f", L"wide", UINT64_MAX, 0xABCDEF0123ull, -7, 3.14159),
              L"wide|18446744073709551615|ABCDEF0123|-7|003.1");
    EXPECT_EQ(ustring::sprintf_stc(L"%%%02X", 0x2F), L"%2F");
    EXPECT_EQ(ustring::sprintf_stc(L"%ls%03I64u", L".", 7ull), L".007");
    EXPECT_EQ(ustring::sprintf_stc(L""), L"");

    // Output beyond the first 1024 code units grows the buffer; the text is whole.
    const ustring big(5000, L'q');
    const ustring formatted = ustring::sprintf_stc(L"<%ls>", big.c_str());
    EXPECT_EQ(formatted.size(), 5002u);
    EXPECT_EQ(formatted, L"<" + big + L">");
    EXPECT_EQ(ustring::sprintf_stc(L"%5000d", 1).size(), 5000u);
    for (int width : {1023, 1024, 1025, 2048})
    {
        const ustring padded = ustring::sprintf_stc(L"%*d", width, 9);
        EXPECT_EQ(padded.size(), static_cast<std::size_t>(width));
        EXPECT_EQ(padded.back(), L'9');
    }

    ustring self(L"old text that is replaced");
    EXPECT_EQ(&self.sprintf(L"%d-%ls", 5, L"x"), &self);
    EXPECT_EQ(self, L"5-x");
    EXPECT_EQ(FormatThrough(L"%ls=%I64u", L"n", 12345678901234ull), L"n=12345678901234");
    EXPECT_EQ(FormatThrough(L"%ls", big.c_str()), big);
}

// ---------------------------------------------------------------- percent escapes

TEST(UstringEscapes, ForbiddenAndNonAlphaNumeric)
{
    // Each listed code unit is checked against what is at the index now: "%" listed after "a"
    // escapes the fresh "%" once more.
    EXPECT_EQ(ustring(L"a").replaceForbiddenSymbols(L"a%"), L"%2561");
    EXPECT_EQ(ustring(L"a").replaceForbiddenSymbols(L"%a"), L"%61");
    EXPECT_EQ(ustring(L"a%b").replaceForbiddenSymbols(L"%a"), L"%61%25b");
    EXPECT_EQ(ustring(L"x/y\\z").replaceForbiddenSymbols(L"/\\"), L"x%2Fy%5Cz");
    EXPECT_EQ(ustring(L"\x0100|\x20AC").replaceForbiddenSymbols(L"\x0100\x20AC"), L"%100|%20AC");
    EXPECT_EQ(ustring(L"abc").replaceForbiddenSymbols(L""), L"abc");
    EXPECT_EQ(ustring(L"abc").replaceForbiddenSymbols(nullptr), L"abc");

    EXPECT_EQ(ustring(L"a b/c").replaceNonAlphaNumericSymbols(), L"a%20b%2Fc");
    EXPECT_EQ(ustring(L"A1z9").replaceNonAlphaNumericSymbols(), L"A1z9");
    EXPECT_EQ(ustring(L"%").replaceNonAlphaNumericSymbols(), L"%25");
    EXPECT_EQ(ustring(L"\xD83D").replaceNonAlphaNumericSymbols(), L"%D83D");
}

// ---------------------------------------------------------------- string resources

TEST(UstringResources, LibraryStringsAndMissingIds)
{
    const HINSTANCE library = LibraryModule();
    ASSERT_NE(library, nullptr);
    EXPECT_EQ(ustring::load_stc(library, 101), L"Win API");
    EXPECT_EQ(ustring::load_stc(library, 117), L"CfgMgr");
    EXPECT_EQ(ustring::xload_stc(library, 105), L"Success");

    ustring text(L"previous");
    EXPECT_FALSE(text.load(library, 9999));
    EXPECT_TRUE(text.empty());
    text = L"previous";
    EXPECT_FALSE(text.xload(library, 9999));
    EXPECT_TRUE(text.empty());
    EXPECT_TRUE(ustring::load_stc(::GetModuleHandleW(nullptr), 1).empty());
    EXPECT_TRUE(text.load(library, 104));
    EXPECT_EQ(text, L"Matrix Library");
}

TEST(UstringResources, LongStringsAreNotCut)
{
    // Lengths around each buffer size the loader tries (256, 512, ...).
    std::map<unsigned int, std::wstring> strings;
    const unsigned int lengths[] = {254, 255, 256, 511, 512, 1500};
    for (unsigned int i = 0; i < sizeof(lengths) / sizeof(lengths[0]); ++i)
    {
        std::wstring text;
        for (unsigned int k = 0; k < lengths[i]; ++k)
            text.push_back(static_cast<wchar_t>(L'a' + (k % 26)));
        text.back() = L'!';
        strings[2000 + i] = text;
    }
    strings[2010] = L"short";
    const CResourceCopy copy(strings);
    ASSERT_NE(copy.Module(), nullptr) << "could not build a module with test string resources";
    for (const auto& entry : strings)
    {
        ustring loaded;
        EXPECT_TRUE(loaded.load(copy.Module(), entry.first)) << entry.first;
        EXPECT_EQ(static_cast<const std::wstring&>(loaded), entry.second) << entry.first;
    }
    // An id in the same block without text, and an empty string, give false.
    ustring missing(L"x");
    EXPECT_FALSE(missing.load(copy.Module(), 2011));
    EXPECT_TRUE(missing.empty());
}

// ---------------------------------------------------------------- against the defining steps

namespace {

// ui64toa as it is defined: a divisor of 10 to the group size in floating point, one printf per
// group, each piece inserted at the front.
std::wstring ReferenceGrouped(unsigned __int64 value)
{
    std::wstring text;
    do
    {
        const int group = ustring::m_Locale.Grouping();
        unsigned __int64 quotient = 0;
        unsigned __int64 remainder = value;
        if (group > 0 && group < 20)
        {
            const auto divisor = static_cast<unsigned __int64>(std::pow(10.0, group));
            quotient = value / divisor;
            remainder = value % divisor;
        }
        wchar_t piece[64];
        if (quotient == 0)
            ::_snwprintf(piece, 64, L"%I64u", remainder);
        else
            ::_snwprintf(piece, 64, L"%ls%03I64u", ustring::m_Locale.ThousandsSep(), remainder);
        text.insert(0, piece);
        value = quotient;
    } while (value != 0);
    return text;
}

// Every occurrence removed (or replaced) left to right, as the number parsers clean their input.
std::wstring ReplaceEvery(std::wstring text, const std::wstring& what, const std::wstring& with)
{
    if (what.empty())
        return text;
    for (std::size_t pos = text.find(what); pos != std::wstring::npos; pos = text.find(what, pos + with.size()))
        text.replace(pos, what.size(), with);
    return text;
}

std::wstring CleanInteger(const std::wstring& text)
{
    return ReplaceEvery(ReplaceEvery(ReplaceEvery(text, L" ", L""), L"0xA0", L""), ustring::m_Locale.ThousandsSep(), L"");
}

std::wstring CleanReal(const std::wstring& text)
{
    return ReplaceEvery(ReplaceEvery(ReplaceEvery(text, L" ", L""), ustring::m_Locale.ThousandsSep(), L""),
                        ustring::m_Locale.DecimalPoint(), L".");
}

} // namespace

TEST_F(UstringNumbers, IntegerTextMatchesItsDefinitionOnRandomValues)
{
    std::mt19937_64 random(42u);
    for (unsigned long lcid : {kUnitedStates, kGerman})
    {
        Use(lcid);
        for (unsigned int n = 0; n < 20000; ++n)
        {
            // Every magnitude equally often: shift a random value right by 0 to 63 bits.
            const unsigned __int64 value = random() >> (n % 64);
            ASSERT_EQ(static_cast<const std::wstring&>(ustring::ui64toa(value, false)), ReferenceGrouped(value)) << value;
            wchar_t hex[32];
            ::_snwprintf(hex, 32, L"%I64X", value);
            ASSERT_EQ(static_cast<const std::wstring&>(ustring::ui64toa(value, true)), hex) << value;
            const __int64 negative = -static_cast<__int64>(value >> 1) - 1;
            const std::wstring expected = ustring::m_Locale.NegativeSign() +
                                          ReferenceGrouped(0ull - static_cast<unsigned __int64>(negative));
            ASSERT_EQ(static_cast<const std::wstring&>(ustring::i64toa(negative)), expected) << negative;
        }
    }
}

TEST_F(UstringNumbers, ParsersCleanTheirInputAsDefined)
{
    // Texts made of digits, spaces, separators, points, signs, hexadecimal letters and pieces of
    // "0xA0", so that one removal can create or break what the next one looks for, and long
    // enough now and then to leave any short buffer.
    const std::vector<std::wstring> pieces{L"1", L"2", L"9", L" ", L"  ", L",", L".", L"0x", L"A0", L"0xA0",
                                           L"-", L"+", L"F", L"e", L"x", L"0", L"00000000000000000000"};
    std::mt19937 random(7u);
    std::uniform_int_distribution<std::size_t> piece(0, pieces.size() - 1);
    std::uniform_int_distribution<int> count(0, 12);
    for (unsigned long lcid : {kUnitedStates, kGerman})
    {
        Use(lcid);
        for (unsigned int n = 0; n < 20000; ++n)
        {
            std::wstring text;
            for (int i = count(random); i > 0; --i)
                text += pieces[piece(random)];
            const std::wstring integer = CleanInteger(text);
            for (int radix : {0, 10, 16})
            {
                ASSERT_EQ(ustring::atoi64(text.c_str(), radix), ::_wcstoi64(integer.c_str(), nullptr, radix)) << n;
                ASSERT_EQ(ustring::atoui64(text.c_str(), radix), ::_wcstoui64(integer.c_str(), nullptr, radix)) << n;
            }
            const std::wstring real = CleanReal(text);
            wchar_t* end = nullptr;
            const double expected = ::wcstod(real.c_str(), &end);
            bool trailing = false;
            const double actual = ustring::strtod(text.c_str(), trailing);
            ASSERT_TRUE(actual == expected || (actual != actual && expected != expected)) << n;
            ASSERT_EQ(trailing, *end != L'\0') << n;
        }
    }
    Use(kUnitedStates);
    // A space inside the literal text "0xA0" goes first, so the text is removed after all.
    EXPECT_EQ(ustring::atoui64(L"0x A0FF", 16), 255u);
    // Removal does not rescan: the "0xA0" formed by removing the inner one stays.
    EXPECT_EQ(ustring::atoui64(L"0x0xA0A0", 16), 0xA0u);
    EXPECT_EQ(ustring::atoi64((L"1" + std::wstring(300, L' ') + L"2").c_str(), 10), 12);
}

TEST(UstringBytes, FullWidthDigitsConvertLikeTheirAsciiForms)
{
    std::vector<unsigned char> bytes;
    EXPECT_TRUE(ustring::Hex2Bin(L"\xFF21\xFF22", bytes)); // full-width "AB"
    EXPECT_EQ(bytes, std::vector<unsigned char>{0xAB});
    EXPECT_TRUE(ustring::Hex2Bin(L"\xFF10\xFF46 \xFF41\xFF19 5\xFF43", bytes)); // "0f a9 5c"
    EXPECT_EQ(bytes, (std::vector<unsigned char>{0x0F, 0xA9, 0x5C}));
    EXPECT_FALSE(ustring::Hex2Bin(L"\xFF27" L"0", bytes)); // full-width "G"
    EXPECT_TRUE(bytes.empty());

    // Every code unit that the runtime classifies as a hexadecimal digit is accepted with the
    // value of its ASCII form; every other one, whitespace aside, is refused.
    unsigned int digits = 0;
    for (unsigned int code = 1; code <= 0xFFFF; ++code)
    {
        const wchar_t ch = static_cast<wchar_t>(code);
        const wchar_t pair[] = {ch, L'1', L'\0'};
        const bool accepted = ustring::Hex2Bin(pair, bytes);
        if (ch == L' ' || ch == L'\t' || ch == L'\r' || ch == L'\n')
        {
            EXPECT_TRUE(accepted && bytes.empty()) << code;
            continue;
        }
        if (!::iswxdigit(ch))
        {
            EXPECT_FALSE(accepted) << code;
            continue;
        }
        ++digits;
        const wchar_t ascii[] = {static_cast<wchar_t>(code >= 0xFF00 ? code - 0xFF10 + L'0' : code), L'\0'};
        const unsigned long value = std::wcstoul(ascii, nullptr, 16);
        ASSERT_TRUE(accepted) << code;
        EXPECT_EQ(bytes, std::vector<unsigned char>{static_cast<unsigned char>(value * 16 + 1)}) << code;
    }
    EXPECT_EQ(digits, 22u + 22u); // ASCII and full-width

    // Bin2Hex writes into the output's own storage and leaves nothing of what it held.
    ustring hex(std::wstring(1000, L'x'));
    ustring::Bin2Hex({0x01, 0xAB}, hex);
    EXPECT_EQ(hex, L"01AB");
}

TEST(UstringPrintf, RunawayFormatsEndWithEmptyText)
{
    // The runtime's own length count takes seconds here and answers 0; formatting fails at every
    // size. The result is empty text, not a loop.
    EXPECT_TRUE(ustring::sprintf_stc(L"%.*f", INT_MAX, 1.5).empty());
    // Would need about 2 GB.
    ustring text(L"previous");
    EXPECT_TRUE(text.sprintf(L"%999999999d", 1).empty());
    EXPECT_TRUE(ustring::sprintf_stc(L"x%*d", (1 << 22), 1).empty()); // one code unit over the limit
    // Up to the limit the text is whole.
    const ustring widest = ustring::sprintf_stc(L"%*d", (1 << 22), 7);
    EXPECT_EQ(widest.size(), static_cast<std::size_t>(1 << 22));
    EXPECT_EQ(widest.back(), L'7');
    EXPECT_EQ(widest.find_first_not_of(L' '), widest.size() - 1);
}

TEST(UstringPrintf, ResultsKeepNoSpareRoom)
{
    // Short results are built at their size, not in the first formatting buffer.
    std::size_t capacity = 0;
    for (int i = 0; i < 1000; ++i)
    {
        const ustring line = ustring::sprintf_stc(L"line %d of many", 100000 + i);
        ASSERT_EQ(line.size(), 19u);
        capacity += line.capacity();
    }
    EXPECT_LE(capacity, 1000u * 32u);
    const ustring longer = ustring::sprintf_stc(L"%ls", std::wstring(3000, L'z').c_str());
    EXPECT_EQ(longer.size(), 3000u);
    EXPECT_LT(longer.capacity(), 3100u);

    // An argument that points into self, longer than the first buffer.
    ustring self(3000, L'q');
    self.sprintf(L"<%ls>", self.c_str());
    EXPECT_EQ(self.size(), 3002u);
    EXPECT_EQ(self.front(), L'<');
    EXPECT_EQ(self[1500u], L'q');
    EXPECT_EQ(self.back(), L'>');
}
