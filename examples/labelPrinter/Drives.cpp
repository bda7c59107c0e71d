#include "Drives.h"

#include "Failure.h"

#include "Quorvil/QuorvilRemovePathDots.h"

#include <cerrno>
#include <cstdlib>
#include <optional>
#include <sys/stat.h>

namespace labelPrinter {

namespace {

/// The path without symbolic links, or nothing, with the reason in `errno`.
std::optional<std::string> realPath(const std::string& path)
{
    const std::unique_ptr<char, decltype(&std::free)> found(realpath(path.c_str(), nullptr), &std::free);
    return found ? std::optional<std::string>(found.get()) : std::nullopt;
}

bool isKind(const std::string& path, mode_t kind)
{
    struct stat status = {};
    return stat(path.c_str(), &status) == 0 && (status.st_mode & S_IFMT) == kind;
}

/// The drive's folder below another root: its last part, which is its letter.
std::string below(const std::string& root, const std::string& folder)
{
    const size_t end = folder.find_last_not_of('/');
    const size_t slash = folder.rfind('/', end);
    return root + folder.substr(slash, end + 1 - slash);
}

} // namespace

Drives::Drives(const std::string& root)
{
    for (char letter = 'A'; letter <= 'Z'; ++letter) {
        std::unique_ptr<ovxfs::Drive> drive(ovxfs::OVXFSFactory::I->drive());
        drive->init(letter, ovxfs::Drive::hardDisk, ovxfs::Drive::ready, std::string("DRIVE_") + letter, 0);
        const std::string& fixed = drive->getRootPath();
        const auto folder = realPath(root.empty() ? fixed : below(root, fixed));
        if (folder && isKind(*folder, S_IFDIR) && drive->isMounted() && drive->isFormatted())
            drives[letter] = {std::move(drive), *folder};
    }
}

bool Drives::hasLetter(const std::string& name)
{
    return name.size() > 1 && name[1] == ':' &&
           ((name[0] >= 'A' && name[0] <= 'Z') || (name[0] >= 'a' && name[0] <= 'z'));
}

std::string Drives::path(const std::string& name) const
{
    const char letter = hasLetter(name) ? static_cast<char>(name[0] & ~0x20) : standard.getStdDrive();
    const auto mounted = drives.find(letter);
    if (mounted == drives.end())
        throw Failure(name + ": there is no drive " + letter);
    std::string onDrive = hasLetter(name) ? name.substr(2) : name;
    if (!onDrive.starts_with('/')) {
        std::string current;
        mounted->second.drive->getCurDir(current);
        onDrive = current + "/" + onDrive;
    }
    const Failure leadsOut(name + ": leads out of drive " + letter);
    if (!quorvilRemovePathDots::removePathDots(onDrive))
        throw leadsOut;
    const std::string& folder = mounted->second.folder;
    const auto found = realPath(folder + onDrive);
    if (!found)
        throw systemFailure(name, errno);
    if (*found != folder && !found->starts_with(folder == "/" ? folder : folder + "/"))
        throw leadsOut;
    if (!isKind(*found, S_IFREG))
        throw Failure(name + ": is no regular file");
    return *found;
}

} // namespace labelPrinter
