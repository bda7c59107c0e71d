// NotYetImplemented.h: marks code that is not written yet
// Foundation

#ifndef QUORVIL_NOTYETIMPLEMENTED_H
#define QUORVIL_NOTYETIMPLEMENTED_H

#include "Quorvil/QuorvilExport.h"

namespace nyi {

/// Writes ">>> NOT YET IMPLEMENTED: " and `what` as one line to `safeCerr` and ends the process.
///
/// @param what  what is missing; a null text cuts the line short
/// @throws std::system_error  the console lock cannot be taken
/// @requires false
/// @threads any   @realtime I/O
[[noreturn]] QUORVIL_API void nyi(const char* what);

} // namespace nyi

#endif
