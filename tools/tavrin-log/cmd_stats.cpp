// tavrin-log stats: per file (and in total for several), the records and bytes each way, how
// they completed, the first and last time, the pauses between records, write errors and damage.
#include "tool.h"

#include <algorithm>
#include <array>

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

// The counters of a file, and of all files.
enum ECounter
{
    kRecords,
    kText,
    kSent,
    kReceived,
    kBytesSent,
    kBytesReceived,
    kAsyncSent,
    kAsyncReceived,
    kWriteErrors,
    kDamaged,
    kGaps,
    kBackwards,
    kCounters
};

struct Stats
{
    std::array<unsigned __int64, kCounters> n = {};
    bool bHasTime = false;
    SYSTEMTIME first = {}, last = {};
    std::vector<Gap> longest;
    std::vector<unsigned __int64> damagedLines, errorLines;

    void Add(const LogRecord& record, unsigned __int64 gapLimit, bool& hasPrevious, unsigned __int64& previous)
    {
        ++n[kRecords];
        switch (record.nKind)
        {
        case LogRecord::eText:
            ++n[kText];
            break;
        case LogRecord::eWrite:
        case LogRecord::eRead:
        {
            const bool sent = record.nKind == LogRecord::eWrite;
            ++n[sent ? kSent : kReceived];
            n[sent ? kBytesSent : kBytesReceived] += record.data.size();
            n[sent ? kAsyncSent : kAsyncReceived] += record.bSynchronous ? 0 : 1;
            break;
        }
        case LogRecord::eWriteError:
            ++n[kWriteErrors];
            if (errorLines.size() < kListedLines)
                errorLines.push_back(record.nLine);
            break;
        default:
            ++n[kDamaged];
            if (damagedLines.size() < kListedLines)
                damagedLines.push_back(record.nLine);
            break;
        }
        if (!record.bHasTime)
            return;
        FILETIME ticks;
        ::SystemTimeToFileTime(&record.time, &ticks);
        const unsigned __int64 now = tavrin::CSystemTime::FT2ULL(ticks) / 10000;
        Span(record.time, record.time);
        if (hasPrevious)
        {
            if (now < previous)
                ++n[kBackwards];
            else if (now - previous > gapLimit)
            {
                ++n[kGaps];
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

    // Widens the time span to hold [from, to].
    void Span(const SYSTEMTIME& from, const SYSTEMTIME& to)
    {
        if (!bHasTime || tavrin::CSystemTime(from) < tavrin::CSystemTime(first))
            first = from;
        if (!bHasTime || tavrin::CSystemTime(to) > tavrin::CSystemTime(last))
            last = to;
        bHasTime = true;
    }

    void Merge(const Stats& other)
    {
        for (std::size_t i = 0; i < n.size(); ++i)
            n[i] += other.n[i];
        if (other.bHasTime)
            Span(other.first, other.last);
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
        Line(L"records", Number(s.n[kRecords]) + L": " + Number(s.n[kSent]) + L" sent, " + Number(s.n[kReceived]) +
                             L" received, " + Number(s.n[kText]) + L" text events");
        Line(L"bytes", Number(s.n[kBytesSent]) + L" sent, " + Number(s.n[kBytesReceived]) + L" received");
        Line(L"async", Number(s.n[kAsyncSent]) + L" sent and " + Number(s.n[kAsyncReceived]) +
                           L" received completed asynchronously");
        if (s.bHasTime)
            Line(L"time", FormatTime(s.first) + L" to " + FormatTime(s.last) + L" (" +
                              tavrin::CSystemTimeSpan(tavrin::CSystemTime(s.last), tavrin::CSystemTime(s.first))
                                  .FormatConsole(true) +
                              L")");
        else
            Line(L"time", L"none");
        ustring gaps = Number(s.n[kGaps]) + L" over " + Number(gapLimit) + L" ms";
        for (std::size_t i = 0; i < s.longest.size(); ++i)
            gaps += (i == 0 ? L"; longest " : L", ") + Number(s.longest[i].nMilliseconds) + L" ms before line " +
                    Number(s.longest[i].nLine) + L" (" + FormatTime(s.longest[i].at) + L")";
        if (s.n[kBackwards] != 0)
            gaps += L"; time went back " + Number(s.n[kBackwards]) + L" times";
        Line(L"gaps", gaps);
        if (s.n[kWriteErrors] == 0 && s.n[kDamaged] == 0)
            Line(L"errors", L"none");
        else
        {
            ustring errors = Number(s.n[kWriteErrors]) + L" write errors";
            if (!s.errorLines.empty())
                errors += L" (line " + Lines(s.errorLines, s.n[kWriteErrors]) + L")";
            errors += L", " + Number(s.n[kDamaged]) + L" damaged records";
            if (!s.damagedLines.empty())
                errors += L" (line " + Lines(s.damagedLines, s.n[kDamaged]) + L")";
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
