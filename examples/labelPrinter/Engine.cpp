#include "Engine.h"

#include "NamedThread.h"
#include "Trace.h"

#include "Quorvil/QuorvilBits.h"
#include "Quorvil/ThreadSafeStream.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <pthread.h>
#include <sched.h>
#include <string>
#include <system_error>
#include <utility>

namespace labelPrinter {

namespace {

constexpr int priority = 50;
constexpr uint32_t stackKiB = 128;
constexpr int bandRows = 256;

/// The bits of the engine's word: the row, and two flags.
constexpr int rowBits = 22;
constexpr int feedingBit = 22;
constexpr int realTimeBit = 23;
static_assert(Engine::rowsPerRoll <= 1 << rowBits);

/// Whether a thread of this process may have the engine's priority: 0, or the error number. Both kinds of real-time
/// thread end the process where the answer is no, so it is asked beforehand, by the calling thread for itself.
int realTimeError()
{
    int policy = 0;
    sched_param before = {};
    pthread_getschedparam(pthread_self(), &policy, &before);
    sched_param wanted = {};
    wanted.sched_priority = priority;
    const int error = pthread_setschedparam(pthread_self(), SCHED_FIFO, &wanted);
    if (error == 0)
        pthread_setschedparam(pthread_self(), policy, &before);
    return error;
}

uint32_t blackDots(const uint8_t* bytes, int count)
{
    uint32_t dots = 0;
    for (int i = 0; i < count; ++i)
        dots += static_cast<uint32_t>(std::popcount(bytes[i]));
    return dots;
}

} // namespace

Engine::Engine(PageFlow& theFlow, util::InitCondVar& theGate)
    : flow(theFlow)
    , gate(theGate)
{
}

Engine::~Engine()
{
    stop();
}

void Engine::start()
{
    started = true;
    const int error = realTimeError();
    const CallerKeepsName callerKeepsName;
    if (error == 0) {
        word = 1U << realTimeBit;
        NonLockingWaitThreadBase::start(this, priority);
        safeCout << "labelPrinter: the engine has real-time priority " << priority << std::endl;
        return;
    }
    safeCerr << "labelPrinter: real-time priority is not allowed: " << std::generic_category().message(error)
             << "; the engine runs without it (allow it by 'setcap cap_sys_nice+ep labelPrinter' or 'ulimit -r "
             << priority << "')" << std::endl;
    ordinary = quorvil::Pthread([this] { return run(); }, stackKiB);
}

void Engine::stop()
{
    flow.toEngine().close();
    if (!std::exchange(started, false))
        return;
    joinWorker();
    try {
        ordinary.join();
    } catch (const std::system_error& noThread) {
        // The engine was the real-time thread.
        if (noThread.code().value() != ESRCH)
            throw;
    }
}

EngineState Engine::state() const
{
    const uint32_t now = word;
    return {{static_cast<int>(bits(now, 0, rowBits))}, bits(now, feedingBit, 1) != 0, bits(now, realTimeBit, 1) != 0};
}

void Engine::tell(int row, bool feeding)
{
    uint32_t now = word;
    setBits(now, 0, rowBits, static_cast<uint32_t>(row));
    setBits(now, feedingBit, 1, feeding);
    word = now;
}

void Engine::waitOnce()
{
    if (!ready) {
        nameThread("engine");
        gate.waitUntilInitialized("labelPrinter: the engine");
        ready = true;
    }
    try {
        page = flow.toEngine().pop();
        event();
        flow.toOutput().push(std::move(page));
    } catch (const quorvil::BlockingQueueClosedException&) {
        requestStop();
    }
}

void Engine::event()
{
    const Image& image = page->image;
    page->dots = 0;
    int row = state().position.pos;
    for (int y = 0; y < image.height(); y += bandRows) {
        const int end = std::min(y + bandRows, image.height());
        for (int band = y; band < end; ++band)
            page->dots += blackDots(image.row(band), image.bytesPerRow());
        row = quorvil::stream::normalizePos(row + end - y, rowsPerRoll);
        tell(row, true);
        traceBand(page->number, y / bandRows + 1, y, true);
    }
    tell(row, false);
    page->reach("fed");
}

} // namespace labelPrinter
