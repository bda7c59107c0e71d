// ClientLine.h: a thread that serves clients, one at a time

#ifndef LABELPRINTER_CLIENTLINE_H
#define LABELPRINTER_CLIENTLINE_H

#include "Connection.h"

#include "Quorvil/QuorvilBlockingQueue.h"
#include "Quorvil/QuorvilPthread.h"
#include "Quorvil/QuorvilSocket.h"

#include <functional>
#include <memory>
#include <mutex>
#include <string>

namespace labelPrinter {

class JobDesk;
class Status;

/// Takes the job of each client that it is given to the desk, and sends the answer. The client that sends a single
/// word that the status answers gets that answer.
class ClientLine
{
public:
    /// @param desk, status  not owned, outlive this object
    /// @param free          is told when the line is free again
    ClientLine(JobDesk& desk, Status& status, std::function<void(ClientLine*)> free);
    ~ClientLine();
    ClientLine(const ClientLine&) = delete;
    ClientLine& operator=(const ClientLine&) = delete;

    /// Serves a client. The line is free.
    void serve(net::Socket::Ptr client);

    /// Watches the client that is being served, if there is one.
    void tick();

    /// Drops the client that is still sending; one that has sent its job gets its answer. Then the line ends.
    void stop();

private:
    using Clients = quorvil::BlockingQueue<net::Socket::Ptr, std::allocator<net::Socket::Ptr>>;

    void run();
    std::string answerTo(Connection& client);
    std::shared_ptr<Connection> served();

    JobDesk& desk;
    Status& status;
    std::function<void(ClientLine*)> free;
    Clients clients;
    std::mutex mutex;
    std::shared_ptr<Connection> current;
    bool stopping = false;
    quorvil::Pthread thread;
};

} // namespace labelPrinter

#endif
