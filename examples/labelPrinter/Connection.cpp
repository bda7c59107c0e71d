#include "Connection.h"

#include "Failure.h"
#include "JobDesk.h"

#include <utility>

namespace labelPrinter {

namespace {

constexpr int mostSilentSeconds = 5;
constexpr int mostSeconds = 60;
/// Of the longest job, with a last line "end\r" behind it whose end has not come yet.
constexpr size_t mostBytes = longestJob + 4;

bool isEndLine(const std::string& text, size_t lineBegin)
{
    return text.compare(lineBegin, std::string::npos, "end") == 0 ||
           text.compare(lineBegin, std::string::npos, "end\r") == 0;
}

} // namespace

Connection::Connection(net::Socket::Ptr theSocket)
    : socket(std::move(theSocket))
{
}

std::string Connection::receive()
{
    std::string text;
    size_t lineBegin = 0;
    bool tooLong = false;
    for (int byte = 0; byte >= 0;) {
        byte = next();
        if ((byte < 0 || byte == '\n') && isEndLine(text, lineBegin)) {
            text.resize(lineBegin);
            break;
        }
        if (byte >= 0)
            text.push_back(static_cast<char>(byte));
        if (byte == '\n')
            lineBegin = text.size();
        // The rest is read, too: a client that is still sending would lose its answer if we closed.
        if (text.size() > mostBytes) {
            tooLong = true;
            text.clear();
            lineBegin = 0;
        }
    }
    if (tooLong)
        text.assign(mostBytes + 1, '#');
    const std::lock_guard lock(mutex);
    if (state == State::dropped)
        throw Failure("the client was dropped");
    state = State::answering;
    return text;
}

int Connection::next()
{
    try {
        const int byte = socket->read();
        ++received;
        return byte;
    } catch (const net::SocketException& end) {
        if (end.getMessage().starts_with("EOF"))
            return -1;
        throw Failure(end.getMessage());
    }
}

void Connection::answer(const std::string& line)
{
    const std::lock_guard lock(mutex);
    if (state != State::dropped)
        send(line);
}

void Connection::send(const std::string& line)
{
    try {
        for (const char c : printable(line))
            socket->write(static_cast<unsigned char>(c));
        socket->write('\n');
    } catch (const net::SocketException&) {
        // The client is gone. What was accepted is accepted.
        return;
    }
}

void Connection::drop(const std::string& why)
{
    const std::lock_guard lock(mutex);
    if (state != State::receiving)
        return;
    state = State::dropped;
    send("refused: " + why);
    try {
        socket->close();
    } catch (const net::SocketException&) {
        // It is broken already, which has woken the reader as well; the destructor closes it.
        return;
    }
}

void Connection::tick()
{
    const size_t now = received;
    silentTicks = now == seen ? silentTicks + 1 : 0;
    seen = now;
    ++ticks;
    if (silentTicks >= mostSilentSeconds * ticksPerSecond)
        drop("nothing came for " + std::to_string(mostSilentSeconds) + " seconds");
    else if (ticks >= mostSeconds * ticksPerSecond)
        drop("the job took longer than " + std::to_string(mostSeconds) + " seconds");
}

} // namespace labelPrinter
