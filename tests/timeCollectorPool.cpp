#include "Quorvil/QuorvilTimeCollector.h"

#include "Quorvil/GeneralException.h"
#include "tests/support/allocationCount.h"
#include "tests/support/assertion.h"
#include "tests/support/environment.h"
#include "tests/support/systemCalls.h"

#include <gtest/gtest.h>

#include <atomic>
#include <barrier>
#include <chrono>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <memory>
#include <new>
#include <optional>
#include <semaphore>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

using quorvil::TimeCollector;
using quorvil::TimeCollectorPool;
using std::chrono::system_clock;
using Handle = TimeCollectorPool::Handle;

namespace {

constexpr size_t subHeapSize = 1024;

/// Where a pool prints to. The hooks run on the dump thread, before a write and before a flush.
struct Paper : std::stringbuf
{
    std::function<void()> onWrite = [] {};
    std::function<void()> onFlush = [] {};

protected:
    std::streamsize xsputn(const char* text, std::streamsize length) override
    {
        onWrite();
        return std::stringbuf::xsputn(text, length);
    }

    int sync() override
    {
        onFlush();
        return 0;
    }
};

/// Holds the dump thread at the first character that it prints until it is let go.
class Stop
{
public:
    explicit Stop(Paper& paper)
    {
        paper.onWrite = [this] {
            if (!passed.exchange(true)) {
                reached.release();
                go.acquire();
            }
        };
    }

    void await()
    {
        reached.acquire();
    }

    void letGo()
    {
        go.release();
    }

private:
    std::atomic<bool> passed{false};
    std::binary_semaphore reached{0};
    std::binary_semaphore go{0};
};

Handle filled(TimeCollectorPool& pool, const std::string& name)
{
    Handle record = pool.get(1);
    record->add(name, system_clock::time_point());
    return record;
}

std::string printed(const std::string& name)
{
    return name + ": 0 ns    (first +         0 ns)   (last +         0 ns)\n===== Insgesamt: 0 ns\n\n";
}

size_t freeRecords(TimeCollectorPool& pool)
{
    std::vector<Handle> records;
    while (Handle record = pool.tryGet(0))
        records.push_back(std::move(record));
    return records.size();
}

template <class Exception, class Operation>
void expectThrow(const char* text, Operation operation)
{
    try {
        operation();
        ADD_FAILURE() << "no exception: " << text;
    } catch (const Exception& error) {
        EXPECT_STREQ(error.what(), text);
    }
}

size_t threadsOfTheProcess()
{
    const std::filesystem::directory_iterator tasks("/proc/self/task");
    return static_cast<size_t>(std::distance(begin(tasks), end(tasks)));
}

/// A joined thread is gone for its joiner a moment before it is for the system. An emulator has threads of its own.
void awaitThreadsOfTheProcess(size_t count)
{
    while (!support::emulated && threadsOfTheProcess() > count)
        std::this_thread::yield();
}

/// `threadsOfTheProcess` before a test. A sanitizer's own thread begins with the first one of the program.
size_t threadsBeforeATest()
{
    std::thread([] {}).join();
    return threadsOfTheProcess();
}

/// Whether the thread sleeps, or has ended.
bool isAtRest(pid_t thread)
{
    std::ifstream stat("/proc/self/task/" + std::to_string(thread) + "/stat");
    std::string text;
    return thread != 0 && (!std::getline(stat, text) || text.find(") S ") != std::string::npos);
}

struct TimeCollectorPoolTest : testing::Test
{
    Paper paper;
    std::ostream out{&paper};
};

using TimeCollectorPoolLoan = TimeCollectorPoolTest;

TEST_F(TimeCollectorPoolLoan, EveryHeapSizeThatIsAMultipleOf8FitsForAnyNumberOfRecords)
{
    for (const size_t bytes : {0U, 8U, 56U, 1024U, 65536U}) {
        for (const size_t count : {0U, 1U, 2U, 7U, 64U}) {
            SCOPED_TRACE(std::to_string(count) + " records of " + std::to_string(bytes));
            TimeCollectorPool pool(out, 0, bytes, count);
            std::set<TimeCollector*> places;
            std::vector<Handle> records;
            for (size_t i = 0; i < count; ++i) {
                records.push_back(pool.get(bytes / sizeof(TimeCollector::Entry)));
                places.insert(records.back().get());
                for (size_t used = sizeof(TimeCollector::Entry); used <= bytes; used += sizeof(TimeCollector::Entry))
                    records.back()->add("full");
            }
            EXPECT_EQ(places.size(), count);
            expectThrow<util::GeneralException>("Pool underflow", [&] { pool.get(SIZE_MAX); });
            EXPECT_EQ(pool.tryGet(SIZE_MAX), nullptr);
            for (Handle& record : records)
                pool.dump(std::move(record));
        }
    }
    const size_t uncountable[][2] = {{SIZE_MAX, 1},     {SIZE_MAX - 7, 1}, {SIZE_MAX / 2, 2},       {8, SIZE_MAX},
                                     {0, SIZE_MAX - 1}, {SIZE_MAX / 8, 8}, {0, size_t{INT_MAX} + 1}};
    for (const auto& [bytes, count] : uncountable)
        EXPECT_THROW(TimeCollectorPool(out, 0, bytes, count), std::bad_array_new_length) << bytes << " x " << count;
}

TEST_F(TimeCollectorPoolLoan, TheRecordReturnedLastIsTheNextOneArrivesEmptyAndIsNeverLost)
{
    TimeCollectorPool pool(out, 0, subHeapSize, 2);
    Handle first = pool.get(3);
    const Handle second = pool.get(3);
    TimeCollector* const place = first.get();
    first->add("a name of more than 15 characters");
    first.reset();
    for (const size_t capacity : {size_t{INT_MAX} + 1, SIZE_MAX}) {
        expectThrow<std::length_error>("vector::reserve", [&] { pool.get(capacity); });
        expectThrow<std::length_error>("vector::reserve", [&] { pool.tryGet(capacity); });
    }
    first = pool.get(1);
    EXPECT_EQ(first.get(), place);
    pool.dump(std::move(first));
    EXPECT_EQ(first, nullptr);
    pool.dump(std::move(first)); // an empty handle
    pool.close();
    EXPECT_EQ(paper.str(), "TimeCollector: no entries\n");
    EXPECT_EQ(freeRecords(pool), 1U);
    TimeCollectorPool full(out, 0, subHeapSize, 1);
    expectThrow<util::GeneralException>("Pool overflow", [&] { full.put(place); });
    EXPECT_EQ(freeRecords(full), 1U);
}

TEST_F(TimeCollectorPoolLoan, WithoutMemoryNothingIsLeftBehindAndWithMemoryAllIsWell)
{
    if (const char* const reason = support::AllocationFailure::hidden())
        GTEST_SKIP() << reason;
    // The system keeps the stack of this pool's thread for the next one, so that starting a thread takes no memory.
    std::make_unique<TimeCollectorPool>(out, 0, subHeapSize, 3).reset();
    const size_t threads = threadsBeforeATest();
    // Behind the block's two allocations a locale is made. It frees twice where one of its last two fails (libstdc++
    // 12), so that these are left out.
    const support::AllocationCount count;
    std::locale(std::locale::classic(), new quorvil::MyNumPunct);
    const size_t broken = 2 + count.allocations() - 1;
    for (const bool forEver : {false, true}) {
        bool reached = true;
        for (size_t k = 1; reached; k == broken - 1 ? k += 3 : ++k) {
            std::optional<TimeCollectorPool> pool;
            {
                const support::AllocationFailure failure(k, forEver);
                try {
                    pool.emplace(out, 0, subHeapSize, 3U);
                } catch (const std::bad_alloc&) {
                }
                reached = failure.reached();
            }
            EXPECT_EQ(pool.has_value(), !reached) << k;
            awaitThreadsOfTheProcess(threads + (reached ? 0 : 1));
            EXPECT_TRUE(reached || k > broken + 5) << "a share of each sub-heap, the pointers, the packet";
        }
    }
}

using TimeCollectorPoolPrint = TimeCollectorPoolTest;

TEST_F(TimeCollectorPoolPrint, PrintsInTheOrderOfDumpWithTheWidthAndTheLocaleOfItsStream)
{
    EXPECT_EQ(TimeCollectorPool::THREAD_STACK_SIZE, 2048U);
    size_t stackBytes = 0;
    paper.onWrite = [&stackBytes] {
        pthread_attr_t attributes;
        pthread_getattr_np(pthread_self(), &attributes);
        pthread_attr_getstacksize(&attributes, &stackBytes);
        pthread_attr_destroy(&attributes);
    };
    TimeCollectorPool pool(out, 7, subHeapSize, 2);
    Handle second = filled(pool, "second");
    Handle first = pool.get(1);
    first->add("first", system_clock::time_point(std::chrono::microseconds(1000)));
    pool.dump(std::move(first));
    pool.dump(std::move(second));
    pool.close();
    EXPECT_EQ(paper.str(), "first  : 1000000 ns    (first +         0 ns)   (last +         0 ns)\n"
                           "===== Insgesamt: 0 ns\n\n" +
                               printed("second "));
    std::ostringstream console;
    console.imbue(std::cout.getloc());
    console << 1234567 << ' ' << 0.5;
    EXPECT_EQ(console.str(), "1 234 567 0.5") << "the console groups, whatever the pool prints to";
    EXPECT_GE(stackBytes, 2048U * 1024);
    EXPECT_EQ(TimeCollectorPool::threadFunc(&pool), nullptr);
}

TEST_F(TimeCollectorPoolPrint, TheRecordIsBackBeforeTheLastFlushAndNotBefore)
{
    TimeCollectorPool* seen = nullptr;
    std::vector<bool> back;
    paper.onFlush = [&] { back.push_back(seen->tryGet(0) != nullptr); };
    Stop stop(paper);
    TimeCollectorPool pool(out, 0, subHeapSize, 1);
    seen = &pool;
    pool.dump(filled(pool, "only"));
    stop.await();
    EXPECT_EQ(freeRecords(pool), 0U);
    stop.letGo();
    pool.close();
    // The record's own flush, the one behind its return, and the one at the thread's end.
    EXPECT_EQ(back, (std::vector<bool>{false, true, true}));
}

TEST_F(TimeCollectorPoolPrint, AStreamThatThrowsGetsThroughAndTheRecordGoesBack)
{
    Stop stop(paper);
    paper.onWrite = [hold = paper.onWrite, here = std::this_thread::get_id()] {
        if (std::this_thread::get_id() == here)
            throw std::runtime_error("paper jam");
        hold();
    };
    TimeCollectorPool pool(out, 0, subHeapSize, 2);
    pool.dump(filled(pool, "holds the dump thread"));
    stop.await();
    // Now this thread prints in its place.
    pool.dump(filled(pool, "thrown"));
    out.exceptions(std::ios::badbit);
    expectThrow<std::runtime_error>("paper jam", [&] { pool.threadRun(); });
    EXPECT_EQ(freeRecords(pool), 1U);
    out.exceptions(std::ios::goodbit);
    out.clear();
    stop.letGo();
}

TEST_F(TimeCollectorPoolPrint, AFullQueueLeavesTheRecordWithItsCaller)
{
    TimeCollectorPool others(out, 0, subHeapSize, 2);
    Stop stop(paper);
    TimeCollectorPool pool(out, 0, subHeapSize, 1);
    pool.dump(filled(pool, "printing"));
    stop.await();
    pool.dump(filled(others, "queued"));
    Handle refused = filled(others, "refused");
    pool.dump(std::move(refused));
    EXPECT_NE(refused, nullptr);
    refused.reset();
    stop.letGo();
    pool.close();
    EXPECT_EQ(paper.str(), printed("printing") + printed("queued"));
    EXPECT_EQ(freeRecords(others), 2U) << "each record went back to its own pool";
}

TEST_F(TimeCollectorPoolPrint, ManyProducersExhaustAndRefillThePoolAndEveryRecordComesOutWhole)
{
    constexpr size_t producers = 4;
    const int operations = support::sanitized || support::emulated ? 20000 : 250000;
    /// Looks at each record on the fly: its producer's number, and that this producer's numbers rise.
    struct Check : std::stringbuf
    {
        int sync() override
        {
            const std::string text = str();
            if (text.empty())
                return 0; // the flush behind the record's return
            str("");
            size_t producer = 0;
            int number = 0;
            std::sscanf(text.c_str(), "%zu: %d ns", &producer, &number);
            const std::string whole = std::to_string(producer) + ": " + std::to_string(number) + printed("").substr(3);
            mixed += text != whole || number <= last.at(producer);
            last.at(producer) = number;
            ++records;
            return 0;
        }
        std::vector<int> last = std::vector<int>(producers, 0);
        int mixed = 0;
        int records = 0;
    } check;
    std::ostream checked(&check);
    TimeCollectorPool pool(checked, 0, 256, producers - 1);
    std::vector<std::thread> threads;
    for (size_t producer = 0; producer < producers; ++producer) {
        threads.emplace_back([&, name = std::to_string(producer)] {
            for (int number = 1; number <= operations; ++number) {
                Handle record;
                while (!(record = pool.tryGet(2)))
                    std::this_thread::yield();
                record->add(name, system_clock::time_point(std::chrono::nanoseconds(number)));
                if (number % 8 == 0)
                    pool.dump(std::move(record));
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    pool.close();
    EXPECT_EQ(freeRecords(pool), producers - 1);
    EXPECT_EQ(check.mixed, 0);
    EXPECT_EQ(check.records, static_cast<int>(producers) * (operations / 8));
}

using TimeCollectorPoolEnd = TimeCollectorPoolTest;

TEST_F(TimeCollectorPoolEnd, WhatIsQueuedIsPrintedWhateverTheDumpThreadIsDoing)
{
    const size_t threads = threadsBeforeATest();
    for (int arrangement = 0; arrangement < 12; ++arrangement) {
        const bool printing = arrangement % 2 != 0;
        const bool inHands = arrangement / 2 % 2 != 0;
        paper.str("");
        std::string expected;
        Stop stop(paper);
        {
            TimeCollectorPool pool(out, 0, subHeapSize, 5);
            const Handle mine = inHands ? filled(pool, "mine") : Handle();
            const auto dump = [&](const std::string& name) {
                pool.dump(filled(pool, name));
                expected += printed(name);
            };
            if (printing) {
                dump("printing");
                stop.await();
            }
            for (int queued = arrangement / 4; queued > 0; --queued)
                dump("queued");
            stop.letGo();
            if (inHands)
                pool.close();
        }
        EXPECT_EQ(paper.str(), expected);
        awaitThreadsOfTheProcess(threads);
    }
}

TEST_F(TimeCollectorPoolEnd, ClosersWaitTogetherAndTheClosedPoolReturnsRecordsUnprinted)
{
    Stop stop(paper);
    TimeCollectorPool pool(out, 0, subHeapSize, 3);
    Handle late = filled(pool, "late");
    pool.dump(filled(pool, "printing"));
    stop.await();
    pool.dump(filled(pool, "queued"));
    const std::string all = printed("printing") + printed("queued");
    std::atomic<int> closed{0};
    std::atomic<pid_t> ids[3]{};
    std::vector<std::thread> closers;
    for (std::atomic<pid_t>& id : ids) {
        closers.emplace_back([&] {
            id = gettid();
            pool.close();
            EXPECT_EQ(paper.str(), all);
            ++closed;
        });
    }
    for (const std::atomic<pid_t>& id : ids)
        while (!isAtRest(id))
            std::this_thread::yield();
    EXPECT_EQ(closed, 0) << "the print is not over";
    stop.letGo();
    for (std::thread& closer : closers)
        closer.join();
    pool.close();
    pool.dump(std::move(late));
    EXPECT_EQ(late, nullptr);
    EXPECT_EQ(freeRecords(pool), 3U);
    EXPECT_EQ(paper.str(), all);
}

TEST_F(TimeCollectorPoolEnd, CloseFromWithinTheStreamIsRefusedBeforeAndDuringAnotherCloseWhichEndsThePool)
{
    for (const bool during : {false, true}) {
        TimeCollectorPool* seen = nullptr;
        int code = 0;
        std::atomic<pid_t> closer{0};
        std::binary_semaphore asked(0);
        paper.str("");
        paper.onWrite = [&] {
            while (during && !isAtRest(closer))
                std::this_thread::yield();
            try {
                seen->close();
            } catch (const std::system_error& error) {
                code = error.code().value();
            }
            asked.release();
        };
        TimeCollectorPool pool(out, 0, subHeapSize, 1);
        seen = &pool;
        pool.dump(pool.get(0));
        if (!during)
            asked.acquire();
        closer = gettid();
        pool.close();
        EXPECT_EQ(code, EDEADLK);
        EXPECT_EQ(paper.str(), "TimeCollector: no entries\n");
    }
}

TEST_F(TimeCollectorPoolEnd, ARecordPassedToDumpDuringACloseIsPrintedOrGoesBack)
{
    constexpr size_t producers = 3;
    constexpr size_t closers = 2;
    const int rounds = support::sanitized || support::emulated ? 100 : 1000;
    std::optional<TimeCollectorPool> pool;
    std::string seen[closers];
    std::barrier<> step(producers + closers + 1);
    std::vector<std::thread> threads;
    for (size_t i = 0; i < producers + closers; ++i) {
        threads.emplace_back([&, i] {
            for (int round = 0; round < rounds; ++round) {
                step.arrive_and_wait();
                const support::AllocationCount count;
                if (i < producers)
                    pool->dump(filled(*pool, "x"));
                else
                    pool->close();
                EXPECT_EQ(count.allocations() + count.releases(), 0U);
                if (i >= producers)
                    seen[i - producers] = paper.str();
                step.arrive_and_wait();
            }
        });
    }
    for (int round = 0; round < rounds; ++round) {
        paper.str("");
        pool.emplace(out, 0, 256U, producers);
        step.arrive_and_wait();
        step.arrive_and_wait();
        EXPECT_EQ(freeRecords(*pool), producers) << "none lies in the ring of a closed pool";
        EXPECT_EQ(paper.str().size() % printed("x").size(), 0U);
        for (const std::string& text : seen)
            EXPECT_EQ(text, paper.str()) << "nothing is printed behind a close";
    }
    for (std::thread& thread : threads)
        thread.join();
}

using TimeCollectorPoolRealTime = TimeCollectorPoolTest;

/// The system calls of `operation`, as far as they can be seen, and a failure for each allocation in it.
std::vector<int> systemCalls(const std::function<void()>& operation)
{
    const auto counted = [&operation] {
        const support::AllocationCount count;
        operation();
        EXPECT_EQ(count.allocations() + count.releases(), 0U);
    };
    if (!support::systemCallsHidden())
        return support::systemCallsOf(counted);
    counted();
    return {};
}

TEST_F(TimeCollectorPoolRealTime, TakesNoMemoryAndMakesNoSystemCallButTheWakeUp)
{
    std::atomic<pid_t> dumpThread{0};
    Stop stop(paper);
    const auto hold = std::exchange(paper.onWrite, [&] { dumpThread = gettid(); });
    TimeCollectorPool pool(out, 0, 4096, 4);
    Handle record;
    const auto take = [&] {
        record = pool.get(20);
        for (int i = 0; i < 20; ++i)
            record->add(i % 2 == 0 ? "short" : "a name of more than 15");
    };
    const auto takeAndDump = [&] {
        take();
        pool.dump(std::move(record));
    };
    const auto takeAndReturn = [&] {
        take();
        record.reset();
        record = pool.tryGet(5);
        record.reset();
    };
    const std::vector<int> none;
    const std::vector<int> wakeUp(support::systemCallsHidden() ? 0 : 1, SYS_futex);
    EXPECT_EQ(systemCalls(takeAndReturn), none);

    // Once the dump thread sleeps in the queue, a dump makes the one call that wakes it.
    pool.dump(pool.get(0));
    while (!isAtRest(dumpThread) || freeRecords(pool) != 4)
        std::this_thread::yield();
    paper.onWrite = hold;
    EXPECT_EQ(systemCalls(takeAndDump), wakeUp);

    // While it prints, nobody has to be woken: neither by the first record in the queue nor by the second.
    stop.await();
    EXPECT_EQ(systemCalls(takeAndDump), none);
    EXPECT_EQ(systemCalls(takeAndDump), none);
    stop.letGo();
    pool.close();
    EXPECT_EQ(systemCalls(takeAndDump), none);
}

using TimeCollectorPoolDeathTest = TimeCollectorPoolTest;

TEST_F(TimeCollectorPoolDeathTest, TheBlockHasNoSlackAndMisuseFailsItsAssertion)
{
    const std::string exhausted =
        support::assertion("Quorvil/QuorvilFastAllocator", "virtual void* quorvil::BaseHeap::alloc(size_t)",
                           "nextMem + ceilSize <= memEnd");
    // A byte short of a multiple of 8 is the tightest: each record takes one byte more than was counted.
    for (const size_t bytes : {1U, 7U, 1023U})
        for (const size_t count : {1U, 2U})
            EXPECT_DEATH(TimeCollectorPool(out, 0, bytes, count), exhausted) << bytes << " x " << count;
    EXPECT_DEATH(TimeCollectorPool(out, 0, 8, 1).get(1), exhausted);
    TimeCollector record(0);
    EXPECT_DEATH(quorvil::TimeCollectorDeleter()(&record),
                 support::assertion("Quorvil/QuorvilTimeCollector",
                                    "void quorvil::TimeCollectorDeleter::operator()(quorvil::TimeCollector*)", "tcp"));
}

} // namespace
