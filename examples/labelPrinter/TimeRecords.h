// TimeRecords.h: records of named moments, and the background thread that prints them

#ifndef LABELPRINTER_TIMERECORDS_H
#define LABELPRINTER_TIMERECORDS_H

#include "Quorvil/QuorvilTimeCollector.h"

#include <iostream>
#include <optional>
#include <syncstream>

namespace labelPrinter {

/// A supply of records, each for the moments of one page. They are printed to the standard error output, each in one
/// piece, while the next pages are made. A record may wander from thread to thread with its page.
class TimeRecords
{
public:
    using Handle = quorvil::TimeCollectorPool::Handle;

    /// @param wanted  prepares the records and starts the thread; without it there is no record
    explicit TimeRecords(bool wanted);
    TimeRecords(const TimeRecords&) = delete;
    TimeRecords& operator=(const TimeRecords&) = delete;

    bool wanted() const;

    /// A record with room for 16 moments whose names have up to 15 characters; empty when all are in use or none is
    /// wanted. It never waits and takes no memory from the system.
    Handle tryGet();

    /// Hands a record to the background thread; an empty one is ignored.
    void print(Handle record);

    /// Waits until all is printed, as the destructor does.
    ///
    /// @return whether all could be written
    bool close();

private:
    std::osyncstream stream;
    std::optional<quorvil::TimeCollectorPool> pool;
};

} // namespace labelPrinter

#endif
