// PrintRun.h: the two things that the program does, from the file to the results

#ifndef LABELPRINTER_PRINTRUN_H
#define LABELPRINTER_PRINTRUN_H

#include <string>

namespace labelPrinter {

class Drives;
class PageTimes;

/// Composes the job's pages and writes each as NAME.pbm, NAME.png and NAME.qrl, where NAME is `out`, or `out` with
/// the page's number behind it when there are several. It tells on the standard output how far it is, once a second,
/// and how long it took.
///
/// @param drives  where the job's names with a drive's letter lead to; without them letters mean nothing
/// @param times   gets the stations of each page
/// @param manualFeed  waits for ENTER before each page: somebody puts the paper in by hand
/// @throws Failure  anything went wrong. The folder of `out` is then as it was, unless it was the last steps that went
///                  wrong: renaming, bringing the folder onto the disk, printing the summary. The text tells these.
void print(const std::string& jobPath, const std::string& out, const Drives* drives, PageTimes& times, bool manualFeed);

/// Turns a run-length file back into a picture.
///
/// @param out  name of the results `out`.pbm and `out`.png; when it is empty, PBM goes to the standard output
/// @throws Failure  anything went wrong; the folder of `out` is then as with `print`, and the standard output may have
///                  got a part of the picture
void show(const std::string& path, const std::string& out);

} // namespace labelPrinter

#endif
