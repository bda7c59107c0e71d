// Status.h: what the printer is doing, in one line

#ifndef LABELPRINTER_STATUS_H
#define LABELPRINTER_STATUS_H

#include "Quorvil/QuorvilPos.h"
#include "Quorvil/QuorvilSyncLockGroup.h"

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
    void jobPrinted(int pages);
    void jobFailed();
    void sensed(const Readings& now);

    /// All of it, such as "2 accepted, 1 printed (1 page), 0 failed, last: job 2 'SHIPPING', 0 in flight, paper at (Pos
    /// 3600), 99 % left".
    std::string line();

private:
    quorvil::sync::LockGroup group;
    int accepted = 0;
    int printed = 0;
    int failed = 0;
    int pages = 0;
    int lastJob = 0;
    std::string display;
    Readings readings;
};

} // namespace labelPrinter

#endif
