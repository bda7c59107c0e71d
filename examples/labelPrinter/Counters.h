// Counters.h: what the printer has done in its life

#ifndef LABELPRINTER_COUNTERS_H
#define LABELPRINTER_COUNTERS_H

#include <string>

namespace labelPrinter {

/// Jobs, pages, rows and black dots, kept in a text file of one number a line, in this order. They stop at their
/// largest value. For one thread.
///
/// The file is written beside its place and renamed: it is always whole. A job that was printed shortly before the
/// process was killed may be missing in it, or be in it twice, like its results.
class Counters
{
public:
    /// Reads the file; without one all begins at 0. One that cannot be read is told, and all begins at 0.
    explicit Counters(std::string path);

    /// Counts a page, once its job is printed.
    void countPage(unsigned rows, unsigned dots);

    /// Counts a job with its pages, and writes the file. A failure is told, and the next call tries again.
    void countJob();

    /// Forgets the pages since the last job: it is not printed.
    void dropPages();

private:
    struct Figures
    {
        unsigned jobs = 0, pages = 0, rows = 0, dots = 0;
    };

    void read();
    void write() const;

    std::string path;
    Figures kept;
    /// With the pages of a job that is being printed.
    Figures current;
};

} // namespace labelPrinter

#endif
