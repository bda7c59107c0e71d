// A process for the debugger to look at: debuggee FOLDER DUMP
//
// It fills what the debugger is to show, writes what each recorder prints to FOLDER/<its name>, comes to `standStill`,
// leaves a core below /data/coreDumps/DUMP, and ends with its standard input.

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
#include <memory>
#include <ostream>
#include <string>

struct Band
{
    int page;
    int number;
};

/// Waits in its body from `start` on.
class Feeder : public util::Thread
{
public:
    explicit Feeder(const char* name)
        : Thread(name)
    {
    }

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
    std::string text = "[";
    for (size_t i = 0; i < sizeof(Band); ++i) {
        char digits[4];
        std::snprintf(digits, sizeof digits, "%02x ", static_cast<unsigned char>(bytes[i]));
        text += digits;
    }
    text.back() = ']';
    out << text << '\n';
}

auto newRecorder(size_t capacity)
{
    return std::make_shared<util::LimitedBuffer>(capacity, static_cast<int>(sizeof(Band)), formatBand);
}

void addBand(util::LimitedBuffer& recorder, int page, int number)
{
    const Band band{page, number};
    recorder.addStateValueList(reinterpret_cast<const char*>(&band), sizeof band);
}

std::shared_ptr<util::LimitedBuffer> unused = newRecorder(16);
std::shared_ptr<util::LimitedBuffer> filling = newRecorder(1000);
std::shared_ptr<util::LimitedBuffer> crowded = newRecorder(4000);
std::shared_ptr<util::LimitedBuffer> noRecorder;

util::TimeSpec minusOneAndAHalf;
tolmen::mystring label("Größe 4 €", true);
tolmen::mywstring wideLabel(L"Größe 4 €");
tolmen::mystring noText;
Feeder fresh("fresh");
Feeder feeding("feeding");
Feeder finished("finished");
util::CountingSemaphore pages(3);
quorvil::sync::LockGroup group;
sqlite3cpp::DbCon database(":memory:");
sqlite3cpp::PrepStat row(database, "select 1");

/// The process's own recorder: its text has wrapped in the middle of a line, and lists have gone with the text.
void fillWrapped()
{
    util::gl_pTrenvikLimitedBuffer = newRecorder(600);
    for (int i = 0; i < 50; ++i) {
        util::gl_pTrenvikLimitedBuffer->addf("page %d: of the job that is printed\n", i);
        if (i % 3 == 0)
            addBand(*util::gl_pTrenvikLimitedBuffer, i, -1);
    }
    // Two at one place, which is the place of the next byte of a full ring.
    addBand(*util::gl_pTrenvikLimitedBuffer, 50, 1);
    addBand(*util::gl_pTrenvikLimitedBuffer, 50, 2);
}

void fillOthers()
{
    addBand(*filling, 1, 1);
    filling->addf("Größe: 4 €\n\tthe rest");
    // More lists than are kept.
    for (int i = 0; i < 131; ++i) {
        crowded->addf("%d ", i);
        addBand(*crowded, 7, i);
    }
}

void printTo(const std::string& folder, const char* name, util::LimitedBuffer& recorder)
{
    std::ofstream out(folder + "/" + name);
    recorder.print(out);
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
    fillWrapped();
    fillOthers();
    minusOneAndAHalf.initFromMs(-1500);
    feeding.start(-1, -1, -1);
    feeding.reached.wait();
    finished.start(-1, -1, -1);
    finished.stop.post();
    finished.join();
    row.step();

    printTo(argv[1], "util::gl_pTrenvikLimitedBuffer", *util::gl_pTrenvikLimitedBuffer);
    printTo(argv[1], "unused", *unused);
    printTo(argv[1], "filling", *filling);
    printTo(argv[1], "crowded", *crowded);

    quorvil::sync::Guard guard(group, "Quorvil/Debuggee", 42);
    const quorvil::sync::Guard nested(group, "Quorvil/Debuggee", 43);
    guard.interrupt();
    standStill();
    quorvil::coredump::run(argv[2]);
    while (std::getchar() != EOF) {
    }
    // The feeder still runs.
    std::_Exit(0);
}
