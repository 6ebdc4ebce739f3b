// The two reporters of an exception: the error dialog and the console block.
#include <tavrin/core/exception.h>
#include <tavrin/l10n/translator.h>
#include <tavrin/log/console.h>

#include <algorithm>
#include <cstring>
#include <utility>
#include <vector>

namespace tavrin {

namespace {

typedef std::vector<std::pair<const wchar_t*, ustring>> ReportRows;

// The label/value rows shown for an exception, each only when it has something to say.
ReportRows BuildRows(const CStdException::CExInfo& info, const wchar_t* fileName2, unsigned int line2)
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

// "%ls%ls\r\n" per row. Every label is padded to one space after the longest label there is
// ("File name 2:", as long as "Application:"), so the values of every block start in the same
// column.
ustring FormatRows(const ReportRows& rows)
{
    static const size_t labelWidth = sizeof("File name 2:") - 1 + 1;
    ustring text;
    for (const auto& row : rows)
    {
        ustring label(row.first);
        label.resize(std::max(labelWidth, label.size() + 1), L' ');
        text += ustring::sprintf_stc(L"%ls%ls\r\n", label.c_str(), row.second.c_str());
    }
    return text;
}

// ---------------------------------------------------------------------------- the error dialog

// Control identifiers of the dialog's own controls (buttons use the IDOK ... IDCONTINUE family).
const WORD kIdIcon = 1000;
const WORD kIdMessage = 1001;
const WORD kIdDetails = 1002;

struct DialogButton
{
    WORD id;
    unsigned int stringId; // the library's string resource, 0 for none
    const wchar_t* text;   // the source text (also the fall-back)
};

const DialogButton kButtonOk = {IDOK, 106, L"OK"};
const DialogButton kButtonCancel = {IDCANCEL, 107, L"Cancel"};
const DialogButton kButtonAbort = {IDABORT, 108, L"Abort"};
const DialogButton kButtonRetry = {IDRETRY, 109, L"Retry"};
const DialogButton kButtonIgnore = {IDIGNORE, 110, L"Ignore"};
const DialogButton kButtonYes = {IDYES, 111, L"Yes"};
const DialogButton kButtonNo = {IDNO, 112, L"No"};
const DialogButton kButtonTryAgain = {IDTRYAGAIN, 0, L"Try Again"};
const DialogButton kButtonContinue = {IDCONTINUE, 0, L"Continue"};
const DialogButton kButtonHelp = {IDHELP, 0, L"Help"};

// The buttons of a message-box type, in order (MB_OK when the type is unknown).
std::vector<DialogButton> ButtonsOfType(unsigned int type)
{
    switch (type & MB_TYPEMASK)
    {
    case MB_OKCANCEL:
        return {kButtonOk, kButtonCancel};
    case MB_ABORTRETRYIGNORE:
        return {kButtonAbort, kButtonRetry, kButtonIgnore};
    case MB_YESNOCANCEL:
        return {kButtonYes, kButtonNo, kButtonCancel};
    case MB_YESNO:
        return {kButtonYes, kButtonNo};
    case MB_RETRYCANCEL:
        return {kButtonRetry, kButtonCancel};
    case MB_CANCELTRYCONTINUE:
        return {kButtonCancel, kButtonTryAgain, kButtonContinue};
    default:
        return {kButtonOk};
    }
}

std::vector<DialogButton> ButtonsOf(unsigned int type)
{
    std::vector<DialogButton> buttons = ButtonsOfType(type);
    if (type & MB_HELP)
        buttons.push_back(kButtonHelp);
    return buttons;
}

ustring ButtonText(const DialogButton& button)
{
    ustring text;
    if (button.stringId == 0 || !text.xload(TAVRIN_MODULE, button.stringId))
        text = CTranslatorInstance::Ref().Xlate(button.text);
    return text;
}

LPCWSTR IconOf(unsigned int type)
{
    switch (type & MB_ICONMASK)
    {
    case MB_ICONHAND:
        return IDI_ERROR;
    case MB_ICONQUESTION:
        return IDI_QUESTION;
    case MB_ICONEXCLAMATION:
        return IDI_WARNING;
    case MB_ICONASTERISK:
        return IDI_INFORMATION;
    default:
        return nullptr;
    }
}

// Builds a DLGTEMPLATE in memory. Controls are created empty and without position: the dialog
// procedure sets their texts and lays them out for the measured message.
class CDialogTemplate
{
public:
    CDialogTemplate(DWORD style, const wchar_t* fontName, WORD pointSize)
    {
        AddDword(style);
        AddDword(0);   // extended style
        AddWord(0);    // control count, patched by AddControl
        AddWord(0);    // x
        AddWord(0);    // y
        AddWord(200);  // cx
        AddWord(100);  // cy
        AddWord(0);    // no menu
        AddWord(0);    // the predefined dialog class
        AddString(L""); // the title is set at WM_INITDIALOG
        AddWord(pointSize);
        AddString(fontName);
    }

    void AddControl(WORD id, WORD classAtom, DWORD style)
    {
        Align();
        AddDword(style | WS_CHILD | WS_VISIBLE);
        AddDword(0);
        for (int i = 0; i < 4; ++i)
            AddWord(0); // position and size
        AddWord(id);
        AddWord(0xFFFF);
        AddWord(classAtom);
        AddString(L"");
        AddWord(0); // no creation data
        ++m_aWords[4];
    }

    LPCDLGTEMPLATEW Get() const { return reinterpret_cast<LPCDLGTEMPLATEW>(m_aWords.data()); }

private:
    void AddWord(WORD value) { m_aWords.push_back(value); }
    void AddDword(DWORD value)
    {
        AddWord(LOWORD(value));
        AddWord(HIWORD(value));
    }
    void AddString(const wchar_t* text)
    {
        for (; *text != L'\0'; ++text)
            AddWord(static_cast<WORD>(*text));
        AddWord(0);
    }
    // Each control record starts on a DWORD boundary.
    void Align()
    {
        if (m_aWords.size() % 2 != 0)
            AddWord(0);
    }

    std::vector<WORD> m_aWords;
};

const WORD kClassButton = 0x0080;
const WORD kClassEdit = 0x0081;
const WORD kClassStatic = 0x0082;

// What the dialog shows; handed to the dialog procedure at WM_INITDIALOG.
struct ErrorDialogData
{
    ustring caption;
    ustring message;
    ustring details;
    LPCWSTR icon;
    std::vector<DialogButton> buttons;
    unsigned int defaultButton; // index into buttons
    unsigned int type;
    unsigned int helpId;
    HWND parent;
    HFONT detailsFont;
};

bool HasButton(const ErrorDialogData& data, WORD id)
{
    return std::any_of(data.buttons.begin(), data.buttons.end(), [id](const DialogButton& b) { return b.id == id; });
}

RECT DialogUnits(HWND dialog, int x, int y, int cx, int cy)
{
    RECT rect = {x, y, x + cx, y + cy};
    ::MapDialogRect(dialog, &rect);
    return rect;
}

void LayOutErrorDialog(HWND dialog, ErrorDialogData& data)
{
    const RECT margins = DialogUnits(dialog, 7, 7, 4, 4); // left/top margin, gap
    const int margin = margins.left;
    const int gap = margins.right - margins.left;
    const RECT messageUnits = DialogUnits(dialog, 0, 0, 250, 0);
    const int messageWidth = messageUnits.right;
    const RECT buttonUnits = DialogUnits(dialog, 0, 0, 50, 14);
    const int buttonWidth = buttonUnits.right;
    const int buttonHeight = buttonUnits.bottom;

    const int iconSize = data.icon != nullptr ? ::GetSystemMetrics(SM_CXICON) : 0;
    const int messageLeft = margin + (iconSize > 0 ? iconSize + 2 * gap : 0);

    // Height of the word-wrapped message in the dialog's font, at most half the screen.
    HWND message = ::GetDlgItem(dialog, kIdMessage);
    HFONT font = reinterpret_cast<HFONT>(::SendMessageW(dialog, WM_GETFONT, 0, 0));
    RECT textRect = {0, 0, messageWidth, 0};
    HDC dc = ::GetDC(message);
    HGDIOBJ oldFont = ::SelectObject(dc, font);
    ::DrawTextW(dc, data.message.c_str(), static_cast<int>(data.message.size()), &textRect,
                DT_CALCRECT | DT_WORDBREAK | DT_NOPREFIX | DT_EDITCONTROL);
    TEXTMETRICW metrics;
    ::GetTextMetricsW(dc, &metrics);
    ::SelectObject(dc, oldFont);
    ::ReleaseDC(message, dc);
    const int messageHeight = std::min<int>(std::max<int>(textRect.bottom, iconSize), ::GetSystemMetrics(SM_CYSCREEN) / 2);

    const int contentWidth = messageLeft - margin + messageWidth;
    int y = margin;
    if (iconSize > 0)
        ::SetWindowPos(::GetDlgItem(dialog, kIdIcon), nullptr, margin, y, iconSize, iconSize, SWP_NOZORDER);
    ::SetWindowPos(message, nullptr, messageLeft, y, messageWidth, messageHeight, SWP_NOZORDER);
    y += messageHeight + 2 * gap;

    int detailLines = 1;
    for (wchar_t ch : data.details)
        detailLines += ch == L'\n' ? 1 : 0;
    const int detailsHeight = std::min(detailLines, 9) * metrics.tmHeight + 2 * ::GetSystemMetrics(SM_CYEDGE) + gap;
    ::SetWindowPos(::GetDlgItem(dialog, kIdDetails), nullptr, margin, y, contentWidth, detailsHeight, SWP_NOZORDER);
    y += detailsHeight + 2 * gap;

    // Buttons right-aligned in one row.
    const int count = static_cast<int>(data.buttons.size());
    int x = margin + contentWidth - count * buttonWidth - (count - 1) * gap;
    for (const DialogButton& button : data.buttons)
    {
        ::SetWindowPos(::GetDlgItem(dialog, button.id), nullptr, x, y, buttonWidth, buttonHeight, SWP_NOZORDER);
        x += buttonWidth + gap;
    }
    y += buttonHeight + margin;

    // The window around the client area, centred over the parent (or the screen).
    RECT window = {0, 0, contentWidth + 2 * margin, y};
    ::AdjustWindowRectEx(&window, static_cast<DWORD>(::GetWindowLongW(dialog, GWL_STYLE)), FALSE,
                         static_cast<DWORD>(::GetWindowLongW(dialog, GWL_EXSTYLE)));
    const int width = window.right - window.left;
    const int height = window.bottom - window.top;
    RECT area;
    if (data.parent == nullptr || !::IsWindowVisible(data.parent) || !::GetWindowRect(data.parent, &area))
        ::SystemParametersInfoW(SPI_GETWORKAREA, 0, &area, 0);
    const int left = std::max<int>(0, area.left + (area.right - area.left - width) / 2);
    const int top = std::max<int>(0, area.top + (area.bottom - area.top - height) / 2);
    ::SetWindowPos(dialog, (data.type & MB_TOPMOST) ? HWND_TOPMOST : nullptr, left, top, width, height,
                   (data.type & MB_TOPMOST) ? 0 : SWP_NOZORDER);
}

INT_PTR CALLBACK ErrorDialogProc(HWND dialog, UINT message, WPARAM wParam, LPARAM lParam)
{
    ErrorDialogData* data = reinterpret_cast<ErrorDialogData*>(::GetWindowLongPtrW(dialog, DWLP_USER));
    switch (message)
    {
    case WM_INITDIALOG:
    {
        data = reinterpret_cast<ErrorDialogData*>(lParam);
        ::SetWindowLongPtrW(dialog, DWLP_USER, lParam);
        ::SetWindowTextW(dialog, data->caption.c_str());
        ::SetDlgItemTextW(dialog, kIdMessage, data->message.c_str());
        ::SetDlgItemTextW(dialog, kIdDetails, data->details.c_str());
        if (data->icon != nullptr)
            ::SendDlgItemMessageW(dialog, kIdIcon, STM_SETICON,
                                  reinterpret_cast<WPARAM>(::LoadIconW(nullptr, data->icon)), 0);
        else
            ::ShowWindow(::GetDlgItem(dialog, kIdIcon), SW_HIDE);

        // The details are aligned in columns: a fixed-pitch font of the dialog font's height.
        LOGFONTW logFont;
        HFONT dialogFont = reinterpret_cast<HFONT>(::SendMessageW(dialog, WM_GETFONT, 0, 0));
        if (dialogFont != nullptr && ::GetObjectW(dialogFont, sizeof(logFont), &logFont) == sizeof(logFont))
        {
            logFont.lfPitchAndFamily = FIXED_PITCH | FF_MODERN;
            logFont.lfWeight = FW_NORMAL;
            wcscpy_s(logFont.lfFaceName, LF_FACESIZE, L"Courier New");
            data->detailsFont = ::CreateFontIndirectW(&logFont);
            if (data->detailsFont != nullptr)
                ::SendDlgItemMessageW(dialog, kIdDetails, WM_SETFONT, reinterpret_cast<WPARAM>(data->detailsFont), FALSE);
        }

        for (size_t i = 0; i < data->buttons.size(); ++i)
        {
            const DialogButton& button = data->buttons[i];
            ::SetDlgItemTextW(dialog, button.id, ButtonText(button).c_str());
            ::SendDlgItemMessageW(dialog, button.id, BM_SETSTYLE,
                                  i == data->defaultButton ? BS_DEFPUSHBUTTON : BS_PUSHBUTTON, FALSE);
        }
        // Like a message box without a way to cancel, the close box does nothing then.
        if (!HasButton(*data, IDCANCEL) && data->buttons.size() > 1)
            ::EnableMenuItem(::GetSystemMenu(dialog, FALSE), SC_CLOSE, MF_BYCOMMAND | MF_GRAYED);
        if (data->helpId != 0)
            ::SetWindowContextHelpId(dialog, data->helpId);

        LayOutErrorDialog(dialog, *data);
        if (data->type & MB_SETFOREGROUND)
            ::SetForegroundWindow(dialog);
        ::SetFocus(::GetDlgItem(dialog, data->buttons[data->defaultButton].id));
        return FALSE; // the focus is set
    }
    case WM_COMMAND:
    {
        if (data == nullptr || HIWORD(wParam) != BN_CLICKED)
            break;
        const WORD id = LOWORD(wParam);
        if (id == IDHELP)
        {
            HELPINFO help;
            std::memset(&help, 0, sizeof(help));
            help.cbSize = sizeof(help);
            help.iContextType = HELPINFO_WINDOW;
            help.iCtrlId = IDHELP;
            help.hItemHandle = dialog;
            help.dwContextId = data->helpId;
            ::GetCursorPos(&help.MousePos);
            if (data->parent != nullptr)
                ::SendMessageW(data->parent, WM_HELP, 0, reinterpret_cast<LPARAM>(&help));
            return TRUE;
        }
        if (HasButton(*data, id))
        {
            ::EndDialog(dialog, id);
            return TRUE;
        }
        // Escape and the close box: Cancel when there is one, else the only button (OK).
        if (id == IDCANCEL && data->buttons.size() == 1 + ((data->type & MB_HELP) ? 1u : 0u))
        {
            ::EndDialog(dialog, data->buttons.front().id);
            return TRUE;
        }
        return TRUE;
    }
    case WM_DESTROY:
        if (data != nullptr && data->detailsFont != nullptr)
        {
            ::DeleteObject(data->detailsFont);
            data->detailsFont = nullptr;
        }
        break;
    default:
        break;
    }
    return FALSE;
}

} // namespace

ustring detail::ComposeExceptionLog(const CStdException::CExInfo& info, const wchar_t* fileName2,
                                    unsigned int line2)
{
    return ustring::sprintf_stc(L"< C++ EXCEPTION LOG >\r\n%ls\r\n", info.GetErrorMessage().c_str()) +
           FormatRows(BuildRows(info, fileName2, line2));
}

int CStdException::ReportError(const CExInfo& info, HWND parent, unsigned int type,
                               const wchar_t* caption, unsigned int helpId)
{
    ErrorDialogData data;
    data.message = info.GetErrorMessage();
    CTranslatorInstance::Ref().XlateEx(data.message);
    // System messages end with a line break, which would only add an empty line.
    while (!data.message.empty() && (data.message.back() == L'\n' || data.message.back() == L'\r'))
        data.message.pop_back();

    const ustring appName = GetAppName();
    data.caption = caption != nullptr ? ustring(caption) : appName;
    ReportRows rows = BuildRows(info, nullptr, 0);
    rows.insert(rows.begin(), std::make_pair(L"Application:", appName));
    data.details = FormatRows(rows);
    while (!data.details.empty() && (data.details.back() == L'\n' || data.details.back() == L'\r'))
        data.details.pop_back();

    data.icon = IconOf(type);
    data.buttons = ButtonsOf(type);
    data.defaultButton = std::min<unsigned int>((type & MB_DEFMASK) >> 8, static_cast<unsigned int>(data.buttons.size()) - 1);
    data.type = type;
    data.helpId = helpId;
    data.parent = parent;
    data.detailsFont = nullptr;

    CDialogTemplate dialogTemplate(DS_MODALFRAME | DS_SETFONT | DS_SHELLFONT | WS_POPUP | WS_CAPTION | WS_SYSMENU,
                                   L"MS Shell Dlg", 8);
    dialogTemplate.AddControl(kIdIcon, kClassStatic, SS_ICON);
    dialogTemplate.AddControl(kIdMessage, kClassStatic, SS_LEFT | SS_NOPREFIX);
    dialogTemplate.AddControl(kIdDetails, kClassEdit,
                              ES_MULTILINE | ES_READONLY | ES_AUTOVSCROLL | WS_VSCROLL | WS_BORDER | WS_TABSTOP);
    for (const DialogButton& button : data.buttons)
        dialogTemplate.AddControl(button.id, kClassButton, BS_PUSHBUTTON | WS_TABSTOP);

    const INT_PTR result = ::DialogBoxIndirectParamW(TAVRIN_MODULE, dialogTemplate.Get(), parent, &ErrorDialogProc,
                                                     reinterpret_cast<LPARAM>(&data));
    if (result > 0)
        return static_cast<int>(result);
    // No dialog could be created (no desktop, no memory): the system's message box still may.
    const ustring text = data.message + L"\r\n\r\n" + data.details;
    return ::MessageBoxW(parent, text.c_str(), data.caption.c_str(), type);
}

void CStdException::ReportErrorConsole(CConsoleBase& console, const CExInfo& info,
                                       const wchar_t* fileName2, unsigned int line2)
{
    // One Print call, so the block is not interleaved with other threads' output.
    console.Print(CConsoleBase::SeverityError, false, detail::ComposeExceptionLog(info, fileName2, line2));
}

} // namespace tavrin
