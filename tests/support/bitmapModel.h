// bitmapModel.h: what `insert` has to do, pixel by pixel

#ifndef QUORVIL_TESTS_BITMAPMODEL_H
#define QUORVIL_TESTS_BITMAPMODEL_H

#include <algorithm>
#include <cstddef>
#include <cstdint>

namespace model {

struct Image
{
    uint8_t* pixels;
    int width;
    int height;
    int bytesPerRow;
    int64_t clipX = 0, clipY = 0, clipEndX = width, clipEndY = height;

    uint8_t& byte(int64_t x, int64_t y) const
    {
        return pixels[static_cast<ptrdiff_t>(y) * bytesPerRow + static_cast<ptrdiff_t>(x >> 3)];
    }

    /// Sets the clip rectangle, and returns false where nothing would be left of it.
    bool clip(int64_t x, int64_t y, int64_t w, int64_t h)
    {
        clipX = std::max<int64_t>(x, 0);
        clipY = std::max<int64_t>(y, 0);
        clipEndX = std::min<int64_t>(x + w, width);
        clipEndY = std::min<int64_t>(y + h, height);
        return clipX < clipEndX && clipY < clipEndY;
    }

    /// ORs in the rectangle of an image in other memory: each pixel looks for the one that comes to lie on it.
    void insert(const Image& src, int64_t srcX, int64_t srcY, int64_t srcW, int64_t srcH, int64_t dstX, int64_t dstY)
    {
        for (int64_t y = clipY; y < clipEndY; ++y)
            for (int64_t x = clipX; x < clipEndX; ++x) {
                const int64_t fromX = x - dstX + srcX;
                const int64_t fromY = y - dstY + srcY;
                const bool inside = fromX >= std::max<int64_t>(srcX, 0) && fromY >= std::max<int64_t>(srcY, 0) &&
                                    fromX < std::min<int64_t>(srcX + srcW, src.width) &&
                                    fromY < std::min<int64_t>(srcY + srcH, src.height);
                if (inside && (src.byte(fromX, fromY) << (fromX & 7) & 0x80) != 0)
                    byte(x, y) = static_cast<uint8_t>(byte(x, y) | 0x80 >> (x & 7));
            }
    }

    /// ORs in the upper left of an image in memory that may be this one's, from pixel `srcX` of each row to `dstX`:
    /// rows from top to bottom, bytes from left to right. A byte takes its pixels from one source byte after the other,
    /// and is written before the next is read; only the last byte, if the span does not fill it, is written once.
    void insertInOrder(const Image& src, int srcX, int count, int rows, int dstX)
    {
        for (int y = 0; y < rows; ++y)
            for (int from = srcX, to = dstX, end = dstX + count; to < end;) {
                const bool writeOnce = to >> 3 != dstX >> 3 && to >> 3 == end >> 3;
                unsigned held = 0;
                const int byteEnd = std::min((to | 7) + 1, end);
                uint8_t& target = byte(to, y);
                do {
                    const int partEnd = std::min(to + 8 - (from & 7), byteEnd);
                    for (const uint8_t source = src.byte(from, y); to < partEnd; ++to, ++from)
                        held |= static_cast<unsigned>(source << (from & 7) & 0x80) >> (to & 7);
                    if (!writeOnce || to == byteEnd)
                        target = static_cast<uint8_t>(target | held);
                } while (to < byteEnd);
            }
    }
};

} // namespace model

#endif
