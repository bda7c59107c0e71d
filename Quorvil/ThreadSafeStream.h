// ThreadSafeStream.h: console output whose whole chain of << stays together
// Foundation

#ifndef QUORVIL_THREADSAFESTREAM_H
#define QUORVIL_THREADSAFESTREAM_H

#include "Quorvil/QuorvilExport.h"

#include <mutex>
#include <ostream>

namespace tss {

class ThreadSafeStream;

/// The temporary of a chain: it holds the console lock from the first `<<` to the end of the full expression, and for
/// as long as a caller keeps it. The lock is recursive: a value's own `<<` may write to a safe stream on the same
/// thread.
class QUORVIL_API Internal
{
public:
    /// Takes the console lock.
    ///
    /// @throws std::system_error  the lock cannot be taken; nothing is written
    /// @threads any   @realtime waits
    Internal(std::ostream& out, ThreadSafeStream& stream);

    /// Takes the console lock once more.
    ///
    /// @throws std::system_error  the lock cannot be taken
    /// @threads owner   @realtime waits
    Internal(const Internal& other);

    Internal& operator=(const Internal&) = delete;

    /// Gives the console lock back once. Nothing is flushed.
    ///
    /// @threads owner   @realtime bounded
    virtual ~Internal();

    /// Writes `value` to the wrapped stream. What the stream or the value throws passes through.
    ///
    /// @threads owner   @realtime I/O
    template <typename T>
    Internal& operator<<(const T& value);

    /// Applies a manipulator such as `std::endl` to the wrapped stream.
    ///
    /// @threads owner   @realtime I/O
    Internal& operator<<(std::ostream& (*manipulator)(std::ostream&));

private:
    std::ostream& out;
    std::lock_guard<std::recursive_mutex> lock;
    ThreadSafeStream& stream;
};

template <typename T>
Internal& Internal::operator<<(const T& value)
{
    out << value;
    return *this;
}

inline Internal& Internal::operator<<(std::ostream& (*manipulator)(std::ostream&))
{
    manipulator(out);
    return *this;
}

/// A stream that many threads may write to: what one statement chains by `<<` comes out unbroken.
///
/// `safeCout << "band " << band << std::endl;` holds one lock of the whole process from "band " to the end of the
/// statement, so that output through all safe streams and `safePrintf` is mutually exclusive. Direct use of
/// `std::cout`, `std::cerr` and `my_printf` is not covered. Nothing is flushed but by a manipulator, or by the stream's
/// own setting. What `std::hex` and its like set stays set behind the statement, for the other threads too.
class QUORVIL_API ThreadSafeStream
{
public:
    /// @param out  the wrapped stream, not owned
    /// @threads any   @realtime bounded
    explicit ThreadSafeStream(std::ostream& out);

    virtual ~ThreadSafeStream();

    /// Begins a chain.
    ///
    /// @return the holder of the console lock, to which the rest of the chain goes
    /// @throws std::system_error  the lock cannot be taken; nothing is written
    /// @threads any   @realtime I/O
    template <typename T>
    Internal operator<<(const T& value);

    /// Begins a chain with a manipulator such as `std::endl`.
    ///
    /// @throws std::system_error  the lock cannot be taken; nothing is written
    /// @threads any   @realtime I/O
    Internal operator<<(std::ostream& (*manipulator)(std::ostream&));

    ThreadSafeStream(const ThreadSafeStream&) = delete;
    ThreadSafeStream& operator=(const ThreadSafeStream&) = delete;

private:
    std::ostream& out;
};

template <typename T>
Internal ThreadSafeStream::operator<<(const T& value)
{
    Internal chain(out, *this);
    chain << value;
    return chain;
}

} // namespace tss

/// `std::cout` for many threads.
///
/// @threads any   @realtime I/O
QUORVIL_API extern tss::ThreadSafeStream safeCout;

/// `std::cerr` for many threads. It flushes by the unit-buffer setting of `std::cerr`.
///
/// @threads any   @realtime I/O
QUORVIL_API extern tss::ThreadSafeStream safeCerr;

/// `vfprintf` to `stdout` under the lock of the safe streams.
///
/// @param format  as for `printf`
/// @return the result of `vfprintf`: the number of characters, negative on a write error
/// @throws std::system_error  the lock cannot be taken; nothing is written
/// @threads any   @realtime I/O
QUORVIL_API int safePrintf(const char* format, ...) __attribute__((format(printf, 1, 2)));

#endif
