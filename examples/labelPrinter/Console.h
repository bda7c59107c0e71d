// Console.h: what an operator types

#ifndef LABELPRINTER_CONSOLE_H
#define LABELPRINTER_CONSOLE_H

#include "Quorvil/PollingThread.h"
#include "Quorvil/QuorvilAsyncInput.h"

#include <memory>

namespace labelPrinter {

class Status;

/// Answers the lines of the standard input, on the standard output: `status` and `jobs` as a client gets them, and
/// `stop` stops the printer. The end of the input ends the console, and the printer goes on. One of them in a process.
class Console : public IPollingThreadHandler
{
public:
    /// How often to look whether a line is there.
    static constexpr int intervalMicroseconds = 100'000;

    /// @param status  not owned, outlives this object
    explicit Console(Status& status);

    /// A line that is not typed yet is not waited for.
    ~Console() override;
    Console(const Console&) = delete;
    Console& operator=(const Console&) = delete;

    void event() override;

private:
    Status& status;
    std::unique_ptr<quorvil::test::AsyncInput> line;
    bool ended = false;
};

} // namespace labelPrinter

#endif
