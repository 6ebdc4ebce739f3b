// Translating at run time. The process-wide translator loads the language file "xRU.lng" from
// the executable's folder on first use. A language file is UTF-16 text with a byte-order mark:
// bracketed lines in pairs, the source text and then its translation ("\n" stands for a line
// break). The library's own texts, such as the source name of a Windows error, pass through the
// same table.
#include <tavrin/core/exception.h>
#include <tavrin/l10n/translator.h>
#include <tavrin/log/console.h>

using namespace tavrin;

int main()
{
    ustring capture, markdown;
    CConsole console(false, capture, markdown);

    CTranslator& translator = CTranslatorInstance::Ref();
    const wchar_t* const texts[] = {L"Open", L"Save as...", L"File not found.\nCheck the name and try again.", L"Quit"};
    for (const wchar_t* source : texts)
    {
        ustring text(source);
        // XlateEx replaces the text in place and tells whether the table had a translation.
        const bool translated = translator.XlateEx(text);
        // One line each on the console.
        ustring shown(source);
        shown.replace(ustring(L"\n"), ustring(L" / "));
        text.replace(ustring(L"\n"), ustring(L" / "));
        if (translated)
            console.PrintF(CConsoleBase::SeverityInfo, false, L"%ls -> %ls\r\n", shown.c_str(), text.c_str());
        else
            console.PrintF(CConsoleBase::SeverityWarning, false, L"%ls (no translation)\r\n", shown.c_str());
    }

    const CWinException error(__LINE__, TAVRIN_WFILE, L"CreateFileW", ERROR_FILE_NOT_FOUND);
    ustring source;
    if (error.GetSource(source))
        console.PrintF(CConsoleBase::SeverityInfo, false, L"Source of a Windows error: %ls\r\n", source.c_str());
    return 0;
}
