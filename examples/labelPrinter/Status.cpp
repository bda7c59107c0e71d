#include "Status.h"

#include "Title.h"

#include <sstream>

namespace labelPrinter {

namespace {

constexpr const char* source = "labelPrinter/Status";

} // namespace

void Status::jobAccepted()
{
    const quorvil::sync::Guard guard(group, source, __LINE__);
    ++accepted;
}

void Status::jobBegun(int job, const std::string& title)
{
    const std::string shown = onDisplay(title);
    const quorvil::sync::Guard guard(group, source, __LINE__);
    lastJob = job;
    display = shown;
}

void Status::jobPrinted(int jobPages)
{
    const quorvil::sync::Guard guard(group, source, __LINE__);
    ++printed;
    pages += jobPages;
}

void Status::jobFailed()
{
    const quorvil::sync::Guard guard(group, source, __LINE__);
    ++failed;
}

void Status::sensed(const Readings& now)
{
    const quorvil::sync::Guard guard(group, source, __LINE__);
    readings = now;
}

std::string Status::line()
{
    std::ostringstream out;
    const quorvil::sync::Guard guard(group, source, __LINE__);
    out << accepted << " accepted, " << printed << " printed (" << pages << (pages == 1 ? " page), " : " pages), ")
        << failed << " failed";
    if (lastJob != 0)
        out << ", last: job " << lastJob << (display.empty() ? "" : " '" + display + "'");
    out << ", " << readings.pagesInFlight << " in flight, paper at " << readings.paper << ", " << readings.paperLeft
        << " % left";
    return out.str();
}

} // namespace labelPrinter
