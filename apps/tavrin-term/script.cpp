#include "script.h"

#include <algorithm>

using namespace tavrin;

namespace term {

CReceiveBuffer::CReceiveBuffer(size_t limit) : m_nLimit(limit < 64 ? 64 : limit)
{
}

void CReceiveBuffer::Append(const unsigned char* data, size_t size)
{
    m_Data.insert(m_Data.end(), data, data + size);
    if (m_Data.size() > m_nLimit)
        m_Data.erase(m_Data.begin(), m_Data.begin() + (m_Data.size() - m_nLimit));
}

bool CReceiveBuffer::Consume(const Bytes& pattern)
{
    if (pattern.empty())
        return true;
    const auto found = std::search(m_Data.begin(), m_Data.end(), pattern.begin(), pattern.end());
    if (found == m_Data.end())
        return false;
    m_Data.erase(m_Data.begin(), found + static_cast<std::ptrdiff_t>(pattern.size()));
    return true;
}

bool CSessionStats::RoundTripFigures(__int64& minimum, double& median, __int64& maximum) const
{
    if (m_RoundTrips.empty())
        return false;
    std::vector<__int64> sorted(m_RoundTrips);
    std::sort(sorted.begin(), sorted.end());
    minimum = sorted.front();
    maximum = sorted.back();
    const size_t middle = sorted.size() / 2;
    median = sorted.size() % 2 != 0 ? static_cast<double>(sorted[middle])
                                    : (static_cast<double>(sorted[middle - 1]) + static_cast<double>(sorted[middle])) / 2.0;
    return true;
}

ustring FormatMilliseconds(__int64 milliseconds)
{
    return ustring::i64toa(milliseconds) + L" ms";
}

ustring FormatMilliseconds(double milliseconds)
{
    // Whole milliseconds unless a median falls between two of them.
    const __int64 whole = static_cast<__int64>(milliseconds);
    if (static_cast<double>(whole) == milliseconds)
        return FormatMilliseconds(whole);
    return ustring::fcvt(milliseconds, 1, false) + L" ms";
}

} // namespace term
