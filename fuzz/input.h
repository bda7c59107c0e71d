// What the fuzz harnesses share: numbers out of bytes, the same under every compiler, and the word on a difference.

#ifndef QUORVIL_FUZZ_INPUT_H
#define QUORVIL_FUZZ_INPUT_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace fuzz {

/// Ends the program unless the condition holds.
inline void require(bool condition, const char* text)
{
    if (condition)
        return;
    std::fprintf(stderr, "%s\n", text);
    std::abort();
}

/// Numbers from the end of the bytes towards their start; the least one when the bytes are used up.
struct Input
{
    int inRange(int least, int greatest)
    {
        const uint32_t range = static_cast<uint32_t>(greatest) - static_cast<uint32_t>(least);
        uint32_t steps = 0;
        for (unsigned bits = 0; bits < 32 && range >> bits > 0 && left > 0; bits += 8)
            steps = steps << 8 | bytes[--left];
        return static_cast<int>(static_cast<uint32_t>(least) + (range == UINT32_MAX ? steps : steps % (range + 1)));
    }

    const uint8_t* bytes;
    size_t left;
};

} // namespace fuzz

#endif
