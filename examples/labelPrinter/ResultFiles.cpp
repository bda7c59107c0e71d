#include "ResultFiles.h"

#include "Failure.h"
#include "Interrupt.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace labelPrinter {

namespace {

constexpr size_t bufferBytes = 65536;

int createNew(const std::string& path)
{
    return open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
}

/// Makes the renames in the target's folder outlive a loss of power.
void syncFolderOf(const std::string& target)
{
    const size_t slash = target.rfind('/');
    const std::string folder = slash == std::string::npos ? "." : target.substr(0, slash + 1);
    const int descriptor = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    // A folder that may be written but not read, or a file system that knows no fsync of folders (EINVAL): the
    // results stand in their places all the same.
    if (descriptor < 0)
        return;
    const int errorNumber = fsync(descriptor) == 0 ? 0 : errno;
    close(descriptor);
    if (errorNumber != 0 && errorNumber != EINVAL)
        throw systemFailure(folder, errorNumber);
}

} // namespace

ResultFile::ResultFile(const std::string& temporary, std::string target)
    : targetPath(std::move(target))
    , descriptor(createNew(temporary))
{
    if (descriptor < 0)
        throw systemFailure(targetPath, errno);
    buffer.reserve(bufferBytes);
}

ResultFile::~ResultFile()
{
    // Only a file that was given up is still open here.
    if (descriptor >= 0)
        close(descriptor);
}

void ResultFile::write(const void* bytes, size_t count)
{
    const auto* from = static_cast<const uint8_t*>(bytes);
    if (buffer.size() + count > bufferBytes)
        flush();
    buffer.insert(buffer.end(), from, from + count);
    if (buffer.size() >= bufferBytes)
        flush();
}

void ResultFile::write(std::string_view text)
{
    write(text.data(), text.size());
}

void ResultFile::writeUint8(uint8_t byte)
{
    if (buffer.size() >= bufferBytes)
        flush();
    buffer.push_back(byte);
}

void ResultFile::flush()
{
    stopIfInterrupted();
    for (size_t done = 0; done < buffer.size();) {
        const ssize_t written = ::write(descriptor, buffer.data() + done, buffer.size() - done);
        if (written < 0 && errno != EINTR)
            throw systemFailure(targetPath, errno);
        if (written > 0)
            done += static_cast<size_t>(written);
    }
    buffer.clear();
}

void ResultFile::reset()
{
    buffer.clear();
    if (ftruncate(descriptor, 0) != 0 || lseek(descriptor, 0, SEEK_SET) != 0)
        throw systemFailure(targetPath, errno);
}

void ResultFile::finish()
{
    flush();
    if (fsync(descriptor) != 0)
        throw systemFailure(targetPath, errno);
    if (close(std::exchange(descriptor, -1)) != 0)
        throw systemFailure(targetPath, errno);
}

ResultFiles::~ResultFiles()
{
    // What cannot be removed stays under its temporary name; the failure that led here is being told already.
    for (size_t i = kept; i < results.size(); ++i)
        unlink(results[i].temporary.c_str());
}

void ResultFiles::protect(const std::string& path)
{
    struct stat status = {};
    if (stat(path.c_str(), &status) == 0)
        protectedFiles.push_back({status.st_dev, status.st_ino, path});
}

void ResultFiles::checkPlace(const std::string& target) const
{
    struct stat status = {};
    if (stat(target.c_str(), &status) != 0)
        return;
    if (S_ISDIR(status.st_mode))
        throw systemFailure(target, EISDIR);
    for (const Identity& file : protectedFiles)
        if (file.device == status.st_dev && file.number == status.st_ino)
            throw Failure(target + ": would replace " + file.path + ", which the job is made of");
}

ResultFile ResultFiles::create(const std::string& target)
{
    checkPlace(target);
    const std::string temporary = target + ".tmp" + std::to_string(getpid());
    // A process that was killed may have left one; its number is ours now, so nobody is writing it.
    unlink(temporary.c_str());
    results.push_back({temporary, target});
    return ResultFile(temporary, target);
}

std::string ResultFiles::inPlace() const
{
    return kept == 0 ? ""
                     : "; " + std::to_string(kept) + " of " + std::to_string(results.size()) + " results are in place";
}

void ResultFiles::keep()
{
    stopIfInterrupted();
    for (; kept < results.size(); ++kept) {
        const Result& result = results[kept];
        if (std::rename(result.temporary.c_str(), result.target.c_str()) != 0)
            throw Failure(systemFailure(result.target, errno).what() + inPlace());
    }
    if (results.empty())
        return;
    try {
        syncFolderOf(results.back().target);
    } catch (const Failure& failure) {
        throw Failure(failure.what() + inPlace());
    }
}

} // namespace labelPrinter
