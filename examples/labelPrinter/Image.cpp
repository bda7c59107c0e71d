#include "Image.h"

#include <algorithm>

namespace labelPrinter {

namespace {

/// Calls `change(byte, mask)` for each byte of a row that holds pixels of the span, with the span's bits in `mask`.
template <typename Change>
void forSpan(uint8_t* row, int x, int count, Change change)
{
    const int end = x + count;
    for (int at = x; at < end;) {
        const int next = std::min((at | 7) + 1, end);
        change(row[at >> 3], static_cast<uint8_t>((0xFF >> (at & 7)) & (0xFF00 >> (((next - 1) & 7) + 1))));
        at = next;
    }
}

} // namespace

Rect intersection(const Rect& a, const Rect& b)
{
    const int x = std::max(a.x, b.x);
    const int y = std::max(a.y, b.y);
    return {x, y, std::min(a.x + a.width, b.x + b.width) - x, std::min(a.y + a.height, b.y + b.height) - y};
}

Image::Image(int width, int height)
    : imageWidth(width)
    , imageHeight(height)
    , pixels(static_cast<size_t>(bytesPerRow()) * static_cast<size_t>(height))
{
}

void Image::clear()
{
    std::fill(pixels.begin(), pixels.end(), uint8_t{0});
}

void Image::blacken(int x, int y, int count)
{
    forSpan(row(y), x, count, [](uint8_t& byte, uint8_t mask) { byte = static_cast<uint8_t>(byte | mask); });
}

void Image::invert(const Rect& area)
{
    const Rect inside = intersection(area, {0, 0, imageWidth, imageHeight});
    for (int y = inside.y; y < inside.y + inside.height; ++y)
        forSpan(row(y), inside.x, inside.width,
                [](uint8_t& byte, uint8_t mask) { byte = static_cast<uint8_t>(byte ^ mask); });
}

uint8_t* Image::row(int y)
{
    return pixels.data() + static_cast<size_t>(y) * static_cast<size_t>(bytesPerRow());
}

const uint8_t* Image::row(int y) const
{
    return pixels.data() + static_cast<size_t>(y) * static_cast<size_t>(bytesPerRow());
}

bmp::Bitmap Image::bitmap()
{
    return bmp::Bitmap(pixels.data(), imageWidth, imageHeight, bytesPerRow());
}

int Image::width() const
{
    return imageWidth;
}

int Image::height() const
{
    return imageHeight;
}

int Image::bytesPerRow() const
{
    return (imageWidth + 7) >> 3;
}

const std::vector<uint8_t>& Image::bytes() const
{
    return pixels;
}

} // namespace labelPrinter
