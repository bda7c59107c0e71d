#include "FeedSpeed.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

namespace labelPrinter {

FeedSpeed::FeedSpeed(int theRowsPerRoll, int theLooksPerSecond)
    : steps(sizeof(int))
    , rowsPerRoll(theRowsPerRoll)
    , looksPerSecond(theLooksPerSecond)
{
}

int FeedSpeed::look(quorvil::Pos paper)
{
    // Between two looks the paper moves by less than a roll.
    const int step = (paper.pos - lastRow + rowsPerRoll) % rowsPerRoll;
    lastRow = paper.pos;
    char bytes[sizeof step];
    std::memcpy(bytes, &step, sizeof step);
    steps.add(0, bytes, sizeof bytes);

    int64_t rows = 0;
    int looks = 0;
    int position = 0;
    char* values = nullptr;
    for (steps.startIteration(); steps.iterate(position, values); ++looks) {
        int rowsOfStep = 0;
        std::memcpy(&rowsOfStep, values, sizeof rowsOfStep);
        rows += rowsOfStep;
    }
    return static_cast<int>(rows * looksPerSecond / std::max(looks, 1));
}

} // namespace labelPrinter
