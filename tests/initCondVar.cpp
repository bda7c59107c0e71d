// The initialisation gate.

#include "Quorvil/InitCondVar.h"
#include "tests/support/threadCalls.h"

#include <gtest/gtest.h>
#include <iostream>
#include <string>
#include <system_error>
#include <thread>

namespace {

const std::string heldA = "a is being blocked until motor has been initialized!\n";
const std::string heldB = "b is being blocked until motor has been initialized!\n";

TEST(InitCondVar, HoldsThreadsWithOneLineEachUntilItOpensForGood)
{
    util::InitCondVar gate("motor");
    int value = 0;
    pthread_cond_waitFault.calls = 0;
    testing::internal::CaptureStderr();
    std::thread a([&] {
        gate.waitUntilInitialized("a");
        EXPECT_EQ(value, 1);
    });
    std::thread b([&] {
        gate.waitUntilInitialized("b");
        EXPECT_EQ(value, 1);
    });
    support::awaitCalls(pthread_cond_waitFault, 2);
    value = 1;
    gate.setInitialized();
    a.join();
    b.join();
    gate.setInitialized();
    gate.waitUntilInitialized("nobody");
    const std::string lines = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(lines == heldA + heldB || lines == heldB + heldA) << lines;
}

TEST(InitCondVar, RepeatsTheLineAtAWakeUpWhileItIsClosed)
{
    util::InitCondVar gate("motor");
    testing::internal::CaptureStderr();
    const support::FaultScope wakesAtOnce(pthread_cond_waitFault, 0, 0, 1, 2);
    std::thread waiter([&] { gate.waitUntilInitialized("a"); });
    support::awaitCalls(pthread_cond_waitFault, 3);
    gate.setInitialized();
    waiter.join();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), heldA + heldA + heldA);
}

TEST(InitCondVar, WithoutTheWaitersNameLosesTheLineAndHoldsAllTheSame)
{
    util::InitCondVar gate("motor");
    pthread_cond_waitFault.calls = 0;
    testing::internal::CaptureStderr();
    std::thread waiter([&] { gate.waitUntilInitialized(nullptr); });
    support::awaitCalls(pthread_cond_waitFault, 1);
    gate.setInitialized();
    waiter.join();
    EXPECT_TRUE(std::cerr.bad());
    std::cerr.clear();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(InitCondVar, PassesTheFailureOfItsMutexOnAndStaysClosed)
{
    util::InitCondVar gate("motor");
    {
        const support::FaultScope fault(pthread_mutex_lockFault, EAGAIN);
        EXPECT_THROW(gate.setInitialized(), std::system_error);
        EXPECT_THROW(gate.waitUntilInitialized("a"), std::system_error);
    }
    pthread_cond_waitFault.calls = 0;
    testing::internal::CaptureStderr();
    std::thread waiter([&] { gate.waitUntilInitialized("a"); });
    support::awaitCalls(pthread_cond_waitFault, 1);
    gate.setInitialized();
    waiter.join();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), heldA);
}

} // namespace
