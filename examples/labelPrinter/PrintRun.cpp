#include "PrintRun.h"

#include "Composer.h"
#include "Failure.h"
#include "Interrupt.h"
#include "JobReader.h"
#include "PageResults.h"
#include "PageTimes.h"
#include "PbmFile.h"
#include "Progress.h"
#include "ResultFiles.h"
#include "RunLengthFile.h"

#include "Quorvil/EnterIfInteractive.h"
#include "Quorvil/ThreadSafeStream.h"

#include <cstdio>
#include <iostream>

namespace labelPrinter {

namespace {

/// The library's own text form stops at milliseconds, in which a page is often composed more than once.
std::string inMilliseconds(const util::TimeSpec& time)
{
    const timespec* value = time.to_c();
    char text[32];
    std::snprintf(text, sizeof text, "%.2f ms",
                  static_cast<double>(value->tv_sec) * 1e3 + static_cast<double>(value->tv_nsec) / 1e6);
    return text;
}

} // namespace

void print(const std::string& jobPath, const std::string& out, const Drives* drives, PageTimes& times, bool manualFeed)
{
    Job job = JobReader(jobPath, PicturePlaces::besideFile(jobPath, drives)).read();
    ResultFiles results;
    results.protect(jobPath);
    for (const auto& [path, image] : job.images)
        results.protect(path);

    Progress progress(job.pages);
    Composer composer(job, progress);
    for (int page = 1; page <= job.pages; ++page) {
        enterIfInteractive(manualFeed, "page " + std::to_string(page) + " of " + std::to_string(job.pages));
        times.begin(page);
        progress.beginComposing();
        const Image& image = composer.compose(page);
        progress.endComposing();
        times.reach("composed");
        const PageResults ofPage(results, resultName(out, page, job.pages),
                                 [&](const std::string& station) { times.reach(station); });
        const PageContent content{image, job.dotsPerInch, job.title};
        ofPage.writePbm(content);
        ofPage.writePng(content);
        ofPage.writeRunLengths(content);
        times.end();
        progress.pageDone(page);
    }
    if (!std::cout)
        throw Failure("the standard output cannot be written");
    results.keep();

    const std::string last = job.pages == 1 ? "" : " to " + resultName(out, job.pages, job.pages);
    safeCout << resultName(out, 1, job.pages) << last << " (.pbm .png .qrl): " << job.pages
             << (job.pages == 1 ? " page of " : " pages of ") << job.width << " x " << job.height
             << " pixels, composed in " << inMilliseconds(progress.composing()) << ", all done in "
             << progress.sinceBegin().toShortString() << " s" << std::endl;
    if (!std::cout)
        throw Failure("the standard output cannot be written; all results are in place");
}

void show(const std::string& path, const std::string& out)
{
    const Page page = readRunLengths(path);
    if (out.empty()) {
        std::cout << pbmHeader(page.image);
        for (int y = 0; y < page.image.height(); ++y) {
            stopIfInterrupted("the picture is cut off");
            std::cout.write(reinterpret_cast<const char*>(page.image.row(y)), page.image.bytesPerRow());
        }
        return;
    }
    ResultFiles results;
    results.protect(path);
    const PageResults ofPage(results, out, [](const std::string&) {});
    const std::string untitled;
    const PageContent content{page.image, page.dotsPerInch, untitled};
    ofPage.writePbm(content);
    ofPage.writePng(content);
    results.keep();
}

} // namespace labelPrinter
