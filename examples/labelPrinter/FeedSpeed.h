// FeedSpeed.h: how fast the paper moved lately

#ifndef LABELPRINTER_FEEDSPEED_H
#define LABELPRINTER_FEEDSPEED_H

#include "Quorvil/QuorvilLimitedStateValueBuffer.h"
#include "Quorvil/QuorvilPos.h"

namespace labelPrinter {

/// Looks at the paper at even intervals, and keeps the steps of the last 128 looks as state values. For one thread; it
/// takes no memory after its construction.
class FeedSpeed
{
public:
    /// @param rowsPerRoll     where the position begins again at 0
    /// @param looksPerSecond  how often `look` is called
    FeedSpeed(int rowsPerRoll, int looksPerSecond);

    /// Notes where the paper is.
    ///
    /// @return rows a second, over the last looks
    int look(quorvil::Pos paper);

private:
    util::LimitedStateValueBuffer steps;
    int rowsPerRoll;
    int looksPerSecond;
    int lastRow = 0;
};

} // namespace labelPrinter

#endif
