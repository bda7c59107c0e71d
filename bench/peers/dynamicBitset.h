// boost::dynamic_bitset as a bit stream: values are appended and taken bit by bit, which is all that it offers for
// widths that do not fill its blocks.

#ifndef QUORVIL_BENCH_PEERS_DYNAMICBITSET_H
#define QUORVIL_BENCH_PEERS_DYNAMICBITSET_H

#include <boost/dynamic_bitset.hpp>

#include <cstddef>
#include <cstdint>

namespace bench {

class DynamicBitset
{
public:
    explicit DynamicBitset(size_t capacity)
    {
        bits.reserve(capacity);
    }

    void clear()
    {
        bits.clear();
        position = 0;
    }

    void write(int numBits, uint32_t value)
    {
        for (int bit = 0; bit < numBits; ++bit)
            bits.push_back((value >> bit & 1) != 0);
    }

    size_t size() const
    {
        return bits.size();
    }

    void rewind()
    {
        position = 0;
    }

    uint32_t read(int numBits)
    {
        uint32_t value = 0;
        for (int bit = 0; bit < numBits; ++bit)
            value |= static_cast<uint32_t>(bits.test(position++)) << bit;
        return value;
    }

private:
    boost::dynamic_bitset<> bits;
    size_t position = 0;
};

} // namespace bench

#endif
