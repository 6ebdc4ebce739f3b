// The exception reporters: the console block as one error message, and the modal error dialog
// (shown for real; a helper thread finds it and presses its buttons).
#include <tavrin/core/exception.h>
#include <tavrin/core/object.h>
#include <tavrin/l10n/translator.h>
#include <tavrin/log/console.h>

#include <gtest/gtest.h>
#include <tavrin_test.h>

#include <thread>
#include <utility>
#include <vector>

using namespace tavrin;

namespace {

// A console that records what it is asked to print.
class CRecordingConsole : public CConsoleBase
{
public:
    void Print(ESeverity severity, bool consoleOnly, const ustring& text, EOutput) override
    {
        m_aMessages.emplace_back(severity, text);
        m_bConsoleOnly = consoleOnly;
    }
    void Print(const ConsoleFont&, ESeverity severity, bool consoleOnly, const ustring& text,
               EOutput output) override
    {
        Print(severity, consoleOnly, text, output);
    }
    void Print(ESeverity severity, bool, wchar_t ch) override
    {
        m_aMessages.emplace_back(severity, ustring(1u, ch));
    }
    void Print(const ConsoleFont&, ESeverity severity, bool consoleOnly, wchar_t ch) override
    {
        Print(severity, consoleOnly, ch);
    }
    void VPrintF(ESeverity severity, bool consoleOnly, const wchar_t* format, va_list args) override
    {
        Print(severity, consoleOnly, ustring::vsprintf_stc(format, args), OutputAll);
    }
    void VPrintF(const ConsoleFont&, ESeverity severity, bool consoleOnly, const wchar_t* format,
                 va_list args) override
    {
        VPrintF(severity, consoleOnly, format, args);
    }
    CCriticalSection& CriticalSection() override { return m_cs; }

    std::vector<std::pair<ESeverity, ustring>> m_aMessages;
    bool m_bConsoleOnly = true;

private:
    CCriticalSection m_cs;
};

} // namespace

TEST(ExceptionReportConsole, OneErrorMessageWithTheWholeBlock)
{
    const CCommException e(12, L"x.cpp", nullptr, L"{2,,dup loop}", nullptr);
    CRecordingConsole console;
    e.ReportErrorConsole(console, L"main.cpp", 99);

    ASSERT_EQ(console.m_aMessages.size(), 1u);
    EXPECT_EQ(console.m_aMessages[0].first, CConsoleBase::SeverityError);
    EXPECT_EQ(static_cast<int>(console.m_aMessages[0].first), 2);
    EXPECT_FALSE(console.m_bConsoleOnly); // a report is kept in redirected output too
    EXPECT_EQ(console.m_aMessages[0].second,
              L"< C++ EXCEPTION LOG >\r\n"
              L"Dup loop\r\n"
              L"Error code:  dup loop\r\n"
              L"File name:   x.cpp\r\n"
              L"Line:        12\r\n"
              L"File name 2: main.cpp\r\n"
              L"Line 2:      99\r\n");

    // The static form prints a snapshot that outlived its exception.
    CStdException::CExInfo info;
    {
        const CWinException gone(5, L"w.cpp", L"CreateFileW", static_cast<long>(0xDEADBEEFu));
        info = CStdException::CExInfo(gone);
    }
    CStdException::ReportErrorConsole(console, info, nullptr, 0);
    ASSERT_EQ(console.m_aMessages.size(), 2u);
    EXPECT_EQ(console.m_aMessages[1].second,
              L"< C++ EXCEPTION LOG >\r\n"
              L"Unknown error: -559038737 (0xDEADBEEF).\r\n"
              L"Error code:  0xDEADBEEF\r\n"
              L"Source:      Win API\r\n"
              L"Function:    CreateFileW\r\n"
              L"File name:   w.cpp\r\n"
              L"Line:        5\r\n");
}

// ---------------------------------------------------------------------------- the error dialog

namespace {

struct ChildWindow
{
    ustring className;
    int id;
    ustring text;
    LONG style;
    bool visible;
    RECT rect; // screen coordinates
};

// What a helper thread saw of the dialog before it pressed a button.
struct SeenDialog
{
    bool found = false;
    ustring caption;
    RECT client = {}; // screen coordinates
    std::vector<ChildWindow> children;

    const ChildWindow* Find(const wchar_t* className, const wchar_t* text) const
    {
        for (const ChildWindow& child : children)
            if (child.className.compareNoCase(className) == 0 && (text == nullptr || child.text == text))
                return &child;
        return nullptr;
    }
    const ChildWindow* FindContaining(const wchar_t* className, const wchar_t* part) const
    {
        for (const ChildWindow& child : children)
            if (child.className.compareNoCase(className) == 0 && child.text.find(part) != std::wstring::npos)
                return &child;
        return nullptr;
    }
};

BOOL CALLBACK CollectChild(HWND hwnd, LPARAM parameter)
{
    ChildWindow child;
    wchar_t buffer[1024] = {};
    ::GetClassNameW(hwnd, buffer, 1024);
    child.className = buffer;
    buffer[0] = 0;
    ::GetWindowTextW(hwnd, buffer, 1024);
    child.text = buffer;
    child.id = ::GetDlgCtrlID(hwnd);
    child.style = ::GetWindowLongW(hwnd, GWL_STYLE);
    child.visible = ::IsWindowVisible(hwnd) != FALSE;
    ::GetWindowRect(hwnd, &child.rect);
    reinterpret_cast<std::vector<ChildWindow>*>(parameter)->push_back(child);
    return TRUE;
}

// Waits (at most ten seconds) for the dialog with this caption, records it and lets `press`
// close it.
template <class Press>
std::thread WatchDialog(const wchar_t* caption, SeenDialog& seen, Press press)
{
    return std::thread([caption, &seen, press] {
        HWND dialog = nullptr;
        for (int i = 0; i < 500 && dialog == nullptr; ++i)
        {
            dialog = ::FindWindowW(L"#32770", caption);
            if (dialog == nullptr || !::IsWindowVisible(dialog))
            {
                dialog = nullptr;
                ::Sleep(20);
            }
        }
        if (dialog == nullptr)
            return;
        seen.found = true;
        wchar_t text[256] = {};
        ::GetWindowTextW(dialog, text, 256);
        seen.caption = text;
        ::GetClientRect(dialog, &seen.client);
        ::MapWindowPoints(dialog, nullptr, reinterpret_cast<POINT*>(&seen.client), 2);
        ::EnumChildWindows(dialog, &CollectChild, reinterpret_cast<LPARAM>(&seen.children));
        press(dialog, seen);
    });
}

void Click(HWND dialog, const SeenDialog& seen, const wchar_t* buttonText)
{
    const ChildWindow* button = seen.Find(L"Button", buttonText);
    if (button != nullptr)
        ::PostMessageW(::GetDlgItem(dialog, button->id), BM_CLICK, 0, 0);
    else
        ::PostMessageW(dialog, WM_COMMAND, MAKEWPARAM(IDCANCEL, BN_CLICKED), 0); // do not hang the test
}

bool Inside(const RECT& inner, const RECT& outer)
{
    return inner.left >= outer.left && inner.top >= outer.top && inner.right <= outer.right &&
           inner.bottom <= outer.bottom && inner.right > inner.left && inner.bottom > inner.top;
}

// The parent of the help test: records the context identifier of WM_HELP.
DWORD_PTR g_nHelpContext = 0;
LRESULT CALLBACK HelpParentProc(HWND hwnd, UINT message, WPARAM wParam, LPARAM lParam)
{
    if (message == WM_HELP)
    {
        g_nHelpContext = reinterpret_cast<HELPINFO*>(lParam)->dwContextId;
        return TRUE;
    }
    return ::DefWindowProcW(hwnd, message, wParam, lParam);
}

} // namespace

TEST(ExceptionReportDialog, ShowsTranslatedMessageDetailsAndApplication)
{
    TAVRIN_SKIP_WITHOUT_32BIT_GDI();
    if (!tavrintest::CanCreateWindows())
        GTEST_SKIP() << "no display to show the dialog on";
    CStdException::SetAppName(L"Report Tool");
    CTranslatorInstance::Ref().SetTranslation(L"Dup loop", L"Doppelte Schleife");

    const CCommException e(12, L"x.cpp", L"tavrin::CReceiver::Get", L"{2,,dup loop}", L"Receiver");
    SeenDialog seen;
    std::thread watcher = WatchDialog(L"Receiver error", seen, [](HWND dialog, const SeenDialog& s) {
        Click(dialog, s, L"No");
    });
    const int result = e.ReportError(nullptr, MB_YESNO | MB_ICONWARNING | MB_DEFBUTTON2, L"Receiver error", 0);
    watcher.join();
    CTranslatorInstance::Ref().SetTranslation(L"Dup loop", L"");
    CStdException::SetAppName(nullptr);

    ASSERT_TRUE(seen.found);
    EXPECT_EQ(result, IDNO);
    EXPECT_EQ(seen.caption, L"Receiver error");

    // The message, translated.
    const ChildWindow* message = seen.Find(L"Static", L"Doppelte Schleife");
    ASSERT_NE(message, nullptr);
    EXPECT_TRUE(message->visible);
    // The details with the application name, aligned like the console block.
    const ChildWindow* details = seen.FindContaining(L"Edit", L"Application: Report Tool\r\n");
    ASSERT_NE(details, nullptr);
    EXPECT_EQ(details->text, L"Application: Report Tool\r\n"
                             L"Error code:  dup loop\r\n"
                             L"Source:      Receiver\r\n"
                             L"Function:    tavrin::CReceiver::Get\r\n"
                             L"File name:   x.cpp\r\n"
                             L"Line:        12");
    EXPECT_NE(details->style & ES_READONLY, 0);

    // The buttons of MB_YESNO, with the library's texts; the second one is the default.
    const ChildWindow* yes = seen.Find(L"Button", L"Yes");
    const ChildWindow* no = seen.Find(L"Button", L"No");
    ASSERT_TRUE(yes != nullptr && no != nullptr);
    EXPECT_EQ(yes->id, IDYES);
    EXPECT_EQ(no->id, IDNO);
    EXPECT_EQ(no->style & 0x0F, BS_DEFPUSHBUTTON);
    EXPECT_EQ(yes->style & 0x0F, BS_PUSHBUTTON);
    EXPECT_EQ(seen.Find(L"Button", L"OK"), nullptr);
    EXPECT_LT(yes->rect.left, no->rect.left);

    // Everything visible lies inside the dialog, the icon included.
    int visible = 0;
    for (const ChildWindow& child : seen.children)
        if (child.visible)
        {
            ++visible;
            EXPECT_TRUE(Inside(child.rect, seen.client)) << child.className.c_str() << " " << child.text.c_str();
        }
    EXPECT_EQ(visible, 5); // icon, message, details, two buttons
}

TEST(ExceptionReportDialog, EscapeHelpAndTheApplicationNameAsCaption)
{
    TAVRIN_SKIP_WITHOUT_32BIT_GDI();
    if (!tavrintest::CanCreateWindows())
        GTEST_SKIP() << "no display to show the dialog on";
    CStdException::SetAppName(L"Caption From App");

    // MB_OK: Escape (IDCANCEL) closes with the only button's result; no icon is shown.
    const CWinException e(7, L"w.cpp", L"CreateFileW", ERROR_FILE_NOT_FOUND);
    SeenDialog seen;
    std::thread watcher = WatchDialog(L"Caption From App", seen, [](HWND dialog, const SeenDialog&) {
        ::PostMessageW(dialog, WM_COMMAND, MAKEWPARAM(IDCANCEL, BN_CLICKED), 0);
    });
    const int result = e.ReportError(nullptr, MB_OK, nullptr, 0);
    watcher.join();
    ASSERT_TRUE(seen.found);
    EXPECT_EQ(result, IDOK);
    ASSERT_NE(seen.Find(L"Button", L"OK"), nullptr);
    int visible = 0;
    for (const ChildWindow& child : seen.children)
        visible += child.visible ? 1 : 0;
    EXPECT_EQ(visible, 3); // message, details, OK
    ustring message;
    e.GetErrorMessage(message);
    message.trim_right(L'\n').trim_right(L'\r');
    EXPECT_NE(seen.Find(L"Static", message.c_str()), nullptr);

    // MB_HELP: the Help button sends WM_HELP with the help identifier to the parent, which the
    // dialog leaves open; Cancel then closes it.
    WNDCLASSW windowClass = {};
    windowClass.lpfnWndProc = &HelpParentProc;
    windowClass.hInstance = ::GetModuleHandleW(nullptr);
    windowClass.lpszClassName = L"TavrinHelpParent";
    ::RegisterClassW(&windowClass);
    HWND parent = ::CreateWindowExW(0, L"TavrinHelpParent", L"Parent", WS_OVERLAPPEDWINDOW, 0, 0, 300, 200, nullptr,
                                    nullptr, ::GetModuleHandleW(nullptr), nullptr);
    ASSERT_NE(parent, nullptr);
    g_nHelpContext = 0;
    SeenDialog helped;
    std::thread helper = WatchDialog(L"With help", helped, [](HWND dialog, const SeenDialog& s) {
        const ChildWindow* help = s.Find(L"Button", L"Help");
        if (help != nullptr)
            ::SendMessageW(::GetDlgItem(dialog, help->id), BM_CLICK, 0, 0);
        Click(dialog, s, L"Cancel");
    });
    const int helpResult = e.ReportError(parent, MB_OKCANCEL | MB_HELP | MB_ICONERROR, L"With help", 4711);
    helper.join();
    ::DestroyWindow(parent);
    CStdException::SetAppName(nullptr);

    ASSERT_TRUE(helped.found);
    EXPECT_EQ(helpResult, IDCANCEL);
    EXPECT_EQ(g_nHelpContext, 4711u);
    EXPECT_NE(helped.Find(L"Button", L"Help"), nullptr);
    EXPECT_NE(helped.Find(L"Button", L"OK"), nullptr);
    EXPECT_NE(helped.FindContaining(L"Edit", L"Application: Caption From App\r\n"), nullptr);
}
