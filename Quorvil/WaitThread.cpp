#include "Quorvil/WaitThread.h"

#include "Quorvil/QuorvilAssert.h"

IWaitThreadHandler::~IWaitThreadHandler() = default;

WaitThread::WaitThread(IWaitThreadHandler* handler_)
    : handler(handler_)
{
    quorvil::intern::require(nullptr != handler, "nullptr != handler", "Quorvil/WaitThread", __LINE__,
                             "WaitThread::WaitThread(IWaitThreadHandler*)");
    // Last of all: the worker finds every field in place.
    thread = std::thread([this] { run(); });
}

WaitThread::~WaitThread()
{
    {
        const std::lock_guard lock(mutex);
        notified = true;
        exit = true;
    }
    cond.notify_one();
    thread.join();
}

void WaitThread::notify()
{
    {
        const std::lock_guard lock(mutex);
        notified = true;
    }
    cond.notify_one();
}

void WaitThread::wait()
{
    std::unique_lock lock(mutex);
    cond.wait(lock, [this] { return notified; });
    notified = false;
}

void WaitThread::event()
{
    handler->event();
}

/// Between `wait` and `event` nobody asks for `exit`: the wake-up of the destructor is delivered like any other.
void WaitThread::run()
{
    while (!exit) {
        wait();
        event();
    }
}
