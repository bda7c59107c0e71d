// ResultFiles.h: results that appear whole or not at all

#ifndef LABELPRINTER_RESULTFILES_H
#define LABELPRINTER_RESULTFILES_H

#include "Quorvil/QuorvilBitStream.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace labelPrinter {

/// A file that is being written under a temporary name. It is a byte stream, so that a bit stream can stand on it.
class ResultFile : public IByteOutputStream
{
public:
    /// Creates the file, which must not exist.
    ///
    /// @param target  the name it gets in the end, for messages
    /// @throws Failure  it cannot be created
    ResultFile(const std::string& temporary, std::string target);
    ~ResultFile() override;
    ResultFile(const ResultFile&) = delete;
    ResultFile& operator=(const ResultFile&) = delete;

    /// Appends bytes.
    ///
    /// @throws Failure  they cannot be written
    void write(const void* bytes, size_t count);
    void write(std::string_view text);
    void writeUint8(uint8_t byte) override;

    /// Hands what is collected to the system.
    ///
    /// @throws Failure  it cannot be written, or the user breaks off
    void flush() override;

    /// Makes the file empty again.
    void reset() override;

    /// Brings everything onto the disk (`fsync`) and closes the file. What is not finished is given up.
    ///
    /// @throws Failure  that did not work
    void finish();

private:
    std::string targetPath;
    int descriptor;
    std::vector<uint8_t> buffer;
};

/// The results of one job. Each is written beside its place under a temporary name; when all are whole, all are
/// renamed. Until then nothing in the folder has changed, and whatever fails before, the destructor leaves no trace.
class ResultFiles
{
public:
    ResultFiles() = default;
    ~ResultFiles();
    ResultFiles(const ResultFiles&) = delete;
    ResultFiles& operator=(const ResultFiles&) = delete;

    /// Names a file that no result may replace, such as a picture of the job.
    void protect(const std::string& path);

    /// Begins a result. The returned file has to be finished before the next one.
    ///
    /// @param target  its place; what stands there is replaced in the end
    /// @throws Failure  it cannot be created, or `target` is a folder or protected
    ResultFile create(const std::string& target);

    /// Puts all results in their places (`rename`, then `fsync` of the folder).
    ///
    /// @throws Failure  the user broke off, or the first cannot be renamed: the folder is as it was; a later one cannot
    ///                  be renamed, or the folder cannot be brought onto the disk: those that could be renamed stand
    ///                  in their places, whole, and the text says how many
    void keep();

private:
    struct Result
    {
        std::string temporary;
        std::string target;
    };
    struct Identity
    {
        unsigned long long device;
        unsigned long long number;
        std::string path;
    };

    void checkPlace(const std::string& target) const;
    std::string inPlace() const;

    std::vector<Result> results;
    std::vector<Identity> protectedFiles;
    size_t kept = 0;
};

} // namespace labelPrinter

#endif
