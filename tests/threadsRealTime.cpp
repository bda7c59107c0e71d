// What of threads and timers a real-time thread may call takes no memory.

#include "Quorvil/NonLockingWaitThread.h"
#include "Quorvil/PollingThread.h"
#include "Quorvil/QuorvilLinuxTimer.h"
#include "Quorvil/QuorvilPeriodicTimer.h"
#include "Quorvil/TestThreadState.h"
#include "Quorvil/Thread.h"
#include "tests/support/allocationCount.h"

#include <gtest/gtest.h>
#include <optional>

namespace {

struct Body : util::Thread
{
    Body()
        : Thread("body")
    {
    }
    void run() override {}
};

struct Worker : NonLockingWaitThreadBase
{
    void waitOnce() override {}
    using NonLockingWaitThreadBase::handler;
    using NonLockingWaitThreadBase::requestStop;
    using NonLockingWaitThreadBase::stopRequested;
};

struct OpenTimer : quorvil::PeriodicTimer
{
    using Timer::getCallback;
};

struct Handler : IPollingThreadHandler
{
    void event() override {}
};

TEST(ThreadsAndTimers, TakeNoMemoryWhereARealTimeThreadMayCallThem)
{
    Body body;
    Handler handler;
    PollingThread polling(&handler, 1000);
    OpenTimer timer;
    std::optional<Worker> worker;
    const support::AllocationCount count;
    worker.emplace(); // NonLockingWaitThreadBase() starts nothing
    worker->requestStop();
    const bool stopped = worker->stopRequested() && worker->handler() == nullptr;
    polling.setInterval(2000);
    const quorvil::LinuxTimer linuxTimer; // LinuxTimer() makes no call
    timer.setCallback(nullptr);
    const quorvil::TimerCallback* const callback = timer.getCallback();
    const util::TestSleeps sleeps(5); // TestSleeps() stores its number
    const util::Thread* const current = util::Thread::current();
    const int state = body.getState();
    EXPECT_EQ(count.allocations() + count.releases(), 0U);
    EXPECT_TRUE(stopped && callback == nullptr && current == nullptr && state == 0);
}

} // namespace
