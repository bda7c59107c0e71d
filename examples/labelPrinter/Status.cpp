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

void Status::jobPrinted(int job, int jobPages)
{
    quorvil::sync::Guard guard(group, source, __LINE__);
    recent.add(guard, job, "printed");
    ++printed;
    pages += jobPages;
}

void Status::jobFailed(int job)
{
    quorvil::sync::Guard guard(group, source, __LINE__);
    recent.add(guard, job, "failed");
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
        << " % left, " << readings.rowsPerSecond << " rows/s, engine " << (readings.feeding ? "feeding" : "at rest")
        << (readings.realTime ? "" : " (without real-time priority)");
    return out.str();
}

std::optional<std::string> Status::answer(const std::string& word)
{
    if (word == "status")
        return line();
    if (word != "jobs")
        return std::nullopt;
    std::ostringstream out;
    const quorvil::sync::Guard guard(group, source, __LINE__);
    out << "ended last: ";
    recent.print(out);
    return out.str();
}

} // namespace labelPrinter
