// Foundation: the log frame, failure reports, time values, console streams.

#include "Quorvil/GeneralException.h"
#include "Quorvil/ImplementedFunc.h"
#include "Quorvil/NotYetImplemented.h"
#include "Quorvil/QuorvilIbuf.h"
#include "Quorvil/QuorvilInit.h"
#include "Quorvil/QuorvilLog.h"
#include "Quorvil/SafeLinuxCalls.h"
#include "Quorvil/ThreadSafeStream.h"
#include "Quorvil/TimeSpec.h"
#include "siblings/StampGate/StampGate.h"
#include "tests/support/child.h"
#include "tests/support/interpose.h"

#include <cerrno>
#include <clocale>
#include <cstring>
#include <fcntl.h>
#include <future>
#include <gtest/gtest.h>
#include <iomanip>
#include <iostream>
#include <limits>
#include <locale>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

SUPPORT_INTERPOSE(int, pthread_setschedparam, (pthread_t thread, int policy, const sched_param* parameters),
                  (thread, policy, parameters), noexcept)
SUPPORT_INTERPOSE(int, pthread_mutex_lock, (pthread_mutex_t * mutex), (mutex), noexcept)

namespace {

std::vector<std::string> localeCalls;
bool noteLocaleCalls = false;
const timespec* fakeNow = nullptr; ///< what the monotonic clock shows, if set

/// Groups digits by blanks, which no text of the library's own may follow.
struct Grouped : std::numpunct<char>
{
    char do_thousands_sep() const override
    {
        return ' ';
    }
    std::string do_grouping() const override
    {
        return "\1";
    }
    char do_decimal_point() const override
    {
        return ',';
    }
};

/// Sets the global locale, and that of the console, to one that groups digits, for as long as it lives.
class GroupingEverywhere
{
public:
    GroupingEverywhere()
        : before(std::locale::global(std::locale(std::locale::classic(), new Grouped)))
    {
        std::cout.imbue(std::locale());
        std::cerr.imbue(std::locale());
    }
    ~GroupingEverywhere()
    {
        std::locale::global(before);
        std::cout.imbue(before);
        std::cerr.imbue(before);
    }
    GroupingEverywhere(const GroupingEverywhere&) = delete;
    GroupingEverywhere& operator=(const GroupingEverywhere&) = delete;

private:
    std::locale before;
};

} // namespace

extern "C" {

__attribute__((visibility("default"))) SUPPORT_UNINSTRUMENTED char* setlocale(int category, const char* name) noexcept
{
    if (noteLocaleCalls)
        localeCalls.push_back(std::to_string(category) + " " + (name ? name : "?"));
    return support::real<char* (*)(int, const char*)>("setlocale")(category, name);
}

__attribute__((visibility("default"))) SUPPORT_UNINSTRUMENTED int clock_gettime(clockid_t clock, timespec* now) noexcept
{
    if (fakeNow && clock == CLOCK_MONOTONIC) {
        *now = *fakeNow;
        return 0;
    }
    return support::real<int (*)(clockid_t, timespec*)>("clock_gettime")(clock, now);
}
}

namespace {

// ---- start-up and log frame

TEST(Init, StampsOnceAtLoad)
{
    EXPECT_EQ(stampGateCalls(), 1);
    EXPECT_EQ(stampGateLast(), 52);
}

TEST(Init, VersionIsTheBuilds)
{
    EXPECT_STREQ(QUORVIL_VERSION, QUORVIL_BUILD_VERSION);
    EXPECT_EQ(std::to_string(QUORVIL_VERSION_MAJOR) + "." + std::to_string(QUORVIL_VERSION_MINOR) + "." +
                  std::to_string(QUORVIL_VERSION_PATCH),
              QUORVIL_VERSION);
}

TEST(Init, LocaleIsGermanWithEnglishNumbersAndAMissingOneIsNoError)
{
    noteLocaleCalls = true;
    initLocale();
    noteLocaleCalls = false;
    EXPECT_EQ(localeCalls, (std::vector<std::string>{std::to_string(LC_ALL) + " de_DE.UTF-8",
                                                     std::to_string(LC_NUMERIC) + " en_US.UTF-8"}));
    std::setlocale(LC_ALL, "C");
}

TEST(PlainLogLine, GoesToStandardOutputAsItStands)
{
    const support::ChildResult child = support::runInChild([] {
        const int length = my_printf("[INFO Quorvil/Test:1]    %s %d\n", "text", 5);
        std::fprintf(stderr, "%d", length);
    });
    EXPECT_EQ(child.out, "[INFO Quorvil/Test:1]    text 5\n");
    EXPECT_EQ(child.err, "32");
}

namespace firstSource {
QUORVIL_LOG_GROUP("Noname");
QUORVIL_LOG_INDEX();
int evaluated = 0;

void log(int line)
{
    QUORVIL_LOG("Quorvil/First", line, "number %d failed: %s\n", (++evaluated, line), std::strerror(EBADF));
}
} // namespace firstSource

namespace secondSource {
QUORVIL_LOG_GROUP("Noname");
QUORVIL_LOG_INDEX();

void log()
{
    QUORVIL_LOG("Quorvil/Second", 7, "plain\n");
}
} // namespace secondSource

TEST(LoggingCall, ReachesTheLogUntilTheConfigurationSilencesAValidIndex)
{
    using quorvil::intern::noLogGroup;
    struct
    {
        const char* name;
        uint32_t loaded;
        uint32_t index;
        uint32_t enabled;
        bool reaches;
    } const rows[] = {
        {"before the configuration, silent group", 0, 0, 0, true},
        {"before the configuration, first call", 0, noLogGroup, 0, true},
        {"configured, first call", 1, noLogGroup, 0, true},
        {"configured, silent group", 1, 0, 0, false},
        {"configured, speaking group", 2, 0, 4, true},
        {"configured, last index, silent", 1, 63, 0, false},
        {"configured, index behind the table", 1, 64, 0, true},
    };
    testing::internal::CaptureStderr();
    for (const auto& row : rows) {
        gl_bOVXLConfigLoaded = row.loaded;
        firstSource::logGroupIndex = row.index;
        for (OvxLogGroupCfg& record : gl_psOvxLogGrpCfgTable)
            record.logEnabled = row.enabled;
        firstSource::evaluated = 0;
        const int before = ovxlog::calls();
        firstSource::log(12);
        EXPECT_EQ(ovxlog::calls() - before, row.reaches ? 1 : 0) << row.name;
        EXPECT_EQ(firstSource::evaluated, row.reaches ? 1 : 0) << row.name;
        if (!row.reaches) {
            EXPECT_EQ(firstSource::logGroupIndex, row.index) << row.name;
            continue;
        }
        EXPECT_EQ(firstSource::logGroupIndex, 0U) << row.name;
        const ovxlog::LastCall last = ovxlog::lastCall();
        EXPECT_EQ(last.groupIndex, row.index) << row.name;
        EXPECT_STREQ(last.group, "Noname");
        EXPECT_STREQ(last.file, "Quorvil/First");
        EXPECT_EQ(last.line, 12);
        EXPECT_STREQ(last.text, "number 12 failed: Bad file descriptor\n");
    }
    gl_bOVXLConfigLoaded = 0;
    secondSource::log();
    EXPECT_EQ(ovxlog::lastCall().groupIndex, noLogGroup) << "sources share a group but no index";
    testing::internal::GetCapturedStderr();
}

TEST(LoggingCall, StoresAnIndexBehindTheTableAndThenNothingSilencesIt)
{
    const support::ChildResult child = support::runInChild([] {
        static char names[64][16];
        for (auto& name : names) {
            std::snprintf(name, sizeof name, "g%d", static_cast<int>(&name - names));
            OVX_Log_Printf(0, name, 1, 1, 1, 0, "", 0, "%s", "");
        }
        gl_bOVXLConfigLoaded = 1;
        for (int i = 0; i < 3; ++i)
            secondSource::log();
        safePrintf("%u %d", secondSource::logGroupIndex.load(), ovxlog::calls() - 64);
    });
    EXPECT_EQ(child.out, "64 3");
}

// ---- failure reports

TEST(GeneralException, AnnouncesItselfUnlessSilenced)
{
    for (const bool silent : {false, true}) {
        for (const bool defaultSilent : {false, true}) {
            testing::internal::CaptureStdout();
            util::GeneralException::defaultSilent = defaultSilent;
            const util::GeneralException exception("100%s", silent);
            util::GeneralException::defaultSilent = false;
            std::fflush(stdout);
            EXPECT_EQ(testing::internal::GetCapturedStdout(),
                      silent || defaultSilent
                          ? ""
                          : "[WARN Quorvil/GeneralException:65]    Constructing GeneralException with msg 100%s\n");
            EXPECT_STREQ(exception.what(), "100%s");
        }
    }
}

TEST(IllegalStateException, NamesOperationAndState)
{
    const util::IllegalStateException exception("start", "RUNNING");
    const std::exception& base = exception;
    EXPECT_STREQ(base.what(), "start called in RUNNING");
}

TEST(GeneralExceptionThrower, TakesTheFirstNameOfItsErrorOrTheNumber)
{
    const GroupingEverywhere grouping;
    struct
    {
        int err;
        std::vector<std::pair<int, const char*>> names;
        const char* where;
        const char* message;
    } const rows[] = {
        {22, {{22, "EINVAL"}, {22, "other"}}, "here", "EINVAL here"},
        {22, {{5, "EIO"}, {22, "EINVAL"}, {1, "EPERM"}}, " in f", "EINVAL  in f"},
        {5, {{22, "EINVAL"}}, "P", "Unexpected errno (5) P"},
        {1234567, {}, "P", "Unexpected errno (1234567) P"},
        {-1, {}, "", "Unexpected errno (-1) "},
        {0, {{0, ""}}, "P", " P"},
        {5, {}, nullptr, "Unexpected errno (5) "},
        {5, {{5, nullptr}}, "lost", ""},
    };
    for (const auto& row : rows) {
        util::GeneralExceptionThrower thrower(row.err);
        util::GeneralExceptionThrower writer(row.err);
        for (const auto& [code, name] : row.names) {
            thrower.handle(code, name);
            writer.handle(code, name);
        }
        testing::internal::CaptureStdout();
        std::ostringstream out;
        writer.writeNow(row.where, out);
        EXPECT_EQ(out.str(), std::string(row.message) + "\n");
        try {
            thrower.throwNow(row.where);
            ADD_FAILURE();
        } catch (const util::GeneralException& exception) {
            EXPECT_STREQ(exception.what(), row.message);
        }
        std::fflush(stdout);
        EXPECT_EQ(testing::internal::GetCapturedStdout(),
                  std::string("[WARN Quorvil/GeneralException:65]    Constructing GeneralException with msg ") +
                      row.message + "\n");
    }
}

TEST(Safe, PassesOnEverythingButAFailure)
{
    errno = EBADF;
    for (const int result : {0, 7, -2, std::numeric_limits<int>::min()})
        EXPECT_EQ(util::safe("f", "F", 1, result, true), result);
    EXPECT_EQ(util::safePosix("f", "F", 1, 0), 0);
    EXPECT_EQ(errno, EBADF);
}

TEST(Safe, ReportsAFailureInOneLineAndKeepsErrno)
{
    const GroupingEverywhere grouping;
    testing::internal::CaptureStderr();
    errno = EBADF;
    EXPECT_EQ(util::safe("void f(int)", "Quorvil/F", 1234, -1, false), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "void f(int) failed in Quorvil/F:1234 - (9) Bad file descriptor\n");
}

TEST(Safe, ANullTextCutsTheReportShortAndNothingElse)
{
    testing::internal::CaptureStderr();
    errno = EBADF;
    EXPECT_EQ(util::safe("f", nullptr, 1, -1, false), -1);
    EXPECT_TRUE(std::cerr.bad());
    std::cerr.clear();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "f failed in ");
}

TEST(SafeDeathTest, StopsTheProcessBehindTheReport)
{
    EXPECT_DEATH((errno = EBADF, util::safe("f()", "Quorvil/F", 12, -1, true)),
                 R"(^f\(\) failed in Quorvil/F:12 - \(9\) Bad file descriptor
.*: Quorvil/SafeLinuxCalls:32: int util::safe\(const char\*, const char\*, int, int, bool\): )"
                 R"(Assertion .linuxFuncResult != -1' failed)");
    EXPECT_DEATH((errno = EBADF, util::safePosix("f()", "Quorvil/F", 12, EINVAL)),
                 R"(^f\(\) failed in Quorvil/F:12 - \(22\) Invalid argument
.*: Quorvil/SafeLinuxCalls:50: int util::safePosix\(const char\*, const char\*, int, int\): )"
                 R"(Assertion .posixFuncResult == 0' failed)");
    EXPECT_DEATH(util::safePosix(nullptr, "Quorvil/F", 12, EINVAL), "Assertion .posixFuncResult == 0' failed");
}

TEST(NotYetImplementedDeathTest, SaysWhatIsMissingAndStops)
{
    EXPECT_DEATH(nyi::nyi("colour"), R"(^>>> NOT YET IMPLEMENTED: colour
.*: Quorvil/NotYetImplemented:27: void nyi::nyi\(const char\*\): Assertion .false' failed)");
}

TEST(Ibuf, PerrorErrnoGivesTheErrorAndThenTheCurrentOne)
{
    struct
    {
        const char* what;
        const char* text;
    } const rows[] = {{"opening", "\n**** ERROR - opening: Invalid argument\n\n: Bad file descriptor\n"},
                      {nullptr, "\n**** ERROR - : Bad file descriptor\n"}};
    for (const auto& row : rows) {
        testing::internal::CaptureStderr();
        errno = EBADF;
        quorvil::ibuf::perror_errno(row.what, EINVAL);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), row.text);
    }
}

TEST(Ibuf, SetSchedHighestReportsAFailureAndGoesOn)
{
    testing::internal::CaptureStderr();
    {
        const support::FaultScope fault(pthread_setschedparamFault, EPERM);
        errno = 0;
        quorvil::ibuf::setSchedHighest(pthread_self());
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "\n**** ERROR - pthread_setschedparam: Operation not permitted\n\n: Success\n");
}

TEST(Ibuf, SetSchedHighestGivesRealTimePriorityJustBelowTheHighest)
{
    std::thread([] {
        testing::internal::CaptureStderr();
        quorvil::ibuf::setSchedHighest(pthread_self());
        int policy = 0;
        sched_param parameters{};
        pthread_getschedparam(pthread_self(), &policy, &parameters);
        if (!testing::internal::GetCapturedStderr().empty()) {
            std::puts("real-time priority is not allowed here: only the report could be seen");
            return;
        }
        EXPECT_EQ(policy, SCHED_FIFO);
        EXPECT_EQ(parameters.sched_priority, 98);
    }).join();
}

TEST(ImplementedFunc, IsEmptyAndUnlockedAtLoad)
{
    const std::unique_lock lock(ovx::ImplementedFunc::mu, std::try_to_lock);
    EXPECT_TRUE(lock.owns_lock());
    EXPECT_TRUE(ovx::ImplementedFunc::allImplemented.empty());
}

// ---- time values

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
    const GroupingEverywhere grouping;
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
    const GroupingEverywhere grouping;
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

// ---- console streams

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
        EXPECT_THROW(safePrintf("x"), std::system_error);
    }
    std::fflush(stdout);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_TRUE(anotherThreadCanWrite());
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
