// TestThreadState.h: a named counter with which the threads of a test check and print their order
// Threads and timers, on Synchronisation

#ifndef QUORVIL_TESTTHREADSTATE_H
#define QUORVIL_TESTTHREADSTATE_H

#include "Quorvil/QuorvilExport.h"
#include "Quorvil/WaitCond.h"

#include <iosfwd>
#include <string>

namespace util {

/// A counter that the threads of a test share. Each operation holds the object's recursive mutex for its whole length,
/// so that the lines come in the order of the counter, and a stream may call back into the object.
class QUORVIL_API TestThreadState
{
public:
    /// The state 0.
    ///
    /// @param name  the name in all lines
    /// @threads any   @realtime allocates
    explicit TestThreadState(const std::string& name);

    virtual ~TestThreadState();

    /// Sets the state to 0.
    ///
    /// @threads any   @realtime waits
    void reset();

    /// Adds 1.
    ///
    /// @return the new state
    /// @threads any   @realtime waits
    int inc();

    /// The state.
    ///
    /// @threads any   @realtime waits
    int get();

    /// Adds 1 and writes "Inc ", the name, " to ", the new state and a newline to `os`, flushed.
    ///
    /// @threads any   @realtime I/O
    void incState(std::ostream& os);

    /// As `incState`; a state other than `expected` is told on `std::cerr`.
    ///
    /// @return whether the new state is `expected`
    /// @threads any   @realtime I/O
    bool incAndCheckState1(int expected, std::ostream& os);

    /// Tells on `os` that the state is `expected`, or on `std::cerr` that it is not.
    ///
    /// @return whether it is
    /// @threads any   @realtime I/O
    bool checkState1(int expected, std::ostream& os);

    TestThreadState(const TestThreadState&) = delete;
    TestThreadState& operator=(const TestThreadState&) = delete;

private:
    int state = 0;
    RecursiveMutex mutex;
    std::string name;
};

/// A number for the sleep periods of a test.
class QUORVIL_API TestSleeps
{
public:
    /// Stores the number; its meaning is the test's.
    ///
    /// @threads any   @realtime bounded
    explicit TestSleeps(int number);

    virtual ~TestSleeps();

private:
    [[maybe_unused]] int number;
};

} // namespace util

#endif
