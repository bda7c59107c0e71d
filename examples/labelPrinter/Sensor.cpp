#include "Sensor.h"

#include "Engine.h"
#include "JobStore.h"
#include "NamedThread.h"
#include "PageFlow.h"
#include "Status.h"

#include "Quorvil/ThreadSafeStream.h"
#include "Quorvil/WaitThread.h"

namespace labelPrinter {

namespace {

constexpr int lowPercent = 10;
constexpr int looksPerSecond = 1'000'000 / Sensor::intervalMicroseconds;
constexpr int looksPerRetry = 5 * looksPerSecond;

} // namespace

Sensor::Sensor(const Engine& theEngine, PageFlow& theFlow, Status& theStatus, JobStore& theStore, WaitThread& theWorker)
    : engine(theEngine)
    , flow(theFlow)
    , status(theStatus)
    , store(theStore)
    , worker(theWorker)
    , speed(Engine::rowsPerRoll, looksPerSecond)
{
}

void Sensor::event()
{
    nameThread("sensor");
    const EngineState now = engine.state();
    const int left = 100 - static_cast<int>(int64_t{now.position.pos} * 100 / Engine::rowsPerRoll);
    status.sensed({now.position, left, flow.inFlight(), speed.look(now.position), now.feeding, now.realTime});
    if (left <= lowPercent && !warned)
        safeCerr << "labelPrinter: " << left << " % of the paper are left" << std::endl;
    warned = left <= lowPercent;
    if (++looks % looksPerRetry != 0)
        return;
    store.releaseHeld();
    // Always: the worker also sleeps where it found jobs that it could not read.
    worker.notify();
}

} // namespace labelPrinter
