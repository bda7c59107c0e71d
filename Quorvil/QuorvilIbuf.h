// QuorvilIbuf.h: last-resort report of an error number, and the highest real-time priority in use
// Foundation

#ifndef QUORVIL_QUORVILIBUF_H
#define QUORVIL_QUORVILIBUF_H

#include "Quorvil/QuorvilExport.h"

namespace quorvil::ibuf {

/// Reports an error number on standard error: an empty line, "**** ERROR - ", `what`, ": ", the text of `err` and an
/// empty line, handed to `perror`, which adds the text of the current `errno`.
///
/// @param what  what failed; a null text cuts the report short
/// @param err   the error number
/// @threads any   @realtime I/O
QUORVIL_API void perror_errno(const char* what, int err);

/// Gives a thread the policy `SCHED_FIFO` with priority 98 by `pthread_setschedparam`; 99 is left to the kernel's own.
///
/// A failure, for want of the right to it above all, is reported by `perror_errno`, and the caller goes on.
///
/// @param thread  a `pthread_t` of a living thread
/// @threads any   @realtime bounded on success, I/O on failure
QUORVIL_API void setSchedHighest(unsigned long thread);

} // namespace quorvil::ibuf

#endif
