// JobDesk.h: where jobs are accepted or refused

#ifndef LABELPRINTER_JOBDESK_H
#define LABELPRINTER_JOBDESK_H

#include "Job.h"

#include <cstddef>
#include <mutex>
#include <string>

class WaitThread;

namespace labelPrinter {

class Drives;
class JobStore;
class Status;

/// The longest job, in bytes.
constexpr size_t longestJob = size_t{1} << 20;

/// The origin of a job that came over the network.
constexpr const char* fromNetwork = "job";

/// Reads a job from its text.
///
/// @param origin  the path of its file, which its pictures lie beside; `fromNetwork` for a job that reaches drives only
/// @throws Failure  with the origin and the line
Job readJob(const std::string& text, const std::string& origin, const Drives& drives);

/// Takes jobs in from wherever they come. Any thread may call.
class JobDesk
{
public:
    /// @param drives, store, status, worker  not owned, outlive this object
    JobDesk(const Drives& drives, JobStore& store, Status& status, WaitThread& worker);
    JobDesk(const JobDesk&) = delete;
    JobDesk& operator=(const JobDesk&) = delete;

    /// Checks a job and its pictures, stores it, and tells the worker of it. When the call returns, the job is on the
    /// disk and will be printed.
    ///
    /// @param origin  as for `readJob`
    /// @return the job's number
    /// @throws Failure  the job is refused, with the reason; one that passes: it cannot be read or stored now
    int accept(const std::string& text, const std::string& origin);

private:
    const Drives& drives;
    JobStore& store;
    Status& status;
    WaitThread& worker;
    /// One job is checked at a time: its pictures may take 256 MB.
    std::mutex checking;
};

} // namespace labelPrinter

#endif
