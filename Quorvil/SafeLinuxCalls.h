// SafeLinuxCalls.h: wrappers of system calls that must not fail
// Foundation

#ifndef QUORVIL_SAFELINUXCALLS_H
#define QUORVIL_SAFELINUXCALLS_H

#include "Quorvil/QuorvilExport.h"

namespace util {

/// Passes on the result of a system call that is expected to succeed, by the convention of -1 and `errno`.
///
/// On -1 one line goes to `safeCerr`, such as "void f() failed in Quorvil/F:12 - (9) Bad file descriptor", with the
/// text of `strerror_r`; then, if `fatal`, the process ends. A null text fails `std::cerr`: the rest of the line, and
/// all later output there, is lost until somebody clears it.
///
/// @param function          full signature of the caller
/// @param file, line        its place
/// @param linuxFuncResult   the call's result; every value but -1 counts as success
/// @param fatal             true: a failure ends the process
/// @return `linuxFuncResult`; `errno` is as the call left it
/// @throws std::system_error  the console lock cannot be taken
/// @requires linuxFuncResult != -1, if `fatal`
/// @threads any   @realtime bounded on success, I/O on failure
QUORVIL_API int safe(const char* function, const char* file, int line, int linuxFuncResult, bool fatal);

/// Passes on the result of a POSIX threads call that is expected to succeed, by the convention of a returned error
/// number.
///
/// On a failure `errno` becomes the number, the line of `safe` goes out, and the process ends.
///
/// @param function         full signature of the caller
/// @param file, line       its place
/// @param posixFuncResult  the call's result; 0 is success
/// @return 0
/// @throws std::system_error  the console lock cannot be taken
/// @requires posixFuncResult == 0
/// @threads any   @realtime bounded on success, I/O on failure
QUORVIL_API int safePosix(const char* function, const char* file, int line, int posixFuncResult);

} // namespace util

#endif
