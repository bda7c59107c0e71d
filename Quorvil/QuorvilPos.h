// QuorvilPos.h: a position with a stream format, and its folding into a range
// Data, on Foundation

#ifndef QUORVIL_QUORVILPOS_H
#define QUORVIL_QUORVILPOS_H

#include "Quorvil/QuorvilExport.h"

#include <iosfwd>

namespace quorvil {

/// A position.
struct Pos
{
    int pos;
};

/// Writes the position as `(Pos 12)`, without a newline; the number comes out as the stream formats it.
/// The stream is the caller's alone meanwhile.
///
/// @threads owner   @realtime I/O
QUORVIL_API std::ostream& operator<<(std::ostream& stream, const Pos& position);

namespace stream {

/// Gives the value in 0 to `size - 1` that equals `pos` modulo `size`, for a negative `pos` too: -1 of 8 is 7.
///
/// @param size  above 0; a smaller one gives 0
/// @threads any   @realtime bounded
QUORVIL_API int normalizePos(int pos, int size);

} // namespace stream

} // namespace quorvil

#endif
