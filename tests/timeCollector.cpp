// Timing records and their pool.

#include "Quorvil/QuorvilTimeCollector.h"
#include "tests/support/assertion.h"
#include "tests/support/environment.h"
#include "tests/support/pageFaults.h"
#include "tests/support/systemCalls.h"
#include "tests/support/threadCreation.h"

#include <gmock/gmock.h>

#include <climits>
#include <iostream>
#include <map>
#include <sstream>

using quorvil::TimeCollector;
using quorvil::TimeCollectorPool;
using std::chrono::system_clock;
using testing::ThrowsMessage;
using Handle = TimeCollectorPool::Handle;

namespace {

const auto refusesCapacity = ThrowsMessage<std::length_error>("vector::reserve");
const std::string exhausted = support::assertion(
    "Quorvil/QuorvilFastAllocator", "virtual void* quorvil::BaseHeap::alloc(size_t)", "nextMem + ceilSize <= memEnd");

std::string failure(const std::string& function, const std::string& expression)
{
    return support::assertion("Quorvil/QuorvilTimeCollector", "void quorvil::" + function, expression);
}

system_clock::time_point at(long long nanoseconds)
{
    return system_clock::time_point(std::chrono::nanoseconds(nanoseconds));
}

/// Where records are printed; a flush leaves a mark. The hooks come before each write and each flush.
struct Paper : std::stringbuf
{
    std::function<void()> onWrite = [] {};
    std::function<void()> onFlush = [] {};

    std::streamsize xsputn(const char* text, std::streamsize length) override
    {
        onWrite();
        return std::stringbuf::xsputn(text, length);
    }

    int sync() override
    {
        onFlush();
        return sputc('~') == '~' ? 0 : -1;
    }
};

// ---- the record

struct TimeCollectorTest : testing::Test
{
    std::string dumped(int nameWidth, const std::locale& locale = std::locale::classic())
    {
        Paper paper;
        std::ostream out(&paper);
        out.imbue(locale);
        record.dump(out, nameWidth);
        return paper.str();
    }

    /// Bytes that the record has taken from its heap.
    ptrdiff_t used()
    {
        return static_cast<char*>(heap->alloc(0)) - start;
    }

    std::shared_ptr<quorvil::IHeap> heap = std::make_shared<quorvil::SimpleHeap>(65536);
    char* const start = static_cast<char*>(heap->alloc(0));
    TimeCollector record{quorvil::FastAllocator<TimeCollector::Entry>(heap)};
};

TEST_F(TimeCollectorTest, DumpReadsAsPromisedAsOftenAsAsked)
{
    EXPECT_EQ(dumped(8), "TimeCollector: no entries\n");
    record.add("start", at(1000000000));
    record.add("parse", at(1000000500));
    record.add("print", at(1002000500));
    for (int use = 0; use < 2; ++use)
        EXPECT_EQ(dumped(8), "start   : 1000000000 ns    (first +         0 ns)   (last +         0 ns)\n"
                             "parse   : 1000000500 ns    (first +       500 ns)   (last +       500 ns)\n"
                             "print   : 1002000500 ns    (first +   2000500 ns)   (last +   2000000 ns)\n"
                             "=====> Achtung 1ms ueberschritten\n"
                             "===== Insgesamt: 2000500 ns\n\n~");
    record.reset(0);
    record.add("longer", at(1007));
    record.add("", at(1001007));
    record.add("late", at(1001008));
    record.add("back", at(-1));
    EXPECT_EQ(dumped(4, std::locale(std::locale::classic(), new quorvil::MyNumPunct)),
              "longer: 1 007 ns    (first +         0 ns)   (last +         0 ns)\n"
              "    : 1 001 007 ns    (first + 1 000 000 ns)   (last + 1 000 000 ns)\n"
              "late: 1 001 008 ns    (first + 1 000 001 ns)   (last +         1 ns)\n"
              "=====> Achtung 1ms ueberschritten\n"
              "back: -1 ns    (first +    -1 008 ns)   (last + -1 001 009 ns)\n"
              "===== Insgesamt: -1 008 ns\n\n~");
    EXPECT_EQ(dumped(INT_MIN), dumped(0));
    record.reset(1);
    const auto before = system_clock::now();
    record.add("now");
    const auto stamp = at(std::stoll(dumped(0).substr(5)));
    EXPECT_TRUE(before <= stamp && stamp <= system_clock::now());
}

TEST_F(TimeCollectorTest, TheHeapHoldsTheListAtItsStartLongNamesAndGivenTextsAndNothingElse)
{
    constexpr ptrdiff_t list = 6 * sizeof(TimeCollector::Entry);
    EXPECT_EQ(used(), 0);
    for (int use = 0; use < 2; ++use) {
        record.reset(6);
        record.add("fifteen letters");
        EXPECT_EQ(used(), list);
        record.add("sixteen letters.");
        EXPECT_EQ(used(), list + 24);
        dumped(40);
        const auto text = record.string("a text of 20 letters");
        EXPECT_EQ(*text + *record.string(nullptr) + *record.string2(size_t{3}, 'x'), "a text of 20 lettersxxx");
        for (int i = 0; i < 9; ++i)
            record.add(*text);
    }
    EXPECT_THAT([this] { record.reset(-1); }, refusesCapacity);
    EXPECT_THAT([] { TimeCollector{-1}; }, refusesCapacity);
    EXPECT_THROW(record.string2(SIZE_MAX, 'x'), std::length_error);
    EXPECT_EQ(used(), 0);
}

using TimeCollectorDeathTest = TimeCollectorTest;

TEST_F(TimeCollectorDeathTest, MisuseFailsItsAssertion)
{
    const std::string reset = failure("TimeCollector::reset(int)", "allocator.getHeap()->allFree()");
    const auto text = record.string("");
    EXPECT_DEATH(record.reset(1), reset);
    TimeCollector homeless{quorvil::FastAllocator<TimeCollector::Entry>(std::shared_ptr<quorvil::IHeap>())};
    EXPECT_DEATH(homeless.reset(0), reset);
    EXPECT_DEATH(homeless.string("text"), support::assertion("Quorvil/QuorvilFastAllocator", "", "b.getHeap()"));
    EXPECT_DEATH(quorvil::StringDeleter()(nullptr),
                 failure("StringDeleter::operator()(quorvil::TimeCollector::MyString*)", "tc"));
    EXPECT_DEATH(quorvil::TimeCollectorDeleter()(&homeless),
                 failure("TimeCollectorDeleter::operator()(quorvil::TimeCollector*)", "tcp"));
    TimeCollector(0).string2(size_t{0x3ff00}, 'x');
    EXPECT_DEATH(TimeCollector(0).string2(size_t{0x40000}, 'x'), exhausted);
}

// ---- the pool

struct TimeCollectorPoolTest : testing::Test
{
    static Handle filled(TimeCollectorPool& pool, const std::string& name)
    {
        Handle record = pool.get(1);
        record->add(name, at(0));
        return record;
    }

    /// A record of one entry, with the flush of its own and the one behind its return.
    static std::string printed(const std::string& name, int time = 0)
    {
        return name + ": " + std::to_string(time) +
               " ns    (first +         0 ns)   (last +         0 ns)\n===== Insgesamt: 0 ns\n\n~~";
    }

    static size_t freeRecords(TimeCollectorPool& pool)
    {
        std::vector<Handle> records;
        while (Handle record = pool.tryGet(0))
            records.push_back(std::move(record));
        return records.size();
    }

    Paper paper;
    std::ostream out{&paper};
};

TEST_F(TimeCollectorPoolTest, TheBlockFitsExactlyAndTheConsoleGroupsItsNumbers)
{
    for (const size_t count : {0U, 1U, 2U, 3U, 7U})
        for (const size_t bytes : {0U, 8U, 1024U}) {
            TimeCollectorPool pool(out, 0, bytes, count);
            EXPECT_EQ(freeRecords(pool), count);
        }
    std::ostringstream console;
    console.imbue(std::cout.getloc());
    console << 1234567;
    EXPECT_EQ(console.str(), "1 234 567") << "the console groups, whatever the pool prints to";
    EXPECT_DEATH(TimeCollectorPool(out, 0, 1023, 1), exhausted);
    EXPECT_THROW(TimeCollectorPool(out, 0, SIZE_MAX / 8, 8), std::bad_array_new_length);
    EXPECT_THROW(TimeCollectorPool(out, 0, 0, size_t{INT_MAX} + 1), std::bad_array_new_length);
}

TEST_F(TimeCollectorPoolTest, TheRecordReturnedLastIsTheNextOneArrivesEmptyAndIsNeverLost)
{
    TimeCollectorPool pool(out, 7, 1024, 2);
    EXPECT_EQ(support::asked.stackBytes, 2048U * 1024);
    Handle second = pool.get(3);
    Handle first = filled(pool, "a name of more than 15 characters");
    EXPECT_THAT([&] { pool.get(0); }, ThrowsMessage<util::GeneralException>("Pool underflow"));
    EXPECT_EQ(pool.tryGet(0), nullptr);
    TimeCollector* const place = first.get();
    first.reset();
    EXPECT_THAT([&] { pool.get(size_t{INT_MAX} + 1); }, refusesCapacity);
    EXPECT_THAT([&] { pool.tryGet(SIZE_MAX); }, refusesCapacity);
    first = filled(pool, "only");
    EXPECT_EQ(first.get(), place);
    // The record's own flush, the one behind its return, and the one at the thread's end.
    std::vector<bool> back;
    paper.onFlush = [&] { back.push_back(pool.tryGet(0) != nullptr); };
    pool.dump(std::move(first));
    pool.dump(std::move(first)); // an empty handle
    pool.close();
    EXPECT_EQ(paper.str(), printed("only   ") + "~");
    EXPECT_EQ(back, (std::vector<bool>{false, true, true}));
    second.reset();
    EXPECT_THAT([&] { pool.put(place); }, ThrowsMessage<util::GeneralException>("Pool overflow"));
}

TEST_F(TimeCollectorPoolTest, TakesNothingOfTheSystemWhileTheDumpThreadIsAwakeAndPrintsWhatIsQueuedHoweverItEnds)
{
    const std::string longName = "a name of more than 15 characters";
    for (const bool closed : {false, true}) {
        paper.str("");
        {
            TimeCollectorPool pool(out, 0, 1024, 6);
            support::Gate held, go;
            paper.onWrite = [&] {
                held.open();
                go.await();
            };
            pool.dump(filled(pool, "first"));
            held.await();
            const auto use = [&] {
                pool.dump(filled(pool, "short"));
                Handle record = pool.tryGet(1);
                record->add(*record->string(longName.c_str()), at(0));
                pool.dump(std::move(record));
            };
            const long faults = support::pageFaults();
            use();
            EXPECT_EQ(support::pageFaults(), faults);
            support::expectNothingOfTheSystem(use);
            Handle mine = filled(pool, "mine");
            go.open();
            if (closed) {
                pool.close();
                support::expectNothingOfTheSystem([&] { pool.dump(std::move(mine)); });
                EXPECT_EQ(freeRecords(pool), 6U) << "a closed pool returns the record unprinted";
            }
        }
        const std::string used = printed("short") + printed(longName);
        EXPECT_EQ(paper.str(), printed("first") + used + used + "~");
    }
}

TEST_F(TimeCollectorPoolTest, CloseFromWithinTheStreamIsRefusedDuringAnotherCloseToo)
{
    support::Gate joining;
    const support::HookScope hook(pthread_joinFault, [&joining] { joining.open(); });
    TimeCollectorPool pool(out, 0, 1024, 1);
    paper.onWrite = [&] {
        joining.await();
        EXPECT_THAT([&] { pool.close(); }, testing::ThrowsMessage<std::system_error>(std::strerror(EDEADLK)));
    };
    pool.dump(pool.get(0));
    pool.close();
    EXPECT_EQ(paper.str(), "TimeCollector: no entries\n~~");
}

TEST_F(TimeCollectorPoolTest, WhatSeveralProducersDumpComesOutWholeAndInOrderOrGoesBackWhereOthersClose)
{
    constexpr int records = 50;
    for (int round = 0; round < (support::sanitized || support::emulated ? 20 : 100); ++round) {
        paper.str("");
        TimeCollectorPool pool(out, 0, 256, 2);
        support::Gate dumped;
        const auto produce = [&](char name) {
            for (int number = 1; number <= records; ++number) {
                Handle record;
                while (!(record = pool.tryGet(1)))
                    std::this_thread::yield();
                record->add({&name, 1}, at(number));
                pool.dump(std::move(record));
                dumped.open();
            }
        };
        const auto close = [&] {
            dumped.await(records);
            pool.close();
        };
        std::thread threads[] = {std::thread(produce, 'a'), std::thread(produce, 'b'), std::thread(produce, 'c'),
                                 std::thread(close)};
        close();
        const std::string text = paper.str();
        for (std::thread& thread : threads)
            thread.join();
        EXPECT_EQ(paper.str(), text) << "nothing is printed behind a close";
        EXPECT_EQ(freeRecords(pool), 2U) << "none lies in the ring of a closed pool";
        std::map<char, int> last;
        for (size_t place = 0; place + 1 < text.size();) {
            const std::string record = printed({text[place]}, ++last[text[place]]);
            ASSERT_EQ(text.substr(place, record.size()), record);
            place += record.size();
        }
    }
}

} // namespace
