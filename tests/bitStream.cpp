#define QUORVIL_ASSERTION_TRAP
#include "Quorvil/QuorvilBitStream.h"
#include "Quorvil/QuorvilBits.h"
#include "tests/support/bitStreamModel.h"

#include <gmock/gmock.h>

#include <climits>
#include <cstring>
#include <locale>
#include <random>

using bitStreamModel::outcome;
using Bytes = std::vector<uint8_t>;

TEST(Bits, TakeReplaceAndRefuseEveryRange)
{
    constexpr uint64_t pattern = 0x9E3779B97F4A7C15;
    std::vector<int> numbers = {INT_MIN, INT_MIN + 63, INT_MAX - 31, INT_MAX};
    for (int number = -2; number <= 66; ++number)
        numbers.push_back(number);
    for (const int low : numbers)
        for (const int count : numbers) {
            ASSERT_EQ(outcome([=] { return bits(pattern, low, count); }),
                      outcome([=] { return bitStreamModel::bits(pattern, low, count); }))
                << low << ' ' << count;
            for (const uint32_t old : {0u, ~0u}) {
                uint32_t target = old;
                uint32_t wanted = old;
                ASSERT_EQ(outcome([&] { return setBits(target, low, count, static_cast<uint32_t>(pattern)), 0; }),
                          outcome([&] { return bitStreamModel::setBits(wanted, low, count, uint32_t(pattern)), 0; }));
                ASSERT_EQ(target, wanted) << low << ' ' << count;
            }
        }
}

TEST(BitOutputStream, AgreesWithTheModelFromEveryStateForEveryRangeAndEveryRefusedByte)
{
    for (int collected = 0; collected < 32; ++collected)
        for (const int firstBit : {INT_MIN, -1, 0, 1, 5, 31, 32, 33, 59, 63, 64, INT_MAX})
            for (const int numBits : {INT_MIN, -1, 0, 1, 2, 7, 8, 9, 24, 31, 32, 33, 40, 63, 64, 65, 96, INT_MAX})
                for (int failAt = 0, calls = 1; failAt <= calls; ++failAt) {
                    bitStreamModel::Pair pair;
                    pair.write(0, collected, 0x5A96C33C);
                    pair.failAt(failAt);
                    calls = pair.write(firstBit, numBits, 0xDEADBEEF);
                    // What is collected shows in the bytes, and how much of it in the place of a further bit.
                    pair.failAt(0);
                    pair.write(0, 1, 1);
                    pair.step([](BitOutputStream& out, BitInputStream&) { return out.flush(), 0; });
                    pair.write(0, 1, 1);
                    ASSERT_EQ(pair.difference, "") << collected << ' ' << firstBit << ' ' << numBits << ' ' << failAt;
                }
}

TEST(BitInputStream, AgreesWithTheModelFromEveryStateForEveryCountAndEveryFailedFetch)
{
    for (int done = 1; done <= 9; ++done)
        for (const int numBits : {INT_MIN, -1, 0, 1, 2, 7, 8, 9, 15, 16, 17, 23, 24, 25, 31, 32, 33, INT_MAX})
            for (int failAt = 0; failAt <= 5; ++failAt) {
                bitStreamModel::Pair pair;
                if (done <= 8)
                    pair.read(done);
                pair.failAt(failAt);
                pair.read(numBits);
                pair.failAt(0);
                for (int bit = 0; bit < 17; ++bit)
                    pair.read(1);
                ASSERT_EQ(pair.difference, "") << done << ' ' << numBits << ' ' << failAt;
            }
}

TEST(BitStreams, AgreeWithTheModelInRandomPrograms)
{
    std::mt19937 random(20260711);
    for (int round = 0; round < 3000; ++round) {
        std::basic_string<uint8_t> program(4 * 40, 0);
        for (uint8_t& byte : program)
            byte = static_cast<uint8_t>(random());
        ASSERT_EQ(bitStreamModel::runProgram(program), "") << round;
    }
}

TEST(BitStreams, PackFromTheLeastSignificantBitAndFetchNoByteBeforeItsFirstBit)
{
    const struct
    {
        int firstBit, numBits;
        uint32_t value, read;
        Bytes bytes; // of this field and those before it, from the last reset
    } rows[] = {{0, 3, 5, 5, {}},
                {0, 7, 0x55, 0x55, {0xAD, 0x02}},
                {0, 32, 0x12345678, 0x12345678, {0x78, 0x56, 0x34, 0x12}},
                {4, 8, 0xABCD, 0xBC, {0xBC}},
                {0, 7, 0, 0, {}},
                {0, 32, 0xFFFFFFFF, 0xFFFFFFFF, {0x80, 0xFF, 0xFF, 0xFF, 0x7F}}};
    VecByteOutputStream sink;
    const auto output = BitOutputStream::create(sink);
    std::vector<std::pair<int, uint32_t>> fields;
    for (const auto& row : rows) {
        output->write(row.firstBit, row.numBits, row.value);
        fields.emplace_back(row.numBits, row.read);
        if (row.bytes.empty())
            continue;
        output->flush();
        EXPECT_EQ(sink.bytes(), row.bytes);
        VecByteInputStream source(row.bytes);
        const auto input = BitInputStream::create(source);
        for (const auto& [numBits, value] : fields)
            EXPECT_EQ(input->read(numBits), value);
        input->read(8);
        EXPECT_EQ(input->read(32), 0u) << "behind the end";
        output->reset();
        fields.clear();
    }
}

TEST(BitStreams, LoseUnflushedBitsAndKeepTheCapacityOnReset)
{
    VecByteOutputStream sink;
    BitOutputStream::create(sink)->write(0, 31, ~0u);
    EXPECT_TRUE(sink.bytes().empty());
    for (uint8_t byte = 0; byte < 100; ++byte)
        sink.writeUint8(byte);
    const size_t capacity = sink.bytes().capacity();
    BitOutputStream::create(sink)->reset();
    sink.flush();
    EXPECT_TRUE(sink.bytes().empty());
    EXPECT_EQ(sink.bytes().capacity(), capacity);
}

/// The slot of a virtual operation; the two in front are the destructor's. The pointer holds the offset in the table,
/// on some machines plus 1.
template <typename Result, typename Class, typename... Arguments>
size_t slotOf(Result (Class::*operation)(Arguments...))
{
    size_t offset;
    std::memcpy(&offset, &operation, sizeof offset);
    return offset / sizeof(void*);
}

TEST(BitStreams, HaveTheirOperationsInTheirSlots)
{
    const size_t slots[] = {slotOf(&IByteInputStream::readUint8),
                            slotOf(&IByteOutputStream::writeUint8),
                            slotOf(&IByteOutputStream::flush),
                            slotOf(&IByteOutputStream::reset),
                            slotOf<uint32_t, BitInputStream, int>(&BitInputStream::read),
                            slotOf<uint32_t, BitInputStream>(&BitInputStream::read),
                            slotOf(&BitOutputStream::write),
                            slotOf(&BitOutputStream::writeBit),
                            slotOf(&BitOutputStream::flush),
                            slotOf(&BitOutputStream::reset)};
    EXPECT_THAT(slots, testing::ElementsAre(2, 2, 3, 4, 2, 3, 2, 3, 4, 5));
}

TEST(FormatBits32, PrintsTheWordWhateverTheLocaleIs)
{
    struct Grouping : std::numpunct<char>
    {
        std::string do_grouping() const override
        {
            return "\3";
        }
    };
    const std::locale before = std::locale::global(std::locale(std::locale::classic(), new Grouping));
    EXPECT_EQ(formatBits32(0x12345678), "\ndec: 305419896\nhex: 12345678\nbin:\n\n"
                                        " 31 30 29 28  27 26 25 24  23 22 21 20  19 18 17 16\n"
                                        "  0  0  0  1   0  0  1  0   0  0  1  1   0  1  0  0\n\n"
                                        " 15 14 13 12  11 10  9  8   7  6  5  4   3  2  1  0\n"
                                        "  0  1  0  1   0  1  1  0   0  1  1  1   1  0  0  0\n");
    EXPECT_EQ(formatBits32(0).substr(0, 20), "\ndec: 0\nhex: 0\nbin:\n");
    EXPECT_EQ(formatBits32(0xFFFFFFFF).substr(0, 31), "\ndec: 4294967295\nhex: ffffffff\n");
    std::locale::global(before);
}
