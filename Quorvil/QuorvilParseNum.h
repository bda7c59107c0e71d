// QuorvilParseNum.h: turns the text of a number into a value
// Data, on Foundation

#ifndef QUORVIL_QUORVILPARSENUM_H
#define QUORVIL_QUORVILPARSENUM_H

#include "Quorvil/QuorvilExport.h"

#include <cstdint>
#include <stdexcept>

/// A text is no number. Its `what()` is "ParseException"; neither the text nor the place of the fault is kept.
class QUORVIL_API ParseException : public std::invalid_argument
{
public:
    /// @threads any   @realtime allocates
    ParseException();
};

/// Gives the value of a decimal or hexadecimal text.
///
/// A text of at least three characters that begins with `0x` or `0X` is hexadecimal: it has no sign, and every
/// character behind the prefix that is no hexadecimal digit is skipped. Every other text is decimal: a `-` or nothing,
/// then nothing but digits. Without a digit, as in the empty text and in `-`, a decimal text is 0, and a leading zero
/// means no octal. What does not fit into 64 bits wraps: `0xFFFFFFFFFFFFFFFF` is -1. The time grows with the length of
/// the text.
///
/// @param s  ends in NUL, must not be null
/// @throws ParseException  a decimal text holds something other than a digit: a `+`, a blank, a letter; the exception
/// allocates
/// @threads any   @realtime bounded
QUORVIL_API int64_t parseNum(const char* s);

#endif
