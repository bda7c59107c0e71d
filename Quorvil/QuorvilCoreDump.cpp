#include "Quorvil/QuorvilCoreDump.h"

#include "Quorvil/QuorvilAssert.h"
#include "Quorvil/QuorvilLog.h"
#include "siblings/EasyAsync/EasyAsync.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <future>
#include <string>
#include <utility>

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

QUORVIL_LOG_GROUP("QuorvilCoreDump");
QUORVIL_LOG_INDEX();

namespace quorvil::coredump {

namespace {

constexpr char source[] = "Quorvil/QuorvilCoreDump";

/// False behind a report.
bool raiseLimit()
{
    rlimit limit{};
    if (getrlimit(RLIMIT_CORE, &limit) != 0) {
        std::perror("Could not get RLIMIT_CORE\n");
        return false;
    }
    limit.rlim_cur = RLIM_INFINITY;
    limit.rlim_max = RLIM_INFINITY;
    std::printf("rlim_max=%d\n", -1);
    if (setrlimit(RLIMIT_CORE, &limit) != 0) {
        std::perror("Could not set RLIMIT_CORE\n");
        return false;
    }
    return true;
}

/// The child, which takes no lock of the library: its owner may have stayed behind in the parent. What it throws must
/// not reach the caller's frames: it ends in a core file, too.
[[noreturn]] void dump(const char* directory) noexcept
{
    // Not `exit`: the parent's handlers and buffers are not the child's to run and to write.
    if (!raiseLimit())
        _exit(1);
    std::string dir = "/data/coreDumps/";
    intern::require(dir.length() > 0 && dir.at(dir.length() - 1) == '/',
                    "dir.length() > 0 && dir.at(dir.length() - 1) == '/'", source, __LINE__,
                    "void quorvil::coredump::run(const char*)");
    if (directory != nullptr)
        dir += directory;
    // A folder that was not made shows in `chdir`.
    [[maybe_unused]] const int made = std::system(("mkdir -p " + dir).c_str());
    if (chdir(dir.c_str()) != 0)
        QUORVIL_LOG(source, 118, "chdir: %s\n", std::strerror(errno));
    std::abort();
}

void awaitDump(pid_t pid)
{
    my_printf("[INFO Quorvil/QuorvilCoreDump:86]    CORE DUMP...\n");
    pid_t ended = -1;
    do {
        ended = waitpid(pid, nullptr, 0);
    } while (ended == -1 && errno == EINTR);
    if (ended == -1)
        QUORVIL_LOG(source, 89, "waitpid() failed: %s\n", std::strerror(errno));
    else
        my_printf("[INFO Quorvil/QuorvilCoreDump:91]    CORE DUMP done.\n");
}

} // namespace

void prepare()
{
    if (!raiseLimit())
        std::exit(1);
}

void run(const char* directory)
{
    // What is pending would come out twice: the child's own line can flush its copy.
    std::fflush(stdout);
    const pid_t pid = fork();
    if (pid == -1) {
        QUORVIL_LOG(source, 106, "fork() failed: %s\n", std::strerror(errno));
        return;
    }
    if (pid == 0)
        dump(directory);
    std::future<void> waiting;
    try {
        waiting = std::async(std::launch::async, awaitDump, pid);
    } catch (const std::exception&) {
        // Without a thread for it: a zombie would be worse than a wait.
        awaitDump(pid);
        return;
    }
    easyAsyncIntern::storeFuture(std::move(waiting));
}

} // namespace quorvil::coredump
