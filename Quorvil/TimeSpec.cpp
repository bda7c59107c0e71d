#include "Quorvil/TimeSpec.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <iomanip>
#include <iostream>
#include <limits>
#include <locale>
#include <sstream>

namespace {

constexpr long second = 1'000'000'000;

/// Sum and difference that wrap around at the width of `long`, which is defined for unsigned numbers alone.
long add(long a, long b)
{
    return static_cast<long>(static_cast<unsigned long>(a) + static_cast<unsigned long>(b));
}

long minus(long a, long b)
{
    return static_cast<long>(static_cast<unsigned long>(a) - static_cast<unsigned long>(b));
}

void settleSigns(timespec& value)
{
    if (value.tv_sec > 0 && value.tv_nsec < 0) {
        value.tv_sec -= 1;
        value.tv_nsec += second;
    } else if (value.tv_sec < 0 && value.tv_nsec > 0) {
        value.tv_sec += 1;
        value.tv_nsec -= second;
    }
}

/// Cuts toward zero, and to the limits of `int` beyond them.
int toInt(double value)
{
    if (std::isnan(value))
        return 0;
    return static_cast<int>(
        std::clamp<double>(value, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()));
}

/// One line of a failed check. The numbers are plain decimal, whatever the console is set to.
void writeLine(const char* name, const util::TimeSpec& value)
{
    std::ostringstream line;
    line.imbue(std::locale::classic());
    line << name << value;
    std::cerr << line.str() << std::endl;
}

} // namespace

namespace util {

TimeSpec::TimeSpec()
    : ts{}
{
}

TimeSpec::TimeSpec(timespec value)
    : ts(value)
{
    normalize();
}

TimeSpec::~TimeSpec() = default;

void TimeSpec::init(long sec, long nsec)
{
    ts.tv_sec = sec;
    ts.tv_nsec = nsec;
    normalize();
}

void TimeSpec::initNow(int clockId)
{
    clock_gettime(clockId, &ts);
}

void TimeSpec::initFromThreadXTicks(int ticks)
{
    ts.tv_sec = ticks / 100;
    ts.tv_nsec = ticks % 100 * 10'000'000L;
}

void TimeSpec::initFromMs(int ms)
{
    ts.tv_sec = ms / 1000;
    ts.tv_nsec = ms % 1000 * 1'000'000L;
}

bool TimeSpec::operator<(const TimeSpec& other) const
{
    const long difference = minus(ts.tv_sec, other.ts.tv_sec);
    if (difference != 0)
        return difference < 0;
    return ts.tv_nsec < other.ts.tv_nsec;
}

TimeSpec& TimeSpec::operator+=(const TimeSpec& other)
{
    init(add(ts.tv_sec, other.ts.tv_sec), add(ts.tv_nsec, other.ts.tv_nsec));
    return *this;
}

TimeSpec& TimeSpec::operator-=(const TimeSpec& other)
{
    init(minus(ts.tv_sec, other.ts.tv_sec), minus(ts.tv_nsec, other.ts.tv_nsec));
    return *this;
}

const timespec* TimeSpec::to_c() const
{
    return &ts;
}

std::string TimeSpec::toShortString() const
{
    std::ostringstream text;
    text.imbue(std::locale::classic());
    text << std::fixed << std::setprecision(3)
         << static_cast<double>(ts.tv_nsec) / 1e9 + static_cast<double>(ts.tv_sec);
    return text.str();
}

void TimeSpec::normalize()
{
    // A division, and not one step, so that any pair of a 64-bit platform comes out normal too.
    ts.tv_sec = add(ts.tv_sec, ts.tv_nsec / second);
    ts.tv_nsec %= second;
    settleSigns(ts);
}

std::ostream& operator<<(std::ostream& out, const TimeSpec& value)
{
    return out << "TimeSpec(" << value.to_c()->tv_sec << "s; " << value.to_c()->tv_nsec << "ns)";
}

TimedOutException::TimedOutException() = default;
TimedOutException::~TimedOutException() = default;

TimeLimit::TimeLimit()
{
    start.initNow(CLOCK_MONOTONIC);
}

TimeLimit::~TimeLimit() = default;

bool TimeLimit::checkAround(int count, int ms, double factor)
{
    if (factor < 1.0)
        factor = 1.0 / factor;
    const double expected = toInt(static_cast<double>(static_cast<int64_t>(count) * ms));

    TimeSpec diff;
    diff.initNow(CLOCK_MONOTONIC);
    diff -= start;
    TimeSpec minDiff;
    minDiff.initFromMs(toInt(expected / factor));
    TimeSpec maxDiff;
    maxDiff.initFromMs(toInt(expected * factor));

    if (!std::isnan(factor) && !(diff < minDiff) && !(maxDiff < diff))
        return true;
    writeLine("minDiff: ", minDiff);
    writeLine("diff: ", diff);
    writeLine("maxDiff: ", maxDiff);
    return false;
}

} // namespace util

std::ostream& operator<<(std::ostream& out, const timespec& value)
{
    return out << std::dec << value.tv_sec << "s " << value.tv_nsec << "ns";
}

timespec subtract(timespec a, timespec b)
{
    timespec result{};
    result.tv_sec = minus(a.tv_sec, b.tv_sec);
    result.tv_nsec = minus(a.tv_nsec, b.tv_nsec);
    settleSigns(result);
    return result;
}
