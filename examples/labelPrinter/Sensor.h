// Sensor.h: looks after the engine and its paper

#ifndef LABELPRINTER_SENSOR_H
#define LABELPRINTER_SENSOR_H

#include "FeedSpeed.h"

#include "Quorvil/PollingThread.h"

class WaitThread;

namespace labelPrinter {

class Engine;
class JobStore;
class PageFlow;
class Status;

/// Reads the engine's position and the paper that is left, and tells the status. It warns once a roll where little is
/// left. Every 5 seconds it lets held jobs be tried again, and those that could not be read.
class Sensor : public IPollingThreadHandler
{
public:
    /// How often to look.
    static constexpr int intervalMicroseconds = 200'000;

    /// @param engine, flow, status, store, worker  not owned, outlive this object
    Sensor(const Engine& engine, PageFlow& flow, Status& status, JobStore& store, WaitThread& worker);

    /// Looks once.
    void event() override;

private:
    const Engine& engine;
    PageFlow& flow;
    Status& status;
    JobStore& store;
    WaitThread& worker;
    FeedSpeed speed;
    bool warned = false;
    int looks = 0;
};

} // namespace labelPrinter

#endif
