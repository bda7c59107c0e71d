// Progress.h: how far a job is and how long it took

#ifndef LABELPRINTER_PROGRESS_H
#define LABELPRINTER_PROGRESS_H

#include "Quorvil/TimeSpec.h"

#include <cstdint>
#include <string>

namespace labelPrinter {

/// Measures a job from its construction on, and tells on the standard output how far the job is: nothing in the
/// first second, then a line a second.
class Progress
{
public:
    /// @param name  stands before each line, such as "job 3: "
    explicit Progress(int pages, std::string name = "");

    /// Stand around the work whose time `composing` adds up.
    void beginComposing();
    void endComposing();

    /// Tells that a page is done, when the last line is a second old.
    void pageDone(int page);

    /// Tells that `done` of the `all` copies on a page are drawn, when the last line is a second old.
    void copiesDone(int page, int64_t done, int64_t all);

    const util::TimeSpec& composing() const;
    util::TimeSpec sinceBegin() const;

private:
    /// Tells the page, what is known about it, and the time.
    void tell(int page, const std::string& state);

    int pages;
    std::string name;
    util::TimeSpec begin;
    util::TimeSpec nextLine;
    util::TimeSpec composingSince;
    util::TimeSpec composingTime;
};

} // namespace labelPrinter

#endif
