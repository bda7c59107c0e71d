#include "Quorvil/ThreadSafeStream.h"

#include "Quorvil/QuorvilGlobalsIntern.h"

#include <cstdarg>
#include <cstdio>

namespace tss {

Internal::Internal(std::ostream& out_, ThreadSafeStream& stream_)
    : out(out_)
    , lock(quorvil::intern::consoleLock())
    , stream(stream_)
{
}

Internal::Internal(const Internal& other)
    : out(other.out)
    , lock(quorvil::intern::consoleLock())
    , stream(other.stream)
{
}

Internal::~Internal() = default;

ThreadSafeStream::ThreadSafeStream(std::ostream& out_)
    : out(out_)
{
}

ThreadSafeStream::~ThreadSafeStream() = default;

Internal ThreadSafeStream::operator<<(std::ostream& (*manipulator)(std::ostream&))
{
    Internal chain(out, *this);
    chain << manipulator;
    return chain;
}

} // namespace tss

int safePrintf(const char* format, ...)
{
    const std::lock_guard lock(quorvil::intern::consoleLock());
    std::va_list arguments;
    va_start(arguments, format);
    const int result = std::vfprintf(stdout, format, arguments);
    va_end(arguments);
    return result;
}
