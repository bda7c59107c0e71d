// QuorvilCoreDump.h: leaves a core file of the running process without stopping it
// Diagnostics, on Foundation and siblings/EasyAsync

#ifndef QUORVIL_QUORVILCOREDUMP_H
#define QUORVIL_QUORVILCOREDUMP_H

#include "Quorvil/QuorvilExport.h"

namespace quorvil::coredump {

/// Raises the process's limit of core files to unlimited, by `setrlimit` with `RLIMIT_CORE`, so that a later crash
/// leaves one. It writes "rlim_max=-1" to standard output. A failure is told on standard error and ends the process by
/// `exit(1)`: an unprivileged process cannot raise a hard limit.
///
/// @threads any   @realtime I/O
QUORVIL_API void prepare();

/// Leaves a core file of the process as it is now, with the stack of the calling thread, and goes on at once.
///
/// Standard output is flushed first. A forked child does the steps of `prepare`, makes the folder by "mkdir -p "
/// through the shell, moves there and calls `abort()`. The parent's folder and limits stay as they are. Other threads
/// of the process are not in the core. A background task waits for the child and writes a line before and after that;
/// where no thread can be started for it, `run` itself waits.
///
/// Failures go through the logging call: without a child there is no dump, and a wait that fails ends its task; in the
/// child a folder that cannot be entered leaves the core in the process's own. A limit that cannot be raised is told on
/// standard error and leaves none. The name of the core file, and what else becomes of it, is the kernel's setting.
///
/// @param directory  the folder below "/data/coreDumps/", of one or several levels; null is an empty name. It reaches
///                   the shell as it stands: blanks and special characters act as they do there
/// @throws std::bad_alloc  after the child has ended: no memory to keep track of it
/// @threads any   @realtime I/O
QUORVIL_API void run(const char* directory);

} // namespace quorvil::coredump

#endif
