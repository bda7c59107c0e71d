// Controller.h: the printer as a service, all its threads and what they share

#ifndef LABELPRINTER_CONTROLLER_H
#define LABELPRINTER_CONTROLLER_H

#include "Console.h"
#include "Drives.h"
#include "Engine.h"
#include "Heartbeat.h"
#include "Intake.h"
#include "JobDesk.h"
#include "JobStore.h"
#include "Notifier.h"
#include "Output.h"
#include "PageFlow.h"
#include "Sensor.h"
#include "Spool.h"
#include "StateFolder.h"
#include "Status.h"
#include "TimeRecords.h"
#include "Worker.h"

#include "Quorvil/InitCondVar.h"
#include "Quorvil/PollingThread.h"
#include "Quorvil/WaitThread.h"

#include <optional>
#include <string>

namespace labelPrinter {

/// What the command line says about the service.
struct ServiceOptions
{
    /// 0: no service.
    int port = 0;
    std::string state;
    /// Empty: the system's fixed folder, and `spool` in the state folder.
    std::string drives, spool;
    /// A shell command for each job that leaves; empty: none.
    std::string notify;
    bool times = false;
    bool trace = false;
    bool dumpCore = false;
    bool console = false;
    int heartbeatSeconds = 0;
};

/// Runs the service until one of the stop signals comes.
///
/// @throws Failure  it cannot start
void serve(const ServiceOptions& options);

/// Puts the parts together. The order of the members is the order in which they are made; they stop in the order that
/// `stop` tells, from those who bring jobs to those who end them.
class Controller
{
public:
    /// Opens everything, and starts what waits for work.
    ///
    /// @throws Failure  the state folder, the database or the spool folder cannot be used
    explicit Controller(const ServiceOptions& options);
    ~Controller();
    Controller(const Controller&) = delete;
    Controller& operator=(const Controller&) = delete;

    /// Starts the other threads and lets them work: first of all on the jobs that waited. The port is no condition: a
    /// printer whose port is taken prints what it has.
    void start();

    /// Stops in good order: no new jobs, clients that have sent a job get their answer, the engine finishes its page,
    /// the job in work is given back, nothing is half written.
    void stop();

private:
    StateFolder folder;
    /// Made before the worker: were there none, the worker would begin a job that nobody prints.
    std::string spoolFolder;
    Drives drives;
    JobStore store;
    Status status;
    TimeRecords times;
    PageFlow flow;
    util::InitCondVar gate;
    Notifier notifier;
    Output output;
    Engine engine;
    Worker worker;
    std::optional<WaitThread> workerThread;
    JobDesk desk;
    Intake intake;
    Spool spool;
    std::optional<PollingThread> spoolThread;
    Sensor sensor;
    std::optional<PollingThread> sensorThread;
    std::optional<Heartbeat> heartbeat;
    int heartbeatSeconds;
    std::optional<Console> console;
    std::optional<PollingThread> consoleThread;
};

} // namespace labelPrinter

#endif
