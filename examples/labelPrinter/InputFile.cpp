#include "InputFile.h"

#include "Failure.h"
#include "Interrupt.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>
#include <utility>

namespace labelPrinter {

namespace {

constexpr size_t bufferBytes = 65536;

} // namespace

InputFile::InputFile(std::string path)
    : filePath(std::move(path))
    , descriptor(open(filePath.c_str(), O_RDONLY | O_CLOEXEC))
{
    if (descriptor < 0)
        throw systemFailure(filePath, errno);
}

InputFile::~InputFile()
{
    // Nothing was written: a failed close loses nothing.
    close(descriptor);
}

int InputFile::next()
{
    if (position == buffer.size()) {
        buffer.resize(bufferBytes);
        ssize_t got = read(descriptor, buffer.data(), buffer.size());
        while (got < 0 && errno == EINTR) {
            stopIfInterrupted();
            got = read(descriptor, buffer.data(), buffer.size());
        }
        const int errorNumber = errno;
        buffer.resize(got < 0 ? 0 : static_cast<size_t>(got));
        position = 0;
        if (got < 0)
            throw systemFailure(filePath, errorNumber);
        if (got == 0)
            return -1;
    }
    return buffer[position++];
}

uint8_t InputFile::readUint8()
{
    const int byte = next();
    if (byte < 0)
        throw Failure(filePath + ": the file ends too early");
    return static_cast<uint8_t>(byte);
}

const std::string& InputFile::path() const
{
    return filePath;
}

} // namespace labelPrinter
