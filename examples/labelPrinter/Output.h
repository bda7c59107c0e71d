// Output.h: puts pages onto the disk and ends their jobs

#ifndef LABELPRINTER_OUTPUT_H
#define LABELPRINTER_OUTPUT_H

#include "Counters.h"
#include "PageFlow.h"
#include "ResultFiles.h"

#include "Quorvil/InitCondVar.h"
#include "Quorvil/QuorvilPthread.h"

#include <atomic>
#include <exception>
#include <optional>

namespace labelPrinter {

class JobStore;
class Notifier;
class StateFolder;
class Status;

/// A thread that writes the results of each page. With its last page a job's results get their places, all together,
/// and then the job is printed. A job whose results cannot be written is held: nothing of it stays, and it is printed
/// when there is room again.
class Output
{
public:
    /// @param flow, store, folder, status, times, gate, notifier  not owned, outlive this object
    Output(PageFlow& flow, JobStore& store, const StateFolder& folder, Status& status, TimeRecords& times,
           util::InitCondVar& gate, Notifier& notifier);
    ~Output();
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;

    /// Starts writing once the gate is open.
    void start();

    /// Writes what it was given and ends. Of a job that is not complete nothing stays. Nothing may be given to it any
    /// more.
    void stop();

    /// Whether this attempt to print a job has been given up. Any thread may ask.
    bool hasGivenUp(int run) const;

private:
    void run();
    void take(PageHandle page);
    void write(PageInFlight& page);
    void finishJob(const PageInFlight& page);
    void giveUp(PageInFlight& page, const std::exception& reason);

    PageFlow& flow;
    JobStore& store;
    const StateFolder& folder;
    Status& status;
    TimeRecords& times;
    util::InitCondVar& gate;
    Notifier& notifier;
    Counters counters;
    /// Of the job that is being written.
    std::optional<ResultFiles> results;
    int resultsRun = 0;
    std::atomic<int> givenUp{0};
    quorvil::Pthread thread;
    bool started = false;
};

} // namespace labelPrinter

#endif
