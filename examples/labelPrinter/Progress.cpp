#include "Progress.h"

#include "Quorvil/ThreadSafeStream.h"

#include <ctime>
#include <ostream>
#include <utility>

namespace labelPrinter {

namespace {

util::TimeSpec now()
{
    util::TimeSpec time;
    time.initNow(CLOCK_MONOTONIC);
    return time;
}

util::TimeSpec oneSecond()
{
    util::TimeSpec time;
    time.init(1, 0);
    return time;
}

} // namespace

Progress::Progress(int thePages, std::string theName)
    : pages(thePages)
    , name(std::move(theName))
    , begin(now())
    , nextLine(begin)
{
    nextLine += oneSecond();
}

void Progress::beginComposing()
{
    composingSince = now();
}

void Progress::endComposing()
{
    composingTime += now();
    composingTime -= composingSince;
}

void Progress::pageDone(int page)
{
    tell(page, "");
}

void Progress::copiesDone(int page, int64_t done, int64_t all)
{
    tell(page, ", " + std::to_string(done * 100 / all) + " % drawn,");
}

void Progress::tell(int page, const std::string& state)
{
    const util::TimeSpec time = now();
    if (time < nextLine)
        return;
    nextLine = time;
    nextLine += oneSecond();
    safeCout << name << "page " << page << " of " << pages << state << " after " << sinceBegin().toShortString() << " s"
             << std::endl;
}

const util::TimeSpec& Progress::composing() const
{
    return composingTime;
}

util::TimeSpec Progress::sinceBegin() const
{
    util::TimeSpec time = now();
    time -= begin;
    return time;
}

} // namespace labelPrinter
