#include "Quorvil/QuorvilPthread.h"

#include "Quorvil/QuorvilAssert.h"
#include "Quorvil/QuorvilLog.h"
#include "Quorvil/SafeLinuxCalls.h"

#include <cerrno>
#include <cstddef>
#include <exception>
#include <iostream>
#include <memory>
#include <system_error>
#include <utility>

#include <sched.h>
#include <sys/prctl.h>
#include <unistd.h>

QUORVIL_LOG_GROUP("Noname");

namespace quorvil {
namespace {

constexpr char source[] = "Quorvil/QuorvilPthread";

constexpr int32_t running = 0;
constexpr int32_t joined = 1;
constexpr int32_t empty = 2;
constexpr pthread_t noHandle = static_cast<pthread_t>(-1);

constexpr char contextFunc[] = "quorvil::Pthread::Pthread(quorvil::Pthread::Func, void*, uint32_t)";
constexpr char contextAlternative[] = "quorvil::Pthread::Pthread(quorvil::Pthread::AlternativeFunc, uint32_t)";
constexpr char contextFuncScheduled[] = "quorvil::Pthread::Pthread(quorvil::Pthread::Func, void*, uint32_t, int, int)";
constexpr char contextAlternativeScheduled[] =
    "quorvil::Pthread::Pthread(quorvil::Pthread::AlternativeFunc, uint32_t, int, int)";

size_t stackBytes(uint32_t stackKiB)
{
    constexpr uint32_t smallest = 16384;
    const uint32_t bytes = stackKiB * 1024U;
    if (bytes < smallest)
        return smallest;
    const auto page = static_cast<size_t>(getpagesize());
    const size_t beyond = bytes % page;
    return beyond == 0 ? bytes : bytes + (page - beyond);
}

/// The attributes of the thread to be, released also where its packet cannot be made.
class Attributes
{
public:
    Attributes(const char* callersContext, uint32_t stackKiB)
        : context(callersContext)
    {
        util::safePosix(context, source, __LINE__, pthread_attr_init(&attributes));
        initialised = true;
        util::safePosix(context, source, __LINE__, pthread_attr_setstacksize(&attributes, stackBytes(stackKiB)));
    }

    Attributes(const Attributes&) = delete;
    Attributes& operator=(const Attributes&) = delete;

    ~Attributes()
    {
        // Still there means that an exception is on its way, which matters more than this result.
        if (initialised)
            pthread_attr_destroy(&attributes);
    }

    void schedule(int schedpolicy, int priority)
    {
        sched_param parameters{};
        parameters.sched_priority = priority;
        util::safePosix(context, source, __LINE__, pthread_attr_setinheritsched(&attributes, PTHREAD_EXPLICIT_SCHED));
        util::safePosix(context, source, __LINE__, pthread_attr_setschedpolicy(&attributes, schedpolicy));
        util::safePosix(context, source, __LINE__, pthread_attr_setschedparam(&attributes, &parameters));
    }

    void startThread(std::unique_ptr<intern::InternThread> packet, pthread_t& handle)
    {
        util::safePosix(context, source, __LINE__, pthread_create(&handle, &attributes, pthreadFunc, packet.get()));
        // From here on the new thread owns the packet, and may have deleted it already.
        static_cast<void>(packet.release());
        // It names the calling thread. A name that is refused harms nobody.
        prctl(PR_SET_NAME, "Pthread", 0, 0);
        initialised = false;
        util::safePosix(context, source, __LINE__, pthread_attr_destroy(&attributes));
    }

private:
    const char* context;
    pthread_attr_t attributes;
    bool initialised = false;
};

void requirePolicy(int schedpolicy, const char* context)
{
    intern::require(schedpolicy == SCHED_OTHER || schedpolicy == SCHED_RR || schedpolicy == SCHED_FIFO,
                    "schedpolicy == 0 || schedpolicy == 2 || schedpolicy == 1", source, __LINE__, context);
}

[[noreturn]] void throwSystemError(int code)
{
    throw std::system_error(code, std::generic_category());
}

} // namespace

Pthread::Pthread() noexcept
    : state(empty)
    , handle(noHandle)
{
}

Pthread::Pthread(Func func, void* arg, uint32_t stackKiB)
    : state(running)
    , handle(noHandle)
{
    Attributes attributes(contextFunc, stackKiB);
    attributes.startThread(std::make_unique<intern::InternThread>(func, arg), handle);
}

Pthread::Pthread(AlternativeFunc func, uint32_t stackKiB)
    : state(running)
    , handle(noHandle)
{
    Attributes attributes(contextAlternative, stackKiB);
    attributes.startThread(std::make_unique<intern::InternThread>(std::move(func)), handle);
}

Pthread::Pthread(Func func, void* arg, uint32_t stackKiB, int schedpolicy, int priority)
    : state(running)
    , handle(noHandle)
{
    requirePolicy(schedpolicy, contextFuncScheduled);
    Attributes attributes(contextFuncScheduled, stackKiB);
    attributes.schedule(schedpolicy, priority);
    attributes.startThread(std::make_unique<intern::InternThread>(func, arg), handle);
}

Pthread::Pthread(AlternativeFunc func, uint32_t stackKiB, int schedpolicy, int priority)
    : state(running)
    , handle(noHandle)
{
    requirePolicy(schedpolicy, contextAlternativeScheduled);
    Attributes attributes(contextAlternativeScheduled, stackKiB);
    attributes.schedule(schedpolicy, priority);
    attributes.startThread(std::make_unique<intern::InternThread>(std::move(func)), handle);
}

Pthread::Pthread(Pthread&& other) noexcept
    : state(std::exchange(other.state, empty))
    , handle(std::exchange(other.handle, noHandle))
{
}

Pthread& Pthread::operator=(Pthread&& other) noexcept
{
    if (state == running) {
        std::cerr << "FEHLER: move-Zuweisung an Pthread-Objekt das bereits laufenden Thread enthaelt!\n";
        std::terminate();
    }
    state = other.state;
    handle = other.handle;
    other.state = empty;
    other.handle = noHandle;
    return *this;
}

Pthread::~Pthread()
{
    if (state == running) {
        std::cerr << "FEHLER: Pthread-Objekt zerstoert, das noch laufenden Thread enthaelt! "
                     "Erst join() oder detach() aufrufen!!\n";
        std::terminate();
    }
}

void* Pthread::join()
{
    if (state != running)
        throwSystemError(ESRCH);
    if (pthread_equal(pthread_self(), handle))
        throwSystemError(EDEADLK);
    void* result = nullptr;
    util::safePosix("void* quorvil::Pthread::join()", source, __LINE__, pthread_join(handle, &result));
    state = joined;
    return result;
}

void Pthread::detach()
{
    if (state != running)
        throwSystemError(EINVAL);
    util::safePosix("void quorvil::Pthread::detach()", source, __LINE__, pthread_detach(handle));
    state = empty;
    handle = noHandle;
}

bool Pthread::joinable() const noexcept
{
    return state == running;
}

void* pthreadFunc(void* t)
{
    static constexpr char context[] = "void* quorvil::pthreadFunc(void*)";
    auto* const packet = static_cast<intern::InternThread*>(t);
    const Pthread::Func f = packet->f;
    void* const arg = packet->arg;
    std::function<void*()> f2;
    if (f == nullptr) {
        intern::require(static_cast<bool>(packet->alternativeF), "t->alternativeF", source, __LINE__, context);
        f2 = std::move(packet->alternativeF);
    }
    delete packet;

    if (f != nullptr)
        return f(arg);
    intern::require(static_cast<bool>(f2), "f2", source, __LINE__, context);
    return f2();
}

namespace intern {

InternThread::InternThread(Pthread::Func func, void* argument) noexcept
    : f(func)
    , arg(argument)
{
}

InternThread::InternThread(std::function<void*()> func)
    : f(nullptr)
    , arg(nullptr)
    , alternativeF(std::move(func))
{
}

InternThread::~InternThread() = default;

} // namespace intern
} // namespace quorvil
