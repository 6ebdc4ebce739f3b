#include <tavrin/util/mathlib.h>

#include <tavrin/core/exception.h>

#include <cmath>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <cwctype>

namespace tavrin {

namespace {

// A VARIANT that clears itself, for the temporaries of this file.
class CVariantGuard
{
public:
    CVariantGuard() { ::VariantInit(&m_Value); }
    ~CVariantGuard() { ::VariantClear(&m_Value); }
    CVariantGuard(const CVariantGuard&) = delete;
    CVariantGuard& operator=(const CVariantGuard&) = delete;
    VARIANT& get() { return m_Value; }

private:
    VARIANT m_Value;
};

// Truncation towards zero that saturates instead of overflowing; NaN gives 0.
int TruncateToInt(double value)
{
    if (!(value == value))
        return 0;
    if (value >= static_cast<double>(INT_MAX))
        return INT_MAX;
    if (value <= static_cast<double>(INT_MIN))
        return INT_MIN;
    return static_cast<int>(value);
}

bool IsSignedNarrow(VARTYPE vt)
{
    return vt == VT_I1 || vt == VT_I2 || vt == VT_I4 || vt == VT_INT;
}

bool IsUnsignedNarrow(VARTYPE vt)
{
    return vt == VT_UI1 || vt == VT_UI2 || vt == VT_UI4 || vt == VT_UINT;
}

bool IsInteger(VARTYPE vt)
{
    return IsSignedNarrow(vt) || IsUnsignedNarrow(vt) || vt == VT_I8 || vt == VT_UI8;
}

// Two hexadecimal digits per byte of the integer type.
std::size_t HexWidth(VARTYPE vt)
{
    switch (vt)
    {
    case VT_I1: case VT_UI1: return 2;
    case VT_I2: case VT_UI2: return 4;
    case VT_I8: case VT_UI8: return 16;
    default: return 8;
    }
}

// The C runtime's integer conversions reject other bases through its invalid-parameter handler,
// which would end the process; they are never called with one.
bool IsValidBase(int base)
{
    return base >= 2 && base <= 36;
}

// Replaces the BSTR in `v` by the integer it spells in `base`: narrow types are read into VT_I4,
// 64-bit ones into VT_I8 / VT_UI8; the caller converts on to the final type. Returns false when
// text follows the number (a lone "h" or "H" is allowed in base 16: "1Fh").
bool ParseIntegerText(VARIANT& v, VARTYPE vt, int base)
{
    const wchar_t* text = v.bstrVal != nullptr ? v.bstrVal : L"";
    const wchar_t* textEnd = text + ::SysStringLen(v.bstrVal);
    wchar_t* end = const_cast<wchar_t*>(text);

    VARIANT parsed;
    ::VariantInit(&parsed);
    if (IsSignedNarrow(vt))
    {
        parsed.vt = VT_I4;
        parsed.lVal = std::wcstol(text, &end, base);
    }
    else if (IsUnsignedNarrow(vt))
    {
        // Stored as VT_I4 as well; the final conversion range-checks it.
        parsed.vt = VT_I4;
        parsed.lVal = static_cast<LONG>(std::wcstoul(text, &end, base));
    }
    else if (vt == VT_I8)
    {
        parsed.vt = VT_I8;
        parsed.llVal = ::_wcstoi64(text, &end, base);
    }
    else
    {
        parsed.vt = VT_UI8;
        parsed.ullVal = ::_wcstoui64(text, &end, base);
    }

    const std::ptrdiff_t rest = textEnd - end;
    const bool complete =
        rest == 0 || (base == 16 && rest == 1 && (end[0] == L'h' || end[0] == L'H'));
    ::VariantClear(&v);
    v = parsed;
    return complete;
}

// Prints the integer in `v` in `base` (upper case; base 16 zero-padded to the type's width) and
// stores the text as a BSTR. False only when the BSTR cannot be allocated.
bool PrintInteger(VARIANT& v, int base)
{
    wchar_t digits[72]; // 64 binary digits, a sign and the terminator
    switch (v.vt)
    {
    case VT_I1: ::_itow(v.cVal, digits, base); break;
    case VT_I2: ::_itow(v.iVal, digits, base); break;
    case VT_I4: ::_itow(v.lVal, digits, base); break;
    case VT_INT: ::_itow(v.intVal, digits, base); break;
    case VT_UI1: ::_ultow(v.bVal, digits, base); break;
    case VT_UI2: ::_ultow(v.uiVal, digits, base); break;
    case VT_UI4: ::_ultow(v.ulVal, digits, base); break;
    case VT_UINT: ::_ultow(v.uintVal, digits, base); break;
    case VT_I8: ::_i64tow(v.llVal, digits, base); break;
    default: ::_ui64tow(v.ullVal, digits, base); break;
    }
    ustring text(digits);
    for (wchar_t& ch : text)
        ch = static_cast<wchar_t>(std::towupper(ch));
    if (base == 16 && text.size() < HexWidth(v.vt))
        text.insert(0, HexWidth(v.vt) - text.size(), L'0');

    BSTR bstr = ::SysAllocStringLen(text.c_str(), static_cast<UINT>(text.size()));
    if (bstr == nullptr)
        return false;
    ::VariantClear(&v);
    v.vt = VT_BSTR;
    v.bstrVal = bstr;
    return true;
}

template <class T>
int Order(T a, T b)
{
    return a < b ? -1 : (b < a ? 1 : 0);
}

} // namespace

double Deg2Rad(double degrees)
{
    return g_fPi * degrees / 180.0;
}

double Rad2Deg(double radians)
{
    return 180.0 * radians / g_fPi;
}

void Deg2DegsMinsSecs(double degrees, int& d, int& m, double& s, bool& negative)
{
    negative = degrees < 0.0;
    const double a = std::fabs(degrees);
    d = TruncateToInt(a);
    m = TruncateToInt((a - d) * 60.0);
    s = (a - d) * 3600.0 - m * 60.0;
}

double wtof(const wchar_t* text)
{
    if (text == nullptr)
        return 0.0;
    double value = 0.0;
    return std::swscanf(text, L"%lf", &value) == 1 ? value : 0.0;
}

double wtof(const wchar_t* text, LCID lcid)
{
    if (text == nullptr)
        return 0.0;
    CVariantGuard v;
    v.get().bstrVal = ::SysAllocString(text);
    if (v.get().bstrVal == nullptr)
        return 0.0;
    v.get().vt = VT_BSTR;
    return VariantChangeType(lcid, VT_R8, v.get(), 0, false) ? v.get().dblVal : 0.0;
}

bool VariantChangeType(LCID lcid, VARTYPE vt, VARIANT& v, int base, bool throwOnError)
{
    if (v.vt == vt)
        return true;

    bool ok = base == 0 || IsValidBase(base);
    if (ok && base != 0 && vt == VT_BSTR && IsInteger(v.vt))
    {
        if (PrintInteger(v, base))
            return true;
        ok = false;
    }
    if (ok)
    {
        // Integer text in a base becomes an integer first; a number followed by other text is a
        // failure, but the number still goes through the final conversion below.
        bool complete = true;
        if (base != 0 && v.vt == VT_BSTR && IsInteger(vt))
            complete = ParseIntegerText(v, vt, base);
        // true becomes 1, not the automation value -1: callers compute with it.
        if (v.vt == VT_BOOL)
            v.boolVal = v.boolVal != VARIANT_FALSE ? 1 : 0;
        const HRESULT hr = ::VariantChangeTypeEx(&v, &v, lcid, VARIANT_NOUSEROVERRIDE, vt);
        ok = SUCCEEDED(hr) && complete;
    }
    if (ok)
        return true;
    if (throwOnError)
        throw CWinException(__LINE__, TAVRIN_WFILE, L"tavrin::VariantChangeType", DISP_E_TYPEMISMATCH);
    return false;
}

int VariantCompare(const VARIANT& a, const VARIANT& b, bool emptyFirst)
{
    if (emptyFirst)
    {
        const bool aEmpty = a.vt == VT_EMPTY;
        const bool bEmpty = b.vt == VT_EMPTY;
        if (aEmpty || bEmpty)
            return aEmpty == bEmpty ? 0 : (aEmpty ? -1 : 1);
    }

    const VARIANT* other = &b;
    CVariantGuard copy;
    if (a.vt != b.vt)
    {
        if (FAILED(::VariantCopy(&copy.get(), const_cast<VARIANT*>(&b))) ||
            !VariantChangeType(1033, a.vt, copy.get(), 0, false))
            return 0;
        other = &copy.get();
    }

    switch (a.vt)
    {
    case VT_I1: return Order(a.cVal, other->cVal);
    case VT_I2: return Order(a.iVal, other->iVal);
    case VT_I4: return Order(a.lVal, other->lVal);
    case VT_INT: return Order(a.intVal, other->intVal);
    case VT_I8: return Order(a.llVal, other->llVal);
    case VT_UI1: return Order(a.bVal, other->bVal);
    case VT_UI2: return Order(a.uiVal, other->uiVal);
    case VT_UI4: return Order(a.ulVal, other->ulVal);
    case VT_UINT: return Order(a.uintVal, other->uintVal);
    case VT_UI8: return Order(a.ullVal, other->ullVal);
    case VT_R4: return Order(a.fltVal, other->fltVal);
    case VT_R8: return Order(a.dblVal, other->dblVal);
    case VT_BOOL: return Order(a.boolVal != VARIANT_FALSE, other->boolVal != VARIANT_FALSE);
    case VT_BSTR:
    {
        const int c = std::wcscmp(a.bstrVal != nullptr ? a.bstrVal : L"",
                                  other->bstrVal != nullptr ? other->bstrVal : L"");
        return Order(c, 0);
    }
    default:
        return 0;
    }
}

} // namespace tavrin
