// LinuxPipe.h: shell commands as child processes, with pipes to their standard streams
// System interfaces, on Foundation

#ifndef QUORVIL_LINUXPIPE_H
#define QUORVIL_LINUXPIPE_H

#include "Quorvil/QuorvilExport.h"

#include <cstdio>
#include <string>
#include <sys/types.h>

namespace util {

/// Runs a shell command and holds all three of its standard streams. What it does is traced on `safeCerr`.
///
/// The child runs from the constructor on. The pipes have the kernel's room and no more: who expects much output reads
/// before waiting. The destructor waits for the child before it closes the child's standard input: a command that reads
/// to the end of its input has to be stopped by other means.
///
/// A failed system call ends the process by `safe`, an interrupted one included; between `fork` and `execlp` it ends
/// the child, with the same lines on its descriptor 2. A command that the shell cannot run is no failure: the exit code
/// tells. One thread for an object.
class QUORVIL_API MyPipe
{
public:
    /// Starts "/bin/sh -c" with `command` (`pipe2`, `fork`, `dup2`, `execlp`; the caller's ends are close-on-exec).
    ///
    /// Where it throws, the pipes are closed again, and a child that was started has ended.
    ///
    /// @throws std::system_error  the console lock cannot be taken
    /// @requires linuxFuncResult != -1
    /// @threads any   @realtime I/O
    explicit MyPipe(const std::string& command);

    /// Waits for the child unless `waitForChild` did, and closes the three descriptors (`waitpid`, `close`). A console
    /// lock that cannot be taken ends the process.
    ///
    /// @requires linuxFuncResult != -1   the caller has closed none of them
    /// @threads owner   @realtime waits
    virtual ~MyPipe();

    MyPipe(const MyPipe&) = delete;
    MyPipe& operator=(const MyPipe&) = delete;

    /// The caller's end of a pipe, for writing to the child's standard input. The object closes it, and nobody else
    /// may.
    ///
    /// @threads owner   @realtime bounded
    int childStdin();

    /// The same for reading the child's output.
    ///
    /// @threads owner   @realtime bounded
    int childStdout();

    /// The same for reading the child's error output.
    ///
    /// @threads owner   @realtime bounded
    int childStderr();

    /// `dumpStream` of the child's output, headed "DUMP stdout von MyPipe:".
    ///
    /// @throws std::system_error  the console lock cannot be taken
    /// @requires linuxFuncResult != -1
    /// @threads owner   @realtime waits
    void dumpStdout();

    /// `dumpStream` of the child's error output, headed "DUMP stderr von MyPipe:".
    ///
    /// @throws std::system_error  the console lock cannot be taken
    /// @requires linuxFuncResult != -1
    /// @threads owner   @realtime waits
    void dumpStderr();

    /// Waits for the end of the child (`waitpid`); a further call returns the same at once.
    ///
    /// @return the status as of `waitpid`: 768 for an exit with 3
    /// @throws std::system_error  the console lock cannot be taken
    /// @requires linuxFuncResult != -1
    /// @threads owner   @realtime waits
    int waitForChild();

private:
    [[noreturn]] void runChild(const char* command);

    pid_t pid = -1;
    int stdinFd[2];
    int stdoutFd[2];
    int stderrFd[2];
    int status = -1;
};

/// Reads `fd` to its end, but at most 255 bytes, and writes on `safeCout`: the heading, a line that tells of a cut if
/// all 255 came, and in single quotes what was read, up to its first zero byte (`read`).
///
/// @throws std::system_error  the console lock cannot be taken
/// @requires linuxFuncResult != -1
/// @threads any   @realtime waits
QUORVIL_API void dumpStream(const std::string& heading, int fd);

/// Runs a shell command with a stream to or from it (`popen`, `pclose`; the stream is close-on-exec).
class QUORVIL_API LinuxPipe
{
public:
    /// Starts the command, and writes "f=" and the stream's address on `safeCout`; 0 shows that it failed. Where it
    /// throws, the stream is closed again.
    ///
    /// @param read  true: the stream reads the command's output; false: it writes to its input
    /// @throws std::system_error  the console lock cannot be taken
    /// @threads any   @realtime I/O
    LinuxPipe(const std::string& command, bool read);

    /// Closes the stream, if there is one, waits for the command, and writes "res of pclose: " and its status on
    /// `safeCerr`; a failure is told by "pclose failed: " and the system's text, and nothing more. A console lock
    /// that cannot be taken ends the process.
    ///
    /// @threads owner   @realtime waits
    virtual ~LinuxPipe();

    LinuxPipe(const LinuxPipe&) = delete;
    LinuxPipe& operator=(const LinuxPipe&) = delete;

    /// The stream, null if `popen` failed. The object closes it.
    ///
    /// @threads owner   @realtime bounded
    FILE*& go();

private:
    FILE* f;
};

} // namespace util

#endif
