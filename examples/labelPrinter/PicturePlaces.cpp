#include "PicturePlaces.h"

#include "Drives.h"
#include "Failure.h"

#include <utility>

namespace labelPrinter {

PicturePlaces::PicturePlaces(const Drives* theDrives, bool onlyDrives, std::string theFolder)
    : drives(theDrives)
    , drivesOnly(onlyDrives)
    , folder(std::move(theFolder))
{
}

PicturePlaces PicturePlaces::besideFile(const std::string& path, const Drives* drives)
{
    const size_t slash = path.rfind('/');
    return {drives, false, slash == std::string::npos ? "" : path.substr(0, slash + 1)};
}

PicturePlaces PicturePlaces::onDrives(const Drives& drives)
{
    return {&drives, true, ""};
}

std::string PicturePlaces::path(const std::string& name) const
{
    if (name.empty())
        throw Failure("the picture's name is empty");
    if (drivesOnly || (drives != nullptr && Drives::hasLetter(name)))
        return drives->path(name);
    return name.starts_with('/') ? name : folder + name;
}

} // namespace labelPrinter
