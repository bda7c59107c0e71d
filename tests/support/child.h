// Runs pieces of a test in forked children and looks at what they wrote and how they ended.

#ifndef QUORVIL_TESTS_CHILD_H
#define QUORVIL_TESTS_CHILD_H

#include "tests/support/interpose.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace support {

struct ChildResult
{
    std::string out; ///< standard output
    std::string err; ///< standard error; empty if both went to one file
    int status = 0;  ///< as of `waitpid`
};

/// Whether standard error has a file of its own or goes to that of standard output.
enum class Streams
{
    apart,
    together
};

/// The whole content, without the line that an emulator adds where the program that it runs is aborted.
inline std::string takeContent(int file)
{
    std::string text(static_cast<size_t>(lseek(file, 0, SEEK_END)), 0);
    [[maybe_unused]] const ssize_t length = pread(file, text.data(), text.size(), 0);
    close(file);
    const std::string emulatorsWords = "qemu: uncaught target signal 6 (Aborted) - core dumped\n";
    for (size_t at = text.find(emulatorsWords); at != std::string::npos; at = text.find(emulatorsWords, at))
        text.erase(at, emulatorsWords.size());
    return text;
}

/// Forks; the child, which ends by itself when it hangs, runs `body` and ends by `exit(0)`, with all that belongs to
/// it.
template <typename Body>
ChildResult runInChild(Body body, Streams streams = Streams::apart)
{
    std::fflush(nullptr);
    const int out = memfd_create("out", 0);
    const int err = memfd_create("err", 0);
    const pid_t child = fork();
    if (child == 0) {
        dup2(out, STDOUT_FILENO);
        dup2(streams == Streams::together ? out : err, STDERR_FILENO);
        alarm(60);
        body();
        std::exit(0);
    }
    ChildResult result;
    while (waitpid(child, &result.status, 0) < 0 && errno == EINTR) {
    }
    result.out = takeContent(out);
    result.err = takeContent(err);
    return result;
}

/// What `body` comes to in a child: its standard error, the text of what it throws, and "exit N" or "killed by N".
inline std::string outcomeOf(const std::function<void()>& body)
{
    const ChildResult child = runInChild([&body] {
        try {
            body();
        } catch (const std::exception& exception) {
            std::fputs(exception.what(), stderr);
        }
        std::raise(SIGURG);         // where coverage is counted, the counters are kept now
        syscall(SYS_exit_group, 0); // the parent's objects and threads are nobody's to end, and to miss, here
    });
    return child.err + (WIFEXITED(child.status) ? "exit " + std::to_string(WEXITSTATUS(child.status))
                                                : "killed by " + std::to_string(WTERMSIG(child.status)));
}

/// A piece of a test that ends, or a call in which fails, in a told way.
struct Failure
{
    std::string expected; ///< part of the outcome, with % for the error as it is told
    std::function<void()> body;
    Fault* fault = nullptr;
    std::string errors = {}; ///< those that are told by their names; without "only" others are told by numbers
};

inline void expectOutcomes(const std::vector<Failure>& failures)
{
    for (const auto& [expected, body, fault, errors] : failures)
        for (const int error : {EINVAL, EPERM, ESRCH, EINTR, EAGAIN, ENOMEM, EBUSY, EDEADLK, ENOSYS, EXDEV}) {
            const std::string name = error == EXDEV ? "Unexpected errno (18)" : strerrorname_np(error);
            const bool told = errors.find(error == EXDEV ? "only" : name) != std::string::npos;
            if (told == (error == EXDEV))
                continue;
            std::string text = expected;
            if (const size_t place = text.find('%'); place != std::string::npos)
                text.replace(place, 1, name);
            const std::string outcome = outcomeOf([&, failing = fault, &call = body] {
                if (failing)
                    failing->fail(std::strncmp(failing->name, "pthread_", 8) == 0 ? error : -1, error, 1, 1);
                call();
            });
            EXPECT_NE(outcome.find(text), std::string::npos) << outcome << "\ninstead of\n" << text;
        }
}

} // namespace support

#endif
