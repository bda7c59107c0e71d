// Foundation: the log frame, failure reports, and what takes no memory.

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
#include "tests/support/allocationCount.h"
#include "tests/support/child.h"
#include "tests/support/groupingLocale.h"
#include "tests/support/interpose.h"

#include <array>
#include <cerrno>
#include <clocale>
#include <cstring>
#include <gtest/gtest.h>
#include <iostream>
#include <limits>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

std::vector<std::string> localeCalls;
bool noteLocaleCalls = false;
bool spoilErrno = false; ///< `strerror` changes it
int scheduledPolicy = 0; ///< of the last `pthread_setschedparam`
int scheduledPriority = 0;
support::Fault schedulingFault("pthread_setschedparam");

} // namespace

extern "C" {

__attribute__((visibility("default"))) SUPPORT_UNINSTRUMENTED char* setlocale(int category, const char* name) noexcept
{
    if (noteLocaleCalls)
        localeCalls.push_back(std::to_string(category) + " " + (name ? name : "?"));
    return support::real<char* (*)(int, const char*)>("setlocale")(category, name);
}

__attribute__((visibility("default"))) char* strerror(int error) noexcept
{
    if (spoilErrno)
        errno = EIO;
    return support::real<char* (*)(int)>("strerror")(error);
}

__attribute__((visibility("default"))) int pthread_setschedparam(pthread_t thread, int policy,
                                                                 const sched_param* parameters) noexcept
{
    scheduledPolicy = policy;
    scheduledPriority = parameters->sched_priority;
    if (schedulingFault.strikes())
        return static_cast<int>(schedulingFault.result);
    return support::real<int (*)(pthread_t, int, const sched_param*)>("pthread_setschedparam")(thread, policy,
                                                                                               parameters);
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
    localeCalls.clear();
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

namespace lateSource {
QUORVIL_LOG_GROUP("Late");
QUORVIL_LOG_INDEX();

void log()
{
    QUORVIL_LOG("Quorvil/Late", 8, "plain\n");
}
} // namespace lateSource

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
    const uint32_t noname = OVX_Log_Printf(0, "Noname", 1, 1, 1, 0, "", 0, "%s", "");
    secondSource::logGroupIndex = noLogGroup;
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
        EXPECT_EQ(firstSource::logGroupIndex, noname) << row.name;
        const ovxlog::LastCall last = ovxlog::lastCall();
        EXPECT_EQ(last.groupIndex, row.index) << row.name;
        EXPECT_STREQ(last.group, "Noname");
        EXPECT_EQ(last.constants, (std::array<int, 4>{1, 1, 1, 0}));
        EXPECT_STREQ(last.file, "Quorvil/First");
        EXPECT_EQ(last.line, 12);
        EXPECT_STREQ(last.text, "number 12 failed: Bad file descriptor\n");
    }
    gl_bOVXLConfigLoaded = 0;
    firstSource::logGroupName = "Renamed"; // its slot in LogGroups is read at every call
    firstSource::log(12);
    EXPECT_STREQ(ovxlog::lastCall().group, "Renamed");
    firstSource::logGroupName = "Noname";
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
        const int before = ovxlog::calls();
        for (int i = 0; i < 3; ++i)
            lateSource::log();
        safePrintf("%u %d", lateSource::logGroupIndex.load(), ovxlog::calls() - before);
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
    const support::GroupingEverywhere grouping;
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
    const support::GroupingEverywhere grouping;
    testing::internal::CaptureStderr();
    errno = EBADF;
    EXPECT_EQ(util::safe("void f(int)", "Quorvil/F", 1234, -1, false), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "void f(int) failed in Quorvil/F:1234 - (9) Bad file descriptor\n");
}

/// Spoils `errno` as a failing write would, and lets the text through.
struct Spoiler : std::streambuf
{
    explicit Spoiler(std::streambuf* buffer)
        : console(buffer)
    {
    }
    int overflow(int c) override
    {
        errno = EIO;
        return console->sputc(static_cast<char>(c));
    }
    std::streambuf* console;
};

TEST(Safe, KeepsErrnoWhateverTheConsoleDoesToIt)
{
    testing::internal::CaptureStderr();
    Spoiler spoiler(std::cerr.rdbuf());
    std::cerr.rdbuf(&spoiler);
    errno = EBADF;
    util::safe("f", "F", 1, -1, false);
    EXPECT_EQ(errno, EBADF);
    std::cerr.rdbuf(spoiler.console);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "f failed in F:1 - (9) Bad file descriptor\n");
}

TEST(Safe, ANullTextFailsTheErrorStream)
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
        spoilErrno = true;
        quorvil::ibuf::perror_errno(row.what, EINVAL);
        spoilErrno = false;
        EXPECT_EQ(testing::internal::GetCapturedStderr(), row.text);
    }
}

TEST(Ibuf, SetSchedHighestReportsAFailureAndGoesOn)
{
    testing::internal::CaptureStderr();
    {
        const support::FaultScope fault(schedulingFault, EPERM);
        errno = 0;
        quorvil::ibuf::setSchedHighest(pthread_self());
    }
    EXPECT_EQ(scheduledPolicy, SCHED_FIFO);
    EXPECT_EQ(scheduledPriority, 98);
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

TEST(Foundation, TakesNoMemoryWhereARealTimeThreadMayCallIt)
{
    util::TimeSpec sum;
    util::TimeLimit limit; // it has looked up the clock
    const util::GeneralException exception("text", true);
    gl_bOVXLConfigLoaded = 1;
    const support::AllocationCount count;
    util::TimeSpec now;
    now.initNow(CLOCK_MONOTONIC);
    now.init(1, -1);
    now.normalize();
    now.initFromMs(5);
    now.initFromThreadXTicks(5);
    sum += now;
    sum -= now;
    const bool less = sum < now;
    const timespec difference = subtract(*sum.to_c(), *now.to_c());
    const bool passed = limit.checkAround(1, 1'000'000, 1e9);
    const int results = util::safe("f", "F", 1, 0, true) + util::safePosix("f", "F", 1, 0);
    const bool silenced = quorvil::intern::logSilenced(0);
    const char* text = exception.what();
    {
        const tss::Internal chain = safeCout << std::flush;
    }
    EXPECT_EQ(count.allocations() + count.releases(), 0U);
    EXPECT_TRUE(less && passed && silenced && difference.tv_nsec < 0 && results == 0 && *text == 't');
    gl_bOVXLConfigLoaded = 0;
}

} // namespace
