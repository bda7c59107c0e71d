// QuorvilRemovePathDots.h: a Unix path without its "." and ".." segments
// Data, on nothing

#ifndef QUORVIL_QUORVILREMOVEPATHDOTS_H
#define QUORVIL_QUORVILREMOVEPATHDOTS_H

#include "Quorvil/QuorvilExport.h"

#include <string>

namespace quorvilRemovePathDots {

/// Removes the "." and ".." segments of a Unix path in place. The text alone decides: no file system is looked at.
///
/// A ".." takes the segment before it away. A relative path keeps each ".." that leads above its start; an absolute
/// one must not lead above the root. Doubled separators count as one. A path that ends behind a separator or in "."
/// ends in `/` then, if a segment is left in front of it. What leads above the start stays as written: `a/../../b/..`
/// is `../`. An empty path stays empty; one that cancels out (`a/..`) becomes empty.
///
/// The very first segment of a relative path is taken as it stands: a leading ".." is never taken away (`../..` stays,
/// `../a/..` is `..`), but a leading "." stays (`./a`) and a ".." takes it away like any other (`./..` is empty).
///
/// A path that needs no change is only read: nothing is allocated for it. The string is the caller's alone
/// meanwhile.
///
/// @param s  the path; the result is never longer
/// @return false if an absolute path leads above the root; `s` is unchanged then
/// @throws std::bad_alloc  no memory; a relative path may be partly rewritten then
/// @threads any   @realtime allocates
QUORVIL_API bool removePathDots(std::string& s);

} // namespace quorvilRemovePathDots

#endif
