// The two reporters of an exception: the error dialog and the console block.
#include <tavrin/core/exception.h>
#include <tavrin/log/console.h>

#include <utility>
#include <vector>

namespace tavrin {

namespace {

typedef std::vector<std::pair<const wchar_t*, ustring>> ReportRows;

// The label/value rows shown for an exception, each only when it has something to say.
ReportRows BuildRows(const CStdException::CExInfo& info, const wchar_t* fileName2,
                     unsigned int line2)
{
    ReportRows rows;
    const ustring& code = info.GetErrorCodeStr();
    if (!code.empty() && code != info.GetErrorMessage())
        rows.emplace_back(L"Error code:", code);
    if (!info.GetSource().empty())
        rows.emplace_back(L"Source:", info.GetSource());
    if (!info.GetFunction().empty())
        rows.emplace_back(L"Function:", info.GetFunction());
    if (!info.GetFileName().empty())
        rows.emplace_back(L"File name:", info.GetFileName());
    rows.emplace_back(L"Line:", ustring::ui64toa(info.GetLine()));
    if (fileName2 != nullptr)
        rows.emplace_back(L"File name 2:", ustring(fileName2));
    if (line2 != 0)
        rows.emplace_back(L"Line 2:", ustring::ui64toa(line2));
    return rows;
}

} // namespace

ustring detail::ComposeExceptionLog(const CStdException::CExInfo& info, const wchar_t* fileName2,
                                    unsigned int line2)
{
    // Every label is padded to the longest possible one plus a space, so the values of all
    // blocks start in the same column.
    static const unsigned int labelWidth = sizeof("File name 2:") - 1 + 1;

    ustring block = ustring::sprintf_stc(L"< C++ EXCEPTION LOG >\r\n%ls\r\n",
                                         info.GetErrorMessage().c_str());
    for (const auto& row : BuildRows(info, fileName2, line2))
    {
        ustring label(row.first);
        label.resize(labelWidth, L' ');
        block += ustring::sprintf_stc(L"%ls%ls\r\n", label.c_str(), row.second.c_str());
    }
    return block;
}

int CStdException::ReportError(const CExInfo& info, HWND parent, unsigned int type,
                               const wchar_t* caption, unsigned int helpId)
{
    ustring text(info.GetErrorMessage());
    text.trim_right(L'\n');
    text.trim_right(L'\r');
    text += L"\r\n\r\n";
    const ustring appName = GetAppName();
    if (!appName.empty())
        text += ustring::sprintf_stc(L"Application: %ls\r\n", appName.c_str());
    for (const auto& row : BuildRows(info, nullptr, 0))
        text += ustring::sprintf_stc(L"%ls %ls\r\n", row.first, row.second.c_str());

    const ustring title = caption != nullptr ? ustring(caption) : appName;
    return ::MessageBoxW(parent, text.c_str(), title.c_str(), type);
}

void CStdException::ReportErrorConsole(CConsoleBase& console, const CExInfo& info,
                                       const wchar_t* fileName2, unsigned int line2)
{
    // One Print call, so the block is not interleaved with other threads' output.
    console.Print(CConsoleBase::SeverityError, false,
                  detail::ComposeExceptionLog(info, fileName2, line2));
}

} // namespace tavrin
