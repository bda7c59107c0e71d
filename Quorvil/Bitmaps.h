// Bitmaps.h: a view on 1-bit image memory, with a clip rectangle and a fast OR of one image into another
// Data, on nothing

#ifndef QUORVIL_BITMAPS_H
#define QUORVIL_BITMAPS_H

#include "Quorvil/QuorvilExport.h"

#include <cstddef>
#include <cstdint>

namespace bmp {

/// A view on an image of one bit a pixel in memory of somebody else.
///
/// Row `y` starts at `pixels + y * bytesPerRow`, rows go from top to bottom; pixel `x` lies in the row's byte `x >> 3`.
/// Neither `pixels` nor `bytesPerRow` needs any alignment. Inside a byte there are two orders, and they do not mix:
///
/// | operation         | pixel `x` of its byte | first pixel |
/// |-------------------|-----------------------|-------------|
/// | `insert`          | bit `7 - (x & 7)`     | 0x80        |
/// | `getBit`, `orBit` | bit `x & 7`           | 0x01        |
///
/// The memory stays its owner's and has to outlive the view; it is never freed, moved or cleared here. A copy is a
/// second view of the same memory with a clip rectangle of its own.
///
/// The clip rectangle is never empty and never reaches beyond the image. It bounds what `insert` changes in this
/// bitmap, and nothing else: as a source the bitmap gives all of its image, and single pixels do not look at it.
///
/// Nothing is locked. Threads may read one bitmap together, and may `insert` into disjoint bytes of one image at the
/// same time: a byte without a pixel of the rectangle is neither read nor written. Everything else the callers order.
///
/// Failures are assertions on the caller's contract; there are no exceptions and no results.
class QUORVIL_API Bitmap
{
public:
    /// Makes a view with the whole image as clip rectangle. The memory is not touched.
    ///
    /// @param memory  first byte of the image, from here on `pixels`
    /// @param width   pixels a row, `widthPixels`
    /// @param height  rows, `heightPixels`
    /// @param stride  bytes from the start of one row to the start of the next, `bytesPerRow`
    /// @requires `widthPixels > 0`, `heightPixels > 0`, `bytesPerRow >= ((widthPixels + 7) >> 3)`
    /// @threads any   @realtime bounded
    Bitmap(uint8_t* memory, int width, int height, int stride);

    Bitmap(const Bitmap&) = default;
    Bitmap& operator=(const Bitmap&) = default;

    /// Ends the view. The memory stays with its owner.
    ///
    /// @threads owner   @realtime bounded
    virtual ~Bitmap();

    /// Sets the clip rectangle to the given one, cut down to the image.
    ///
    /// @param x  left edge, may be negative
    /// @param y  upper edge, may be negative
    /// @param w  width; a sum `x + w` beyond the image, and so `INT_MAX`, means up to the right edge
    /// @param h  height, likewise
    /// @requires `x < widthPixels`, `y < heightPixels`, and after the cut `w > 0`, `h > 0`: something has to be left
    /// @threads owner   @realtime bounded
    void clip(int x, int y, int w, int h);

    /// Sets the clip rectangle to the whole image.
    ///
    /// @threads owner   @realtime bounded
    void unclip();

    /// ORs a rectangle of `src` into this bitmap: a pixel that is set in the rectangle is set here, and no other
    /// changes.
    ///
    /// The rectangle is cut to the image of `src` and to the clip rectangle of this bitmap, by the same amount on both
    /// sides. Where nothing is left, be it by a `srcW` or `srcH` of 0 or below, nothing happens.
    ///
    /// Both may be views of the same memory. Where the bytes of a row's source and destination meet, bytes are worked
    /// from left to right and rows from top to bottom, so that pixels already inserted are read again; a copy that must
    /// not do that goes through memory of its own.
    ///
    /// Threads that insert at the same time do it in disjoint bytes.
    ///
    /// @param src   where the pixels come from; its clip rectangle does not count
    /// @param srcX  left edge of the rectangle in `src`, may be negative
    /// @param srcY  upper edge of the rectangle in `src`, may be negative
    /// @param srcW  width; `INT_MAX` means up to the edge
    /// @param srcH  height, likewise
    /// @param dstX  where the left edge comes to lie here, may be negative
    /// @param dstY  where the upper edge comes to lie here, may be negative
    /// @threads any   @realtime bounded
    void insert(const Bitmap& src, int srcX, int srcY, int srcW, int srcH, int dstX, int dstY);

    /// Sets the pixel if `set` is true, else leaves it as it is. The first pixel of a byte is 0x01 here.
    ///
    /// @param x  inside the image, unchecked
    /// @param y  inside the image, unchecked
    /// @threads owner   @realtime bounded
    void orBit(int x, int y, bool set);

    /// Returns the pixel, 0 or 1. The first pixel of a byte is 0x01 here.
    ///
    /// @param x  inside the image, unchecked
    /// @param y  inside the image, unchecked
    /// @threads any   @realtime bounded
    int getBit(int x, int y) const;

private:
    uint8_t* byteAt(int x, int y) const;

    uint8_t* pixels;
    int widthPixels;
    int heightPixels;
    int bytesPerRow;
    int clipX;
    int clipY;
    int clipW;
    int clipH;
};

inline uint8_t* Bitmap::byteAt(int x, int y) const
{
    // The offset of a row may exceed an int.
    return pixels + static_cast<ptrdiff_t>(y) * bytesPerRow + (x >> 3);
}

inline void Bitmap::orBit(int x, int y, bool set)
{
    if (set)
        *byteAt(x, y) |= static_cast<uint8_t>(1u << (x & 7));
}

inline int Bitmap::getBit(int x, int y) const
{
    return (*byteAt(x, y) >> (x & 7)) & 1;
}

} // namespace bmp

#endif
