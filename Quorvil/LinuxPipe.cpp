#include "Quorvil/LinuxPipe.h"

#include "Quorvil/QuorvilAssert.h"
#include "Quorvil/QuorvilLog.h"
#include "Quorvil/SafeLinuxCalls.h"
#include "Quorvil/ThreadSafeStream.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

QUORVIL_LOG_GROUP("Noname");

namespace util {

namespace {

constexpr const char* source = "Quorvil/LinuxPipe";
constexpr const char* constructor = "util::MyPipe::MyPipe(const string&)";

/// Room for each line that is built without the allocator.
constexpr size_t lineSize = 512;

int mustSucceed(const char* function, int line, int result)
{
    return safe(function, source, line, result, true);
}

/// `safe` for the child before `execlp`: another thread of the parent may have held any lock at the `fork`, so that
/// nothing here takes one or allocates; and the system's words stay English, whatever the locale.
void mustSucceedInChild(int line, int result)
{
    if (result != -1)
        return;
    const int error = errno;
    char unknown[32];
    snprintf(unknown, sizeof unknown, "Unknown error %d", error);
    const char* const words = strerrordesc_np(error);
    char text[2 * lineSize];
    const int length =
        snprintf(text, sizeof text,
                 "%s failed in %s:%d - (%d) %s\n"
                 "%s: Quorvil/SafeLinuxCalls:32: int util::safe(const char*, const char*, int, int, "
                 "bool): Assertion `linuxFuncResult != -1' failed.\n",
                 constructor, source, line, error, words ? words : unknown, program_invocation_short_name);
    [[maybe_unused]] const ssize_t written =
        write(STDERR_FILENO, text, std::min(static_cast<size_t>(length), sizeof text - 1));
    std::abort();
}

/// Makes a pipe whose ends survive the moving of the child's standard streams: no end is one of their descriptors,
/// whichever of those the process has closed.
void makePipe(int (&ends)[2])
{
    mustSucceed(constructor, __LINE__, pipe2(ends, O_CLOEXEC));
    for (int& end : ends) {
        if (end > STDERR_FILENO)
            continue;
        const int low = end;
        end = mustSucceed(constructor, __LINE__, fcntl(low, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
        mustSucceed(constructor, __LINE__, close(low));
    }
}

void closeInChild(int line, int fd)
{
    mustSucceedInChild(line, close(fd));
}

} // namespace

MyPipe::MyPipe(const std::string& command)
{
    makePipe(stdinFd);
    makePipe(stdoutFd);
    makePipe(stderrFd);
    char line[lineSize];
    snprintf(line, sizeof line,
             "stdinFd[0]=%d, stdinFd[1]=%d, stdoutFd[0]=%d, stdoutFd[1]=%d, stderrFd[0]=%d, stderrFd[1]=%d\n",
             stdinFd[0], stdinFd[1], stdoutFd[0], stdoutFd[1], stderrFd[0], stderrFd[1]);
    try {
        safeCerr << line;
        pid = mustSucceed(constructor, __LINE__, fork());
        if (pid == 0)
            runChild(command.c_str());
        snprintf(line, sizeof line, "pid=%d\n", static_cast<int>(pid));
        safeCerr << line;
    } catch (...) {
        // No destructor runs. A child that has been started comes to the end of its input.
        for (const int fd : {stdinFd[0], stdinFd[1], stdoutFd[0], stdoutFd[1], stderrFd[0], stderrFd[1]})
            close(fd);
        while (pid > 0 && waitpid(pid, nullptr, 0) == -1 && errno == EINTR) {
        }
        throw;
    }
    mustSucceed(constructor, __LINE__, close(stdinFd[0]));
    mustSucceed(constructor, __LINE__, close(stdoutFd[1]));
    mustSucceed(constructor, __LINE__, close(stderrFd[1]));
}

void MyPipe::runChild(const char* command)
{
    static constexpr char line[] = "pid=0\n";
    [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, line, sizeof line - 1);
    closeInChild(__LINE__, stdinFd[1]);
    closeInChild(__LINE__, stdoutFd[0]);
    closeInChild(__LINE__, stderrFd[0]);
    mustSucceedInChild(__LINE__, dup2(stdinFd[0], STDIN_FILENO));
    closeInChild(__LINE__, stdinFd[0]);
    mustSucceedInChild(__LINE__, dup2(stdoutFd[1], STDOUT_FILENO));
    closeInChild(__LINE__, stdoutFd[1]);
    mustSucceedInChild(__LINE__, dup2(stderrFd[1], STDERR_FILENO));
    closeInChild(__LINE__, stderrFd[1]);
    mustSucceedInChild(__LINE__, execlp("/bin/sh", "sh", "-c", command, static_cast<char*>(nullptr)));
    // Not reached: `execlp` returns only to fail.
    std::abort();
}

MyPipe::~MyPipe()
{
    constexpr const char* function = "virtual util::MyPipe::~MyPipe()";
    waitForChild();
    char line[lineSize];
    snprintf(line, sizeof line, "~MyPipe() in process%d\n", static_cast<int>(getpid()));
    safeCerr << line;
    mustSucceed(function, __LINE__, close(stdinFd[1]));
    mustSucceed(function, __LINE__, close(stdoutFd[0]));
    mustSucceed(function, __LINE__, close(stderrFd[0]));
}

int MyPipe::childStdin()
{
    return stdinFd[1];
}

int MyPipe::childStdout()
{
    return stdoutFd[0];
}

int MyPipe::childStderr()
{
    return stderrFd[0];
}

void MyPipe::dumpStdout()
{
    dumpStream("DUMP stdout von MyPipe:", childStdout());
}

void MyPipe::dumpStderr()
{
    dumpStream("DUMP stderr von MyPipe:", childStderr());
}

int MyPipe::waitForChild()
{
    if (pid < 1)
        return status;
    safeCerr << "before waitpid\n";
    mustSucceed("int util::MyPipe::waitForChild()", __LINE__, waitpid(pid, &status, 0));
    pid = -1; // at once: a child is gone, even if its trace cannot be written
    safeCerr << "after waitpid\n";
    return status;
}

void dumpStream(const std::string& heading, int fd)
{
    constexpr const char* function = "void util::dumpStream(const string&, int)";
    safeCout << heading << "\n";
    char bufStdout[256];
    char* const end = bufStdout + sizeof bufStdout - 1; // the last byte is the terminating zero's
    char* pBuf = bufStdout;
    int length = -1;
    while (length != 0 && pBuf < end) {
        const auto room = static_cast<size_t>(end - pBuf);
        length = mustSucceed(function, __LINE__, static_cast<int>(read(fd, pBuf, room)));
        pBuf += length;
    }
    if (pBuf == end)
        safeCout << "OUTPUT WAS CUT TO 256 CHARACTERS:\n";
    quorvil::intern::require(pBuf < bufStdout + 256, "pBuf < bufStdout + 256", source, __LINE__, function);
    *pBuf = 0;
    safeCout << "'" << bufStdout << "'\n";
}

LinuxPipe::LinuxPipe(const std::string& command, bool read)
    : f(popen(command.c_str(), read ? "re" : "we"))
{
    // As a stream writes a pointer, but without a locale's grouping; null is 0.
    char line[lineSize];
    snprintf(line, sizeof line, "f=%#jx\n", static_cast<std::uintmax_t>(reinterpret_cast<std::uintptr_t>(f)));
    try {
        safeCout << line;
    } catch (...) {
        // No destructor runs.
        if (f)
            pclose(f);
        throw;
    }
}

LinuxPipe::~LinuxPipe()
{
    if (!f)
        return;
    const int res = pclose(f);
    const int error = errno;
    char line[lineSize];
    snprintf(line, sizeof line, "res of pclose: %d\n", res);
    safeCerr << line;
    if (res != -1)
        return;
    char buffer[256];
    safeCerr << "pclose failed: " << strerror_r(error, buffer, sizeof buffer) << "\n";
}

FILE*& LinuxPipe::go()
{
    return f;
}

} // namespace util
