#include "Output.h"

#include "Failure.h"
#include "Interrupt.h"
#include "JobStore.h"
#include "NamedThread.h"
#include "Notifier.h"
#include "PageResults.h"
#include "StateFolder.h"
#include "Status.h"
#include "Title.h"

#include "Quorvil/ThreadSafeStream.h"

#include <string>
#include <utility>

namespace labelPrinter {

Output::Output(PageFlow& theFlow, JobStore& theStore, const StateFolder& theFolder, Status& theStatus,
               TimeRecords& theTimes, util::InitCondVar& theGate, Notifier& theNotifier)
    : flow(theFlow)
    , store(theStore)
    , folder(theFolder)
    , status(theStatus)
    , times(theTimes)
    , gate(theGate)
    , notifier(theNotifier)
    , counters(folder.counters())
{
}

Output::~Output()
{
    stop();
}

void Output::start()
{
    started = true;
    thread = startThread("output", [this] { run(); });
}

void Output::stop()
{
    flow.toOutput().close();
    if (std::exchange(started, false))
        thread.join();
}

bool Output::hasGivenUp(int run) const
{
    return givenUp == run;
}

void Output::run()
{
    gate.waitUntilInitialized("labelPrinter: the output");
    try {
        for (;;)
            take(flow.toOutput().pop());
    } catch (const quorvil::BlockingQueueClosedException&) {
        results.reset();
    }
}

void Output::take(PageHandle page)
{
    if (!hasGivenUp(page->run)) {
        try {
            write(*page);
        } catch (const std::exception& reason) {
            giveUp(*page, reason);
        }
    }
    times.print(std::move(page->times));
}

void Output::write(PageInFlight& page)
{
    if (page.run != resultsRun) {
        // Of an attempt that the worker has broken off, nothing stays.
        results.emplace();
        resultsRun = page.run;
        counters.dropPages();
    }
    const PageResults ofPage(*results, resultName(folder.results(page.job), page.number, page.pages),
                             [&page](const std::string& station) { page.reach(station); });
    const PageContent content{page.image, page.dotsPerInch, page.title};
    ofPage.writePbm(content);
    ofPage.writePng(content);
    ofPage.writeRunLengths(content);
    counters.countPage(static_cast<unsigned>(page.image.height()), page.dots);
    if (page.number == page.pages)
        finishJob(page);
}

void Output::finishJob(const PageInFlight& page)
{
    const std::string title = onDisplay(page.title);
    const std::string line = "job " + std::to_string(page.job) + (title.empty() ? "" : " '" + title + "'") +
                             " printed: " + folder.results(page.job) + (page.pages == 1 ? "" : "-0001 and so on") +
                             " (.pbm .png .qrl), " + std::to_string(page.pages) +
                             (page.pages == 1 ? " page" : " pages");
    results->keep();
    results.reset();
    // From here on the job is printed; were the process killed before this is stored, it would be printed again.
    try {
        store.finish(page.job, "printed", "");
        status.jobPrinted(page.job, page.pages);
        counters.countJob();
        safeCout << line << std::endl;
        notifier.jobLeft(page.job, "printed");
    } catch (const std::exception& lackOfMemory) {
        // Not for our caller: a job that has been printed is not given up.
        safeCerr << "labelPrinter: job " << page.job << " is printed, but: " << lackOfMemory.what() << std::endl;
    }
}

void Output::giveUp(PageInFlight& page, const std::exception& reason)
{
    page.reach("broken off");
    results.reset();
    givenUp = page.run;
    // The user breaks off: the job stays as it is, in work, and is given back when all threads have ended.
    if (isInterrupted())
        return;
    const std::string why = printable(reason.what());
    if (store.hold(page.job, why))
        safeCerr << "labelPrinter: job " << page.job << " waits: " << why << std::endl;
}

} // namespace labelPrinter
