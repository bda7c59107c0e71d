// Worker.h: takes jobs from the database and composes their pages

#ifndef LABELPRINTER_WORKER_H
#define LABELPRINTER_WORKER_H

#include "Job.h"
#include "JobStore.h"

#include "Quorvil/WaitThread.h"

#include <string>

namespace labelPrinter {

class Drives;
class Notifier;
class Output;
class PageFlow;
class Status;
class TimeRecords;

/// What the worker thread does when it is told of jobs: all that wait, one after the other. The pages go to the engine;
/// the worker waits where too many are under way.
class Worker : public IWaitThreadHandler
{
public:
    /// @param store, drives, flow, output, status, times, notifier  not owned, outlive this object
    Worker(JobStore& store, const Drives& drives, PageFlow& flow, const Output& output, Status& status,
           TimeRecords& times, Notifier& notifier);

    void event() override;

private:
    void print(const StoredJob& stored);
    void hold(int id, const std::string& why);
    void compose(Job& job, int id);

    JobStore& store;
    const Drives& drives;
    PageFlow& flow;
    const Output& output;
    Status& status;
    TimeRecords& times;
    Notifier& notifier;
    int run = 0;
};

} // namespace labelPrinter

#endif
