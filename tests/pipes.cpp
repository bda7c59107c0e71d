#include "Quorvil/LinuxPipe.h"

#include "tests/support/assertion.h"
#include "tests/support/child.h"
#include "tests/support/interpose.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <iostream>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

SUPPORT_INTERPOSE(int, pipe2, (int* ends, int flags), (ends, flags), noexcept)
SUPPORT_INTERPOSE(pid_t, fork, (), (), noexcept)
SUPPORT_INTERPOSE(int, dup2, (int from, int to), (from, to), noexcept)
SUPPORT_INTERPOSE(pid_t, waitpid, (pid_t child, int* status, int options), (child, status, options), )
SUPPORT_INTERPOSE(FILE*, popen, (const char* command, const char* mode), (command, mode), )
SUPPORT_INTERPOSE(int, pclose, (FILE * stream), (stream), )

/// `execlp` has its arguments in a row; a call that does not fail hands them on as a vector.
namespace {
constinit support::Fault execlpFault("execlp");
}
extern "C" __attribute__((visibility("default"))) int execlp(const char* file, const char* name, ...) noexcept
{
    if (execlpFault.strikes())
        return static_cast<int>(execlpFault.result);
    va_list rest;
    va_start(rest, name);
    const char* const option = va_arg(rest, const char*);
    const char* const command = va_arg(rest, const char*);
    const char* const end = va_arg(rest, const char*);
    va_end(rest);
    if (end)
        std::abort();
    const std::array<const char*, 4> arguments{name, option, command, nullptr};
    return execv(file, const_cast<char* const*>(arguments.data()));
}

namespace {

using util::LinuxPipe;
using util::MyPipe;

/// The text with each number behind "=", "process" and "LinuxPipe:" as N, but for 0.
std::string withoutNumbers(std::string text)
{
    for (const std::string prefix : {"=", "process", "LinuxPipe:"})
        for (size_t at = 0; (at = text.find(prefix, at)) != std::string::npos;) {
            at += prefix.size();
            const size_t length = std::min(text.find_first_not_of("0123456789abcdefx", at), text.size()) - at;
            if (length > 0 && text.compare(at, length, "0") != 0)
                text.replace(at, length, "N");
        }
    return text;
}

const std::string trace = "stdinFd[0]=N, stdinFd[1]=N, stdoutFd[0]=N, stdoutFd[1]=N, stderrFd[0]=N, stderrFd[1]=N\n";

/// What `action` writes on standard output, by a child so that the streams are the process's own.
support::ChildResult runPipe(const std::function<void()>& action)
{
    return support::runInChild([&] {
        action();
        std::cout.flush();
    });
}

std::string readAll(int fd)
{
    std::string text;
    std::array<char, 1000> buffer{};
    for (ssize_t length; (length = read(fd, buffer.data(), buffer.size())) > 0;)
        text.append(buffer.data(), static_cast<size_t>(length));
    return text;
}

TEST(MyPipe, RunsACommandBetweenThreeStreamsAndTracesIt)
{
    const support::ChildResult child = runPipe([] {
        MyPipe pipe("read line; echo \"got $line\"; echo problem >&2; exit 3");
        for (const int fd : {pipe.childStdin(), pipe.childStdout(), pipe.childStderr()})
            EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
        EXPECT_EQ(write(pipe.childStdin(), "paper\n", 6), 6);
        EXPECT_EQ(pipe.waitForChild(), 768);
        EXPECT_EQ(pipe.waitForChild(), 768);
        pipe.dumpStdout();
        pipe.dumpStderr();
        if (testing::Test::HasFailure())
            _exit(1);
    });
    EXPECT_EQ(child.status, 0);
    EXPECT_EQ(child.out, "DUMP stdout von MyPipe:\n'got paper\n'\nDUMP stderr von MyPipe:\n'problem\n'\n");
    // The two lines behind the fork come in either order.
    const std::string wait = "before waitpid\nafter waitpid\n~MyPipe() in processN\n";
    EXPECT_THAT(withoutNumbers(child.err),
                testing::AnyOf(trace + "pid=0\npid=N\n" + wait, trace + "pid=N\npid=0\n" + wait,
                               trace + "pid=N\nbefore waitpid\npid=0\nafter waitpid\n~MyPipe() in processN\n"));
}

TEST(MyPipe, DumpsAtMost255Bytes)
{
    const std::string cut = "OUTPUT WAS CUT TO 256 CHARACTERS:\n";
    struct
    {
        std::string command;
        std::string text;
        std::string rest; // what the dump leaves in the stream
        const char* note;
    } const rows[] = {
        {":", "''\n", "", "nothing"},
        {"exec >&-; sleep 0", "''\n", "", "a stream that the child closes itself"},
        {"printf '%0254d' 7", "'" + std::string(253, '0') + "7'\n", "", "just fits"},
        {"printf '%0255d' 7", cut + "'" + std::string(254, '0') + "7'\n", "", "fits, but counts as cut"},
        {"printf '%0256d' 7", cut + "'" + std::string(255, '0') + "'\n", "7", "one too many"},
        {"printf '%0200d'; sleep 0; printf '%0100d' 7", cut + "'" + std::string(255, '0') + "'\n",
         std::string(44, '0') + "7", "in two pieces"},
        {"printf 'a\\0b'", "'a'\n", "", "a zero byte ends what is shown"},
        {"kill -9 $$", "''\n", "", "killed"},
        {"nonsuch.command 2>/dev/null", "''\n", "", "no command"},
    };
    for (const auto& row : rows) {
        std::string rest;
        const support::ChildResult child = runPipe([&] {
            MyPipe pipe(row.command);
            pipe.dumpStdout();
            if (readAll(pipe.childStdout()) != row.rest)
                _exit(1);
        });
        EXPECT_EQ(child.out, "DUMP stdout von MyPipe:\n" + row.text) << row.note;
        EXPECT_EQ(child.status, 0) << row.note;
    }
}

TEST(MyPipe, GivesTheRawStatusOfEachEnd)
{
    const std::pair<const char*, int> rows[] = {
        {"exit 0", 0}, {"exit 3", 768}, {"kill -9 $$", SIGKILL}, {"nonsuch.command", 127 << 8}};
    for (const auto& row : rows) {
        const support::ChildResult child = runPipe([&] {
            MyPipe pipe(row.first);
            if (pipe.waitForChild() != row.second)
                _exit(1);
        });
        EXPECT_EQ(child.status, 0) << row.first;
    }
}

TEST(MyPipe, WorksInAProcessThatHasClosedItsStreams)
{
    for (int mask = 1; mask < 8; ++mask) {
        const support::ChildResult child = runPipe([mask] {
            const int result = dup(STDOUT_FILENO);
            for (int fd = 0; fd < 3; ++fd)
                if ((mask & 1 << fd) != 0)
                    close(fd);
            MyPipe pipe("read line; echo \"$line\"; echo problem >&2");
            if (write(pipe.childStdin(), "paper\n", 6) != 6)
                _exit(1);
            const std::string out = readAll(pipe.childStdout()) + readAll(pipe.childStderr());
            if (write(result, out.data(), out.size()) < 0 || pipe.waitForChild() != 0)
                _exit(2);
        });
        EXPECT_EQ(child.out, "paper\nproblem\n") << mask;
        EXPECT_EQ(child.status, 0) << mask;
    }
}

TEST(MyPipe, KeepsNothingOfTheOthersPipesAndLeaksNoDescriptor)
{
    const support::ChildResult child = runPipe([] {
        // How many descriptors a child sees: what this process inherited, and what the listing itself opens.
        const auto count = [] { return readAll(MyPipe("ls /proc/self/fd | wc -l").childStdout()); };
        const std::string counted = count();
        MyPipe waiting("cat");
        LinuxPipe stream("cat", false);
        const int between = dup(0);
        close(between);
        for (int i = 0; i < 50; ++i)
            if (count() != counted)
                _exit(1);
        const int after = dup(0);
        close(after);
        // The one that waits sees the end of its input: nobody else holds its pipe.
        close(waiting.childStdin());
        waiting.waitForChild();
        _exit(after == between ? 0 : 2);
    });
    EXPECT_EQ(child.status, 0);
}

/// The report of `safe` and its assertion, as the library's process or a child before its `exec` writes them.
std::string fatal(const std::string& function, int error)
{
    return support::literal(function) + " failed in Quorvil/LinuxPipe:[0-9]+ - \\(" + std::to_string(error) + "\\) " +
           support::literal(std::strerror(error)) + "\n[^\n]*" +
           support::assertion("Quorvil/SafeLinuxCalls", "int util::safe(const char*, const char*, int, int, bool)",
                              "linuxFuncResult != -1");
}

TEST(MyPipeDeathTest, FailedCallsEndTheProcess)
{
    const std::string constructor = "util::MyPipe::MyPipe(const string&)";
    struct
    {
        std::string function;
        support::Fault& fault;
        int first;
        int error;
    } const rows[] = {
        {constructor, pipe2Fault, 1, EMFILE},
        {constructor, pipe2Fault, 3, EMFILE},
        {constructor, forkFault, 1, EAGAIN},
        {"int util::MyPipe::waitForChild()", waitpidFault, 1, EINTR},
    };
    for (const auto& row : rows)
        EXPECT_DEATH(
            {
                const support::FaultScope scope(row.fault, -1, row.error, row.first);
                MyPipe("exit 0").waitForChild();
            },
            fatal(row.function, row.error));
    EXPECT_DEATH(util::dumpStream("heading", -1), fatal("void util::dumpStream(const string&, int)", EBADF));
    EXPECT_DEATH(
        {
            MyPipe pipe("exit 0");
            close(pipe.childStdout());
        },
        fatal("virtual util::MyPipe::~MyPipe()", EBADF));
}

TEST(MyPipe, FailedCallsInTheChildEndTheChildAlone)
{
    struct
    {
        support::Fault& fault;
        int first;
        bool onOwnStream; // the child's error output is the pipe already
    } const rows[] = {{dup2Fault, 1, false}, {dup2Fault, 2, false}, {dup2Fault, 3, false}, {execlpFault, 1, true}};
    for (const auto& row : rows) {
        const support::ChildResult child = runPipe([&] {
            row.fault.result = -1;
            row.fault.error = E2BIG;
            row.fault.calls = 0;
            row.fault.first = row.first;
            row.fault.times = 1;
            MyPipe pipe("echo never");
            const std::string err = readAll(pipe.childStderr());
            const int status = pipe.waitForChild();
            if (WTERMSIG(status) != SIGABRT)
                _exit(1);
            std::cout << err;
        });
        EXPECT_EQ(child.status, 0);
        const std::string text =
            "util::MyPipe::MyPipe(const string&) failed in Quorvil/LinuxPipe:N - (7) Argument list too long\n" +
            std::string(program_invocation_short_name) +
            ": Quorvil/SafeLinuxCalls:32: int util::safe(const char*, const char*, int, int, bool): Assertion "
            "`linuxFuncResult != -1' failed.\n";
        // An emulator tells of the abort too.
        const std::string out = withoutNumbers(child.out);
        EXPECT_EQ(out.substr(0, out.find("qemu: ")), row.onOwnStream ? text : "");
        if (!row.onOwnStream) {
            EXPECT_THAT(withoutNumbers(child.err), testing::HasSubstr("pid=0\n"));
            EXPECT_THAT(withoutNumbers(child.err), testing::HasSubstr(text));
        }
    }
}

TEST(LinuxPipe, ReadsFromOrWritesToACommand)
{
    const support::ChildResult child = runPipe([] {
        {
            LinuxPipe pipe("echo paper; exit 2", true);
            EXPECT_EQ(fcntl(fileno(pipe.go()), F_GETFD), FD_CLOEXEC);
            std::array<char, 10> line{};
            EXPECT_STREQ(fgets(line.data(), line.size(), pipe.go()), "paper\n");
        }
        {
            LinuxPipe pipe("read line; test \"$line\" = jam", false);
            std::fputs("jam\n", pipe.go());
        }
        _exit(testing::Test::HasFailure() || (std::cout.flush(), false) ? 1 : 0);
    });
    EXPECT_EQ(child.status, 0);
    EXPECT_EQ(withoutNumbers(child.out), "f=N\nf=N\n");
    EXPECT_EQ(child.err, "res of pclose: 512\nres of pclose: 0\n");
}

TEST(LinuxPipe, GoesOnAfterAFailedPopenOrPclose)
{
    const support::ChildResult child = runPipe([] {
        {
            const support::FaultScope fault(popenFault, 0, EMFILE);
            if (LinuxPipe("echo never", true).go())
                _exit(1);
        }
        FILE* stream = nullptr;
        {
            const support::FaultScope fault(pcloseFault, -1, ECHILD);
            LinuxPipe pipe("exit 0", true);
            stream = pipe.go();
        }
        pclose(stream);
    });
    EXPECT_EQ(child.status, 0);
    EXPECT_EQ(withoutNumbers(child.out), "f=0\nf=N\n");
    EXPECT_EQ(child.err, "res of pclose: -1\npclose failed: No child processes\n");
}

} // namespace
