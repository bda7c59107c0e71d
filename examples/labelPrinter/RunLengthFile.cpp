#include "RunLengthFile.h"

#include "Failure.h"
#include "InputFile.h"
#include "ResultFiles.h"

#include "Quorvil/QuorvilBitStream.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <memory>

namespace labelPrinter {

namespace {

constexpr uint32_t magicAndVersion = 'Q' | 'R' << 8 | 'L' << 16 | 1 << 24;
static_assert(longestSide < 1 << 15, "the count of significant bits has 4 bits");

constexpr std::array<uint32_t, 256> makeCrcTable()
{
    std::array<uint32_t, 256> table{};
    for (uint32_t i = 0; i < 256; ++i) {
        table[i] = i;
        for (int bit = 0; bit < 8; ++bit)
            table[i] = table[i] >> 1 ^ ((table[i] & 1) != 0 ? 0xEDB88320U : 0);
    }
    return table;
}

constexpr std::array<uint32_t, 256> crcTable = makeCrcTable();

uint32_t crc32(uint32_t before, const uint8_t* bytes, size_t count)
{
    uint32_t crc = ~before;
    for (size_t i = 0; i < count; ++i)
        // NOLINTNEXTLINE(clang-analyzer-core.UndefinedBinaryOperatorResult): it does not follow the loop of the table
        crc = crc >> 8 ^ crcTable[(crc ^ bytes[i]) & 0xFF];
    return ~crc;
}

uint32_t checksum(const Image& image, int dotsPerInch)
{
    uint8_t sizes[6];
    size_t at = 0;
    for (int field : {image.width(), image.height(), dotsPerInch}) {
        sizes[at++] = static_cast<uint8_t>(field);
        sizes[at++] = static_cast<uint8_t>(field >> 8);
    }
    return crc32(crc32(0, sizes, sizeof sizes), image.bytes().data(), image.bytes().size());
}

/// How many pixels from `x` on have the colour told, up to the end of the row.
int runAt(const uint8_t* row, int x, int width, bool black)
{
    int end = x;
    while (end < width) {
        // The bits that differ, the pixel at `end` highest.
        const auto others = static_cast<uint8_t>((black ? ~row[end >> 3] : row[end >> 3]) << (end & 7));
        if (others != 0)
            return std::min(end + std::countl_zero(others), width) - x;
        end = (end | 7) + 1;
    }
    return width - x;
}

void writeNumber(BitOutputStream& bits, int number)
{
    const auto value = static_cast<uint32_t>(number);
    const auto significant = static_cast<int>(std::bit_width(value));
    bits.write(0, 4, static_cast<uint32_t>(significant));
    if (significant > 1)
        bits.write(0, significant - 1, value);
}

/// Counts the bits that are read, to find what is left of the last byte.
class Fields
{
public:
    explicit Fields(IByteInputStream& bytes)
        : bits(BitInputStream::create(bytes))
    {
    }

    uint32_t read(int count)
    {
        used = (used + static_cast<unsigned>(count)) % 8;
        return bits->read(count);
    }

    /// Whether the byte that was begun has only zeros left.
    bool endsInZeros()
    {
        return used == 0 || bits->read(static_cast<int>(8 - used)) == 0;
    }

private:
    std::shared_ptr<BitInputStream> bits;
    unsigned used = 0;
};

int readNumber(Fields& bits)
{
    const auto significant = static_cast<int>(bits.read(4));
    if (significant < 2)
        return significant;
    return static_cast<int>(bits.read(significant - 1) | 1U << (significant - 1));
}

int equalRowsBelow(const Image& image, int y)
{
    int below = y + 1;
    while (below < image.height() &&
           std::memcmp(image.row(y), image.row(below), static_cast<size_t>(image.bytesPerRow())) == 0)
        ++below;
    return below - y - 1;
}

void readRow(Fields& bits, const std::string& path, Image& image, int y)
{
    bool black = false;
    for (int x = 0; x < image.width(); black = !black) {
        const int run = readNumber(bits);
        // An empty run behind the first would let a file go on for ever without a pixel.
        if (run > image.width() - x || (run == 0 && (x > 0 || black)))
            throw Failure(path + ": damaged in row " + std::to_string(y + 1));
        if (black)
            image.blacken(x, y, run);
        x += run;
    }
}

} // namespace

void writeRunLengths(const Image& image, int dotsPerInch, ResultFile& file)
{
    const std::shared_ptr<BitOutputStream> bits = BitOutputStream::create(file);
    bits->write(0, 32, magicAndVersion);
    for (int field : {image.width(), image.height(), dotsPerInch})
        bits->write(0, 16, static_cast<uint32_t>(field));
    bits->write(0, 32, checksum(image, dotsPerInch));
    for (int y = 0; y < image.height();) {
        bool black = false;
        for (int x = 0; x < image.width(); black = !black) {
            const int run = runAt(image.row(y), x, image.width(), black);
            writeNumber(*bits, run);
            x += run;
        }
        const int equalRows = equalRowsBelow(image, y);
        writeNumber(*bits, equalRows);
        y += 1 + equalRows;
    }
    bits->flush();
}

Page readRunLengths(const std::string& path)
{
    InputFile file(path);
    Fields bits(file);
    if (bits.read(32) != magicAndVersion)
        throw Failure(path + ": no run-length file of this version (it does not begin with QRL and 1)");
    const auto width = static_cast<int>(bits.read(16));
    const auto height = static_cast<int>(bits.read(16));
    const auto dotsPerInch = static_cast<int>(bits.read(16));
    const uint32_t crc = bits.read(32);
    if (width < 1 || width > longestSide || height < 1 || height > longestSide || dotsPerInch < 1)
        throw Failure(path + ": the header tells a size that no page has");
    Page page{Image(width, height), dotsPerInch};
    for (int y = 0; y < height;) {
        readRow(bits, path, page.image, y);
        const int equalRows = readNumber(bits);
        if (equalRows > height - 1 - y)
            throw Failure(path + ": damaged in row " + std::to_string(y + 1));
        for (int below = y + 1; below <= y + equalRows; ++below)
            std::memcpy(page.image.row(below), page.image.row(y), static_cast<size_t>(page.image.bytesPerRow()));
        y += 1 + equalRows;
    }
    if (!bits.endsInZeros())
        throw Failure(path + ": the bits behind the last row are not 0");
    if (file.next() >= 0)
        throw Failure(path + ": the file goes on behind its last row");
    if (checksum(page.image, dotsPerInch) != crc)
        throw Failure(path + ": the picture does not match its checksum");
    return page;
}

} // namespace labelPrinter
