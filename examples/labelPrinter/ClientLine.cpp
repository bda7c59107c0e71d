#include "ClientLine.h"

#include "Failure.h"
#include "JobDesk.h"
#include "NamedThread.h"
#include "Status.h"

#include <exception>
#include <utility>

namespace labelPrinter {

namespace {

constexpr const char* stoppingWords = "the printer is stopping";

} // namespace

ClientLine::ClientLine(JobDesk& theDesk, Status& theStatus, std::function<void(ClientLine*)> theFree)
    : desk(theDesk)
    , status(theStatus)
    , free(std::move(theFree))
    , clients(1, {})
    , thread(startThread("client", [this] { run(); }))
{
}

ClientLine::~ClientLine()
{
    stop();
    thread.join();
}

void ClientLine::serve(net::Socket::Ptr client)
{
    clients.push(std::move(client));
}

void ClientLine::tick()
{
    if (const auto client = served())
        client->tick();
}

void ClientLine::stop()
{
    clients.close();
    std::shared_ptr<Connection> client;
    {
        const std::lock_guard lock(mutex);
        stopping = true;
        client = current;
    }
    if (client)
        client->drop(stoppingWords);
}

std::shared_ptr<Connection> ClientLine::served()
{
    const std::lock_guard lock(mutex);
    return current;
}

void ClientLine::run()
{
    try {
        for (;;) {
            auto client = std::make_shared<Connection>(clients.pop());
            {
                const std::lock_guard lock(mutex);
                current = client;
                // Who stops the line has looked for a client before this one came.
                if (stopping)
                    client->drop(stoppingWords);
            }
            client->answer(answerTo(*client));
            {
                const std::lock_guard lock(mutex);
                current.reset();
            }
            // The connection ends before another client may come.
            client.reset();
            free(this);
        }
    } catch (const quorvil::BlockingQueueClosedException&) {
        return;
    }
}

std::string ClientLine::answerTo(Connection& client)
{
    try {
        const std::string text = client.receive();
        if (const auto words = status.answer(text.substr(0, text.find_last_not_of("\r\n") + 1)))
            return *words;
        return "accepted " + std::to_string(desk.accept(text, fromNetwork));
    } catch (const std::exception& reason) {
        return std::string("refused: ") + reason.what();
    }
}

} // namespace labelPrinter
