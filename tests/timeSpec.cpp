// Time values and what is made of them: arithmetic, clocks, text, limits.

#include "Quorvil/TimeSpec.h"
#include "tests/support/groupingLocale.h"
#include "tests/support/interpose.h"

#include <ctime>
#include <gtest/gtest.h>
#include <limits>
#include <locale>
#include <random>
#include <sstream>
#include <string>
#include <utility>

namespace {

int (*realClock)(clockid_t, timespec*) = nullptr;
const timespec* fakeNow = nullptr; ///< what the monotonic clock shows, if set

} // namespace

extern "C" __attribute__((visibility("default"))) SUPPORT_UNINSTRUMENTED int clock_gettime(clockid_t clock,
                                                                                           timespec* now) noexcept
{
    if (fakeNow && clock == CLOCK_MONOTONIC) {
        *now = *fakeNow;
        return 0;
    }
    if (!realClock)
        realClock = support::real<int (*)(clockid_t, timespec*)>("clock_gettime");
    return realClock(clock, now);
}

namespace {

using Pair = std::pair<long, long>;

Pair pairOf(const util::TimeSpec& value)
{
    return {value.to_c()->tv_sec, value.to_c()->tv_nsec};
}

timespec spec(long sec, long nsec)
{
    timespec value{};
    value.tv_sec = sec;
    value.tv_nsec = nsec;
    return value;
}

constexpr long longMax = std::numeric_limits<long>::max();
constexpr long longMin = std::numeric_limits<long>::min();

TEST(TimeSpec, NormalisesEveryPair)
{
    struct
    {
        Pair given;
        Pair normal;
    } const rows[] = {
        {{0, 1'500'000'000}, {1, 500'000'000}},
        {{0, -1'500'000'000}, {-1, -500'000'000}},
        {{0, 2'147'483'647}, {2, 147'483'647}},
        {{0, -2'147'483'647}, {-2, -147'483'647}},
        {{0, 999'999'999}, {0, 999'999'999}},
        {{0, 1'000'000'000}, {1, 0}},
        {{0, -1'000'000'000}, {-1, 0}},
        {{1, -1}, {0, 999'999'999}},
        {{-1, 1}, {0, -999'999'999}},
        {{0, -5}, {0, -5}},
        {{0, 5}, {0, 5}},
        {{-1, 2'000'000'001}, {1, 1}},
        {{longMax, 1'000'000'000}, {longMin, 0}},
        {{longMin, -1'000'000'000}, {longMax, 0}},
    };
    for (const auto& row : rows) {
        util::TimeSpec value;
        value.init(row.given.first, row.given.second);
        EXPECT_EQ(pairOf(value), row.normal) << row.given.first << " " << row.given.second;
        EXPECT_EQ(pairOf(util::TimeSpec(spec(row.given.first, row.given.second))), row.normal);
    }

    std::mt19937_64 random(1);
    for (int i = 0; i < 20'000; ++i) {
        const long sec = static_cast<long>(random()) >> (random() % 40);
        const long nsec = static_cast<long>(random()) >> (random() % 40);
        util::TimeSpec value;
        value.init(sec, nsec);
        const auto [s, n] = pairOf(value);
        EXPECT_TRUE(n > -1'000'000'000 && n < 1'000'000'000 && !(s > 0 && n < 0) && !(s < 0 && n > 0));
        // The same moment, but for whole wraps of the seconds.
        const unsigned long carried = static_cast<unsigned long>(s) - static_cast<unsigned long>(sec);
        const auto carry = static_cast<long long>(static_cast<long>(carried));
        EXPECT_EQ(carry * 1'000'000'000 + n, static_cast<long long>(nsec)) << sec << " " << nsec;
    }
}

TEST(TimeSpec, ConvertsTicksAndMillisecondsOfEitherSign)
{
    struct
    {
        int ticks;
        Pair ofTicks;
        Pair ofMs;
    } const rows[] = {
        {250, {2, 500'000'000}, {0, 250'000'000}},
        {-250, {-2, -500'000'000}, {0, -250'000'000}},
        {1999, {19, 990'000'000}, {1, 999'000'000}},
        {0, {0, 0}, {0, 0}},
        {-1, {0, -10'000'000}, {0, -1'000'000}},
        {std::numeric_limits<int>::max(), {21'474'836, 470'000'000}, {2'147'483, 647'000'000}},
        {std::numeric_limits<int>::min(), {-21'474'836, -480'000'000}, {-2'147'483, -648'000'000}},
    };
    for (const auto& row : rows) {
        util::TimeSpec value;
        value.initFromThreadXTicks(row.ticks);
        EXPECT_EQ(pairOf(value), row.ofTicks) << row.ticks;
        value.initFromMs(row.ticks);
        EXPECT_EQ(pairOf(value), row.ofMs) << row.ticks;
    }
}

TEST(TimeSpec, AddsSubtractsAndCompares)
{
    struct
    {
        Pair a;
        Pair b;
        Pair sum;
        Pair difference;
        bool less;
    } const rows[] = {
        {{2, 0}, {0, 500'000'000}, {2, 500'000'000}, {1, 500'000'000}, false},
        {{0, 500'000'000}, {2, 0}, {2, 500'000'000}, {-1, -500'000'000}, true},
        {{1, 600'000'000}, {1, 700'000'000}, {3, 300'000'000}, {0, -100'000'000}, true},
        {{1, 0}, {1, 1}, {2, 1}, {0, -1}, true},
        {{0, -1}, {0, 0}, {0, -1}, {0, -1}, true},
        {{5, 5}, {5, 5}, {10, 10}, {0, 0}, false},
        {{longMax, 0}, {longMin, 0}, {-1, 0}, {-1, 0}, true}, // the difference wraps around
        {{longMin, 0}, {longMax, 0}, {-1, 0}, {1, 0}, false},
    };
    for (const auto& row : rows) {
        const util::TimeSpec b(spec(row.b.first, row.b.second));
        util::TimeSpec sum(spec(row.a.first, row.a.second));
        EXPECT_EQ(sum < b, row.less) << row.a.first << " " << row.a.second;
        EXPECT_EQ(&(sum += b), &sum);
        EXPECT_EQ(pairOf(sum), row.sum);
        util::TimeSpec difference(spec(row.a.first, row.a.second));
        EXPECT_EQ(&(difference -= b), &difference);
        EXPECT_EQ(pairOf(difference), row.difference);
        const timespec plain = subtract(spec(row.a.first, row.a.second), spec(row.b.first, row.b.second));
        EXPECT_EQ(Pair(plain.tv_sec, plain.tv_nsec), row.difference);
    }
}

TEST(TimeSpec, ReadsTheClockThatItIsGivenAndKeepsItsValueWhereThereIsNone)
{
    const timespec now = spec(77, 5);
    fakeNow = &now;
    util::TimeSpec value;
    value.initNow(CLOCK_MONOTONIC);
    fakeNow = nullptr;
    EXPECT_EQ(pairOf(value), Pair(77, 5));
    value.initNow(12345);
    EXPECT_EQ(pairOf(value), Pair(77, 5));
    value.initNow(CLOCK_REALTIME);
    EXPECT_GT(value.to_c()->tv_sec, 1'700'000'000);
}

TEST(TimeSpec, HasTextFormsThatFollowTheStreamOrNone)
{
    const support::GroupingEverywhere grouping;
    struct
    {
        Pair value;
        const char* shortText;
    } const rows[] = {
        {{1, 234'567'890}, "1.235"}, {{0, -500'000'000}, "-0.500"}, {{12'345, 0}, "12345.000"}, {{0, 0}, "0.000"}};
    for (const auto& row : rows)
        EXPECT_EQ(util::TimeSpec(spec(row.value.first, row.value.second)).toShortString(), row.shortText);

    std::ostringstream out;
    out.imbue(std::locale::classic());
    out << util::TimeSpec(spec(1, 5)) << std::hex << util::TimeSpec(spec(17, 255)) << spec(-17, -255) << 17;
    EXPECT_EQ(out.str(), "TimeSpec(1s; 5ns)TimeSpec(11s; ffns)-17s -255ns17");
    std::ostringstream grouped; // of the global locale
    grouped << util::TimeSpec(spec(12, 0)) << spec(34, 0);
    EXPECT_EQ(grouped.str(), "TimeSpec(1 2s; 0ns)3 4s 0ns");
}

TEST(TimedOutException, IsAnExceptionWithTheInheritedText)
{
    const util::TimedOutException exception;
    EXPECT_STREQ(exception.what(), std::exception().what());
}

TEST(TimeLimit, PassesBetweenItsBoundsAndShowsThemWhenItFails)
{
    const support::GroupingEverywhere grouping;
    constexpr int intMax = std::numeric_limits<int>::max();
    const double nan = std::numeric_limits<double>::quiet_NaN();
    struct
    {
        int count;
        int ms;
        double factor;
        Pair diff;
        const char* lines; ///< of a failed check
    } const rows[] = {
        {10, 100, 1.5, {0, 666'000'000}, ""},
        {10, 100, 1.5, {1, 500'000'000}, ""},
        {10, 100, 1 / 1.5, {1, 500'000'000}, ""},
        {10, 100, 1.0, {1, 0}, ""},
        {10,
         100,
         1.5,
         {0, 665'999'999},
         "minDiff: TimeSpec(0s; 666000000ns)\ndiff: TimeSpec(0s; 665999999ns)\nmaxDiff: TimeSpec(1s; 500000000ns)\n"},
        {10,
         100,
         2.0,
         {2, 1},
         "minDiff: TimeSpec(0s; 500000000ns)\ndiff: TimeSpec(2s; 1ns)\nmaxDiff: TimeSpec(2s; 0ns)\n"},
        {10,
         100,
         0.5,
         {12, 1},
         "minDiff: TimeSpec(0s; 500000000ns)\ndiff: TimeSpec(12s; 1ns)\nmaxDiff: TimeSpec(2s; 0ns)\n"},
        {1,
         1,
         1.0,
         {0, 1'000'001},
         "minDiff: TimeSpec(0s; 1000000ns)\ndiff: TimeSpec(0s; 1000001ns)\nmaxDiff: TimeSpec(0s; 1000000ns)\n"},
        {intMax, 2, 2.0, {1'073'741, 823'000'000}, ""}, // beyond an int: its limit
        {intMax, intMax, 1e9, {2'147'483, 647'000'000}, ""},
        {10, 100, 0.0, {2'147'483, 647'000'000}, ""}, // the reciprocal has no upper bound
        {0, 0, 2.0, {0, 0}, ""},
        {0, 100, 0.0, {0, 1}, "minDiff: TimeSpec(0s; 0ns)\ndiff: TimeSpec(0s; 1ns)\nmaxDiff: TimeSpec(0s; 0ns)\n"},
        {10, 100, nan, {0, 0}, "minDiff: TimeSpec(0s; 0ns)\ndiff: TimeSpec(0s; 0ns)\nmaxDiff: TimeSpec(0s; 0ns)\n"},
    };
    for (const auto& row : rows) {
        timespec now = spec(1000, 500'000'000);
        fakeNow = &now;
        util::TimeLimit limit;
        util::TimeSpec end(now);
        end += util::TimeSpec(spec(row.diff.first, row.diff.second));
        now = *end.to_c();
        testing::internal::CaptureStderr();
        for (int i = 0; i < 2; ++i) // it may be asked again
            EXPECT_EQ(limit.checkAround(row.count, row.ms, row.factor), *row.lines == '\0') << row.factor;
        fakeNow = nullptr;
        EXPECT_EQ(testing::internal::GetCapturedStderr(), std::string(row.lines) + row.lines);
    }
}

} // namespace
