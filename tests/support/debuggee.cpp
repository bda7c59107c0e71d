// A process for the debugger to look at: debuggee FILE DUMP
//
// It fills what the debugger is to show, writes what the recorders print to FILE, comes to `standStill`, leaves a core
// below /data/coreDumps/DUMP, and ends with its standard input.

#include "Quorvil/CountingSemaphore.h"
#include "Quorvil/QuorvilCoreDump.h"
#include "Quorvil/QuorvilLimitedBuffer.h"
#include "Quorvil/QuorvilMystring.h"
#include "Quorvil/QuorvilSyncLockGroup.h"
#include "Quorvil/Thread.h"
#include "Quorvil/TimeSpec.h"
#include "Quorvil/sqlite3cpp.h"

#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iomanip>
#include <memory>
#include <ostream>
#include <string>

struct Band
{
    int page;
    int number;
};

/// Waits in its body from `start` on.
struct Feeder : util::Thread
{
    using Thread::Thread;

    void run() override
    {
        reached.post();
        stop.wait();
    }

    util::CountingSemaphore reached{0};
    util::CountingSemaphore stop{0};
};

/// Prints the bytes of a list as the debugger does.
void formatBand(std::ostream& out, const char* bytes)
{
    out << std::hex << std::setfill('0');
    for (size_t i = 0; i < sizeof(Band); ++i)
        out << "[ "[i != 0] << std::setw(2) << int{static_cast<unsigned char>(bytes[i])};
    out << "]\n";
}

void addBand(util::LimitedBuffer& recorder, int page, int number)
{
    const Band band{page, number};
    recorder.addStateValueList(reinterpret_cast<const char*>(&band), sizeof band);
}

constexpr int listBytes = sizeof(Band);
auto unused = std::make_shared<util::LimitedBuffer>(16, listBytes, formatBand);
auto filling = std::make_shared<util::LimitedBuffer>(1000, listBytes, formatBand);
auto crowded = std::make_shared<util::LimitedBuffer>(4000, listBytes, formatBand);
std::shared_ptr<util::LimitedBuffer> noRecorder;

util::TimeSpec minusOneAndAHalf;
tolmen::mystring label("Größe 4 €", true);
tolmen::mywstring wideLabel(L"Größe 4 €");
tolmen::mystring noText;
Feeder fresh("fresh");
Feeder feeding("feeding");
util::CountingSemaphore pages(3);
quorvil::sync::LockGroup group;
sqlite3cpp::DbCon database(":memory:");
sqlite3cpp::PrepStat row(database, "select 1");

void fillRecorders()
{
    // The process's own: its text has wrapped in the middle of a line, and lists have gone with the text.
    util::gl_pTrenvikLimitedBuffer = std::make_shared<util::LimitedBuffer>(600, listBytes, formatBand);
    for (int i = 0; i < 50; ++i) {
        util::gl_pTrenvikLimitedBuffer->addf("page %d: of the job that is printed\n", i);
        if (i % 3 == 0)
            addBand(*util::gl_pTrenvikLimitedBuffer, i, -1);
    }
    // Two at one place, which is the place of the next byte of a full ring.
    addBand(*util::gl_pTrenvikLimitedBuffer, 50, 1);
    addBand(*util::gl_pTrenvikLimitedBuffer, 50, 2);

    addBand(*filling, 1, 1);
    filling->addf("Größe: 4 €\n\tthe rest");
    // More lists than are kept.
    for (int i = 0; i < 131; ++i) {
        crowded->addf("%d ", i);
        addBand(*crowded, 7, i);
    }
}

extern "C" __attribute__((noinline)) void standStill()
{
    asm volatile("" ::: "memory");
}

int main(int, char** argv)
{
    std::setlocale(LC_ALL, "C.UTF-8");
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    util::LimitedBuffer::setBufferingActive(true);
    fillRecorders();
    minusOneAndAHalf.initFromMs(-1500);
    feeding.start(-1, -1, -1);
    feeding.reached.wait();
    row.step();

    std::ofstream out(argv[1]);
    out << *util::gl_pTrenvikLimitedBuffer << "@@" << *unused << "@@" << *filling << "@@" << *crowded << std::flush;

    quorvil::sync::Guard guard(group, "Quorvil/Debuggee", 42);
    const quorvil::sync::Guard nested(group, "Quorvil/Debuggee", 43);
    guard.interrupt();
    standStill();
    quorvil::coredump::run(argv[2]);
    std::getchar(); // the end of the input
    // The feeder still runs.
    std::_Exit(0);
}
