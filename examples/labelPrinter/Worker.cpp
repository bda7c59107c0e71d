#include "Worker.h"

#include "Composer.h"
#include "Failure.h"
#include "Interrupt.h"
#include "JobDesk.h"
#include "NamedThread.h"
#include "Notifier.h"
#include "Output.h"
#include "PageFlow.h"
#include "Progress.h"
#include "Status.h"

#include "Quorvil/ThreadSafeStream.h"

#include <exception>
#include <string>
#include <utility>

namespace labelPrinter {

Worker::Worker(JobStore& theStore, const Drives& theDrives, PageFlow& theFlow, const Output& theOutput,
               Status& theStatus, TimeRecords& theTimes, Notifier& theNotifier)
    : store(theStore)
    , drives(theDrives)
    , flow(theFlow)
    , output(theOutput)
    , status(theStatus)
    , times(theTimes)
    , notifier(theNotifier)
{
}

void Worker::event()
{
    nameThread("worker");
    while (!isInterrupted()) {
        const auto stored = store.take();
        if (!stored)
            return;
        print(*stored);
    }
}

void Worker::print(const StoredJob& stored)
{
    try {
        Job job = readJob(stored.text, stored.origin, drives);
        status.jobBegun(stored.id, job.title);
        compose(job, stored.id);
    } catch (const Failure& failure) {
        // Broken off, it is given back when all threads have ended.
        if (isInterrupted())
            return;
        const std::string why = printable(failure.what());
        if (failure.passes()) {
            hold(stored.id, why);
            return;
        }
        // It was right when it was accepted, and is not any more: its pictures have changed.
        store.finish(stored.id, "failed", why);
        status.jobFailed(stored.id);
        safeCerr << "labelPrinter: job " << stored.id << " failed: " << why << std::endl;
        notifier.jobLeft(stored.id, "failed");
    } catch (const std::exception& lackOfMemory) {
        hold(stored.id, lackOfMemory.what());
    }
}

void Worker::hold(int id, const std::string& why)
{
    if (store.hold(id, why))
        safeCerr << "labelPrinter: job " << id << " waits: " << why << std::endl;
}

void Worker::compose(Job& job, int id)
{
    Progress progress(job.pages, "job " + std::to_string(id) + ": ");
    Composer composer(job, progress);
    ++run;
    for (int number = 1; number <= job.pages; ++number) {
        PageHandle page = flow.take();
        if (output.hasGivenUp(run))
            return;
        page->job = id;
        page->run = run;
        page->number = number;
        page->pages = job.pages;
        page->dotsPerInch = job.dotsPerInch;
        page->title = job.title;
        page->times = times.tryGet();
        if (page->times)
            page->times->add("job " + std::to_string(id) + " page " + std::to_string(number));
        page->reach("begun");
        page->image = composer.compose(number);
        page->reach("composed");
        flow.toEngine().push(std::move(page));
        progress.pageDone(number);
    }
}

} // namespace labelPrinter
