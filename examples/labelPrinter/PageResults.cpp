#include "PageResults.h"

#include "PbmFile.h"
#include "PngFile.h"
#include "ResultFiles.h"
#include "RunLengthFile.h"

#include <cstdio>
#include <utility>

namespace labelPrinter {

std::string resultName(const std::string& out, int page, int pages)
{
    if (pages == 1)
        return out;
    char number[16];
    std::snprintf(number, sizeof number, "-%04d", page);
    return out + number;
}

PageResults::PageResults(ResultFiles& theFiles, std::string theName,
                         std::function<void(const std::string& station)> theReach)
    : files(theFiles)
    , name(std::move(theName))
    , reach(std::move(theReach))
{
}

void PageResults::writePbm(const PageContent& page) const
{
    write("pbm", [&](ResultFile& file) {
        file.write(pbmHeader(page.image));
        file.write(page.image.bytes().data(), page.image.bytes().size());
    });
}

void PageResults::writePng(const PageContent& page) const
{
    write("png", [&](ResultFile& file) { labelPrinter::writePng(page.image, page.dotsPerInch, page.title, file); });
}

void PageResults::writeRunLengths(const PageContent& page) const
{
    write("qrl", [&](ResultFile& file) { labelPrinter::writeRunLengths(page.image, page.dotsPerInch, file); });
}

void PageResults::write(const std::string& kind, const std::function<void(ResultFile& file)>& encode) const
{
    ResultFile file = files.create(name + "." + kind);
    encode(file);
    reach(kind + " encoded");
    file.finish();
    reach(kind + " on disk");
}

} // namespace labelPrinter
