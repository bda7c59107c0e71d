// Core dump: a core file of the running process, and what happens where the system says no.

#include "Quorvil/QuorvilCoreDump.h"
#include "tests/support/child.h"
#include "tests/support/environment.h"
#include "tests/support/threadCreation.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <vector>

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

SUPPORT_INTERPOSE(pid_t, fork, (), (), noexcept)
SUPPORT_INTERPOSE(int, chdir, (const char* path), (path), noexcept)
SUPPORT_INTERPOSE(int, getrlimit64, (__rlimit_resource_t resource, rlimit64* limit), (resource, limit), noexcept)
SUPPORT_INTERPOSE(int, setrlimit64, (__rlimit_resource_t resource, const rlimit64* limit), (resource, limit), noexcept)

namespace {

constinit support::Fault waitpidFault("waitpid");
/// How the last child ended.
std::atomic<int> lastStatus{-1};

} // namespace

extern "C" __attribute__((visibility("default"))) SUPPORT_UNINSTRUMENTED pid_t waitpid(pid_t pid, int* status,
                                                                                       int options)
{
    if (waitpidFault.strikes())
        return static_cast<pid_t>(waitpidFault.result);
    int ended = 0;
    const pid_t result = support::real<pid_t (*)(pid_t, int*, int)>("waitpid")(pid, &ended, options);
    if (result > 0)
        lastStatus = ended;
    if (status)
        *status = ended;
    return result;
}

namespace {

namespace fs = std::filesystem;
using support::ChildResult;
using support::Fault;
using support::FaultScope;
using testing::HasSubstr;

constexpr const char* begun = "[INFO Quorvil/QuorvilCoreDump:86]    CORE DUMP...\n";
constexpr const char* done = "[INFO Quorvil/QuorvilCoreDump:91]    CORE DUMP done.\n";
const fs::path base = "/data/coreDumps";

bool aborted(int status)
{
    return WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT;
}

/// Limits the core files of this process: they are left to the one test that wants one.
void limitCores(rlim_t bytes)
{
    const rlimit limit{bytes, RLIM_INFINITY};
    setrlimit(RLIMIT_CORE, &limit);
}

/// A dump out of a process of its own, and that process behind the dump's last line.
ChildResult dumpInChild(const std::string& name, const std::function<void()>& before = {})
{
    return support::runInChild([&] {
        lastStatus = -1;
        const auto threads = support::threadCount();
        const fs::path folder = fs::current_path();
        rlimit limit{};
        getrlimit(RLIMIT_CORE, &limit);
        if (before)
            before();
        quorvil::coredump::run(name.c_str());
        support::awaitThreads(threads);
        rlimit behind{};
        getrlimit64Fault.times = 0;
        getrlimit(RLIMIT_CORE, &behind);
        if (fs::current_path() != folder || behind.rlim_cur != limit.rlim_cur || behind.rlim_max != limit.rlim_max)
            std::fputs("changed\n", stderr);
        if (lastStatus != -1)
            std::fprintf(stderr, aborted(lastStatus) ? "aborted\n" : "exit %d\n", WEXITSTATUS(lastStatus));
    });
}

/// Makes calls fail to the end of the process.
void failFrom(Fault& fault, int error, int first = 1, int times = support::always)
{
    fault.calls = 0;
    fault.result = -1;
    fault.error = error;
    fault.first = first;
    fault.times = times;
}

class CoreDump : public testing::Test
{
protected:
    void SetUp() override
    {
        if (support::threadSanitized)
            GTEST_SKIP() << "the thread sanitizer flushes standard output and ends children in its own way";
        if (geteuid() != 0)
            GTEST_SKIP() << "only root can make " << base;
        for (fs::path folder = base; !folder.empty() && !fs::exists(folder); folder = folder.parent_path())
            made.push_back(folder);
        name = "quorvilTest." + std::to_string(getpid());
        scratch = fs::temp_directory_path() / name;
        fs::create_directories(base / name);
        fs::create_directories(scratch);
        formerFolder = fs::current_path();
        fs::current_path(scratch);
        std::ifstream("/proc/sys/kernel/core_pattern") >> corePattern;
    }

    ~CoreDump() override
    {
        if (name.empty())
            return;
        fs::current_path(formerFolder);
        fs::remove_all(base / name);
        fs::remove_all(scratch);
        for (const fs::path& folder : made) {
            std::error_code notEmpty;
            fs::remove(folder, notEmpty);
        }
    }

    /// Why the core file of this machine's kernel is not to be found in the folder of the dump, or null.
    const char* coreHidden() const
    {
        if (support::emulated)
            return "the emulator writes core files of its own kind";
        if (support::sanitized)
            return "the sanitizer's memory would go into the core file";
        if (corePattern.empty() || corePattern[0] == '|' || corePattern.find('/') != std::string::npos)
            return "this machine's kernel puts core files elsewhere";
        return nullptr;
    }

    std::string name;
    fs::path scratch;
    std::string corePattern;

private:
    fs::path formerFolder;
    std::vector<fs::path> made;
};

std::vector<fs::path> filesIn(const fs::path& folder)
{
    std::vector<fs::path> files;
    for (const auto& entry : fs::directory_iterator(folder))
        files.push_back(entry.path());
    return files;
}

std::string outputOf(const std::string& command)
{
    std::string output;
    FILE* const pipe = popen(command.c_str(), "r");
    std::array<char, 4096> buffer{};
    while (const size_t length = pipe ? std::fread(buffer.data(), 1, buffer.size(), pipe) : 0)
        output.append(buffer.data(), length);
    if (pipe)
        pclose(pipe);
    return output;
}

/// A name to be found on the stack in the core file.
extern "C" __attribute__((noinline)) void dumpFromThisFrame(const char* name)
{
    quorvil::coredump::run(name);
    asm volatile("" ::: "memory");
}

TEST_F(CoreDump, TheCoreFileShowsTheStackOfTheCallerToADebugger)
{
    if (const char* const reason = coreHidden())
        GTEST_SKIP() << reason;
    const std::string nested = name + "/several/levels";
    const ChildResult child = support::runInChild([&] {
        const auto threads = support::threadCount();
        dumpFromThisFrame(nested.c_str());
        support::awaitThreads(threads);
    });
    EXPECT_EQ(child.out, std::string(begun) + done);
    EXPECT_EQ(child.status, 0);
    const std::vector<fs::path> files = filesIn(base / nested);
    ASSERT_EQ(files.size(), 1U);
    EXPECT_TRUE(filesIn(scratch).empty());
    if (std::system("command -v gdb >/dev/null") != 0)
        GTEST_SKIP() << "no debugger is installed";
    const std::string program = fs::read_symlink("/proc/self/exe");
    const std::string stack = outputOf("gdb -nx -batch -ex 'set debuginfod enabled off' -ex bt '" + program + "' '" +
                                       files[0].string() + "' 2>/dev/null");
    EXPECT_THAT(stack, HasSubstr("signal SIGABRT"));
    EXPECT_THAT(stack, HasSubstr("quorvil::coredump::run"));
    EXPECT_THAT(stack, HasSubstr("dumpFromThisFrame"));
    EXPECT_LT(stack.find("quorvil::coredump::run"), stack.find("dumpFromThisFrame"));
}

TEST_F(CoreDump, RunReturnsBeforeTheDumpIsDoneAndTwoRunsAreTwoDumps)
{
    const ChildResult child = support::runInChild([&] {
        lastStatus = -1;
        const auto threads = support::threadCount();
        std::array<int, 2> hold{};
        if (pipe(hold.data()) != 0)
            std::abort();
        // Both children wait for the end of the pipe before they enter their folder, and then drop their cores.
        std::function<void()> holdUp = [&] {
            close(hold[1]);
            char byte = 0;
            [[maybe_unused]] const ssize_t length = read(hold[0], &byte, 1);
            limitCores(0);
        };
        const support::HookScope hook(chdirFault, holdUp);
        quorvil::coredump::run(name.c_str());
        quorvil::coredump::run(name.c_str());
        if (lastStatus == -1)
            std::fputs("returned\n", stderr);
        close(hold[1]);
        support::awaitThreads(threads);
        std::fputs(aborted(lastStatus) ? "aborted\n" : "not aborted\n", stderr);
    });
    EXPECT_EQ(child.err, "returned\naborted\n");
    for (const char* line : {begun, done}) {
        const size_t first = child.out.find(line);
        ASSERT_NE(first, std::string::npos);
        EXPECT_NE(child.out.find(line, first + 1), std::string::npos);
    }
    EXPECT_EQ(child.out.size(), 2 * (std::string(begun) + done).size());
    EXPECT_TRUE(filesIn(base / name).empty());
}

TEST_F(CoreDump, EveryFailureHasItsReportAndItsWayOn)
{
    const std::string both = std::string(begun) + done;
    const auto logged = [](int line, const std::string& text) {
        return "[QuorvilCoreDump Quorvil/QuorvilCoreDump:" + std::to_string(line) + "] " + text + "\n";
    };
    // The child's own line about the limit stays in its buffer, as its process ends without writing that.
    struct
    {
        std::function<void()> before;
        std::string out;
        std::string err;
    } const rows[] = {
        {[] { failFrom(forkFault, EAGAIN); }, "", logged(106, "fork() failed: Resource temporarily unavailable")},
        {[] { failFrom(getrlimit64Fault, EPERM); }, both,
         "Could not get RLIMIT_CORE\n: Operation not permitted\nexit 1\n"},
        {[] { failFrom(setrlimit64Fault, EPERM); }, both,
         "Could not set RLIMIT_CORE\n: Operation not permitted\nexit 1\n"},
        {[] { failFrom(chdirFault, EACCES); }, both, logged(118, "chdir: Permission denied") + "aborted\n"},
        {[] { failFrom(waitpidFault, ECHILD); }, begun, logged(89, "waitpid() failed: No child processes")},
        {[] { failFrom(waitpidFault, EINTR, 1, 3); }, both, "aborted\n"},
        {[] {
             failFrom(pthread_createFault, EAGAIN);
             pthread_createFault.result = EAGAIN;
         },
         both, "aborted\n"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(&row - rows);
        const ChildResult child = dumpInChild(name, row.before);
        EXPECT_EQ(child.out, row.out);
        EXPECT_EQ(child.err, row.err);
        EXPECT_EQ(child.status, 0);
    }
    // In the folder that could not be left, and in the one that was meant.
    if (!coreHidden()) {
        EXPECT_EQ(filesIn(scratch).size(), 1U);
        EXPECT_GE(filesIn(base / name).size(), 1U);
    }
}

TEST_F(CoreDump, AFolderThatCannotBeMadeShowsWhereItIsEntered)
{
    std::ofstream(base / name / "file") << "no folder";
    const ChildResult child = dumpInChild(name + "/file");
    EXPECT_EQ(child.out, std::string(begun) + done);
    EXPECT_THAT(child.err, testing::MatchesRegex("mkdir: .*\n\\[QuorvilCoreDump Quorvil/QuorvilCoreDump:118\\] chdir: "
                                                 "Not a directory\naborted\n"));
}

TEST(CoreDumpPrepare, RaisesTheLimitOrEndsTheProcess)
{
    if (geteuid() == 0) {
        const ChildResult child = support::runInChild([] {
            limitCores(0);
            quorvil::coredump::prepare();
            rlimit limit{};
            getrlimit(RLIMIT_CORE, &limit);
            std::printf(limit.rlim_cur == RLIM_INFINITY && limit.rlim_max == RLIM_INFINITY ? "unlimited" : "limited");
        });
        EXPECT_EQ(child.out, "rlim_max=-1\nunlimited");
    }
    struct
    {
        Fault& fault;
        const char* out;
        const char* verb;
    } const rows[] = {{getrlimit64Fault, "", "get"}, {setrlimit64Fault, "rlim_max=-1\n", "set"}};
    for (const auto& row : rows) {
        const ChildResult failed = support::runInChild([&row] {
            failFrom(row.fault, EPERM);
            quorvil::coredump::prepare();
        });
        EXPECT_EQ(failed.out, row.out);
        EXPECT_EQ(failed.err, std::string("Could not ") + row.verb + " RLIMIT_CORE\n: Operation not permitted\n");
        EXPECT_EQ(WEXITSTATUS(failed.status), 1);
    }
}

} // namespace
