#include <tavrin/gui/dc.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <utility>

namespace tavrin {

// ------------------------------------------------------------------------------ CCompatibleDC

CCompatibleDC::CCompatibleDC()
    : m_hDC(nullptr), m_hDCCompatible(nullptr), m_nSavedDC(0), m_hOldBitmap(nullptr),
      m_hBitmap(nullptr), m_pBits(nullptr), m_Size{0, 0}
{
}

CCompatibleDC::~CCompatibleDC()
{
    Destroy();
}

bool CCompatibleDC::Create(HDC dc, const SIZE& size)
{
    if (dc == nullptr || size.cx < 1 || size.cy < 1)
        return false;
    if (m_hDC != nullptr && m_hBitmap != nullptr && dc == m_hDCCompatible && size.cx == m_Size.cx &&
        size.cy == m_Size.cy)
        return true;

    Destroy();
    HDC memory = ::CreateCompatibleDC(dc);
    if (memory == nullptr)
        return false;

    BITMAPINFO info = {};
    info.bmiHeader.biSize = sizeof(BITMAPINFOHEADER);
    info.bmiHeader.biWidth = size.cx;
    info.bmiHeader.biHeight = -size.cy; // top-down: row 0 is the first row in memory
    info.bmiHeader.biPlanes = 1;
    info.bmiHeader.biBitCount = 32;
    info.bmiHeader.biCompression = BI_RGB;
    void* bits = nullptr;
    HBITMAP bitmap = ::CreateDIBSection(dc, &info, DIB_RGB_COLORS, &bits, nullptr, 0);
    if (bitmap == nullptr || bits == nullptr)
    {
        if (bitmap != nullptr)
            ::DeleteObject(bitmap);
        ::DeleteDC(memory);
        return false;
    }

    m_hDC = memory;
    m_nSavedDC = ::SaveDC(memory);
    m_hOldBitmap = ::SelectObject(memory, bitmap);
    m_hBitmap = bitmap;
    m_pBits = static_cast<DWORD*>(bits);
    m_hDCCompatible = dc;
    m_Size = size;
    return true;
}

bool CCompatibleDC::ReleaseBitmap()
{
    if (m_hBitmap == nullptr)
        return false;
    if (m_hDC != nullptr && m_hOldBitmap != nullptr)
        ::SelectObject(m_hDC, m_hOldBitmap);
    ::DeleteObject(m_hBitmap);
    m_hOldBitmap = nullptr;
    m_hBitmap = nullptr;
    m_pBits = nullptr;
    m_Size = SIZE{0, 0};
    return true;
}

void CCompatibleDC::Destroy()
{
    ReleaseBitmap();
    if (m_hDC != nullptr)
    {
        if (m_nSavedDC != 0)
            ::RestoreDC(m_hDC, m_nSavedDC);
        ::DeleteDC(m_hDC);
    }
    m_hDC = nullptr;
    m_hDCCompatible = nullptr;
    m_nSavedDC = 0;
}

bool CCompatibleDC::Commit(HDC target, const SIZE& targetSize, const SIZE& sourceSize, int x, int y)
{
    if (target == nullptr || m_hDC == nullptr)
        return false;
    if (targetSize.cx == sourceSize.cx && targetSize.cy == sourceSize.cy)
        return ::BitBlt(target, x, y, targetSize.cx, targetSize.cy, m_hDC, 0, 0, SRCCOPY) != FALSE;
    ::SetStretchBltMode(target, HALFTONE);
    // Halftoning uses the brush origin; it must be reset after the mode changes.
    ::SetBrushOrgEx(target, 0, 0, nullptr);
    return ::StretchBlt(target, x, y, targetSize.cx, targetSize.cy, m_hDC, 0, 0, sourceSize.cx,
                        sourceSize.cy, SRCCOPY) != FALSE;
}

RECT CCompatibleDC::GetBitmapRect() const
{
    return RECT{0, 0, m_Size.cx, m_Size.cy};
}

bool CCompatibleDC::Contains(int x, int y) const
{
    return m_pBits != nullptr && x >= 0 && y >= 0 && x < m_Size.cx && y < m_Size.cy;
}

DWORD CCompatibleDC::ColorToBGR(COLORREF colour)
{
    // Rotating left by 8 bits and reversing the byte order exchanges red and blue.
    return (colour & 0xFF00FF00u) | ((colour & 0xFFu) << 16) | ((colour >> 16) & 0xFFu);
}

COLORREF CCompatibleDC::BGRToColor(DWORD word)
{
    return ColorToBGR(word); // the exchange is its own inverse
}

DWORD CCompatibleDC::GetPixelBGR(int x, int y) const
{
    if (!Contains(x, y))
        return 0;
    return m_pBits[static_cast<std::size_t>(y) * static_cast<std::size_t>(m_Size.cx) + x];
}

COLORREF CCompatibleDC::GetPixel(int x, int y) const
{
    return BGRToColor(GetPixelBGR(x, y));
}

void CCompatibleDC::SetPixelBGR(int x, int y, DWORD word, BYTE alpha)
{
    if (alpha == 0 || !Contains(x, y))
        return;
    DWORD& pixel = m_pBits[static_cast<std::size_t>(y) * static_cast<std::size_t>(m_Size.cx) + x];
    pixel = alpha == 255 ? word : CDCEx::MixColors(word, pixel, alpha);
}

void CCompatibleDC::SetPixel(int x, int y, COLORREF colour, BYTE alpha)
{
    SetPixelBGR(x, y, ColorToBGR(colour), alpha);
}

bool CCompatibleDC::ResampleDown(unsigned int factor)
{
    if (m_pBits == nullptr || factor == 0)
        return false;
    if (factor == 1)
        return true;
    const std::size_t width = static_cast<std::size_t>(m_Size.cx);
    const std::size_t blocksX = width / factor;
    const std::size_t blocksY = static_cast<std::size_t>(m_Size.cy) / factor;
    const std::uint64_t area = static_cast<std::uint64_t>(factor) * factor;
    // Row-major order is safe in place: pixel (bx, by) lies in a block that has already been
    // read, never in one still to come.
    for (std::size_t by = 0; by < blocksY; ++by)
        for (std::size_t bx = 0; bx < blocksX; ++bx)
        {
            std::uint64_t sum[3] = {0, 0, 0};
            for (std::size_t y = by * factor; y < (by + 1) * factor; ++y)
            {
                const DWORD* line = m_pBits + y * width;
                for (std::size_t x = bx * factor; x < (bx + 1) * factor; ++x)
                {
                    sum[0] += line[x] & 0xFF;
                    sum[1] += (line[x] >> 8) & 0xFF;
                    sum[2] += (line[x] >> 16) & 0xFF;
                }
            }
            m_pBits[by * width + bx] = static_cast<DWORD>(sum[0] / area) |
                                       static_cast<DWORD>(sum[1] / area) << 8 |
                                       static_cast<DWORD>(sum[2] / area) << 16;
        }
    return true;
}

// ---------------------------------------------------------------------------------------- CDCEx

namespace {

// Converts a blend fraction in [0, 1] to a weight, truncating; out-of-range values saturate.
BYTE Weight(double fraction)
{
    const double w = fraction * 255.0;
    if (!(w > 0.0))
        return 0;
    if (w >= 255.0)
        return 255;
    return static_cast<BYTE>(w);
}

// An inclusive range of integers; empty when lo > hi.
struct CRange
{
    long long lo;
    long long hi;
    bool Contains(long long v) const { return lo <= v && v <= hi; }
};

// The distances d >= 0 for which centre - d or centre + d is a valid coordinate in [0, size).
CRange Reach(long long centre, long long size)
{
    if (size <= 0)
        return CRange{1, 0};
    if (centre < 0)
        return CRange{-centre, size - 1 - centre};
    if (centre >= size)
        return CRange{centre - (size - 1), centre};
    return CRange{0, std::max(centre, size - 1 - centre)};
}

// Clamps a double to the closed range [lo, hi] of integers before conversion, so that huge
// coordinates never overflow an integer; NaN gives an empty result through `ok`.
bool ClampToRange(double value, long long lo, long long hi, long long& out)
{
    if (!(value == value))
        return false;
    if (value < static_cast<double>(lo))
        out = lo;
    else if (value > static_cast<double>(hi))
        out = hi;
    else
        out = static_cast<long long>(value);
    return true;
}

// Calls fn(v) for every v in [lo, hi] that lies in either of two ranges, each value once.
template <class Fn>
void ForEachIn(CRange a, CRange b, long long lo, long long hi, Fn fn)
{
    if (a.lo > a.hi)
        std::swap(a, b);
    if (a.lo > a.hi)
        return;
    if (b.lo <= b.hi)
    {
        if (b.lo < a.lo)
            std::swap(a, b);
        if (b.lo <= a.hi + 1) // overlapping or adjacent: one range
        {
            a.hi = std::max(a.hi, b.hi);
            b = CRange{1, 0};
        }
    }
    for (const CRange& r : {a, b})
    {
        const long long first = std::max(r.lo, lo);
        const long long last = std::min(r.hi, hi);
        for (long long v = first; v <= last; ++v)
            fn(v);
    }
}

} // namespace

CDCEx::CDCEx(CCompatibleDC& target) : m_DC(target)
{
}

DWORD CDCEx::MixColors(DWORD a, DWORD b, BYTE weight)
{
    if (weight == 0)
        return b & 0x00FFFFFFu;
    if (weight == 255)
        return a & 0x00FFFFFFu;
    DWORD result = 0;
    for (unsigned int shift = 0; shift < 24; shift += 8)
    {
        const DWORD ca = (a >> shift) & 0xFF;
        const DWORD cb = (b >> shift) & 0xFF;
        const DWORD mixed = weight == 128 ? (ca + cb) >> 1 : (ca * weight + cb * (255u - weight)) / 255u;
        result |= mixed << shift;
    }
    return result;
}

void CDCEx::SetRun(bool horizontal, double centre, int line, DWORD word, double width)
{
    const SIZE size = m_DC.GetBitmapSize();
    const long long extent = horizontal ? size.cx : size.cy;
    const long long across = horizontal ? size.cy : size.cx;
    if (line < 0 || line >= across)
        return; // every pixel of the run would lie outside the bitmap
    auto at = [&](long long p) -> std::pair<int, int> {
        return horizontal ? std::make_pair(static_cast<int>(p), line)
                          : std::make_pair(line, static_cast<int>(p));
    };
    auto put = [&](long long p, DWORD value) {
        if (p >= 0 && p < extent)
            m_DC.SetPixelBGR(at(p).first, at(p).second, value, 255);
    };
    auto get = [&](long long p) -> DWORD {
        return (p >= 0 && p < extent) ? m_DC.GetPixelBGR(at(p).first, at(p).second) : 0;
    };

    // Single precision, as the callers' coordinates are.
    const float h = static_cast<float>(width) / 2.0f;
    const float low = static_cast<float>(centre) - h;
    const float high = static_cast<float>(centre) + h;
    if (!std::isfinite(low) || !std::isfinite(high))
        return;

    long long first = 0, last = -1;
    ClampToRange(std::ceil(low), -1, extent, first);
    ClampToRange(std::floor(high), -1, extent, last);
    for (long long p = std::max(first, 0LL); p <= std::min(last, extent - 1); ++p)
        put(p, word);

    // The partly covered end pixels. Both are read before either is written, so a run narrower
    // than a pixel blends both ends against the original background.
    const float left = std::floor(low);
    const float right = std::ceil(high);
    long long l = 0, r = 0;
    ClampToRange(left, -1, extent, l);
    ClampToRange(right, -1, extent, r);
    const DWORD oldLeft = get(l);
    const DWORD oldRight = get(r);
    put(l, MixColors(word, oldLeft, Weight(right - high)));
    put(r, MixColors(word, oldRight, Weight(low - left)));
}

void CDCEx::SetHPixel(float x, int y, COLORREF colour, float width)
{
    SetRun(true, x, y, CCompatibleDC::ColorToBGR(colour), width);
}

void CDCEx::SetVPixel(int x, float y, COLORREF colour, float width)
{
    SetRun(false, y, x, CCompatibleDC::ColorToBGR(colour), width);
}

void CDCEx::DrawSmoothLine(POINT from, POINT to, COLORREF colour, float width)
{
    const SIZE size = m_DC.GetBitmapSize();
    // A run on a row (column) outside the bitmap draws nothing, so the walk is limited to the
    // bitmap; this keeps absurd coordinates from turning into endless loops.
    auto walk = [](long long a, long long b, long long limit, auto fn) {
        if (a > b)
            std::swap(a, b);
        for (long long v = std::max(a, 0LL); v <= std::min(b, limit - 1); ++v)
            fn(static_cast<int>(v));
    };

    if (from.x == to.x)
    {
        walk(from.y, to.y, size.cy, [&](int y) { SetHPixel(static_cast<float>(from.x), y, colour, width); });
        return;
    }
    if (from.y == to.y)
    {
        walk(from.x, to.x, size.cx, [&](int x) { SetVPixel(x, static_cast<float>(from.y), colour, width); });
        return;
    }

    const long long dx = static_cast<long long>(from.x) - to.x;
    const long long dy = static_cast<long long>(from.y) - to.y;
    const float m = static_cast<float>(dy) / static_cast<float>(dx);
    const float b = static_cast<float>(from.y) - static_cast<float>(from.x) * m;
    if (std::llabs(dx) < std::llabs(dy))
        walk(from.y, to.y, size.cy,
             [&](int y) { SetHPixel((static_cast<float>(y) - b) / m, y, colour, width); });
    else
        walk(from.x, to.x, size.cx,
             [&](int x) { SetVPixel(x, static_cast<float>(x) * m + b, colour, width); });
}

void CDCEx::DrawDisc(POINT centre, double outer, double inner, DWORD word, BYTE alpha)
{
    const SIZE size = m_DC.GetBitmapSize();
    if (alpha == 0 || size.cx < 1 || size.cy < 1 || !std::isfinite(outer) || outer < 0.0)
        return;
    const long long cx = centre.x;
    const long long cy = centre.y;

    // Writes the pixel at octant offset (i, j), j >= i, in each of the eight octants. Offsets on
    // an axis or on a diagonal stand for fewer distinct pixels, and each is written once.
    // `weight` 255 writes the colour; a smaller one blends it with the pixel first, as an edge.
    auto plot8 = [&](long long i, long long j, BYTE weight) {
        auto one = [&](long long x, long long y) {
            if (x < 0 || y < 0 || x >= size.cx || y >= size.cy)
                return;
            const int px = static_cast<int>(x), py = static_cast<int>(y);
            const DWORD value = weight == 255 ? word : MixColors(word, m_DC.GetPixelBGR(px, py), weight);
            m_DC.SetPixelBGR(px, py, value, alpha);
        };
        one(cx + i, cy - j);
        if (i != 0 || j != 0)
        {
            one(cx - i, cy + j);
            one(cx + j, cy + i);
            one(cx - j, cy - i);
        }
        if (i != 0 && j > i)
        {
            one(cx + i, cy + j);
            one(cx - i, cy - j);
            one(cx + j, cy - i);
            one(cx - j, cy + i);
        }
    };

    // Offsets that can reach the bitmap at all, horizontally and vertically. A pixel (i, j) of
    // the octant is visible only as (cx +- i, cy +- j) or (cx +- j, cy +- i).
    const CRange reachX = Reach(cx, size.cx);
    const CRange reachY = Reach(cy, size.cy);
    const long long reachMax = std::max(reachX.hi, reachY.hi);
    const CRange none{1, 0};

    const double outer2 = outer * outer;
    const double inner2 = inner > 0.0 ? inner * inner : 0.0;
    long long lastLine = 0;
    ClampToRange(std::floor(std::sqrt(outer2 / 2.0)), 0, reachMax, lastLine);

    // Along octant line i, a disc of extent h there covers the pixels j <= floor(h) fully and
    // pixel ceil(h) by the fraction of h. The ring takes the outer disc's coverage minus the inner
    // disc's, so each rim is blended where that disc's own rim would be and every line receives
    // exactly (outer extent - inner extent) worth of colour.
    ForEachIn(reachX, reachY, 0, lastLine, [&](long long i) {
        const double di = static_cast<double>(i);
        const double ho = std::sqrt(outer2 - di * di);
        long long first = i; // first fully covered pixel of the line
        if (inner2 > di * di)
        {
            const double hi = std::sqrt(inner2 - di * di);
            if (hi >= di)
            {
                ClampToRange(std::floor(hi) + 1.0, i, reachMax + 1, first);
                if (hi != std::floor(hi))
                {
                    // The first pixel beyond the inner disc is partly covered by it, and when it
                    // is also the outer rim's pixel it gets what lies between the two rims.
                    if (std::ceil(hi) > static_cast<double>(reachMax))
                        return;
                    const bool alsoOuterRim = std::ceil(hi) > std::floor(ho);
                    plot8(i, first, Weight(alsoOuterRim ? ho - hi : std::ceil(hi) - hi));
                    if (alsoOuterRim)
                        return;
                    ++first;
                }
            }
        }
        long long last = 0;
        ClampToRange(std::floor(ho), -1, reachMax, last);
        ForEachIn(reachX.Contains(i) ? reachY : none, reachY.Contains(i) ? reachX : none, first, last,
                  [&](long long j) { plot8(i, j, 255); });
        if (ho != std::floor(ho) && std::ceil(ho) <= static_cast<double>(reachMax))
            plot8(i, static_cast<long long>(std::ceil(ho)), Weight(ho - std::floor(ho)));
    });
}

void CDCEx::DrawSmoothFilledCircle(POINT centre, float radius, COLORREF colour, BYTE alpha)
{
    DrawDisc(centre, std::fabs(static_cast<double>(radius)), 0.0, CCompatibleDC::ColorToBGR(colour), alpha);
}

void CDCEx::DrawSmoothCircle(POINT centre, float radius, COLORREF colour, float width, BYTE alpha)
{
    if (!(width > 0.0f))
        return;
    const double r = std::fabs(static_cast<double>(radius));
    const double half = static_cast<double>(width) / 2.0;
    DrawDisc(centre, r + half, r - half, CCompatibleDC::ColorToBGR(colour), alpha);
}

} // namespace tavrin
