#include "Quorvil/QuorvilTimeCollector.h"

#include "tests/support/allocationCount.h"
#include "tests/support/assertion.h"
#include "tests/support/systemCalls.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <memory>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

using quorvil::FastAllocator;
using quorvil::TimeCollector;
using std::chrono::system_clock;
using testing::HasSubstr;

namespace {

system_clock::time_point at(long long nanoseconds)
{
    return system_clock::time_point(
        std::chrono::duration_cast<system_clock::duration>(std::chrono::nanoseconds(nanoseconds)));
}

/// A heap that tells where its blocks lay and what is still out.
class WatchedHeap : public quorvil::IHeap
{
public:
    void* alloc(size_t size) override
    {
        ++blocks;
        bytesOut += size;
        lastSize = size;
        last = base.alloc(size);
        return last;
    }

    void dealloc(void* p, size_t size) override
    {
        bytesOut -= size;
        base.dealloc(p, size);
    }

    bool allFree() override
    {
        return base.allFree();
    }

    size_t blocks = 0;
    size_t bytesOut = 0;
    size_t lastSize = 0;
    void* last = nullptr;
    alignas(8) std::array<char, 65536> memory{};

private:
    quorvil::BaseHeap base{memory.data(), memory.data() + memory.size()};
};

struct TimeCollectorTest : testing::Test
{
    std::shared_ptr<WatchedHeap> heap = std::make_shared<WatchedHeap>();
    TimeCollector record{FastAllocator<TimeCollector::Entry>(heap)};
};

std::string dumped(TimeCollector& record, int nameWidth, const std::locale& locale = std::locale::classic())
{
    std::ostringstream out;
    out.imbue(locale);
    record.dump(out, nameWidth);
    return out.str();
}

/// What the record of these entries prints, put together in another way.
std::string expectedText(const std::vector<std::pair<std::string, long long>>& entries, int nameWidth)
{
    std::string text;
    char numbers[160];
    const long long first = entries.front().second;
    long long last = first;
    for (const auto& [name, t] : entries) {
        text += name;
        while (text.size() - text.rfind('\n') - 1 < static_cast<size_t>(std::max(nameWidth, 0)))
            text += ' ';
        std::snprintf(numbers, sizeof numbers, ": %lld ns    (first + %9lld ns)   (last + %9lld ns)\n", t, t - first,
                      t - last);
        text += numbers;
        if (t - first > 1000000)
            text += "=====> Achtung 1ms ueberschritten\n";
        last = t;
    }
    return text + "===== Insgesamt: " + std::to_string(last - first) + " ns\n\n";
}

using TimeCollectorDump = TimeCollectorTest;

TEST_F(TimeCollectorDump, ReadsAsPromised)
{
    EXPECT_EQ(dumped(record, 8), "TimeCollector: no entries\n");
    record.reset(3);
    EXPECT_EQ(dumped(record, 8), "TimeCollector: no entries\n");
    record.add("start", at(1000000000));
    record.add("parse", at(1000000500));
    record.add("print", at(1002000500));
    const std::string plain = "start   : 1000000000 ns    (first +         0 ns)   (last +         0 ns)\n"
                              "parse   : 1000000500 ns    (first +       500 ns)   (last +       500 ns)\n"
                              "print   : 1002000500 ns    (first +   2000500 ns)   (last +   2000000 ns)\n"
                              "=====> Achtung 1ms ueberschritten\n"
                              "===== Insgesamt: 2000500 ns\n"
                              "\n";
    EXPECT_EQ(dumped(record, 8), plain);
    EXPECT_EQ(dumped(record, 8), plain);
    const std::locale grouped(std::locale::classic(), new quorvil::MyNumPunct);
    EXPECT_EQ(dumped(record, 5, grouped), "start: 1 000 000 000 ns    (first +         0 ns)   (last +         0 ns)\n"
                                          "parse: 1 000 000 500 ns    (first +       500 ns)   (last +       500 ns)\n"
                                          "print: 1 002 000 500 ns    (first + 2 000 500 ns)   (last + 2 000 000 ns)\n"
                                          "=====> Achtung 1ms ueberschritten\n"
                                          "===== Insgesamt: 2 000 500 ns\n"
                                          "\n");
}

TEST_F(TimeCollectorDump, WarnsBehindEveryEntryMoreThanOneMillisecondAfterTheFirst)
{
    const std::vector<std::pair<std::string, long long>> entries = {
        {"a", 5},          {"b", 1000005},  {"c", 1000006},   {"d", 1000007},
        {"back", 1000005}, {"earlier", -7}, {"late", 9000005}};
    record.reset(10);
    for (const auto& [name, t] : entries)
        record.add(name, at(t));
    const std::string text = dumped(record, 3);
    EXPECT_EQ(text, expectedText(entries, 3));
    EXPECT_THAT(text, HasSubstr("b  : 1000005 ns    (first +   1000000 ns)   (last +   1000000 ns)\nc  :"));
    EXPECT_THAT(text, HasSubstr("earlier: -7 ns    (first +       -12 ns)   (last +  -1000012 ns)\n"));
    EXPECT_EQ(heap->bytesOut, 10 * sizeof(TimeCollector::Entry)) << "no name needed the heap";
}

TEST_F(TimeCollectorDump, PrintsAnyNamesTimesAndWidthsAsTheModelDoes)
{
    std::mt19937 random(20260711);
    for (int round = 0; round < 500; ++round) {
        const size_t count = 1 + random() % 12;
        record.reset(static_cast<int>(random() % 16));
        std::vector<std::pair<std::string, long long>> entries;
        for (size_t i = 0; i < count; ++i) {
            const auto t =
                static_cast<long long>(random()) - 1000000000 + (random() % 3 == 0 ? 1500000000000000000 : 0);
            entries.emplace_back(std::string(random() % 40, static_cast<char>('a' + random() % 26)), t);
            record.add(entries.back().first, at(entries.back().second));
        }
        const int nameWidth = static_cast<int>(random() % 50) - 5;
        ASSERT_EQ(dumped(record, nameWidth), expectedText(entries, nameWidth));
        ASSERT_EQ(dumped(record, INT_MIN), expectedText(entries, 0));
    }
}

TEST_F(TimeCollectorDump, FlushesOnlyWhenThereIsARecordToRead)
{
    struct : std::stringbuf
    {
        int sync() override
        {
            ++flushes;
            return 0;
        }
        int flushes = 0;
    } buffer;
    std::ostream out(&buffer);
    record.dump(out, 0);
    EXPECT_EQ(buffer.flushes, 0);
    record.add("once", at(0));
    record.dump(out, 0);
    EXPECT_EQ(buffer.flushes, 1);
}

TEST_F(TimeCollectorDump, SurvivesTimesWhoseDistanceHasNoNumber)
{
    record.add("first", system_clock::time_point::min());
    record.add("last", system_clock::time_point::max());
    EXPECT_THAT(dumped(record, 0), HasSubstr(": 9223372036854775807 ns    (first +        -1 ns)"));
}

using TimeCollectorHeap = TimeCollectorTest;

TEST_F(TimeCollectorHeap, TakesTheListAtItsStartAndLongNamesAlone)
{
    EXPECT_EQ(heap->blocks, 0U) << "a new record takes nothing";
    for (int use = 0; use < 3; ++use) {
        record.reset(4);
        EXPECT_EQ(heap->last, heap->memory.data());
        EXPECT_EQ(heap->bytesOut, 4 * sizeof(TimeCollector::Entry));
        const size_t blocks = heap->blocks;
        for (const char* name : {"", "fifteen letters", "15 letters also"})
            record.add(name, at(1));
        EXPECT_EQ(heap->blocks, blocks);
        record.add("sixteen letters.", at(1));
        EXPECT_EQ(heap->blocks, blocks + 1);
        EXPECT_EQ(heap->lastSize, 17U);
        const size_t bytes = heap->bytesOut;
        dumped(record, 40);
        EXPECT_EQ(heap->bytesOut, bytes) << "dump gives its copies and blanks back";
        EXPECT_EQ(heap->blocks, blocks + 1 + 1 + 4 + 4) << "a copied name, and for each gap a string with its text";
    }
    record.reset(0);
    EXPECT_EQ(heap->bytesOut, 0U);
    EXPECT_TRUE(heap->allFree());
    for (int i = 0; i < 9; ++i)
        record.add("beyond the capacity", at(i));
    record.reset(1);
    EXPECT_EQ(heap->bytesOut, sizeof(TimeCollector::Entry));
}

TEST_F(TimeCollectorHeap, HoldsTheTextsThatWereGivenOut)
{
    record.reset(1);
    const size_t bytes = heap->bytesOut;
    {
        const auto text = record.string("a text of 20 letters");
        const auto none = record.string(nullptr);
        const auto made = record.string2(size_t{3}, 'x');
        EXPECT_EQ(*text, "a text of 20 letters");
        EXPECT_EQ(*none, "");
        EXPECT_EQ(*made, "xxx");
        EXPECT_EQ(heap->bytesOut, bytes + 3 * sizeof(TimeCollector::MyString) + 21);
        EXPECT_EQ(text->get_allocator().getHeap(), heap);
        record.add(*text);
    }
    EXPECT_EQ(heap->bytesOut, bytes + 21) << "the entry's name";
    EXPECT_THROW(record.string2(std::numeric_limits<size_t>::max(), 'x'), std::length_error);
    EXPECT_EQ(heap->bytesOut, bytes + 21) << "a text that cannot be made leaves nothing behind";
    record.reset(1);
    EXPECT_EQ(heap->last, heap->memory.data());
}

TEST_F(TimeCollectorHeap, RefusesANegativeCapacityAndLosesNothing)
{
    record.add("one", at(1));
    const auto expectRefusal = [](auto operation) {
        try {
            operation();
            ADD_FAILURE() << "no exception";
        } catch (const std::length_error& error) {
            EXPECT_STREQ(error.what(), "vector::reserve");
        }
    };
    for (const int capacity : {-1, INT_MIN}) {
        expectRefusal([&] { record.reset(capacity); });
        expectRefusal([&] { TimeCollector{capacity}; });
    }
    EXPECT_EQ(heap->bytesOut, 0U);
    record.reset(2);
    EXPECT_EQ(heap->bytesOut, 2 * sizeof(TimeCollector::Entry));
}

TEST(TimeCollector, StampsEachEntryWithTheSystemClock)
{
    TimeCollector record(2);
    const auto before = system_clock::now();
    record.add("now");
    const auto after = system_clock::now();
    long long stamp = 0;
    ASSERT_EQ(std::sscanf(dumped(record, 0).c_str(), "now: %lld ns", &stamp), 1);
    EXPECT_LE(before, at(stamp));
    EXPECT_GE(after, at(stamp));
}

TEST(TimeCollector, RecordsWithoutTheSystem)
{
    TimeCollector record(100);
    const auto use = [&record] {
        record.reset(100);
        for (int i = 0; i < 100; ++i)
            record.add(i % 2 == 0 ? "short" : "a name of more than 15");
        record.add(*record.string2(size_t{30}, 'x'));
    };
    const support::AllocationCount count;
    use();
    EXPECT_EQ(count.allocations(), 0U);
    EXPECT_EQ(count.releases(), 0U);
    if (support::systemCallsHidden() == nullptr) {
        EXPECT_EQ(support::systemCallsOf(use), std::vector<int>());
    }
}

TEST(MyNumPunct, GroupsByThreesWithBlanks)
{
    std::ostringstream out;
    out.imbue(std::locale(std::locale::classic(), new quorvil::MyNumPunct));
    out << 0 << '|' << 999 << '|' << 1000 << '|' << -1234567 << '|' << LLONG_MAX << '|' << true << '|' << 0.5;
    EXPECT_EQ(out.str(), "0|999|1 000|-1 234 567|9 223 372 036 854 775 807|1|0.5");
}

struct TimeCollectorDeathTest : TimeCollectorTest
{
    static std::string fails(const char* function, const char* expression)
    {
        return support::assertion("Quorvil/QuorvilTimeCollector", function, expression);
    }

    const std::string exhausted =
        support::assertion("Quorvil/QuorvilFastAllocator", "virtual void* quorvil::BaseHeap::alloc(size_t)",
                           "nextMem + ceilSize <= memEnd");
};

TEST_F(TimeCollectorDeathTest, ATextThatIsAliveAtResetFailsItsAssertion)
{
    for (const size_t length : {size_t{0}, size_t{20}}) {
        EXPECT_DEATH(
            {
                const auto text = record.string2(length, 'x');
                record.reset(1);
            },
            fails("void quorvil::TimeCollector::reset(int)", "allocator.getHeap()->allFree()"));
    }
}

TEST_F(TimeCollectorDeathTest, ATextWithoutARecordFailsTheAssertionOfItsDeleter)
{
    TimeCollector::MyString text{FastAllocator<char>(heap)};
    EXPECT_DEATH(quorvil::StringDeleter()(&text),
                 fails("void quorvil::StringDeleter::operator()(quorvil::TimeCollector::MyString*)", "tc"));
}

TEST_F(TimeCollectorDeathTest, WhatDoesNotFitIntoTheHeapEndsTheProcess)
{
    const int tooMany = static_cast<int>(65536 / sizeof(TimeCollector::Entry)) + 1;
    record.reset(tooMany - 1);
    EXPECT_DEATH(record.reset(tooMany), exhausted);
    EXPECT_DEATH(TimeCollector(0x40000 / int{sizeof(TimeCollector::Entry)} + 1), exhausted);
    EXPECT_DEATH(record.add(std::string(65536, 'x')), exhausted);
    record.add("one", at(1));
    EXPECT_DEATH(dumped(record, INT_MAX), exhausted);
}

TEST_F(TimeCollectorDeathTest, WithoutAHeapNothingCanBeRecorded)
{
    TimeCollector homeless{FastAllocator<TimeCollector::Entry>(std::shared_ptr<quorvil::IHeap>())};
    EXPECT_DEATH(homeless.string("text"), support::assertion("Quorvil/QuorvilFastAllocator", "", "b.getHeap()"));
    EXPECT_DEATH(homeless.add("name"), support::assertion("Quorvil/QuorvilFastAllocator", "", "heap"));
}

} // namespace
