// QuorvilSocket.h: blocking TCP connections over IPv4, one byte a call
// System interfaces, on nothing

#ifndef QUORVIL_QUORVILSOCKET_H
#define QUORVIL_QUORVILSOCKET_H

#include "Quorvil/QuorvilExport.h"

#include <memory>
#include <string>

namespace net {

/// What a socket reports: a text such as "connect failed: Connection refused". It is no `std::exception`.
class QUORVIL_API SocketException
{
public:
    /// Keeps the text.
    ///
    /// @threads any   @realtime allocates
    explicit SocketException(const std::string& message);

    SocketException(const SocketException&) = default;
    SocketException& operator=(const SocketException&) = default;

    /// Releases the text.
    ///
    /// @threads owner   @realtime allocates
    virtual ~SocketException();

    /// The text; what the system had to say follows behind ": ".
    ///
    /// @threads one at a time   @realtime bounded
    const std::string& getMessage() const;

private:
    std::string message;
};

/// One end of a connection. Each byte is one system call.
///
/// | State  | `read`, `write` | `close`                                          |
/// |--------|-----------------|--------------------------------------------------|
/// | open   | one byte        | closed; open still if it throws                  |
/// | closed | throw           | nothing                                          |
///
/// Without a lock: one thread may read while another writes, and a third may close, which wakes a blocked reader
/// and returns when it has left; but only one may close. A thread that reads or writes keeps its own reference to the
/// socket. A signal that cuts a call short is reported as a failure. An accepted socket keeps its server socket alive
/// until it is closed.
///
/// The destructor closes whatever fails, and writes on `std::cerr` the message that `close` would have thrown; a
/// connection that the peer has reset (`ENOTCONN`) is no failure there.
class QUORVIL_API Socket
{
public:
    using Ptr = std::shared_ptr<Socket>;

    /// Connects to `host` and `port`, without a limit of time (`socket`, `gethostbyname_r`, `connect`; close-on-exec).
    ///
    /// @param host  a name or a dotted address, IPv4 only
    /// @param port  the low 16 bits count
    /// @throws SocketException  "socket failed: ", "gethostbyname failed: " or "connect failed: " and what the system
    ///                          calls the error; a host that nobody knows is `ENOENT`
    /// @threads any   @realtime waits
    static Ptr create(const std::string& host, int port);

    /// Waits for one byte (`read`).
    ///
    /// @return 0 to 255
    /// @throws SocketException  "read when socket is not open"; "read failed: " and the system's text; at the end of
    ///     the stream "EOF: " and the text of whatever `errno` held
    /// @threads one at a time   @realtime waits
    virtual int read() = 0;

    /// Sends the low 8 bits of `value` (`write`). `SIGPIPE` is left to the process.
    ///
    /// @throws SocketException  "write when socket is not open"; "write filed: " and the system's text
    /// @threads one at a time   @realtime waits
    virtual void write(int value) = 0;

    /// Ends the connection in both directions and closes (`shutdown`, `close`). The last use of the server socket may
    /// end here, and with it the server socket.
    ///
    /// @throws SocketException  "shutdown failed: " or "close failed: " and the system's text; the socket is still
    ///     open. A connection that the peer has reset fails in `shutdown` each time: only the destructor closes it.
    ///     Behind "close failed: " do not close again: the system may have given the descriptor's number away
    /// @throws std::system_error  the server socket's lock cannot be taken; the socket is closed
    /// @threads one at a time   @realtime waits
    virtual void close() = 0;

    /// Closes, as told above.
    ///
    /// @threads owner   @realtime I/O
    virtual ~Socket();

    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;

protected:
    Socket() = default;
};

/// Waits for connections on one port, on all interfaces.
///
/// | State   | `accept`                                | `close`                               |
/// |---------|-----------------------------------------|---------------------------------------|
/// | open    | waits for a client                      | closing, and closed when none accepts |
/// | closing | throws, also in those who wait already  | waits too                             |
/// | closed  | throws                                  | nothing                               |
///
/// Any number of threads may accept, and any thread that does not may close: `close` returns once no thread is in
/// `accept` any more, within about a second. Accepted sockets go on working behind it. A caller keeps its reference as
/// long as one of its threads is in `accept`.
class QUORVIL_API ServerSocket
{
public:
    /// Closes, and writes on `std::cerr` what `close` would have thrown.
    ///
    /// @threads owner   @realtime waits
    virtual ~ServerSocket();

    ServerSocket(const ServerSocket&) = delete;
    ServerSocket& operator=(const ServerSocket&) = delete;

    /// Listens on `port`, with a backlog of 128 (`socket`, `bind`, `listen`; close-on-exec, no reuse of addresses).
    ///
    /// @param port  the low 16 bits count; 0 is a port of the system's choosing, which is not told
    /// @throws SocketException  "socket failed: ", "bind failed: " or "listen failed: " and the system's text; a
    ///     descriptor too large for `select` counts as `EMFILE` of `listen`
    /// @threads any   @realtime I/O
    static std::shared_ptr<ServerSocket> create(int port);

    /// Waits for a client (`select`, `accept4`; close-on-exec). One that is gone again before it is accepted is not
    /// noticed; the wait goes on.
    ///
    /// @throws SocketException  "accept when server socket is not open!"; "accept interrupted by close"; "select in
    ///     accept failed: ", also after a signal, or "accept failed: " and the system's text
    /// @throws std::system_error  the lock cannot be taken
    /// @threads any   @realtime waits
    virtual Socket::Ptr accept() = 0;

    /// Closes when the last thread has left `accept` (`close`).
    ///
    /// @throws SocketException  "close failed: " and the system's text; `accept` throws from then on
    /// @throws std::system_error  the lock cannot be taken
    /// @threads any   @realtime waits
    virtual void close() = 0;

protected:
    ServerSocket() = default;
};

} // namespace net

#endif
