#include "TimeRecords.h"

#include "Interrupt.h"

#include <cstddef>
#include <locale>
#include <pthread.h>
#include <utility>

namespace labelPrinter {

namespace {

constexpr size_t records = 64;
constexpr size_t mostMoments = 16;
constexpr int nameWidth = 12;
/// Twice of what the moments of a page and their printing take. Their names are short enough to need nothing here.
constexpr size_t bytesPerRecord = mostMoments * 256;

} // namespace

TimeRecords::TimeRecords(bool wanted)
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

bool TimeRecords::wanted() const
{
    return pool.has_value();
}

TimeRecords::Handle TimeRecords::tryGet()
{
    return pool ? pool->tryGet(mostMoments) : Handle();
}

void TimeRecords::print(Handle record)
{
    if (record)
        pool->dump(std::move(record));
}

bool TimeRecords::close()
{
    if (pool)
        pool->close();
    return static_cast<bool>(stream);
}

} // namespace labelPrinter
