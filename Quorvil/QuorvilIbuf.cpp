#include "Quorvil/QuorvilIbuf.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <pthread.h>
#include <sched.h>
#include <sstream>
#include <string>

void quorvil::ibuf::perror_errno(const char* what, int err)
{
    const int current = errno;
    std::ostringstream text;
    text << "\n**** ERROR - " << what << ": " << std::strerror(err) << "\n\n";
    const std::string whole = text.str();
    errno = current;
    std::perror(whole.c_str());
}

void quorvil::ibuf::setSchedHighest(unsigned long thread)
{
    sched_param parameters{};
    parameters.sched_priority = 98;
    const int error = pthread_setschedparam(thread, SCHED_FIFO, &parameters);
    if (error != 0)
        perror_errno("pthread_setschedparam", error);
}
