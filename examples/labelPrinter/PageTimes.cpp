#include "PageTimes.h"

#include "Failure.h"
#include "Interrupt.h"
#include "Trace.h"

#include <chrono>
#include <cstddef>
#include <locale>
#include <pthread.h>
#include <thread>
#include <utility>

namespace labelPrinter {

namespace {

constexpr size_t records = 64;
constexpr size_t mostMoments = 16;
constexpr int nameWidth = 12;
/// Twice of what the moments of a page and their printing take. Their names are short enough to need nothing here.
constexpr size_t bytesPerRecord = mostMoments * 256;

} // namespace

PageTimes::PageTimes(bool wanted)
    : stream(std::cerr)
{
    if (!wanted)
        return;
    // A record goes out in one piece.
    stream << std::emit_on_flush;
    // The pool groups the digits of the standard output and renames the thread that makes it. The digits are for our
    // stream, and the name stays as it was.
    const std::locale plain = std::cout.getloc();
    char name[16] = "";
    pthread_getname_np(pthread_self(), name, sizeof name);
    {
        const InterruptsHeldOff forTheNewThread;
        pool.emplace(stream, nameWidth, bytesPerRecord, records);
    }
    pthread_setname_np(pthread_self(), name);
    stream.imbue(std::cout.imbue(plain));
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
    if (!pool)
        return;
    while (!(record = pool->tryGet(mostMoments))) {
        stopIfInterrupted();
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
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
    if (record)
        pool->dump(std::move(record));
    pageNumber = 0;
}

void PageTimes::close()
{
    if (!pool)
        return;
    pool->close();
    if (!stream)
        throw Failure("the times cannot be written to the standard error output; all results are in place");
}

} // namespace labelPrinter
