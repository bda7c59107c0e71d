// Values of 1 to 32 bits, written and read: the bit stream beside the bare virtual call for each byte, the least that
// anything over a byte stream has to pay, and beside boost::dynamic_bitset.

#include "Quorvil/QuorvilBitStream.h"
#include "bench/support.h"
#ifdef QUORVIL_PEER_DYNAMICBITSET
#include "bench/peers/dynamicBitset.h"
#endif

#include <cstdint>
#include <memory>
#include <optional>
#include <random>
#include <vector>

namespace {

constexpr size_t valueCount = 4096;

struct Value
{
    int numBits;
    uint32_t bits;
};

/// Values of random widths that end on a byte border, so that their bytes can follow each other.
std::vector<Value> makeValues()
{
    std::mt19937 random(bench::seed);
    std::vector<Value> values(valueCount);
    int total = 0;
    for (Value& value : values) {
        value.numBits = &value == &values.back() ? 8 - total % 8 : static_cast<int>(random() % 32 + 1);
        value.bits = static_cast<uint32_t>(random()) >> (32 - value.numBits);
        total += value.numBits;
    }
    return values;
}

const std::vector<Value> values = makeValues();

/// Keeps the compiler from knowing what class stands behind the interface.
template <typename Interface>
Interface& opaque(Interface& object)
{
    Interface* pointer = &object;
    benchmark::DoNotOptimize(pointer);
    return *pointer;
}

void writeAll(BitOutputStream& stream)
{
    for (const Value& value : values)
        stream.write(0, value.numBits, value.bits);
    stream.flush();
}

/// The bytes that the values have to become, bit by bit.
std::vector<uint8_t> pack()
{
    std::vector<uint8_t> bytes;
    size_t position = 0;
    for (const Value& value : values)
        for (int bit = 0; bit < value.numBits; ++bit, ++position) {
            bytes.resize(position / 8 + 1);
            bytes.back() = static_cast<uint8_t>(bytes.back() | (value.bits >> bit & 1) << position % 8);
        }
    return bytes;
}

const std::vector<uint8_t> packed = pack();

void finish(benchmark::State& state)
{
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(valueCount));
}

void writeOurs(benchmark::State& state)
{
    VecByteOutputStream bytes;
    const auto stream = BitOutputStream::create(bytes);
    writeAll(*stream);
    if (bytes.bytes() != packed)
        return state.SkipWithError("write wrote other bits");
    for (auto _ : state) {
        stream->reset();
        writeAll(*stream);
        benchmark::ClobberMemory();
    }
    finish(state);
}

void writeCalls(benchmark::State& state)
{
    VecByteOutputStream bytes;
    IByteOutputStream& stream = opaque<IByteOutputStream>(bytes);
    for (auto _ : state) {
        stream.reset();
        for (const uint8_t byte : packed)
            stream.writeUint8(byte);
        benchmark::ClobberMemory();
    }
    finish(state);
}

/// Lets `pass` read the values again and again. The byte stream holds them many times over, so that its set-up does not
/// count.
template <typename Pass>
void readPasses(benchmark::State& state, Pass pass)
{
    constexpr int copies = 16;
    std::vector<uint8_t> content;
    for (int copy = 0; copy < copies; ++copy)
        content.insert(content.end(), packed.begin(), packed.end());
    std::optional<VecByteInputStream> bytes;
    std::shared_ptr<BitInputStream> stream;
    int left = 0;
    for (auto _ : state) {
        if (left-- == 0) {
            left = copies - 1;
            stream = BitInputStream::create(bytes.emplace(content));
        }
        benchmark::DoNotOptimize(pass(*stream, opaque<IByteInputStream>(*bytes)));
    }
    finish(state);
}

void readOurs(benchmark::State& state)
{
    VecByteInputStream source(packed);
    const auto checked = BitInputStream::create(source);
    for (const Value& value : values)
        if (checked->read(value.numBits) != value.bits)
            return state.SkipWithError("read reads other values");
    readPasses(state, [](BitInputStream& stream, IByteInputStream&) {
        uint32_t sum = 0;
        for (const Value& value : values)
            sum += stream.read(value.numBits);
        return sum;
    });
}

void readCalls(benchmark::State& state)
{
    VecByteInputStream checked(packed);
    for (const uint8_t byte : packed)
        if (checked.readUint8() != byte)
            return state.SkipWithError("the byte stream reads other bytes");
    readPasses(state, [](BitInputStream&, IByteInputStream& bytes) {
        uint32_t sum = 0;
        for (size_t index = 0; index < packed.size(); ++index)
            sum += bytes.readUint8();
        return sum;
    });
}

BENCHMARK(writeOurs)->Name("bitStream/write/write");
BENCHMARK(writeCalls)->Name("bitStream/write/virtualCall");
BENCHMARK(readOurs)->Name("bitStream/read/read");
BENCHMARK(readCalls)->Name("bitStream/read/virtualCall");

#ifdef QUORVIL_PEER_DYNAMICBITSET

void writeBitset(benchmark::State& state)
{
    bench::DynamicBitset bits(valueCount * 32);
    const auto write = [&bits] {
        bits.clear();
        for (const Value& value : values)
            bits.write(value.numBits, value.bits);
    };
    write();
    bool equal = bits.size() == 8 * packed.size();
    for (size_t index = 0; equal && index < packed.size(); ++index)
        equal = bits.read(8) == packed[index];
    if (!equal)
        return state.SkipWithError("the peer wrote other bits");
    for (auto _ : state) {
        write();
        benchmark::ClobberMemory();
    }
    finish(state);
}

void readBitset(benchmark::State& state)
{
    bench::DynamicBitset bits(valueCount * 32);
    for (const Value& value : values)
        bits.write(value.numBits, value.bits);
    for (const Value& value : values)
        if (bits.read(value.numBits) != value.bits)
            return state.SkipWithError("the peer reads other values");
    for (auto _ : state) {
        bits.rewind();
        uint32_t sum = 0;
        for (const Value& value : values)
            sum += bits.read(value.numBits);
        benchmark::DoNotOptimize(sum);
    }
    finish(state);
}

BENCHMARK(writeBitset)->Name("bitStream/write/dynamicBitset");
BENCHMARK(readBitset)->Name("bitStream/read/dynamicBitset");

#endif

} // namespace

int main(int argc, char** argv)
{
    return bench::run(argc, argv, true);
}
