#include "tests/support/environment.h"

#include <gtest/gtest.h>

#include <unistd.h>

namespace {

/// Ends the program by SIGALRM when one test, whose name has just been printed, takes longer than a test may. It takes
/// no thread of its own, so that tests can count threads and fork.
class Watchdog : public testing::EmptyTestEventListener
{
    void OnTestStart(const testing::TestInfo&) override
    {
        alarm(100 * static_cast<unsigned>(support::stressFactor()));
    }
};

} // namespace

int main(int argc, char** argv)
{
    testing::InitGoogleTest(&argc, argv);
    // An emulated program cannot start itself again by exec.
    GTEST_FLAG_SET(death_test_style, support::emulated ? "fast" : "threadsafe");
    testing::UnitTest::GetInstance()->listeners().Append(new Watchdog);
    return RUN_ALL_TESTS();
}
