#include "Notifier.h"

#include "Interrupt.h"
#include "NamedThread.h"

#include "Quorvil/LinuxPipe.h"
#include "Quorvil/QuorvilLinuxTimer.h"
#include "Quorvil/QuorvilLog.h"
#include "Quorvil/ThreadSafeStream.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <mutex>
#include <sys/wait.h>
#include <utility>

namespace labelPrinter {

namespace {

constexpr size_t mostWaiting = 1000;

/// Kills a command that takes too long. It stays to the end of the process: an expiry that comes late finds no command,
/// or one that has time left.
class TimeLimit
{
public:
    TimeLimit()
    {
        timer.create([this] { expire(); });
    }

    void begin(pid_t process)
    {
        {
            const std::lock_guard lock(mutex);
            running = process;
            until = Clock::now() + std::chrono::seconds(Notifier::mostSeconds);
        }
        timer.start(Notifier::mostSeconds, 0, 0, 0);
    }

    void end()
    {
        timer.cancel();
        const std::lock_guard lock(mutex);
        running = 0;
    }

private:
    using Clock = std::chrono::steady_clock;

    void expire()
    {
        // The system's timer threads take every signal; those that stop the printer are for the thread that waits.
        const InterruptsHeldOff here;
        const std::lock_guard lock(mutex);
        if (running == 0 || Clock::now() < until || kill(running, SIGKILL) != 0)
            return;
        // Not by `safeCout`: who holds the console must not hold up a timer.
        my_printf("[WARN labelPrinter/Notifier:%d]    a command takes longer than %d seconds and is killed\n", __LINE__,
                  Notifier::mostSeconds);
    }

    std::mutex mutex;
    /// The process, or 0.
    pid_t running = 0;
    Clock::time_point until;
    quorvil::LinuxTimer timer;
};

TimeLimit& timeLimit()
{
    static auto* const only = new TimeLimit;
    return *only;
}

} // namespace

Notifier::Notifier(std::string theCommand)
    : command(std::move(theCommand))
    , jobs(mostWaiting, {})
{
    if (command.empty())
        return;
    thread = startThread("notifier", [this] { run(); });
    started = true;
}

Notifier::~Notifier()
{
    stop();
}

void Notifier::jobLeft(int job, const char* state)
{
    if (started && !jobs.push(Job{job, state}))
        safeCerr << "labelPrinter: no command is run for job " << job << ": too many wait" << std::endl;
}

void Notifier::stop()
{
    lastStart = Clock::now() + std::chrono::seconds(mostSeconds);
    jobs.close();
    if (std::exchange(started, false))
        thread.join();
}

void Notifier::run()
{
    try {
        for (;;) {
            const Job job = jobs.pop();
            if (Clock::now() < lastStart.load())
                notify(job);
            else
                safeCerr << "labelPrinter: no command is run for job " << job.number << ": the printer stops"
                         << std::endl;
        }
    } catch (const quorvil::BlockingQueueClosedException&) {
        return;
    }
}

void Notifier::notify(const Job& job) const
{
    try {
        // The shell tells its process's number first. What the command itself writes is not for us.
        util::LinuxPipe shell("echo $$\nexec >&2 </dev/null\nset -- " + std::to_string(job.number) + " " + job.state +
                                  "\n" + command,
                              true);
        char number[32] = "";
        if (shell.go() == nullptr || std::fgets(number, sizeof number, shell.go()) == nullptr) {
            safeCerr << "labelPrinter: no command can be run for job " << job.number << std::endl;
            return;
        }
        const pid_t process = std::atoi(number);
        timeLimit().begin(process);
        // It is left to be reaped by the pipe: until then its number is nobody else's.
        siginfo_t end = {};
        while (waitid(P_PID, static_cast<id_t>(process), &end, WEXITED | WNOWAIT) != 0 && errno == EINTR) {
        }
        timeLimit().end();
        if (end.si_status != 0)
            safeCerr << "labelPrinter: the command for job " << job.number << " failed" << std::endl;
    } catch (const std::exception& reason) {
        safeCerr << "labelPrinter: no command can be run for job " << job.number << ": " << reason.what() << std::endl;
    }
}

} // namespace labelPrinter
