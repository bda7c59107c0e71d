#include "Intake.h"

#include "NamedThread.h"

#include "Quorvil/ThreadSafeStream.h"
#include "Quorvil/TimeSpec.h"

#include <ctime>
#include <utility>

namespace labelPrinter {

namespace {

constexpr int microsecondsPerTick = 1'000'000 / Connection::ticksPerSecond;
constexpr int stackBytes = 1 << 20;

} // namespace

Intake::Intake(int thePort, JobDesk& desk, Status& status, util::InitCondVar& theGate)
    : Thread("listener")
    , port(thePort)
    , gate(theGate)
    , freeLines(lineCount, {})
{
    for (auto& line : lines) {
        line = std::make_unique<ClientLine>(desk, status, [this](ClientLine* free) { freeLines.push(FreeLine{free}); });
        freeLines.push(FreeLine{line.get()});
    }
}

Intake::~Intake()
{
    stop();
}

void Intake::start()
{
    watch.emplace(static_cast<IPollingThreadHandler*>(this), microsecondsPerTick);
    watch->start();
    Thread::start(stackBytes, -1, -1);
    started = true;
}

void Intake::stop()
{
    std::shared_ptr<net::ServerSocket> server;
    {
        const util::Lock lock(mutex);
        stopping = true;
        server = listening;
        stopped.broadcast();
    }
    freeLines.cancel();
    try {
        if (server)
            server->close();
    } catch (const net::SocketException& trouble) {
        tell(trouble.getMessage());
    }
    // First the listener: a client that it has just accepted is to hear from its line that the printer is stopping.
    if (std::exchange(started, false))
        join();
    for (auto& line : lines)
        if (line)
            line->stop();
    watch.reset();
    for (auto& line : lines)
        line.reset();
}

void Intake::run()
{
    nameThread("listener");
    gate.waitUntilInitialized("labelPrinter: the listener");
    while (!isStopping()) {
        if (const auto server = listen())
            acceptClients(*server);
        pause();
    }
}

std::shared_ptr<net::ServerSocket> Intake::listen()
{
    try {
        auto server = net::ServerSocket::create(port);
        const util::Lock lock(mutex);
        if (stopping)
            return nullptr;
        listening = server;
        told.clear();
        safeCout << "labelPrinter: listening on port " << port << std::endl;
        return server;
    } catch (const net::SocketException& trouble) {
        tell(trouble.getMessage());
        return nullptr;
    }
}

void Intake::acceptClients(net::ServerSocket& server)
{
    try {
        while (!isStopping()) {
            // First a line, then a client: what we cannot serve yet is better off in the system's queue.
            ClientLine* const line = freeLines.pop().line;
            if (auto client = accept(server)) {
                line->serve(std::move(client));
            } else {
                freeLines.push(FreeLine{line});
                // Were the port closed, the connections that have just ended would keep it taken for a minute.
                pause();
            }
        }
    } catch (const quorvil::BlockingQueueCanceledException&) {
        return;
    }
}

net::Socket::Ptr Intake::accept(net::ServerSocket& server)
{
    try {
        auto client = server.accept();
        const util::Lock lock(mutex);
        told.clear();
        return client;
    } catch (const net::SocketException& trouble) {
        if (!isStopping())
            tell(trouble.getMessage());
        return nullptr;
    }
}

void Intake::tell(const std::string& trouble)
{
    const util::Lock lock(mutex);
    if (std::exchange(told, trouble) != trouble)
        safeCerr << "labelPrinter: port " << port << ": " << trouble << "; trying again every second" << std::endl;
}

bool Intake::isStopping()
{
    const util::Lock lock(mutex);
    return stopping;
}

void Intake::pause()
{
    util::TimeSpec until;
    until.initNow(CLOCK_MONOTONIC);
    until += util::TimeSpec(timespec{1, 0});
    util::Lock lock(mutex);
    try {
        while (!stopping)
            lock.timedwait(stopped, until);
    } catch (const util::TimedOutException&) {
        return;
    }
}

void Intake::event()
{
    nameThread("watch");
    for (auto& line : lines)
        line->tick();
}

} // namespace labelPrinter
