// TimeSpec.h: a time value for durations and deadlines, with a normal form
// Foundation

#ifndef QUORVIL_TIMESPEC_H
#define QUORVIL_TIMESPEC_H

#include "Quorvil/QuorvilExport.h"

#include <ctime>
#include <exception>
#include <iosfwd>
#include <string>

namespace util {

// The library's values hold a time_t of the platform's long. A consumer with another one would read other fields.
static_assert(sizeof(std::time_t) == sizeof(long), "Quorvil needs the time_t that has the width of long");

/// A duration or a point in time: seconds and nanoseconds.
///
/// In the normal form the nanoseconds are below 1,000,000,000 in magnitude and do not have the opposite sign of the
/// seconds: minus 1.5 seconds is (-1, -500,000,000). The value knows no clock: a deadline has to be read on the clock
/// of the wait that it is given to. Sums wrap around at the width of the seconds.
class QUORVIL_API TimeSpec
{
public:
    /// Zero.
    ///
    /// @threads any   @realtime bounded
    TimeSpec();

    /// Takes the value and normalises it.
    ///
    /// @threads any   @realtime bounded
    TimeSpec(timespec value);

    /// Copies the value.
    ///
    /// @threads one at a time   @realtime bounded
    TimeSpec(const TimeSpec&) = default;
    TimeSpec& operator=(const TimeSpec&) = default;
    virtual ~TimeSpec();

    /// Sets seconds and nanoseconds and normalises.
    ///
    /// @threads owner   @realtime bounded
    void init(long sec, long nsec);

    /// Takes the time of a clock, by `clock_gettime`. An unknown clock leaves the value as it was.
    ///
    /// @param clockId  `CLOCK_MONOTONIC`, `CLOCK_REALTIME` or another
    /// @threads owner   @realtime bounded   @clock as given
    void initNow(int clockId);

    /// Sets the value from ticks of 10 ms, of either sign.
    ///
    /// @threads owner   @realtime bounded
    void initFromThreadXTicks(int ticks);

    /// Sets the value from milliseconds, of either sign.
    ///
    /// @threads owner   @realtime bounded
    void initFromMs(int ms);

    /// Whether this value comes before `other`; both have to be normal. The difference of the seconds may wrap around.
    ///
    /// @threads one at a time   @realtime bounded
    bool operator<(const TimeSpec& other) const;

    /// Adds, field by field, and normalises.
    ///
    /// @threads owner   @realtime bounded
    TimeSpec& operator+=(const TimeSpec& other);

    /// Subtracts, field by field, and normalises.
    ///
    /// @threads owner   @realtime bounded
    TimeSpec& operator-=(const TimeSpec& other);

    /// The value for system calls, as long as the object lives.
    ///
    /// @threads one at a time   @realtime bounded
    const timespec* to_c() const;

    /// The seconds with three decimals, such as 12.345, with a point in every locale.
    ///
    /// @threads one at a time   @realtime allocates
    std::string toShortString() const;

    /// Brings any pair of values into the normal form.
    ///
    /// @threads owner   @realtime bounded
    void normalize();

private:
    timespec ts;
};

/// Writes "TimeSpec(", the seconds, "s; ", the nanoseconds, "ns)". The numbers follow the stream's settings.
/// The stream is the caller's alone meanwhile.
///
/// @threads owner   @realtime I/O
QUORVIL_API std::ostream& operator<<(std::ostream& out, const TimeSpec& value);

/// A timed wait has reached its deadline. It carries no text of its own.
class QUORVIL_API TimedOutException : public std::exception
{
public:
    TimedOutException();
    TimedOutException(const TimedOutException&) = default;
    TimedOutException& operator=(const TimedOutException&) = default;
    ~TimedOutException() override;
};

/// Checks that a stretch of code took about as long as expected. It may be asked any number of times.
class QUORVIL_API TimeLimit
{
public:
    /// Begins now.
    ///
    /// @threads any   @realtime bounded   @clock CLOCK_MONOTONIC
    TimeLimit();

    TimeLimit(const TimeLimit&) = default;
    TimeLimit& operator=(const TimeLimit&) = default;
    virtual ~TimeLimit();

    /// Whether the time since construction lies between `count * ms / factor` and `count * ms * factor`, both cut to
    /// whole milliseconds, bounds included.
    ///
    /// A failed check writes three lines to `std::cerr`: "minDiff: ", "diff: " and "maxDiff: ", each with its time.
    ///
    /// @param count   the expected time is `count * ms`; a product beyond an `int` counts as its limit
    /// @param ms      milliseconds
    /// @param factor  2.0 and 0.5 mean the same; one that is not a number fails the check
    /// @threads any   @realtime bounded on success, I/O on failure   @clock CLOCK_MONOTONIC
    bool checkAround(int count, int ms, double factor);

private:
    TimeSpec start;
};

} // namespace util

/// Sets the stream to decimal, which stays in force, and writes the seconds, "s ", the nanoseconds, "ns".
/// The stream is the caller's alone meanwhile.
///
/// @threads owner   @realtime I/O
QUORVIL_API std::ostream& operator<<(std::ostream& out, const timespec& value);

/// `a` minus `b`, with the sign rule of the normal form. Both have to be normal: one second at most is carried.
///
/// @threads any   @realtime bounded
QUORVIL_API timespec subtract(timespec a, timespec b);

#endif
