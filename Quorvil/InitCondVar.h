// InitCondVar.h: a one-way gate that holds threads back until a part of the system has started
// Synchronisation, on Foundation

#ifndef QUORVIL_INITCONDVAR_H
#define QUORVIL_INITCONDVAR_H

#include "Quorvil/QuorvilExport.h"

#include <condition_variable>
#include <mutex>
#include <string>

namespace util {

/// A gate that opens once and stays open. A thread that it holds back says so on `safeCerr`.
///
/// | state  | `setInitialized`        | `waitUntilInitialized`                 |
/// |--------|-------------------------|----------------------------------------|
/// | closed | opens, wakes the held   | writes its line, sleeps until it opens |
/// | open   | stays open              | returns at once, silently              |
///
/// No thread may wait when the gate is destroyed. What was written before `setInitialized` is seen behind
/// `waitUntilInitialized`. The line is written with the gate's mutex held: a thread in the middle of a `safeCerr` chain
/// must not call the gate. Failures are the `std::system_error` of the standard mutex and condition.
class QUORVIL_API InitCondVar
{
public:
    /// A closed gate.
    ///
    /// @param name  what is being initialised, for the lines of the held threads
    /// @throws std::bad_alloc  no memory for the condition or the name
    /// @threads any   @realtime allocates
    explicit InitCondVar(const std::string& name);

    /// Destroys the gate; it does not open it and wakes nobody.
    ///
    /// @threads owner   @realtime bounded
    virtual ~InitCondVar();

    /// Opens the gate and releases all held threads. Calling it again only wakes once more.
    ///
    /// @throws std::system_error  the gate's mutex cannot be taken; the gate stays as it was. A condition that cannot
    ///                            notify ends the process
    /// @threads any   @realtime waits
    void setInitialized();

    /// Returns once the gate is open. While it is closed, every wake-up begins with a line `who`,
    /// " is being blocked until ", the name, " has been initialized!". There is no time limit.
    ///
    /// @param who  names the waiting thread or component; a null text fails `std::cerr`, and the wait goes on
    /// @throws std::system_error  the mutex, the console lock or the condition fails
    /// @threads any   @realtime waits, I/O while the gate is closed
    void waitUntilInitialized(const char* who);

    InitCondVar(const InitCondVar&) = delete;
    InitCondVar& operator=(const InitCondVar&) = delete;

private:
    std::recursive_mutex mutex;
    std::condition_variable_any condition;
    bool initialized = false;
    std::string name;
};

} // namespace util

#endif
