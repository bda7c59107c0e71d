#include "Quorvil/QuorvilLog.h"

#include <cstdarg>
#include <cstdio>

int my_printf(const char* format, ...)
{
    std::va_list arguments;
    va_start(arguments, format);
    const int result = std::vfprintf(stdout, format, arguments);
    va_end(arguments);
    return result;
}
