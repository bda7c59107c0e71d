// The initialisation gate.

#include "Quorvil/InitCondVar.h"
#include "tests/support/threadCalls.h"

#include <gtest/gtest.h>
#include <iostream>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

namespace {

/// What is written while threads of these names wait at the gate, `waits` times in all, until it opens.
std::string linesOf(util::InitCondVar& gate, const std::vector<const char*>& names, int waits)
{
    bool initialized = false;
    std::vector<std::thread> threads;
    pthread_cond_waitFault.calls = 0;
    testing::internal::CaptureStderr();
    for (const char* const name : names)
        threads.emplace_back([&, name] {
            gate.waitUntilInitialized(name);
            EXPECT_TRUE(initialized);
        });
    support::awaitCalls(pthread_cond_waitFault, waits);
    initialized = true;
    gate.setInitialized();
    for (std::thread& thread : threads)
        thread.join();
    gate.setInitialized();
    gate.waitUntilInitialized("nobody");
    return testing::internal::GetCapturedStderr();
}

const std::string heldA = "a is being blocked until motor has been initialized!\n";
const std::string heldB = "b is being blocked until motor has been initialized!\n";

TEST(InitCondVar, HoldsThreadsWithOneLineEachUntilItOpensForGood)
{
    util::InitCondVar gate("motor");
    const std::string lines = linesOf(gate, {"a", "b"}, 2);
    EXPECT_TRUE(lines == heldA + heldB || lines == heldB + heldA) << lines;
}

TEST(InitCondVar, StaysClosedUnderFailuresAndRepeatsTheLineAtAWakeUp)
{
    util::InitCondVar gate("motor");
    {
        const support::FaultScope fault(pthread_mutex_lockFault, EAGAIN);
        EXPECT_THROW(gate.setInitialized(), std::system_error);
        EXPECT_THROW(gate.waitUntilInitialized("a"), std::system_error);
    }
    const support::FaultScope wakesAtOnce(pthread_cond_waitFault, 0, 0, 1, 2);
    EXPECT_EQ(linesOf(gate, {"a"}, 3), heldA + heldA + heldA);
}

TEST(InitCondVar, WithoutTheWaitersNameLosesTheLineAndHoldsAllTheSame)
{
    util::InitCondVar gate("motor");
    EXPECT_EQ(linesOf(gate, {nullptr}, 1), "");
    EXPECT_TRUE(std::cerr.bad());
    std::cerr.clear();
}

} // namespace
