// Console tables (borders, wrapping, Markdown form) and progress lines.
#include <tavrin/log/console.h>

#include "test_console_redirect.h"

#include <gtest/gtest.h>

#include <limits>

using namespace tavrin;
using tavrin_test::CStdStreamRedirect;

namespace {

// Exposes the wrapping members.
class CTableProbe : public CTable
{
public:
    using CTable::CTable;
    using CTable::GetItemLinesCount;
    using CTable::GetItemToPrint;
};

struct Output
{
    std::wstring out;
    std::wstring err;
};

template <class Body>
Output RunOnConsole(ustring& capture, ustring& markdown, Body body)
{
    Output output;
    CStdStreamRedirect redirect;
    {
        CConsole console(false, capture, markdown);
        body(console);
    }
    redirect.Stop();
    output.out = redirect.Out();
    output.err = redirect.Err();
    return output;
}

} // namespace

TEST(ConsoleTable, RowsInsertDeleteAndCompare)
{
    CTable table(true, CTable::BorderAscii, L"T");
    EXPECT_EQ(table.GetNumberOfRows(), 0u);
    EXPECT_EQ(table.GetNumberOfColumns(), 0u);
    EXPECT_EQ(table.GetCaption(), L"T");

    table.InsertRow(L"b|c", L'|');
    table.InsertRow(TableItem(L"a"), 0);                               // in front
    table.InsertRow(std::vector<ustring>{L"d", L"e", L"f"});            // appended
    table.InsertRow(std::vector<TableItem>{TableItem(L"x")}, 99);       // past the end: appended
    table.InsertRow(L"|mid||", L'|', 2);                                 // empty pieces are cells
    ASSERT_EQ(table.GetNumberOfRows(), 5u);
    EXPECT_EQ(table.GetNumberOfColumns(), 4u);
    EXPECT_EQ(table.GetRow(0).size(), 1u);
    EXPECT_EQ(table.GetRow(0)[0].m_strText, L"a");
    EXPECT_EQ(table.GetRow(1)[1].m_strText, L"c");
    ASSERT_EQ(table.GetRow(2).size(), 4u);
    EXPECT_EQ(table.GetRow(2)[0].m_strText, L"");
    EXPECT_EQ(table.GetRow(2)[1].m_strText, L"mid");
    EXPECT_EQ(table.GetRow(2)[3].m_strText, L"");
    EXPECT_EQ(table.GetRow(3)[2].m_strText, L"f");
    EXPECT_EQ(table.GetRow(4)[0].m_strText, L"x");

    CTable copy = table;
    EXPECT_TRUE(copy == table);
    EXPECT_TRUE(copy.DeleteRow(2));
    EXPECT_FALSE(copy.DeleteRow(4));
    EXPECT_EQ(copy.GetNumberOfRows(), 4u);
    EXPECT_EQ(copy.GetNumberOfColumns(), 3u);
    EXPECT_TRUE(copy != table);
    EXPECT_NE(CTable(true, CTable::BorderAscii, L"T"), CTable(false, CTable::BorderAscii, L"T"));
    EXPECT_NE(CTable(true, CTable::BorderAscii, L"T"), CTable(true, CTable::BorderDouble, L"T"));
    EXPECT_NE(CTable(true, CTable::BorderAscii, L"T"), CTable(true, CTable::BorderAscii, L"U"));
    CTable styled(true, CTable::BorderAscii, L"T"), plain(true, CTable::BorderAscii, L"T");
    styled.InsertRow(TableItem(L"a", ConsoleFont(ConsoleFont::TextRed)));
    plain.InsertRow(TableItem(L"a"));
    EXPECT_NE(styled, plain); // the cell's font counts
    copy.Clear();
    EXPECT_EQ(copy.GetNumberOfRows(), 0u);
    EXPECT_EQ(copy, CTable(true, CTable::BorderAscii, L"T"));
}

TEST(ConsoleTable, LongItemsWrapAtSpacesOrHard)
{
    const CTableProbe table;
    const TableItem words(L"long text here");
    EXPECT_EQ(table.GetItemLinesCount(words, 6), 3u);
    EXPECT_EQ(table.GetItemToPrint(words, 6, 0), L"long  ");
    EXPECT_EQ(table.GetItemToPrint(words, 6, 1), L"text  ");
    EXPECT_EQ(table.GetItemToPrint(words, 6, 2), L"here  ");
    EXPECT_EQ(table.GetItemToPrint(words, 6, 3), L"      "); // below the item: blank
    EXPECT_EQ(table.GetItemLinesCount(words, 14), 1u);

    const TableItem solid(L"abcdefghij");
    EXPECT_EQ(table.GetItemLinesCount(solid, 4), 3u);
    EXPECT_EQ(table.GetItemToPrint(solid, 4, 0), L"abcd");
    EXPECT_EQ(table.GetItemToPrint(solid, 4, 2), L"ij  ");

    // Own line breaks (any of the three forms) come first; an empty line stays a line.
    const TableItem lines(L"one\r\ntwo\n\nthree four\rfive");
    EXPECT_EQ(table.GetItemLinesCount(lines, 5), 6u);
    EXPECT_EQ(table.GetItemToPrint(lines, 5, 2), L"     ");
    EXPECT_EQ(table.GetItemToPrint(lines, 5, 3), L"three");
    EXPECT_EQ(table.GetItemToPrint(lines, 5, 4), L"four ");
    EXPECT_EQ(table.GetItemToPrint(lines, 5, 5), L"five ");
    EXPECT_EQ(table.GetItemLinesCount(TableItem(L""), 3), 1u);
}

TEST(ConsoleTable, PrintsBordersAndWrappedRowsOnTheConsole)
{
    CTable table(true, CTable::BorderAscii, L"Caption");
    table.SetMaxColumnWidth(6);
    table.InsertRow(L"Name|Value", L'|');
    table.InsertRow(std::vector<TableItem>{TableItem(L"alpha"), TableItem(L"1", ConsoleFont(ConsoleFont::TextGreen))});
    table.InsertRow(L"b|long text here", L'|');

    ustring capture, markdown;
    const Output output = RunOnConsole(capture, markdown, [&](CConsole& console) {
        console.Print(CConsoleBase::SeverityInfo, false, table, ustring());
    });
    const wchar_t* const expected = L"Caption\r\n"
                                    L"+-------+--------+\r\n"
                                    L"| Name  | Value  |\r\n"
                                    L"+-------+--------+\r\n"
                                    L"| alpha | 1      |\r\n"
                                    L"| b     | long   |\r\n"
                                    L"|       | text   |\r\n"
                                    L"|       | here   |\r\n"
                                    L"+-------+--------+\r\n";
    EXPECT_EQ(output.err, expected);
    EXPECT_EQ(capture, expected);
    // The caption is bold, the green cell green; the border in the default font.
    EXPECT_NE(output.out.find(L"\x1b[0m\x1b[1m\x1b[107m"), std::wstring::npos);
    EXPECT_NE(output.out.find(L"\x1b[0m\x1b[32m\x1b[107m"), std::wstring::npos);
    // The Markdown copy holds the caption and the table, not the drawing.
    EXPECT_EQ(markdown, L"__Caption__\r\n"
                        L"\r\n"
                        L"| Name | Value |\r\n"
                        L"|:---:|:---:|\r\n"
                        L"| alpha | 1 |\r\n"
                        L"| b | long text here |\r\n"
                        L"\r\n");
}

TEST(ConsoleTable, BoxDrawingStylesAndExplicitCaption)
{
    CTable single(true, CTable::BorderSingle, L"own");
    single.InsertRow(L"h|i", L'|');
    single.InsertRow(L"1|2", L'|');
    CTable twice(false, CTable::BorderDouble);
    twice.InsertRow(L"x", L'|');
    CTable none(true, CTable::BorderNone);
    none.InsertRow(L"ab|c", L'|');
    none.InsertRow(L"d|ef", L'|');

    ustring capture, markdown;
    const Output output = RunOnConsole(capture, markdown, [&](CConsole& console) {
        console.Print(CConsoleBase::SeverityInfo, false, single, ustring(L"Given"));
        console.Print(CConsoleBase::SeverityVerbose, false, twice, ustring()); // not in the Markdown copy
        console.Print(CConsoleBase::SeverityInfo, false, none, ustring(), CConsoleBase::OutputConsole);
    });
    EXPECT_EQ(output.err, L"Given\r\n"
                          L"\x250C\x2500\x2500\x2500\x252C\x2500\x2500\x2500\x2510\r\n"
                          L"\x2502 h \x2502 i \x2502\r\n"
                          L"\x251C\x2500\x2500\x2500\x253C\x2500\x2500\x2500\x2524\r\n"
                          L"\x2502 1 \x2502 2 \x2502\r\n"
                          L"\x2514\x2500\x2500\x2500\x2534\x2500\x2500\x2500\x2518\r\n"
                          L"\x2554\x2550\x2550\x2550\x2557\r\n"
                          L"\x2551 x \x2551\r\n"
                          L"\x255A\x2550\x2550\x2550\x255D\r\n"
                          L"ab  c \r\n"
                          L"d   ef\r\n");
    EXPECT_EQ(markdown, L"__Given__\r\n\r\n| h | i |\r\n|:---:|:---:|\r\n| 1 | 2 |\r\n\r\n");
}

TEST(ConsoleTable, MarkdownCellsAreEscaped)
{
    CTable table(false, CTable::BorderAscii);
    ConsoleFont italic;
    italic.m_eItalic = ConsoleFont::TriOn;
    table.InsertRow(std::vector<TableItem>{TableItem(L"x_y", ConsoleFont::BoldFont(ConsoleFont::Bold)),
                                           TableItem(L"a|b*c"), TableItem(L"line1\r\nline2", italic)});
    table.InsertRow(L"short", L'|');
    ustring markdown(L"> ");
    table.SaveToMarkdown(markdown);
    EXPECT_EQ(markdown, L"> |  |  |  |\r\n"
                        L"|:---:|:---:|:---:|\r\n"
                        L"| __x\\_y__ | a\\|b\\*c | _line1_<br>_line2_ |\r\n"
                        L"| short |  |  |\r\n");
    ustring empty;
    CTable().SaveToMarkdown(empty);
    EXPECT_EQ(empty, L"");
}

TEST(ConsoleProgress, PercentLinesAreThrottledBySteps)
{
    ustring capture, markdown;
    std::vector<bool> printed;
    const Output output = RunOnConsole(capture, markdown, [&](CConsole& console) {
        CConsoleProgress whole(console, CConsoleBase::SeverityInfo, true, 0, 10);
        printed.push_back(whole.UpdateProgress(0, 100));    // first: 0%
        printed.push_back(whole.UpdateProgress(5, 100));    // 50 per mille: 5%
        printed.push_back(whole.UpdateProgress(5, 100));    // unchanged
        printed.push_back(whole.UpdateProgress(55, 1000));  // 5 per mille more: too small a step
        printed.push_back(whole.UpdateProgress(60, 1000));  // 6%
        printed.push_back(whole.UpdateProgress(999, 1000)); // 99%
        printed.push_back(whole.UpdateProgress(1000, 1000)); // completion always prints
        printed.push_back(whole.UpdateProgress(2000, 1000)); // beyond the total: still complete
        whole.Reset();
        printed.push_back(whole.UpdateProgress(1, 3));      // after Reset: prints again, 33%

        CConsoleProgress fine(console, CConsoleBase::SeverityWarning, false, 0, 1);
        printed.push_back(fine.UpdateProgress(1, 3));
        printed.push_back(fine.UpdateProgress(2, 3));
        printed.push_back(fine.UpdateProgress(0, 0)); // no total: complete
        const unsigned long long big = std::numeric_limits<unsigned long long>::max();
        fine.Reset();
        printed.push_back(fine.UpdateProgress(big / 2, big));
        printed.push_back(fine.UpdateProgress(big - 1, big)); // just short of complete

        // A long interval holds back every line but the first and the completion.
        CConsoleProgress slow(console, CConsoleBase::SeverityInfo, false, 3600000, 1);
        printed.push_back(slow.UpdateProgress(1, 10));
        printed.push_back(slow.UpdateProgress(5, 10));
        printed.push_back(slow.UpdateProgress(10, 10));
    });

    EXPECT_EQ(printed, (std::vector<bool>{true, true, false, false, true, true, true, false, true,
                                          true, true, true, true, true, true, false, true}));
    const std::wstring lines = L"0%\r\n5%\r\n6%\r\n99%\r\n100%\r\n33%\r\n"
                               L"Warning: 33.3%\r\nWarning: 66.6%\r\nWarning: 100.0%\r\n"
                               L"Warning: 50.0%\r\nWarning: 99.9%\r\n"
                               L"10.0%\r\n100.0%\r\n";
    EXPECT_EQ(capture, lines);
    // Console-only lines are left out of a redirected stream; the others are written.
    EXPECT_EQ(output.err, L"Warning: 33.3%\r\nWarning: 66.6%\r\nWarning: 100.0%\r\n"
                          L"Warning: 50.0%\r\nWarning: 99.9%\r\n"
                          L"10.0%\r\n100.0%\r\n");
    EXPECT_EQ(markdown, lines);
}
