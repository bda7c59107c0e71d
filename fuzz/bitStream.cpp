// The input is a program of writes and reads, run beside a model that goes bit by bit.

#include "Quorvil/QuorvilBitStream.h"
#include "fuzz/input.h"

#include <algorithm>
#include <vector>

namespace {

/// Counts what is fetched from it.
struct Source final : IByteInputStream
{
    static uint32_t byteAt(size_t position)
    {
        return static_cast<uint8_t>(position * 0x9D + (position >> 3));
    }

    uint8_t readUint8() override
    {
        return static_cast<uint8_t>(byteAt(fetched++));
    }

    size_t fetched = 0;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size)
{
    fuzz::Input data{bytes, size};
    VecByteOutputStream sink;
    const auto output = BitOutputStream::create(sink);
    std::vector<bool> written;
    Source source;
    const auto input = BitInputStream::create(source);
    size_t read = 0;
    while (data.left > 0) {
        const int firstBit = data.inRange(0, 1) * data.inRange(0, 63);
        const int numBits = data.inRange(1, std::min(data.inRange(0, 1) == 0 ? 32 : 64, 64 - firstBit));
        const auto value = static_cast<uint32_t>(data.inRange(INT32_MIN, INT32_MAX));
        output->write(firstBit, numBits, value);
        for (int bit = firstBit; bit < firstBit + numBits; ++bit)
            written.push_back((uint64_t{value} >> bit & 1) != 0);
        fuzz::require(sink.bytes().size() == written.size() / 32 * 4, "bytes written at another time");
        uint32_t expected = 0;
        for (int bit = 0; bit < std::min(numBits, 32); ++bit, ++read)
            expected |= (Source::byteAt(read / 8) >> read % 8 & 1) << bit;
        const bool right = input->read(std::min(numBits, 32)) == expected && source.fetched == (read + 7) / 8;
        fuzz::require(right, "another value, or fetched at another time");
    }
    output->flush();
    fuzz::require(sink.bytes().size() == (written.size() + 7) / 8, "another number of bytes");
    written.resize(sink.bytes().size() * 8);
    for (size_t bit = 0; bit < written.size(); ++bit)
        fuzz::require((sink.bytes()[bit / 8] >> bit % 8 & 1) == written[bit], "another bit");
    return 0;
}
