// Console streams: whole statements stay together, and the lock comes back on every way out.

#include "Quorvil/NotYetImplemented.h"
#include "Quorvil/QuorvilLog.h"
#include "Quorvil/SafeLinuxCalls.h"
#include "Quorvil/ThreadSafeStream.h"
#include "tests/support/child.h"
#include "tests/support/interpose.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <future>
#include <gtest/gtest.h>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <sys/syscall.h>
#include <system_error>
#include <thread>
#include <vector>

SUPPORT_INTERPOSE(int, pthread_mutex_lock, (pthread_mutex_t * mutex), (mutex), noexcept)

namespace {

struct Nested
{
    int value;
};

std::ostream& operator<<(std::ostream& out, const Nested& nested)
{
    safeCout << "(inner " << nested.value << ")" << std::endl;
    return out << "outer";
}

struct Thrower
{
};

std::ostream& operator<<(std::ostream&, const Thrower&)
{
    throw std::runtime_error("value");
}

bool anotherThreadCanWrite()
{
    return std::async(std::launch::async, [] { return safePrintf("%s", ""); }).get() == 0;
}

TEST(ThreadSafeStream, KeepsWholeStatementsTogetherAcrossBothStreamsAndPrintf)
{
    constexpr int rounds = 300;
    const support::ChildResult child = support::runInChild(
        [] {
            std::setvbuf(stdout, nullptr, _IONBF, 0);
            std::vector<std::thread> threads;
            for (const char* name : {"a", "b"}) {
                threads.emplace_back([name] {
                    for (int i = 0; i < rounds; ++i)
                        safeCout << "<" << name << " " << i << " " << name << ">" << std::endl;
                });
                threads.emplace_back([name] {
                    for (int i = 0; i < rounds; ++i)
                        safeCerr << "<" << name << " " << i << " " << name << ">" << std::endl;
                });
                threads.emplace_back([name] {
                    for (int i = 0; i < rounds; ++i)
                        safePrintf("<%s %d %s>\n", name, i, name);
                });
            }
            for (std::thread& thread : threads)
                thread.join();
        },
        support::Streams::together);
    EXPECT_EQ(child.status, 0);
    std::istringstream lines(child.out);
    int count = 0;
    for (std::string line; std::getline(lines, line); ++count) {
        char name = 0;
        int round = 0;
        EXPECT_EQ(std::sscanf(line.c_str(), "<%c %d", &name, &round), 2) << line;
        EXPECT_EQ(line, std::string("<") + name + " " + std::to_string(round) + " " + name + ">");
    }
    EXPECT_EQ(count, 6 * rounds);
}

TEST(ThreadSafeStream, HoldsTheLockAsLongAsTheChainLives)
{
    testing::internal::CaptureStdout();
    std::future<int> other;
    {
        const tss::Internal chain = safeCout << "held";
        const tss::Internal copy = chain;
        other = std::async(std::launch::async, [] { return safePrintf(" then"); });
        EXPECT_EQ(other.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
        safeCout << std::flush << "!" << std::flush;
    }
    EXPECT_EQ(other.get(), 5);
    std::fflush(stdout);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "held! then");
}

TEST(ThreadSafeStream, LetsAValueWriteToASafeStreamOfItsOwn)
{
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    safeCerr << "[" << Nested{7} << "]";
    std::fflush(stdout);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "(inner 7)\n");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "[outer]");
    EXPECT_TRUE(anotherThreadCanWrite());
}

TEST(ThreadSafeStream, GivesTheLockBackOnEveryWayOut)
{
    testing::internal::CaptureStdout();
    EXPECT_THROW(safeCout << Thrower(), std::runtime_error);
    EXPECT_THROW(safeCout << "x" << Thrower(), std::runtime_error);
    EXPECT_TRUE(anotherThreadCanWrite());
    safeCout << static_cast<const char*>(nullptr) << "lost";
    EXPECT_TRUE(std::cout.bad());
    std::cout.clear();
    EXPECT_TRUE(anotherThreadCanWrite());
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "x");
}

TEST(ThreadSafeStream, ThrowsWhenTheLockCannotBeTakenAndWritesNothing)
{
    testing::internal::CaptureStdout();
    {
        const support::FaultScope fault(pthread_mutex_lockFault, EAGAIN);
        EXPECT_THROW(safeCout << "x", std::system_error);
        EXPECT_THROW(safeCout << std::endl, std::system_error);
        EXPECT_THROW(util::safe("f", "F", 1, -1, true), std::system_error);
        EXPECT_THROW(util::safePosix("f", "F", 1, EINVAL), std::system_error);
        EXPECT_THROW(nyi::nyi("colour"), std::system_error);
        try {
            safePrintf("x");
            ADD_FAILURE();
        } catch (const std::system_error& error) {
            EXPECT_EQ(error.code().value(), EAGAIN);
        }
    }
    {
        const tss::Internal chain = safeCout << "";
        const support::FaultScope fault(pthread_mutex_lockFault, EAGAIN);
        EXPECT_THROW(tss::Internal copy(chain), std::system_error);
    }
    std::fflush(stdout);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_TRUE(anotherThreadCanWrite());
}

TEST(ThreadSafeStream, AndThePlainLineFlushNothing)
{
    const support::ChildResult child = support::runInChild([] {
        std::ios::sync_with_stdio(true);
        safeCout << "a" << 1;
        safePrintf("b");
        my_printf("c");
        syscall(SYS_exit_group, 0); // a sanitizer flushes in its _exit
    });
    EXPECT_EQ(child.out, "");
}

TEST(SafePrintf, ReturnsWhatThePrintfReturns)
{
    const support::ChildResult child = support::runInChild([] {
        const int count = safePrintf("%s\n", "four");
        std::fflush(stdout);
        std::setvbuf(stdout, nullptr, _IONBF, 0);
        const int output = dup(STDOUT_FILENO);
        dup2(open("/dev/full", O_WRONLY), STDOUT_FILENO);
        const int failed = safePrintf("%s\n", "lost");
        dprintf(output, "%d %s", count, failed < 0 ? "negative" : "not negative");
    });
    EXPECT_EQ(child.out, "four\n5 negative");
}

} // namespace
