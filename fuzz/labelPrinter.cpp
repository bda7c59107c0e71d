// The first byte of the input chooses a reader of the label printer: of jobs, of pictures, of stored pages. A job ends
// at the first byte 0xFF, and its picture `p` is what follows. Readers take the file or throw a Failure, and nothing
// else.

#include "Failure.h"
#include "JobReader.h"
#include "PbmFile.h"
#include "RunLengthFile.h"
#include "fuzz/input.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>

namespace {

namespace fs = std::filesystem;

/// The folder of the files that are read.
struct Folder
{
    Folder()
    {
        fuzz::require(mkdtemp(path.data()) != nullptr, "no folder");
    }

    ~Folder()
    {
        fs::remove_all(path);
    }

    std::string put(const char* name, const std::string& bytes) const
    {
        std::ofstream(path + name, std::ios::binary) << bytes;
        return path + name;
    }

    std::string path = fs::temp_directory_path() / "labelPrinterXXXXXX";
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const Folder folder;
    const std::string bytes(data + std::min<size_t>(size, 1), data + size);
    const size_t end = std::min(bytes.find('\xFF'), bytes.size());
    try {
        if (size == 0 || data[0] % 3 == 0) {
            folder.put("/p", bytes.substr(std::min(end + 1, bytes.size())));
            labelPrinter::JobReader(folder.put("/job", bytes.substr(0, end))).read();
        } else {
            const std::string file = folder.put("/picture", bytes);
            data[0] % 3 == 1 ? labelPrinter::readPbm(file) : labelPrinter::readRunLengths(file).image;
        }
    } catch (const labelPrinter::Failure& failure) {
        fuzz::require(*failure.what() != '\0', "a failure without words");
    }
    return 0;
}
