// tavrin-log stats: per file (and in total for several), the records and bytes each way, how
// they completed, the first and last time, the pauses between records, write errors and damage.
#include "tool.h"

#include <algorithm>

namespace tavrinlog {

namespace {

const unsigned int kLongestGaps = 3;
const std::size_t kListedLines = 10;

struct Gap
{
    unsigned __int64 nMilliseconds;
    SYSTEMTIME at; // the time of the record after the gap
    unsigned __int64 nLine;
};

struct Stats
{
    unsigned __int64 nRecords = 0, nText = 0, nSent = 0, nReceived = 0;
    unsigned __int64 nBytesSent = 0, nBytesReceived = 0, nAsyncSent = 0, nAsyncReceived = 0;
    unsigned __int64 nWriteErrors = 0, nDamaged = 0, nGaps = 0, nBackwards = 0;
    bool bHasTime = false;
    SYSTEMTIME first = {}, last = {};
    std::vector<Gap> longest;
    std::vector<unsigned __int64> damagedLines, errorLines;

    void Add(const LogRecord& record, unsigned __int64 gapLimit, bool& hasPrevious, unsigned __int64& previous)
    {
        ++nRecords;
        switch (record.nKind)
        {
        case LogRecord::eText:
            ++nText;
            break;
        case LogRecord::eWrite:
            ++nSent;
            nBytesSent += record.data.size();
            nAsyncSent += record.bSynchronous ? 0 : 1;
            break;
        case LogRecord::eRead:
            ++nReceived;
            nBytesReceived += record.data.size();
            nAsyncReceived += record.bSynchronous ? 0 : 1;
            break;
        case LogRecord::eWriteError:
            ++nWriteErrors;
            if (errorLines.size() < kListedLines)
                errorLines.push_back(record.nLine);
            break;
        default:
            ++nDamaged;
            if (damagedLines.size() < kListedLines)
                damagedLines.push_back(record.nLine);
            break;
        }
        if (!record.bHasTime)
            return;
        FILETIME ticks;
        ::SystemTimeToFileTime(&record.time, &ticks);
        const unsigned __int64 now = tavrin::CSystemTime::FT2ULL(ticks) / 10000;
        if (!bHasTime || tavrin::CSystemTime(record.time) < tavrin::CSystemTime(first))
            first = record.time;
        if (!bHasTime || tavrin::CSystemTime(record.time) > tavrin::CSystemTime(last))
            last = record.time;
        bHasTime = true;
        if (hasPrevious)
        {
            if (now < previous)
                ++nBackwards;
            else if (now - previous > gapLimit)
            {
                ++nGaps;
                longest.push_back(Gap{now - previous, record.time, record.nLine});
                std::sort(longest.begin(), longest.end(),
                          [](const Gap& a, const Gap& b) { return a.nMilliseconds > b.nMilliseconds; });
                if (longest.size() > kLongestGaps)
                    longest.pop_back();
            }
        }
        hasPrevious = true;
        previous = now;
    }

    void Merge(const Stats& other)
    {
        nRecords += other.nRecords;
        nText += other.nText;
        nSent += other.nSent;
        nReceived += other.nReceived;
        nBytesSent += other.nBytesSent;
        nBytesReceived += other.nBytesReceived;
        nAsyncSent += other.nAsyncSent;
        nAsyncReceived += other.nAsyncReceived;
        nWriteErrors += other.nWriteErrors;
        nDamaged += other.nDamaged;
        nGaps += other.nGaps;
        nBackwards += other.nBackwards;
        if (other.bHasTime)
        {
            if (!bHasTime || tavrin::CSystemTime(other.first) < tavrin::CSystemTime(first))
                first = other.first;
            if (!bHasTime || tavrin::CSystemTime(other.last) > tavrin::CSystemTime(last))
                last = other.last;
            bHasTime = true;
        }
    }
};

class CReport
{
public:
    CReport(CStdOut& out, bool plain) : m_Out(out), m_bPlain(plain) {}

    ustring Number(unsigned __int64 value) const
    {
        return m_bPlain ? ustring::sprintf_stc(L"%I64u", value) : ustring::ui64toa(value);
    }

    void Line(const wchar_t* label, const ustring& text)
    {
        m_Out.Write(ustring::sprintf_stc(L"  %-10ls %ls\r\n", label, text.c_str()));
    }

    ustring Lines(const std::vector<unsigned __int64>& lines, unsigned __int64 count) const
    {
        ustring text;
        for (unsigned __int64 line : lines)
            text += (text.empty() ? L"" : L", ") + Number(line);
        return text + (count > lines.size() ? L", ..." : L"");
    }

    void Print(const Stats& s, unsigned __int64 gapLimit)
    {
        Line(L"records", Number(s.nRecords) + L": " + Number(s.nSent) + L" sent, " + Number(s.nReceived) +
                             L" received, " + Number(s.nText) + L" text events");
        Line(L"bytes", Number(s.nBytesSent) + L" sent, " + Number(s.nBytesReceived) + L" received");
        Line(L"async", Number(s.nAsyncSent) + L" sent and " + Number(s.nAsyncReceived) +
                           L" received completed asynchronously");
        if (s.bHasTime)
            Line(L"time", FormatTime(s.first) + L" to " + FormatTime(s.last) + L" (" +
                              tavrin::CSystemTimeSpan(tavrin::CSystemTime(s.last), tavrin::CSystemTime(s.first))
                                  .FormatConsole(true) +
                              L")");
        else
            Line(L"time", L"none");
        ustring gaps = Number(s.nGaps) + L" over " + Number(gapLimit) + L" ms";
        for (std::size_t i = 0; i < s.longest.size(); ++i)
            gaps += (i == 0 ? L"; longest " : L", ") + Number(s.longest[i].nMilliseconds) + L" ms before line " +
                    Number(s.longest[i].nLine) + L" (" + FormatTime(s.longest[i].at) + L")";
        if (s.nBackwards != 0)
            gaps += L"; time went back " + Number(s.nBackwards) + L" times";
        Line(L"gaps", gaps);
        if (s.nWriteErrors == 0 && s.nDamaged == 0)
            Line(L"errors", L"none");
        else
        {
            ustring errors = Number(s.nWriteErrors) + L" write errors";
            if (!s.errorLines.empty())
                errors += L" (line " + Lines(s.errorLines, s.nWriteErrors) + L")";
            errors += L", " + Number(s.nDamaged) + L" damaged records";
            if (!s.damagedLines.empty())
                errors += L" (line " + Lines(s.damagedLines, s.nDamaged) + L")";
            Line(L"errors", errors);
        }
    }

private:
    CStdOut& m_Out;
    bool m_bPlain;
};

} // namespace

int RunStats(const CCommandLine& line)
{
    std::vector<std::unique_ptr<CLogSource>> sources = OpenSources(line);
    const CRecordFilter filter(line);
    unsigned int gapLimit = 1000;
    line.Get(L"gap", gapLimit, 0, 86400000);
    CStdOut out(line.Has(L"plain"));
    CReport report(out, line.Has(L"plain") || !out.IsConsole());

    Stats total;
    LogRecord record;
    for (const auto& source : sources)
    {
        Stats stats;
        bool hasPrevious = false;
        unsigned __int64 previous = 0;
        while (source->Next(record))
            if (filter.Accept(record))
                stats.Add(record, gapLimit, hasPrevious, previous);
        out.Write(source->GetPath() + L"\r\n");
        SYSTEMTIME created;
        report.Line(L"channel", source->GetChannel() +
                                    (source->Reader().GetCreationTime(created)
                                         ? L" (file created " + FormatTime(created) + L")"
                                         : ustring(L" (the file name holds no creation time)")));
        report.Print(stats, gapLimit);
        total.Merge(stats);
    }
    if (sources.size() > 1)
    {
        out.Write(ustring::sprintf_stc(L"all %u files\r\n", static_cast<unsigned int>(sources.size())));
        total.longest.clear();
        report.Print(total, gapLimit);
    }
    return kExitOk;
}

} // namespace tavrinlog
