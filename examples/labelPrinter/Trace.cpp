#include "Trace.h"

#include "Failure.h"
#include "Image.h"
#include "JobLine.h"

#include "Quorvil/QuorvilLimitedBuffer.h"

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <exception>
#include <iostream>
#include <memory>

namespace labelPrinter {

namespace {

constexpr size_t traceBytes = 65536;

/// A list of state values. A list has no room to spare: the recorder keeps 128 of them.
struct BandState
{
    uint16_t page, band, y, fed;
};
static_assert(sizeof(BandState) == 8 && longestSide <= UINT16_MAX, "nothing is padded, and every row can be told");

void formatState(std::ostream& out, const char* values)
{
    BandState state = {};
    std::memcpy(&state, values, sizeof state);
    char text[64];
    std::snprintf(text, sizeof text, "  [page %d, band %d, y %d%s]\n", state.page, state.band, state.y,
                  state.fed != 0 ? ", fed" : "");
    out << text;
}

} // namespace

void startTrace()
{
    util::gl_pTrenvikLimitedBuffer = std::make_shared<util::LimitedBuffer>(traceBytes, sizeof(BandState), formatState);
    util::LimitedBuffer::setBufferingActive(true);
}

void traceJobLine(int number, const std::string& text)
{
    if (util::gl_pTrenvikLimitedBuffer)
        util::gl_pTrenvikLimitedBuffer->addf("line %d: %s\n", number, printable(JobLine::quoted(text)).c_str());
}

void traceStation(int page, const char* station)
{
    if (util::gl_pTrenvikLimitedBuffer)
        util::gl_pTrenvikLimitedBuffer->addf("page %d: %s\n", page, station);
}

void traceBand(int page, int band, int y, bool fed)
{
    const BandState state = {static_cast<uint16_t>(page), static_cast<uint16_t>(band), static_cast<uint16_t>(y), fed};
    char values[sizeof state];
    std::memcpy(values, &state, sizeof state);
    if (util::gl_pTrenvikLimitedBuffer)
        util::gl_pTrenvikLimitedBuffer->addStateValueList(values, sizeof values);
}

void printTrace() noexcept
{
    try {
        if (util::gl_pTrenvikLimitedBuffer)
            std::cerr << *util::gl_pTrenvikLimitedBuffer << std::flush;
    } catch (const std::exception& reason) {
        // The job's own failure has been told already, and counts more.
        std::fprintf(stderr, "labelPrinter: no trace: %s\n", reason.what());
    }
}

} // namespace labelPrinter
