// CommandLine.h: what the user asks for

#ifndef LABELPRINTER_COMMANDLINE_H
#define LABELPRINTER_COMMANDLINE_H

#include "Controller.h"
#include "Failure.h"

#include <string>

namespace labelPrinter {

/// The command line makes no sense; the text says why.
class WrongUsage : public Failure
{
public:
    using Failure::Failure;
};

/// The words of the command line. At most one of `help`, `version`, `selfTest`, `stored`, `job` and `service.port` is
/// set.
struct CommandLine
{
    bool help = false;
    bool version = false;
    bool selfTest = false;
    /// A stored page that is to be shown.
    std::string stored;
    /// A job file that is to be printed.
    std::string job;
    /// Where the results go.
    std::string out;
    /// Whether to wait for ENTER before each page.
    bool manualFeed = false;
    /// Options that are not for the service alone stand here as well: drives, times, trace.
    ServiceOptions service;
};

/// What --help tells.
extern const char* const usage;

/// Reads the words.
///
/// @throws WrongUsage
CommandLine parseCommandLine(int argc, char** argv);

} // namespace labelPrinter

#endif
