// CLocale: the number-formatting settings of one Windows locale.
#include <tavrin/core/locale.h>
#include <tavrin/core/ustring.h>

#include <cstdlib>

namespace tavrin {

namespace {

// Reads one numeric item; the system's text ("3;0" for grouping) is read up to its first
// non-digit, so only the first group size counts.
void ReadNumber(unsigned long lcid, unsigned long item, int& value)
{
    ustring text;
    if (CLocale::GetLocaleInfoW(lcid, item, text))
        value = ::_wtoi(text.c_str());
}

void ReadText(unsigned long lcid, unsigned long item, std::wstring& value)
{
    ustring text;
    if (CLocale::GetLocaleInfoW(lcid, item, text))
        value = std::move(text);
}

} // namespace

CLocale::CLocale(unsigned long lcid)
    : m_nLcid(lcid)
    , m_strDecimalPoint(L".")
    , m_strThousandsSep(L",")
    , m_strNegativeSign(L"-")
    , m_nNegNumber(1)
    , m_nGrouping(3)
    , m_nDigits(2)
    , m_bLeadingZeros(true)
{
    ReadText(lcid, LOCALE_SDECIMAL, m_strDecimalPoint);
    ReadText(lcid, LOCALE_STHOUSAND, m_strThousandsSep);
    ReadText(lcid, LOCALE_SNEGATIVESIGN, m_strNegativeSign);
    ReadNumber(lcid, LOCALE_INEGNUMBER, m_nNegNumber);
    ReadNumber(lcid, LOCALE_SGROUPING, m_nGrouping);
    ReadNumber(lcid, LOCALE_IDIGITS, m_nDigits);
    int leadingZeros = m_bLeadingZeros ? 1 : 0;
    ReadNumber(lcid, LOCALE_ILZERO, leadingZeros);
    m_bLeadingZeros = leadingZeros != 0;
}

bool CLocale::GetLocaleInfoW(unsigned long lcid, unsigned long item, ustring& out)
{
    out.clear();
    const int needed = ::GetLocaleInfoW(lcid, item, nullptr, 0);
    if (needed <= 0)
        return false;
    out.resize(static_cast<std::size_t>(needed));
    const int written = ::GetLocaleInfoW(lcid, item, &out[0u], needed);
    if (written <= 0)
    {
        out.clear();
        return false;
    }
    out.resize(static_cast<std::size_t>(written - 1)); // the count includes the terminator
    return true;
}

} // namespace tavrin
