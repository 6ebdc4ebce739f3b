// Translation of windows, menus and toolbars, and the collection of a module's dialog texts.
#include <tavrin/l10n/translator.h>

#include <commctrl.h>

#include <cstring>
#include <vector>

namespace tavrin {

namespace {

ustring ReadWindowText(HWND hwnd)
{
    const int length = ::GetWindowTextLengthW(hwnd);
    if (length <= 0)
        return ustring();
    ustring text(static_cast<unsigned int>(length) + 1u, L'\0');
    const int copied = ::GetWindowTextW(hwnd, &text[0], length + 1);
    text.resize(copied > 0 ? static_cast<unsigned int>(copied) : 0u);
    return text;
}

// A numeric edit field holds a value, not a text of the user interface.
bool IsNumericEdit(HWND hwnd)
{
    wchar_t className[64] = {};
    if (::GetClassNameW(hwnd, className, 64) == 0 || ::_wcsicmp(className, L"Edit") != 0)
        return false;
    return (static_cast<DWORD>(::GetWindowLongW(hwnd, GWL_STYLE)) & ES_NUMBER) != 0;
}

// Offset of the style field in a dialog template: DLGTEMPLATEEX starts with its version 1 and
// the signature 0xFFFF, DLGTEMPLATE with the style itself.
size_t DialogStyleOffset(const void* resource, size_t size)
{
    const WORD* words = static_cast<const WORD*>(resource);
    if (size >= 16 && words[0] == 1 && words[1] == 0xFFFF)
        return 12;
    return 0;
}

// The name of a resource: an integer identifier or a string, kept beyond the enumeration.
struct ResourceName
{
    explicit ResourceName(LPCWSTR name)
        : m_bIsId(IS_INTRESOURCE(name)), m_nId(IS_INTRESOURCE(name) ? LOWORD(reinterpret_cast<ULONG_PTR>(name)) : 0)
    {
        if (!m_bIsId)
            m_strName = name;
    }
    LPCWSTR Get() const { return m_bIsId ? MAKEINTRESOURCEW(m_nId) : m_strName.c_str(); }

    bool m_bIsId;
    WORD m_nId;
    ustring m_strName;
};

BOOL CALLBACK CollectResourceName(HMODULE, LPCWSTR, LPWSTR name, LONG_PTR parameter)
{
    reinterpret_cast<std::vector<ResourceName>*>(parameter)->emplace_back(name);
    return TRUE;
}

std::vector<ResourceName> CollectResourceNames(HINSTANCE module, LPCWSTR type)
{
    std::vector<ResourceName> names;
    ::EnumResourceNamesW(module, type, &CollectResourceName, reinterpret_cast<LONG_PTR>(&names));
    return names;
}

// A copy of a dialog template without WS_VISIBLE, so that collecting its texts never shows the
// dialog; empty when the module has no such template. Both template forms are DWORD-aligned.
std::vector<DWORD> LoadHiddenDialogTemplate(HINSTANCE module, LPCWSTR name)
{
    HRSRC info = ::FindResourceW(module, name, RT_DIALOG);
    HGLOBAL loaded = info != nullptr ? ::LoadResource(module, info) : nullptr;
    const void* resource = loaded != nullptr ? ::LockResource(loaded) : nullptr;
    const DWORD size = info != nullptr ? ::SizeofResource(module, info) : 0;
    if (resource == nullptr || size < sizeof(DLGTEMPLATE))
        return std::vector<DWORD>();

    // Rounded up without `size + 3`, which would wrap for a size near 4 GB.
    std::vector<DWORD> copy(size / sizeof(DWORD) + (size % sizeof(DWORD) != 0), 0);
    std::memcpy(copy.data(), resource, size);
    unsigned char* bytes = reinterpret_cast<unsigned char*>(copy.data());
    const size_t offset = DialogStyleOffset(copy.data(), size);
    DWORD style = 0;
    std::memcpy(&style, bytes + offset, sizeof(style));
    style &= ~static_cast<DWORD>(WS_VISIBLE);
    std::memcpy(bytes + offset, &style, sizeof(style));
    return copy;
}

} // namespace

void CTranslator::XlateWnd(HWND hwnd)
{
    if (hwnd == nullptr || !::IsWindow(hwnd))
        return;

    // A child window's "menu" is its control identifier: only a real menu is translated.
    if ((::GetWindowLongW(hwnd, GWL_STYLE) & WS_CHILD) == 0)
    {
        HMENU menu = ::GetMenu(hwnd);
        if (menu != nullptr && ::IsMenu(menu))
        {
            XlateMenu(menu);
            ::DrawMenuBar(hwnd);
        }
    }

    ustring text = ReadWindowText(hwnd);
    if (!IsNumericEdit(hwnd) && XlateEx(text))
        ::SetWindowTextW(hwnd, text.c_str());

    for (HWND child = ::GetWindow(hwnd, GW_CHILD); child != nullptr; child = ::GetWindow(child, GW_HWNDNEXT))
        XlateWnd(child);
}

void CTranslator::XlateMenu(HMENU hmenu)
{
    const int count = ::GetMenuItemCount(hmenu);
    for (int position = 0; position < count; ++position)
    {
        const UINT state = ::GetMenuState(hmenu, static_cast<UINT>(position), MF_BYPOSITION);
        if (state == static_cast<UINT>(-1))
            continue;
        HMENU submenu = ::GetSubMenu(hmenu, position);
        if (submenu != nullptr)
            XlateMenu(submenu);

        const int length = ::GetMenuStringW(hmenu, static_cast<UINT>(position), nullptr, 0, MF_BYPOSITION);
        if (length <= 0)
            continue;
        ustring text(static_cast<unsigned int>(length) + 1u, L'\0');
        const int copied = ::GetMenuStringW(hmenu, static_cast<UINT>(position), &text[0], length + 1, MF_BYPOSITION);
        text.resize(copied > 0 ? static_cast<unsigned int>(copied) : 0u);
        if (!XlateEx(text))
            continue;

        // A popup's state carries its item count in the high byte; only the low byte is flags.
        const UINT flags = submenu != nullptr ? ((state & 0xFFu) | MF_POPUP) : (state & ~static_cast<UINT>(MF_POPUP));
        const UINT_PTR item = submenu != nullptr ? reinterpret_cast<UINT_PTR>(submenu)
                                                 : static_cast<UINT_PTR>(::GetMenuItemID(hmenu, position));
        ::ModifyMenuW(hmenu, static_cast<UINT>(position), MF_BYPOSITION | MF_STRING | flags, item, text.c_str());
    }
}

void CTranslator::XlateToolbar(HWND hwnd)
{
    if (hwnd == nullptr || !::IsWindow(hwnd))
        return;
    const LRESULT count = ::SendMessageW(hwnd, TB_BUTTONCOUNT, 0, 0);
    for (LRESULT index = 0; index < count; ++index)
    {
        TBBUTTON button;
        std::memset(&button, 0, sizeof(button));
        if (!::SendMessageW(hwnd, TB_GETBUTTON, static_cast<WPARAM>(index), reinterpret_cast<LPARAM>(&button)) ||
            (button.fsStyle & BTNS_SEP) != 0)
            continue;
        const LRESULT length = ::SendMessageW(hwnd, TB_GETBUTTONTEXTW, static_cast<WPARAM>(button.idCommand), 0);
        if (length <= 0)
            continue;
        ustring text(static_cast<unsigned int>(length) + 1u, L'\0');
        const LRESULT copied = ::SendMessageW(hwnd, TB_GETBUTTONTEXTW, static_cast<WPARAM>(button.idCommand),
                                              reinterpret_cast<LPARAM>(&text[0]));
        text.resize(copied > 0 ? static_cast<unsigned int>(copied) : 0u);
        if (!XlateEx(text))
            continue;

        TBBUTTONINFOW info;
        std::memset(&info, 0, sizeof(info));
        info.cbSize = sizeof(info);
        info.dwMask = TBIF_TEXT | TBIF_BYINDEX;
        info.pszText = &text[0];
        ::SendMessageW(hwnd, TB_SETBUTTONINFOW, static_cast<WPARAM>(index), reinterpret_cast<LPARAM>(&info));
    }
}

void CTranslator::Gather(HINSTANCE module)
{
    if (GetMode() != ModeGather)
        return;
    for (const ResourceName& name : CollectResourceNames(module, RT_DIALOG))
    {
        const std::vector<DWORD> dialogTemplate = LoadHiddenDialogTemplate(module, name.Get());
        if (dialogTemplate.empty())
            continue;
        // Dialogs that need a parent or an unregistered control class fail here and are skipped.
        HWND dialog = ::CreateDialogIndirectParamW(module, reinterpret_cast<LPCDLGTEMPLATEW>(dialogTemplate.data()),
                                                   nullptr, &CTranslator::DialogProc, reinterpret_cast<LPARAM>(this));
        if (dialog != nullptr)
            ::DestroyWindow(dialog);
    }
    for (const ResourceName& name : CollectResourceNames(module, RT_MENU))
    {
        if (HMENU menu = ::LoadMenuW(module, name.Get()))
        {
            XlateMenu(menu);
            ::DestroyMenu(menu);
        }
    }
}

INT_PTR CALLBACK CTranslator::DialogProc(HWND hwnd, UINT message, WPARAM, LPARAM lParam)
{
    if (message == WM_INITDIALOG)
    {
        reinterpret_cast<CTranslator*>(lParam)->XlateWnd(hwnd);
        return TRUE;
    }
    return FALSE;
}

} // namespace tavrin
