// Failure.h: the one exception of the label printer, whose text is what the user reads

#ifndef LABELPRINTER_FAILURE_H
#define LABELPRINTER_FAILURE_H

#include <stdexcept>
#include <string>
#include <system_error>

namespace labelPrinter {

/// What cannot be done and why, in one line that names the file, and the line of the job where there is one.
class Failure : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

/// A failed call of the system: the file's name and the system's words for `errorNumber`.
inline Failure systemFailure(const std::string& path, int errorNumber)
{
    return Failure(path + ": " + std::generic_category().message(errorNumber));
}

} // namespace labelPrinter

#endif
