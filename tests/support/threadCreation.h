// The calls that make, end and park threads, for tests that make them fail, stop them or watch them.

#ifndef QUORVIL_TESTS_SUPPORT_THREADCREATION_H
#define QUORVIL_TESTS_SUPPORT_THREADCREATION_H

#include "tests/support/interpose.h"

#include <array>
#include <cstddef>
#include <ctime>
#include <filesystem>
#include <iterator>
#include <string>
#include <thread>

#include <pthread.h>
#include <unistd.h>

extern support::Fault pthread_createFault, pthread_joinFault, pthread_detachFault, pthread_cancelFault,
    pthread_setspecificFault, pthread_attr_initFault, pthread_attr_destroyFault, pthread_attr_setstacksizeFault,
    pthread_attr_setinheritschedFault, pthread_attr_setschedpolicyFault, pthread_attr_getschedpolicyFault,
    pthread_attr_setschedparamFault, nanosleepFault;

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

/// Never fails; its hook is what a new thread does first.
extern Fault threadStart;

/// What the last calls of `nanosleep` were asked for; the next one goes to place `nanosleepFault.calls`, from 0. A call
/// that is made to fail leaves a rest of 1 s and 7 ns.
extern std::array<timespec, 16> pauses;

/// Threads of this process now.
inline std::ptrdiff_t threadsNow()
{
    return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {});
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
