// The calls that make, end and hold up threads, for tests that make them fail, stop them or watch them.

#ifndef QUORVIL_TESTS_SUPPORT_THREADCREATION_H
#define QUORVIL_TESTS_SUPPORT_THREADCREATION_H

#include "tests/support/interpose.h"

#include <atomic>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include <unistd.h>

extern support::Fault pthread_createFault, pthread_joinFault, pthread_detachFault, pthread_cancelFault,
    pthread_setspecificFault, pthread_attr_initFault, pthread_attr_destroyFault, pthread_attr_setstacksizeFault,
    pthread_attr_setinheritschedFault, pthread_attr_setschedpolicyFault, pthread_attr_getschedpolicyFault,
    pthread_attr_setschedparamFault, pthread_mutex_lockFault, pthread_cond_waitFault, pthread_cond_broadcastFault,
    nanosleepFault;

namespace support {

/// What the last `pthread_create` was asked for. The thread starts without its policy, to which a test may have no
/// right.
struct AskedThread
{
    bool withAttributes;
    size_t stackBytes;
    int inherit;
    int policy;
    sched_param parameters;
};
extern AskedThread asked;

/// What the last `nanosleep` was asked for. A call that is made to fail leaves a rest of 1 s and 7 ns.
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

/// Threads of this process, with those that a sanitizer adds when the first one is started. That first one is joined
/// and gone: the system lists a joined thread for a moment more, which an emulator makes a long one.
inline std::ptrdiff_t threadCount()
{
    std::filesystem::path entry;
    std::thread([&entry] { entry = "/proc/self/task/" + std::to_string(gettid()); }).join();
    while (std::filesystem::exists(entry))
        std::this_thread::yield();
    return threadsNow();
}

/// Returns once there are no more than `count` threads.
inline void awaitThreads(std::ptrdiff_t count)
{
    while (threadsNow() > count)
        std::this_thread::yield();
}

} // namespace support

#endif
