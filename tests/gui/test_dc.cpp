// Off-screen DIB drawing: bitmap life cycle, pixel layout as GDI sees it, integer blending,
// anti-aliased runs, lines, discs and rings, down-sampling and copying to another context.
// One picture of lines and circles is written as dc_picture.bmp beside the test executable.
#include <tavrin/gui/dc.h>

#include "tavrin_test.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

using namespace tavrin;

namespace {

// A memory context standing in for a window's context.
class CReferenceDC
{
public:
    CReferenceDC() : m_hDC(::CreateCompatibleDC(nullptr)) {}
    ~CReferenceDC() { ::DeleteDC(m_hDC); }
    CReferenceDC(const CReferenceDC&) = delete;
    CReferenceDC& operator=(const CReferenceDC&) = delete;
    operator HDC() const { return m_hDC; }

private:
    HDC m_hDC;
};

void Fill(CCompatibleDC& dc, DWORD word)
{
    const SIZE size = dc.GetBitmapSize();
    for (int y = 0; y < size.cy; ++y)
        for (int x = 0; x < size.cx; ++x)
            dc.SetPixelBGR(x, y, word, 255);
}

std::vector<DWORD> Snapshot(const CCompatibleDC& dc)
{
    const SIZE size = dc.GetBitmapSize();
    std::vector<DWORD> words;
    for (int y = 0; y < size.cy; ++y)
        for (int x = 0; x < size.cx; ++x)
            words.push_back(dc.GetPixelBGR(x, y));
    return words;
}

int Channel(DWORD word, int index)
{
    return static_cast<int>((word >> (8 * index)) & 0xFF);
}

// Largest per-channel difference between two pictures of the same size.
int MaxDifference(const std::vector<DWORD>& a, const std::vector<DWORD>& b)
{
    int worst = 0;
    for (std::size_t i = 0; i < a.size(); ++i)
        for (int c = 0; c < 3; ++c)
            worst = std::max(worst, std::abs(Channel(a[i], c) - Channel(b[i], c)));
    return worst;
}

DWORD Grey(int level)
{
    return static_cast<DWORD>(level) * 0x010101u;
}

const COLORREF kWhite = RGB(255, 255, 255);

class DC : public ::testing::Test
{
protected:
    void SetUp() override { TAVRIN_SKIP_WITHOUT_32BIT_GDI(); }
};

} // namespace

TEST_F(DC, CreateReuseDestroy)
{
    CReferenceDC screen;
    CCompatibleDC dc;
    EXPECT_EQ(static_cast<HDC>(dc), nullptr);
    EXPECT_EQ(dc.GetBitmapSize().cx, 0);
    EXPECT_FALSE(dc.Create(nullptr, SIZE{10, 10}));
    EXPECT_FALSE(dc.ResampleDown(2));
    EXPECT_EQ(dc.GetPixel(0, 0), 0u);

    ASSERT_TRUE(dc.Create(screen, SIZE{16, 8}));
    EXPECT_NE(static_cast<HDC>(dc), nullptr);
    const HBITMAP first = dc.GetBitmap();
    ASSERT_NE(first, nullptr);
    const RECT rect = dc.GetBitmapRect();
    EXPECT_EQ(rect.left, 0);
    EXPECT_EQ(rect.top, 0);
    EXPECT_EQ(rect.right, 16);
    EXPECT_EQ(rect.bottom, 8);
    dc.SetPixel(15, 7, RGB(1, 2, 3));

    // The same context and size keep the bitmap and its contents.
    EXPECT_TRUE(dc.Create(screen, SIZE{16, 8}));
    EXPECT_EQ(dc.GetBitmap(), first);
    EXPECT_EQ(dc.GetPixel(15, 7), RGB(1, 2, 3));

    // A zero width is refused and the previous bitmap stays.
    EXPECT_FALSE(dc.Create(screen, SIZE{0, 8}));
    EXPECT_FALSE(dc.Create(screen, SIZE{16, -1}));
    EXPECT_EQ(dc.GetBitmap(), first);
    EXPECT_EQ(dc.GetPixel(15, 7), RGB(1, 2, 3));

    // A new size gives a new bitmap.
    ASSERT_TRUE(dc.Create(screen, SIZE{4, 4}));
    EXPECT_EQ(dc.GetBitmapSize().cx, 4);
    EXPECT_EQ(dc.GetBitmapSize().cy, 4);
    EXPECT_EQ(dc.GetPixel(15, 7), 0u);

    EXPECT_TRUE(dc.ReleaseBitmap());
    EXPECT_EQ(dc.GetBitmap(), nullptr);
    EXPECT_FALSE(dc.ReleaseBitmap());
    EXPECT_EQ(dc.GetPixel(0, 0), 0u);
    dc.SetPixel(0, 0, kWhite); // no bitmap: ignored
    ASSERT_TRUE(dc.Create(screen, SIZE{4, 4}));

    dc.Destroy();
    EXPECT_EQ(static_cast<HDC>(dc), nullptr);
    EXPECT_EQ(dc.GetBitmap(), nullptr);
    EXPECT_EQ(dc.GetBitmapSize().cx, 0);
    dc.Destroy(); // harmless twice
}

TEST_F(DC, PixelLayoutAsGdiSeesIt)
{
    CReferenceDC screen;
    CCompatibleDC dc;
    ASSERT_TRUE(dc.Create(screen, SIZE{8, 4}));

    // Our write, GDI's read: COLORREF order outside, blue in the low byte inside, row 0 on top.
    dc.SetPixel(3, 1, RGB(10, 20, 30));
    EXPECT_EQ(dc.GetPixelBGR(3, 1), 0x000A141Eu);
    EXPECT_EQ(dc.GetPixel(3, 1), RGB(10, 20, 30));
    ::GdiFlush();
    EXPECT_EQ(::GetPixel(dc, 3, 1), RGB(10, 20, 30));
    EXPECT_EQ(::GetPixel(dc, 3, 2), RGB(0, 0, 0));

    // GDI's write, our read.
    ::SetPixel(dc, 6, 3, RGB(1, 2, 3));
    ::GdiFlush();
    EXPECT_EQ(dc.GetPixel(6, 3), RGB(1, 2, 3));
    EXPECT_EQ(dc.GetPixelBGR(6, 3), 0x00010203u);

    EXPECT_EQ(CCompatibleDC::ColorToBGR(RGB(0x11, 0x22, 0x33)), 0x00112233u);
    EXPECT_EQ(CCompatibleDC::BGRToColor(0x00112233u), RGB(0x11, 0x22, 0x33));
}

TEST_F(DC, SetPixelAlphaAndBounds)
{
    CReferenceDC screen;
    CCompatibleDC dc;
    ASSERT_TRUE(dc.Create(screen, SIZE{5, 5}));
    Fill(dc, Grey(100));
    const std::vector<DWORD> before = Snapshot(dc);

    for (const POINT p : {POINT{-1, 0}, POINT{0, -1}, POINT{5, 0}, POINT{0, 5}, POINT{-100000, 100000}})
    {
        dc.SetPixel(p.x, p.y, kWhite, 255);
        dc.SetPixelBGR(p.x, p.y, 0xFFFFFF, 255);
        EXPECT_EQ(dc.GetPixel(p.x, p.y), 0u);
        EXPECT_EQ(dc.GetPixelBGR(p.x, p.y), 0u);
    }
    dc.SetPixel(2, 2, kWhite, 0);
    EXPECT_EQ(Snapshot(dc), before);

    dc.SetPixel(1, 1, RGB(200, 0, 0), 255);
    EXPECT_EQ(dc.GetPixel(1, 1), RGB(200, 0, 0));
    dc.SetPixelBGR(2, 1, 0x00FFFFFF, 128); // the midpoint of 255 and 100
    EXPECT_EQ(dc.GetPixelBGR(2, 1), Grey(177));
    dc.SetPixel(3, 1, RGB(0, 0, 255), 51); // blue over grey 100: (255*51 + 100*204) / 255
    EXPECT_EQ(dc.GetPixel(3, 1), RGB(80, 80, 131));
}

TEST_F(DC, MixColors)
{
    EXPECT_EQ(CDCEx::MixColors(0x00FFFFFF, 0, 128), 0x007F7F7Fu);
    EXPECT_EQ(CDCEx::MixColors(0x00FFFFFF, 0, 127), 0x007F7F7Fu);
    EXPECT_EQ(CDCEx::MixColors(0x00FFFFFF, 0, 129), 0x00818181u);
    EXPECT_EQ(CDCEx::MixColors(0x00123456, 0x00ABCDEF, 0), 0x00ABCDEFu);
    EXPECT_EQ(CDCEx::MixColors(0x00123456, 0x00ABCDEF, 255), 0x00123456u);
    EXPECT_EQ(CDCEx::MixColors(0xFF123456, 0xFFABCDEF, 255), 0x00123456u); // top byte cleared
    EXPECT_EQ(CDCEx::MixColors(0xFF000000, 0xFF000000, 10), 0u);
    // Channels are blended separately: (10*64 + 250*191)/255 = 189, (200*64 + 0)/255 = 50.
    EXPECT_EQ(CDCEx::MixColors(0x000A00C8, 0x00FA0000, 64), 0x00BD0032u);
    // Midpoint rounds down per channel.
    EXPECT_EQ(CDCEx::MixColors(0x00010203, 0x00000000, 128), 0x00000101u);
    for (int w = 0; w < 256; ++w)
    {
        const DWORD mixed = CDCEx::MixColors(0x00FFFFFF, 0, static_cast<BYTE>(w));
        ASSERT_EQ(mixed, Grey(w == 128 ? 127 : w)) << w;
    }
}

TEST_F(DC, HorizontalAndVerticalRuns)
{
    CReferenceDC screen;
    CCompatibleDC dc;
    ASSERT_TRUE(dc.Create(screen, SIZE{12, 12}));
    CDCEx pen(dc);

    // Centre 5.5, width 2: columns 5 and 6 full, 4 and 7 half covered.
    pen.SetHPixel(5.5f, 2, kWhite, 2.0f);
    EXPECT_EQ(dc.GetPixelBGR(3, 2), 0u);
    EXPECT_EQ(dc.GetPixelBGR(4, 2), Grey(127));
    EXPECT_EQ(dc.GetPixelBGR(5, 2), Grey(255));
    EXPECT_EQ(dc.GetPixelBGR(6, 2), Grey(255));
    EXPECT_EQ(dc.GetPixelBGR(7, 2), Grey(127));
    EXPECT_EQ(dc.GetPixelBGR(8, 2), 0u);
    EXPECT_EQ(dc.GetPixelBGR(5, 1), 0u);
    EXPECT_EQ(dc.GetPixelBGR(5, 3), 0u);

    // Centre 5.25, width 1: column 5 full; the left end pixel takes (6 - 5.75) * 255, the right
    // one (4.75 - 4) * 255.
    pen.SetHPixel(5.25f, 4, kWhite, 1.0f);
    EXPECT_EQ(dc.GetPixelBGR(4, 4), Grey(63));
    EXPECT_EQ(dc.GetPixelBGR(5, 4), Grey(255));
    EXPECT_EQ(dc.GetPixelBGR(6, 4), Grey(191));

    // Integer ends coincide with full pixels and stay full; nothing spills beyond them.
    pen.SetHPixel(5.0f, 6, kWhite, 2.0f);
    EXPECT_EQ(dc.GetPixelBGR(3, 6), 0u);
    EXPECT_EQ(dc.GetPixelBGR(4, 6), Grey(255));
    EXPECT_EQ(dc.GetPixelBGR(5, 6), Grey(255));
    EXPECT_EQ(dc.GetPixelBGR(6, 6), Grey(255));
    EXPECT_EQ(dc.GetPixelBGR(7, 6), 0u);

    // The vertical run is the same in a column.
    pen.SetVPixel(10, 5.5f, RGB(0, 0, 255), 2.0f);
    EXPECT_EQ(dc.GetPixel(10, 4), RGB(0, 0, 127));
    EXPECT_EQ(dc.GetPixel(10, 5), RGB(0, 0, 255));
    EXPECT_EQ(dc.GetPixel(10, 6), RGB(0, 0, 255));
    EXPECT_EQ(dc.GetPixel(10, 7), RGB(0, 0, 127));
    EXPECT_EQ(dc.GetPixel(9, 5), 0u);
    EXPECT_EQ(dc.GetPixel(11, 5), 0u);

    // Runs that leave the bitmap are clipped, absurd ones ignored.
    const std::vector<DWORD> before = Snapshot(dc);
    pen.SetHPixel(-50.0f, 0, kWhite, 3.0f);
    pen.SetHPixel(5.0f, -1, kWhite, 3.0f);
    pen.SetHPixel(5.0f, 12, kWhite, 3.0f);
    pen.SetVPixel(-1, 5.0f, kWhite, 3.0f);
    pen.SetHPixel(std::nanf(""), 0, kWhite, 3.0f);
    pen.SetHPixel(0.0f, 0, kWhite, INFINITY);
    EXPECT_EQ(Snapshot(dc), before);
    pen.SetHPixel(0.0f, 11, kWhite, 1e30f); // the whole row
    for (int x = 0; x < 12; ++x)
        EXPECT_EQ(dc.GetPixelBGR(x, 11), Grey(255)) << x;
}

TEST_F(DC, Lines)
{
    CReferenceDC screen;
    CCompatibleDC a, b;
    ASSERT_TRUE(a.Create(screen, SIZE{40, 40}));
    ASSERT_TRUE(b.Create(screen, SIZE{40, 40}));
    CDCEx penA(a), penB(b);

    // Two equal points draw one horizontal run.
    penA.DrawSmoothLine(POINT{7, 9}, POINT{7, 9}, kWhite, 2.5f);
    penB.SetHPixel(7.0f, 9, kWhite, 2.5f);
    EXPECT_EQ(Snapshot(a), Snapshot(b));
    EXPECT_EQ(a.GetPixelBGR(7, 9), Grey(255));

    // The direction of a line does not matter. Axis-parallel lines come out identical; for the
    // others the intercept is taken at the first point, which may move a run's end by a rounding
    // step. With a whole-pixel width the end weights are continuous in the run's position, so such
    // a step changes a weight by at most one.
    for (const auto& ends : {std::make_pair(POINT{3, 2}, POINT{3, 30}), std::make_pair(POINT{1, 5}, POINT{35, 5}),
                             std::make_pair(POINT{2, 3}, POINT{30, 20}), std::make_pair(POINT{2, 3}, POINT{15, 37})})
    {
        Fill(a, 0);
        Fill(b, 0);
        penA.DrawSmoothLine(ends.first, ends.second, kWhite, 2.0f);
        penB.DrawSmoothLine(ends.second, ends.first, kWhite, 2.0f);
        if (ends.first.x == ends.second.x || ends.first.y == ends.second.y)
            EXPECT_EQ(Snapshot(a), Snapshot(b));
        else
            EXPECT_LE(MaxDifference(Snapshot(a), Snapshot(b)), 1);
    }

    // A vertical line covers the rows from end to end and no more.
    Fill(a, 0);
    penA.DrawSmoothLine(POINT{10, 30}, POINT{10, 5}, kWhite, 1.0f);
    EXPECT_EQ(a.GetPixelBGR(10, 4), 0u);
    EXPECT_EQ(a.GetPixelBGR(10, 31), 0u);
    for (int y = 5; y <= 30; ++y)
        ASSERT_EQ(a.GetPixelBGR(10, y), Grey(255)) << y;

    // A 45-degree line of width 1 puts full colour on the diagonal.
    Fill(a, 0);
    penA.DrawSmoothLine(POINT{0, 0}, POINT{39, 39}, kWhite, 1.0f);
    for (int i = 0; i < 40; ++i)
        ASSERT_EQ(a.GetPixelBGR(i, i), Grey(255)) << i;
    EXPECT_EQ(a.GetPixelBGR(30, 5), 0u);

    // Mirroring a line at the diagonal mirrors the picture (within one step of rounding): the
    // steep and the shallow branch agree.
    Fill(a, 0);
    Fill(b, 0);
    penA.DrawSmoothLine(POINT{2, 5}, POINT{37, 21}, kWhite, 2.0f);
    penB.DrawSmoothLine(POINT{5, 2}, POINT{21, 37}, kWhite, 2.0f);
    std::vector<DWORD> mirrored(40 * 40);
    for (int y = 0; y < 40; ++y)
        for (int x = 0; x < 40; ++x)
            mirrored[static_cast<std::size_t>(y) * 40 + x] = b.GetPixelBGR(y, x);
    EXPECT_LE(MaxDifference(Snapshot(a), mirrored), 2);

    // Each column of a shallow line of width 2 holds three pixels' worth of colour: the full
    // pixels between the run's ends and the two blended ends, whose weights add up to one pixel
    // (less what truncation drops).
    for (int x = 4; x <= 35; ++x)
    {
        int sum = 0;
        for (int y = 0; y < 40; ++y)
            sum += Channel(a.GetPixelBGR(x, y), 0);
        ASSERT_GE(sum, 3 * 255 - 2) << x;
        ASSERT_LE(sum, 3 * 255) << x;
    }

    // Coordinates far outside are walked only where they can touch the bitmap.
    Fill(a, 0);
    penA.DrawSmoothLine(POINT{-2000000000, -2000000000}, POINT{2000000000, 2000000000}, kWhite, 1.0f);
    EXPECT_EQ(a.GetPixelBGR(20, 20), Grey(255));
    penA.DrawSmoothLine(POINT{-2000000000, 7}, POINT{2000000000, 7}, kWhite, 1.0f);
    EXPECT_EQ(a.GetPixelBGR(33, 7), Grey(255));
    penA.DrawSmoothLine(POINT{-2000000000, 100}, POINT{2000000000, -100}, kWhite, 1.0f);
}

TEST_F(DC, FilledCircle)
{
    CReferenceDC screen;
    CCompatibleDC dc;
    ASSERT_TRUE(dc.Create(screen, SIZE{41, 41}));
    CDCEx pen(dc);
    const int c = 20;

    for (const float r : {0.0f, 0.5f, 3.0f, 7.3f, 12.5f, 17.9f})
    {
        Fill(dc, 0);
        pen.DrawSmoothFilledCircle(POINT{c, c}, r, kWhite, 255);
        const double k = std::floor(std::sqrt(r * r / 2.0));
        for (int dy = -c; dy <= c; ++dy)
            for (int dx = -c; dx <= c; ++dx)
            {
                const DWORD p = dc.GetPixelBGR(c + dx, c + dy);
                const double d2 = static_cast<double>(dx) * dx + static_cast<double>(dy) * dy;
                // Inside the circle (and not in the corner beyond the last octant line): full.
                if (d2 <= static_cast<double>(r) * r && std::min(std::abs(dx), std::abs(dy)) <= k)
                {
                    ASSERT_EQ(p, Grey(255)) << "r " << r << " at " << dx << "," << dy;
                }
                // More than a pixel outside: untouched.
                if (std::sqrt(d2) > r + 1.5)
                {
                    ASSERT_EQ(p, 0u) << "r " << r << " at " << dx << "," << dy;
                }
                // The picture has the eight symmetries of the square.
                ASSERT_EQ(p, dc.GetPixelBGR(c - dx, c + dy));
                ASSERT_EQ(p, dc.GetPixelBGR(c + dx, c - dy));
                ASSERT_EQ(p, dc.GetPixelBGR(c + dy, c + dx));
            }
    }

    // The rim pixel on an axis takes the fractional part: r 12.5 gives weight 127 at distance 13.
    Fill(dc, 0);
    pen.DrawSmoothFilledCircle(POINT{c, c}, 12.5f, kWhite, 255);
    EXPECT_EQ(dc.GetPixelBGR(c, c - 13), Grey(127));
    EXPECT_EQ(dc.GetPixelBGR(c + 13, c), Grey(127));
    EXPECT_EQ(dc.GetPixelBGR(c, c - 12), Grey(255));
    EXPECT_EQ(dc.GetPixelBGR(c, c - 14), 0u);

    // No pixel is written twice: with alpha 128 over black a second write would exceed 127.
    for (const float r : {1.0f, 2.5f, 6.0f, 9.7f, 15.2f, 19.99f})
    {
        Fill(dc, 0);
        pen.DrawSmoothFilledCircle(POINT{c, c}, r, kWhite, 128);
        int full = 0;
        for (const DWORD p : Snapshot(dc))
        {
            ASSERT_LE(Channel(p, 0), 127) << "r " << r;
            full += p == Grey(127);
        }
        EXPECT_GE(full, static_cast<int>(3.0 * r * r)) << "r " << r; // about pi r^2 pixels
    }

    // A negative radius draws the same disc; alpha 0 draws nothing.
    Fill(dc, 0);
    pen.DrawSmoothFilledCircle(POINT{c, c}, 8.4f, kWhite, 255);
    const std::vector<DWORD> positive = Snapshot(dc);
    Fill(dc, 0);
    pen.DrawSmoothFilledCircle(POINT{c, c}, -8.4f, kWhite, 255);
    EXPECT_EQ(Snapshot(dc), positive);
    Fill(dc, 0);
    pen.DrawSmoothFilledCircle(POINT{c, c}, 8.4f, kWhite, 0);
    EXPECT_EQ(Snapshot(dc), std::vector<DWORD>(41 * 41, 0));

    // Clipped and enormous circles finish and cover what they should.
    pen.DrawSmoothFilledCircle(POINT{0, 0}, 10.0f, kWhite, 255);
    EXPECT_EQ(dc.GetPixelBGR(5, 5), Grey(255));
    pen.DrawSmoothFilledCircle(POINT{-1000000000, 20}, 1000000010.0f, RGB(0, 0, 255), 255);
    pen.DrawSmoothFilledCircle(POINT{20, 20}, 3e38f, RGB(255, 0, 0), 255);
    for (const DWORD p : Snapshot(dc))
        ASSERT_EQ(p, 0x00FF0000u);
    pen.DrawSmoothFilledCircle(POINT{20, 20}, INFINITY, kWhite, 255);
    pen.DrawSmoothFilledCircle(POINT{20, 20}, std::nanf(""), kWhite, 255);
    EXPECT_EQ(dc.GetPixelBGR(20, 20), 0x00FF0000u);
}

TEST_F(DC, Ring)
{
    CReferenceDC screen;
    CCompatibleDC dc;
    ASSERT_TRUE(dc.Create(screen, SIZE{61, 61}));
    CDCEx pen(dc);
    const int c = 30;

    for (const float width : {1.0f, 2.0f, 3.5f, 0.4f})
    {
        const float r = 20.3f;
        Fill(dc, 0);
        pen.DrawSmoothCircle(POINT{c, c}, r, kWhite, width, 128);
        for (int dy = -c; dy <= c; ++dy)
            for (int dx = -c; dx <= c; ++dx)
            {
                const DWORD p = dc.GetPixelBGR(c + dx, c + dy);
                const double d = std::sqrt(static_cast<double>(dx) * dx + static_cast<double>(dy) * dy);
                ASSERT_LE(Channel(p, 0), 127) << "written twice at " << dx << "," << dy;
                if (d < r - width / 2 - 1.5 || d > r + width / 2 + 1.5)
                {
                    ASSERT_EQ(p, 0u) << "width " << width << " at " << dx << "," << dy;
                }
                ASSERT_EQ(p, dc.GetPixelBGR(c - dx, c + dy));
                ASSERT_EQ(p, dc.GetPixelBGR(c + dy, c + dx));
            }
        // The ring carries its area's worth of colour (alpha 128 halves each pixel).
        double sum = 0;
        for (const DWORD p : Snapshot(dc))
            sum += Channel(p, 0);
        const double area = 2 * 3.141592653589793 * r * width;
        EXPECT_GT(sum, 0.85 * area * 127.5) << "width " << width;
        EXPECT_LT(sum, 1.15 * area * 127.5) << "width " << width;
    }

    // Both rims are blended the way a disc's rim is: on the axis at r 10.5, width 2, the outer
    // disc (11.5) covers 0..11 and half of 12, the inner one (9.5) 0..9 and half of 10.
    Fill(dc, 0);
    pen.DrawSmoothCircle(POINT{c, c}, 10.5f, kWhite, 2.0f, 255);
    EXPECT_EQ(dc.GetPixelBGR(c + 9, c), 0u);
    EXPECT_EQ(dc.GetPixelBGR(c + 10, c), Grey(127));
    EXPECT_EQ(dc.GetPixelBGR(c + 11, c), Grey(255));
    EXPECT_EQ(dc.GetPixelBGR(c + 12, c), Grey(127));
    EXPECT_EQ(dc.GetPixelBGR(c + 13, c), 0u);
    EXPECT_EQ(dc.GetPixelBGR(c, c + 10), Grey(127));
    EXPECT_EQ(dc.GetPixelBGR(c, c), 0u);
    // A ring thinner than a pixel puts what lies between its rims into one pixel: 20.1 to 20.5.
    Fill(dc, 0);
    pen.DrawSmoothCircle(POINT{c, c}, 20.3f, kWhite, 0.4f, 255);
    EXPECT_NEAR(Channel(dc.GetPixelBGR(c - 21, c), 0), 0.4 * 255, 1.0);
    EXPECT_EQ(dc.GetPixelBGR(c - 20, c), 0u);
    EXPECT_EQ(dc.GetPixelBGR(c - 22, c), 0u);

    // A ring wider than its diameter is a disc; no width draws nothing.
    Fill(dc, 0);
    pen.DrawSmoothCircle(POINT{c, c}, 4.0f, kWhite, 10.0f, 255);
    const std::vector<DWORD> ring = Snapshot(dc);
    Fill(dc, 0);
    pen.DrawSmoothFilledCircle(POINT{c, c}, 9.0f, kWhite, 255);
    EXPECT_EQ(ring, Snapshot(dc));
    Fill(dc, 0);
    pen.DrawSmoothCircle(POINT{c, c}, 4.0f, kWhite, 0.0f, 255);
    pen.DrawSmoothCircle(POINT{c, c}, 4.0f, kWhite, -3.0f, 255);
    pen.DrawSmoothCircle(POINT{c, c}, 4.0f, kWhite, std::nanf(""), 255);
    EXPECT_EQ(Snapshot(dc), std::vector<DWORD>(61 * 61, 0));
}

TEST_F(DC, ResampleDown)
{
    CReferenceDC screen;
    CCompatibleDC dc;
    ASSERT_TRUE(dc.Create(screen, SIZE{3, 3}));
    EXPECT_FALSE(dc.ResampleDown(0));
    for (int y = 0; y < 3; ++y)
        for (int x = 0; x < 3; ++x)
            dc.SetPixelBGR(x, y, static_cast<DWORD>(0x00010000 * (x + 3 * y) + 0x100 * (10 * y) + x), 255);
    const std::vector<DWORD> before = Snapshot(dc);
    EXPECT_TRUE(dc.ResampleDown(1));
    EXPECT_EQ(Snapshot(dc), before);

    // Only the top-left 2 x 2 block exists; it averages into (0, 0), channel by channel,
    // truncating: red (0+1+3+4)/4 = 2, green (0+0+10+10)/4 = 5, blue (0+1+0+1)/4 = 0.
    EXPECT_TRUE(dc.ResampleDown(2));
    std::vector<DWORD> expected = before;
    expected[0] = 0x00020500u;
    EXPECT_EQ(Snapshot(dc), expected);
    EXPECT_TRUE(dc.ResampleDown(4)); // no whole block: nothing changes
    EXPECT_EQ(Snapshot(dc), expected);

    // A 4 x 2 picture of two uniform blocks shrinks to those two colours.
    ASSERT_TRUE(dc.Create(screen, SIZE{4, 2}));
    for (int y = 0; y < 2; ++y)
        for (int x = 0; x < 4; ++x)
            dc.SetPixel(x, y, x < 2 ? RGB(255, 0, 0) : RGB(0, 0, 200));
    dc.SetPixel(1, 1, RGB(251, 8, 0));
    EXPECT_TRUE(dc.ResampleDown(2));
    EXPECT_EQ(dc.GetPixel(0, 0), RGB(254, 2, 0));
    EXPECT_EQ(dc.GetPixel(1, 0), RGB(0, 0, 200));
    EXPECT_EQ(dc.GetPixel(1, 1), RGB(251, 8, 0)); // outside the shrunk area: unchanged
}

TEST_F(DC, Commit)
{
    CReferenceDC screen;
    CCompatibleDC source, target;
    ASSERT_TRUE(source.Create(screen, SIZE{8, 8}));
    ASSERT_TRUE(target.Create(screen, SIZE{20, 20}));
    for (int y = 0; y < 8; ++y)
        for (int x = 0; x < 8; ++x)
            source.SetPixel(x, y, x < 4 ? RGB(200, 10, 10) : RGB(10, 10, 200));

    EXPECT_FALSE(source.Commit(nullptr, SIZE{8, 8}, SIZE{8, 8}, 0, 0));
    CCompatibleDC empty;
    EXPECT_FALSE(empty.Commit(target, SIZE{8, 8}, SIZE{8, 8}, 0, 0));

    // Equal sizes copy one to one at the offset.
    ASSERT_TRUE(source.Commit(target, SIZE{8, 8}, SIZE{8, 8}, 2, 3));
    ::GdiFlush();
    EXPECT_EQ(target.GetPixel(2, 3), RGB(200, 10, 10));
    EXPECT_EQ(target.GetPixel(9, 10), RGB(10, 10, 200));
    EXPECT_EQ(target.GetPixel(1, 3), 0u);
    EXPECT_EQ(target.GetPixel(10, 3), 0u);

    // Different sizes stretch: the left half of a 16 x 16 copy is red, the right half blue.
    Fill(target, 0);
    ASSERT_TRUE(source.Commit(target, SIZE{16, 16}, SIZE{8, 8}, 0, 0));
    ::GdiFlush();
    EXPECT_EQ(target.GetPixel(2, 8), RGB(200, 10, 10));
    EXPECT_EQ(target.GetPixel(13, 8), RGB(10, 10, 200));
    EXPECT_EQ(target.GetPixel(17, 8), 0u);
}

TEST_F(DC, PictureFile)
{
    // Drawn at twice the size and shrunk, as the applications do for smoother edges.
    const int width = 480, height = 320;
    CReferenceDC screen;
    CCompatibleDC dc;
    ASSERT_TRUE(dc.Create(screen, SIZE{2 * width, 2 * height}));
    Fill(dc, 0x00FFFFFF);
    CDCEx pen(dc);
    for (int i = 0; i < 12; ++i)
    {
        const double angle = i * 3.141592653589793 / 12;
        const POINT centre{2 * 120, 2 * 160};
        const POINT end{centre.x + static_cast<LONG>(2 * 110 * std::cos(angle)),
                        centre.y - static_cast<LONG>(2 * 110 * std::sin(angle))};
        pen.DrawSmoothLine(centre, end, RGB(20 * i, 40, 200 - 15 * i), 1.0f + i * 0.5f);
    }
    pen.DrawSmoothLine(POINT{2 * 10, 2 * 300}, POINT{2 * 470, 2 * 300}, RGB(0, 0, 0), 2.0f);
    pen.DrawSmoothLine(POINT{2 * 250, 2 * 20}, POINT{2 * 250, 2 * 280}, RGB(0, 0, 0), 3.0f);
    pen.DrawSmoothFilledCircle(POINT{2 * 340, 2 * 100}, 2 * 60.5f, RGB(220, 40, 40), 255);
    pen.DrawSmoothFilledCircle(POINT{2 * 390, 2 * 140}, 2 * 45.3f, RGB(40, 160, 60), 160);
    pen.DrawSmoothCircle(POINT{2 * 360, 2 * 230}, 2 * 50.0f, RGB(30, 30, 160), 2 * 4.0f, 255);
    pen.DrawSmoothCircle(POINT{2 * 360, 2 * 230}, 2 * 30.0f, RGB(160, 30, 160), 2.0f, 200);
    pen.DrawSmoothCircle(POINT{2 * 120, 2 * 160}, 2 * 112.0f, RGB(0, 0, 0), 1.5f, 255);
    ASSERT_TRUE(dc.ResampleDown(2));

    // The shrunk picture is the top-left quarter of the bitmap.
    std::vector<DWORD> pixels;
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            pixels.push_back(dc.GetPixelBGR(x, y));
    EXPECT_EQ(pixels[static_cast<std::size_t>(100) * width + 340], CCompatibleDC::ColorToBGR(RGB(220, 40, 40)));
    EXPECT_EQ(pixels[5], 0x00FFFFFFu);

    BITMAPINFOHEADER info = {};
    info.biSize = sizeof info;
    info.biWidth = width;
    info.biHeight = -height;
    info.biPlanes = 1;
    info.biBitCount = 32;
    info.biCompression = BI_RGB;
    info.biSizeImage = static_cast<DWORD>(pixels.size() * 4);
    BITMAPFILEHEADER file = {};
    file.bfType = 0x4D42; // "BM"
    file.bfOffBits = sizeof file + sizeof info;
    file.bfSize = file.bfOffBits + info.biSizeImage;

    std::wstring folder;
    if (const wchar_t* bin = _wgetenv(L"TAVRIN_TEST_BIN"))
        folder = bin;
    if (folder.empty())
    {
        wchar_t exe[MAX_PATH] = {};
        ::GetModuleFileNameW(nullptr, exe, MAX_PATH);
        folder = exe;
        folder.erase(folder.find_last_of(L"\\/") + 1);
    }
    if (folder.back() != L'\\' && folder.back() != L'/')
        folder += L'\\';
    const std::wstring path = folder + L"dc_picture.bmp";
    FILE* out = _wfopen(path.c_str(), L"wb");
    ASSERT_NE(out, nullptr) << "cannot write the picture";
    std::fwrite(&file, sizeof file, 1, out);
    std::fwrite(&info, sizeof info, 1, out);
    std::fwrite(pixels.data(), 4, pixels.size(), out);
    std::fclose(out);

    WIN32_FILE_ATTRIBUTE_DATA attributes = {};
    ASSERT_TRUE(::GetFileAttributesExW(path.c_str(), GetFileExInfoStandard, &attributes));
    EXPECT_EQ(attributes.nFileSizeLow, file.bfSize);
}
