// Drives.h: the drives of the printer, A: to Z:, and what jobs find on them

#ifndef LABELPRINTER_DRIVES_H
#define LABELPRINTER_DRIVES_H

#include "Quorvil/OvxFs.h"

#include <map>
#include <memory>
#include <string>

namespace labelPrinter {

/// The drives whose folders exist when this object is made. Any thread may ask.
class Drives
{
public:
    /// @param root  the folder that holds the drives' folders `A` to `Z`, in place of the system's fixed one; empty for
    ///              that one
    explicit Drives(const std::string& root);

    /// Whether a name begins with a drive's letter and a colon.
    static bool hasLetter(const std::string& name);

    /// The path of a file on a drive. A name without a letter is one of the standard drive, A; one without a slash in
    /// front counts from the drive's current folder.
    ///
    /// @return an absolute path without symbolic links
    /// @throws Failure  there is no such drive or file, it is no regular file, or the name leads out of the drive, by
    ///                  "..", or by a symbolic link
    std::string path(const std::string& name) const;

private:
    /// A drive and its folder here.
    struct Mounted
    {
        std::unique_ptr<ovxfs::Drive> drive;
        std::string folder;
    };

    std::map<char, Mounted> drives;
    mutable ovxfs::CurDrive standard;
};

} // namespace labelPrinter

#endif
