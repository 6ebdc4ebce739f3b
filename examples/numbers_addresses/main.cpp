// Tavrin example: numbers in a locale and a table of network addresses, printed through the
// library's console.
//
//   numbers_addresses [-lcid <locale id>]
//
// Built as a project of its own against the installed library (see CMakeLists.txt beside it).
#include <tavrin/core/exception.h>
#include <tavrin/core/ustring.h>
#include <tavrin/log/console.h>
#include <tavrin/util/commandlineparser.h>
#include <tavrin/util/network.h>

#include <vector>

using namespace tavrin;

namespace
{
void ShowNumbers(CConsole& console, unsigned long lcid)
{
    const CLocale saved = ustring::m_Locale;
    ustring::m_Locale = CLocale(lcid);

    CTable table(true, CTable::BorderSingle, ustring::sprintf_stc(L"Numbers in locale 0x%lX", lcid));
    table.InsertRow(std::vector<ustring>{L"Value", L"Text", L"Parsed back"});
    const __int64 integers[] = {0, 1234567, -9876543210LL};
    for (__int64 value : integers)
    {
        const ustring text = ustring::i64toa(value);
        table.InsertRow(std::vector<ustring>{ustring::sprintf_stc(L"%I64d", value), text,
                                             ustring::sprintf_stc(L"%I64d", ustring::atoi64(text, 10))});
    }
    const double reals[] = {3.14159, -0.5, 1234.5};
    for (double value : reals)
    {
        const ustring text = ustring::fcvt(value, 2, false);
        table.InsertRow(std::vector<ustring>{ustring::sprintf_stc(L"%g", value), text,
                                             ustring::sprintf_stc(L"%g", ustring::strtod(text))});
    }
    ustring unit;
    const ustring size = ustring::BytesToStr(5u * 1024u * 1024u + 300u * 1024u, 1, unit);
    table.InsertRow(std::vector<ustring>{L"5,544,320 bytes", size + L" " + unit, L""});
    console.Print(CConsoleBase::SeverityInfo, false, table, ustring());

    ustring::m_Locale = saved;
}

void ShowAddresses(CConsole& console)
{
    static const wchar_t* const texts[] = {L"127.0.0.1", L"192.168.1.20", L"8.8.8.8", L"256.1.1.1",
                                           L"::1", L"fe80::1", L"00:1A:2b:3C:4d:5E"};
    static const wchar_t* const kinds[] = {L"invalid", L"private", L"public"};
    CTable table(true, CTable::BorderSingle, L"Network addresses");
    table.InsertRow(std::vector<ustring>{L"Text", L"IPv4", L"IPv6", L"MAC"});
    for (const wchar_t* text : texts)
    {
        const int v4 = ValidateIPv4(text), v6 = ValidateIPv6(text), mac = ValidateMAC(text);
        table.InsertRow(std::vector<ustring>{text, kinds[v4], kinds[v6], kinds[mac]});
    }
    console.Print(CConsoleBase::SeverityInfo, false, table, ustring());
}

} // namespace

int wmain(int argc, wchar_t** argv, wchar_t** envp)
{
    const CCommandLineParser parser(argv, envp);
    unsigned long lcid = 0;
    if (!parser.GetVariable(CCommandLineParser::CommandLineParameter, L"lcid", lcid) || lcid == 0)
        lcid = LOCALE_USER_DEFAULT;
    ustring capture, markdown;
    CConsole console(false, capture, markdown);
    ShowNumbers(console, lcid);
    ShowAddresses(console);
    return 0;
}
