// Turns a fuzzer's bytes into numbers, the same under every compiler, so that a kept input replays anywhere.

#ifndef QUORVIL_FUZZ_INPUT_H
#define QUORVIL_FUZZ_INPUT_H

#include <cstddef>
#include <cstdint>
#include <limits>

namespace fuzz {

/// Numbers from the end of the bytes towards their start; 0 steps above the least one when the bytes are used up.
class Input
{
public:
    Input(const uint8_t* bytes, size_t size)
        : data(bytes)
        , left(size)
    {
    }

    /// A number of `least` to `greatest`.
    template <typename Number>
    Number inRange(Number least, Number greatest)
    {
        const uint64_t range = static_cast<uint64_t>(greatest) - static_cast<uint64_t>(least);
        uint64_t steps = 0;
        for (unsigned bits = 0; bits < 8 * sizeof(Number) && (range >> bits) > 0 && left > 0; bits += 8)
            steps = steps << 8 | data[--left];
        if (range != std::numeric_limits<uint64_t>::max())
            steps %= range + 1;
        return static_cast<Number>(static_cast<uint64_t>(least) + steps);
    }

    template <typename Number>
    Number any()
    {
        return inRange(std::numeric_limits<Number>::min(), std::numeric_limits<Number>::max());
    }

    bool flag()
    {
        return (any<uint8_t>() & 1) != 0;
    }

private:
    const uint8_t* data;
    size_t left;
};

} // namespace fuzz

#endif
