#include "view.h"

#include <tavrin/log/logfile.h>

#include <algorithm>

using namespace tavrin;

namespace term {

CTrafficView::CTrafficView(CTermOutput& output)
    : m_Output(output), m_eView(Options::ViewText), m_eDirection(MarkReceived)
{
}

void CTrafficView::SetView(Options::EView view)
{
    Flush();
    m_eView = view;
}

void CTrafficView::Render(Options::EView view, const Bytes& data, ustring& text, std::vector<ustring>& dump)
{
    text.clear();
    dump.clear();
    if (view != Options::ViewHex)
        text = BytesToDisplay(data);
    if (view == Options::ViewText)
        return;
    // The data log file's own dump, 16 bytes a line, so that screen and log read alike.
    const ustring lines = CLogFile::Bin2Text(data, 16);
    ustring::split(lines, L"\r\n", dump);
    for (ustring& line : dump)
        line.trim_left(L' ');
}

void CTrafficView::Emit(size_t count)
{
    const Bytes line(m_Pending.begin(), m_Pending.begin() + static_cast<std::ptrdiff_t>(count));
    m_Pending.erase(m_Pending.begin(), m_Pending.begin() + static_cast<std::ptrdiff_t>(count));
    ustring text;
    std::vector<ustring> dump;
    Render(m_eView, line, text, dump);
    m_Output.Traffic(m_eDirection, m_Time, text, dump);
    // The rest of the chunk arrived together with this line.
}

void CTrafficView::Add(EMark direction, const unsigned char* data, size_t size)
{
    if (size == 0)
        return;
    if (!m_Pending.empty() && direction != m_eDirection)
        Flush();
    if (m_Pending.empty())
        m_Time = CSystemTime::GetLocalTime();
    m_eDirection = direction;
    m_Pending.insert(m_Pending.end(), data, data + size);
    m_SinceLastByte.Reset();
    for (;;)
    {
        const auto lf = std::find(m_Pending.begin(), m_Pending.end(), static_cast<unsigned char>(0x0A));
        size_t count = lf == m_Pending.end() ? 0 : static_cast<size_t>(lf - m_Pending.begin()) + 1;
        if (count == 0 && m_Pending.size() >= kMaxLine)
            count = kMaxLine;
        if (count == 0)
            break;
        Emit(std::min(count, kMaxLine));
    }
}

void CTrafficView::Tick()
{
    if (!m_Pending.empty() && m_SinceLastByte.GetElapsedTime().GetTimeSpan() >= kIdleMs)
        Flush();
}

void CTrafficView::Flush()
{
    while (!m_Pending.empty())
        Emit(std::min(m_Pending.size(), kMaxLine));
}

} // namespace term
