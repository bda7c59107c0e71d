// Implemented.h: which words of a job this printer implements

#ifndef LABELPRINTER_IMPLEMENTED_H
#define LABELPRINTER_IMPLEMENTED_H

#include <string>

namespace labelPrinter {

/// Notes that a word is implemented. Any thread may call these.
void implement(const std::string& word);

bool isImplemented(const std::string& word);

/// All of them in the order of the alphabet, between blanks.
std::string implementedWords();

} // namespace labelPrinter

#endif
