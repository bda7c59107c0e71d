#include "Counters.h"

#include "Failure.h"

#include "Quorvil/GeneralException.h"
#include "Quorvil/QuorvilDataIO.h"
#include "Quorvil/ThreadSafeStream.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <fcntl.h>
#include <memory>
#include <unistd.h>
#include <utility>

namespace labelPrinter {

namespace {

using quorvil::TextFileDataIO;

void add(unsigned& sum, unsigned more)
{
    sum = more > UINT_MAX - sum ? UINT_MAX : sum + more;
}

/// Brings a file onto the disk, so that a loss of power cannot leave its new name without its content.
void sync(const std::string& path)
{
    const int descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    const bool done = descriptor >= 0 && fsync(descriptor) == 0;
    const int errorNumber = errno;
    if (descriptor >= 0)
        close(descriptor);
    if (!done)
        throw systemFailure(path, errorNumber);
}

} // namespace

Counters::Counters(std::string thePath)
    : path(std::move(thePath))
{
    if (access(path.c_str(), F_OK) == 0)
        read();
}

void Counters::read()
{
    try {
        const std::unique_ptr<TextFileDataIO> file(TextFileDataIO::forRead(path));
        Figures figures;
        file->r(figures.jobs);
        file->r(figures.pages);
        file->r(figures.rows);
        file->r(figures.dots);
        kept = current = figures;
    } catch (const util::GeneralException& reason) {
        safeCerr << "labelPrinter: " << path << ": " << reason.what() << "; the counters begin at 0" << std::endl;
    }
}

void Counters::countPage(unsigned rows, unsigned dots)
{
    add(current.pages, 1);
    add(current.rows, rows);
    add(current.dots, dots);
}

void Counters::countJob()
{
    add(current.jobs, 1);
    kept = current;
    try {
        write();
    } catch (const std::exception& reason) {
        safeCerr << "labelPrinter: the counters cannot be written: " << reason.what() << std::endl;
    }
}

void Counters::dropPages()
{
    current = kept;
}

void Counters::write() const
{
    const std::string beside = path + ".new";
    const std::unique_ptr<TextFileDataIO> file(TextFileDataIO::forWrite(beside));
    file->w(kept.jobs);
    file->w(kept.pages);
    file->w(kept.rows);
    file->w(kept.dots);
    file->close();
    sync(beside);
    if (std::rename(beside.c_str(), path.c_str()) != 0)
        throw systemFailure(path, errno);
}

} // namespace labelPrinter
