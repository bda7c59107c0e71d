#include "Quorvil/OvxFs.h"

#include "Quorvil/QuorvilGlobalsIntern.h"

namespace ovxfs {

Drive::~Drive() = default;

bool Drive::operator<(const Drive& other) const
{
    return static_cast<unsigned char>(getLetter()) < static_cast<unsigned char>(other.getLetter());
}

DriveVm::DriveVm() = default;
DriveVm::~DriveVm() = default;

void DriveVm::init(char letter_, Type type_, Status status_, const std::string& volumeName_, int useFlags_)
{
    letter = letter_;
    type = type_;
    status = status_;
    volumeName = volumeName_;
    useFlags = useFlags_;
}

char DriveVm::getLetter() const
{
    return letter;
}

Drive::Type DriveVm::getType() const
{
    return type;
}

Drive::Status DriveVm::getStatus() const
{
    return status;
}

const std::string& DriveVm::getVolumeName() const
{
    return volumeName;
}

const std::string& DriveVm::getRootPath() const
{
    return quorvil::intern::drivePathManager().path(letter);
}

int DriveVm::getUseFlags() const
{
    return useFlags;
}

bool DriveVm::isMounted() const
{
    return true;
}

bool DriveVm::isFormatted() const
{
    return true;
}

void DriveVm::getCurDir(std::string& dir)
{
    const std::lock_guard lock(curDirMutex);
    dir = curDir;
}

void DriveVm::setCurDir(const std::string& dir)
{
    const std::lock_guard lock(curDirMutex);
    curDir = dir;
}

CurDrive::CurDrive() = default;
CurDrive::~CurDrive() = default;

void CurDrive::setStdDrive(char letter)
{
    const std::lock_guard lock(mutex);
    stdDrive = letter;
}

char CurDrive::getStdDrive()
{
    const std::lock_guard lock(mutex);
    return stdDrive;
}

OVXFSFactory::~OVXFSFactory() = default;

OVXFSFactoryVm::OVXFSFactoryVm() = default;
OVXFSFactoryVm::~OVXFSFactoryVm() = default;

Drive* OVXFSFactoryVm::drive()
{
    return new DriveVm;
}

} // namespace ovxfs

namespace ovxfsvm {

DrivePathManager::DrivePathManager()
    : drivesRoot("/home/user/simulatedPrinter/drives/")
{
    for (char letter = 'A'; letter <= 'Z'; ++letter)
        paths[letter] = drivesRoot + letter + "/";
}

const std::string& DrivePathManager::path(char letter) const
{
    return paths.at(letter);
}

} // namespace ovxfsvm
