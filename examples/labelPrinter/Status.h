// Status.h: what the printer is doing, in one line

#ifndef LABELPRINTER_STATUS_H
#define LABELPRINTER_STATUS_H

#include "RecentJobs.h"

#include "Quorvil/QuorvilPos.h"
#include "Quorvil/QuorvilSyncLockGroup.h"

#include <optional>
#include <string>

namespace labelPrinter {

/// What the sensor reads.
struct Readings
{
    /// Of the paper below the print head, in rows from the beginning of the roll.
    quorvil::Pos paper{0};
    /// Percent of the roll.
    int paperLeft = 100;
    int pagesInFlight = 0;
    int rowsPerSecond = 0;
    bool feeding = false;
    /// True until a look has found that it is not.
    bool realTime = true;
};

/// The figures that all threads tell and ask, from the start of the process on.
///
/// They share one lock group, whose guard prints a warning when somebody holds them for more than 4 milliseconds.
class Status
{
public:
    void jobAccepted();

    /// @param title  of the job, or empty
    void jobBegun(int job, const std::string& title);
    void jobPrinted(int job, int pages);
    void jobFailed(int job);
    void sensed(const Readings& now);

    /// All of it, such as "2 accepted, 1 printed (1 page), 0 failed, last: job 2 'SHIPPING', 0 in flight, paper at (Pos
    /// 3600), 99 % left, 900 rows/s, engine at rest".
    std::string line();

    /// What is answered to a word of a client or an operator: to `status` the line, to `jobs` the jobs that ended last.
    ///
    /// @return nothing where it is another word
    std::optional<std::string> answer(const std::string& word);

private:
    quorvil::sync::LockGroup group;
    int accepted = 0;
    int printed = 0;
    int failed = 0;
    int pages = 0;
    int lastJob = 0;
    std::string display;
    Readings readings;
    RecentJobs recent;
};

} // namespace labelPrinter

#endif
