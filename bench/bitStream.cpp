// Values of 1 to 32 bits, written and read: the bit stream beside the bare virtual call for each byte, the least that
// anything over a byte stream has to pay, and beside boost::dynamic_bitset.

#include "Quorvil/QuorvilBitStream.h"
#include "bench/support.h"
#ifdef QUORVIL_PEER_DYNAMICBITSET
#include "bench/peers/dynamicBitset.h"
#endif

#include <cstdint>
#include <random>
#include <vector>

namespace {

constexpr size_t valueCount = 4096;

struct Value
{
    int numBits;
    uint32_t bits;
};

std::vector<Value> makeValues()
{
    std::mt19937 random(bench::seed);
    std::vector<Value> values(valueCount);
    for (Value& value : values) {
        value.numBits = static_cast<int>(random() % 32 + 1);
        value.bits = static_cast<uint32_t>(random()) >> (32 - value.numBits);
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

std::vector<uint8_t> pack()
{
    VecByteOutputStream bytes;
    writeAll(*BitOutputStream::create(bytes));
    return bytes.bytes();
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

void readOurs(benchmark::State& state)
{
    for (auto _ : state) {
        VecByteInputStream bytes(packed);
        const auto stream = BitInputStream::create(bytes);
        uint32_t sum = 0;
        for (const Value& value : values)
            sum += stream->read(value.numBits);
        benchmark::DoNotOptimize(sum);
    }
    finish(state);
}

void readCalls(benchmark::State& state)
{
    for (auto _ : state) {
        VecByteInputStream bytes(packed);
        IByteInputStream& stream = opaque<IByteInputStream>(bytes);
        uint32_t sum = 0;
        for (size_t index = 0; index < packed.size(); ++index)
            sum += stream.readUint8();
        benchmark::DoNotOptimize(sum);
    }
    finish(state);
}

BENCHMARK(writeOurs)->Name("bitStream/write/write");
BENCHMARK(writeCalls)->Name("bitStream/write/virtualCall");
BENCHMARK(readOurs)->Name("bitStream/read/read");
BENCHMARK(readCalls)->Name("bitStream/read/virtualCall");

#ifdef QUORVIL_PEER_DYNAMICBITSET

void writeBitset(benchmark::State& state)
{
    bench::DynamicBitset bits(valueCount * 32);
    for (auto _ : state) {
        bits.clear();
        for (const Value& value : values)
            bits.write(value.numBits, value.bits);
        benchmark::ClobberMemory();
    }
    for (size_t index = 0; index + 1 < packed.size(); ++index)
        if (bits.read(8) != packed[index])
            return state.SkipWithError("the peer wrote other bits");
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
