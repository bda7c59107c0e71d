// Console input on a thread of its own, the store of futures under it, and the counter for tests.

#include "Quorvil/QuorvilAsyncInput.h"
#include "Quorvil/TestThreadState.h"
#include "siblings/EasyAsync/EasyAsync.h"
#include "tests/support/threadCalls.h"
#include "tests/support/threadCreation.h"

#include <cerrno>
#include <future>
#include <gtest/gtest.h>
#include <ios>
#include <iostream>
#include <memory>
#include <sstream>
#include <streambuf>
#include <string>
#include <system_error>
#include <thread>

namespace {

using quorvil::easyAsyncIntern::storeFuture;
using quorvil::test::asyncInput;
using quorvil::test::AsyncInput;
using support::Gate;

/// An operator: the line comes when the gate opens.
class Operator : public std::streambuf
{
public:
    explicit Operator(const std::string& text_)
        : text(text_)
    {
        setg(text.data(), text.data(), text.data());
    }

    Gate returnKey;

private:
    int_type underflow() override
    {
        returnKey.await();
        if (egptr() == text.data() + text.size())
            return traits_type::eof();
        setg(text.data(), text.data(), text.data() + text.size());
        return traits_type::to_int_type(*gptr());
    }

    std::string text;
};

/// Puts a buffer in a stream's place as long as it lives.
class Replaced
{
public:
    Replaced(std::ios& stream_, std::streambuf* buffer)
        : stream(stream_)
        , former(stream_.rdbuf(buffer))
    {
    }

    ~Replaced()
    {
        stream.rdbuf(former);
        stream.clear();
    }

    Replaced(const Replaced&) = delete;
    Replaced& operator=(const Replaced&) = delete;

private:
    std::ios& stream;
    std::streambuf* former;
};

/// Each test waits for the end of its tasks.
class AsyncInputTest : public testing::Test
{
protected:
    ~AsyncInputTest() override
    {
        support::awaitThreads(before);
    }

    const std::ptrdiff_t before = support::threadCount();
};

TEST_F(AsyncInputTest, ALineComesWithoutItsNewlineAndAnEndedStreamGivesAnEmptyOne)
{
    std::istringstream in("first\n\nlast");
    for (const std::string expected : {"first", "", "last", ""})
        EXPECT_EQ(asyncInput(in).get(), expected);
}

TEST_F(AsyncInputTest, TheConstructorReadsAndTheCallerGoesOnUntilTheLineIsThere)
{
    for (const std::string text : {"yes\nno\n", ""}) {
        const std::string expected = text.substr(0, text.find('\n'));
        Operator person(text);
        const Replaced console(std::cin, &person);
        {
            AsyncInput input;
            EXPECT_FALSE(input.done());
            person.returnKey.open();
            input.wait();
            EXPECT_TRUE(input.done());
            EXPECT_EQ(input.join(), expected);
            EXPECT_EQ(input.join(), expected);
        }
        std::string rest;
        std::getline(std::cin, rest);
        EXPECT_EQ(rest, text.empty() ? "" : "no");
    }
}

TEST_F(AsyncInputTest, TheDestructorWaitsForTheLine)
{
    Operator person("line\nrest");
    const Replaced console(std::cin, &person);
    pthread_cond_waitFault.calls = 0;
    std::thread operatorThread([&] {
        support::awaitCalls(pthread_cond_waitFault, 1);
        person.returnKey.open();
    });
    {
        const AsyncInput input;
    }
    EXPECT_TRUE(person.returnKey.opened());
    operatorThread.join();
    std::string rest;
    std::getline(std::cin, rest);
    EXPECT_EQ(rest, "rest");
}

TEST_F(AsyncInputTest, AnExceptionOfTheStreamStaysInItsTaskAndSignalsNothing)
{
    // The task signals nothing, so that the thread sanitizer sees no order between its end and that of a local.
    static std::istringstream in;
    in.exceptions(std::ios::eofbit);
    static std::mutex mutex;
    static std::condition_variable cond;
    static bool finished = false;
    static std::string input = "untouched";
    asyncInput(in, mutex, cond, finished, input);
    support::awaitThreads(before);
    const std::lock_guard lock(mutex);
    EXPECT_FALSE(finished);
    EXPECT_EQ(input, "untouched");
}

TEST_F(AsyncInputTest, WithoutAThreadItIsASystemError)
{
    const support::FaultScope fault(pthread_createFault, EAGAIN);
    EXPECT_THROW(AsyncInput(), std::system_error);
}

TEST(StoreFuture, KeepsEachFutureUntilItsTaskHasEndedAndDropsItAtTheNextCall)
{
    const auto before = support::threadCount();
    Gate go;
    auto held = std::make_shared<int>();
    const std::weak_ptr<int> kept = held;
    storeFuture(std::async(std::launch::async, [&go, mine = std::move(held)] { go.await(); }));
    storeFuture(std::async(std::launch::async, [] {}));
    EXPECT_FALSE(kept.expired());
    go.open();
    support::awaitThreads(before);
    EXPECT_FALSE(kept.expired());
    storeFuture(std::async(std::launch::async, [] {}));
    EXPECT_TRUE(kept.expired());
    support::awaitThreads(before);
}

TEST(TestThreadState, CountsChecksAndTells)
{
    std::ostringstream os;
    std::ostringstream cerr;
    const Replaced errors(std::cerr, cerr.rdbuf());
    util::TestThreadState state("feed");
    const auto told = [&](const std::string& onStream, const std::string& onErrors) {
        EXPECT_EQ(os.str(), onStream);
        EXPECT_EQ(cerr.str(), onErrors);
        os.str("");
        cerr.str("");
    };
    EXPECT_EQ(state.get(), 0);
    EXPECT_EQ(state.inc(), 1);
    state.incState(os);
    told("Inc feed to 2\n", "");
    EXPECT_TRUE(state.checkState1(2, os));
    told("State feed == 2 is true!\n", "");
    EXPECT_FALSE(state.checkState1(3, os));
    told("", "** Unexpected state feed: 2 instead of 3\n");
    EXPECT_TRUE(state.incAndCheckState1(3, os));
    told("Inc feed to 3\n", "");
    EXPECT_FALSE(state.incAndCheckState1(5, os));
    told("Inc feed to 4\n", "** Unexpected state feed after incrementation: 4 instead of 5\n");
    state.reset();
    EXPECT_EQ(state.get(), 0);
    const util::TestSleeps sleeps(100);
}

/// A stream that looks at the object whose line it takes.
class LooksBack : public std::streambuf
{
public:
    explicit LooksBack(util::TestThreadState& state_)
        : state(state_)
    {
    }

    int seen = -1;

private:
    int sync() override
    {
        seen = state.get();
        return 0;
    }

    int_type overflow(int_type c) override
    {
        return traits_type::not_eof(c);
    }

    util::TestThreadState& state;
};

TEST(TestThreadState, FlushesEachLineUnderItsLockSoThatLinesFollowTheCounter)
{
    util::TestThreadState state("x");
    LooksBack looksBack(state);
    std::ostream back(&looksBack);
    for (const int expected : {1, 2}) {
        expected == 1 ? state.incState(back) : static_cast<void>(state.incAndCheckState1(2, back));
        EXPECT_EQ(looksBack.seen, expected);
    }
    looksBack.seen = -1;
    state.checkState1(2, back);
    EXPECT_EQ(looksBack.seen, 2);

    state.reset();
    std::ostringstream os;
    std::ostringstream expected;
    constexpr int steps = 200;
    const auto count = [&] {
        for (int i = 0; i < steps; ++i)
            state.incState(os);
    };
    std::thread other(count);
    count();
    other.join();
    for (int i = 1; i <= 2 * steps; ++i)
        expected << "Inc x to " << i << "\n";
    EXPECT_EQ(os.str(), expected.str());
}

} // namespace
