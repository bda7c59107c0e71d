#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

namespace {

constexpr unsigned longestTestSeconds = 100;
char runningTest[256];

void endHungTest(int)
{
    static constexpr char words[] = " hangs, says the watchdog\n";
    [[maybe_unused]] ssize_t written = write(STDERR_FILENO, runningTest, std::strlen(runningTest));
    written = write(STDERR_FILENO, words, sizeof words - 1);
    std::abort();
}

/// Ends the program when one test takes longer than a test may, with the name of that test. It takes a signal and no
/// thread of its own, so that tests can count threads and fork.
class Watchdog : public testing::EmptyTestEventListener
{
    void OnTestStart(const testing::TestInfo& info) override
    {
        std::snprintf(runningTest, sizeof runningTest, "%s.%s", info.test_suite_name(), info.name());
        std::signal(SIGALRM, endHungTest);
        alarm(longestTestSeconds);
    }

    void OnTestEnd(const testing::TestInfo&) override
    {
        alarm(0);
    }
};

} // namespace

int main(int argc, char** argv)
{
    testing::InitGoogleTest(&argc, argv);
#ifdef __arm__
    // An emulated program cannot start itself again by exec.
    GTEST_FLAG_SET(death_test_style, "fast");
#else
    GTEST_FLAG_SET(death_test_style, "threadsafe");
#endif
    testing::UnitTest::GetInstance()->listeners().Append(new Watchdog);
    return RUN_ALL_TESTS();
}
