#include "JobDesk.h"

#include "Failure.h"
#include "JobReader.h"
#include "JobStore.h"
#include "Status.h"

#include "Quorvil/WaitThread.h"

namespace labelPrinter {

Job readJob(const std::string& text, const std::string& origin, const Drives& drives)
{
    const PicturePlaces places =
        origin == fromNetwork ? PicturePlaces::onDrives(drives) : PicturePlaces::besideFile(origin, &drives);
    return JobReader(origin, places).read(text);
}

JobDesk::JobDesk(const Drives& theDrives, JobStore& theStore, Status& theStatus, WaitThread& theWorker)
    : drives(theDrives)
    , store(theStore)
    , status(theStatus)
    , worker(theWorker)
{
}

int JobDesk::accept(const std::string& text, const std::string& origin)
{
    if (text.size() > longestJob)
        throw Failure("the job is longer than " + std::to_string(longestJob) + " bytes");
    {
        const std::lock_guard lock(checking);
        readJob(text, origin, drives);
    }
    const int id = store.add(text, origin);
    status.jobAccepted();
    worker.notify();
    return id;
}

} // namespace labelPrinter
