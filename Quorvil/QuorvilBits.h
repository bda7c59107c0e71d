// QuorvilBits.h: takes and replaces bit fields of a word
// Data, on Foundation

#ifndef QUORVIL_QUORVILBITS_H
#define QUORVIL_QUORVILBITS_H

#include "Quorvil/QuorvilAssert.h"

#include <cstdint>

/// Gives `bitCount` bits of `value` from bit `lowBitIdx` upward, moved down to bit 0; the bits above them are 0.
///
/// @param lowBitIdx  number of the lowest bit taken, 0 to 63; bit 0 is the least significant one
/// @param bitCount   1 to `64 - lowBitIdx`
/// @requires lowBitIdx >= 0 && lowBitIdx < 64 && bitCount > 0 && bitCount <= 64 - lowBitIdx
/// @threads any   @realtime bounded
inline uint64_t bits(uint64_t value, int lowBitIdx, int bitCount)
{
    quorvil::intern::require(lowBitIdx >= 0 && lowBitIdx < 64 && bitCount > 0 && bitCount <= 64 - lowBitIdx,
                             "lowBitIdx >= 0 && lowBitIdx < 64 && bitCount > 0 && bitCount <= 64 - lowBitIdx",
                             "Quorvil/QuorvilBits", __LINE__, "uint64_t bits(uint64_t, int, int)");
    return (value >> lowBitIdx) & (~0ULL >> (64 - bitCount));
}

/// Replaces `bitCount` bits of `target` from bit `lowBitIdx` upward by the low bits of `value`, and leaves the others
/// of `target` alone. Higher bits of `value` do not matter; 0 bits change nothing.
///
/// @param lowBitIdx  number of the lowest bit replaced, 0 to 31
/// @param bitCount   0 to `32 - lowBitIdx`
/// @requires lowBitIdx >= 0 && lowBitIdx < 32 && bitCount >= 0 && bitCount <= 32 - lowBitIdx
/// @threads one at a time   @realtime bounded
inline void setBits(uint32_t& target, int lowBitIdx, int bitCount, uint32_t value)
{
    quorvil::intern::require(lowBitIdx >= 0 && lowBitIdx < 32 && bitCount >= 0 && bitCount <= 32 - lowBitIdx,
                             "lowBitIdx >= 0 && lowBitIdx < 32 && bitCount >= 0 && bitCount <= 32 - lowBitIdx",
                             "Quorvil/QuorvilBits", __LINE__, "void setBits(uint32_t&, int, int, uint32_t)");
    // In 64 bits, where a shift by 32 has a meaning.
    const uint32_t mask = static_cast<uint32_t>((uint64_t{1} << bitCount) - 1) << lowBitIdx;
    target = (target & ~mask) | ((value << lowBitIdx) & mask);
}

#endif
