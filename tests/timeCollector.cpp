#include "Quorvil/QuorvilTimeCollector.h"

#include "tests/support/allocationCount.h"
#include "tests/support/assertion.h"
#include "tests/support/pageFaults.h"
#include "tests/support/systemCalls.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

using quorvil::FastAllocator;
using quorvil::TimeCollector;
using std::chrono::system_clock;

namespace {

constexpr size_t entrySize = sizeof(TimeCollector::Entry);

system_clock::time_point at(long long nanoseconds)
{
    return system_clock::time_point(
        std::chrono::duration_cast<system_clock::duration>(std::chrono::nanoseconds(nanoseconds)));
}

/// A heap that tells where its last block lay and what is still out.
class WatchedHeap : public quorvil::IHeap
{
public:
    void* alloc(size_t size) override
    {
        ++blocks;
        bytesOut += size;
        return last = base.alloc(size);
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
    void* last = nullptr;
    alignas(8) std::array<char, 65536> memory{};

private:
    quorvil::BaseHeap base{memory.data(), memory.data() + memory.size()};
};

struct TimeCollectorTest : testing::Test
{
    std::string dumped(int nameWidth, const std::locale& locale = std::locale::classic())
    {
        std::ostringstream out;
        out.imbue(locale);
        record.dump(out, nameWidth);
        return out.str();
    }

    std::shared_ptr<WatchedHeap> heap = std::make_shared<WatchedHeap>();
    TimeCollector record{FastAllocator<TimeCollector::Entry>(heap)};
};

using Entries = std::vector<std::pair<std::string, long long>>;

/// What the record of these entries prints, put together in another way.
std::string expectedText(const Entries& entries, int nameWidth)
{
    std::string text;
    const long long first = entries.front().second;
    long long last = first;
    for (const auto& [name, t] : entries) {
        char line[200];
        std::snprintf(line, sizeof line, "%-*s: %lld ns    (first + %9lld ns)   (last + %9lld ns)\n",
                      std::max(nameWidth, 0), name.c_str(), t, t - first, t - last);
        text += line;
        if (t - first > 1000000)
            text += "=====> Achtung 1ms ueberschritten\n";
        last = t;
    }
    return text + "===== Insgesamt: " + std::to_string(last - first) + " ns\n\n";
}

TEST_F(TimeCollectorTest, DumpReadsAsPromisedAsOftenAsAsked)
{
    for (int use = 0; use < 2; ++use) {
        EXPECT_EQ(dumped(8), "TimeCollector: no entries\n");
        record.reset(3);
    }
    record.add("start", at(1000000000));
    record.add("parse", at(1000000500));
    record.add("print", at(1002000500));
    for (int use = 0; use < 2; ++use)
        EXPECT_EQ(dumped(8), "start   : 1000000000 ns    (first +         0 ns)   (last +         0 ns)\n"
                             "parse   : 1000000500 ns    (first +       500 ns)   (last +       500 ns)\n"
                             "print   : 1002000500 ns    (first +   2000500 ns)   (last +   2000000 ns)\n"
                             "=====> Achtung 1ms ueberschritten\n"
                             "===== Insgesamt: 2000500 ns\n\n");
    const std::locale grouped(std::locale::classic(), new quorvil::MyNumPunct);
    EXPECT_EQ(dumped(5, grouped), "start: 1 000 000 000 ns    (first +         0 ns)   (last +         0 ns)\n"
                                  "parse: 1 000 000 500 ns    (first +       500 ns)   (last +       500 ns)\n"
                                  "print: 1 002 000 500 ns    (first + 2 000 500 ns)   (last + 2 000 000 ns)\n"
                                  "=====> Achtung 1ms ueberschritten\n"
                                  "===== Insgesamt: 2 000 500 ns\n\n");
}

TEST_F(TimeCollectorTest, DumpPrintsAnyNamesTimesAndWidthsAsTheModelDoes)
{
    std::mt19937 random(20260711);
    for (int round = 0; round < 1000; ++round) {
        const long long start = static_cast<long long>(random()) * 100000000;
        const long long steps[] = {0, 500, 1000000, 1000001, -7, 1234567890, static_cast<long long>(random())};
        record.reset(static_cast<int>(random() % 16));
        Entries entries;
        for (size_t count = 1 + random() % 12; count > 0; --count) {
            entries.emplace_back(std::string(random() % 40, 'n'), start + (entries.empty() ? 0 : steps[random() % 7]));
            record.add(entries.back().first, at(entries.back().second));
        }
        const int nameWidth = static_cast<int>(random() % 50) - 5;
        ASSERT_EQ(dumped(nameWidth), expectedText(entries, nameWidth));
        ASSERT_EQ(dumped(INT_MIN), expectedText(entries, 0));
    }
    record.reset(2);
    record.add("first", system_clock::time_point::min());
    record.add("last", system_clock::time_point::max()); // their distance has no number
    EXPECT_NE(dumped(0).find(": 9223372036854775807 ns    (first +        -1 ns)"), std::string::npos);
}

TEST_F(TimeCollectorTest, DumpFlushesOnlyWhenThereIsARecordToRead)
{
    struct : std::stringbuf
    {
        int sync() override
        {
            return ++flushes, 0;
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

TEST_F(TimeCollectorTest, TheHeapHoldsTheListAtItsStartLongNamesAndGivenTextsAndNothingElse)
{
    EXPECT_EQ(heap->blocks, 0U) << "a new record takes nothing";
    for (int use = 0; use < 2; ++use) {
        record.reset(5);
        EXPECT_EQ(heap->last, heap->memory.data());
        EXPECT_EQ(heap->bytesOut, 5 * entrySize);
        heap->blocks = 0;
        for (const char* name : {"", "fifteen letters", "15 letters also"})
            record.add(name, at(1));
        EXPECT_EQ(heap->blocks, 0U);
        record.add("sixteen letters.", at(1));
        EXPECT_EQ(heap->bytesOut, 5 * entrySize + 17);
        heap->blocks = 0;
        dumped(40);
        EXPECT_EQ(heap->blocks, 1U + 4 + 4) << "a copied name, and for each gap a string with its text";
        {
            const auto text = record.string("a text of 20 letters");
            const auto none = record.string(nullptr);
            const auto made = record.string2(size_t{3}, 'x');
            EXPECT_EQ(*text + *none + *made, "a text of 20 lettersxxx");
            EXPECT_EQ(heap->bytesOut, 5 * entrySize + 17 + 3 * sizeof(TimeCollector::MyString) + 21);
            EXPECT_EQ(text->get_allocator().getHeap(), heap);
            EXPECT_THROW(record.string2(SIZE_MAX, 'x'), std::length_error);
            record.add(*text);
        }
        EXPECT_EQ(heap->bytesOut, 5 * entrySize + 17 + 21) << "the names";
    }
    record.reset(0);
    EXPECT_EQ(heap->bytesOut, 0U);
    for (int i = 0; i < 9; ++i)
        record.add("beyond the capacity", at(i));
    record.reset(1);
    EXPECT_EQ(heap->bytesOut, entrySize);
}

TEST_F(TimeCollectorTest, ANegativeCapacityIsRefusedAndNothingIsLost)
{
    record.add("one", at(1));
    for (const int capacity : {-1, INT_MIN}) {
        try {
            record.reset(capacity);
            ADD_FAILURE() << "no exception";
        } catch (const std::length_error& error) {
            EXPECT_STREQ(error.what(), "vector::reserve");
        }
        EXPECT_THROW(TimeCollector{capacity}, std::length_error);
    }
    EXPECT_EQ(heap->bytesOut, 0U);
}

TEST(TimeCollector, StampsEachEntryWithTheSystemClockAndWithoutTheSystem)
{
    TimeCollector record(100);
    const auto use = [&record] {
        record.reset(100);
        for (int i = 0; i < 100; ++i)
            record.add(i % 2 == 0 ? "short" : "a name of more than 15");
        record.add(*record.string("a text of more than 15"));
        record.add(*record.string2(size_t{30}, 'x'));
    };
    const support::AllocationCount count;
    use();
    EXPECT_EQ(count.allocations() + count.releases(), 0U);
    if (!support::PageFaults::hidden()) {
        const support::PageFaults faults;
        use();
        EXPECT_EQ(faults.count(), 0);
    }
    if (!support::systemCallsHidden()) {
        EXPECT_EQ(support::systemCallsOf(use), std::vector<int>());
    }

    record.reset(1);
    const auto before = system_clock::now();
    record.add("now");
    const auto after = system_clock::now();
    std::ostringstream out;
    record.dump(out, 0);
    long long stamp = 0;
    ASSERT_EQ(std::sscanf(out.str().c_str(), "now: %lld ns", &stamp), 1);
    EXPECT_LE(before, at(stamp));
    EXPECT_GE(after, at(stamp));
}

TEST(MyNumPunct, GroupsByThreesWithBlanks)
{
    std::ostringstream out;
    out.imbue(std::locale(std::locale::classic(), new quorvil::MyNumPunct));
    out << 0 << '|' << 999 << '|' << 1000 << '|' << -1234567 << '|' << LLONG_MAX << '|' << std::boolalpha << true;
    EXPECT_EQ(out.str(), "0|999|1 000|-1 234 567|9 223 372 036 854 775 807|true");
}

using TimeCollectorDeathTest = TimeCollectorTest;

TEST_F(TimeCollectorDeathTest, MisuseFailsItsAssertion)
{
    constexpr char source[] = "Quorvil/QuorvilTimeCollector";
    for (const size_t length : {size_t{0}, size_t{20}}) {
        EXPECT_DEATH(
            {
                const auto text = record.string2(length, 'x');
                record.reset(1);
            },
            support::assertion(source, "void quorvil::TimeCollector::reset(int)", "allocator.getHeap()->allFree()"));
    }
    TimeCollector::MyString text{FastAllocator<char>(heap)};
    EXPECT_DEATH(
        quorvil::StringDeleter()(&text),
        support::assertion(source, "void quorvil::StringDeleter::operator()(quorvil::TimeCollector::MyString*)", "tc"));
    TimeCollector homeless{FastAllocator<TimeCollector::Entry>(std::shared_ptr<quorvil::IHeap>())};
    EXPECT_DEATH(homeless.string("text"), support::assertion("Quorvil/QuorvilFastAllocator", "", "b.getHeap()"));
    EXPECT_DEATH(homeless.add("name"), support::assertion("Quorvil/QuorvilFastAllocator", "", "heap"));
}

TEST_F(TimeCollectorDeathTest, WhatDoesNotFitIntoTheHeapEndsTheProcess)
{
    const std::string exhausted =
        support::assertion("Quorvil/QuorvilFastAllocator", "virtual void* quorvil::BaseHeap::alloc(size_t)",
                           "nextMem + ceilSize <= memEnd");
    record.reset(static_cast<int>(65536 / entrySize));
    EXPECT_DEATH(record.reset(static_cast<int>(65536 / entrySize) + 1), exhausted);
    record.add("one", at(1));
    EXPECT_DEATH(dumped(INT_MAX), exhausted);
    TimeCollector alone(0);
    constexpr size_t most = 0x40000 - sizeof(TimeCollector::MyString) - 1;
    EXPECT_EQ(alone.string2(most, 'x')->size(), most);
    EXPECT_DEATH(alone.string2(most + 1, 'x'), exhausted);
}

} // namespace
