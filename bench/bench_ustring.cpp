// ustring's text, number and formatting operations against hand-written std::wstring / C runtime
// code doing the same work, and the inputs that once took exponential or unbounded time.
//
// Run it under Wine from the build folder: wine bin/tavrin_bench_ustring.exe
#include <tavrin/core/ustring.h>

#include "bench_support.h"

#include <climits>
#include <initializer_list>
#include <cwchar>
#include <cwctype>
#include <string>
#include <vector>

using namespace tavrin;
using bench::g_sink;

namespace {

// ---------------------------------------------------------------- baselines

// The classic iterative wildcard matcher: on a mismatch, back up to the last star and let it
// swallow one more code unit. Not inlined, as a call into the library cannot be.
__attribute__((noinline)) bool IterativeMatch(const wchar_t* s, std::size_t n, const wchar_t* m, std::size_t mn, bool fold)
{
    const auto unit = [fold](wchar_t ch) { return fold ? static_cast<wchar_t>(::towlower(ch)) : ch; };
    std::size_t i = 0, j = 0, star = std::wstring::npos, resume = 0;
    while (i < n)
    {
        if (j < mn && m[j] == L'*')
        {
            star = j++;
            resume = i;
        }
        else if (j < mn && (m[j] == L'?' || unit(m[j]) == unit(s[i])))
        {
            ++i;
            ++j;
        }
        else if (star != std::wstring::npos)
        {
            j = star + 1;
            i = ++resume;
        }
        else
        {
            return false;
        }
    }
    while (j < mn && m[j] == L'*')
        ++j;
    return j == mn;
}

// Builds the result of replacing every occurrence in a new string.
std::wstring ReplaceByHand(const std::wstring& text, const std::wstring& what, const std::wstring& with)
{
    std::wstring out;
    out.reserve(text.size());
    std::size_t pos = 0;
    for (std::size_t hit = text.find(what); hit != std::wstring::npos; hit = text.find(what, pos))
    {
        out.append(text, pos, hit - pos);
        out.append(with);
        pos = hit + what.size();
    }
    out.append(text, pos, std::wstring::npos);
    return out;
}

// Removes every occurrence of `what` from a terminated buffer in place.
void RemoveByHand(wchar_t* text, const wchar_t* what)
{
    const std::size_t length = std::wcslen(what);
    if (length == 0)
        return;
    wchar_t* w = text;
    for (const wchar_t* r = text; *r;)
    {
        if (std::wcsncmp(r, what, length) == 0)
            r += length;
        else
            *w++ = *r++;
    }
    *w = L'\0';
}

// The parsers' cleaning by hand: spaces, then the given texts removed; the decimal point
// (one code unit) turned into ".".
void CleanByHand(const wchar_t* text, wchar_t* out, std::initializer_list<const wchar_t*> remove, const wchar_t* point)
{
    wchar_t* p = out;
    for (const wchar_t* t = text; *t; ++t)
        if (*t != L' ')
            *p++ = *t;
    *p = L'\0';
    for (const wchar_t* what : remove)
        RemoveByHand(out, what);
    if (point && *point && point[1] == L'\0')
        for (wchar_t* r = out; *r; ++r)
            if (*r == *point)
                *r = L'.';
}

// Hexadecimal pairs by hand: a table of the ASCII digits' values, whitespace skipped.
bool Hex2BinByHand(const std::wstring& text, std::vector<unsigned char>& out)
{
    static const std::vector<signed char> values = [] {
        std::vector<signed char> table(128, -1);
        for (int d = 0; d < 10; ++d)
            table['0' + d] = static_cast<signed char>(d);
        for (int d = 0; d < 6; ++d)
            table['A' + d] = table['a' + d] = static_cast<signed char>(10 + d);
        table[' '] = table['\r'] = table['\n'] = table['\t'] = -2;
        return table;
    }();
    out.clear();
    std::size_t digits = 0;
    unsigned int pair = 0;
    for (std::size_t i = 0; i < text.size(); ++i)
    {
        const int v = text[i] < 128 ? values[text[i]] : -1;
        if (v == -2)
            continue;
        if (v == -1)
        {
            out.clear();
            return false;
        }
        pair = pair * 16 + static_cast<unsigned int>(v);
        if (++digits % 2 == 0)
        {
            out.push_back(static_cast<unsigned char>(pair));
            pair = 0;
        }
    }
    return true;
}

// Decimal digits of a value, then grouped for the locale by the system.
template <class T>
std::size_t GroupedByHand(const wchar_t* format, T value, const NUMBERFMTW& grouping)
{
    wchar_t digits[32], grouped[64];
    ::_snwprintf(digits, 32, format, value);
    const int n = ::GetNumberFormatW(0x409, 0, digits, &grouping, grouped, 64);
    return std::wstring(grouped, n > 0 ? n - 1 : 0).size();
}

} // namespace

int main()
{
    unsigned int missed = 0;
    std::printf("ustring against hand-written std::wstring / C runtime code (times per call, median of alternating "
                "rounds)\n");

    // ------------------------------------------------------------ wildcard masks
    bench::PrintHeader("compareWithMask, typical masks against an iterative matcher");
    const std::vector<std::wstring> names{L"readme.txt", L"Setup.EXE", L"data_2024_final.csv", L"notes.TXT",
                                          L"abc_def_ghi.txt", L"xabcydefz", L"image0001.png", L"report-abc.doc",
                                          L"a.b.c.d.txt", L"no_extension", L"abcdefabcdef", L"data1.bin"};
    const std::vector<std::wstring> masks{L"*.txt", L"*abc*def*", L"data?.*", L"image*.png", L"*"};
    std::vector<ustring> unames(names.begin(), names.end());
    std::vector<ustring> umasks(masks.begin(), masks.end());
    for (ECaseSensitivity mode : {CaseSensitive, CaseInsensitive})
    {
        const bool fold = mode != CaseSensitive;
        for (std::size_t k = 0; k < masks.size(); ++k)
        {
            const std::string label = "mask \"" + std::string(masks[k].begin(), masks[k].end()) + "\"" +
                                      (fold ? " no case" : "") + " x 12 names";
            missed += !bench::Report(label.c_str(),
                                     bench::Compare(
                                         [&] {
                                             for (const ustring& name : unames)
                                                 g_sink = g_sink + (name.compareWithMask(umasks[k], mode) == 0);
                                         },
                                         [&] {
                                             for (const std::wstring& name : names)
                                                 g_sink = g_sink + IterativeMatch(name.data(), name.size(), masks[k].data(),
                                                                                  masks[k].size(), fold);
                                         }),
                                     2.0);
        }
    }

    bench::PrintHeader("compareWithMask, inputs that took exponential time or overflowed the stack");
    const ustring as10k(std::wstring(10000, L'a'));
    const ustring a100(std::wstring(100, L'a'));
    std::wstring mask20(L"*b");
    for (int i = 0; i < 20; ++i)
        mask20.insert(0, L"*a");
    const ustring umask20(mask20);
    const ustring stars20k(std::wstring(20000, L'*') + L"b");
    const ustring stars28(std::wstring(28, L'*') + L"b");
    missed += !bench::ReportOnce("20 stars against 10,000 code units", [&] { g_sink = g_sink + as10k.compareWithMask(umask20); }, 10);
    missed += !bench::ReportOnce("20,000 stars against one code unit", [&] { g_sink = g_sink + ustring(L"a").compareWithMask(stars20k); }, 10);
    missed += !bench::ReportOnce("3 stars against 10,000 code units", [&] { g_sink = g_sink + as10k.compareWithMask(L"*a*b*c"); }, 10);
    missed += !bench::ReportOnce("5 stars against 100 code units", [&] { g_sink = g_sink + a100.compareWithMask(L"*a*a*a*a*a?b"); }, 10);
    missed += !bench::ReportOnce("28 stars against one code unit", [&] { g_sink = g_sink + ustring(L"a").compareWithMask(stars28); }, 10);

    // ------------------------------------------------------------ replace
    bench::PrintHeader("replace against building the result in a new string");
    // 100 KiB with 10,240 occurrences.
    std::wstring big;
    for (int i = 0; i < 10240; ++i)
        big += L"ab<x>";
    const ustring ubig(big);
    const ustring x(L"<x>"), longer(L"[longer]"), shorter(L"-");
    missed += !bench::Report("100 KiB, 10,240 occurrences, longer", bench::Compare(
        [&] { ustring t(ubig); g_sink = g_sink + t.replace(x, longer).size(); },
        [&] { g_sink = g_sink + ReplaceByHand(big, L"<x>", L"[longer]").size(); }, 15, 0.002), 1.5);
    missed += !bench::Report("100 KiB, 10,240 occurrences, shorter", bench::Compare(
        [&] { ustring t(ubig); g_sink = g_sink + t.replace(x, shorter).size(); },
        [&] { g_sink = g_sink + ReplaceByHand(big, L"<x>", L"-").size(); }, 15, 0.002), 1.5);

    // ------------------------------------------------------------ numbers
    bench::PrintHeader("number conversion");
    ustring::m_Locale = CLocale(0x409);
    NUMBERFMTW format = {};
    format.NumDigits = 0;
    format.LeadingZero = 1;
    format.Grouping = 3;
    wchar_t decimal[] = L".", thousand[] = L",";
    format.lpDecimalSep = decimal;
    format.lpThousandSep = thousand;
    format.NegativeOrder = 1;
    __int64 value = -1234567890123LL;
    missed += !bench::Report("i64toa vs _snwprintf + GetNumberFormatW", bench::Compare(
        [&] { g_sink = g_sink + ustring::i64toa(value).size(); },
        [&] { g_sink = g_sink + GroupedByHand(L"%I64d", value, format); }), 2.0);
    const unsigned __int64 unsignedValue = 18446744073709551615ull;
    missed += !bench::Report("ui64toa vs _snwprintf + GetNumberFormatW", bench::Compare(
        [&] { g_sink = g_sink + ustring::ui64toa(unsignedValue, false).size(); },
        [&] { g_sink = g_sink + GroupedByHand(L"%I64u", unsignedValue, format); }), 2.0);
    missed += !bench::Report("ui64toa hex vs _snwprintf(\"%I64X\")", bench::Compare(
        [&] { g_sink = g_sink + ustring::ui64toa(unsignedValue, true).size(); },
        [&] {
            wchar_t digits[32];
            const int n = ::_snwprintf(digits, 32, L"%I64X", unsignedValue);
            g_sink = g_sink + std::wstring(digits, n).size();
        }), 1.5);
    missed += !bench::Report("atoi64(\" 1,234,567,890 \")", bench::Compare(
        [&] { g_sink = g_sink + static_cast<std::size_t>(ustring::atoi64(L" 1,234,567,890 ", 10)); },
        [&] {
            wchar_t clean[64];
            CleanByHand(L" 1,234,567,890 ", clean, {L"0xA0", L","}, nullptr);
            g_sink = g_sink + static_cast<std::size_t>(::_wcstoi64(clean, nullptr, 10));
        }), 1.5);
    missed += !bench::Report("strtod(\"-1,234,567.25\")", bench::Compare(
        [&] { g_sink = g_sink + static_cast<std::size_t>(ustring::strtod(L"-1,234,567.25")); },
        [&] {
            wchar_t clean[64];
            CleanByHand(L"-1,234,567.25", clean, {L","}, L".");
            g_sink = g_sink + static_cast<std::size_t>(::wcstod(clean, nullptr));
        }), 1.5);

    // ------------------------------------------------------------ bytes
    bench::PrintHeader("hexadecimal");
    std::vector<unsigned char> bytes(64);
    for (std::size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<unsigned char>(i * 37 + 11);
    std::wstring hexText;
    for (unsigned char b : bytes)
    {
        wchar_t pair[4];
        ::_snwprintf(pair, 4, L"%02x ", b);
        hexText += pair;
    }
    const ustring uhexText(hexText);
    std::vector<unsigned char> parsed;
    missed += !bench::Report("Hex2Bin, 64 bytes with spaces", bench::Compare(
        [&] { g_sink = g_sink + ustring::Hex2Bin(uhexText, parsed) + parsed.size(); },
        [&] { g_sink = g_sink + Hex2BinByHand(hexText, parsed) + parsed.size(); }), 1.5);
    ustring hexOut;
    std::wstring hexOutByHand;
    missed += !bench::Report("Bin2Hex, 64 bytes", bench::Compare(
        [&] { ustring::Bin2Hex(bytes, hexOut); g_sink = g_sink + hexOut.size(); },
        [&] {
            static const wchar_t digits[] = L"0123456789ABCDEF";
            hexOutByHand.resize(bytes.size() * 2);
            for (std::size_t i = 0; i < bytes.size(); ++i)
            {
                hexOutByHand[2 * i] = digits[bytes[i] >> 4];
                hexOutByHand[2 * i + 1] = digits[bytes[i] & 15];
            }
            g_sink = g_sink + hexOutByHand.size();
        }), 1.5);

    // ------------------------------------------------------------ formatting
    bench::PrintHeader("formatted printing");
    missed += !bench::Report("sprintf_stc(\"%ls: %d of %d (%.1f%%)\")", bench::Compare(
        [&] { g_sink = g_sink + ustring::sprintf_stc(L"%ls: %d of %d (%.1f%%)", L"Copying", 12, 345, 3.48).size(); },
        [&] {
            wchar_t buffer[1024];
            const int n = ::_snwprintf(buffer, 1024, L"%ls: %d of %d (%.1f%%)", L"Copying", 12, 345, 3.48);
            g_sink = g_sink + std::wstring(buffer, n).size();
        }), 1.5);
    {
        std::vector<ustring> lines;
        lines.reserve(100000);
        for (int i = 0; i < 100000; ++i)
            lines.push_back(ustring::sprintf_stc(L"line %d of a short log", i));
        std::size_t held = 0;
        for (const ustring& line : lines)
            held += (line.capacity() + 1) * sizeof(wchar_t);
        std::printf("  100,000 short sprintf_stc lines hold %.1f MB of text storage\n", held / 1048576.0);
    }
    missed += !bench::ReportOnce("sprintf(\"%.*f\", INT_MAX, ...) gives up", [] {
        g_sink = g_sink + ustring::sprintf_stc(L"%.*f", INT_MAX, 1.5).size(); }, 1000);
    missed += !bench::ReportOnce("sprintf(\"%999999999d\") gives up", [] {
        g_sink = g_sink + ustring::sprintf_stc(L"%999999999d", 1).size(); }, 1000);

    // ------------------------------------------------------------ split and trim
    bench::PrintHeader("split and trim");
    const ustring csv(L"alpha,beta,gamma,delta,epsilon,zeta,eta,theta,iota,kappa,lambda,mu");
    const std::wstring wcsv(csv);
    std::vector<ustring> pieces;
    std::vector<std::wstring> handPieces;
    missed += !bench::Report("split 12 fields at ','", bench::Compare(
        [&] { g_sink = g_sink + ustring::split(csv, L',', pieces); },
        [&] {
            handPieces.clear();
            std::size_t pos = 0;
            while (pos < wcsv.size())
            {
                const std::size_t hit = wcsv.find(L',', pos);
                if (hit == std::wstring::npos)
                {
                    handPieces.emplace_back(wcsv, pos, std::wstring::npos);
                    break;
                }
                handPieces.emplace_back(wcsv, pos, hit - pos);
                pos = hit + 1;
            }
            g_sink = g_sink + handPieces.size();
        }), 1.5);
    const ustring padded(L" \t  a value with words inside  \t ");
    const std::wstring wpadded(padded);
    missed += !bench::Report("trim({' ', '\\t'}) of a copy", bench::Compare(
        [&] { ustring t(padded); g_sink = g_sink + t.trim({L' ', L'\t'}).size(); },
        [&] {
            std::wstring t(wpadded);
            const std::size_t last = t.find_last_not_of(L" \t");
            t.erase(last == std::wstring::npos ? 0 : last + 1);
            t.erase(0, t.find_first_not_of(L" \t") == std::wstring::npos ? t.size() : t.find_first_not_of(L" \t"));
            g_sink = g_sink + t.size();
        }), 1.5);

    return bench::Finish(missed);
}
