// SelfTest.h: tries the way of a page on this machine

#ifndef LABELPRINTER_SELFTEST_H
#define LABELPRINTER_SELFTEST_H

namespace labelPrinter {

/// Sends a page through the engine to another thread, each step a line on the standard output, and compares what
/// arrives. A line also tells whether the engine has real-time priority here.
///
/// @throws Failure  a step came out of order, or the page is not what was sent
void selfTest();

} // namespace labelPrinter

#endif
