// Intake.h: takes in jobs over TCP

#ifndef LABELPRINTER_INTAKE_H
#define LABELPRINTER_INTAKE_H

#include "ClientLine.h"

#include "Quorvil/InitCondVar.h"
#include "Quorvil/PollingThread.h"
#include "Quorvil/QuorvilBlockingQueue.h"
#include "Quorvil/QuorvilSocket.h"
#include "Quorvil/Thread.h"
#include "Quorvil/WaitCond.h"

#include <array>
#include <memory>
#include <optional>
#include <string>

namespace labelPrinter {

/// The listening thread, and the lines that serve its clients, a fixed number of them. While all lines are in use, the
/// next clients wait in the system's queue. Where the port is taken, a line says so, and the printer tries again every
/// second.
class Intake : private util::Thread, private IPollingThreadHandler
{
public:
    /// @param desk, status, gate  not owned, outlive this object
    Intake(int port, JobDesk& desk, Status& status, util::InitCondVar& gate);
    ~Intake() override;

    /// Listens once the gate is open.
    void start();

    /// Closes the port, lets the lines end, and waits for all threads, about a second at most.
    void stop();

private:
    /// A line that waits for a client.
    struct FreeLine
    {
        ClientLine* line = nullptr;
    };
    using FreeLines = quorvil::BlockingQueue<FreeLine, std::allocator<FreeLine>>;

    static constexpr size_t lineCount = 8;

    void run() override;
    void event() override;
    std::shared_ptr<net::ServerSocket> listen();
    void acceptClients(net::ServerSocket& server);
    /// The next client, or none, and why is told.
    net::Socket::Ptr accept(net::ServerSocket& server);
    void tell(const std::string& trouble);
    bool isStopping();
    /// Waits until it is time to try again, or `stop` is called.
    void pause();

    int port;
    util::InitCondVar& gate;
    FreeLines freeLines;
    std::array<std::unique_ptr<ClientLine>, lineCount> lines;
    std::optional<PollingThread> watch;
    util::RecursiveMutex mutex;
    util::WaitCond stopped;
    /// Under the mutex.
    bool stopping = false;
    std::shared_ptr<net::ServerSocket> listening;
    /// What was told last, so that no line comes twice in a row. Under the mutex, too.
    std::string told;
    bool started = false;
};

} // namespace labelPrinter

#endif
