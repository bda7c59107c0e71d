// The calls under locks, conditions, semaphores and the wall clock, for tests that make them fail, stop them or watch
// them.

#ifndef QUORVIL_TESTS_SUPPORT_THREADCALLS_H
#define QUORVIL_TESTS_SUPPORT_THREADCALLS_H

#include "tests/support/interpose.h"

#include <atomic>
#include <cstdint>
#include <thread>
#include <vector>

extern support::Fault pthread_mutexattr_initFault, pthread_mutexattr_settypeFault, pthread_mutexattr_destroyFault,
    pthread_mutex_initFault, pthread_mutex_destroyFault, pthread_mutex_lockFault, pthread_mutex_clocklockFault,
    pthread_condattr_initFault, pthread_condattr_setclockFault, pthread_condattr_destroyFault, pthread_cond_initFault,
    pthread_cond_destroyFault, pthread_cond_signalFault, pthread_cond_broadcastFault, pthread_cond_waitFault,
    pthread_cond_timedwaitFault, sem_initFault, sem_destroyFault, sem_waitFault, sem_timedwaitFault, sem_trywaitFault,
    sem_postFault, sem_getvalueFault;

namespace support {

/// For the calling thread: true lets `pthread_mutex_lock` fail with EBUSY instead of waiting.
void tryLocksOnly(bool tries);
/// Whether a lock of the calling thread has failed so.
bool lockWasTaken();

/// While it lives, the wall clock of the process shows these readings in turn, in nanoseconds, and the last one on.
class WallClock
{
public:
    explicit WallClock(std::vector<int64_t> readings);
    ~WallClock();

    WallClock(const WallClock&) = delete;
    WallClock& operator=(const WallClock&) = delete;

    int64_t next();

private:
    std::vector<int64_t> readings;
    std::atomic<size_t> used{0};
};

/// A count that one thread raises and another awaits: an order of threads that leaves nothing to time. It takes no
/// mutex, so that no fault can strike in it.
class Gate
{
public:
    void open()
    {
        ++count;
        count.notify_all();
    }

    /// Returns once the gate was opened `times` times.
    void await(int times = 1) const
    {
        for (int seen = count; seen < times; seen = count)
            count.wait(seen);
    }

    bool opened(int times = 1) const
    {
        return count >= times;
    }

private:
    std::atomic<int> count{0};
};

/// Returns once the function was called so often since its `calls` were set to 0.
inline void awaitCalls(const Fault& fault, int times)
{
    while (fault.calls < times)
        std::this_thread::yield();
}

/// Runs `body` on another thread, and tells whether each mutex that it locked was free: one that was not fails with
/// EBUSY instead of waiting.
template <typename Body>
bool findsFree(Body body)
{
    bool free = false;
    std::thread([&] {
        tryLocksOnly(true);
        body();
        free = !lockWasTaken();
    }).join();
    return free;
}

} // namespace support

#endif
