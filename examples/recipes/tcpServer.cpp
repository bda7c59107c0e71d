#include "Quorvil/QuorvilParseNum.h"
#include "Quorvil/QuorvilSocket.h"
#include "Quorvil/ThreadSafeStream.h"

#include <csignal>
#include <functional>
#include <thread>

namespace {

void echo(net::Socket& client)
try {
    for (;;)
        client.write(client.read());
} catch (const net::SocketException& end) {
    safeCout << "client: " << end.getMessage() << '\n';
}

void serve(net::ServerSocket& server)
try {
    for (;;)
        echo(*server.accept());
} catch (const net::SocketException& end) {
    safeCout << "server: " << end.getMessage() << '\n';
}

} // namespace

int main(int argc, char** argv)
{
    std::signal(SIGPIPE, SIG_IGN); // a peer that is gone is an exception then
    const int port = static_cast<int>(parseNum(argc > 1 ? argv[1] : "9100"));
    const auto server = net::ServerSocket::create(port);
    std::thread thread(serve, std::ref(*server));

    const net::Socket::Ptr client = net::Socket::create("127.0.0.1", port);
    client->write('Q');
    safeCout << "echo: " << static_cast<char>(client->read()) << '\n';
    client->close();
    server->close(); // ends the accept, within a second, and returns behind it
    thread.join();
}
