#include "Quorvil/PollingThread.h"

#include "Quorvil/QuorvilAssert.h"

#include <cerrno>
#include <ctime>

IPollingThreadHandler::~IPollingThreadHandler() = default;

PollingThread::PollingThread(IPollingThreadHandler* handler_, int interval_)
    : interval(interval_)
    , handler(handler_)
{
    quorvil::intern::require(nullptr != handler, "nullptr != handler", "Quorvil/PollingThread", __LINE__,
                             "PollingThread::PollingThread(IPollingThreadHandler*, int)");
    // Last of all: the worker finds every field in place.
    thread = std::thread([this] { run(); });
}

PollingThread::~PollingThread()
{
    {
        const std::lock_guard lock(mutex);
        exit = true;
        startRequest = true;
        stopRequest = true;
    }
    cond.notify_one();
    thread.join();
}

void PollingThread::setInterval(int interval_)
{
    interval = interval_;
}

// Both decide under the mutex: the worker takes a request and turns it into `polling` in one step.

void PollingThread::start()
{
    {
        const std::lock_guard lock(mutex);
        if (polling)
            return;
        startRequest = true;
    }
    cond.notify_one();
}

void PollingThread::stop()
{
    const std::lock_guard lock(mutex);
    startRequest = false;
    if (!polling)
        return;
    stopRequest = true;
    polling = false;
}

void PollingThread::wait()
{
    const int microseconds = interval;
    if (microseconds < 1)
        return;
    timespec rest{};
    rest.tv_sec = microseconds / 1'000'000;
    rest.tv_nsec = (microseconds % 1'000'000) * 1000L;
    while (nanosleep(&rest, &rest) == -1 && errno == EINTR) {
    }
}

void PollingThread::sleep()
{
    std::unique_lock lock(mutex);
    cond.wait(lock, [this] { return startRequest.load(); });
    startRequest = false;
    stopRequest = false;
    polling = true;
}

void PollingThread::event()
{
    handler->event();
}

/// A `stop` whose `start` follows at once leaves `poll` through `stopRequest` and finds `startRequest` set in `sleep`.
void PollingThread::run()
{
    while (!exit) {
        sleep();
        // The destructor may have been what woke it.
        if (!exit)
            poll();
    }
}

void PollingThread::poll()
{
    while (!stopRequest) {
        wait();
        if (!stopRequest)
            event();
    }
}
