// Bitmaps: `insert` of the library and in its portable form, beside a model that goes pixel by pixel. Memory ends
// behind the images, so that the address sanitizer sees every byte beside them.

#include "fuzz/input.h"
#include "tests/support/portableBitmaps.h"

#include <algorithm>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

struct Rectangle
{
    int x, y, w, h;
};

struct Image
{
    int width, height, bytesPerRow;
    int place; ///< of its first byte in the memory

    uint8_t& byte(Bytes& memory, int64_t x, int64_t y) const
    {
        return memory[static_cast<size_t>(place + y * bytesPerRow + (x >> 3))];
    }

    size_t end() const
    {
        return static_cast<size_t>(place + (height - 1) * bytesPerRow + (width + 7) / 8);
    }
};

Image makeImage(fuzz::Input& data)
{
    Image image{data.inRange(1, data.inRange(0, 1) == 0 ? 80 : 900), data.inRange(1, 5), 0, 0};
    image.width += data.inRange(0, 1) * (-image.width & 7);
    image.bytesPerRow = (image.width + 7) / 8 + data.inRange(0, 1) * data.inRange(0, 3);
    image.place = data.inRange(0, 2) * image.bytesPerRow + data.inRange(0, 8);
    return image;
}

/// Mostly the usual number, sometimes one that has to do with the size, or one that has not.
int number(fuzz::Input& data, int size, int usual)
{
    const int kind = data.inRange(0, 15);
    if (kind < 2)
        return kind == 0 ? INT32_MAX : data.inRange(INT32_MIN, INT32_MAX);
    return kind == 2 ? data.inRange(-size, size) : usual;
}

/// ORs what is left of the rectangle `from` in both images and in `clip` into `target`, which may be the same memory:
/// rows from top to bottom, bytes from left to right. A byte takes its pixels from one source byte after the other, and
/// is written before the next is read; only the last byte, if the span does not fill it, is written once.
void insert(Bytes& target, const Image& to, const Rectangle& clip, Bytes& source, const Image& src,
            const Rectangle& from, int64_t toX, int64_t toY)
{
    const int64_t left = std::max({int64_t{0}, int64_t{clip.x}, toX, toX - from.x});
    const int64_t right =
        std::min({int64_t{to.width}, int64_t{clip.x} + clip.w, toX + from.w, toX - from.x + src.width});
    const int64_t bottom =
        std::min({int64_t{to.height}, int64_t{clip.y} + clip.h, toY + from.h, toY - from.y + src.height});
    for (int64_t y = std::max({int64_t{0}, int64_t{clip.y}, toY, toY - from.y}); y < bottom; ++y)
        for (int64_t x = left; x < right;) {
            const bool writeOnce = x >> 3 != left >> 3 && x >> 3 == right >> 3;
            const int64_t byteEnd = std::min((x | 7) + 1, right);
            uint8_t& written = to.byte(target, x, y);
            unsigned held = 0;
            while (x < byteEnd) {
                int64_t fromX = x - toX + from.x;
                const int64_t partEnd = std::min(x + 8 - (fromX & 7), byteEnd);
                for (const uint8_t read = src.byte(source, fromX, y - toY + from.y); x < partEnd; ++x, ++fromX)
                    held |= static_cast<unsigned>(read << (fromX & 7) & 0x80) >> (x & 7);
                if (!writeOnce || x == byteEnd)
                    written = static_cast<uint8_t>(written | held);
            }
        }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size)
{
    fuzz::Input data{bytes, size};
    const bool shared = data.inRange(0, 3) == 0;
    const Image src = makeImage(data);
    Image to = makeImage(data);
    if (data.inRange(0, 1) == 0)
        to = {src.width, src.height, src.bytesPerRow, to.place % 9 * data.inRange(0, 1) + to.height * src.bytesPerRow};
    const int fromX = number(data, src.width, data.inRange(0, 1) * data.inRange(0, 7));
    const int fromY = number(data, src.height, 0);
    const int width = data.inRange(0, 2) == 0 ? src.width : data.inRange(1, data.inRange(0, 1) == 0 ? 12 : 900);
    const Rectangle from{fromX, fromY, number(data, src.width, width), number(data, src.height, src.height)};
    const int toX = number(data, to.width, data.inRange(0, 1) == 0 ? from.x : data.inRange(0, 7));
    const int toY = number(data, to.height, 0);
    const int clipX = data.inRange(0, 1) * data.inRange(-9, to.width - 1);
    const int clipY = data.inRange(0, 1) * data.inRange(-2, to.height - 1);
    const int clipW = data.inRange(0, 1) == 0 ? INT32_MAX : data.inRange(std::max(1, 1 - clipX), 900);
    const int clipH = data.inRange(0, 1) == 0 ? INT32_MAX : data.inRange(std::max(1, 1 - clipY), 900);
    const Rectangle clip{clipX, clipY, clipW, clipH};
    // Noise from a few bytes of input: the fuzzer spends its bytes on the rectangle.
    auto state = static_cast<uint32_t>(data.inRange(0, INT32_MAX));
    const auto noise = [&] { return static_cast<uint8_t>((state = state * 1664525 + 1013904223) >> 24); };
    Bytes source(src.end()), before(shared ? std::max(src.end(), to.end()) : to.end());
    std::ranges::generate(source, noise);
    std::ranges::generate(before, noise);
    Bytes expected = before;
    insert(expected, to, clip, shared ? expected : source, src, from, toX, toY);
    const auto compare = [&]<typename Bitmap>() {
        Bytes target = before;
        Bitmap view(&to.byte(target, 0, 0), to.width, to.height, to.bytesPerRow);
        Bitmap sourceView(&src.byte(shared ? target : source, 0, 0), src.width, src.height, src.bytesPerRow);
        sourceView.clip(0, 0, 1, 1); // does not count
        view.clip(clip.x, clip.y, clip.w, clip.h);
        view.insert(sourceView, from.x, from.y, from.w, from.h, toX, toY);
        fuzz::require(target == expected, "another image");
    };
    compare.operator()<bmp::Bitmap>();
    compare.operator()<portable::Bitmap>();
    return 0;
}
