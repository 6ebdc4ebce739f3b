// The locale record: the number-formatting settings of one Windows locale, read once when the
// record is built so that formatting many numbers costs no system calls.
#pragma once

#include <tavrin/core/config.h>

#include <string>

namespace tavrin {

class ustring;

class TAVRIN_API CLocale
{
public:
    // Reads the settings of `lcid` (LOCALE_USER_DEFAULT is 0x400). Items the system does not
    // know keep neutral values: "." as decimal point, "," as separator, "-" as sign, grouping 3,
    // two digits, leading zeros, layout 1 ("-1").
    explicit CLocale(unsigned long lcid = LOCALE_USER_DEFAULT);
    CLocale(const CLocale&) = default;
    CLocale(CLocale&&) noexcept = default;
    CLocale& operator=(const CLocale&) = default;
    CLocale& operator=(CLocale&&) noexcept = default;
    ~CLocale() = default;

    // One locale item (LOCALE_* constant) as text; false, with `out` emptied, when the system
    // has no such item for that locale.
    static bool GetLocaleInfoW(unsigned long lcid, unsigned long item, ustring& out);

    unsigned long Lcid() const noexcept { return m_nLcid; }

    const wchar_t* DecimalPoint() const noexcept { return m_strDecimalPoint.c_str(); }
    const wchar_t* ThousandsSep() const noexcept { return m_strThousandsSep.c_str(); }
    const wchar_t* NegativeSign() const noexcept { return m_strNegativeSign.c_str(); }
    // Negative-number layout (LOCALE_INEGNUMBER): 0 "(1.1)", 1 "-1.1", 2 "- 1.1", 3 "1.1-", 4 "1.1 -".
    int NegNumber() const noexcept { return m_nNegNumber; }
    // Digits per group; 0 means no grouping.
    int Grouping() const noexcept { return m_nGrouping; }
    // Fraction digits used when a caller asks for the locale's default.
    int Digits() const noexcept { return m_nDigits; }
    // Whether values below 1 are written with a "0" before the decimal point.
    bool LeadingZeros() const noexcept { return m_bLeadingZeros; }

private:
    unsigned long m_nLcid;
    std::wstring m_strDecimalPoint;
    std::wstring m_strThousandsSep;
    std::wstring m_strNegativeSign;
    int m_nNegNumber;
    int m_nGrouping;
    int m_nDigits;
    bool m_bLeadingZeros;
};

} // namespace tavrin
