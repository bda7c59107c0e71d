// PageTimes.h: when each page got where, and a background thread that prints it

#ifndef LABELPRINTER_PAGETIMES_H
#define LABELPRINTER_PAGETIMES_H

#include "TimeRecords.h"

#include <string>

namespace labelPrinter {

/// Times the pages of a job: each has a record of named moments, which is printed to the standard error output while
/// the next pages are made. Every page that was begun is printed, in order and whole, whatever ends the job; the last
/// moment of one that did not get to its end is "broken off". The flight recorder gets the names, too.
///
/// One page at a time, on one thread. The standard error output is the background thread's until `close`.
class PageTimes
{
public:
    /// @param wanted  prepares the records and starts the thread; without it only the flight recorder gets something
    explicit PageTimes(bool wanted);

    /// Waits until all is printed.
    ~PageTimes();
    PageTimes(const PageTimes&) = delete;
    PageTimes& operator=(const PageTimes&) = delete;

    /// Begins a page. It waits while all records are waiting to be printed: then someone reads slower than we print.
    ///
    /// @throws Failure  the user breaks off
    void begin(int page);

    /// Notes that the page has got somewhere.
    ///
    /// @param station  up to 15 characters; a page has at most 14 of them
    void reach(const std::string& station);

    /// Hands the page's record to the background thread.
    void end();

    /// Waits until all is printed.
    ///
    /// @throws Failure  it could not be written
    void close();

private:
    TimeRecords records;
    TimeRecords::Handle record;
    /// The one that is being made, or 0.
    int pageNumber = 0;
};

} // namespace labelPrinter

#endif
