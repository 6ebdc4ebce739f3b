// tavrin-log cat and merge: records as lines of text.
//
//     2024-03-07 09:05:01.123  COM3  -> 3 AB<LF>
//     2024-03-07 09:05:01.140  COM3  <~ 4 OK<CR><LF>  | reply frame
//     2024-03-07 09:05:01.200  COM3  ** "\\.\COM3" has been opened.
//
// "->" data sent, "<-" data received ("~" instead of "-": completed asynchronously), "**" a text
// event, "!!" a write error or damaged text. A formatter's text follows "|".
#include "tool.h"

#include <tavrin/log/logfile.h>

#include <algorithm>

namespace tavrinlog {

using tavrin::ConsoleFont;

namespace {

// A record's text: what follows the size, or the whole text of an event, with line ends named.
ustring Body(const LogRecord& record, bool hex)
{
    switch (record.nKind)
    {
    case LogRecord::eWrite:
    case LogRecord::eRead:
    {
        ustring body = ustring::sprintf_stc(L"%u ", static_cast<unsigned int>(record.data.size()));
        body += hex ? tavrin::CLogFile::Bin2Hex(record.data.data(), static_cast<unsigned int>(record.data.size()))
                    : NameControls(record.data);
        ustring formatted = record.formatted;
        formatted.trim_right({L'\r', L'\n'});
        if (!formatted.empty())
            body += L"  | " + NameControls(formatted);
        return body;
    }
    case LogRecord::eText:
        return NameControls(record.text);
    case LogRecord::eWriteError:
        return record.text + L" (a write failed here; that session logged nothing after it)";
    default:
    {
        ustring body = ustring::sprintf_stc(L"line %I64u: %ls", record.nLine, record.problem.c_str());
        if (record.nDeclaredKind != LogRecord::eDamaged)
            body += ustring::sprintf_stc(L" (%ls record)", KindName(record.nDeclaredKind));
        if (!record.data.empty())
            body += ustring::sprintf_stc(L", %u bytes saved: ", static_cast<unsigned int>(record.data.size())) +
                    (hex ? tavrin::CLogFile::Bin2Hex(record.data.data(), static_cast<unsigned int>(record.data.size()))
                         : NameControls(record.data));
        ustring text = record.text;
        text.trim_right({L'\r', L'\n'});
        if (!text.empty())
            body += L": " + NameControls(ustring(text.substr(0, 200))) + (text.size() > 200 ? L"..." : L"");
        return body;
    }
    }
}

const wchar_t* Marker(const LogRecord& record)
{
    switch (record.nKind)
    {
    case LogRecord::eWrite:
        return record.bSynchronous ? L"->" : L"~>";
    case LogRecord::eRead:
        return record.bSynchronous ? L"<-" : L"<~";
    case LogRecord::eText:
        return L"**";
    default:
        return L"!!";
    }
}

ConsoleFont::ETextColor Colour(unsigned int kind)
{
    switch (kind)
    {
    case LogRecord::eWrite:
        return ConsoleFont::TextLightGreen;
    case LogRecord::eRead:
        return ConsoleFont::TextLightCyan;
    case LogRecord::eText:
        return ConsoleFont::TextYellow;
    default:
        return ConsoleFont::TextLightRed;
    }
}

int PrintRecords(const CCommandLine& line, bool merge)
{
    std::vector<std::unique_ptr<CLogSource>> sources = OpenSources(line);
    const CRecordFilter filter(line);
    CStdOut out(line.Has(L"plain"));
    const bool hex = line.Has(L"hex");
    std::size_t width = 0;
    for (const auto& source : sources)
        width = std::max<std::size_t>(width, source->GetChannel().size());

    CRecordStream stream(sources, merge);
    LogRecord record;
    std::size_t source = 0;
    bool last = false;
    const ustring noTime(23u, L' ');
    while (!out.IsClosed() && stream.Next(record, source, last))
    {
        if (!filter.Accept(record))
            continue;
        ustring channel = sources[source]->GetChannel();
        channel.append(width - channel.size(), L' ');
        WriteRecordLine(out, record.bHasTime ? FormatTime(record.time) : noTime, channel, record, hex);
    }
    return kExitOk;
}

} // namespace

void WriteRecordLine(CStdOut& out, const ustring& time, const ustring& channel, const LogRecord& record, bool hex)
{
    out.Write(time + L"  " + channel + L"  ");
    out.Write(ustring(Marker(record)) + L" " + Body(record, hex), Colour(record.nKind));
    out.Write(L"\r\n");
}

int RunCat(const CCommandLine& line)
{
    return PrintRecords(line, false);
}

int RunMerge(const CCommandLine& line)
{
    return PrintRecords(line, true);
}

} // namespace tavrinlog
