// CTable: bordered console tables with wrapped items, and their Markdown form.
#include <tavrin/log/console.h>

#include "log/console_markdown.h"

#include <algorithm>

namespace tavrin {

namespace {

// The characters of one border style: lines and the corners/joints of the top, middle and
// bottom separators (left, inner, right).
struct BorderGlyphs
{
    wchar_t horizontal;
    wchar_t vertical;
    wchar_t top[3];
    wchar_t middle[3];
    wchar_t bottom[3];
};

const BorderGlyphs kAsciiGlyphs = {L'-', L'|', {L'+', L'+', L'+'}, {L'+', L'+', L'+'}, {L'+', L'+', L'+'}};
const BorderGlyphs kSingleGlyphs = {L'\x2500', L'\x2502', {L'\x250C', L'\x252C', L'\x2510'},
                                    {L'\x251C', L'\x253C', L'\x2524'}, {L'\x2514', L'\x2534', L'\x2518'}};
const BorderGlyphs kDoubleGlyphs = {L'\x2550', L'\x2551', {L'\x2554', L'\x2566', L'\x2557'},
                                    {L'\x2560', L'\x256C', L'\x2563'}, {L'\x255A', L'\x2569', L'\x255D'}};

const BorderGlyphs* GlyphsOf(CTable::EBorderStyle style)
{
    switch (style)
    {
    case CTable::BorderAscii:
        return &kAsciiGlyphs;
    case CTable::BorderSingle:
        return &kSingleGlyphs;
    case CTable::BorderDouble:
        return &kDoubleGlyphs;
    default:
        return nullptr;
    }
}

const unsigned int kDefaultMaxColumnWidth = 48;

// The item's text as console lines of at most `width` code units: broken at its own line breaks,
// then at the last space that fits, else hard at the width.
std::vector<ustring> WrapText(const ustring& text, unsigned int width)
{
    ustring normalized(text);
    normalized.replace(ustring(L"\r\n"), ustring(L"\n"));
    std::replace(normalized.begin(), normalized.end(), L'\r', L'\n');

    std::vector<ustring> lines;
    size_t start = 0;
    for (;;)
    {
        const size_t end = normalized.find(L'\n', start);
        ustring paragraph(normalized.substr(start, end == std::wstring::npos ? std::wstring::npos : end - start));
        while (width > 0 && paragraph.size() > width)
        {
            const size_t space = paragraph.rfind(L' ', width);
            if (space != std::wstring::npos && space > 0)
            {
                lines.emplace_back(paragraph.substr(0, space));
                paragraph.erase(0, space + 1);
            }
            else
            {
                lines.emplace_back(paragraph.substr(0, width));
                paragraph.erase(0, width);
            }
        }
        lines.push_back(paragraph);
        if (end == std::wstring::npos)
            break;
        start = end + 1;
    }
    return lines;
}

unsigned int LongestLine(const ustring& text)
{
    unsigned int longest = 0;
    for (const ustring& line : WrapText(text, 0))
        longest = std::max(longest, static_cast<unsigned int>(line.size()));
    return longest;
}

// Collects one console line as runs of equal font, so that each run costs one font change.
class CLineWriter
{
public:
    CLineWriter(CConsole& console, CConsoleBase::ESeverity severity, bool consoleOnly)
        : m_Console(console), m_eSeverity(severity), m_bConsoleOnly(consoleOnly)
    {
    }

    void Add(const ConsoleFont& font, const ustring& text)
    {
        if (!m_aRuns.empty() && m_aRuns.back().first == font)
            m_aRuns.back().second += text;
        else
            m_aRuns.emplace_back(font, text);
    }

    void EndLine(const ConsoleFont& font)
    {
        Add(font, L"\r\n");
        for (const auto& run : m_aRuns)
            m_Console.Print(run.first, m_eSeverity, m_bConsoleOnly, run.second, CConsoleBase::OutputConsole);
        m_aRuns.clear();
    }

private:
    CConsole& m_Console;
    CConsoleBase::ESeverity m_eSeverity;
    bool m_bConsoleOnly;
    std::vector<std::pair<ConsoleFont, ustring>> m_aRuns;
};

ustring MarkdownCell(const TableItem& item)
{
    ustring text(item.m_strText);
    text.replace(ustring(L"\r\n"), ustring(L"\n"));
    ustring cell;
    // Line breaks inside a cell would end the table row.
    std::vector<ustring> lines = WrapText(text, 0);
    for (size_t i = 0; i < lines.size(); ++i)
    {
        if (i > 0)
            cell += L"<br>";
        detail::AppendDecoratedMarkdown(cell, lines[i].data(), lines[i].size(), item.m_Font, false);
    }
    // A pipe would end the cell.
    return cell.replace(ustring(L"|"), ustring(L"\\|"));
}

} // namespace

CTextObject::~CTextObject() = default;

CTable::CTable(bool header, EBorderStyle style, const ustring& caption)
    : m_bHeader(header), m_eBorderStyle(style), m_strCaption(caption), m_nMaxColumnWidth(kDefaultMaxColumnWidth)
{
}

CTable::~CTable() = default;

void CTable::InsertRow(const TableItem& item, unsigned int index)
{
    InsertRow(std::vector<TableItem>(1, item), index);
}

void CTable::InsertRow(const std::vector<TableItem>& items, unsigned int index)
{
    if (index >= m_aRows.size())
        m_aRows.push_back(items);
    else
        m_aRows.insert(m_aRows.begin() + index, items);
}

void CTable::InsertRow(const std::vector<ustring>& items, unsigned int index)
{
    InsertRow(std::vector<TableItem>(items.begin(), items.end()), index);
}

void CTable::InsertRow(const ustring& text, wchar_t separator, unsigned int index)
{
    std::vector<TableItem> items;
    size_t start = 0;
    for (;;)
    {
        const size_t end = text.find(separator, start);
        items.emplace_back(ustring(text.substr(start, end == std::wstring::npos ? std::wstring::npos : end - start)));
        if (end == std::wstring::npos)
            break;
        start = end + 1;
    }
    InsertRow(items, index);
}

bool CTable::DeleteRow(unsigned int index)
{
    if (index >= m_aRows.size())
        return false;
    m_aRows.erase(m_aRows.begin() + index);
    return true;
}

void CTable::Clear()
{
    m_aRows.clear();
}

unsigned int CTable::GetNumberOfRows() const
{
    return static_cast<unsigned int>(m_aRows.size());
}

unsigned int CTable::GetNumberOfColumns() const
{
    size_t columns = 0;
    for (const auto& row : m_aRows)
        columns = std::max(columns, row.size());
    return static_cast<unsigned int>(columns);
}

void CTable::SetMaxColumnWidth(unsigned int width)
{
    m_nMaxColumnWidth = std::max(width, 1u);
}

bool CTable::operator==(const CTable& other) const
{
    return m_bHeader == other.m_bHeader && m_eBorderStyle == other.m_eBorderStyle &&
           m_strCaption == other.m_strCaption && m_aRows == other.m_aRows;
}

ustring CTable::GetCaption() const
{
    return m_strCaption;
}

std::vector<unsigned int> CTable::GetColumnWidths() const
{
    std::vector<unsigned int> widths(GetNumberOfColumns(), 1u);
    for (const auto& row : m_aRows)
        for (size_t column = 0; column < row.size(); ++column)
            widths[column] = std::max(widths[column], std::min(LongestLine(row[column].m_strText), m_nMaxColumnWidth));
    return widths;
}

unsigned int CTable::GetItemLinesCount(const TableItem& item, unsigned int width) const
{
    return static_cast<unsigned int>(WrapText(item.m_strText, width).size());
}

ustring CTable::GetItemToPrint(const TableItem& item, unsigned int width, unsigned int line) const
{
    const std::vector<ustring> lines = WrapText(item.m_strText, width);
    ustring text = line < lines.size() ? lines[line] : ustring();
    if (text.size() < width)
        text.append(width - text.size(), L' ');
    return text;
}

void CTable::PrintHorizontalSeparatorToConsole(CConsole& console, const ConsoleFont& font,
                                               CConsoleBase::ESeverity severity, bool consoleOnly,
                                               const std::vector<unsigned int>& widths, ESeparator kind) const
{
    const BorderGlyphs* glyphs = GlyphsOf(m_eBorderStyle);
    if (glyphs == nullptr || widths.empty())
        return;
    const wchar_t* joints = kind == SeparatorTop ? glyphs->top : (kind == SeparatorHeader ? glyphs->middle : glyphs->bottom);
    ustring line(1u, joints[0]);
    for (size_t column = 0; column < widths.size(); ++column)
    {
        if (column > 0)
            line += joints[1];
        line.append(widths[column] + 2, glyphs->horizontal);
    }
    line += joints[2];
    line += L"\r\n";
    console.Print(font, severity, consoleOnly, line, CConsoleBase::OutputConsole);
}

void CTable::PrintToConsole(CConsole& console, const ConsoleFont& font, CConsoleBase::ESeverity severity,
                            bool consoleOnly, const ustring& caption) const
{
    CLocker<CCriticalSection> lock(&console.CriticalSection());
    CLineWriter writer(console, severity, consoleOnly);
    if (!caption.empty())
    {
        writer.Add(ConsoleFontChain(font, ConsoleFont::BoldFont(ConsoleFont::Bold)).Unwind(), caption);
        writer.EndLine(font);
    }
    if (m_aRows.empty())
        return;

    const std::vector<unsigned int> widths = GetColumnWidths();
    const BorderGlyphs* glyphs = GlyphsOf(m_eBorderStyle);
    const ustring vertical = glyphs != nullptr ? ustring(1u, glyphs->vertical) : ustring();
    static const TableItem emptyItem;

    PrintHorizontalSeparatorToConsole(console, font, severity, consoleOnly, widths, SeparatorTop);
    for (size_t row = 0; row < m_aRows.size(); ++row)
    {
        const std::vector<TableItem>& items = m_aRows[row];
        unsigned int height = 1;
        for (size_t column = 0; column < items.size(); ++column)
            height = std::max(height, GetItemLinesCount(items[column], widths[column]));

        for (unsigned int line = 0; line < height; ++line)
        {
            for (size_t column = 0; column < widths.size(); ++column)
            {
                const TableItem& item = column < items.size() ? items[column] : emptyItem;
                if (glyphs != nullptr)
                    writer.Add(font, column == 0 ? vertical + L' ' : ustring(L" ") + vertical + L' ');
                else if (column > 0)
                    writer.Add(font, L"  ");
                writer.Add(ConsoleFontChain(font, item.m_Font).Unwind(), GetItemToPrint(item, widths[column], line));
            }
            if (glyphs != nullptr)
                writer.Add(font, L' ' + vertical);
            writer.EndLine(font);
        }
        if (row == 0 && m_bHeader && m_aRows.size() > 1)
            PrintHorizontalSeparatorToConsole(console, font, severity, consoleOnly, widths, SeparatorHeader);
    }
    PrintHorizontalSeparatorToConsole(console, font, severity, consoleOnly, widths, SeparatorBottom);
}

void CTable::SaveToMarkdown(ustring& markdown) const
{
    const unsigned int columns = GetNumberOfColumns();
    if (columns == 0)
        return;
    static const TableItem emptyItem;

    auto writeRow = [&](const std::vector<TableItem>* items) {
        markdown += L"|";
        for (unsigned int column = 0; column < columns; ++column)
        {
            const TableItem& item = items != nullptr && column < items->size() ? (*items)[column] : emptyItem;
            markdown += L" ";
            markdown += MarkdownCell(item);
            markdown += L" |";
        }
        markdown += L"\r\n";
    };

    size_t first = 0;
    if (m_bHeader)
        writeRow(&m_aRows[first++]);
    else
        writeRow(nullptr);
    markdown += L"|";
    for (unsigned int column = 0; column < columns; ++column)
        markdown += L":---:|";
    markdown += L"\r\n";
    for (size_t row = first; row < m_aRows.size(); ++row)
        writeRow(&m_aRows[row]);
}

} // namespace tavrin
