#include "Controller.h"

#include "Interrupt.h"
#include "StopSignals.h"
#include "Trace.h"

#include "Quorvil/QuorvilCoreDump.h"
#include "Quorvil/ThreadSafeStream.h"

#include <cstdio>

namespace labelPrinter {

void serve(const ServiceOptions& options)
{
    // Who reads a service's lines from a file or a pipe wants each when it is written.
    (void)std::setvbuf(stdout, nullptr, _IOLBF, 0);
    expectFailedWrites();
    // Before the first thread: the signals are blocked, and the recorder is there.
    StopSignals signals;
    startTrace();
    {
        Controller controller(options);
        controller.start();
        if (options.dumpCore)
            quorvil::coredump::run("labelPrinter");
        signals.wait();
        controller.stop();
    }
    if (options.trace)
        printTrace();
    safeCout << "labelPrinter: stopped" << std::endl;
}

Controller::Controller(const ServiceOptions& options)
    : folder(options.state)
    , spoolFolder(makeFolder(options.spool.empty() ? folder.spool() : options.spool))
    , drives(options.drives)
    , store(folder.database())
    , times(options.times)
    , gate("the printer")
    , notifier(options.notify)
    , output(flow, store, folder, status, times, gate, notifier)
    , engine(flow, gate)
    , worker(store, drives, flow, output, status, times, notifier)
    , workerThread(std::in_place, &worker)
    , desk(drives, store, status, *workerThread)
    , intake(options.port, desk, status, gate)
    , spool(spoolFolder, desk)
    , sensor(engine, flow, status, store, *workerThread)
    , heartbeatSeconds(options.heartbeatSeconds)
{
    if (options.console)
        console.emplace(status);
}

Controller::~Controller()
{
    stop();
}

void Controller::start()
{
    output.start();
    engine.start();
    intake.start();
    spoolThread.emplace(&spool, Spool::intervalMicroseconds);
    sensorThread.emplace(&sensor, Sensor::intervalMicroseconds);
    heartbeat.emplace(status, heartbeatSeconds);
    if (console)
        consoleThread.emplace(&*console, Console::intervalMicroseconds);
    gate.setInitialized();
    spoolThread->start();
    sensorThread->start();
    if (consoleThread)
        consoleThread->start();
    workerThread->notify();
}

void Controller::stop()
{
    // Who waits at the gate could not be joined.
    gate.setInitialized();
    interrupt();
    heartbeat.reset();
    consoleThread.reset();
    intake.stop();
    spoolThread.reset();
    sensorThread.reset();
    workerThread.reset();
    engine.stop();
    output.stop();
    notifier.stop();
    store.giveBackAll();
    times.close();
}

} // namespace labelPrinter
