// Foundation: the log frame, failure reports, console streams, times.

#include "Quorvil/GeneralException.h"
#include "Quorvil/NotYetImplemented.h"
#include "Quorvil/QuorvilIbuf.h"
#include "Quorvil/QuorvilInit.h"
#include "Quorvil/QuorvilLog.h"
#include "Quorvil/SafeLinuxCalls.h"
#include "Quorvil/ThreadSafeStream.h"
#include "Quorvil/TimeSpec.h"
#include "tests/support/allocationCount.h"
#include "tests/support/child.h"
#include "tests/support/groupingLocale.h"
#include "tests/support/interpose.h"

#include <climits>
#include <clocale>
#include <cmath>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <random>

SUPPORT_INTERPOSE(int, pthread_mutex_lock, (pthread_mutex_t * mutex), (mutex), noexcept)

static const timespec* fakeNow = nullptr; ///< what the monotonic clock shows, if set
static std::string locales;               ///< what `setlocale`, which fails, was asked for

SUPPORT_UNINSTRUMENTED int clock_gettime(clockid_t clock, timespec* now) noexcept
{
    if (!fakeNow || clock != CLOCK_MONOTONIC)
        return support::real<int (*)(clockid_t, timespec*)>("clock_gettime")(clock, now);
    *now = *fakeNow;
    return 0;
}

char* setlocale(int category, const char* name) noexcept
{
    locales += std::to_string(category) + name + ";";
    return nullptr;
}

/// Thread 0 has the right to the highest priority, and to no other one.
int pthread_setschedparam(pthread_t thread, int policy, const sched_param* how) noexcept
{
    return thread == 0 && policy == SCHED_FIFO && how->sched_priority == 98 ? 0 : EPERM;
}

namespace {

/// What `action` writes in a child: to standard output, expectations that fail included, a bar behind it, then to
/// standard error, and the text of its exception.
std::string outcomeOf(const std::function<void()>& action)
{
    const support::ChildResult child = support::runInChild([&action] {
        try {
            action();
        } catch (const std::exception& exception) {
            std::fputs(exception.what(), stderr);
        }
    });
    return child.out + (child.out.empty() ? "" : "|") + child.err;
}

// ---- start-up and log frame

TEST(Init, LocaleIsGermanWithEnglishNumbersAndAMissingOneIsNoError)
{
    locales.clear();
    initLocale();
    EXPECT_EQ(locales, std::to_string(LC_ALL) + "de_DE.UTF-8;" + std::to_string(LC_NUMERIC) + "en_US.UTF-8;");
    EXPECT_STREQ(QUORVIL_VERSION, QUORVIL_BUILD_VERSION);
}

namespace someSource {
QUORVIL_LOG_GROUP("Noname");
QUORVIL_LOG_INDEX();

void log(int& evaluated)
{
    QUORVIL_LOG("Quorvil/Some", 12, "%s %d\n", "text", ++evaluated);
}
} // namespace someSource

TEST(LoggingCall, ReachesTheLogUntilTheConfigurationSilencesAValidIndex)
{
    const struct
    {
        uint32_t loaded, index, enabled;
        bool reaches;
    } rows[] = {{0, 0, 0, true}, {0, ~0U, 0, true}, {1, ~0U, 0, true}, {1, 0, 0, false},
                {2, 0, 4, true}, {1, 63, 0, false}, {1, 64, 0, true}};
    for (const auto& row : rows) {
        const auto log = [&row] {
            int evaluated = 0;
            gl_bOVXLConfigLoaded = row.loaded;
            for (OvxLogGroupCfg& record : gl_psOvxLogGrpCfgTable)
                record.logEnabled = row.enabled;
            someSource::logGroupIndex = row.index;
            someSource::log(evaluated);
            EXPECT_EQ(evaluated, row.reaches);
            EXPECT_EQ(someSource::logGroupIndex, row.reaches ? 0 : row.index);
            EXPECT_TRUE(!row.reaches || ovxlog::lastCall().groupIndex == row.index);
        };
        EXPECT_EQ(outcomeOf(log), row.reaches ? "[Noname Quorvil/Some:12] text 1\n" : "");
    }
    const auto renamed = [number = 0]() mutable {
        EXPECT_EQ(someSource::logGroupIndex, ~0U);
        someSource::log(number);
        someSource::logGroupName = "Renamed"; // its slot in LogGroups is read at every call
        someSource::log(number);
        EXPECT_EQ(someSource::logGroupIndex, 1U);
        EXPECT_EQ(ovxlog::lastCall().constants, (std::array<int, 4>{1, 1, 1, 0}));
    };
    EXPECT_EQ(outcomeOf(renamed), "[Noname Quorvil/Some:12] text 1\n[Renamed Quorvil/Some:12] text 2\n");
}

// ---- failure reports and console streams

/// Writes to a safe stream of its own, or cannot be written.
struct Value
{
    bool fails;
};

std::ostream& operator<<(std::ostream& out, Value value)
{
    if (value.fails)
        throw std::runtime_error("no value");
    safeCout << "(inner)" << std::endl;
    return out << "outer";
}

/// Reports an error, to which it gives two names if it is 22.
void report(int error, const char* name, const char* where, bool thrown = false)
{
    util::GeneralExceptionThrower thrower(error);
    thrower.handle(22, name);
    thrower.handle(22, "other");
    thrown ? thrower.throwNow(where) : thrower.writeNow(where, std::cout);
}

TEST(Reports, HaveTheirTextsWhateverTheLocaleIsAndNoneWithoutTheLock)
{
    using util::GeneralException, quorvil::ibuf::perror_errno, quorvil::ibuf::setSchedHighest;
    const support::GroupingEverywhere grouping;
    const auto died = [](const std::string& place, const std::string& expression) {
        return "foundationTest: Quorvil/" + place + ": Assertion `" + expression + "' failed.\n";
    };
    const std::string safeCall = "int util::safe(const char*, const char*, int, int, bool)",
                      safe = died("SafeLinuxCalls:32: " + safeCall, "linuxFuncResult != -1"),
                      posixCall = "int util::safePosix(const char*, const char*, int, int)",
                      safePosix = died("SafeLinuxCalls:50: " + posixCall, "posixFuncResult == 0"),
                      announced = "[WARN Quorvil/GeneralException:65]    Constructing GeneralException with msg ",
                      current = "Bad file descriptor\n";
    const struct
    {
        std::function<void()> action;
        std::string outcome;
        bool locks = false; ///< takes the lock of the console
    } rows[] = {
        {[] { GeneralException("100%s", false), GeneralException("silent", true); }, announced + "100%s\n|"},
        {[] { GeneralException::defaultSilent = true, report(22, "EINVAL", "P", true); }, "EINVAL P"},
        {[] { throw util::IllegalStateException("start", "RUNNING"); }, "start called in RUNNING"},
        {[] { report(22, "EINVAL", " in f", true); }, announced + "EINVAL  in f\n|EINVAL  in f"},
        {[] { report(1234567, "EINVAL", "P"); }, "Unexpected errno (1234567) P\n|"},
        {[] { report(-1, "EINVAL", nullptr); }, "Unexpected errno (-1) \n|"},
        {[] { report(22, nullptr, "P"); }, "\n|"},
        {[] { EXPECT_EQ(util::safe("f", "F", 1, -2, true) + util::safePosix("f", "F", 1, 0), -2); }, ""},
        {[] { EXPECT_EQ(util::safe("void f(int)", "Quorvil/F", 1234, -1, false) - errno, -1 - EBADF); },
         "void f(int) failed in Quorvil/F:1234 - (9) " + current, true},
        {[] { util::safe("f", "F", 12, -1, true); }, "f failed in F:12 - (9) " + current + safe, true},
        {[] { util::safe(nullptr, "F", 12, -1, true); }, safe, true},
        {[] { util::safePosix("f", "F", 12, EINVAL); }, "f failed in F:12 - (22) Invalid argument\n" + safePosix, true},
        {[] { util::safePosix("f", nullptr, 12, EINVAL); }, "f failed in " + safePosix, true},
        {[] { nyi::nyi("f"); },
         ">>> NOT YET IMPLEMENTED: f\n" + died("NotYetImplemented:27: void nyi::nyi(const char*)", "false"), true},
        {[] { perror_errno("open", EINVAL); }, "\n**** ERROR - open: Invalid argument\n\n: " + current},
        {[] { perror_errno(nullptr, EINVAL); }, "\n**** ERROR - : " + current},
        {[] { setSchedHighest(1); }, "\n**** ERROR - pthread_setschedparam: Operation not permitted\n\n: " + current},
        {[] { setSchedHighest(0); }, ""},
        {[] { safeCout << std::endl; }, "\n|", true},
        {[] { safeCerr << "[" << Value{false} << "]"; }, "(inner)\n|[outer]", true},
        {[] { safeCerr << "x" << Value{true}; }, "xno value", true},
        {[] { safePrintf("%d", 5); }, "5|", true},
    };
    const support::HookScope spoiler(pthread_mutex_lockFault, [] { errno = EIO; }); // as the console may
    for (const auto& [action, outcome, locks] : rows) {
        EXPECT_EQ(outcomeOf([&call = action] { errno = EBADF, call(); }), outcome);
        const auto withoutLock = [&call = action] {
            const support::FaultScope fault(pthread_mutex_lockFault, EAGAIN);
            call();
        };
        EXPECT_TRUE(!locks || outcomeOf(withoutLock) == "Resource temporarily unavailable") << outcome;
    }
}

TEST(ThreadSafeStream, TakesNoMemoryAndGivesTheLockBackWhereAValueThrows)
{
    EXPECT_ANY_THROW(safeCout << "" << Value{true});
    std::jthread([] { EXPECT_EQ(safePrintf("%s", ""), 0); });
    const util::GeneralException exception("text", true);
    const support::AllocationCount count;
    EXPECT_STREQ(exception.what(), "text");
    EXPECT_FALSE(quorvil::intern::logSilenced(0));
    const tss::Internal chain = safeCout << "", copy = chain;
    EXPECT_EQ(count.allocations(), 0U);
    const support::FaultScope fault(pthread_mutex_lockFault, EAGAIN);
    EXPECT_THROW(tss::Internal another(chain), std::system_error);
}

TEST(ThreadSafeStream, KeepsWholeStatementsTogetherAcrossBothStreamsAndPrintf)
{
    constexpr int rounds = 300;
    const std::string lines = outcomeOf([] {
        dup2(STDOUT_FILENO, STDERR_FILENO);
        std::setvbuf(stdout, nullptr, _IONBF, 0);
        std::vector<std::jthread> threads;
        for (int writer = 0; writer < 6; ++writer)
            threads.emplace_back([writer] {
                for (int i = 0; i < rounds; ++i)
                    if (writer < 4)
                        (writer % 2 == 0 ? safeCout : safeCerr) << "<" << writer << " " << i << ">" << std::endl;
                    else
                        safePrintf("<%d %d>\n", writer, i);
            });
    });
    for (int i = 0; i < 6 * rounds; ++i) {
        const std::string line = "<" + std::to_string(i / rounds) + " " + std::to_string(i % rounds) + ">\n";
        EXPECT_TRUE(lines.find(line) != std::string::npos) << line;
    }
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

TEST(TimeSpec, ConvertsAddsSubtractsAndComparesWithoutMemory)
{
    std::mt19937 random(1);
    const auto total = [](const util::TimeSpec& value) {
        return static_cast<long long>(value.to_c()->tv_sec) * billion + value.to_c()->tv_nsec;
    };
    const auto is = [](const util::TimeSpec& value, long sec, long nsec) {
        return value.to_c()->tv_sec == sec && value.to_c()->tv_nsec == nsec;
    };
    for (int i = 0; i < 10'000; ++i) {
        const int any = i < 2 ? (i == 0 ? INT_MAX : INT_MIN) : static_cast<int>(random());
        const long n = static_cast<long>(random() % billion), other = static_cast<long>(random() % billion);
        util::TimeSpec a(timespec{i % 5, n}), b(timespec{i % 7, i % 2 == 0 ? n : other}), ticks, ms;
        const long long difference = total(a) - total(b);
        const support::AllocationCount count;
        ticks.initFromThreadXTicks(any);
        ms.initFromMs(any), ms.normalize();
        const auto [sec, nsec] = subtract(*a.to_c(), *b.to_c());
        EXPECT_EQ(a < b, difference < 0);
        EXPECT_EQ(total(util::TimeSpec(a) += b), total(a) + total(b));
        EXPECT_EQ(total(a -= b), difference);
        EXPECT_TRUE(is(a, sec, nsec)) << difference;
        EXPECT_TRUE(is(ticks, any / 100, any % 100 * 10'000'000L)) << any;
        EXPECT_TRUE(is(ms, any / 1000, any % 1000 * 1'000'000L)) << any;
        EXPECT_EQ(count.allocations(), 0U);
    }
    EXPECT_TRUE(util::TimeSpec({LONG_MAX, 0}) < util::TimeSpec({LONG_MIN, 0})) << "the difference wraps around";
}

TEST(TimeSpec, HasTextFormsThatFollowTheStreamOrNone)
{
    const support::GroupingEverywhere grouping;
    util::TimeSpec value(timespec{12'345, 67'890'000});
    value.initNow(12345); // a clock that there is not
    EXPECT_EQ(value.toShortString(), "12345.068");
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
        std::string shown; ///< of a failed check
    } rows[] = {
        {10, 100, 1.5, {0, 666'000'000}, ""},
        {1, 4000, 2.0, {1, 999'999'999}, "2s; 0ns)\ndiff: TimeSpec(1s; 999999999ns)\nmaxDiff: TimeSpec(8s; 0ns)\n"},
        {10, 100, 0.5, {2, 1}, "0s; 500000000ns)\ndiff: TimeSpec(2s; 1ns)\nmaxDiff: TimeSpec(2s; 0ns)\n"},
        {INT_MAX, 2, 2.0, {1'073'741, 823'000'000}, ""}, // beyond an int: its limit
        {10, 100, 0.0, {2'147'483, 647'000'000}, ""},    // the reciprocal has no upper bound
        {10, 100, std::nan(""), {0, 0}, "0s; 0ns)\ndiff: TimeSpec(0s; 0ns)\nmaxDiff: TimeSpec(0s; 0ns)\n"},
    };
    const support::GroupingEverywhere grouping;
    for (const auto& row : rows) {
        const auto check = [&row] {
            timespec now{1000, 500'000'000};
            fakeNow = &now;
            util::TimeLimit limit;
            now = *(util::TimeSpec(now) += row.diff).to_c();
            EXPECT_EQ(limit.checkAround(row.count, row.ms, row.factor), row.shown.empty());
        };
        EXPECT_EQ(outcomeOf(check), row.shown.empty() ? "" : "minDiff: TimeSpec(" + row.shown);
    }
}

} // namespace
