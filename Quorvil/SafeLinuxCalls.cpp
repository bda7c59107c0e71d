#include "Quorvil/SafeLinuxCalls.h"

#include "Quorvil/QuorvilAssert.h"
#include "Quorvil/QuorvilLog.h"
#include "Quorvil/ThreadSafeStream.h"

#include <cerrno>
#include <cstring>
#include <ostream>
#include <string>

QUORVIL_LOG_GROUP("Noname");

namespace {

constexpr const char* source = "Quorvil/SafeLinuxCalls";

/// Writes the report line and leaves `errno` as it was.
void report(const char* function, const char* file, int line)
{
    const int error = errno;
    char buffer[256];
    safeCerr << function << " failed in " << file << ":" << std::to_string(line) << " - (" << std::to_string(error)
             << ") " << strerror_r(error, buffer, sizeof buffer) << std::endl;
    errno = error;
}

} // namespace

int util::safe(const char* function, const char* file, int line, int linuxFuncResult, bool fatal)
{
    if (linuxFuncResult != -1)
        return linuxFuncResult;
    report(function, file, line);
    quorvil::intern::require(!fatal, "linuxFuncResult != -1", source, 32,
                             "int util::safe(const char*, const char*, int, int, bool)");
    return -1;
}

int util::safePosix(const char* function, const char* file, int line, int posixFuncResult)
{
    if (posixFuncResult == 0)
        return 0;
    errno = posixFuncResult;
    report(function, file, line);
    __assert_fail("posixFuncResult == 0", source, 50, "int util::safePosix(const char*, const char*, int, int)");
}
