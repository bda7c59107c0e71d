// Foundation: the log frame, failure reports, console streams, times.

#include "Quorvil/EnterIfInteractive.h"
#include "Quorvil/GeneralException.h"
#include "Quorvil/NotYetImplemented.h"
#include "Quorvil/QuorvilIbuf.h"
#include "Quorvil/QuorvilInit.h"
#include "Quorvil/QuorvilLog.h"
#include "Quorvil/SafeLinuxCalls.h"
#include "Quorvil/ThreadSafeStream.h"
#include "Quorvil/TimeSpec.h"
#include "tests/support/allocationCount.h"
#include "tests/support/assertion.h"
#include "tests/support/child.h"
#include "tests/support/groupingLocale.h"
#include "tests/support/interpose.h"

#include <climits>
#include <clocale>
#include <cmath>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <random>
#include <sys/syscall.h>
#include <thread>

SUPPORT_INTERPOSE(int, pthread_mutex_lock, (pthread_mutex_t * mutex), (mutex), noexcept)

namespace {

const timespec* fakeNow = nullptr; ///< what the monotonic clock shows, if set
std::string calls; ///< of `setlocale`, which fails, and `pthread_setschedparam`, which knows thread 0 only

} // namespace

extern "C" {

__attribute__((visibility("default"))) SUPPORT_UNINSTRUMENTED int clock_gettime(clockid_t clock, timespec* now) noexcept
{
    if (!fakeNow || clock != CLOCK_MONOTONIC)
        return support::real<int (*)(clockid_t, timespec*)>("clock_gettime")(clock, now);
    *now = *fakeNow;
    return 0;
}

__attribute__((visibility("default"))) char* setlocale(int category, const char* name) noexcept
{
    calls += std::to_string(category) + name + ";";
    return nullptr;
}

__attribute__((visibility("default"))) int pthread_setschedparam(pthread_t thread, int policy,
                                                                 const sched_param* how) noexcept
{
    calls += std::to_string(policy) + " " + std::to_string(how->sched_priority);
    return thread == 0 ? 0 : EPERM;
}
}

namespace {

/// What `action` writes to standard output, behind it what to standard error, and the text of its exception.
std::string written(const std::function<void()>& action)
{
    std::string thrown;
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    try {
        action();
    } catch (const std::exception& exception) {
        thrown = std::string("thrown: ") + exception.what();
    }
    std::fflush(stdout);
    return testing::internal::GetCapturedStdout() + testing::internal::GetCapturedStderr() + thrown;
}

// ---- start-up and log frame

TEST(Init, LocaleIsGermanWithEnglishNumbersAndAMissingOneIsNoError)
{
    initLocale();
    EXPECT_TRUE(calls.ends_with(std::to_string(LC_ALL) + "de_DE.UTF-8;" + std::to_string(LC_NUMERIC) + "en_US.UTF-8;"));
    EXPECT_STREQ(QUORVIL_VERSION, QUORVIL_BUILD_VERSION);
}

namespace someSource {
QUORVIL_LOG_GROUP("Noname");
QUORVIL_LOG_INDEX();
int evaluated = 0;

void log()
{
    QUORVIL_LOG("Quorvil/Some", 12, "number %d: %s\n", ++evaluated, "text");
}
} // namespace someSource

TEST(LoggingCall, ReachesTheLogUntilTheConfigurationSilencesAValidIndex)
{
    using quorvil::intern::logSilenced, quorvil::intern::noLogGroup;
    const struct
    {
        uint32_t loaded, index, enabled;
        bool reaches;
    } rows[] = {{0, 0, 0, true}, {0, noLogGroup, 0, true}, {1, noLogGroup, 0, true}, {1, 0, 0, false},
                {2, 0, 4, true}, {1, 63, 0, false},        {1, 64, 0, true}};
    for (const auto& row : rows) {
        gl_bOVXLConfigLoaded = row.loaded;
        for (OvxLogGroupCfg& record : gl_psOvxLogGrpCfgTable)
            record.logEnabled = row.enabled;
        someSource::logGroupIndex = row.index;
        someSource::evaluated = 0;
        const support::AllocationCount count;
        EXPECT_EQ(logSilenced(row.index), !row.reaches) << row.loaded << " " << row.index;
        EXPECT_EQ(count.allocations(), 0U);
        EXPECT_EQ(written(someSource::log), row.reaches ? "[Noname Quorvil/Some:12] number 1: text\n" : "");
        EXPECT_EQ(someSource::evaluated, row.reaches);
        EXPECT_EQ(someSource::logGroupIndex, row.reaches ? 0 : row.index);
        EXPECT_TRUE(!row.reaches || ovxlog::lastCall().groupIndex == row.index) << row.index;
    }
    gl_bOVXLConfigLoaded = 0;
    someSource::logGroupName = "Renamed"; // its slot in LogGroups is read at every call
    EXPECT_EQ(written(someSource::log), "[Renamed Quorvil/Some:12] number 2: text\n");
    EXPECT_EQ(someSource::logGroupIndex, 1U);
    someSource::logGroupName = "Noname";
    EXPECT_EQ(ovxlog::lastCall().constants, (std::array<int, 4>{1, 1, 1, 0}));
}

// ---- failure reports and console streams

/// What writes to a safe stream of its own, and what cannot be written.
enum class Nested
{
    value,
    failure
};

std::ostream& operator<<(std::ostream& out, Nested nested)
{
    if (nested == Nested::failure)
        throw std::runtime_error("value");
    safeCout << "(inner)" << std::endl;
    return out << "outer";
}

/// Gives the error two names for 22.
util::GeneralExceptionThrower&& handled(util::GeneralExceptionThrower&& thrower, const char* name)
{
    thrower.handle(5, "EIO");
    thrower.handle(22, name);
    thrower.handle(22, "other");
    return std::move(thrower);
}

TEST(Reports, HaveTheirTextsWhateverTheLocaleIsAndNoneWithoutTheLock)
{
    using util::GeneralException, util::GeneralExceptionThrower, quorvil::ibuf::perror_errno;
    const support::GroupingEverywhere grouping;
    const std::string announced = "[WARN Quorvil/GeneralException:65]    Constructing GeneralException with msg ";
    const struct
    {
        std::function<void()> action;
        std::string text;
        bool locks = false; ///< takes the lock of the console
    } rows[] = {
        {[] { GeneralException("100%s", false); }, announced + "100%s\n"},
        {[] { GeneralException("100%s", true); }, ""},
        {[] { throw util::IllegalStateException("start", "RUNNING"); }, "thrown: start called in RUNNING"},
        {[] { handled(GeneralExceptionThrower(22), "EINVAL").throwNow(" in f"); },
         announced + "EINVAL  in f\nthrown: EINVAL  in f"},
        {[] { handled(GeneralExceptionThrower(1234567), "EINVAL").writeNow("P", std::cout); },
         "Unexpected errno (1234567) P\n"},
        {[] { handled(GeneralExceptionThrower(-1), "EINVAL").writeNow(nullptr, std::cout); },
         "Unexpected errno (-1) \n"},
        {[] { handled(GeneralExceptionThrower(22), nullptr).writeNow("P", std::cout); }, "\n"},
        {[] { EXPECT_EQ(util::safe("f", "F", 1, -2, true), -2); }, ""},
        {[] {
             const int result = util::safe("void f(int)", "Quorvil/F", 1234, -1, false);
             EXPECT_EQ(result - errno, -1 - EBADF);
         },
         "void f(int) failed in Quorvil/F:1234 - (9) Bad file descriptor\n", true},
        {[] { perror_errno("open", EINVAL); }, "\n**** ERROR - open: Invalid argument\n\n: Bad file descriptor\n"},
        {[] { perror_errno(nullptr, EINVAL); }, "\n**** ERROR - : Bad file descriptor\n"},
        {[] { quorvil::ibuf::setSchedHighest(pthread_self()); },
         "\n**** ERROR - pthread_setschedparam: Operation not permitted\n\n: Bad file descriptor\n"},
        {[] { quorvil::ibuf::setSchedHighest(0); }, ""},
        {[] { safeCout << std::endl; }, "\n", true},
        {[] { safeCerr << "[" << Nested::value << "]"; }, "(inner)\n[outer]", true},
        {[] { safeCerr << "x" << Nested::failure; }, "xthrown: value", true},
        {[] { safeCout << Nested::failure; }, "thrown: value", true},
        {[] { safePrintf("%d", 5); }, "5", true},
        {[] { std::jthread([] { safePrintf("free"); }); }, "free"},
    };
    const support::HookScope spoiler(pthread_mutex_lockFault, [] { errno = EIO; }); // as the console may
    for (const auto& row : rows) {
        EXPECT_EQ(written([&] { errno = EBADF, row.action(); }), row.text);
        if (!row.locks)
            continue;
        const support::FaultScope fault(pthread_mutex_lockFault, EAGAIN);
        EXPECT_EQ(written(row.action), "thrown: Resource temporarily unavailable");
    }
    EXPECT_TRUE(calls.ends_with(std::to_string(SCHED_FIFO) + " 98"));
    const std::function<void()> throwing[] = {[] { util::safePosix("f", "F", 1, EINVAL); }, [] { nyi::nyi("f"); },
                                              [] { enterIfInteractive(true, "f"); }};
    for (const auto& report : throwing) {
        const support::FaultScope fault(pthread_mutex_lockFault, EAGAIN);
        EXPECT_EQ(written(report), "thrown: Resource temporarily unavailable");
    }
}

TEST(ReportsDeathTest, StandBeforeTheAssertionThatFails)
{
    const char* const null = nullptr;
    const std::string safeCalls = "Quorvil/SafeLinuxCalls";
    const std::string safe = support::assertion(safeCalls, "int util::safe(const char*, const char*, int, int, bool)",
                                                "linuxFuncResult != -1", "32");
    const std::string safePosix = support::assertion(
        safeCalls, "int util::safePosix(const char*, const char*, int, int)", "posixFuncResult == 0", "50");
    const struct
    {
        std::function<void()> call;
        std::string report, assertion;
    } rows[] = {
        {[] { errno = EBADF, util::safe("f", "F", 12, -1, true); }, "f failed in F:12 - \\(9\\) Bad file descriptor\n",
         safe},
        {[=] { util::safe(null, "F", 12, -1, true); }, "", safe},
        {[] { util::safePosix("f", "F", 12, EINVAL); }, "f failed in F:12 - \\(22\\) Invalid argument\n", safePosix},
        {[=] { util::safePosix("f", null, 12, EINVAL); }, "f failed in ", safePosix},
        {[=] { nyi::nyi(null); }, ">>> NOT YET IMPLEMENTED: ",
         support::assertion("Quorvil/NotYetImplemented", "void nyi::nyi(const char*)", "false", "27")}};
    for (const auto& row : rows)
        EXPECT_DEATH(row.call(), "^" + row.report + "[^ ]*" + row.assertion);
}

TEST(GeneralException, IsSilentWhereThatIsTheDefaultAndTakesNoMemoryForItsText)
{
    util::GeneralException::defaultSilent = true;
    EXPECT_EQ(written([] { util::GeneralException("text", false); }), "");
    const util::GeneralException exception("text", false);
    util::GeneralException::defaultSilent = false;
    const support::AllocationCount count;
    EXPECT_STREQ(exception.what(), "text");
    const tss::Internal chain = safeCout << "", copy = chain;
    EXPECT_EQ(count.allocations(), 0U);
    const support::FaultScope fault(pthread_mutex_lockFault, EAGAIN);
    EXPECT_THROW(tss::Internal another(chain), std::system_error);
}

TEST(ThreadSafeStream, KeepsWholeStatementsTogetherAcrossBothStreamsAndPrintf)
{
    constexpr int rounds = 300;
    const auto write = [](int writer) {
        for (int i = 0; i < rounds; ++i)
            if (writer < 4)
                (writer % 2 == 0 ? safeCout : safeCerr) << "<" << writer << " " << i << ">" << std::endl;
            else
                safePrintf("<%d %d>\n", writer, i);
    };
    const support::ChildResult child = support::runInChild(
        [&] {
            std::setvbuf(stdout, nullptr, _IONBF, 0);
            std::vector<std::jthread> threads;
            for (int writer = 0; writer < 6; ++writer)
                threads.emplace_back(write, writer);
        },
        support::Streams::together);
    std::string missing;
    for (int i = 0; i < 6 * rounds; ++i) {
        const std::string line = "<" + std::to_string(i / rounds) + " " + std::to_string(i % rounds) + ">\n";
        missing += child.out.find(line) == std::string::npos ? line : "";
    }
    EXPECT_EQ(missing, "");
}

TEST(ThreadSafeStream, AndThePlainLineFlushNothingAndTellWhatThePrintfTells)
{
    const support::ChildResult child = support::runInChild([] {
        safeCout << "a" << 1;
        const int lengths = safePrintf("%s", "four") * 10 + my_printf("%d", 12);
        dup2(open("/dev/full", O_WRONLY), STDOUT_FILENO);
        dprintf(STDERR_FILENO, "%d %d", lengths, safePrintf("%s", std::string(100'000, 'x').c_str()) < 0);
        syscall(SYS_exit_group, 0); // a sanitizer flushes in its _exit
    });
    EXPECT_EQ(child.out + child.err, "42 1");
}

// ---- times

constexpr long billion = 1'000'000'000;

std::string textOf(const util::TimeSpec& value)
{
    std::ostringstream text;
    text << *value.to_c();
    return text.str();
}

TEST(TimeSpec, NormalisesEveryPair)
{
    std::mt19937_64 random(1);
    const auto any = [&] { return static_cast<long>(random()) >> random() % (CHAR_BIT * sizeof(long)); };
    for (int i = 0; i < 20'000; ++i) {
        const long sec = any();
        const long nsec = i % 2 == 0 ? any() : static_cast<long>(random() % 5) - 2 + (i % 3 - 1) * billion;
        util::TimeSpec value;
        value.init(sec, nsec);
        const auto [s, n] = *value.to_c();
        EXPECT_TRUE(n > -billion && n < billion && (s <= 0 || n >= 0) && (s >= 0 || n <= 0)) << sec << " " << nsec;
        // The same moment, but for whole wraps of the seconds.
        const auto carry = static_cast<long>(static_cast<unsigned long>(s) - static_cast<unsigned long>(sec));
        EXPECT_EQ(static_cast<long long>(carry) * billion + n, nsec) << sec;
    }
}

TEST(TimeSpec, ConvertsTicksAndMillisecondsOfEitherSign)
{
    for (const int number : {1999, -1, INT_MAX, INT_MIN}) {
        util::TimeSpec ticks, ms;
        const support::AllocationCount count;
        ticks.initFromThreadXTicks(number);
        ms.initFromMs(number);
        ms.normalize();
        EXPECT_EQ(count.allocations(), 0U);
        EXPECT_EQ(textOf(ticks), textOf(timespec{number / 100, number % 100 * 10'000'000L}));
        EXPECT_EQ(textOf(ms), textOf(timespec{number / 1000, number % 1000 * 1'000'000L}));
    }
}

TEST(TimeSpec, AddsSubtractsAndCompares)
{
    std::mt19937 random(1);
    const auto total = [](const util::TimeSpec& value) {
        return static_cast<long long>(value.to_c()->tv_sec) * billion + value.to_c()->tv_nsec;
    };
    for (int i = 0; i < 10'000; ++i) {
        const long n = static_cast<long>(random() % billion);
        util::TimeSpec a(timespec{i % 5, n}),
            b(timespec{i % 7, i % 2 == 0 ? n : static_cast<long>(random() % billion)});
        const long long difference = total(a) - total(b);
        const support::AllocationCount count;
        const timespec plain = subtract(*a.to_c(), *b.to_c());
        EXPECT_EQ(a < b, difference < 0);
        EXPECT_EQ(total(util::TimeSpec(a) += b), total(a) + total(b));
        EXPECT_EQ(total(a -= b), difference);
        EXPECT_EQ(count.allocations(), 0U);
        EXPECT_EQ(textOf(plain), textOf(a));
    }
    EXPECT_TRUE(util::TimeSpec({LONG_MAX, 0}) < util::TimeSpec({LONG_MIN, 0})) << "the difference wraps around";
}

TEST(TimeSpec, HasTextFormsThatFollowTheStreamOrNone)
{
    const support::GroupingEverywhere grouping;
    EXPECT_EQ(util::TimeSpec(timespec{12'345, 67'890'000}).toShortString(), "12345.068");
    EXPECT_EQ(util::TimeSpec(timespec{0, -500'000'000}).toShortString(), "-0.500");
    std::ostringstream out; // of the global locale
    out << util::TimeSpec(timespec{12, 5}) << std::hex << util::TimeSpec(timespec{10, 255}) << timespec{-17, -5} << 17;
    EXPECT_EQ(out.str(), "TimeSpec(1 2s; 5ns)TimeSpec(as; f fns)-1 7s -5ns1 7");
}

TEST(TimeLimit, PassesBetweenItsBoundsAndShowsThemWhenItFails)
{
    const struct
    {
        int count, ms;
        double factor;
        timespec diff;
        std::string least, shown, most; ///< of a failed check
    } rows[] = {{10, 100, 1.5, {0, 666'000'000}, "", "", ""},
                {10, 100, 1.5, {0, 665'999'999}, "0s; 666000000ns", "0s; 665999999ns", "1s; 500000000ns"},
                {10, 100, 0.5, {2, 1}, "0s; 500000000ns", "2s; 1ns", "2s; 0ns"},
                {INT_MAX, 2, 2.0, {1'073'741, 823'000'000}, "", "", ""}, // beyond an int: its limit
                {10, 100, 0.0, {2'147'483, 647'000'000}, "", "", ""},    // the reciprocal has no upper bound
                {10, 100, std::nan(""), {0, 0}, "0s; 0ns", "0s; 0ns", "0s; 0ns"}};
    const support::GroupingEverywhere grouping;
    for (const auto& row : rows) {
        timespec now{1000, 500'000'000};
        fakeNow = &now;
        util::TimeLimit limit;
        util::TimeSpec end;
        end.initNow(CLOCK_MONOTONIC);
        end.initNow(12345); // a clock that there is not
        now = *(end += row.diff).to_c();
        bool passed = false;
        const std::string lines = written([&] { passed = limit.checkAround(row.count, row.ms, row.factor); });
        fakeNow = nullptr;
        EXPECT_EQ(passed, row.least.empty()) << row.factor;
        EXPECT_EQ(lines, passed ? ""
                                : "minDiff: TimeSpec(" + row.least + ")\ndiff: TimeSpec(" + row.shown +
                                      ")\nmaxDiff: TimeSpec(" + row.most + ")\n");
    }
}

} // namespace
