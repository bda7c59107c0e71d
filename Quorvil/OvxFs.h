// OvxFs.h: drive letters, and the folders of the simulated printer that stand for them
// System interfaces, on Foundation

#ifndef QUORVIL_OVXFS_H
#define QUORVIL_OVXFS_H

#include "Quorvil/QuorvilExport.h"

#include <map>
#include <mutex>
#include <string>

namespace ovxfs {

/// One drive of the printer, which software names by its letter. Drives sort by letter.
class QUORVIL_API Drive
{
public:
    /// What a drive is; stored and returned, never interpreted.
    enum Type : int
    {
        typeUnknown,
        hardDisk,
        ramDisk,
        usbStick,
        memoryCard,
        network,
    };

    /// How a drive is; stored and returned, never interpreted.
    enum Status : int
    {
        statusUnknown,
        ready,
        readOnly,
        failed,
    };

    /// Ends the drive; its folder stays.
    ///
    /// @threads owner   @realtime allocates
    virtual ~Drive();

    Drive(const Drive&) = delete;
    Drive& operator=(const Drive&) = delete;

    /// Gives the drive its identity, before threads share it. A further call overwrites; the current directory stays.
    ///
    /// @param letter      'A' to 'Z'
    /// @param type        what it is, any value
    /// @param status      how it is, any value
    /// @param volumeName  any text
    /// @param useFlags    bits of the caller's own meaning
    /// @threads owner   @realtime allocates
    virtual void init(char letter, Type type, Status status, const std::string& volumeName, int useFlags) = 0;

    /// What `init` was given; 0 before.
    ///
    /// @threads any   @realtime bounded
    virtual char getLetter() const = 0;

    /// What `init` was given; 0 before.
    ///
    /// @threads any   @realtime bounded
    virtual Type getType() const = 0;

    /// What `init` was given; 0 before.
    ///
    /// @threads any   @realtime bounded
    virtual Status getStatus() const = 0;

    /// What `init` was given; empty before.
    ///
    /// @return a reference that holds as long as the object; `init` changes what it shows
    /// @threads any   @realtime bounded
    virtual const std::string& getVolumeName() const = 0;

    /// The folder that the drive stands for, with a closing slash.
    ///
    /// @return a reference that holds to the end of the process
    /// @throws std::out_of_range  the letter is none of 'A' to 'Z', as before `init`
    /// @threads any   @realtime bounded
    virtual const std::string& getRootPath() const = 0;

    /// What `init` was given; 0 before.
    ///
    /// @threads any   @realtime bounded
    virtual int getUseFlags() const = 0;

    /// Whether the drive can be reached.
    ///
    /// @threads any   @realtime bounded
    virtual bool isMounted() const = 0;

    /// Whether the drive holds a file system.
    ///
    /// @threads any   @realtime bounded
    virtual bool isFormatted() const = 0;

    /// Copies the drive's current directory into `dir`, in place of what stood there; it is empty at first.
    ///
    /// @throws std::system_error  the lock cannot be taken
    /// @threads any   @realtime allocates
    virtual void getCurDir(std::string& dir) = 0;

    /// Makes `dir` the drive's current directory. Nothing is looked up.
    ///
    /// @throws std::system_error  the lock cannot be taken
    /// @threads any   @realtime allocates
    virtual void setCurDir(const std::string& dir) = 0;

    /// Whether this drive's letter comes first, letters taken as unsigned bytes.
    ///
    /// @threads any   @realtime bounded
    bool operator<(const Drive& other) const;

protected:
    Drive() = default;
};

/// A drive of the simulated printer. It is always mounted and formatted; its root folder follows from its letter, and
/// whether that folder exists is not looked at. Only the current directory has a lock: `init` has to come before
/// threads share the object.
class QUORVIL_API DriveVm : public Drive
{
public:
    /// A drive without a letter; all values are 0 or empty until `init`.
    ///
    /// @threads any   @realtime bounded
    DriveVm();

    /// Ends the drive; its folder stays.
    ///
    /// @threads owner   @realtime allocates
    ~DriveVm() override;

    void init(char letter, Type type, Status status, const std::string& volumeName, int useFlags) override;
    char getLetter() const override;
    Type getType() const override;
    Status getStatus() const override;
    const std::string& getVolumeName() const override;
    const std::string& getRootPath() const override;
    int getUseFlags() const override;
    bool isMounted() const override;
    bool isFormatted() const override;
    void getCurDir(std::string& dir) override;
    void setCurDir(const std::string& dir) override;

private:
    char letter = 0;
    Type type = typeUnknown;
    Status status = statusUnknown;
    std::string volumeName;
    int useFlags = 0;
    std::string curDir;
    std::mutex curDirMutex;
};

/// The letter of the standard drive, shared by threads.
class QUORVIL_API CurDrive
{
public:
    /// The standard drive is 'A'.
    ///
    /// @threads any   @realtime bounded
    CurDrive();

    /// Ends the lock.
    ///
    /// @threads owner   @realtime allocates
    virtual ~CurDrive();

    CurDrive(const CurDrive&) = delete;
    CurDrive& operator=(const CurDrive&) = delete;

    /// Makes `letter` the standard drive; any value is taken.
    ///
    /// @throws std::system_error  the lock cannot be taken
    /// @threads any   @realtime bounded
    void setStdDrive(char letter);

    /// The letter that was set last.
    ///
    /// @throws std::system_error  the lock cannot be taken
    /// @threads any   @realtime bounded
    char getStdDrive();

private:
    std::mutex mutex;
    char stdDrive = 'A';
};

/// Makes drives. `OVXFSFactory::I->drive()` is the way to one.
class QUORVIL_API OVXFSFactory
{
public:
    /// Ends the factory; its drives stay.
    ///
    /// @threads owner   @realtime allocates
    virtual ~OVXFSFactory();

    OVXFSFactory(const OVXFSFactory&) = delete;
    OVXFSFactory& operator=(const OVXFSFactory&) = delete;

    /// A new drive without a letter, independent of all others.
    ///
    /// @return the drive, which the caller owns and deletes
    /// @threads any   @realtime allocates
    virtual Drive* drive() = 0;

    /// The one factory of the process: it stands from load to the end and is never deleted.
    static OVXFSFactory* I;

protected:
    OVXFSFactory() = default;
};

/// Makes drives of the simulated printer.
class QUORVIL_API OVXFSFactoryVm : public OVXFSFactory
{
public:
    /// A factory, which keeps nothing.
    ///
    /// @threads any   @realtime allocates
    OVXFSFactoryVm();

    /// Ends the factory; its drives stay.
    ///
    /// @threads owner   @realtime allocates
    ~OVXFSFactoryVm() override;

    Drive* drive() override;
};

} // namespace ovxfs

namespace ovxfsvm {

/// The folders of the simulated printer's drives, one for each letter. It does not change once it is made, so that all
/// threads may read it without a lock.
class QUORVIL_API DrivePathManager
{
public:
    /// Names "/home/user/simulatedPrinter/drives/A/" and so on to 'Z'. No folder is made.
    ///
    /// @threads any   @realtime allocates
    DrivePathManager();

    DrivePathManager(const DrivePathManager&) = delete;
    DrivePathManager& operator=(const DrivePathManager&) = delete;

    /// The folder of `letter`, with a closing slash.
    ///
    /// @param letter  'A' to 'Z'; lower case is the caller's to convert
    /// @return a reference that holds as long as the object
    /// @throws std::out_of_range  there is no such letter
    /// @threads any   @realtime bounded
    const std::string& path(char letter) const;

private:
    std::string drivesRoot;
    std::map<char, std::string> paths;
};

} // namespace ovxfsvm

#endif
