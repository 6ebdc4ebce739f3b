// CConsoleProgress: throttled percentage lines.
#include <tavrin/log/console.h>

#include <limits>

namespace tavrin {

namespace {

const unsigned int kNothingPrinted = 0xFFFFFFFFu;

// done/total in per mille, exact and overflow-free; complete when total is 0 or done passed it.
unsigned int Permille(unsigned long long done, unsigned long long total)
{
    if (total == 0 || done >= total)
        return 1000;
    const unsigned long long limit = std::numeric_limits<unsigned long long>::max() / 1000;
    if (done <= limit)
        return static_cast<unsigned int>(done * 1000 / total);
    // total > done > limit, so total / 1000 > 0; the rounded divisor may reach 1000 early.
    const unsigned long long permille = done / (total / 1000);
    return permille < 999 ? static_cast<unsigned int>(permille) : 999u;
}

} // namespace

CConsoleProgress::CConsoleProgress(CConsole& console, CConsoleBase::ESeverity severity, bool consoleOnly,
                                   unsigned long minIntervalMs, unsigned int minStepPermille)
    : m_Console(console),
      m_eSeverity(severity),
      m_bConsoleOnly(consoleOnly),
      m_nMinIntervalMs(minIntervalMs),
      m_nMinStepPermille(minStepPermille),
      m_nLastPermille(kNothingPrinted)
{
}

CConsoleProgress::~CConsoleProgress() = default;

bool CConsoleProgress::UpdateProgress(unsigned long long done, unsigned long long total)
{
    const unsigned int permille = Permille(done, total);
    if (m_nLastPermille != kNothingPrinted)
    {
        if (permille == m_nLastPermille)
            return false;
        // Completion always shows; anything else waits for a large enough step and enough time.
        if (permille != 1000)
        {
            const unsigned int step = permille > m_nLastPermille ? permille - m_nLastPermille : m_nLastPermille - permille;
            if (step < m_nMinStepPermille)
                return false;
            if (m_StopWatch.GetElapsedTime().GetTimeSpan() < static_cast<__int64>(m_nMinIntervalMs))
                return false;
        }
    }

    const wchar_t* prefix = CConsoleBase::GetSeverityPrefix(m_eSeverity);
    if (m_nMinStepPermille < 10)
        m_Console.PrintF(m_eSeverity, m_bConsoleOnly, L"%ls%u.%01u%%\r\n", prefix, permille / 10, permille % 10);
    else
        m_Console.PrintF(m_eSeverity, m_bConsoleOnly, L"%ls%u%%\r\n", prefix, permille / 10);
    m_nLastPermille = permille;
    m_StopWatch.Reset(CStopWatch::ResetToNow);
    return true;
}

void CConsoleProgress::Reset()
{
    m_nLastPermille = kNothingPrinted;
    m_StopWatch.Reset(CStopWatch::ResetToNow);
}

} // namespace tavrin
