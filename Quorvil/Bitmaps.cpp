// How a rectangle gets into a bitmap.
//
// 1. `Bitmap::insert` cuts the rectangle to the source's image and to the destination's clip rectangle. What is left
//    goes to `orRows` as `Rows`: first bytes, distances of the rows, and the span of a row in bits, which is the same
//    in each row but for the addresses.
// 2. `orRows` looks once at the span and takes one of the ways below; each runs over all rows by itself.
//
//    | the span of a row                        | way                  | a step                               |
//    |------------------------------------------|----------------------|--------------------------------------|
//    | source and destination share memory      | `orRowBitSegments`   | a byte, in the order told to callers |
//    | 8 bytes at most on either side           | `orWordRows`         | the row, in one rotated word         |
//    | 6 or 7 bytes between the first and last  | `orWideRows<4>`      | 4 bytes                              |
//    | 8 to 15 bytes between                    | `orWideRows<8>`      | 8 bytes                              |
//    | 16 bytes between and more                | `orWideRows<16>`     | 16 bytes: SSE2, NEON                 |
//    | 32 bytes between, the machine has AVX2   | `orWideRows<32>`     | 32 bytes                             |
//
// Shifts. With `shift` = first destination bit - first source bit, a destination byte between the first and the last
// is made of two neighbours of the source, `(s[k] << left) | (s[k + 1] >> right)` with left + right = 8. A vector has
// no shift of bytes on these machines, so lanes of 32 bits are shifted, and a mask takes away what came over from the
// neighbour byte: that is a shift of bytes, in either byte order. A shift of 0 is an OR of bytes as they are.
//
// Ends. The first and last byte of a row hold pixels beside the span and are ORed singly, under a mask. The bytes
// between are whole. Where their number is no multiple of the step, the last step is moved back and overlaps the one
// before: an OR may be done twice. So there is no rest to be done byte by byte. In the same way the first step overlaps
// the second, which begins at an aligned address. Rows that fill their bytes and follow without a gap count as one long
// row.
//
// Promises. No byte without a pixel of the span is read or written, on either side: it may belong to another thread, or
// to nobody. That is why the ends are no masked wide steps.
//
// Aliasing. The wide ways read the source ahead of and behind what they write, and do an OR twice. So they need a row
// whose source bytes and destination bytes are disjoint, and then give what the byte loop gives. Rows are always worked
// from top to bottom, so one row may write what a later row reads. Where the bytes of a row meet, the byte loop does
// the work, with each read and write in the order that callers were told.

#include "Quorvil/Bitmaps.h"

#include "Quorvil/QuorvilAssert.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <functional>
#include <limits>
#include <type_traits>
#include <utility>

#ifdef __arm__
#include <asm/hwcap.h>
#include <sys/auxv.h>
#endif

// The wide step that is chosen at run time. QUORVIL_PORTABLE_BLIT leaves it out, so that the steps of every machine can
// be tested and measured on one that would not take them.
#if !defined(QUORVIL_PORTABLE_BLIT) && defined(__x86_64__)
#define QUORVIL_CHOSEN_BLIT __attribute__((target("avx2")))
#elif !defined(QUORVIL_PORTABLE_BLIT) && defined(__arm__) && !defined(__clang__)
#define QUORVIL_CHOSEN_BLIT __attribute__((target("fpu=neon")))
#endif

namespace {

using quorvil::intern::require;

constexpr char file[] = "Quorvil/Bitmaps";
constexpr char constructorText[] = "bmp::Bitmap::Bitmap(uint8_t*, int, int, int)";
constexpr char clipText[] = "void bmp::Bitmap::clip(int, int, int, int)";
constexpr char insertText[] = "void bmp::Bitmap::insert(const bmp::Bitmap&, int, int, int, int, int, int)";
constexpr char segmentsText[] = "void orRowBitSegments(const uint8_t*, int, uint8_t*, int, int)";

/// ORs `count` pixels of one row, byte by byte from left to right.
void orRowBitSegments(const uint8_t* s1, int srcBitOffset, uint8_t* d1, int dstBitOffset, int count)
{
    const int shiftDiff = dstBitOffset - srcBitOffset;
    const int rightShift = shiftDiff > 0 ? shiftDiff : shiftDiff + 8;
    const int leftShift = 8 - rightShift;
    const int64_t srcSlack = 8 - (int64_t{count} + srcBitOffset);
    const int64_t endBit = int64_t{dstBitOffset} + count;
    const int64_t lastByte = (endBit - 1) >> 3;
    const int64_t tailPad = -endBit & 7;
    const uint8_t* s = s1;
    uint8_t* d = d1;

    // Every read below stands at its place: where the memory is shared, the write before it may have changed the byte.
    unsigned v = *s & (0xffu >> srcBitOffset);
    if (srcSlack > 0)
        v &= 0xffu << srcSlack;
    if (shiftDiff > 0) {
        *d |= static_cast<uint8_t>(v >> rightShift);
    } else if (shiftDiff == 0) {
        *d |= static_cast<uint8_t>(v);
        ++s;
    } else {
        ++s;
        *d |= static_cast<uint8_t>(v << leftShift);
        if (srcSlack < 0) {
            unsigned w = static_cast<unsigned>(*s) >> rightShift;
            if (endBit <= 7)
                w &= 0xffu << tailPad;
            *d |= static_cast<uint8_t>(w);
        }
    }
    ++d;

    for (const uint8_t* const end = d1 + (endBit >> 3); d < end; ++d, ++s) {
        *d |= static_cast<uint8_t>(*s << leftShift);
        if (rightShift < 8)
            *d |= static_cast<uint8_t>(s[1] >> rightShift);
    }

    if (lastByte < d - d1)
        return;
    require(lastByte == d - d1, "((dstBitOffset + count - 1) >> 3) == (d - d1)", file, __LINE__, segmentsText);
    unsigned t = static_cast<unsigned>(*s) << leftShift;
    if (tailPad < leftShift)
        t |= static_cast<unsigned>(s[1]) >> rightShift;
    *d |= static_cast<uint8_t>(t & (0xffu << tailPad));
}

/// What `insert` has left to do after its cuts: `rowCount` rows of `count` pixels each.
struct Rows
{
    const uint8_t* src;
    ptrdiff_t srcBytesPerRow;
    int srcBitOffset;
    uint8_t* dst;
    ptrdiff_t dstBytesPerRow;
    int dstBitOffset;
    int count;
    int rowCount;

    /// First bit behind the span, counted from the row's first byte. Without a sign, so that it holds any count.
    unsigned srcEnd() const
    {
        return static_cast<unsigned>(srcBitOffset) + static_cast<unsigned>(count);
    }
    unsigned dstEnd() const
    {
        return static_cast<unsigned>(dstBitOffset) + static_cast<unsigned>(count);
    }

    /// Bytes of a row with a pixel of the span.
    ptrdiff_t srcBytes() const
    {
        return static_cast<ptrdiff_t>((srcEnd() + 7) >> 3);
    }
    ptrdiff_t dstBytes() const
    {
        return static_cast<ptrdiff_t>((dstEnd() + 7) >> 3);
    }

    /// Goes down by one row and returns true, or returns false on the last one.
    bool nextRow()
    {
        if (--rowCount == 0)
            return false;
        src += srcBytesPerRow;
        dst += dstBytesPerRow;
        return true;
    }
};

/// Whether the bytes of a row's source and destination may meet, in any row.
bool bytesMeet(const Rows& rows)
{
    // With one distance from row to row on both sides, each row is as the first. Else the rectangles are taken whole.
    const ptrdiff_t further = rows.srcBytesPerRow == rows.dstBytesPerRow ? 0 : rows.rowCount - 1;
    const uint8_t* const srcBehind = rows.src + further * rows.srcBytesPerRow + rows.srcBytes();
    const uint8_t* const dstBehind = rows.dst + further * rows.dstBytesPerRow + rows.dstBytes();
    // The operators know an order inside one array only.
    const std::less<const uint8_t*> before;
    return before(rows.src, dstBehind) && before(rows.dst, srcBehind);
}

/// ORs rows whose bytes meet, in the order told to callers.
[[gnu::noinline]] void orRowsByteByByte(Rows rows)
{
    do
        orRowBitSegments(rows.src, rows.srcBitOffset, rows.dst, rows.dstBitOffset, rows.count);
    while (rows.nextRow());
}

uint32_t swapBytes(uint32_t value)
{
    return __builtin_bswap32(value);
}

uint64_t swapBytes(uint64_t value)
{
    return __builtin_bswap64(value);
}

/// An unsigned number of 1, 2, 4 or 8 bytes.
template <int bytes>
using Piece =
    std::conditional_t<bytes == 1, uint8_t,
                       std::conditional_t<bytes == 2, uint16_t, std::conditional_t<bytes == 4, uint32_t, uint64_t>>>;

static_assert(std::endian::native == std::endian::little, "load and store put the first byte lowest");

/// Reads `bytes` bytes, and no other, as two pieces that may overlap. The first byte comes lowest.
template <int bytes, typename Word>
Word load(const uint8_t* from)
{
    constexpr int size = std::bit_floor(static_cast<unsigned>(bytes));
    Piece<size> low;
    Piece<size> high;
    std::memcpy(&low, from, size);
    std::memcpy(&high, from + bytes - size, size);
    return static_cast<Word>(low | static_cast<Word>(high) << 8 * (bytes - size));
}

/// Writes `bytes` bytes, and no other, likewise.
template <int bytes, typename Word>
void store(uint8_t* to, Word value)
{
    constexpr int size = std::bit_floor(static_cast<unsigned>(bytes));
    const auto low = static_cast<Piece<size>>(value);
    const auto high = static_cast<Piece<size>>(value >> 8 * (bytes - size));
    std::memcpy(to, &low, size);
    std::memcpy(to + bytes - size, &high, size);
}

/// ORs rows of a few bytes: the source bytes as one word with the first pixel uppermost, turned to their place, masked.
template <int srcBytes, int dstBytes, bool shifted>
void orWordRows(const Rows& given)
{
    // A copy, so that its fields stay in registers: for all that is known, a byte written below may be one of them.
    Rows rows = given;
    using Word = Piece<std::max(srcBytes, dstBytes) <= 4 ? 4 : 8>;
    constexpr int bits = 8 * sizeof(Word);
    const Word span = swapBytes(static_cast<Word>(~Word{0} << (bits - rows.count)) >> rows.dstBitOffset);
    // What the rotation brings round from the other end lies outside the span.
    const int turn = (rows.dstBitOffset - rows.srcBitOffset) & (bits - 1);
    // Counted, so that the compiler can take several rows between two looks at the count.
#pragma GCC unroll 4
    for (int row = 0; row < rows.rowCount; ++row) {
        auto source = load<srcBytes, Word>(rows.src);
        if constexpr (shifted)
            source = swapBytes(std::rotr(swapBytes(source), turn));
        store<dstBytes>(rows.dst, load<dstBytes, Word>(rows.dst) | (source & span));
        rows.src += rows.srcBytesPerRow;
        rows.dst += rows.dstBytesPerRow;
    }
}

constexpr int wordBytes = 8;

/// `orWordRows` for each number of destination bytes from 1 on, with one source byte less, as many, and one more. The
/// first and last entry belong to no row.
constexpr auto wordRows = []<int... index>(std::integer_sequence<int, index...>) {
    return std::array<void (*)(const Rows&), sizeof...(index)>{
        orWordRows<std::clamp(index / 3 + index % 3, 1, wordBytes), index / 3 + 1, true>...};
}(std::make_integer_sequence<int, 3 * wordBytes>{});

/// The same without a shift, where both have as many bytes.
constexpr auto alignedWordRows = []<int... index>(std::integer_sequence<int, index...>) {
    return std::array<void (*)(const Rows&), sizeof...(index)>{orWordRows<index + 1, index + 1, false>...};
}(std::make_integer_sequence<int, wordBytes>{});

/// `bytes` bytes as lanes of 32 bits.
template <int bytes>
struct Lanes
{
    using Block [[gnu::vector_size(bytes)]] = uint32_t;
};

/// What makes whole destination bytes, eight pixels each, out of two neighbours of the source.
template <typename Block>
struct Shift
{
    uint32_t left;
    uint32_t right;
    Block leftMask;
    Block rightMask;
};

/// Sets `target` to the bytes at `d` with those of the source ORed in. `s` is the left neighbour of the first byte.
/// Everything with a block in it is inlined without fail: the caller alone knows the machine's instructions.
template <bool shifted, typename Block>
[[gnu::always_inline]] inline void combine(Block& target, const uint8_t* d, const uint8_t* s, const Shift<Block>& shift)
{
    Block first;
    std::memcpy(&target, d, sizeof target);
    std::memcpy(&first, s, sizeof first);
    if constexpr (shifted) {
        Block second;
        std::memcpy(&second, s + 1, sizeof second);
        target |= ((first << shift.left) & shift.leftMask) | ((second >> shift.right) & shift.rightMask);
    } else {
        target |= first;
    }
}

/// ORs rows with at least `bytes` whole bytes between the first and the last one.
template <int bytes, bool shifted>
[[gnu::always_inline]] inline void orWideRows(const Rows& given)
{
    Rows rows = given;
    using Block = typename Lanes<bytes>::Block;
    const int shiftDiff = rows.dstBitOffset - rows.srcBitOffset;
    Shift<Block> shift{};
    shift.right = static_cast<uint32_t>(shiftDiff & 7);
    shift.left = 8 - shift.right;
    shift.rightMask = Block{} + (0xffu >> shift.right) * 0x01010101u;
    shift.leftMask = ~shift.rightMask;

    const unsigned headMask = 0xffu >> rows.dstBitOffset;
    const unsigned srcPad = -rows.srcEnd() & 7;
    const unsigned dstPad = -rows.dstEnd() & 7;
    const ptrdiff_t srcLast = rows.srcBytes() - 1;
    const ptrdiff_t dstLast = rows.dstBytes() - 1;
    const ptrdiff_t leftNeighbour = shiftDiff > 0 ? 0 : 1;
    const ptrdiff_t lastStep = dstLast - 1 - bytes;

    do {
        const uint8_t* s = rows.src;
        uint8_t* d = rows.dst;
        const unsigned head = static_cast<unsigned>(s[0] << 8 | s[1]) << rows.srcBitOffset >> (rows.dstBitOffset + 8);
        const unsigned tail = static_cast<unsigned>(s[srcLast - 1] << 8 | s[srcLast]) >> srcPad << dstPad;
        d[0] |= static_cast<uint8_t>(head & headMask);
        d[dstLast] |= static_cast<uint8_t>(tail);

        s += leftNeighbour;
        d += 1;
        // The first and last step overlap those between, which begin at an aligned address. They are made beforehand
        // and stored at the end: a read behind an overlapping store would have to wait until that is through.
        Block first;
        Block last;
        combine<shifted>(first, d, s, shift);
        combine<shifted>(last, d + lastStep, s + lastStep, shift);
        const auto aligned = static_cast<ptrdiff_t>(-reinterpret_cast<uintptr_t>(d) & (bytes - 1));
#pragma GCC unroll 4
        for (ptrdiff_t k = aligned; k < lastStep; k += bytes) {
            Block block;
            combine<shifted>(block, d + k, s + k, shift);
            std::memcpy(d + k, &block, sizeof block);
        }
        std::memcpy(d, &first, sizeof first);
        std::memcpy(d + lastStep, &last, sizeof last);
    } while (rows.nextRow());
}

#ifdef QUORVIL_CHOSEN_BLIT
#ifdef __x86_64__
constexpr int chosenStep = 32;

bool machineHasChosenStep()
{
    return __builtin_cpu_supports("avx2");
}
#else
constexpr int chosenStep = 16;

bool machineHasChosenStep()
{
    return (getauxval(AT_HWCAP) & HWCAP_NEON) != 0;
}
#endif

template <bool shifted>
QUORVIL_CHOSEN_BLIT void orChosenRows(const Rows& rows)
{
    orWideRows<chosenStep, shifted>(rows);
}
#endif

/// Whole rows without a gap as one long row, where that is the same; else the rows as they are.
Rows joined(const Rows& rows)
{
    const int64_t pixels = int64_t{rows.count} * rows.rowCount;
    if (rows.srcBytesPerRow != rows.dstBytesPerRow || rows.count != int64_t{rows.srcBytesPerRow} * 8 ||
        pixels > std::numeric_limits<int>::max())
        return rows;
    Rows one = rows;
    one.count = static_cast<int>(pixels);
    one.rowCount = 1;
    return bytesMeet(one) ? rows : one;
}

/// ORs rows by the widest step that fits between the first byte and the last.
template <bool shifted>
[[gnu::noinline]] void orByWidestStep(const Rows& given)
{
    const Rows rows = shifted ? given : joined(given);
    const ptrdiff_t between = rows.dstBytes() - 2;
#ifdef QUORVIL_CHOSEN_BLIT
    if (between >= chosenStep && machineHasChosenStep())
        return orChosenRows<shifted>(rows);
#endif
    if (between >= 16)
        orWideRows<16, shifted>(rows);
    else if (between >= 8)
        orWideRows<8, shifted>(rows);
    else
        orWideRows<4, shifted>(rows);
}

void orRows(const Rows& rows)
{
    const bool shifted = rows.srcBitOffset != rows.dstBitOffset;
    const auto srcBytes = static_cast<size_t>(rows.srcBytes());
    const auto dstBytes = static_cast<size_t>(rows.dstBytes());
    if (bytesMeet(rows))
        orRowsByteByByte(rows);
    else if (std::max(srcBytes, dstBytes) > wordBytes)
        shifted ? orByWidestStep<true>(rows) : orByWidestStep<false>(rows);
    else if (shifted)
        wordRows[(dstBytes - 1) * 3 + srcBytes - dstBytes + 1](rows);
    else
        alignedWordRows[srcBytes - 1](rows);
}

/// What goes off each side of a length that begins at `from` in the source and at `to` in the destination, where the
/// source has `available` pixels and the destination takes those from `first` on, `room` pixels. In 64 bits, no sum of
/// the arguments overflows.
struct Cut
{
    Cut(int64_t from, int64_t available, int64_t to, int64_t first, int64_t room, int64_t length)
        : before(std::max({int64_t{0}, -from, first - to}))
        , behind(std::max({int64_t{0}, from + length - available, to + length - (first + room)}))
        , left(length - before - behind)
    {
    }

    int64_t before;
    int64_t behind;
    int64_t left;
};

} // namespace

namespace bmp {

Bitmap::Bitmap(uint8_t* memory, int width, int height, int stride)
    : pixels(memory)
    , widthPixels(width)
    , heightPixels(height)
    , bytesPerRow(stride)
    , clipX(0)
    , clipY(0)
    , clipW(width)
    , clipH(height)
{
    require(widthPixels > 0, "widthPixels > 0", file, __LINE__, constructorText);
    require(heightPixels > 0, "heightPixels > 0", file, __LINE__, constructorText);
    require(bytesPerRow >= ((int64_t{widthPixels} + 7) >> 3), "bytesPerRow >= ((widthPixels + 7) >> 3)", file, __LINE__,
            constructorText);
}

Bitmap::~Bitmap() = default;

void Bitmap::clip(int x, int y, int w, int h)
{
    require(x < widthPixels, "x < widthPixels", file, __LINE__, clipText);
    require(y < heightPixels, "y < heightPixels", file, __LINE__, clipText);
    const int64_t left = std::max(x, 0);
    const int64_t top = std::max(y, 0);
    const int64_t width = std::min(int64_t{x} + w, int64_t{widthPixels}) - left;
    const int64_t height = std::min(int64_t{y} + h, int64_t{heightPixels}) - top;
    require(width > 0, "w > 0", file, __LINE__, clipText);
    require(height > 0, "h > 0", file, __LINE__, clipText);
    clipX = static_cast<int>(left);
    clipY = static_cast<int>(top);
    clipW = static_cast<int>(width);
    clipH = static_cast<int>(height);
}

void Bitmap::unclip()
{
    clipX = 0;
    clipY = 0;
    clipW = widthPixels;
    clipH = heightPixels;
}

void Bitmap::insert(const Bitmap& src, int srcX, int srcY, int srcW, int srcH, int dstX, int dstY)
{
    const Cut across(srcX, src.widthPixels, dstX, clipX, clipW, srcW);
    const Cut down(srcY, src.heightPixels, dstY, clipY, clipH, srcH);
    if (down.left <= 0 || across.left <= 0)
        return;

    // What is left lies inside both images, so it fits an int again.
    srcX = static_cast<int>(srcX + across.before);
    dstX = static_cast<int>(dstX + across.before);
    srcW = static_cast<int>(across.left);
    srcY = static_cast<int>(srcY + down.before);
    dstY = static_cast<int>(dstY + down.before);
    srcH = static_cast<int>(down.left);
    require(srcX >= 0, "srcX >= 0", file, __LINE__, insertText);
    require(srcY >= 0, "srcY >= 0", file, __LINE__, insertText);
    require(srcX + srcW <= src.widthPixels, "srcX + srcW <= src.widthPixels", file, __LINE__, insertText);
    require(srcY + srcH <= src.heightPixels, "srcY + srcH <= src.heightPixels", file, __LINE__, insertText);
    require(dstX >= clipX, "dstX >= clipX", file, __LINE__, insertText);
    require(dstY >= clipY, "dstY >= clipY", file, __LINE__, insertText);
    require(dstX + srcW <= clipX + clipW, "dstX + srcW <= clipX + clipW", file, __LINE__, insertText);
    require(dstY + srcH <= clipY + clipH, "dstY + srcH <= clipY + clipH", file, __LINE__, insertText);
    require(clipX >= 0, "clipX >= 0", file, __LINE__, insertText);
    require(clipX < widthPixels, "clipX < widthPixels", file, __LINE__, insertText);
    require(clipY >= 0, "clipY >= 0", file, __LINE__, insertText);
    require(clipY < heightPixels, "clipY < heightPixels", file, __LINE__, insertText);
    require(clipX + clipW <= widthPixels, "clipX + clipW <= widthPixels", file, __LINE__, insertText);
    require(clipY + clipH <= heightPixels, "clipY + clipH <= heightPixels", file, __LINE__, insertText);

    orRows({.src = src.byteAt(srcX, srcY),
            .srcBytesPerRow = src.bytesPerRow,
            .srcBitOffset = srcX & 7,
            .dst = byteAt(dstX, dstY),
            .dstBytesPerRow = bytesPerRow,
            .dstBitOffset = dstX & 7,
            .count = srcW,
            .rowCount = srcH});
}

} // namespace bmp
