#include "StateFolder.h"

#include "Failure.h"

#include "Quorvil/QuorvilIbuf.h"
#include "Quorvil/ScanDir.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

namespace labelPrinter {

namespace {

/// Whether the name is that of a result which has not got its place: NAME.tmp and the number of a process.
bool isTemporary(const std::string& name)
{
    const std::string mark = ".tmp";
    const size_t at = name.rfind(mark);
    if (at == std::string::npos || at + mark.size() == name.size())
        return false;
    return name.find_first_not_of("0123456789", at + mark.size()) == std::string::npos;
}

/// Locks the file for this process. A child that it forks, for a core dump, does not inherit the lock.
int lockFile(const std::string& path)
{
    const int descriptor = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    if (descriptor < 0)
        throw systemFailure(path, errno);
    struct flock whole = {};
    whole.l_type = F_WRLCK;
    whole.l_whence = SEEK_SET;
    if (fcntl(descriptor, F_SETLK, &whole) != 0) {
        const int errorNumber = errno;
        close(descriptor);
        if (errorNumber == EACCES || errorNumber == EAGAIN)
            throw Failure(path + ": another printer uses this folder");
        throw systemFailure(path, errorNumber);
    }
    const std::string number = std::to_string(getpid()) + "\n";
    // The number is for people: without it the lock is one all the same.
    if (ftruncate(descriptor, 0) != 0 || write(descriptor, number.data(), number.size()) < 0)
        quorvil::ibuf::perror_errno(path.c_str(), errno);
    return descriptor;
}

} // namespace

std::string makeFolder(const std::string& path)
{
    if (mkdir(path.c_str(), 0777) != 0 && errno != EEXIST)
        throw systemFailure(path, errno);
    const std::unique_ptr<char, decltype(&std::free)> found(realpath((path + "/.").c_str(), nullptr), &std::free);
    if (!found)
        throw systemFailure(path, errno);
    return found.get();
}

StateFolder::StateFolder(const std::string& thePath)
    : path(makeFolder(thePath))
    , lock(lockFile(path + "/lock"))
{
    try {
        makeFolder(path + "/out");
        removeLeftOvers();
    } catch (const Failure&) {
        close(lock);
        throw;
    }
}

StateFolder::~StateFolder()
{
    // This gives up the lock, and nothing that was written hangs on it.
    close(lock);
}

void StateFolder::removeLeftOvers() const
{
    util::ScanDir scan(path + "/out");
    if (!scan.isOpen())
        throw systemFailure(path + "/out", errno);
    while (scan.next())
        if (isTemporary(scan.getLongName()))
            unlink((path + "/out/" + scan.getLongName()).c_str());
}

std::string StateFolder::database() const
{
    return path + "/jobs.db";
}

std::string StateFolder::spool() const
{
    return path + "/spool";
}

std::string StateFolder::counters() const
{
    return path + "/counters";
}

std::string StateFolder::results(int job) const
{
    return path + "/out/job-" + std::to_string(job);
}

} // namespace labelPrinter
