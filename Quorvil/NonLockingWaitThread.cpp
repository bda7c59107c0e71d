#include "Quorvil/NonLockingWaitThread.h"

#include "Quorvil/QuorvilAssert.h"

#include <cstdint>

#include <sched.h>

INonLockingWaitThreadHandler::~INonLockingWaitThreadHandler() = default;

NonLockingWaitThreadBase::NonLockingWaitThreadBase() = default;

NonLockingWaitThreadBase::~NonLockingWaitThreadBase()
{
    requestStop();
    joinWorker();
}

void NonLockingWaitThreadBase::start(INonLockingWaitThreadHandler* handler, int priority)
{
    constexpr uint32_t stackKiB = 128;
    quorvil::intern::require(nullptr != handler, "nullptr != handler", "Quorvil/NonLockingWaitThread", __LINE__,
                             "void NonLockingWaitThreadBase::start(INonLockingWaitThreadHandler*, int)");
    startedHandler = handler;
    thread = quorvil::Pthread([this] { return run(); }, stackKiB, SCHED_FIFO, priority);
}

void* NonLockingWaitThreadBase::run()
{
    while (!stop)
        waitOnce();
    return nullptr;
}

void NonLockingWaitThreadBase::requestStop()
{
    stop = true;
}

bool NonLockingWaitThreadBase::stopRequested() const
{
    return stop;
}

INonLockingWaitThreadHandler* NonLockingWaitThreadBase::handler() const
{
    return startedHandler;
}

void NonLockingWaitThreadBase::joinWorker()
{
    if (thread.joinable())
        thread.join();
}
