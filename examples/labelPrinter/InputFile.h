// InputFile.h: a file read byte by byte, also from under a bit stream

#ifndef LABELPRINTER_INPUTFILE_H
#define LABELPRINTER_INPUTFILE_H

#include "Quorvil/QuorvilBitStream.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace labelPrinter {

/// An open file with a buffer. The library's byte stream in memory gives zeros behind its end, for ever; this one
/// throws there, so that nobody decodes what the file does not hold.
class InputFile : public IByteInputStream
{
public:
    /// Opens the file for reading.
    ///
    /// @throws Failure  it cannot be opened
    explicit InputFile(std::string path);
    ~InputFile() override;
    InputFile(const InputFile&) = delete;
    InputFile& operator=(const InputFile&) = delete;

    /// The next byte, or -1 behind the last one.
    ///
    /// @throws Failure  the file cannot be read
    int next();

    /// The next byte.
    ///
    /// @throws Failure  the file ends here, or cannot be read
    uint8_t readUint8() override;

    const std::string& path() const;

private:
    std::string filePath;
    int descriptor;
    std::vector<uint8_t> buffer;
    size_t position = 0;
};

} // namespace labelPrinter

#endif
