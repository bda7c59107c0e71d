// JobStore.h: the job database

#ifndef LABELPRINTER_JOBSTORE_H
#define LABELPRINTER_JOBSTORE_H

#include "Quorvil/QuorvilCapacityControl.h"
#include "Quorvil/WaitCond.h"
#include "Quorvil/sqlite3cpp.h"

#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>

namespace labelPrinter {

/// A job as the database keeps it.
struct StoredJob
{
    int id;
    std::string text;
    /// The path of its file, or a word without a slash for a job from the network.
    std::string origin;
};

/// Keeps every job with its state, on the disk before anybody is told. Any thread may call.
///
/// | State      | `add`      | `take`     | `finish`              | `hold`     | the process ends, killed or not |
/// |------------|------------|------------|-----------------------|------------|---------------------------------|
/// | none       | `accepted` | -          | -                     | -          | none                            |
/// | `accepted` | -          | `printing` | -                     | -          | `accepted`                      |
/// | `printing` | -          | -          | `printed` or `failed` | `accepted` | `accepted`                      |
/// | `printed`  | -          | -          | -                     | -          | `printed`                       |
/// | `failed`   | -          | -          | -                     | -          | `failed`                        |
///
/// A state that cannot be written, on a full disk or in a locked database, is kept in memory and written later. Should
/// the process end before, the job is printed once more.
class JobStore
{
public:
    /// Opens the database or makes it. Jobs that were being printed are accepted again.
    ///
    /// @throws Failure  it cannot be opened, or holds something else
    explicit JobStore(const std::string& path);
    JobStore(const JobStore&) = delete;
    JobStore& operator=(const JobStore&) = delete;

    /// Stores a job. It is on the disk when the call returns.
    ///
    /// @return its number, from 1
    /// @throws Failure  that passes: too many jobs are waiting, or the database cannot be written; it is not accepted
    int add(const std::string& text, const std::string& origin);

    /// Takes the oldest job that waits and is not held.
    ///
    /// @return nothing where there is none, or the database cannot be read
    std::optional<StoredJob> take();

    /// Ends a job that was taken.
    ///
    /// @param state    `printed` or `failed`
    /// @param message  why it failed
    void finish(int id, const std::string& state, const std::string& message);

    /// Gives a job back that cannot be printed now, until `releaseHeld`.
    ///
    /// @param message  why
    /// @return whether the job was held for another reason before, or for none
    bool hold(int id, const std::string& message);

    /// Lets held jobs be taken again, and writes states that could not be written.
    void releaseHeld();

    /// Gives back every job that was taken: nobody prints any more.
    void giveBackAll();

private:
    struct Hold
    {
        std::string message;
        bool released;
    };
    struct End
    {
        std::string state;
        std::string message;
    };

    int readNumber(const std::string& query);
    int nextToPrint();
    bool save(int id, const End& end);
    void saveUnsaved();
    void jobLeaves();

    util::RecursiveMutex mutex;
    sqlite3cpp::DbCon database;
    std::shared_ptr<quorvil::CapacityControl> waiting;
    int lastId;
    /// Taken and not ended.
    std::set<int> inWork;
    std::map<int, Hold> held;
    /// Ended, and the database says something else.
    std::map<int, End> unsaved;
};

} // namespace labelPrinter

#endif
