// Core dump: a core file of the running process, and what happens where the system says no.

#include "Quorvil/QuorvilCoreDump.h"
#include "siblings/OvxLog/OvxLog.h"
#include "tests/support/child.h"
#include "tests/support/environment.h"
#include "tests/support/threadCreation.h"

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
        fs::create_directories(scratch);
        fs::current_path(scratch);
    }

    ~CoreDump() override
    {
        std::error_code notThere;
        fs::current_path(fs::temp_directory_path());
        fs::remove_all(scratch, notThere);
        fs::remove_all(folder, notThere);
        fs::remove(folder.parent_path(), notThere); // if it is empty
        fs::remove(folder.parent_path().parent_path(), notThere);
    }

    const std::string name = "quorvilTest." + std::to_string(getpid());
    const fs::path folder = fs::path("/data/coreDumps") / name;
    const fs::path scratch = fs::temp_directory_path() / name;
};

/// The number of threads in a child of a test is 1, but where an emulator runs some of its own.
support::ChildResult inChild(const std::function<void()>& body)
{
    return support::runInChild([&] {
        const auto threads = support::threadsNow();
        body();
        support::awaitThreads(threads);
    });
}

/// A name to be found on the stack in the core file.
extern "C" __attribute__((noinline)) void dumpFromThisFrame(const char* name)
{
    quorvil::coredump::run(name);
    asm volatile("" ::: "memory");
}

TEST_F(CoreDump, TheCoreFileShowsTheStackOfTheCallerToADebugger)
{
    std::string pattern;
    std::ifstream("/proc/sys/kernel/core_pattern") >> pattern;
    if (support::emulated || support::sanitized || pattern.find_first_of("|/") != std::string::npos)
        GTEST_SKIP() << "the core file is not this machine's kernel's, or not put where the process is, or too big";
    const std::string levels = name + "/several/levels";
    EXPECT_EQ(inChild([&] { dumpFromThisFrame(levels.c_str()); }).out, begun + done);
    EXPECT_TRUE(fs::is_empty(scratch));
    if (std::system("command -v gdb >/dev/null") != 0)
        GTEST_SKIP() << "no debugger is installed";
    const std::string program = fs::read_symlink("/proc/self/exe");
    const std::string gdb = "gdb -nx -batch -ex 'set debuginfod enabled off' -ex bt ";
    const auto show = [&] {
        std::system((gdb + program + " " + (folder / "several/levels/").string() + "* 2>/dev/null").c_str());
    };
    const std::string stack = support::runInChild(show).out;
    const size_t signal = stack.find("signal SIGABRT"), run = stack.find("quorvil::coredump::run");
    EXPECT_TRUE(signal < run && run < stack.find("dumpFromThisFrame")) << stack;
    EXPECT_NE(stack.find("dumpFromThisFrame"), std::string::npos) << stack;
}

TEST_F(CoreDump, RunReturnsBeforeTheDumpIsDoneAndTwoRunsAreTwoDumps)
{
    const support::ChildResult child = inChild([&] {
        int hold[2];
        if (pipe(hold) != 0)
            std::abort();
        // Both children wait for the end of the pipe before they enter their folder.
        const support::HookScope hook(chdirFault, [&] {
            close(hold[1]);
            char byte = 0;
            [[maybe_unused]] const ssize_t length = read(hold[0], &byte, 1);
        });
        quorvil::coredump::run(name.c_str());
        quorvil::coredump::run(name.c_str());
        std::fputs("returned\n", stderr);
        close(hold[1]);
    });
    EXPECT_EQ(child.err, "returned\n");
    // One background task may be through before the other one begins.
    EXPECT_TRUE(child.out == begun + begun + done + done || child.out == begun + done + begun + done) << child.out;
}

TEST_F(CoreDump, EveryFailureHasItsReportAndItsWayOn)
{
    const auto logged = [](const std::string& line) {
        return "[QuorvilCoreDump Quorvil/QuorvilCoreDump:" + line + "\n";
    };
    const std::string denied = "RLIMIT_CORE\n: Operation not permitted\n";
    std::ofstream(folder / "file") << "no folder";
    // The child's own line about the limit stays in its buffer, as its process ends without writing that.
    const std::tuple<support::Fault*, int, std::string, std::string> rows[] = {
        {&waitpidFault, ECHILD, begun, logged("89] waitpid() failed: No child processes")},
        {&waitpidFault, EINTR, begun + done, ""},
        {&forkFault, EAGAIN, "", logged("106] fork() failed: Resource temporarily unavailable")},
        {&getrlimit64Fault, EPERM, begun + done, "Could not get " + denied},
        {&setrlimit64Fault, EPERM, begun + done, "Could not set " + denied},
        {&chdirFault, EACCES, begun + done, logged("118] chdir: Permission denied")},
        {&pthread_createFault, EAGAIN, begun + done, ""},
    };
    for (const auto& [fault, error, out, err] : rows) {
        const support::ChildResult child = inChild([&, failing = fault, code = error] {
            failing->fail(failing == &pthread_createFault ? code : -1, code, 1, code == EINTR ? 3 : support::always);
            quorvil::coredump::run(name.c_str());
            EXPECT_TRUE(fs::current_path() == scratch) << "changed";
        });
        EXPECT_EQ(child.out, out);
        EXPECT_EQ(child.err, err);
    }
    const support::ChildResult child = inChild([&] {
        std::setvbuf(stdout, nullptr, _IOLBF, 0);
        std::fputs("pending, ", stdout);
        quorvil::coredump::run((name + "/file").c_str());
    });
    EXPECT_EQ(child.out.find("pending"), child.out.rfind("pending")) << child.out;
    EXPECT_TRUE(child.err.starts_with("mkdir: ")) << child.err;
    EXPECT_TRUE(child.err.ends_with(logged("118] chdir: Not a directory"))) << child.err;
}

TEST_F(CoreDump, EndsByAbortWhereTheLogIsSilent)
{
    const support::ChildResult child = inChild([&] {
        {
            const support::FaultScope logged(forkFault, -1, EAGAIN, 1, 1);
            quorvil::coredump::run(name.c_str());
        }
        gl_bOVXLConfigLoaded = 1;
        for (int i = 0; i < 64; ++i)
            gl_psOvxLogGrpCfgTable[i].logEnabled = 0;
        chdirFault.fail(-1, EACCES);
        pthread_createFault.fail(EAGAIN); // `run` itself awaits the dump
        quorvil::coredump::run(name.c_str());
        std::fprintf(stderr, "%d", WTERMSIG(dumpStatus));
    });
    EXPECT_TRUE(child.err.ends_with("fork() failed: Resource temporarily unavailable\n6")) << child.err;
}

TEST(CoreDumpPrepare, RaisesTheLimitOrEndsTheProcess)
{
    const auto prepare = [] {
        dup2(STDERR_FILENO, STDOUT_FILENO);
        const rlimit none{0, RLIM_INFINITY};
        setrlimit(RLIMIT_CORE, &none);
        getrlimit64Fault.fail(0, 0, 1, 1); // leaves both limits at 0
        quorvil::coredump::prepare();
        rlimit limit{};
        getrlimit(RLIMIT_CORE, &limit);
        std::printf(limit.rlim_cur == RLIM_INFINITY ? "unlimited, " : "limited, ");
        std::fflush(stdout);
    };
    support::expectOutcomes({
        {"rlim_max=-1\nunlimited, exit 0", prepare},
        {"Could not get RLIMIT_CORE\n: Invalid cross-device link\nexit 1", quorvil::coredump::prepare,
         &getrlimit64Fault},
        {"Could not set RLIMIT_CORE\n: Invalid cross-device link\nexit 1", quorvil::coredump::prepare,
         &setrlimit64Fault},
    });
}

} // namespace
