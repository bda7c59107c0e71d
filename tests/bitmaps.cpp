#include "tests/support/assertionTrap.h"
#include "tests/support/bitmapModel.h"
#include "tests/support/portableBitmaps.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <climits>
#include <functional>
#include <random>
#include <span>
#include <string>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

using testing::AllOf;
using testing::HasSubstr;

namespace {

using Bytes = std::vector<uint8_t>;

std::mt19937 random(4711);

int below(int limit)
{
    return static_cast<int>(random() % static_cast<unsigned>(limit));
}

Bytes randomBytes(size_t size)
{
    Bytes bytes(size);
    std::ranges::generate(bytes, [] { return static_cast<uint8_t>(random()); });
    return bytes;
}

/// Two rows of memory, each with a page before and a page behind it that cannot be touched. The rows begin on the first
/// byte of their page, or end on the last.
class GuardedRows
{
public:
    GuardedRows()
        : start(static_cast<uint8_t*>(mmap(nullptr, 5 * page, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)))
    {
        for (const size_t row : {1u, 3u})
            EXPECT_EQ(mprotect(start + row * page, page, PROT_READ | PROT_WRITE), 0);
    }
    ~GuardedRows()
    {
        munmap(start, 5 * page);
    }
    GuardedRows(const GuardedRows&) = delete;
    GuardedRows& operator=(const GuardedRows&) = delete;

    /// Fills rows of `width` pixels with random bits.
    model::Image image(int width, bool atEnd)
    {
        const size_t bytes = static_cast<size_t>(width + 7) / 8;
        const model::Image rows{start + page + (atEnd ? page - bytes : 0), width, 2, static_cast<int>(2 * page)};
        for (int y = 0; y < 2; ++y)
            std::ranges::copy(std::span(noise).subspan(static_cast<size_t>(below(64)), bytes), &rows.byte(0, y));
        return rows;
    }

private:
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    const Bytes noise = randomBytes(1200);
    uint8_t* const start;
};

/// The library's bitmap, and the one that takes no step chosen at run time.
template <typename Kind>
class Bitmap : public testing::Test
{
protected:
    static Kind view(const model::Image& image)
    {
        return Kind(image.pixels, image.width, image.height, image.bytesPerRow);
    }
};

using Kinds = testing::Types<bmp::Bitmap, portable::Bitmap>;
TYPED_TEST_SUITE(Bitmap, Kinds);

TYPED_TEST(Bitmap, InsertMovesEverySpanFromAndToEveryBitAndTouchesNoByteBesideIt)
{
    GuardedRows source;
    GuardedRows target;
    GuardedRows model;
    for (int triple = 0; triple < 64; ++triple)
        for (int count = 1; count < 1200; count += count < 150 ? 1 : 13)
            for (const bool atEnd : {false, true}) {
                const int from = triple >> 3;
                const int to = triple & 7;
                const auto src = source.image(from + count, atEnd);
                const auto dst = target.image(to + count, atEnd);
                auto expected = model.image(to + count, atEnd);
                const size_t bytes = static_cast<size_t>(to + count + 7) / 8;
                for (int y = 0; y < 2; ++y)
                    std::copy_n(&dst.byte(0, y), bytes, &expected.byte(0, y));
                expected.insert(src, from, 0, count, 2, to, 0);
                TestFixture::view(dst).insert(TestFixture::view(src), from, 0, count, 2, to, 0);
                for (int y = 0; y < 2; ++y)
                    ASSERT_TRUE(std::equal(&dst.byte(0, y), &dst.byte(0, y) + bytes, &expected.byte(0, y)))
                        << count << " pixels from " << from << " to " << to << ", row " << y;
            }
}

TYPED_TEST(Bitmap, InsertCutsEveryRectangleToTheSourcesImageAndToTheClipRectangle)
{
    const auto number = [](int size) {
        static constexpr int edges[] = {INT_MIN, INT_MIN + 1, -1, 0, 1, INT_MAX - 1, INT_MAX};
        return random() % 16 == 0 ? edges[random() % std::size(edges)] : below(2 * size) - size / 3;
    };
    int changed = 0;
    for (int round = 0; round < 24000; ++round) {
        const int srcWidth = 1 + below(round % 8 == 0 ? 500 : 50);
        const int width = 1 + below(round % 8 == 0 ? 500 : 50);
        const int srcHeight = 1 + below(9);
        const int height = 1 + below(9);
        const int srcBytesPerRow = (srcWidth + 7) / 8 + below(3);
        const int bytesPerRow = (width + 7) / 8 + below(3);
        Bytes srcMemory = randomBytes(static_cast<size_t>(srcBytesPerRow * srcHeight));
        Bytes memory = randomBytes(static_cast<size_t>(bytesPerRow * height));
        const Bytes before = memory;
        Bytes expected = memory;
        model::Image dst{expected.data(), width, height, bytesPerRow};
        TypeParam target(memory.data(), width, height, bytesPerRow);
        TypeParam source(srcMemory.data(), srcWidth, srcHeight, srcBytesPerRow);
        // The source's own clip rectangle does not count.
        source.clip(0, 0, 1, 1);
        const int clip[] = {std::min(number(width), width - 1), std::min(number(height), height - 1), number(width),
                            number(height)};
        if (round % 3 == 0 && dst.clip(clip[0], clip[1], clip[2], clip[3]))
            target.clip(clip[0], clip[1], clip[2], clip[3]);
        else
            dst.clip(0, 0, width, height);
        const int a[] = {number(srcWidth),  number(srcHeight), number(srcWidth),
                         number(srcHeight), number(width),     number(height)};
        dst.insert({srcMemory.data(), srcWidth, srcHeight, srcBytesPerRow}, a[0], a[1], a[2], a[3], a[4], a[5]);
        target.insert(source, a[0], a[1], a[2], a[3], a[4], a[5]);
        changed += before != expected;
        ASSERT_EQ(memory, expected) << "round " << round;
    }
    EXPECT_GT(changed, 200);
}

TYPED_TEST(Bitmap, InsertWorksBytesInTheToldOrderWhereSourceAndDestinationShareMemory)
{
    GuardedRows memory;
    const auto oneIn = [](int n) { return below(n) == 0; };
    for (int round = 0; round < 12000; ++round) {
        const bool wholeRows = oneIn(8);
        const int srcBytesPerRow = 1 + below(oneIn(3) ? 60 : 7);
        const int bytesPerRow = oneIn(2) ? srcBytesPerRow : 1 + below(60);
        const int from = wholeRows ? 0 : below(8);
        const int to = wholeRows ? 0 : below(8);
        const int room = std::min(srcBytesPerRow * 8 - from, bytesPerRow * 8 - to);
        const int count = wholeRows ? room : 1 + below(room);
        const int rows = 1 + below(4);
        const int srcStart = 300;
        const int dstStart = srcStart + (oneIn(5) ? below(601) - 300 : below(9) - 4);
        // The last byte of the two spans is the last one that can be touched.
        const int end = std::max(srcStart + (rows - 1) * srcBytesPerRow + (from + count + 7) / 8,
                                 dstStart + (rows - 1) * bytesPerRow + (to + count + 7) / 8);
        const model::Image shared = memory.image(8 * end, true);
        Bytes expected(shared.pixels, shared.pixels + end);
        model::Image dst{expected.data() + dstStart, bytesPerRow * 8, rows, bytesPerRow};
        dst.insertInOrder({expected.data() + srcStart, srcBytesPerRow * 8, rows, srcBytesPerRow}, from, count, rows,
                          to);
        dst.pixels = shared.pixels + dstStart;
        const TypeParam source(shared.pixels + srcStart, srcBytesPerRow * 8, rows, srcBytesPerRow);
        TestFixture::view(dst).insert(source, from, 0, count, rows, to, 0);
        ASSERT_TRUE(std::ranges::equal(expected, std::span(shared.pixels, expected.size())))
            << rows << " rows of " << count << " pixels, " << dstStart - srcStart << " bytes on, bit " << from << " to "
            << to;
    }
}

TYPED_TEST(Bitmap, InsertGivesTheBytesWorkedOutByHand)
{
    const struct
    {
        Bytes source;
        int from, to, count;
        Bytes before, after;
    } rows[] = {
        {{0xB5}, 2, 6, 5, {0x00, 0x00}, {0x03, 0x40}},
        {{0x2D, 0xC0}, 5, 1, 6, {0x00}, {0x5C}},
        {{0xFF}, 3, 5, 1, {0x00}, {0x04}},
        {{0xFF}, 3, 5, 1, {0xA1}, {0xA5}},
        {{0x00, 0x00}, 0, 0, 16, {0xA1, 0x18}, {0xA1, 0x18}},
        {{0x01, 0x80}, 0, 0, 16, {0x40, 0x00}, {0x41, 0x80}},
        // The first pixel is 0x80 to insert, so nothing comes of a first pixel set by orBit.
        {{0x01}, 0, 0, 1, {0x00}, {0x00}},
        {{0x80}, 0, 0, 1, {0x00}, {0x80}},
    };
    for (auto [source, from, to, count, bytes, after] : rows) {
        TypeParam target(bytes.data(), static_cast<int>(bytes.size()) * 8, 1, static_cast<int>(bytes.size()));
        target.insert(TypeParam(source.data(), static_cast<int>(source.size()) * 8, 1, static_cast<int>(source.size())),
                      from, 0, count, 1, to, 0);
        EXPECT_EQ(bytes, after);
    }
}

TYPED_TEST(Bitmap, ClipIsCutToTheImageAndUnclipTakesItBack)
{
    const struct
    {
        int x, y, w, h, left, top, width, height;
    } rows[] = {
        {10, 20, 30, 40, 10, 20, 30, 40},
        {-5, -5, 10, 10, 0, 0, 5, 5},
        {90, 95, 11, 20, 90, 95, 10, 5},
        {99, 99, 1, 1, 99, 99, 1, 1},
        {-1, -2, 200, 300, 0, 0, 100, 100},
        {5, 6, INT_MAX, INT_MAX, 5, 6, 95, 94},
        {-INT_MAX + 1, -INT_MAX + 7, INT_MAX, INT_MAX, 0, 0, 1, 7},
    };
    Bytes ones(1300, 0xFF);
    const TypeParam source(ones.data(), 100, 100, 13);
    for (const auto& row : rows) {
        const auto drawn = [&](bool unclip) {
            Bytes memory(1300);
            TypeParam target(memory.data(), 100, 100, 13);
            target.clip(row.x, row.y, row.w, row.h);
            if (unclip)
                target.unclip();
            target.insert(source, 0, 0, 100, 100, 0, 0);
            return memory;
        };
        Bytes expected(1300);
        model::Image{expected.data(), 100, 100, 13}.insert({ones.data(), 100, 100, 13}, 0, 0, row.width, row.height,
                                                           row.left, row.top);
        EXPECT_EQ(drawn(false), expected) << row.x << ' ' << row.y << ' ' << row.w << ' ' << row.h;
        std::ranges::fill(expected, uint8_t{0});
        model::Image{expected.data(), 100, 100, 13}.insert({ones.data(), 100, 100, 13}, 0, 0, 100, 100, 0, 0);
        EXPECT_EQ(drawn(true), expected);
    }
}

TYPED_TEST(Bitmap, AFailedClipLeavesTheOldRectangleInPlace)
{
    Bytes ones(1300, 0xFF);
    Bytes expected(1300);
    model::Image{expected.data(), 100, 100, 13}.insert({ones.data(), 100, 100, 13}, 0, 0, 30, 40, 10, 20);
    const struct
    {
        int x, y, w, h;
        const char* expression;
    } rows[] = {{100, 0, 1, 1, "x < widthPixels"},
                {1, 100, 1, 1, "y < heightPixels"},
                {1, 2, 0, 3, "w > 0"},
                {1, 2, 3, 0, "h > 0"},
                {-5, -5, 6, 5, "h > 0"}};
    for (const auto& row : rows) {
        Bytes memory(1300);
        TypeParam target(memory.data(), 100, 100, 13);
        target.clip(10, 20, 30, 40);
        EXPECT_THAT(assertionTrap::failureOf([&] { target.clip(row.x, row.y, row.w, row.h); }),
                    testing::EndsWith(std::string(": ") + row.expression));
        target.insert(TypeParam(ones.data(), 100, 100, 13), 0, 0, 100, 100, 0, 0);
        EXPECT_EQ(memory, expected) << row.x << ' ' << row.y << ' ' << row.w << ' ' << row.h;
    }
}

TYPED_TEST(Bitmap, SinglePixelsCountFromTheLowestBitAndIgnoreTheClipRectangle)
{
    Bytes memory(6);
    TypeParam bitmap(memory.data(), 24, 2, 3);
    bitmap.clip(20, 1, 1, 1);
    for (const auto& [x, y] : {std::pair{0, 0}, {7, 0}, {10, 0}, {23, 1}})
        bitmap.orBit(x, y, true);
    bitmap.orBit(1, 0, false);
    bitmap.orBit(7, 0, false);
    EXPECT_EQ(memory, (Bytes{0x81, 0x04, 0x00, 0x00, 0x00, 0x80}));
    for (int pixel = 0; pixel < 48; ++pixel)
        EXPECT_EQ(bitmap.getBit(pixel % 24, pixel / 24), pixel == 0 || pixel == 7 || pixel == 10 || pixel == 47)
            << pixel;
}

TYPED_TEST(Bitmap, RowsMayLieBeyondTwoGigabytes)
{
    if (sizeof(void*) == 4)
        GTEST_SKIP() << "no such memory in 32 bits";
    constexpr int bytesPerRow = 1 << 20;
    constexpr size_t size = size_t{3000} * bytesPerRow;
    void* const memory =
        mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    ASSERT_NE(memory, MAP_FAILED);
    const auto pixels = static_cast<uint8_t*>(memory);
    TypeParam bitmap(pixels, bytesPerRow * 8, 3000, bytesPerRow);
    bitmap.orBit(7, 2500, true);
    bitmap.insert(bitmap, 0, 2500, 8, 1, 0, 2999);
    EXPECT_EQ(pixels[size_t{2999} * bytesPerRow], 0x80);
    EXPECT_EQ(bitmap.getBit(7, 2999), 1);
    munmap(memory, size);
}

TYPED_TEST(Bitmap, WholeRowsMayHaveMorePixelsTogetherThanAnIntCounts)
{
    if (sizeof(void*) == 4)
        GTEST_SKIP() << "no such memory in 32 bits";
    // The source takes no memory but for its last row. In the destination all rows but the last are the same memory.
    constexpr int rows = 513;
    constexpr size_t bytesPerRow = 1 << 20;
    constexpr size_t size = rows * bytesPerRow;
    const int sharedRows = memfd_create("rows", MFD_CLOEXEC);
    ASSERT_EQ(ftruncate(sharedRows, 2 * bytesPerRow), 0);
    const auto map = [](void* place, size_t length, int flags, int descriptor, size_t offset) {
        void* const memory = mmap(place, length, PROT_READ | PROT_WRITE, flags, descriptor, static_cast<off_t>(offset));
        EXPECT_NE(memory, MAP_FAILED);
        return static_cast<uint8_t*>(memory);
    };
    uint8_t* const source = map(nullptr, size, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    uint8_t* const target = map(nullptr, size, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    for (size_t row = 0; row < rows; ++row)
        map(target + row * bytesPerRow, bytesPerRow, MAP_SHARED | MAP_FIXED, sharedRows,
            row == rows - 1 ? bytesPerRow : 0);
    const Bytes lastRow = randomBytes(bytesPerRow);
    std::ranges::copy(lastRow, source + size - bytesPerRow);
    const TypeParam from(source, bytesPerRow * 8, rows, bytesPerRow);
    TypeParam(target, bytesPerRow * 8, rows, bytesPerRow).insert(from, 0, 0, INT_MAX, INT_MAX, 0, 0);
    EXPECT_TRUE(std::ranges::equal(lastRow, std::span(target + size - bytesPerRow, bytesPerRow)));
    EXPECT_TRUE(std::ranges::all_of(std::span(target, bytesPerRow), [](uint8_t byte) { return byte == 0; }));
    munmap(target, size);
    munmap(source, size);
    close(sharedRows);
}

TEST(BitmapDeathTest, CallersFaultsFailTheirAssertionsInTheToldOrder)
{
    uint8_t memory[1300];
    bmp::Bitmap bitmap(memory, 100, 100, 13);
    const std::string constructor = "bmp::Bitmap::Bitmap(uint8_t*, int, int, int)";
    const std::string clip = "void bmp::Bitmap::clip(int, int, int, int)";
    const struct
    {
        std::function<void()> call;
        std::string function, expression;
    } rows[] = {
        {[&] { bmp::Bitmap(memory, 0, 0, -1); }, constructor, "widthPixels > 0"},
        {[&] { bmp::Bitmap(memory, 1, 0, 0); }, constructor, "heightPixels > 0"},
        {[&] { bmp::Bitmap(memory, 9, 1, 1); }, constructor, "bytesPerRow >= ((widthPixels + 7) >> 3)"},
        {[&] { bmp::Bitmap(memory, INT_MAX, 1, INT_MAX / 8); }, constructor, "bytesPerRow >= ((widthPixels + 7) >> 3)"},
        {[&] { bitmap.clip(100, 100, 0, 0); }, clip, "x < widthPixels"},
        {[&] { bitmap.clip(99, 100, 0, 0); }, clip, "y < heightPixels"},
        {[&] { bitmap.clip(0, 0, 0, 0); }, clip, "w > 0"},
        {[&] { bitmap.clip(-5, 0, 5, 10); }, clip, "w > 0"},
        {[&] { bitmap.clip(INT_MIN, 0, INT_MAX, 10); }, clip, "w > 0"},
        {[&] { bitmap.clip(0, 0, 1, 0); }, clip, "h > 0"},
        {[&] { bitmap.clip(0, INT_MIN, 10, INT_MIN); }, clip, "h > 0"},
    };
    for (const auto& row : rows)
        EXPECT_DEATH(row.call(), AllOf(HasSubstr("Quorvil/Bitmaps:"), HasSubstr(": " + row.function + ": Assertion `" +
                                                                                row.expression + "' failed.")));
}

} // namespace
