// Runs a piece of a test in a forked child and brings back what it wrote and how it ended.

#ifndef QUORVIL_TESTS_CHILD_H
#define QUORVIL_TESTS_CHILD_H

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <poll.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

namespace support {

struct ChildResult
{
    std::string out; ///< standard output
    std::string err; ///< standard error; empty if both went to one pipe
    int status = 0;  ///< as of `waitpid`
};

enum class Streams
{
    apart,
    together ///< standard error goes to the pipe of standard output
};

/// An emulator adds a line of its own where the program that it runs is aborted.
inline void dropEmulatorsWords(std::string& text)
{
    const std::string words = "qemu: uncaught target signal 6 (Aborted) - core dumped\n";
    for (size_t at = text.find(words); at != std::string::npos; at = text.find(words, at))
        text.erase(at, words.size());
}

/// Forks; the child runs `body` and ends by `exit(0)`, with all that belongs to an orderly end.
template <typename Body>
ChildResult runInChild(Body body, Streams streams = Streams::apart)
{
    std::fflush(nullptr);
    std::array<int, 2> out{};
    std::array<int, 2> err{};
    if (pipe(out.data()) != 0 || pipe(err.data()) != 0)
        std::abort();
    const pid_t child = fork();
    if (child == 0) {
        dup2(out[1], STDOUT_FILENO);
        dup2(streams == Streams::together ? out[1] : err[1], STDERR_FILENO);
        for (const int descriptor : {out[0], out[1], err[0], err[1]})
            close(descriptor);
        body();
        std::exit(0);
    }
    close(out[1]);
    close(err[1]);

    // Both ends are read as they come, so that a child that fills one pipe never waits for the other.
    ChildResult result;
    std::array<pollfd, 2> ends{{{out[0], POLLIN, 0}, {err[0], POLLIN, 0}}};
    while (ends[0].fd >= 0 || ends[1].fd >= 0) {
        if (poll(ends.data(), ends.size(), -1) < 0)
            continue;
        for (pollfd& end : ends) {
            if (end.fd < 0 || end.revents == 0)
                continue;
            std::array<char, 4096> buffer{};
            const ssize_t length = read(end.fd, buffer.data(), buffer.size());
            if (length > 0)
                (&end == ends.data() ? result.out : result.err).append(buffer.data(), static_cast<size_t>(length));
            else if (length == 0 || errno != EINTR)
                end.fd = -1;
        }
    }
    close(out[0]);
    close(err[0]);
    while (waitpid(child, &result.status, 0) < 0 && errno == EINTR) {
    }
    dropEmulatorsWords(result.out);
    dropEmulatorsWords(result.err);
    return result;
}

} // namespace support

#endif
