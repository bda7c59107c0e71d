// The first byte of the input chooses a reader of the label printer: of jobs, of pictures, of stored pages. A job ends
// at the first byte 0xFF, and its picture `p` is what follows. Readers take the file or throw a Failure, and nothing
// else.

#include "Failure.h"
#include "JobReader.h"
#include "PbmFile.h"
#include "RunLengthFile.h"
#include "fuzz/input.h"
#include "tests/support/temporaryFolder.h"

#include <algorithm>
#include <fstream>
#include <string>

namespace {

std::string put(const std::string& file, const std::string& bytes)
{
    std::ofstream(file, std::ios::binary) << bytes;
    return file;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const support::TemporaryFolder folder;
    const std::string bytes(data + std::min<size_t>(size, 1), data + size);
    const size_t end = std::min(bytes.find('\xFF'), bytes.size());
    try {
        if (size == 0 || data[0] % 3 == 0) {
            put(folder / "p", bytes.substr(std::min(end + 1, bytes.size())));
            labelPrinter::JobReader(put(folder / "job", bytes.substr(0, end))).read();
        } else {
            const std::string file = put(folder / "picture", bytes);
            data[0] % 3 == 1 ? labelPrinter::readPbm(file) : labelPrinter::readRunLengths(file).image;
        }
    } catch (const labelPrinter::Failure& failure) {
        fuzz::require(*failure.what() != '\0', "a failure without words");
    }
    return 0;
}
