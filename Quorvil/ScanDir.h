// ScanDir.h: the entries of one directory, one a call
// System interfaces, on nothing

#ifndef QUORVIL_SCANDIR_H
#define QUORVIL_SCANDIR_H

#include "Quorvil/QuorvilExport.h"

#include <memory>
#include <string>

namespace util {

/// Walks the entries of one directory, in the system's order, with "." and ".." among them:
///
///     util::ScanDir scan("/data/jobs");
///     while (scan.next())
///         std::cout << scan.getLongName() << '\n';
///
/// | State      | `next`                                 | `getLongName`     | `isOpen` |
/// |------------|----------------------------------------|-------------------|----------|
/// | before     | the first entry, or the end            | empty             | true     |
/// | on entry   | the next entry, or the end             | its name          | true     |
/// | at the end | false, unless the directory yields more| empty             | true     |
/// | not opened | false                                  | empty             | false    |
///
/// A path that cannot be opened is ordinary input: the scan is empty, and `isOpen` tells. An error of `readdir` reads
/// like the end. An object belongs to one thread at a time; objects on the same directory do not disturb each other.
class QUORVIL_API ScanDir
{
public:
    /// Opens the directory (`opendir`, close-on-exec).
    ///
    /// @threads any   @realtime I/O
    explicit ScanDir(const std::string& path);

    /// Closes the directory (`closedir`).
    ///
    /// @threads owner   @realtime I/O
    virtual ~ScanDir();

    ScanDir(const ScanDir&) = delete;
    ScanDir& operator=(const ScanDir&) = delete;

    /// Moves to the next entry (`readdir`).
    ///
    /// @return whether there is one
    /// @threads owner   @realtime I/O
    bool next();

    /// The name of the current entry, without any path.
    ///
    /// @return a reference that holds as long as the object; `next` changes what it shows
    /// @threads owner   @realtime bounded
    const std::string& getLongName();

    /// Whether the directory could be opened. The constructor leaves the reason of a failure in `errno`.
    ///
    /// @threads owner   @realtime bounded
    bool isOpen() const;

private:
    struct Record;

    std::unique_ptr<Record> record;
};

} // namespace util

#endif
