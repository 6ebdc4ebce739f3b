// Off-screen drawing with anti-aliasing.
//
// CCompatibleDC is a 32-bit top-down DIB section selected into a memory device context. Callers
// draw into its pixel memory directly and copy the result, optionally stretched, to a window:
//
//     CCompatibleDC canvas;
//     if (canvas.Create(windowDC, SIZE{400, 300})) {
//         CDCEx pen(canvas);
//         pen.DrawSmoothLine(POINT{10, 10}, POINT{390, 200}, RGB(0, 0, 160), 1.5f);
//         pen.DrawSmoothFilledCircle(POINT{200, 150}, 40.5f, RGB(200, 0, 0), 255);
//         canvas.Commit(windowDC, SIZE{400, 300}, SIZE{400, 300}, 0, 0);
//     }
//
// Pixel words hold 0x00RRGGBB (blue in the lowest byte, the order a 32-bit DIB stores); the
// members named ...BGR take and return such words, the others take COLORREF values (0x00BBGGRR).
// Pixel (x, y) is word y * width + x, row 0 at the top. Pixels outside the bitmap are ignored on
// writing and read as 0.
#pragma once

#include <tavrin/core/config.h>

namespace tavrin {

class TAVRIN_API CCompatibleDC
{
public:
    CCompatibleDC();
    ~CCompatibleDC();
    CCompatibleDC(const CCompatibleDC&) = delete;
    CCompatibleDC& operator=(const CCompatibleDC&) = delete;

    // Creates a width x height bitmap compatible with `dc`. False for a null dc, a size below
    // 1 x 1 (a previous bitmap is then kept) or a failing graphics call (the object is then
    // empty). Repeating the call with the same dc and size keeps the existing bitmap.
    bool Create(HDC dc, const SIZE& size);
    // Releases the context and the bitmap; the object is empty afterwards.
    void Destroy();

    operator HDC() const { return m_hDC; }

    // Copies the bitmap to `target` at (x, y): unchanged when both sizes are equal, otherwise
    // stretched with halftoning from (0, 0, sourceSize) to targetSize. False when either context
    // is missing or the copy fails.
    bool Commit(HDC target, const SIZE& targetSize, const SIZE& sourceSize, int x = 0, int y = 0);

    HBITMAP GetBitmap() const { return m_hBitmap; }
    RECT GetBitmapRect() const;
    SIZE GetBitmapSize() const { return m_Size; }
    // Deletes the bitmap but keeps the memory context (with its original bitmap selected back),
    // so the context can be given a new bitmap by Create. False when no bitmap is held.
    bool ReleaseBitmap();

    // The pixel as a COLORREF; 0 outside the bitmap.
    COLORREF GetPixel(int x, int y) const;
    // The raw pixel word; 0 outside the bitmap.
    DWORD GetPixelBGR(int x, int y) const;
    // Blends `colour` over the pixel with weight `alpha` (255 replaces it, 0 leaves it).
    void SetPixel(int x, int y, COLORREF colour, BYTE alpha = 255);
    void SetPixelBGR(int x, int y, DWORD word, BYTE alpha = 255);

    // Shrinks the picture by `factor` in place: each factor x factor block whose top-left corner
    // is (bx * factor, by * factor) is averaged into pixel (bx, by); pixels beyond the shrunk
    // area keep their contents. False without a bitmap or for factor 0.
    bool ResampleDown(unsigned int factor);

    // COLORREF 0x00BBGGRR <-> pixel word 0x00RRGGBB.
    static DWORD ColorToBGR(COLORREF colour);
    static COLORREF BGRToColor(DWORD word);

private:
    bool Contains(int x, int y) const;

    HDC m_hDC;
    HDC m_hDCCompatible;
    int m_nSavedDC;
    HGDIOBJ m_hOldBitmap;
    HBITMAP m_hBitmap;
    DWORD* m_pBits;
    SIZE m_Size;
};

// Anti-aliased lines and circles drawn into a CCompatibleDC. Intensity is split between
// neighbouring pixels and colours are blended in integer arithmetic.
class TAVRIN_API CDCEx
{
public:
    explicit CDCEx(CCompatibleDC& target);
    CDCEx(const CDCEx&) = delete;
    CDCEx& operator=(const CDCEx&) = delete;

    // Per colour byte: (a * weight + b * (255 - weight)) / 255, truncating; weight 0 gives b,
    // 255 gives a and 128 the exact midpoint. The top byte of the result is 0.
    static DWORD MixColors(DWORD a, DWORD b, BYTE weight);

    // A horizontal run of `width` pixels centred at x on row y; the two partly covered end
    // pixels are blended with the background.
    void SetHPixel(float x, int y, COLORREF colour, float width);
    // The same vertically in column x.
    void SetVPixel(int x, float y, COLORREF colour, float width);
    void DrawSmoothLine(POINT from, POINT to, COLORREF colour, float width);
    // A disc of |radius| around `centre`, its rim blended; every pixel is written once with
    // weight `alpha`.
    void DrawSmoothFilledCircle(POINT centre, float radius, COLORREF colour, BYTE alpha = 255);
    // A ring of `width` centred on the circle of |radius|, blended at its outer and inner rim;
    // nothing for a width that is not positive.
    void DrawSmoothCircle(POINT centre, float radius, COLORREF colour, float width,
                          BYTE alpha = 255);

private:
    // The disc between `inner` and `outer` (inner <= 0: the full disc), one octant at a time.
    void DrawDisc(POINT centre, double outer, double inner, DWORD word, BYTE alpha);
    // One run across `line` (a row for a horizontal run) covering [centre - h, centre + h].
    void SetRun(bool horizontal, double centre, int line, DWORD word, double width);

    CCompatibleDC& m_DC;
};

} // namespace tavrin
