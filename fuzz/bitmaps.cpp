// Bitmaps: `insert` of the library and in its portable form, beside the pixel model.

#include "fuzz/input.h"
#include "tests/support/bitmapModel.h"
#include "tests/support/portableBitmaps.h"

#include <algorithm>
#include <cstdlib>
#include <memory>

namespace {

/// Memory of an image to its last byte and no further, so that the address sanitizer sees every byte beside it.
struct Memory
{
    Memory(fuzz::Input& data, int w, int h)
        : width(w)
        , height(h)
        , bytesPerRow((w + 7) / 8 + data.inRange(0, 3))
        , size(static_cast<size_t>((h - 1) * bytesPerRow + (w + 7) / 8))
        , bytes(new uint8_t[size])
    {
        // A generator from a few bytes of input: the fuzzer spends its bytes on the rectangle.
        auto state = data.any<uint32_t>();
        std::generate_n(bytes.get(), size,
                        [&] { return static_cast<uint8_t>((state = state * 1664525 + 1013904223) >> 24); });
    }

    Memory(const Memory& other)
        : width(other.width)
        , height(other.height)
        , bytesPerRow(other.bytesPerRow)
        , size(other.size)
        , bytes(new uint8_t[size])
    {
        std::copy_n(other.bytes.get(), size, bytes.get());
    }

    template <typename Kind>
    Kind view() const
    {
        return Kind(bytes.get(), width, height, bytesPerRow);
    }

    int width;
    int height;
    int bytesPerRow;
    size_t size;
    std::unique_ptr<uint8_t[]> bytes;
};

/// Any number, more often one that has to do with the size.
int number(fuzz::Input& data, int size)
{
    return data.flag() ? data.inRange(-size - 1, 2 * size + 1) : data.any<int>();
}

struct Rectangle
{
    int x, y, w, h;
};

Rectangle rectangle(fuzz::Input& data, int width, int height)
{
    const int x = number(data, width);
    const int y = number(data, height);
    return {x, y, number(data, width), number(data, height)};
}

template <typename Kind>
void compare(const Memory& source, Memory target, const Rectangle* clip, const Rectangle& from, int toX, int toY,
             const Memory& expected)
{
    auto view = target.view<Kind>();
    if (clip != nullptr)
        view.clip(clip->x, clip->y, clip->w, clip->h);
    view.insert(source.view<Kind>(), from.x, from.y, from.w, from.h, toX, toY);
    if (!std::equal(target.bytes.get(), target.bytes.get() + target.size, expected.bytes.get()))
        abort();
}

/// Two images; where `exact`, each of one row that holds the span and nothing else.
void insertBetweenImages(fuzz::Input& data, bool exact)
{
    const int count = data.inRange(1, 900);
    const int srcX = data.inRange(0, 7);
    int toX = data.inRange(0, 7);
    int toY = 0;
    Rectangle from{srcX, 0, count, 1};
    const Memory source(data, srcX + count, exact ? 1 : data.inRange(1, 5));
    const Memory target(data, exact ? toX + count : data.inRange(1, 900), exact ? 1 : data.inRange(1, 5));
    const Memory expected(target);
    model::Image image{expected.bytes.get(), expected.width, expected.height, expected.bytesPerRow};
    Rectangle clip{};
    bool clipped = false;
    if (!exact) {
        from = rectangle(data, source.width, source.height);
        toX = number(data, target.width);
        toY = number(data, target.height);
        clip = rectangle(data, target.width, target.height);
        clipped = image.clip(clip.x, clip.y, clip.w, clip.h);
        if (!clipped)
            image.clip(0, 0, target.width, target.height);
    }
    image.insert({source.bytes.get(), source.width, source.height, source.bytesPerRow}, from.x, from.y, from.w, from.h,
                 toX, toY);
    compare<bmp::Bitmap>(source, target, clipped ? &clip : nullptr, from, toX, toY, expected);
    compare<portable::Bitmap>(source, target, clipped ? &clip : nullptr, from, toX, toY, expected);
}

/// Two views of one memory. It takes the input by value: both kinds get the same numbers.
template <typename Kind>
void insertInSharedMemory(fuzz::Input data)
{
    const int rows = data.inRange(1, 5);
    const int srcBytesPerRow = data.inRange(1, 90);
    const int bytesPerRow = data.flag() ? srcBytesPerRow : data.inRange(1, 90);
    const int srcX = data.inRange(0, 7);
    const int dstX = data.inRange(0, 7);
    const int count = data.inRange(1, std::min(srcBytesPerRow * 8 - srcX, bytesPerRow * 8 - dstX));
    const int srcStart = data.inRange(0, 200);
    const int dstStart = data.inRange(0, 200);
    const Memory memory(data, 8 * std::max(srcStart + rows * srcBytesPerRow, dstStart + rows * bytesPerRow), 1);
    const Memory expected(memory);
    model::Image{expected.bytes.get() + dstStart, bytesPerRow * 8, rows, bytesPerRow}.insertInOrder(
        {expected.bytes.get() + srcStart, srcBytesPerRow * 8, rows, srcBytesPerRow}, srcX, count, rows, dstX);
    const Kind source(memory.bytes.get() + srcStart, srcBytesPerRow * 8, rows, srcBytesPerRow);
    Kind(memory.bytes.get() + dstStart, bytesPerRow * 8, rows, bytesPerRow)
        .insert(source, srcX, 0, count, rows, dstX, 0);
    if (!std::equal(memory.bytes.get(), memory.bytes.get() + memory.size, expected.bytes.get()))
        abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* input, size_t size)
{
    fuzz::Input data(input, size);
    const int kind = data.inRange(0, 2);
    if (kind == 2) {
        insertInSharedMemory<bmp::Bitmap>(data);
        insertInSharedMemory<portable::Bitmap>(data);
    } else {
        insertBetweenImages(data, kind == 1);
    }
    return 0;
}
