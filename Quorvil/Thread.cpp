#include "Quorvil/Thread.h"

#include "Quorvil/GeneralException.h"
#include "Quorvil/QuorvilAssert.h"
#include "Quorvil/QuorvilGlobalsIntern.h"
#include "Quorvil/QuorvilLog.h"
#include "Quorvil/TimeSpec.h"

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <ctime>
#include <iostream>

QUORVIL_LOG_GROUP("Noname");

namespace util {

namespace {

constexpr int unset = -1;

void requireInStart(bool condition, const char* expression, unsigned line)
{
    quorvil::intern::require(condition, expression, "Quorvil/Thread", line,
                             "void util::ThreadInternals::start(int, int, int)");
}

/// Sees to the end of a thread that the key's destructor will not see. It is a destructor, and no handler, because a
/// cancellation unwinds the stack and must not be caught.
class EndWithoutKey
{
public:
    explicit EndWithoutKey(ThreadInternals* threadWithoutKey)
        : internals(threadWithoutKey)
    {
    }

    ~EndWithoutKey()
    {
        if (internals != nullptr)
            quorvil::intern::threadKeyDestructor(internals);
    }

    EndWithoutKey(const EndWithoutKey&) = delete;
    EndWithoutKey& operator=(const EndWithoutKey&) = delete;

private:
    ThreadInternals* internals;
};

bool storeUnderKey(const ThreadInternals* internals)
{
    const int error = pthread_setspecific(quorvil::intern::threadKey(), internals);
    if (error == 0)
        return true;
    GeneralExceptionThrower thrower(error);
    thrower.handle(ENOMEM, "ENOMEM");
    thrower.handle(EINVAL, "EINVAL");
    thrower.writeNow(" in pthread_setspecific in Thread::start", std::cerr);
    return false;
}

} // namespace

ThreadInternals::ThreadInternals(Thread* owner_, const std::string& name_)
    : name(name_)
    , owner(owner_)
{
}

ThreadInternals::~ThreadInternals()
{
    const Lock lock(mutex);
    switch (state.load()) {
    case NEW:
    case FAILED:
        return;
    case STARTING:
    case CANCEL_PENDING:
    case RUNNING:
    case CANCELLED:
        std::cerr << "\n\n**** Thread must not be deleted while it is running!" << std::endl;
        std::abort();
    case FINISHED:
        break;
    }
    // The ending thread is out of `runFinished` and needs the mutex no more.
    const int error = pthread_join(handle, nullptr);
    if (error == 0)
        return;
    GeneralExceptionThrower thrower(error);
    thrower.handle(ESRCH, "ESRCH");
    thrower.handle(EDEADLK, "EDEADLK");
    thrower.handle(EINVAL, "EINVAL");
    thrower.writeNow("in pthread_join in ~ThreadInternals", std::cerr);
}

int ThreadInternals::getState() const
{
    return state;
}

/// The new thread waits for the mutex in `started`, so that it finds the handle stored.
void ThreadInternals::start(int stackSize, int priority, int schedPolicy)
{
    const Lock lock(mutex);
    if (state != NEW)
        throw GeneralException("Cannot start thread that has already been started!", false);
    const int error = stackSize == unset && priority == unset ? create(nullptr)
                                                              : createWithAttributes(stackSize, priority, schedPolicy);
    if (error == 0)
        return;
    fail();
    GeneralExceptionThrower thrower(error);
    thrower.handle(EAGAIN, "EAGAIN");
    thrower.handle(EINVAL, "EINVAL");
    thrower.handle(EPERM, "EPERM");
    thrower.throwNow(" in pthread_create");
}

int ThreadInternals::createWithAttributes(int stackSize, int priority, int schedPolicy)
{
    pthread_attr_t attributes;
    (void)pthread_attr_init(&attributes);
    // A size that the system refuses leaves the default.
    if (stackSize != unset)
        (void)pthread_attr_setstacksize(&attributes, static_cast<size_t>(stackSize));
    if (schedPolicy != unset && priority != unset) {
        (void)pthread_attr_setinheritsched(&attributes, PTHREAD_EXPLICIT_SCHED);
        int result = pthread_attr_setschedpolicy(&attributes, schedPolicy);
        requireInStart(!result, "!result", __LINE__);
        int checkPolicy = unset;
        result = pthread_attr_getschedpolicy(&attributes, &checkPolicy);
        requireInStart(!result, "!result", __LINE__);
        requireInStart(checkPolicy == schedPolicy, "checkPolicy == schedPolicy", __LINE__);
        sched_param parameters{};
        parameters.sched_priority = priority;
        result = pthread_attr_setschedparam(&attributes, &parameters);
        requireInStart(!result, "!result", __LINE__);
    }
    const int error = create(&attributes);
    (void)pthread_attr_destroy(&attributes);
    return error;
}

int ThreadInternals::create(const pthread_attr_t* attributes)
{
    state = STARTING;
    requireInStart(quorvil::intern::threadKeyCreated(), "keyCreated", __LINE__);
    return pthread_create(&handle, attributes, pthreadFunc, this);
}

/// With the mutex held.
void ThreadInternals::fail()
{
    state = FAILED;
    finishedCond.broadcast();
}

void ThreadInternals::join()
{
    Lock lock(mutex);
    while (state < FINISHED || state > FAILED)
        lock.wait(finishedCond);
}

void ThreadInternals::cancel()
{
    const Lock lock(mutex);
    if (state == STARTING) {
        state = CANCEL_PENDING;
        return;
    }
    if (state != RUNNING)
        return;
    // Under the mutex: the thread cannot have ended since the test of the state.
    const int error = pthread_cancel(handle);
    if (error == 0) {
        state = CANCELLED;
        return;
    }
    fail();
    GeneralExceptionThrower thrower(error);
    thrower.handle(ESRCH, "ESRCH");
    thrower.throwNow("in pthread_cancel in Thread::cancel in state RUNNING");
}

std::ostream& ThreadInternals::out() const
{
    TimeSpec now;
    now.initNow(CLOCK_MONOTONIC);
    return std::cout << "[" + name + " " + now.toShortString() + "] ";
}

bool ThreadInternals::started()
{
    const Lock lock(mutex);
    switch (state.load()) {
    case STARTING:
        state = RUNNING;
        return true;
    case CANCEL_PENDING:
        state = CANCELLED;
        return false;
    default:
        std::cerr << "Unexpected state in ThreadInternals::started: " + std::to_string(state) + "\n";
        return true;
    }
}

void ThreadInternals::runFinished()
{
    const Lock lock(mutex);
    if (state == RUNNING || state == CANCELLED) {
        state = FINISHED;
        finishedCond.broadcast();
        return;
    }
    const std::string text = "Unexpected state in runFinished: " + std::to_string(state);
    std::cerr << text + "\n";
    fail();
    throw GeneralException(text, false);
}

void* pthreadFunc(void* argument)
{
    auto* const internals = static_cast<ThreadInternals*>(argument);
    const EndWithoutKey end(storeUnderKey(internals) ? nullptr : internals);
    if (internals->started())
        internals->owner->run();
    return nullptr;
}

Thread::Thread(const std::string& name)
    : internals(this, name)
{
}

Thread::~Thread() = default;

int Thread::getState() const
{
    return internals.getState();
}

Thread* Thread::current()
{
    if (!quorvil::intern::threadKeyCreated())
        return nullptr;
    const void* const internals = pthread_getspecific(quorvil::intern::threadKey());
    return internals != nullptr ? static_cast<const ThreadInternals*>(internals)->owner : nullptr;
}

void Thread::start(int stackSize, int priority, int schedPolicy)
{
    internals.start(stackSize, priority, schedPolicy);
}

void Thread::join()
{
    internals.join();
}

void Thread::cancel()
{
    internals.cancel();
}

std::ostream& Thread::out() const
{
    return internals.out();
}

void Thread::msleep(int ms)
{
    TimeSpec pause;
    pause.initFromMs(ms);
    if (nanosleep(pause.to_c(), nullptr) == 0)
        return;
    GeneralExceptionThrower thrower(errno);
    thrower.handle(EINTR, "EINTR");
    thrower.handle(EINVAL, "EINVAL");
    thrower.handle(ENOSYS, "ENOSYS");
    thrower.throwNow("in nanosleep in Thread::msleep");
}

} // namespace util

// No caller stands on the exit path of a thread: what `runFinished` throws there ends the process.
void quorvil::intern::threadKeyDestructor(void* value) noexcept
{
    static_cast<util::ThreadInternals*>(value)->runFinished();
}
