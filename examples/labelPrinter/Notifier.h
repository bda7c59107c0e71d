// Notifier.h: runs a command for every job that leaves the printer

#ifndef LABELPRINTER_NOTIFIER_H
#define LABELPRINTER_NOTIFIER_H

#include "Quorvil/QuorvilBlockingQueue.h"
#include "Quorvil/QuorvilPthread.h"

#include <atomic>
#include <chrono>
#include <memory>
#include <string>

namespace labelPrinter {

/// A thread that runs a shell command for each job that was printed or has failed, one after the other. Printing never
/// waits for it, and whatever becomes of a command harms nothing else: one that takes longer than `mostSeconds` is
/// killed.
///
/// The command has an empty input, and finds the job's number in `$1`, and in `$2` its state, `printed` or `failed`.
/// Its output goes to the printer's standard error output.
class Notifier
{
public:
    static constexpr int mostSeconds = 5;

    /// @param command  empty: nothing is ever run
    explicit Notifier(std::string command);
    ~Notifier();
    Notifier(const Notifier&) = delete;
    Notifier& operator=(const Notifier&) = delete;

    /// Lets the command be run for a job. Any thread may call. Where a thousand wait already, the job is left out, and
    /// a line tells so.
    ///
    /// @param state  a text that lives for ever
    void jobLeft(int job, const char* state);

    /// Lets the command still be run for `mostSeconds` for those that left, and waits for that; the others are left
    /// out, with a line each.
    void stop();

private:
    struct Job
    {
        int number = 0;
        const char* state = "";
    };
    using Jobs = quorvil::BlockingQueue<Job, std::allocator<Job>>;

    using Clock = std::chrono::steady_clock;

    void run();
    void notify(const Job& job) const;

    std::string command;
    Jobs jobs;
    std::atomic<Clock::time_point> lastStart = Clock::time_point::max();
    quorvil::Pthread thread;
    bool started = false;
};

} // namespace labelPrinter

#endif
