// Translation of real windows, dialogs, menus and toolbars, and the collection of a module's
// dialog and menu texts. Needs a display (the test runner provides a virtual one).
#include <tavrin/l10n/translator.h>

#include <commctrl.h>

#include <gtest/gtest.h>
#include <tavrin_test.h>

#include <string>
#include <vector>

using namespace tavrin;

namespace {

const WORD kClassButton = 0x0080;
const WORD kClassEdit = 0x0081;
const WORD kClassStatic = 0x0082;

// A dialog template (DLGTEMPLATE) with its controls, built in memory.
class CTemplate
{
public:
    CTemplate(DWORD style, const wchar_t* caption)
    {
        Dword(style | DS_SETFONT);
        Dword(0);
        Word(0); // control count
        Word(10);
        Word(10);
        Word(200);
        Word(120);
        Word(0); // no menu
        Word(0); // dialog class
        String(caption);
        Word(8);
        String(L"MS Shell Dlg");
    }

    CTemplate& Control(WORD id, WORD classAtom, DWORD style, const wchar_t* text, short y)
    {
        if (m_aWords.size() % 2 != 0)
            Word(0);
        Dword(style | WS_CHILD | WS_VISIBLE);
        Dword(0);
        Word(5);
        Word(static_cast<WORD>(y));
        Word(150);
        Word(12);
        Word(id);
        Word(0xFFFF);
        Word(classAtom);
        String(text);
        Word(0);
        ++m_aWords[4];
        return *this;
    }

    LPCDLGTEMPLATEW Get() const { return reinterpret_cast<LPCDLGTEMPLATEW>(m_aWords.data()); }
    const void* Data() const { return m_aWords.data(); }
    DWORD Size() const { return static_cast<DWORD>(m_aWords.size() * sizeof(WORD)); }

private:
    void Word(WORD value) { m_aWords.push_back(value); }
    void Dword(DWORD value)
    {
        Word(LOWORD(value));
        Word(HIWORD(value));
    }
    void String(const wchar_t* text)
    {
        for (; *text != 0; ++text)
            Word(static_cast<WORD>(*text));
        Word(0);
    }

    std::vector<WORD> m_aWords;
};

INT_PTR CALLBACK PlainDialogProc(HWND, UINT message, WPARAM, LPARAM)
{
    return message == WM_INITDIALOG ? TRUE : FALSE;
}

ustring TextOf(HWND hwnd)
{
    wchar_t text[256] = {};
    ::GetWindowTextW(hwnd, text, 256);
    return ustring(text);
}

ustring MenuText(HMENU menu, UINT position)
{
    wchar_t text[256] = {};
    ::GetMenuStringW(menu, position, text, 256, MF_BYPOSITION);
    return ustring(text);
}

CTranslator& GermanTranslator(CTranslator& translator)
{
    translator.SetTranslation(L"Settings", L"Einstellungen");
    translator.SetTranslation(L"Open", L"\x00D6" L"ffnen");
    translator.SetTranslation(L"Save", L"Speichern");
    translator.SetTranslation(L"Cancel", L"Abbrechen");
    translator.SetTranslation(L"File", L"Datei");
    translator.SetTranslation(L"Edit", L"Bearbeiten");
    translator.SetTranslation(L"Deep", L"Tief");
    translator.SetTranslation(L"Paste", L"");
    return translator;
}

const wchar_t* const kOe = L"\x00D6" L"ffnen";

#define SKIP_WITHOUT_WINDOWS()                                                                     \
    if (!tavrintest::CanCreateWindows())                                                                       \
    GTEST_SKIP() << "no display to create windows on"

} // namespace

TEST(TranslatorWindow, DialogTreeAndMenuAreTranslated)
{
    TAVRIN_SKIP_WITHOUT_32BIT_GDI();
    SKIP_WITHOUT_WINDOWS();
    CTemplate dialogTemplate(WS_POPUP | WS_CAPTION | WS_SYSMENU, L"Settings");
    dialogTemplate.Control(101, kClassStatic, SS_LEFT, L"Open", 5)
        .Control(102, kClassEdit, ES_LEFT, L"Open", 20)
        .Control(103, kClassEdit, ES_LEFT | ES_NUMBER, L"Open", 35)
        .Control(IDCANCEL, kClassButton, BS_PUSHBUTTON, L"Cancel", 50)
        .Control(105, kClassButton, BS_GROUPBOX, L"Unknown group", 65);
    HWND dialog = ::CreateDialogIndirectParamW(::GetModuleHandleW(nullptr), dialogTemplate.Get(), nullptr,
                                               &PlainDialogProc, 0);
    ASSERT_NE(dialog, nullptr);

    // A grandchild below the group box, and a menu bar with a popup.
    HWND deep = ::CreateWindowExW(0, L"Static", L"Deep", WS_CHILD, 0, 0, 50, 10, ::GetDlgItem(dialog, 105), nullptr,
                                  nullptr, nullptr);
    ASSERT_NE(deep, nullptr);
    HMENU bar = ::CreateMenu();
    HMENU file = ::CreatePopupMenu();
    HMENU recent = ::CreatePopupMenu();
    ::AppendMenuW(recent, MF_STRING, 201, L"Save");
    ::AppendMenuW(file, MF_STRING | MF_CHECKED, 101, L"Open");
    ::AppendMenuW(file, MF_STRING | MF_GRAYED, 102, L"Save");
    ::AppendMenuW(file, MF_SEPARATOR, 0, nullptr);
    ::AppendMenuW(file, MF_POPUP, reinterpret_cast<UINT_PTR>(recent), L"Edit");
    ::AppendMenuW(file, MF_STRING, 104, L"Paste"); // empty translation
    ::AppendMenuW(bar, MF_POPUP, reinterpret_cast<UINT_PTR>(file), L"File");
    ::AppendMenuW(bar, MF_STRING, 105, L"Quit");
    ASSERT_TRUE(::SetMenu(dialog, bar));

    CTranslator translator;
    GermanTranslator(translator).XlateWnd(dialog);

    EXPECT_EQ(TextOf(dialog), L"Einstellungen");
    EXPECT_EQ(TextOf(::GetDlgItem(dialog, 101)), kOe);
    EXPECT_EQ(TextOf(::GetDlgItem(dialog, 102)), kOe);
    EXPECT_EQ(TextOf(::GetDlgItem(dialog, 103)), L"Open"); // a numeric edit field keeps its content
    EXPECT_EQ(TextOf(::GetDlgItem(dialog, IDCANCEL)), L"Abbrechen");
    EXPECT_EQ(TextOf(::GetDlgItem(dialog, 105)), L"Unknown group");
    EXPECT_EQ(TextOf(deep), L"Tief");

    // The menu: texts translated, states, identifiers and submenus kept.
    ASSERT_EQ(::GetMenu(dialog), bar);
    EXPECT_EQ(MenuText(bar, 0), L"Datei");
    EXPECT_EQ(MenuText(bar, 1), L"Quit");
    ASSERT_EQ(::GetSubMenu(bar, 0), file);
    ASSERT_EQ(::GetMenuItemCount(file), 5);
    EXPECT_EQ(MenuText(file, 0), kOe);
    EXPECT_NE(::GetMenuState(file, 0, MF_BYPOSITION) & MF_CHECKED, 0u);
    EXPECT_EQ(::GetMenuItemID(file, 0), 101u);
    EXPECT_EQ(MenuText(file, 1), L"Speichern");
    EXPECT_NE(::GetMenuState(file, 1, MF_BYPOSITION) & MF_GRAYED, 0u);
    EXPECT_EQ(::GetMenuItemID(file, 1), 102u);
    EXPECT_NE(::GetMenuState(file, 2, MF_BYPOSITION) & MF_SEPARATOR, 0u);
    EXPECT_EQ(MenuText(file, 3), L"Bearbeiten");
    ASSERT_EQ(::GetSubMenu(file, 3), recent);
    EXPECT_TRUE(::IsMenu(recent));
    EXPECT_EQ(::GetMenuItemCount(recent), 1);
    EXPECT_EQ(MenuText(recent, 0), L"Speichern");
    EXPECT_EQ(::GetMenuItemID(recent, 0), 201u);
    EXPECT_EQ(MenuText(file, 4), L"Paste");
    EXPECT_EQ(::GetMenuItemID(file, 4), 104u);

    // Translating again finds nothing more to do.
    translator.XlateWnd(dialog);
    EXPECT_EQ(TextOf(dialog), L"Einstellungen");
    EXPECT_EQ(MenuText(bar, 0), L"Datei");

    ::DestroyWindow(dialog); // destroys the menu with it
    translator.XlateWnd(nullptr);
    translator.XlateWnd(dialog); // no longer a window: nothing happens
}

TEST(TranslatorWindow, GatheringCollectsWindowAndMenuTexts)
{
    SKIP_WITHOUT_WINDOWS();
    HWND frame = ::CreateWindowExW(0, L"Static", L"Main window", WS_OVERLAPPEDWINDOW, 0, 0, 200, 100, nullptr,
                                   nullptr, nullptr, nullptr);
    ASSERT_NE(frame, nullptr);
    HWND child = ::CreateWindowExW(0, L"Button", L"Press", WS_CHILD, 0, 0, 50, 10, frame, nullptr, nullptr, nullptr);
    HWND number = ::CreateWindowExW(0, L"EDIT", L"42", WS_CHILD | ES_NUMBER, 0, 0, 50, 10, frame, nullptr, nullptr,
                                    nullptr);
    HWND empty = ::CreateWindowExW(0, L"Static", L"", WS_CHILD, 0, 0, 50, 10, frame, nullptr, nullptr, nullptr);
    ASSERT_TRUE(child != nullptr && number != nullptr && empty != nullptr);
    HMENU bar = ::CreateMenu();
    HMENU popup = ::CreatePopupMenu();
    ::AppendMenuW(popup, MF_STRING, 1, L"Item");
    ::AppendMenuW(bar, MF_POPUP, reinterpret_cast<UINT_PTR>(popup), L"Menu");
    ::SetMenu(frame, bar);

    CTranslator translator;
    translator.SetTranslation(L"Press", L"Dr\x00FC" L"cken");
    translator.SetMode(CTranslator::ModeGather);
    translator.XlateWnd(frame);
    const CLanguageFile::Table expected = {
        {L"Item", L""}, {L"Main window", L""}, {L"Menu", L""}, {L"Press", L"Dr\x00FC" L"cken"}};
    EXPECT_EQ(translator.GetTable(), expected); // numeric edit and empty text not collected
    EXPECT_EQ(TextOf(child), L"Press");            // gathering changes nothing on screen
    ::DestroyWindow(frame);
}

TEST(TranslatorWindow, ToolbarButtonTexts)
{
    SKIP_WITHOUT_WINDOWS();
    INITCOMMONCONTROLSEX init = {sizeof(init), ICC_BAR_CLASSES};
    ::InitCommonControlsEx(&init);
    HWND frame = ::CreateWindowExW(0, L"Static", L"", WS_OVERLAPPEDWINDOW, 0, 0, 300, 100, nullptr, nullptr,
                                   nullptr, nullptr);
    ASSERT_NE(frame, nullptr);
    HWND toolbar = ::CreateWindowExW(0, TOOLBARCLASSNAMEW, nullptr, WS_CHILD | TBSTYLE_LIST, 0, 0, 300, 30, frame,
                                     nullptr, nullptr, nullptr);
    ASSERT_NE(toolbar, nullptr);
    ::SendMessageW(toolbar, TB_BUTTONSTRUCTSIZE, sizeof(TBBUTTON), 0);
    const LRESULT first = ::SendMessageW(toolbar, TB_ADDSTRINGW, 0, reinterpret_cast<LPARAM>(L"Open\0Save\0Other\0"));
    ASSERT_GE(first, 0);
    TBBUTTON buttons[4] = {};
    buttons[0].iBitmap = I_IMAGENONE;
    buttons[0].idCommand = 11;
    buttons[0].fsState = TBSTATE_ENABLED;
    buttons[0].fsStyle = BTNS_BUTTON;
    buttons[0].iString = first;
    buttons[1].fsStyle = BTNS_SEP;
    buttons[2] = buttons[0];
    buttons[2].idCommand = 12;
    buttons[2].iString = first + 1;
    buttons[3] = buttons[0];
    buttons[3].idCommand = 13;
    buttons[3].iString = first + 2;
    ASSERT_TRUE(::SendMessageW(toolbar, TB_ADDBUTTONSW, 4, reinterpret_cast<LPARAM>(buttons)));

    CTranslator translator;
    GermanTranslator(translator).XlateToolbar(toolbar);
    auto textOf = [toolbar](int id) {
        wchar_t text[64] = {};
        ::SendMessageW(toolbar, TB_GETBUTTONTEXTW, id, reinterpret_cast<LPARAM>(text));
        return ustring(text);
    };
    EXPECT_EQ(textOf(11), kOe);
    EXPECT_EQ(textOf(12), L"Speichern");
    EXPECT_EQ(textOf(13), L"Other");
    EXPECT_EQ(::SendMessageW(toolbar, TB_BUTTONCOUNT, 0, 0), 4);
    translator.XlateToolbar(nullptr);
    ::DestroyWindow(frame);
}

TEST(TranslatorWindow, GatherWalksTheDialogsAndMenusOfAModule)
{
    TAVRIN_SKIP_WITHOUT_32BIT_GDI();
    SKIP_WITHOUT_WINDOWS();
    // A module of our own with two dialogs and a menu: a copy of a small runtime DLL beside the
    // test, with resources added, loaded as a data file.
    wchar_t exe[MAX_PATH] = {};
    ::GetModuleFileNameW(nullptr, exe, MAX_PATH);
    std::wstring source(exe);
    source = source.substr(0, source.find_last_of(L'\\') + 1) + L"libwinpthread-1.dll";
    wchar_t folder[MAX_PATH] = {};
    ::GetTempPathW(MAX_PATH, folder);
    const std::wstring copy = std::wstring(folder) + L"tavrin_gather_" + std::to_wstring(::GetCurrentProcessId()) + L".dll";
    ASSERT_TRUE(::CopyFileW(source.c_str(), copy.c_str(), FALSE)) << ::GetLastError();

    // WS_VISIBLE: collecting must not show the dialog.
    CTemplate first(WS_POPUP | WS_CAPTION | WS_VISIBLE, L"Options");
    first.Control(1, kClassStatic, SS_LEFT, L"Name:", 5)
        .Control(2, kClassEdit, ES_NUMBER, L"123", 20)
        .Control(IDOK, kClassButton, BS_DEFPUSHBUTTON, L"OK", 35);
    CTemplate second(WS_POPUP | WS_CAPTION, L"About");
    second.Control(1, kClassStatic, SS_LEFT, L"Version", 5);
    // Menu template: header, then items; the last of each level carries MF_END.
    std::vector<WORD> menu = {0, 0, MF_POPUP | MF_END};
    for (const wchar_t* c = L"Tools"; ; ++c) { menu.push_back(*c); if (*c == 0) break; }
    menu.push_back(MF_END);
    menu.push_back(7);
    for (const wchar_t* c = L"Run"; ; ++c) { menu.push_back(*c); if (*c == 0) break; }

    HANDLE update = ::BeginUpdateResourceW(copy.c_str(), FALSE);
    ASSERT_NE(update, nullptr);
    const WORD language = MAKELANGID(LANG_NEUTRAL, SUBLANG_NEUTRAL);
    ASSERT_TRUE(::UpdateResourceW(update, RT_DIALOG, MAKEINTRESOURCEW(100), language, const_cast<void*>(first.Data()), first.Size()));
    ASSERT_TRUE(::UpdateResourceW(update, RT_DIALOG, L"ABOUT", language, const_cast<void*>(second.Data()), second.Size()));
    ASSERT_TRUE(::UpdateResourceW(update, RT_MENU, MAKEINTRESOURCEW(200), language, menu.data(),
                                  static_cast<DWORD>(menu.size() * sizeof(WORD))));
    ASSERT_TRUE(::EndUpdateResourceW(update, FALSE));

    HMODULE module = ::LoadLibraryExW(copy.c_str(), nullptr, LOAD_LIBRARY_AS_DATAFILE);
    ASSERT_NE(module, nullptr);

    CTranslator translator;
    translator.Gather(module); // translating mode: nothing is collected
    EXPECT_TRUE(translator.GetTable().empty());

    translator.SetMode(CTranslator::ModeGather);
    translator.Gather(module);
    const CLanguageFile::Table table = translator.GetTable();
    ::FreeLibrary(module);
    ::DeleteFileW(copy.c_str());

    const CLanguageFile::Table expected = {{L"About", L""}, {L"Name:", L""}, {L"OK", L""}, {L"Options", L""},
                                           {L"Run", L""},   {L"Tools", L""}, {L"Version", L""}};
    EXPECT_EQ(table, expected);
    // No dialog of the module was left behind.
    EXPECT_EQ(::FindWindowW(L"#32770", L"Options"), nullptr);
    EXPECT_EQ(::FindWindowW(L"#32770", L"About"), nullptr);
}
