// QuorvilGlobalsIntern.h: the way to the file-local objects of QuorvilGlobals.cpp
// Foundation

#ifndef QUORVIL_QUORVILGLOBALSINTERN_H
#define QUORVIL_QUORVILGLOBALSINTERN_H

#include <mutex>
#include <pthread.h>

namespace ovxfsvm {
class DrivePathManager;
}

namespace quorvil::intern {

/// The one lock of `safeCout`, `safeCerr` and `safePrintf`. It needs no constructor: it holds before any.
std::recursive_mutex& consoleLock();

/// Whether `threadKey()` exists. It is settled when the library is loaded.
bool threadKeyCreated();

/// The key under which a managed thread finds itself; meaningless unless `threadKeyCreated()`.
pthread_key_t threadKey();

/// What the system library calls for each thread that ends with a value under `threadKey()`: `runFinished` of that
/// value, a `util::ThreadInternals*`. What it throws ends the process.
void threadKeyDestructor(void* value) noexcept;

/// The folders of the simulated printer's drives.
const ovxfsvm::DrivePathManager& drivePathManager();

} // namespace quorvil::intern

#endif
