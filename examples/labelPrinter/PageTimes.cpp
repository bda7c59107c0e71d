#include "PageTimes.h"

#include "Failure.h"
#include "Interrupt.h"
#include "Trace.h"

#include <chrono>
#include <thread>
#include <utility>

namespace labelPrinter {

PageTimes::PageTimes(bool wanted)
    : records(wanted)
{
}

PageTimes::~PageTimes()
{
    if (pageNumber == 0)
        return;
    reach("broken off");
    end();
}

void PageTimes::begin(int page)
{
    pageNumber = page;
    traceStation(page, "begun");
    while (records.wanted() && !(record = records.tryGet())) {
        stopIfInterrupted();
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    if (record)
        record->add("page " + std::to_string(page));
}

void PageTimes::reach(const std::string& station)
{
    traceStation(pageNumber, station.c_str());
    if (record)
        record->add(station);
}

void PageTimes::end()
{
    records.print(std::move(record));
    pageNumber = 0;
}

void PageTimes::close()
{
    if (!records.close())
        throw Failure("the times cannot be written to the standard error output; all results are in place");
}

} // namespace labelPrinter
