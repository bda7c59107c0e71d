// PageResults.h: the files that a page becomes

#ifndef LABELPRINTER_PAGERESULTS_H
#define LABELPRINTER_PAGERESULTS_H

#include <functional>
#include <string>

namespace labelPrinter {

class Image;
class ResultFile;
class ResultFiles;

/// The name of a page's results without their kind: `out`, or `out` with the page's number behind it when the job has
/// several pages.
///
/// @param page  from 1
std::string resultName(const std::string& out, int page, int pages);

/// A page that is to be written.
struct PageContent
{
    const Image& image;
    int dotsPerInch;
    /// UTF-8, or empty.
    const std::string& title;
};

/// Writes the results of one page, NAME.KIND each.
class PageResults
{
public:
    /// @param files  gets the results
    /// @param name   of the results, without their kind
    /// @param reach  is told each station, such as "png on disk"; up to 11 characters
    PageResults(ResultFiles& files, std::string name, std::function<void(const std::string& station)> reach);

    /// Each writes one file, and brings it onto the disk.
    ///
    /// @throws Failure  it cannot be written, or the user breaks off
    void writePbm(const PageContent& page) const;
    void writePng(const PageContent& page) const;
    void writeRunLengths(const PageContent& page) const;

private:
    void write(const std::string& kind, const std::function<void(ResultFile& file)>& encode) const;

    ResultFiles& files;
    std::string name;
    std::function<void(const std::string& station)> reach;
};

} // namespace labelPrinter

#endif
