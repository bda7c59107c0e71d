// A small printer controller: it turns job files into pages. README.md shows it at work.

#include "CommandLine.h"
#include "Controller.h"
#include "Drives.h"
#include "Failure.h"
#include "Implemented.h"
#include "Interrupt.h"
#include "JobReader.h"
#include "PageTimes.h"
#include "PrintRun.h"
#include "SelfTest.h"
#include "Title.h"
#include "Trace.h"

#include "Quorvil/QuorvilInit.h"
#include "Quorvil/ThreadSafeStream.h"

#include <exception>
#include <iostream>
#include <new>
#include <optional>

namespace {

constexpr int exitFailed = 1;
constexpr int exitUsage = 2;

int failed(const char* why)
{
    safeCerr << "labelPrinter: " << labelPrinter::printable(why) << std::endl;
    labelPrinter::printTrace();
    return exitFailed;
}

void printJob(const labelPrinter::CommandLine& line)
{
    // First the recorder, then the records: their memory lock covers it.
    labelPrinter::startTrace();
    labelPrinter::PageTimes times(line.service.times);
    std::optional<labelPrinter::Drives> drives;
    if (!line.service.drives.empty())
        drives.emplace(line.service.drives);
    labelPrinter::print(line.job, line.out, drives ? &*drives : nullptr, times, line.manualFeed);
    times.close();
    // A failed output is about to be told, with the trace behind it.
    if (line.service.trace && std::cout)
        labelPrinter::printTrace();
}

void run(const labelPrinter::CommandLine& line)
{
    labelPrinter::useUtf8();
    if (line.help) {
        safeCout << labelPrinter::usage;
        return;
    }
    if (line.version) {
        labelPrinter::JobReader::noteWords();
        safeCout << "labelPrinter, with Quorvil " QUORVIL_VERSION "; words of a job: "
                 << labelPrinter::implementedWords() << std::endl;
        return;
    }
    if (line.selfTest) {
        labelPrinter::selfTest();
        return;
    }
    if (line.service.port != 0) {
        labelPrinter::serve(line.service);
        return;
    }
    labelPrinter::watchInterrupts();
    if (line.stored.empty())
        printJob(line);
    else
        labelPrinter::show(line.stored, line.out);
}

} // namespace

int main(int argc, char** argv)
{
    try {
        run(labelPrinter::parseCommandLine(argc, argv));
        std::cout.flush();
        return std::cout ? 0 : failed("the standard output cannot be written");
    } catch (const labelPrinter::WrongUsage& why) {
        safeCerr << "labelPrinter: " << why.what() << "\n" << labelPrinter::usage;
        return exitUsage;
    } catch (const labelPrinter::Failure& failure) {
        return failed(failure.what());
    } catch (const std::bad_alloc&) {
        return failed("not enough memory");
    } catch (const std::exception& exception) {
        return failed(exception.what());
    }
}
