// Data on a real-time thread: what is promised to be bounded takes no memory.

#include "Quorvil/Bitmaps.h"
#include "Quorvil/QuorvilBitStream.h"
#include "Quorvil/QuorvilBits.h"
#include "Quorvil/QuorvilDataIO.h"
#include "Quorvil/QuorvilMystring.h"
#include "Quorvil/QuorvilParseNum.h"
#include "Quorvil/QuorvilPos.h"
#include "Quorvil/QuorvilSyncLockGroup.h"
#include "tests/support/allocationCount.h"

#include <gtest/gtest.h>

#include <array>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace {

TEST(Data, TakesNoMemoryWhereARealTimeThreadMayCallIt)
{
    std::array<uint8_t, 400> memory{0x81};
    std::vector<uint8_t> content(100, 0xA5);
    VecByteOutputStream written;
    const auto output = BitOutputStream::create(written);
    VecByteInputStream read(content);
    const auto input = BitInputStream::create(read);
    const std::string longText(100, 'a');
    std::string bytes = longText;
    std::wstring characters(100, L'a');
    tolmen::mystring text{std::string(longText)};
    tolmen::mywstring wide{std::wstring(characters)};
    quorvil::sync::LockGroup group;
    quorvil::BufferToFileThread thread;
    const struct
    {
        const char* name;
        std::function<bool()> use;
    } rows[] = {
        {"bitmap",
         [&] {
             bmp::Bitmap target(memory.data(), 80, 20, 10);
             target.clip(3, 2, 70, 10);
             for (const int width : {1, 60, 70, 80})
                 for (const int x : {0, 3})
                     target.insert(bmp::Bitmap(memory.data() + 200, 80, 20, 10), 0, 0, width, 20, x, 0);
             target.insert(target, 0, 0, 80, 20, 5, 1);
             target.unclip();
             target.orBit(9, 9, true);
             return target.getBit(9, 9) == 1;
         }},
        {"bits",
         [] {
             uint32_t word = 0;
             setBits(word, 4, 8, 0xFF);
             return bits(word, 4, 4) == 0xF;
         }},
        {"bit output",
         [&] {
             output->reset();
             for (int i = 1; i <= 32; ++i)
                 output->write(0, i, 0x55555555);
             output->writeBit(true);
             output->flush();
             written.flush();
             return written.bytes().size() == 67;
         }},
        {"bit input",
         [&] {
             VecByteInputStream moved(std::move(content));
             return input->read(32) == 0xA5A5A5A5 && input->read() == 1 && moved.readUint8() == 0xA5;
         }},
        {"empty byte output", [] { return VecByteOutputStream().bytes().empty(); }},
        {"numbers", [] { return parseNum("-42") + parseNum("0x2A") == quorvil::stream::normalizePos(-8, 8); }},
        {"string",
         [&] {
             tolmen::mystring moved(std::move(bytes));
             tolmen::mystring other;
             text.toUpperCase();
             text.toLowerCase();
             other = std::move(moved);
             return other == longText && other == text;
         }},
        {"wide string",
         [&] {
             tolmen::mywstring moved(std::move(characters));
             tolmen::mywstring other;
             wide.toLowerCase();
             wide.toUpperCase();
             other = std::move(moved);
             return other.equalsIgnoreCase(wide);
         }},
        {"files that are none",
         [&] {
             const quorvil::TextFileDataIO file(longText);
             unsigned char* position = memory.data();
             thread.start(1, group, memory.data(), 1, position, position);
             thread.run();
             thread.join();
             return position == memory.data();
         }},
    };
    output->write(0, 32, 0);
    for (int i = 1; i <= 34; ++i)
        output->write(0, 32, 0);
    for (const auto& row : rows) {
        const support::AllocationCount count;
        const bool right = row.use();
        EXPECT_EQ(count.allocations(), 0U) << row.name;
        EXPECT_TRUE(right) << row.name;
    }
}

} // namespace
