// QuorvilAsyncInput.h: reads one line of console input on a thread of its own, for interactive tests
// Threads and timers, on siblings/EasyAsync

#ifndef QUORVIL_QUORVILASYNCINPUT_H
#define QUORVIL_QUORVILASYNCINPUT_H

#include "Quorvil/QuorvilExport.h"

#include <condition_variable>
#include <future>
#include <iosfwd>
#include <mutex>
#include <string>

namespace quorvil::test {

/// Reads one line on a thread of its own, by `std::async`.
///
/// @param in  not touched by anybody else until the line is there
/// @return the line without its newline, empty at the end of the stream; the future's destructor waits for the line
/// @throws std::system_error  no thread can be started
/// @throws std::bad_alloc     no memory for the task
/// @threads any   @realtime allocates
QUORVIL_API std::future<std::string> asyncInput(std::istream& in);

/// Reads one line on a thread of its own, by `std::async`, and returns at once.
///
/// When the line is there, or the stream has ended, the task locks `mutex`, moves the line into `input`, sets
/// `finished`, and notifies all waiters of `cond`. An exception of the stream stays in the task: nothing is signalled.
///
/// @param in, mutex, cond, finished, input  not owned; all outlive the task
/// @throws std::system_error  no thread can be started
/// @throws std::bad_alloc     no memory for the task; or none to keep track of it, after the line has come
/// @threads any   @realtime allocates
QUORVIL_API void asyncInput(std::istream& in, std::mutex& mutex, std::condition_variable& cond, bool& finished,
                            std::string& input);

/// One line of `std::cin`, read while the caller goes on. Several objects would compete for the lines.
///
/// A stream that ends without a line gives an empty one. Failures are the `std::system_error` of the standard mutex and
/// thread; in the destructor they end the process.
class QUORVIL_API AsyncInput
{
public:
    /// Begins to read.
    ///
    /// @throws std::system_error  no thread can be started
    /// @threads any   @realtime allocates
    AsyncInput();

    /// Waits for the line.
    ///
    /// @threads owner   @realtime waits
    virtual ~AsyncInput();

    /// Whether the line has arrived.
    ///
    /// @threads any   @realtime waits
    virtual bool done();

    /// Waits for the line.
    ///
    /// @threads any   @realtime waits
    virtual void wait();

    /// Waits for the line and returns it, without its newline, at each call.
    ///
    /// @threads any   @realtime waits
    virtual std::string join();

    AsyncInput(const AsyncInput&) = delete;
    AsyncInput& operator=(const AsyncInput&) = delete;

private:
    std::mutex mutex;
    std::condition_variable cond;
    bool finished = false;
    std::string input;
};

} // namespace quorvil::test

#endif
