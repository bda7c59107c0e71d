// PicturePlaces.h: where the pictures of a job are looked up

#ifndef LABELPRINTER_PICTUREPLACES_H
#define LABELPRINTER_PICTUREPLACES_H

#include <string>

namespace labelPrinter {

class Drives;

/// Turns the name of a picture in a job into the path of its file.
///
/// | Name           | job from a file                | the same, without drives | job from the network |
/// |----------------|--------------------------------|--------------------------|-----------------------------------------|
/// | `B:/logo.pbm`  | on drive B                     | beside the job           | on drive B | | `logo.pbm`     |
/// beside the job                 | beside the job           | on the standard drive                   | | `/logo.pbm`
/// | from the root of the system    | the same                 | the same as `logo.pbm`                  |
class PicturePlaces
{
public:
    /// For a job from a file.
    ///
    /// @param drives  not owned, outlives this object; without them letters mean nothing
    static PicturePlaces besideFile(const std::string& path, const Drives* drives);

    /// For a job that has no folder of its own: it reaches drives and nothing else.
    ///
    /// @param drives  not owned, outlives this object
    static PicturePlaces onDrives(const Drives& drives);

    /// The path of the file that a job names.
    ///
    /// @throws Failure  the name is empty, or the drive does not hold it
    std::string path(const std::string& name) const;

private:
    PicturePlaces(const Drives* drives, bool drivesOnly, std::string folder);

    const Drives* drives;
    bool drivesOnly;
    /// The job's, with a closing slash; empty for the working directory.
    std::string folder;
};

} // namespace labelPrinter

#endif
