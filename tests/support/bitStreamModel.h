// A plain model of the bit streams, step by step and with recursion, and a pair of model and real streams that goes
// through the same operations. The tests and the fuzzer share it.

#ifndef QUORVIL_TESTS_SUPPORT_BITSTREAMMODEL_H
#define QUORVIL_TESTS_SUPPORT_BITSTREAMMODEL_H

#include "Quorvil/QuorvilBitStream.h"
#include "tests/support/assertionTrap.h"

#include <algorithm>
#include <string>
#include <string_view>

namespace bitStreamModel {

/// Keeps every call that a byte stream gets as text; the `failAt`th one is refused by an exception.
struct Wire final : IByteInputStream, IByteOutputStream
{
    struct Refusal
    {
    };

    void call(const std::string& what)
    {
        trace += what + ' ';
        if (failAt > 0 && --failAt == 0)
            throw Refusal();
    }

    uint8_t readUint8() override
    {
        call("read");
        return static_cast<uint8_t>(++fetched * 0x9D);
    }

    // clang-format off
    void writeUint8(uint8_t byte) override { call(std::to_string(byte)); }
    void flush() override { call("flush"); }
    void reset() override { call("reset"); }
    // clang-format on

    std::string trace;
    int failAt = 0;
    unsigned fetched = 0;
};

/// Fails as an assertion of the library does.
inline void check(bool condition, const char* expression, const char* file, const char* function)
{
    if (!condition)
        throw std::string(file) + ": " + function + ": " + expression;
}

inline uint64_t bits(uint64_t value, int low, int count)
{
    check(low >= 0 && low < 64 && count > 0 && count <= 64 - low,
          "lowBitIdx >= 0 && lowBitIdx < 64 && bitCount > 0 && bitCount <= 64 - lowBitIdx", "Quorvil/QuorvilBits",
          "uint64_t bits(uint64_t, int, int)");
    uint64_t result = 0;
    for (int bit = 0; bit < count; ++bit)
        result |= (value >> (low + bit) & 1) << bit;
    return result;
}

inline void setBits(uint32_t& target, int low, int count, uint32_t value)
{
    check(low >= 0 && low < 32 && count >= 0 && count <= 32 - low,
          "lowBitIdx >= 0 && lowBitIdx < 32 && bitCount >= 0 && bitCount <= 32 - lowBitIdx", "Quorvil/QuorvilBits",
          "void setBits(uint32_t&, int, int, uint32_t)");
    for (int bit = 0; bit < count; ++bit)
        target = (target & ~(1u << (low + bit))) | (value >> bit & 1) << (low + bit);
}

struct Output final : BitOutputStream
{
    explicit Output(Wire& to)
        : wire(to)
    {
    }

    void write(int firstBit, int numBits, uint32_t value) override
    {
        if (bitIdx == 32)
            flush();
        check(bitIdx >= 0 && bitIdx < 32, "bitIdx >= 0 && bitIdx < 32", "Quorvil/QuorvilBitStream",
              "virtual void BitOutputStreamImpl::write(int, int, uint32_t)");
        const int n = std::min(numBits, 32 - bitIdx);
        if (n == 0)
            return;
        setBits(bitBuffer, bitIdx, n, static_cast<uint32_t>(bits(value, firstBit, n)));
        bitIdx += n;
        write(firstBit + n, numBits - n, value);
    }

    void writeBit(bool bit) override
    {
        write(0, 1, bit);
    }

    void flush() override
    {
        for (; bitIdx > 0; bitBuffer >>= 8, bitIdx -= 8)
            wire.writeUint8(static_cast<uint8_t>(bitBuffer));
    }

    void reset() override
    {
        wire.reset();
        bitBuffer = 0;
        bitIdx = 0;
    }

    Wire& wire;
    uint32_t bitBuffer = 0;
    int bitIdx = 0;
};

struct Input final : BitInputStream
{
    explicit Input(Wire& to)
        : wire(to)
    {
    }

    void fetch()
    {
        curByte = wire.readUint8();
        doneBits = 0;
    }

    uint32_t read(int numBits) override
    {
        check(numBits >= 0 && numBits <= 32, "numBits >= 0 && numBits <= 32", "Quorvil/QuorvilBitStream",
              "virtual uint32_t BitInputStreamImpl::read(int)");
        if (doneBits == 8)
            fetch();
        int resOff = std::min(numBits, 8 - doneBits);
        auto res = static_cast<uint32_t>(bits(curByte, doneBits, resOff));
        if (resOff == numBits) {
            doneBits += numBits;
            return res;
        }
        for (; resOff < numBits; resOff += 8) {
            fetch();
            setBits(res, resOff, std::min(numBits - resOff, 8), curByte);
        }
        doneBits = numBits - resOff + 8;
        return res;
    }

    uint32_t read() override
    {
        return read(1);
    }

    Wire& wire;
    uint8_t curByte = 0;
    int doneBits = 8;
};

/// Runs `operation` and tells how it ended: its result, the assertion that it failed, or the byte stream's exception.
template <typename Operation>
std::string outcome(Operation operation)
{
    std::string result;
    try {
        const std::string failed = assertionTrap::failureOf([&] { result = std::to_string(operation()); });
        return failed.empty() ? result : failed;
    } catch (const std::string& refused) {
        return refused;
    } catch (const Wire::Refusal&) {
        return "refused by the byte stream";
    }
}

/// The real streams and the model, each on a wire of its own.
class Pair
{
public:
    /// Makes the given call of the byte stream the one that is refused, counted from the next.
    void failAt(int call)
    {
        realWire.failAt = modelWire.failAt = call;
    }

    /// Does the same to both and gives the number of calls that the byte stream got. Both have to end alike, with the
    /// same calls.
    template <typename Operation>
    int step(Operation operation)
    {
        realWire.trace.clear();
        modelWire.trace.clear();
        const std::string got = outcome([&] { return operation(*output, *input); }) + " after " + realWire.trace;
        const std::string wanted =
            outcome([&] { return operation(outputModel, inputModel); }) + " after " + modelWire.trace;
        if (got != wanted && difference.empty())
            difference = "got " + got + ", wanted " + wanted;
        return static_cast<int>(std::count(modelWire.trace.begin(), modelWire.trace.end(), ' '));
    }

    int write(int firstBit, int numBits, uint32_t value)
    {
        return step([=](BitOutputStream& out, BitInputStream&) { return out.write(firstBit, numBits, value), 0; });
    }

    int read(int numBits)
    {
        return step([=](BitOutputStream&, BitInputStream& in) { return in.read(numBits); });
    }

    /// The first step at which they differed; empty if none did.
    std::string difference;

private:
    Wire realWire, modelWire;
    std::shared_ptr<BitOutputStream> output = BitOutputStream::create(realWire);
    std::shared_ptr<BitInputStream> input = BitInputStream::create(realWire);
    Output outputModel{modelWire};
    Input inputModel{modelWire};
};

/// Takes `program` as operations, four bytes each, and gives the first difference.
inline std::string runProgram(std::basic_string_view<uint8_t> program)
{
    Pair pair;
    for (; program.size() >= 4; program.remove_prefix(4)) {
        const unsigned a = program[1], b = program[2], c = program[3];
        // Mostly what callers do, now and then a count or a place that has to be refused.
        const int numBits = a < 0xF0 ? static_cast<int>(a % 33) : static_cast<int8_t>(b);
        const int firstBit = c < 0x80 ? 0 : static_cast<int8_t>(c * 2);
        switch (program[0] % 16) {
        case 0:
            pair.step([](BitOutputStream& out, BitInputStream&) { return out.flush(), 0; });
            break;
        case 1:
            pair.step([](BitOutputStream& out, BitInputStream&) { return out.reset(), 0; });
            break;
        case 2:
            pair.step([](BitOutputStream&, BitInputStream& in) { return in.read(); });
            break;
        case 3:
            pair.step([=](BitOutputStream& out, BitInputStream&) { return out.writeBit(a % 2 != 0), 0; });
            break;
        case 4:
            pair.failAt(static_cast<int>(a % 8));
            break;
        case 5:
        case 6:
        case 7:
        case 8:
            pair.read(numBits);
            break;
        default:
            pair.write(firstBit, numBits, a * 0x01000193 ^ b * 0x00810001 ^ c << 13);
            break;
        }
    }
    return pair.difference;
}

} // namespace bitStreamModel

#endif
