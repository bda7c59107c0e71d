// Trace.h: the flight recorder of a job, what it was doing when something went wrong

#ifndef LABELPRINTER_TRACE_H
#define LABELPRINTER_TRACE_H

#include <string>

namespace labelPrinter {

/// Installs the process's recorder and switches it on; it keeps the newest 64 KiB. Call it once, before a thread is
/// started. Without it the functions below do nothing.
void startTrace();

/// Records a line of the job file, shortened and without control characters.
void traceJobLine(int number, const std::string& text);

/// Records that a page has got somewhere.
void traceStation(int page, const char* station);

/// Records where composing or the engine stands, as a list of state values: bytes that become text only when the trace
/// is printed. It neither allocates nor writes.
///
/// @param page  from 1
/// @param band  of the page, from 1
/// @param y     the band's first row, below `longestSide`
/// @param fed   the engine has fed the band; else it is about to be composed
void traceBand(int page, int band, int y, bool fed = false);

/// Prints the trace to the standard error output. Where that fails, a line there tells why; it throws nothing.
void printTrace() noexcept;

} // namespace labelPrinter

#endif
