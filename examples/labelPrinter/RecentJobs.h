// RecentJobs.h: the jobs that ended last

#ifndef LABELPRINTER_RECENTJOBS_H
#define LABELPRINTER_RECENTJOBS_H

#include "Quorvil/QuorvilSync2Intern.h"
#include "Quorvil/QuorvilSyncLockGroup.h"

#include <array>
#include <ostream>

namespace labelPrinter {

/// Remembers the last eight jobs that ended. A ninth takes the place of the oldest, and no memory is taken for it.
///
/// Who owns it guards it by a lock group; a call that changes something gets the guard.
class RecentJobs : private quorvil::sync2::intern::Pool
{
public:
    RecentJobs();
    ~RecentJobs() override;

    /// @param state  how the job ended, a text that lives for ever
    void add(quorvil::sync::Guard& guard, int job, const char* state);

    /// Writes them with the oldest first, such as "2 failed, 3 printed", or "none".
    void print(std::ostream& out);

private:
    struct Ended : quorvil::sync2::intern::Element
    {
        int job = 0;
        const char* state = "";
    };

    void takeBack(quorvil::sync::Guard& guard, quorvil::sync2::intern::Element* element) override;

    std::array<Ended, 8> all;
    quorvil::sync2::intern::Fifo unused;
    /// The oldest first.
    quorvil::sync2::intern::Fifo ended;
    size_t count = 0;
};

} // namespace labelPrinter

#endif
