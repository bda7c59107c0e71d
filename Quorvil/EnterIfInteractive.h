// EnterIfInteractive.h: holds the caller until somebody presses ENTER
// Data, on Foundation

#ifndef QUORVIL_ENTERIFINTERACTIVE_H
#define QUORVIL_ENTERIFINTERACTIVE_H

#include "Quorvil/QuorvilExport.h"

#include <string>

/// Asks on `safeCerr` for ENTER, "*** Nach ENTER: ", `text` and " ... > " without a newline, and waits for a line or
/// the end of the input on `std::cin`. What was typed is thrown away. The console lock is not held during the wait:
/// other threads go on printing.
///
/// @param interactive  false: nothing is printed and nothing is read
/// @param text         what comes next, once ENTER was pressed
/// @throws std::system_error  the console lock cannot be taken
/// @threads any   @realtime I/O
QUORVIL_API void enterIfInteractive(bool interactive, const std::string& text);

#endif
