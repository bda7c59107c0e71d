// The calls that make, end and hold up threads, for tests that make them fail, stop them or watch them.

#ifndef QUORVIL_TESTS_SUPPORT_THREADCREATION_H
#define QUORVIL_TESTS_SUPPORT_THREADCREATION_H

#include "tests/support/interpose.h"

#include <atomic>
#include <fstream>
#include <string>
#include <thread>

#include <unistd.h>

extern support::Fault pthread_createFault, pthread_joinFault, pthread_mutex_lockFault, pthread_cond_waitFault,
    pthread_cond_broadcastFault, nanosleepFault;

namespace support {

/// What the attributes of the last `pthread_create` asked for; all 0 where there were none. The thread starts without
/// its policy, to which a test may have no right.
struct AskedThread
{
    bool operator==(const AskedThread&) const = default;

    size_t stackBytes;
    int inherit;
    int policy;
    int priority;
};
extern AskedThread asked;

/// What the last `nanosleep` was asked for. A call that is made to fail leaves a rest of 7 ns.
extern timespec askedPause;

/// A count that one thread raises and another awaits: an order of threads that leaves nothing to time. It takes no
/// mutex, so that no fault can strike in it.
struct Gate
{
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

    std::atomic<int> count{0};
};

/// Threads of this process now. A listing of them would leave one out while another one ends.
inline std::ptrdiff_t threadsNow()
{
    std::ifstream status("/proc/self/status");
    for (std::string word; word != "Threads:" && status >> word;)
        ;
    std::ptrdiff_t count = 0;
    status >> count;
    return count;
}

/// Returns once there are no more than `count` threads.
inline void awaitThreads(std::ptrdiff_t count)
{
    while (threadsNow() > count)
        std::this_thread::yield();
}

} // namespace support

#endif
