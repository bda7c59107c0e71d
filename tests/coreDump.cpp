// Core dump: a core file of the running process, and what happens where the system says no.

#include "Quorvil/QuorvilCoreDump.h"
#include "siblings/OvxLog/OvxLog.h"
#include "tests/support/child.h"
#include "tests/support/environment.h"
#include "tests/support/temporaryFolder.h"
#include "tests/support/threadCreation.h"

#include <filesystem>
#include <fstream>
#include <tuple>

#include <sys/resource.h>

/// How the last dump ended, which the library does not ask.
static int dumpStatus = 0;
SUPPORT_INTERPOSE(pid_t, fork, (), (), noexcept)
SUPPORT_INTERPOSE(int, chdir, (const char* path), (path), noexcept)
SUPPORT_INTERPOSE(int, getrlimit64, (__rlimit_resource_t resource, rlimit64* limit), (resource, limit), noexcept)
SUPPORT_INTERPOSE(int, setrlimit64, (__rlimit_resource_t resource, const rlimit64* limit), (resource, limit), noexcept)
SUPPORT_INTERPOSE(pid_t, waitpid, (pid_t pid, int* status, int options),
                  (pid, status ? status : &dumpStatus, options), )

namespace {

namespace fs = std::filesystem;

using quorvil::coredump::prepare;
using quorvil::coredump::run;

const std::string begun = "[INFO Quorvil/QuorvilCoreDump:86]    CORE DUMP...\n";
const std::string done = "[INFO Quorvil/QuorvilCoreDump:91]    CORE DUMP done.\n";

struct CoreDump : testing::Test
{
    void SetUp() override
    {
        if (support::threadSanitized)
            GTEST_SKIP() << "the thread sanitizer flushes standard output and ends children in its own way";
        if (geteuid() != 0)
            GTEST_SKIP() << "only root can make " << folder;
        fs::create_directories(folder);
        fs::current_path(scratch.path);
    }

    ~CoreDump() override
    {
        std::error_code notThere;
        fs::current_path(fs::temp_directory_path());
        fs::remove_all(folder, notThere);
        fs::remove(folder.parent_path(), notThere); // if it is empty
        fs::remove(folder.parent_path().parent_path(), notThere);
    }

    const std::string name = "quorvilTest." + std::to_string(getpid());
    const fs::path folder = fs::path("/data/coreDumps") / name;
    const support::TemporaryFolder scratch;
};

TEST_F(CoreDump, RunReturnsBeforeTheDumpsAreDoneAndEachLeavesItsCoreInItsFolder)
{
    const support::ChildResult child = support::runInChild([&] {
        const auto threads = support::threadsNow(); // 1, but where an emulator runs some of its own
        int hold[2];
        EXPECT_EQ(pipe(hold), 0);
        // Both children wait for the end of the pipe before they enter their folder.
        const support::HookScope hook(chdirFault, [&] {
            close(hold[1]);
            char byte = 0;
            [[maybe_unused]] const ssize_t length = read(hold[0], &byte, 1);
        });
        run(name.c_str());
        run((name + "/several/levels").c_str());
        std::fputs("returned\n", stderr);
        close(hold[1]);
        support::awaitThreads(threads);
    });
    EXPECT_EQ(child.err, "returned\n");
    // One background task may be through before the other one begins.
    EXPECT_TRUE(child.out == begun + begun + done + done || child.out == begun + done + begun + done) << child.out;
    EXPECT_TRUE(fs::is_empty(scratch.path));
    std::string pattern;
    std::ifstream("/proc/sys/kernel/core_pattern") >> pattern;
    if (support::emulated || support::sanitized || pattern.find_first_of("|/") != std::string::npos)
        GTEST_SKIP() << "the core file is not this machine's kernel's, or not put where the process is, or too big";
    const std::ptrdiff_t files = std::distance(fs::recursive_directory_iterator(folder), {});
    EXPECT_EQ(files, 4) << "two folders, each with a core file";
}

const auto logged = [](const std::string& line) { return "[QuorvilCoreDump Quorvil/QuorvilCoreDump:" + line + "\n"; };

TEST_F(CoreDump, EveryFailureHasItsReportAndItsWayOn)
{
    const std::string denied = "RLIMIT_CORE\n: Operation not permitted\n";
    // The child's own line about the limit stays in its buffer, as its process ends without writing that.
    const std::tuple<support::Fault*, int, std::string, std::string> rows[] = {
        {&waitpidFault, ECHILD, begun, logged("89] waitpid() failed: No child processes")},
        {&waitpidFault, EINTR, begun + done, ""},
        {&getrlimit64Fault, EPERM, begun + done, "Could not get " + denied},
        {&setrlimit64Fault, EPERM, begun + done, "Could not set " + denied},
    };
    for (const auto& [fault, error, out, err] : rows) {
        const support::ChildResult child = support::runInChild([&, failing = fault, code = error] {
            pthread_createFault.fail(EAGAIN); // `run` itself awaits the dump
            failing->fail(-1, code, 1, code == EINTR ? 3 : support::always);
            run(name.c_str());
        });
        EXPECT_EQ(child.out, out);
        EXPECT_EQ(child.err, err);
    }
}

TEST_F(CoreDump, EndsByAbortWhetherOrNotTheLogIsSilentAndLeavesItsProcessAlone)
{
    std::ofstream(folder / "file") << "no folder";
    const support::ChildResult child = support::runInChild([&] {
        std::setvbuf(stdout, nullptr, _IOLBF, 0);
        std::fputs("pending, ", stdout);
        pthread_createFault.fail(EAGAIN);
        run((name + "/file").c_str());
        forkFault.fail(-1, EAGAIN, 1, 1);
        run(name.c_str());
        gl_bOVXLConfigLoaded = 1;
        for (OvxLogGroupCfg& group : gl_psOvxLogGrpCfgTable)
            group.logEnabled = 0;
        forkFault.fail(-1, EAGAIN, 1, 1);
        run(name.c_str());
        waitpidFault.fail(-1, ECHILD, 1, 1);
        run(name.c_str());
        chdirFault.fail(-1, EACCES);
        run(nullptr);
        std::fprintf(stderr, fs::current_path() == scratch.path ? "%d" : "%d elsewhere", WTERMSIG(dumpStatus));
    });
    EXPECT_EQ(child.out.find("pending"), child.out.rfind("pending")) << child.out;
    EXPECT_NE(child.out.find("rlim_max=-1\n"), std::string::npos) << child.out;
    EXPECT_TRUE(child.err.starts_with("mkdir: ")) << child.err;
    EXPECT_TRUE(child.err.ends_with(logged("118] chdir: Not a directory") +
                                    logged("106] fork() failed: Resource temporarily unavailable") + "6"))
        << child.err;
}

TEST(CoreDumpPrepare, RaisesTheLimitOrEndsTheProcess)
{
    const auto raise = [] {
        const rlimit none{0, RLIM_INFINITY};
        setrlimit(RLIMIT_CORE, &none);
        getrlimit64Fault.fail(0, 0, 1, 1); // leaves both limits at 0
        prepare();
        rlimit limit{};
        getrlimit(RLIMIT_CORE, &limit);
        std::fputs(limit.rlim_cur == RLIM_INFINITY ? "unlimited, " : "limited, ", stderr);
    };
    support::expectOutcomes({
        {"unlimited, exit 0", raise},
        {"Could not get RLIMIT_CORE\n: Invalid cross-device link\nexit 1", prepare, &getrlimit64Fault},
        {"Could not set RLIMIT_CORE\n: Invalid cross-device link\nexit 1", prepare, &setrlimit64Fault},
    });
}

} // namespace
