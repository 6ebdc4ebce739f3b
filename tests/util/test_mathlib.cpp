// Angles, text-to-double and VARIANT conversion and comparison on the system's automation types.
#include <tavrin/util/mathlib.h>

#include <tavrin/core/exception.h>

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>

using namespace tavrin;

namespace {

// A VARIANT owned by the test.
class CVar
{
public:
    CVar() { ::VariantInit(&v); }
    explicit CVar(const wchar_t* text)
    {
        ::VariantInit(&v);
        v.vt = VT_BSTR;
        v.bstrVal = ::SysAllocString(text);
    }
    template <class Setter>
    CVar(VARTYPE vt, Setter set)
    {
        ::VariantInit(&v);
        v.vt = vt;
        set(v);
    }
    ~CVar() { ::VariantClear(&v); }
    CVar(const CVar&) = delete;
    CVar& operator=(const CVar&) = delete;

    std::wstring Text() const { return v.vt == VT_BSTR && v.bstrVal ? std::wstring(v.bstrVal, ::SysStringLen(v.bstrVal)) : L"<not text>"; }

    VARIANT v;
};

unsigned int FuzzSeed(unsigned int fallback)
{
    const char* text = std::getenv("TAVRIN_FUZZ_SEED");
    return text != nullptr ? static_cast<unsigned int>(std::strtoul(text, nullptr, 0)) : fallback;
}

// Digits of `value` in `base`, upper case, written independently of the C runtime's helpers.
std::wstring Digits(unsigned long long value, unsigned int base)
{
    const wchar_t* symbols = L"0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ";
    std::wstring text;
    do
    {
        text.insert(text.begin(), symbols[value % base]);
        value /= base;
    } while (value != 0);
    return text;
}

} // namespace

TEST(MathLib, Angles)
{
    EXPECT_EQ(Deg2Rad(180.0), 3.141592653589793);
    EXPECT_EQ(Deg2Rad(0.0), 0.0);
    EXPECT_EQ(Rad2Deg(3.141592653589793), 180.0);
    EXPECT_NEAR(Deg2Rad(90.0), std::acos(0.0), 1e-15);
    EXPECT_NEAR(Rad2Deg(Deg2Rad(-37.25)), -37.25, 1e-12);

    int d = -1, m = -1;
    double s = -1.0;
    bool negative = false;
    Deg2DegsMinsSecs(-12.5, d, m, s, negative);
    EXPECT_EQ(d, 12);
    EXPECT_EQ(m, 30);
    EXPECT_EQ(s, 0.0);
    EXPECT_TRUE(negative);

    Deg2DegsMinsSecs(48.1375, d, m, s, negative); // 48 degrees 8 minutes 15 seconds
    EXPECT_EQ(d, 48);
    EXPECT_EQ(m, 8);
    EXPECT_NEAR(s, 15.0, 1e-9);
    EXPECT_FALSE(negative);

    Deg2DegsMinsSecs(0.0, d, m, s, negative);
    EXPECT_EQ(d, 0);
    EXPECT_EQ(m, 0);
    EXPECT_EQ(s, 0.0);
    EXPECT_FALSE(negative);

    // Seconds are not rounded: they stay below 60 and rebuild the angle.
    std::mt19937 rng(3u);
    std::uniform_real_distribution<double> angle(-360.0, 360.0);
    for (int n = 0; n < 10000; ++n)
    {
        const double a = angle(rng);
        Deg2DegsMinsSecs(a, d, m, s, negative);
        ASSERT_EQ(negative, a < 0);
        ASSERT_GE(m, 0);
        ASSERT_LT(m, 60);
        ASSERT_GE(s, -1e-9);
        ASSERT_LT(s, 60.0 + 1e-9);
        ASSERT_NEAR(d + m / 60.0 + s / 3600.0, std::fabs(a), 1e-9);
    }
}

TEST(MathLib, TextToDouble)
{
    EXPECT_EQ(wtof(L"1.5 2"), 1.5);
    EXPECT_EQ(wtof(L""), 0.0);
    EXPECT_EQ(wtof(L"abc"), 0.0);
    EXPECT_EQ(wtof(L"  -2.5e3x"), -2500.0);
    EXPECT_EQ(wtof(nullptr), 0.0);

    // The locale form reads the text with the locale's separators.
    EXPECT_EQ(wtof(L"1.5", 1033), 1.5);
    EXPECT_EQ(wtof(L"1,5", 1031), 1.5);
    EXPECT_EQ(wtof(L"1.234,5", 1031), 1234.5);
    EXPECT_EQ(wtof(L"-7", 1033), -7.0);
    EXPECT_EQ(wtof(L"abc", 1033), 0.0);
    EXPECT_EQ(wtof(L"", 1033), 0.0);
    EXPECT_EQ(wtof(nullptr, 1033), 0.0);
}

TEST(MathLib, VariantChangeTypeWithBase)
{
    {
        CVar v(L"ff");
        EXPECT_TRUE(VariantChangeType(1033, VT_UI1, v.v, 16, false));
        EXPECT_EQ(v.v.vt, VT_UI1);
        EXPECT_EQ(v.v.bVal, 255);
    }
    {
        CVar v(L"1Fh");
        EXPECT_TRUE(VariantChangeType(1033, VT_I4, v.v, 16, false));
        EXPECT_EQ(v.v.vt, VT_I4);
        EXPECT_EQ(v.v.lVal, 31);
    }
    {
        CVar v(L"1FH");
        EXPECT_TRUE(VariantChangeType(1033, VT_I2, v.v, 16, false));
        EXPECT_EQ(v.v.vt, VT_I2);
        EXPECT_EQ(v.v.iVal, 31);
    }
    {
        CVar v(L"-101");
        EXPECT_TRUE(VariantChangeType(1033, VT_I1, v.v, 2, false));
        EXPECT_EQ(v.v.vt, VT_I1);
        EXPECT_EQ(v.v.cVal, -5);
    }
    {
        CVar v(L"ffffffffffffffff");
        EXPECT_TRUE(VariantChangeType(1033, VT_UI8, v.v, 16, false));
        EXPECT_EQ(v.v.vt, VT_UI8);
        EXPECT_EQ(v.v.ullVal, 0xFFFFFFFFFFFFFFFFull);
    }
    {
        CVar v(L"-123456789012");
        EXPECT_TRUE(VariantChangeType(1033, VT_I8, v.v, 10, false));
        EXPECT_EQ(v.v.llVal, -123456789012LL);
    }
    // "h" is a suffix of base 16 only, and nothing else may follow the number.
    for (const auto& c : {std::make_pair(L"12x", 10), std::make_pair(L"12h", 10), std::make_pair(L"1Fhh", 16),
                          std::make_pair(L"zz", 16)})
    {
        CVar v(c.first);
        EXPECT_FALSE(VariantChangeType(1033, VT_I4, v.v, c.second, false)) << c.first;
    }
    {
        CVar v(L"12x");
        try
        {
            VariantChangeType(1033, VT_I4, v.v, 10, true);
            ADD_FAILURE() << "no exception";
        }
        catch (const CWinException& e)
        {
            EXPECT_EQ(e.GetErrorCode(), static_cast<long>(DISP_E_TYPEMISMATCH));
            EXPECT_EQ(e.GetFunction(), L"tavrin::VariantChangeType");
        }
    }
    {
        CVar v(L"300"); // beyond VT_UI1
        EXPECT_FALSE(VariantChangeType(1033, VT_UI1, v.v, 10, false));
        EXPECT_THROW(VariantChangeType(1033, VT_UI1, v.v, 10, true), CWinException);
    }
    {
        CVar v(L"12"); // an impossible base fails without touching the value
        EXPECT_FALSE(VariantChangeType(1033, VT_I4, v.v, 1, false));
        EXPECT_FALSE(VariantChangeType(1033, VT_I4, v.v, 37, false));
        EXPECT_EQ(v.Text(), L"12");
    }
}

TEST(MathLib, VariantChangeTypeToText)
{
    {
        CVar v(VT_UI2, [](VARIANT& x) { x.uiVal = 255; });
        EXPECT_TRUE(VariantChangeType(1033, VT_BSTR, v.v, 16, false));
        EXPECT_EQ(v.Text(), L"00FF");
    }
    {
        CVar v(VT_UI1, [](VARIANT& x) { x.bVal = 10; });
        EXPECT_TRUE(VariantChangeType(1033, VT_BSTR, v.v, 16, false));
        EXPECT_EQ(v.Text(), L"0A");
    }
    {
        CVar v(VT_I4, [](VARIANT& x) { x.lVal = 0xABC; });
        EXPECT_TRUE(VariantChangeType(1033, VT_BSTR, v.v, 16, false));
        EXPECT_EQ(v.Text(), L"00000ABC");
    }
    {
        CVar v(VT_UI8, [](VARIANT& x) { x.ullVal = 0x1234; });
        EXPECT_TRUE(VariantChangeType(1033, VT_BSTR, v.v, 16, false));
        EXPECT_EQ(v.Text(), L"0000000000001234");
    }
    {
        CVar v(VT_I4, [](VARIANT& x) { x.lVal = -42; });
        EXPECT_TRUE(VariantChangeType(1033, VT_BSTR, v.v, 10, false));
        EXPECT_EQ(v.Text(), L"-42");
    }
    {
        CVar v(VT_UI4, [](VARIANT& x) { x.ulVal = 5; });
        EXPECT_TRUE(VariantChangeType(1033, VT_BSTR, v.v, 2, false));
        EXPECT_EQ(v.Text(), L"101");
    }
    {
        CVar v(VT_I2, [](VARIANT& x) { x.iVal = 35; });
        EXPECT_TRUE(VariantChangeType(1033, VT_BSTR, v.v, 36, false));
        EXPECT_EQ(v.Text(), L"Z");
    }
    {
        // Base 0 leaves printing to the system: a plain decimal text.
        CVar v(VT_I4, [](VARIANT& x) { x.lVal = 255; });
        EXPECT_TRUE(VariantChangeType(1033, VT_BSTR, v.v, 0, false));
        EXPECT_EQ(v.Text(), L"255");
    }
}

TEST(MathLib, VariantChangeTypeSystemConversions)
{
    {
        // Same type: nothing to do, even for a VT_BOOL holding the automation true.
        CVar v(VT_BOOL, [](VARIANT& x) { x.boolVal = VARIANT_TRUE; });
        EXPECT_TRUE(VariantChangeType(1033, VT_BOOL, v.v, 0, false));
        EXPECT_EQ(v.v.boolVal, VARIANT_TRUE);
    }
    {
        // true converts as 1, not -1.
        CVar v(VT_BOOL, [](VARIANT& x) { x.boolVal = VARIANT_TRUE; });
        EXPECT_TRUE(VariantChangeType(1033, VT_I4, v.v, 0, false));
        EXPECT_EQ(v.v.vt, VT_I4);
        EXPECT_EQ(v.v.lVal, 1);
    }
    {
        CVar v(VT_BOOL, [](VARIANT& x) { x.boolVal = VARIANT_TRUE; });
        EXPECT_TRUE(VariantChangeType(1033, VT_R8, v.v, 10, false));
        EXPECT_EQ(v.v.dblVal, 1.0);
    }
    {
        CVar v(VT_BOOL, [](VARIANT& x) { x.boolVal = VARIANT_FALSE; });
        EXPECT_TRUE(VariantChangeType(1033, VT_I2, v.v, 0, false));
        EXPECT_EQ(v.v.iVal, 0);
    }
    {
        CVar v(L"2,5");
        EXPECT_TRUE(VariantChangeType(1031, VT_R8, v.v, 0, false));
        EXPECT_EQ(v.v.dblVal, 2.5);
    }
    {
        CVar v(VT_R8, [](VARIANT& x) { x.dblVal = 2.5; });
        EXPECT_TRUE(VariantChangeType(1033, VT_BSTR, v.v, 0, false));
        EXPECT_EQ(v.Text(), L"2.5");
    }
    {
        CVar v(L"not a number");
        EXPECT_FALSE(VariantChangeType(1033, VT_R8, v.v, 0, false));
        EXPECT_THROW(VariantChangeType(1033, VT_R8, v.v, 0, true), CWinException);
    }
}

TEST(MathLib, VariantCompare)
{
    CVar five(VT_I4, [](VARIANT& x) { x.lVal = 5; });
    CVar six(VT_I4, [](VARIANT& x) { x.lVal = 6; });
    CVar text5(L"5");
    CVar text10(L"10");
    CVar empty;
    EXPECT_EQ(VariantCompare(five.v, text5.v, false), 0); // the text is converted under 1033
    EXPECT_EQ(VariantCompare(five.v, text10.v, false), -1);
    EXPECT_EQ(VariantCompare(six.v, five.v, false), 1);
    EXPECT_EQ(VariantCompare(five.v, six.v, false), -1);
    // Texts compare as texts, case-sensitively: "5" > "10", "a" > "B".
    EXPECT_EQ(VariantCompare(text5.v, text10.v, false), 1);
    CVar lowerA(L"a"), upperB(L"B");
    EXPECT_EQ(VariantCompare(lowerA.v, upperB.v, false), 1);
    EXPECT_EQ(VariantCompare(upperB.v, lowerA.v, false), -1);
    // A number as the second operand is printed for a text first operand.
    EXPECT_EQ(VariantCompare(text5.v, five.v, false), 0);
    CVar word(L"abc");
    EXPECT_EQ(VariantCompare(five.v, word.v, false), 0); // not convertible: 0

    EXPECT_EQ(VariantCompare(empty.v, five.v, true), -1);
    EXPECT_EQ(VariantCompare(five.v, empty.v, true), 1);
    EXPECT_EQ(VariantCompare(empty.v, empty.v, true), 0);

    CVar yes(VT_BOOL, [](VARIANT& x) { x.boolVal = VARIANT_TRUE; });
    CVar oddTrue(VT_BOOL, [](VARIANT& x) { x.boolVal = 1; });
    CVar no(VT_BOOL, [](VARIANT& x) { x.boolVal = VARIANT_FALSE; });
    EXPECT_EQ(VariantCompare(yes.v, oddTrue.v, false), 0);
    EXPECT_EQ(VariantCompare(no.v, yes.v, false), -1);
    EXPECT_EQ(VariantCompare(yes.v, no.v, false), 1);

    CVar big(VT_UI4, [](VARIANT& x) { x.ulVal = 0xFFFFFFFFu; });
    CVar small(VT_UI4, [](VARIANT& x) { x.ulVal = 1; });
    EXPECT_EQ(VariantCompare(big.v, small.v, false), 1); // unsigned order
    CVar r8(VT_R8, [](VARIANT& x) { x.dblVal = 2.5; });
    CVar r8nan(VT_R8, [](VARIANT& x) { x.dblVal = std::nan(""); });
    CVar r4(VT_R4, [](VARIANT& x) { x.fltVal = 2.5f; });
    EXPECT_EQ(VariantCompare(r8.v, r4.v, false), 0);
    EXPECT_EQ(VariantCompare(r8.v, five.v, false), -1);
    EXPECT_EQ(VariantCompare(r8nan.v, r8.v, false), 0);
    CVar i8(VT_I8, [](VARIANT& x) { x.llVal = -(1LL << 40); });
    EXPECT_EQ(VariantCompare(i8.v, five.v, false), -1);

    // Operands are left as they were.
    EXPECT_EQ(text5.v.vt, VT_BSTR);
    EXPECT_EQ(text5.Text(), L"5");
}

TEST(MathLib, RandomizedIntegerText)
{
    const unsigned int seed = FuzzSeed(31337u);
    std::mt19937_64 rng(seed);
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::uniform_int_distribution<unsigned int> base(2, 36);

    // Values printed independently in a random base read back exactly, and print back the same.
    for (int n = 0; n < 50000; ++n)
    {
        const unsigned long long value = rng() >> (rng() % 64);
        const unsigned int b = base(rng);
        const std::wstring digits = Digits(value, b);
        CVar v(digits.c_str());
        ASSERT_TRUE(VariantChangeType(1033, VT_UI8, v.v, static_cast<int>(b), false)) << digits << L" base " << b;
        ASSERT_EQ(v.v.ullVal, value) << digits << L" base " << b;
        ASSERT_TRUE(VariantChangeType(1033, VT_BSTR, v.v, static_cast<int>(b), false));
        std::wstring expected = digits;
        if (b == 16)
            expected.insert(0, 16 - expected.size(), L'0');
        ASSERT_EQ(v.Text(), expected);
    }

    // Arbitrary text in arbitrary bases and targets: no crash, and a success has the target type.
    const std::wstring alphabet = L"0123456789abcdefxyzABCXhH+- .,";
    const VARTYPE targets[] = {VT_I1, VT_I2, VT_I4, VT_INT, VT_UI1, VT_UI2, VT_UI4, VT_UINT,
                               VT_I8, VT_UI8, VT_R4, VT_R8, VT_BOOL, VT_BSTR};
    std::uniform_int_distribution<std::size_t> length(0, 12), pick(0, alphabet.size() - 1);
    std::uniform_int_distribution<int> anyBase(-1, 38);
    std::uniform_int_distribution<std::size_t> target(0, sizeof targets / sizeof targets[0] - 1);
    int converted = 0;
    for (int n = 0; n < 100000; ++n)
    {
        std::wstring text(length(rng), L'0');
        for (wchar_t& ch : text)
            ch = alphabet[pick(rng)];
        const VARTYPE vt = targets[target(rng)];
        const int b = anyBase(rng);
        CVar v(text.c_str());
        const bool ok = VariantChangeType(1033, vt, v.v, b, false);
        if (ok)
        {
            ++converted;
            ASSERT_EQ(v.v.vt, vt) << text << L" base " << b;
        }
    }
    EXPECT_GT(converted, 1000);
}

TEST(MathLib, RandomizedTextToDouble)
{
    const unsigned int seed = FuzzSeed(2718u);
    std::mt19937_64 rng(seed);
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::uniform_real_distribution<double> mantissa(-1.0, 1.0);
    std::uniform_int_distribution<int> exponent(-30, 30);

    // Printed with round-trip precision, a number reads back exactly with "%lf" and within an
    // ulp or two through the automation conversion.
    for (int n = 0; n < 50000; ++n)
    {
        const double value = mantissa(rng) * std::pow(10.0, exponent(rng));
        wchar_t text[64];
        swprintf(text, 64, n % 2 ? L"%.17g" : L"%.17e", value);
        ASSERT_EQ(wtof(text), value) << text;
        ASSERT_NEAR(wtof(text, 1033), value, std::fabs(value) * 1e-15) << text;
    }

    // Arbitrary text: never a crash, and a result only when the text starts with a number.
    const std::wstring alphabet = L"0123456789.,eE+- \tinfINFnaNxX";
    std::uniform_int_distribution<std::size_t> length(0, 16), pick(0, alphabet.size() - 1);
    for (int n = 0; n < 100000; ++n)
    {
        std::wstring text(length(rng), L'0');
        for (wchar_t& ch : text)
            ch = alphabet[pick(rng)];
        const double plain = wtof(text.c_str());
        const double localized = wtof(text.c_str(), n % 2 ? 1033 : 1031);
        wchar_t* end = nullptr;
        const double reference = std::wcstod(text.c_str(), &end);
        if (end == text.c_str())
        {
            ASSERT_EQ(plain, 0.0) << text;
        }
        else if (std::isfinite(reference))
        {
            ASSERT_EQ(plain, reference) << text;
        }
        ASSERT_FALSE(std::isnan(localized)) << text;
    }
}
