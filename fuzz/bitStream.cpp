// The input is a program of writes, run beside a model that goes bit by bit; what was written is read back.

#include "Quorvil/QuorvilBitStream.h"
#include "fuzz/input.h"

#include <algorithm>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size)
{
    fuzz::Input data{bytes, std::min(size, size_t{64})};
    VecByteOutputStream sink;
    const auto output = BitOutputStream::create(sink);
    std::vector<bool> written;
    std::vector<int> widths;
    for (uint32_t value = 0x9E3779B9; data.left > 0; value = value * 1664525 + 1013904223) {
        const int firstBit = std::max(0, data.inRange(-64, 63));
        const int numBits = data.inRange(1, 64 - firstBit);
        output->write(firstBit, numBits, value);
        for (int bit = firstBit; bit < firstBit + numBits; ++bit)
            written.push_back((uint64_t{value} >> bit & 1) != 0);
        widths.push_back(std::min(numBits, 32));
        fuzz::require(sink.bytes().size() == written.size() / 32 * 4, "bytes written at another time");
    }
    output->flush();
    fuzz::require(sink.bytes().size() == (written.size() + 7) / 8, "another number of bytes");
    VecByteInputStream source(sink.bytes());
    const auto input = BitInputStream::create(source);
    size_t read = 0;
    for (const int width : widths) {
        uint32_t expected = 0;
        for (int bit = 0; bit < width; ++bit, ++read)
            expected |= (written[read] ? 1U : 0U) << bit;
        fuzz::require(input->read(width) == expected, "another value");
    }
    return 0;
}
