// Spool.h: takes in jobs from a folder

#ifndef LABELPRINTER_SPOOL_H
#define LABELPRINTER_SPOOL_H

#include "Quorvil/PollingThread.h"

#include <ctime>
#include <map>
#include <string>
#include <sys/types.h>

namespace labelPrinter {

class JobDesk;

/// Looks into a folder for files NAME.label, in the order of their names. A file that has not changed since the last
/// look goes to the desk, and becomes NAME.accepted, or NAME.refused with the reason in NAME.reason. While the job
/// cannot be read or stored, its file stays.
///
/// A process that is killed between the two takes the file a second time: the job is printed twice, and not lost.
class Spool : public IPollingThreadHandler
{
public:
    /// How often to look.
    static constexpr int intervalMicroseconds = 250'000;

    /// @param desk  not owned, outlives this object
    Spool(std::string folder, JobDesk& desk);

    /// Looks once.
    void event() override;

private:
    /// What tells whether somebody still writes a file.
    struct Version
    {
        ino_t number;
        off_t size;
        time_t seconds;
        long nanoseconds;

        bool operator==(const Version&) const = default;
    };
    using Versions = std::map<std::string, Version>;

    Versions look();
    void take(const std::string& name);
    void writeReason(const std::string& path, const std::string& reason);
    void settle(const std::string& name, const std::string& ending);
    void tell(const std::string& trouble);

    std::string folder;
    JobDesk& desk;
    Versions seen;
    /// Taken, but not renamed: they are not taken again as long as they stay as they are.
    Versions settled;
    /// What was told last, so that no line comes twice in a row.
    std::string told;
};

} // namespace labelPrinter

#endif
