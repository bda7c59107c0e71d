// Title.h: the name of a job, for people

#ifndef LABELPRINTER_TITLE_H
#define LABELPRINTER_TITLE_H

#include <string>

namespace labelPrinter {

/// Gives the process the character set UTF-8, whatever its user's locale is; numbers and messages stay as they are.
/// Call it once, before a thread is started.
void useUtf8();

/// Throws where a title cannot be one: it is no UTF-8, is empty or longer than 79 characters, or holds control
/// characters.
///
/// @throws Failure
void checkTitle(const std::string& title);

/// The title as the printer's display shows it: upper case, 20 characters at most.
///
/// @param title  a checked one, or empty
std::string onDisplay(const std::string& title);

} // namespace labelPrinter

#endif
