// CLocale: the settings read from the system for pinned locale identifiers.
#include <tavrin/core/locale.h>
#include <tavrin/core/ustring.h>

#include <gtest/gtest.h>

#include <string>
#include <utility>

using namespace tavrin;

namespace {

void ExpectSame(const CLocale& a, const CLocale& b)
{
    EXPECT_EQ(a.Lcid(), b.Lcid());
    EXPECT_STREQ(a.DecimalPoint(), b.DecimalPoint());
    EXPECT_STREQ(a.ThousandsSep(), b.ThousandsSep());
    EXPECT_STREQ(a.NegativeSign(), b.NegativeSign());
    EXPECT_EQ(a.NegNumber(), b.NegNumber());
    EXPECT_EQ(a.Grouping(), b.Grouping());
    EXPECT_EQ(a.Digits(), b.Digits());
    EXPECT_EQ(a.LeadingZeros(), b.LeadingZeros());
}

} // namespace

TEST(Locale, GermanAndUnitedStatesSettings)
{
    const CLocale german(0x407);
    EXPECT_EQ(german.Lcid(), 0x407u);
    EXPECT_STREQ(german.DecimalPoint(), L",");
    EXPECT_STREQ(german.ThousandsSep(), L".");
    EXPECT_STREQ(german.NegativeSign(), L"-");
    EXPECT_EQ(german.Grouping(), 3); // "3;0" read up to its first non-digit
    EXPECT_EQ(german.Digits(), 2);
    EXPECT_TRUE(german.LeadingZeros());
    EXPECT_EQ(german.NegNumber(), 1);

    const CLocale us(0x409);
    EXPECT_STREQ(us.DecimalPoint(), L".");
    EXPECT_STREQ(us.ThousandsSep(), L",");
    EXPECT_EQ(us.Grouping(), 3);

    // The record holds what the system reports for each item.
    ustring text;
    ASSERT_TRUE(CLocale::GetLocaleInfoW(0x407, LOCALE_SDECIMAL, text));
    EXPECT_EQ(text, german.DecimalPoint());
    ASSERT_TRUE(CLocale::GetLocaleInfoW(0x409, LOCALE_SGROUPING, text));
    EXPECT_EQ(text.substr(0, 1), L"3");
}

TEST(Locale, UnknownItemsAndLocales)
{
    ustring text(L"stale");
    EXPECT_FALSE(CLocale::GetLocaleInfoW(0x409, 0x7777, text));
    EXPECT_TRUE(text.empty());
    text = L"stale";
    EXPECT_FALSE(CLocale::GetLocaleInfoW(0x12345, LOCALE_SDECIMAL, text));
    EXPECT_TRUE(text.empty());

    // A locale the system does not know keeps the neutral settings.
    const CLocale unknown(0x12345);
    EXPECT_STREQ(unknown.DecimalPoint(), L".");
    EXPECT_STREQ(unknown.ThousandsSep(), L",");
    EXPECT_STREQ(unknown.NegativeSign(), L"-");
    EXPECT_EQ(unknown.NegNumber(), 1);
    EXPECT_EQ(unknown.Grouping(), 3);
    EXPECT_EQ(unknown.Digits(), 2);
    EXPECT_TRUE(unknown.LeadingZeros());
}

TEST(Locale, CopyMoveAndTheStringDefault)
{
    const CLocale german(0x407);
    CLocale copy(german);
    ExpectSame(copy, german);
    CLocale moved(std::move(copy));
    ExpectSame(moved, german);
    CLocale assigned(0x409);
    assigned = german;
    ExpectSame(assigned, german);
    assigned = CLocale(0x409);
    EXPECT_STREQ(assigned.DecimalPoint(), L".");
    // The text pointers belong to each record, not to a shared buffer.
    EXPECT_STREQ(german.DecimalPoint(), L",");

    // ustring's locale is the user default unless a caller replaced it (tests restore it).
    ExpectSame(ustring::m_Locale, CLocale(LOCALE_USER_DEFAULT));
}
