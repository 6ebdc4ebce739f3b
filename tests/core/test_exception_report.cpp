// ReportErrorConsole: the exception block reaches the console as one error message.
#include <tavrin/core/exception.h>
#include <tavrin/core/object.h>
#include <tavrin/log/console.h>

#include <gtest/gtest.h>

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
