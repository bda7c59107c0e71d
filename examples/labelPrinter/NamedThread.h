// NamedThread.h: threads with names, as `ps -L` and a debugger show them

#ifndef LABELPRINTER_NAMEDTHREAD_H
#define LABELPRINTER_NAMEDTHREAD_H

#include "Quorvil/QuorvilPthread.h"

#include <functional>
#include <pthread.h>
#include <utility>

namespace labelPrinter {

/// Names the calling thread.
///
/// @param name  up to 15 characters
inline void nameThread(const char* name)
{
    pthread_setname_np(pthread_self(), name);
}

/// While it lives, the library may rename the calling thread, as it does where it starts another one.
class CallerKeepsName
{
public:
    CallerKeepsName()
    {
        pthread_getname_np(pthread_self(), name, sizeof name);
    }

    ~CallerKeepsName()
    {
        nameThread(name);
    }

    CallerKeepsName(const CallerKeepsName&) = delete;
    CallerKeepsName& operator=(const CallerKeepsName&) = delete;

private:
    char name[16] = "";
};

/// Starts a thread.
///
/// @param name  up to 15 characters
/// @param body  must not let an exception out
inline quorvil::Pthread startThread(const char* name, std::function<void()> body)
{
    constexpr uint32_t stackKiB = 1024;
    const CallerKeepsName callerKeepsName;
    return quorvil::Pthread(
        [name, body = std::move(body)]() -> void* {
            nameThread(name);
            body();
            return nullptr;
        },
        stackKiB);
}

} // namespace labelPrinter

#endif
