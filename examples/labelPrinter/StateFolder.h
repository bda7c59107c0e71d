// StateFolder.h: the folder that a printer keeps its jobs, results and counters in

#ifndef LABELPRINTER_STATEFOLDER_H
#define LABELPRINTER_STATEFOLDER_H

#include <string>

namespace labelPrinter {

/// The folder of one running printer, which is the only one that uses it as long as this object lives. What a killed
/// one has left half done is removed.
///
/// | Name | What it is |
/// |---|---|
/// | `jobs.db` | the job database |
/// | `out/job-N.KIND` | the results of job N |
/// | `spool/` | job files to be printed, unless another folder is told |
/// | `counters` | what the printer has done so far |
/// | `lock` | locked while a printer runs; it holds the printer's process number |
class StateFolder
{
public:
    /// Makes the folder where there is none; its parent must be there.
    ///
    /// @throws Failure  it cannot be made or used, or another printer uses it
    explicit StateFolder(const std::string& path);
    ~StateFolder();
    StateFolder(const StateFolder&) = delete;
    StateFolder& operator=(const StateFolder&) = delete;

    /// Where things are, as absolute paths.
    std::string database() const;
    std::string spool() const;
    std::string counters() const;

    /// The name of a job's results, without page and kind.
    std::string results(int job) const;

private:
    void removeLeftOvers() const;

    std::string path;
    int lock = -1;
};

/// Makes a folder where there is none.
///
/// @return its absolute path
/// @throws Failure  there is none and it cannot be made
std::string makeFolder(const std::string& path);

} // namespace labelPrinter

#endif
