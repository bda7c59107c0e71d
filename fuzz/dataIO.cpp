// Text data files: any bytes as a file, read by any order of types, beside a string stream; what was read is written
// and compared. The first byte tells how many types follow, one a byte; the rest is the file.

#include "Quorvil/GeneralException.h"
#include "Quorvil/QuorvilDataIO.h"

#include <cstdint>
#include <iterator>
#include <locale>
#include <memory>
#include <sstream>
#include <string>
#include <sys/mman.h>
#include <type_traits>
#include <unistd.h>

namespace {

/// A file in memory that has a name.
class MemoryFile
{
public:
    MemoryFile()
        : descriptor(memfd_create("data", MFD_CLOEXEC))
    {
        if (descriptor < 0)
            __builtin_trap();
    }

    std::string name() const
    {
        return "/proc/self/fd/" + std::to_string(descriptor);
    }

    void fill(const std::string& content) const
    {
        if (ftruncate(descriptor, 0) != 0 ||
            pwrite(descriptor, content.data(), content.size(), 0) != static_cast<ssize_t>(content.size()))
            __builtin_trap();
    }

    std::string content() const
    {
        std::string result(static_cast<size_t>(lseek(descriptor, 0, SEEK_END)), '?');
        if (pread(descriptor, result.data(), result.size(), 0) != static_cast<ssize_t>(result.size()))
            __builtin_trap();
        return result;
    }

private:
    int descriptor;
};

struct Files
{
    std::unique_ptr<quorvil::TextFileDataIO> reader;
    std::unique_ptr<quorvil::TextFileDataIO> writer;
    std::istringstream model;
    std::string written;
};

/// Reads one value both ways, `Carrier` being the type that the file is read as. Writes it, if there was one.
template <typename Value, typename Carrier>
bool pass(Files& files)
{
    Value value = 1;
    bool failed = false;
    try {
        files.reader->r(value);
    } catch (const util::GeneralException&) {
        failed = true;
    }
    Carrier carrier = 0;
    files.model >> carrier;
    const bool modelFailed = files.model.rdstate() != std::ios::goodbit;
    const Value expected = modelFailed ? Value(1) : static_cast<Value>(carrier);
    if (failed != modelFailed || value != expected)
        __builtin_trap();
    if (failed)
        return false;
    files.writer->w(value);
    using Written = std::conditional_t<std::is_same_v<Value, char>, unsigned char, Value>;
    files.written += std::to_string(static_cast<Written>(value)) + "\n";
    return true;
}

constexpr bool (*passes[])(Files&) = {
    pass<bool, int>,        pass<char, int>,
    pass<signed char, int>, pass<unsigned char, unsigned int>,
    pass<short, short>,     pass<unsigned short, unsigned int>,
    pass<int, int>,         pass<unsigned int, unsigned int>,
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const MemoryFile source;
    static const MemoryFile target;
    util::GeneralException::defaultSilent = true;
    if (size == 0 || size - 1 < data[0])
        return 0;
    const std::string content(data + 1 + data[0], data + size);
    source.fill(content);
    Files files{std::unique_ptr<quorvil::TextFileDataIO>(quorvil::TextFileDataIO::forRead(source.name())),
                std::unique_ptr<quorvil::TextFileDataIO>(quorvil::TextFileDataIO::forWrite(target.name())),
                std::istringstream(content), ""};
    files.model.imbue(std::locale::classic());
    for (size_t i = 1; i <= data[0]; ++i)
        if (!passes[data[i] % std::size(passes)](files))
            break;
    files.writer->close();
    if (target.content() != files.written)
        __builtin_trap();
    return 0;
}
