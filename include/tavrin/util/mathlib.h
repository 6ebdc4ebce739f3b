// Small numeric helpers shared by the applications: angle conversions, text-to-double parsing,
// and conversion and comparison of OLE automation VARIANT values with a number base for integer
// text.
//
//     VARIANT v; VariantInit(&v);
//     v.vt = VT_BSTR; v.bstrVal = SysAllocString(L"1Fh");
//     tavrin::VariantChangeType(1033, VT_I4, v, 16, true);   // v.vt == VT_I4, v.lVal == 31
#pragma once

#include <tavrin/core/config.h>

#include <oleauto.h>

namespace tavrin {

// The library's value of pi.
constexpr double g_fPi = 3.141592653589793;

// pi * degrees / 180 and 180 * radians / pi, evaluated in that order.
TAVRIN_API double Deg2Rad(double degrees);
TAVRIN_API double Rad2Deg(double radians);
// Splits |degrees| into whole degrees, whole minutes and the remaining (unrounded) seconds;
// `negative` tells the sign. -12.5 gives 12, 30, 0.0 and true.
TAVRIN_API void Deg2DegsMinsSecs(double degrees, int& d, int& m, double& s, bool& negative);

// The number at the start of the text (format "%lf"); 0.0 unless exactly one field converts.
TAVRIN_API double wtof(const wchar_t* text);
// The text read as a number under the locale `lcid` by the automation conversion; 0.0 when it
// is not a number.
TAVRIN_API double wtof(const wchar_t* text, LCID lcid);

// Converts `v` in place to `vt` under `lcid`. With `base` not 0, integer text is read in that
// base (base 16 also accepts a trailing "h": "1Fh" is 31) and integers are printed in it (upper
// case; base 16 zero-padded to two digits per byte of the source type). A VT_BOOL source converts
// as 0 or 1, not as -1. On failure: with `throwOnError` CWinException with DISP_E_TYPEMISMATCH,
// otherwise false. After a failure `v` may hold an intermediate value.
TAVRIN_API bool VariantChangeType(LCID lcid, VARTYPE vt, VARIANT& v, int base = 0,
                                  bool throwOnError = false);
// -1, 0 or 1. With `emptyFirst` a VT_EMPTY value sorts before every other. Otherwise `b` is
// converted to `a`'s type under locale 1033 (0 when it cannot be) and the values compare
// numerically, as case-sensitive text (VT_BSTR) or as 0/1 (VT_BOOL); other types compare as 0.
TAVRIN_API int VariantCompare(const VARIANT& a, const VARIANT& b, bool emptyFirst = false);

} // namespace tavrin
