// Image.h: a picture in black and white, with the memory that a Bitmap only looks at

#ifndef LABELPRINTER_IMAGE_H
#define LABELPRINTER_IMAGE_H

#include "Quorvil/Bitmaps.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace labelPrinter {

/// The longest side of a picture or page: 33 inches at 600 dots an inch. A whole page of it takes 50 MB.
constexpr int longestSide = 20000;

/// A rectangle in pixels; it is empty where a side is 0 or less.
struct Rect
{
    int x, y, width, height;
};

/// What two rectangles have in common.
Rect intersection(const Rect& a, const Rect& b);

/// Pixels in rows of whole bytes. The first pixel of a byte is its highest bit, and 1 is black: the order of
/// `bmp::Bitmap::insert` and of PBM, while `getBit` and `orBit` count from the other end and are of no use here.
/// Bits behind the last pixel of a row are 0, so that equal pictures have equal bytes.
class Image
{
public:
    /// A white picture.
    ///
    /// @param width   1 to `longestSide`
    /// @param height  1 to `longestSide`
    Image(int width, int height);

    /// Makes all pixels white.
    void clear();

    /// Makes `count` pixels from (x, y) to the right black. They lie inside the picture.
    void blacken(int x, int y, int count);

    /// Turns black into white and white into black. What of `area` lies outside the picture counts as not there.
    void invert(const Rect& area);

    /// The row's first byte; `bytesPerRow()` bytes belong to it.
    uint8_t* row(int y);
    const uint8_t* row(int y) const;

    /// A view for drawing on the picture or out of it. It must not outlive the picture.
    bmp::Bitmap bitmap();

    int width() const;
    int height() const;
    int bytesPerRow() const;
    const std::vector<uint8_t>& bytes() const;

private:
    int imageWidth;
    int imageHeight;
    std::vector<uint8_t> pixels;
};

} // namespace labelPrinter

#endif
