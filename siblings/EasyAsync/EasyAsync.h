// EasyAsync.h: stand-in of the component that keeps the futures of background tasks alive
// Sibling library, on nothing

#ifndef QUORVIL_SIBLINGS_EASYASYNC_H
#define QUORVIL_SIBLINGS_EASYASYNC_H

#include <future>

namespace quorvil::easyAsyncIntern {

/// Takes a future over and returns at once: the destructor of one from `std::async` would wait for its task.
///
/// Each future is kept until its task has ended; those of ended tasks go at the next call, and at the exit of the
/// process. The others stay in the store, so that a task that does not end cannot hold up the exit.
///
/// @param future          has a shared state; that of a deferred task never ends
/// @throws std::bad_alloc  no memory to keep it; the future stays the caller's
/// @threads any   @realtime allocates
void storeFuture(std::future<void>&& future);

} // namespace quorvil::easyAsyncIntern

#endif
