// The first byte of the input chooses a reader of the label printer: of jobs, of pictures, of stored pages. A job ends
// at the first byte 0xFF, and its picture `p` is what follows. Readers take the file or throw a Failure, and nothing
// else; what they take can be drawn, stored and read back.

#include "Composer.h"
#include "Failure.h"
#include "JobReader.h"
#include "PbmFile.h"
#include "Progress.h"
#include "ResultFiles.h"
#include "RunLengthFile.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace {

/// What is larger takes long and shows nothing new.
constexpr int64_t mostPixels = 1 << 20;
constexpr int64_t mostCopies = 2000;

void require(bool condition, const char* text)
{
    if (!condition) {
        std::fprintf(stderr, "%s\n", text);
        std::abort();
    }
}

/// The folder of the files that are read.
struct Folder
{
    Folder()
        : path((std::filesystem::temp_directory_path() / "labelPrinterXXXXXX").string())
    {
        require(mkdtemp(path.data()) != nullptr, "no folder");
    }

    ~Folder()
    {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }

    std::string put(const char* name, const std::string& bytes) const
    {
        const std::string file = path + "/" + name;
        std::ofstream(file, std::ios::binary) << bytes;
        return file;
    }

    std::string path;
};

bool isSmall(int width, int height)
{
    return int64_t{width} * height <= mostPixels;
}

void storeAndReadBack(const Folder& folder, const labelPrinter::Image& image, int dotsPerInch)
{
    const std::string stored = folder.path + "/stored";
    std::filesystem::remove(stored);
    labelPrinter::ResultFile file(stored, stored);
    labelPrinter::writeRunLengths(image, dotsPerInch, file);
    file.flush();
    const labelPrinter::Page page = labelPrinter::readRunLengths(stored);
    require(page.dotsPerInch == dotsPerInch && page.image.width() == image.width() &&
                page.image.bytes() == image.bytes(),
            "another page");
}

void readJob(const Folder& folder, const std::string& bytes)
{
    const size_t end = std::min(bytes.find('\xFF'), bytes.size());
    folder.put("p", bytes.substr(std::min(end + 1, bytes.size())));
    labelPrinter::Job job = labelPrinter::JobReader(folder.put("job", bytes.substr(0, end))).read();
    int64_t copies = 0;
    for (const labelPrinter::Statement& statement : job.statements)
        copies += int64_t{statement.repeat.rows} * statement.repeat.columns;
    if (!isSmall(job.width, job.height) || copies > mostCopies)
        return;
    labelPrinter::Progress progress(job.pages);
    labelPrinter::Composer composer(job, progress);
    storeAndReadBack(folder, composer.compose(1), job.dotsPerInch);
    storeAndReadBack(folder, composer.compose(job.pages), job.dotsPerInch);
}

void readPicture(const Folder& folder, const std::string& bytes)
{
    const labelPrinter::Image image = labelPrinter::readPbm(folder.put("picture", bytes));
    if (isSmall(image.width(), image.height()))
        storeAndReadBack(folder, image, 600);
}

void readStored(const Folder& folder, const std::string& bytes)
{
    const labelPrinter::Page page = labelPrinter::readRunLengths(folder.put("page", bytes));
    if (isSmall(page.image.width(), page.image.height()))
        storeAndReadBack(folder, page.image, page.dotsPerInch);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const Folder folder;
    if (size == 0)
        return 0;
    const std::string bytes(data + 1, data + size);
    try {
        switch (data[0] % 3) {
        case 0:
            readJob(folder, bytes);
            break;
        case 1:
            readPicture(folder, bytes);
            break;
        default:
            readStored(folder, bytes);
        }
    } catch (const labelPrinter::Failure& failure) {
        require(*failure.what() != '\0', "a failure without words");
    }
    return 0;
}
