// Connection.h: one client, from its first byte to its answer

#ifndef LABELPRINTER_CONNECTION_H
#define LABELPRINTER_CONNECTION_H

#include "Quorvil/QuorvilSocket.h"

#include <atomic>
#include <cstddef>
#include <mutex>
#include <string>

namespace labelPrinter {

/// Receives one job and sends one line. A client that keeps silent is dropped by a thread that watches.
///
/// | State     | `receive`            | `answer` | `drop`, and `tick` after too long        |
/// |-----------|----------------------|----------|------------------------------------------|
/// | receiving | answering at the end | -        | sends the reason, closes: dropped        |
/// | answering | -                    | sends    | nothing: the client gets its own answer  |
/// | dropped   | ends with a failure  | nothing  | nothing                                  |
class Connection
{
public:
    /// How often `tick` is to be called.
    static constexpr int ticksPerSecond = 4;

    explicit Connection(net::Socket::Ptr socket);
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    /// Reads to the end of the stream, or to a line `end`.
    ///
    /// @return the job without that line; where it is longer than a job may be, only its first part, longer still
    /// @throws Failure  the client was dropped, or the connection broke
    std::string receive();

    /// Sends a line, in which control characters are replaced. A client that is gone does not get it.
    void answer(const std::string& line);

    /// Sends "refused: " and the reason, and closes, unless the job was received before. Any thread may call.
    void drop(const std::string& why);

    /// Drops a client that has sent nothing for 5 seconds, or has not sent all in a minute. For the thread that
    /// watches.
    void tick();

private:
    enum class State
    {
        receiving,
        answering,
        dropped
    };

    /// The next byte, or -1 at the end of the stream.
    int next();
    void send(const std::string& line);

    const net::Socket::Ptr socket;
    std::mutex mutex;
    State state = State::receiving;
    std::atomic<size_t> received{0};
    /// Of the thread that watches.
    size_t seen = 0;
    int silentTicks = 0;
    int ticks = 0;
};

} // namespace labelPrinter

#endif
