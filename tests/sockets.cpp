// Real connections on the loopback; what the kernel will not do by itself is done to single calls.

#include "Quorvil/QuorvilSocket.h"

#include "tests/support/allocationCount.h"
#include "tests/support/assertion.h"
#include "tests/support/environment.h"
#include "tests/support/interpose.h"

#include <arpa/inet.h>
#include <atomic>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <netdb.h>
#include <netinet/in.h>
#include <new>
#include <string>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <thread>
#include <type_traits>
#include <unistd.h>
#include <utility>
#include <vector>

SUPPORT_INTERPOSE(int, listen, (int fd, int backlog), (fd, backlog), noexcept)
SUPPORT_INTERPOSE(int, shutdown, (int fd, int how), (fd, how), noexcept)
SUPPORT_INTERPOSE(int, accept4, (int fd, sockaddr* peer, socklen_t* length, int flags), (fd, peer, length, flags), )
SUPPORT_INTERPOSE(int, gethostbyname_r,
                  (const char* name, hostent* entry, char* buffer, size_t size, hostent** found, int* error),
                  (name, entry, buffer, size, found, error), )

SUPPORT_INTERPOSE(int, close, (int fd), (fd), )

namespace {

constinit support::Fault selectFault("select");

}

/// A call that strikes shows an empty set, whatever it returns.
extern "C" __attribute__((visibility("default"))) SUPPORT_UNINSTRUMENTED int select(int count, fd_set* in, fd_set* out,
                                                                                    fd_set* except, timeval* timeout)
{
    const support::Call call(selectFault);
    if (selectFault.strikes()) {
        FD_ZERO(in);
        return static_cast<int>(selectFault.result);
    }
    return support::real<int (*)(int, fd_set*, fd_set*, fd_set*, timeval*)>("select")(count, in, out, except, timeout);
}

namespace {

using net::ServerSocket;
using net::Socket;

static_assert(!std::is_base_of_v<std::exception, net::SocketException>);

/// The message that `action` throws, or nothing.
template <typename Action>
std::string messageOf(Action action)
{
    try {
        action();
    } catch (const net::SocketException& e) {
        return e.getMessage();
    }
    return "";
}

std::string withText(const std::string& message, int error)
{
    return message + ": " + std::strerror(error);
}

std::string reportOf(const std::function<void()>& action)
{
    testing::internal::CaptureStderr();
    action();
    return testing::internal::GetCapturedStderr();
}

/// The descriptor that the next open gets. Open descriptors are counted by it too: no test leaves a gap below.
int nextDescriptor()
{
    const int fd = dup(STDERR_FILENO);
    close(fd);
    return fd;
}

int portOf(int fd)
{
    sockaddr_in address{};
    socklen_t length = sizeof address;
    EXPECT_EQ(getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length), 0);
    return ntohs(address.sin_port);
}

/// A server socket on a port of the system's choosing, with the port.
struct Server
{
    int fd = nextDescriptor();
    std::shared_ptr<ServerSocket> socket = ServerSocket::create(0);
    int port = portOf(fd);
};

/// A client that has been accepted.
struct Connection
{
    explicit Connection(Server& server)
        : clientFd(nextDescriptor())
        , client(Socket::create("127.0.0.1", server.port))
        , acceptedFd(nextDescriptor())
        , accepted(server.socket->accept())
    {
    }

    int clientFd;
    Socket::Ptr client;
    int acceptedFd;
    Socket::Ptr accepted;
};

/// A peer without manners: it ends its connection by a reset.
class RudePeer
{
public:
    explicit RudePeer(int port)
        : fd(socket(AF_INET, SOCK_STREAM, 0))
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<uint16_t>(port));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    }

    void reset() const
    {
        const linger atOnce{1, 0};
        EXPECT_EQ(setsockopt(fd, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce), 0);
        EXPECT_EQ(close(fd), 0);
    }

private:
    int fd;
};

/// Lets calls fail that need not be reached; 0 times ends it.
void arm(support::Fault& fault, int error, int times)
{
    fault.result = -1;
    fault.error = error;
    fault.first = 1;
    fault.calls = 0;
    fault.times = times;
}

/// Every test ends with the descriptors that it began with.
class Sockets : public testing::Test
{
protected:
    ~Sockets() override
    {
        EXPECT_EQ(nextDescriptor(), descriptorBefore);
    }

    const int descriptorBefore = nextDescriptor();
};

TEST_F(Sockets, CarryEveryByteBothWays)
{
    Server server;
    Connection connection(server);
    for (int value = 0; value < 256; ++value) {
        connection.client->write(value);
        EXPECT_EQ(connection.accepted->read(), value);
        connection.accepted->write(value + 256 * (value % 3 - 1));
        EXPECT_EQ(connection.client->read(), value);
    }
    connection.client->write(321);
    EXPECT_EQ(connection.accepted->read(), 65);
    EXPECT_NE(Socket::create("localhost", server.port + 0x10000), nullptr) << "only 16 bits of a port count";
}

TEST_F(Sockets, AreClosedForAProgramThatTheProcessStarts)
{
    Server server;
    Connection connection(server);
    for (const int fd : {server.fd, connection.clientFd, connection.acceptedFd})
        EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
    EXPECT_NE(fcntl(server.fd, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(fcntl(connection.acceptedFd, F_GETFL) & O_NONBLOCK, 0);
}

TEST_F(Sockets, EndOfTheStreamIsToldAsEofWithWhateverErrnoHolds)
{
    Server server;
    Connection connection(server);
    connection.client->write('x');
    connection.client->close();
    EXPECT_EQ(connection.accepted->read(), 'x');
    errno = EXDEV;
    EXPECT_EQ(messageOf([&] { connection.accepted->read(); }), withText("EOF", EXDEV));

    EXPECT_EQ(messageOf([&] { connection.client->read(); }), "read when socket is not open");
    EXPECT_EQ(messageOf([&] { connection.client->write(1); }), "write when socket is not open");
    connection.client->close();
}

TEST_F(Sockets, ResetByThePeerIsToldAndLeavesNothingBehind)
{
    std::signal(SIGPIPE, SIG_IGN);
    Server server;
    for (const bool reads : {true, false}) {
        const RudePeer peer(server.port);
        Socket::Ptr socket = server.socket->accept();
        peer.reset();
        EXPECT_EQ(messageOf([&] { reads ? void(socket->read()) : socket->write(1); }),
                  withText(reads ? "read failed" : "write filed", ECONNRESET));
        for (int i = 0; i < 2; ++i) {
            EXPECT_EQ(messageOf([&] { socket->write(1); }), withText("write filed", EPIPE)) << "it stays open";
            EXPECT_EQ(messageOf([&] { socket->close(); }), withText("shutdown failed", ENOTCONN));
        }
        EXPECT_EQ(reportOf([&] { socket.reset(); }), "");
    }
    // The server is free of it too.
    const std::weak_ptr<ServerSocket> watched = server.socket;
    server.socket.reset();
    EXPECT_TRUE(watched.expired());
    std::signal(SIGPIPE, SIG_DFL);
}

TEST_F(Sockets, CloseWakesABlockedReader)
{
    Server server;
    Connection connection(server);
    std::atomic<bool> reading = false;
    std::thread reader([&] {
        reading = true;
        reading.notify_one();
        const std::string message = messageOf([&] { connection.accepted->read(); });
        EXPECT_TRUE(message.starts_with("EOF: ") || message == "read when socket is not open") << message;
    });
    reading.wait(false);
    connection.accepted->close();
    reader.join();
}

TEST_F(Sockets, FailedCloseLeavesTheSocketOpenAndItsDestructorReports)
{
    Server server;
    for (auto* const fault : {&shutdownFault, &closeFault}) {
        const std::string message = withText(std::string(fault->name) + " failed", EIO);
        {
            Connection connection(server);
            {
                const support::FaultScope scope(*fault, -1, EIO, 1, 1);
                EXPECT_EQ(messageOf([&] { connection.client->close(); }), message);
            }
            EXPECT_EQ(messageOf([&] { connection.client->close(); }), "");
        }
        Connection connection(server);
        EXPECT_EQ(reportOf([&] {
                      const support::FaultScope scope(*fault, -1, EIO, 1, 1);
                      connection.client.reset();
                  }),
                  message + "\n");
        if (fault == &closeFault) {
            EXPECT_EQ(close(connection.clientFd), 0) << "the call that failed was to close this one";
        }
    }
}

TEST_F(Sockets, FailedConnectsLeakNothing)
{
    int closedPort = 0;
    {
        const Server server;
        closedPort = server.port;
    }
    for (int i = 0; i < 300; ++i)
        EXPECT_EQ(messageOf([&] { Socket::create("127.0.0.1", closedPort); }),
                  withText("connect failed", ECONNREFUSED));
    for (const int error : {ENOENT, 0}) {
        const support::FaultScope fault(gethostbyname_rFault, error);
        EXPECT_EQ(messageOf([&] { Socket::create("printer", closedPort); }), withText("gethostbyname failed", error));
    }
    EXPECT_EQ(nextDescriptor(), descriptorBefore);
}

TEST_F(Sockets, NameThatNeedsMoreRoomIsLookedUpAgain)
{
    Server server;
    {
        const support::FaultScope fault(gethostbyname_rFault, ERANGE, 0, 1, 5);
        EXPECT_NE(Socket::create("127.0.0.1", server.port), nullptr);
        EXPECT_EQ(gethostbyname_rFault.calls, 6);
    }
    const support::FaultScope fault(gethostbyname_rFault, ERANGE);
    EXPECT_EQ(messageOf([&] { Socket::create("127.0.0.1", server.port); }), withText("gethostbyname failed", ERANGE));
}

/// Lets no descriptor at or above `limit` come into being.
class DescriptorLimit
{
public:
    explicit DescriptorLimit(int limit)
    {
        getrlimit(RLIMIT_NOFILE, &before);
        rlimit lowered = before;
        lowered.rlim_cur = static_cast<rlim_t>(limit);
        EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &lowered), 0);
    }

    ~DescriptorLimit()
    {
        setrlimit(RLIMIT_NOFILE, &before);
    }

    DescriptorLimit(const DescriptorLimit&) = delete;
    DescriptorLimit& operator=(const DescriptorLimit&) = delete;

private:
    rlimit before{};
};

TEST_F(Sockets, AreNotMadeWithoutADescriptor)
{
    Server server;
    const DescriptorLimit none(nextDescriptor());
    EXPECT_EQ(messageOf([&] { Socket::create("127.0.0.1", server.port); }), withText("socket failed", EMFILE));
    EXPECT_EQ(messageOf([&] { ServerSocket::create(0); }), withText("socket failed", EMFILE));
}

TEST_F(Sockets, ServerThatCannotBindOrListenReportsAndCloses)
{
    Server server;
    const int taken = server.port;
    EXPECT_EQ(messageOf([&] { ServerSocket::create(taken); }), withText("bind failed", EADDRINUSE));
    {
        const support::FaultScope fault(listenFault, -1, EOPNOTSUPP);
        EXPECT_EQ(messageOf([&] { ServerSocket::create(0); }), withText("listen failed", EOPNOTSUPP));
    }
    struct
    {
        const char* name;
        int port;
        int error;
    } const rows[] = {{"bind", taken, EADDRINUSE}, {"listen", 0, EOPNOTSUPP}};
    for (const auto& row : rows) {
        const int fd = nextDescriptor();
        std::string message;
        const std::string report = reportOf([&] {
            const support::FaultScope fault(closeFault, -1, EIO, 1, 1);
            arm(listenFault, EOPNOTSUPP, 1);
            message = messageOf([&] { ServerSocket::create(row.port); });
            arm(listenFault, 0, 0);
        });
        EXPECT_EQ(message, withText(std::string(row.name) + " failed", row.error));
        EXPECT_THAT(report, testing::MatchesRegex(".*:Quorvil/QuorvilSocket:[0-9]+: close after " +
                                                  std::string(row.name) + " error failed: Input/output error\n"));
        close(fd);
    }
}

TEST_F(Sockets, ServerAboveWhatSelectCanWatchIsRefused)
{
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    if (limit.rlim_cur <= FD_SETSIZE)
        GTEST_SKIP() << "this process may not open enough descriptors";
    std::vector<int> filled;
    while (filled.empty() || filled.back() < FD_SETSIZE - 2)
        filled.push_back(dup(STDERR_FILENO));
    {
        Server last;
        EXPECT_EQ(last.fd, FD_SETSIZE - 1);
        Connection connection(last);
        EXPECT_EQ(messageOf([&] { ServerSocket::create(0); }), withText("listen failed", EMFILE));
    }
    for (const int fd : filled)
        close(fd);
}

TEST_F(Sockets, AcceptAndCloseOfAClosedServer)
{
    Server server;
    server.socket->close();
    server.socket->close();
    EXPECT_EQ(messageOf([&] { server.socket->accept(); }), "accept when server socket is not open!");
}

TEST_F(Sockets, CloseOfAServerWaitsForEveryThreadInAccept)
{
    Server server;
    std::atomic<int> inside = 0;
    std::atomic<int> left = 0;
    {
        const support::HookScope hook(selectFault, [&] { ++inside; });
        std::vector<std::thread> threads;
        for (int i = 0; i < 2; ++i)
            threads.emplace_back([&] {
                EXPECT_EQ(messageOf([&] { server.socket->accept(); }), "accept interrupted by close");
                ++left;
            });
        while (inside < 2)
            std::this_thread::yield();
        // The count is given back inside `accept`: what is seen here is that the threads have no way back in.
        server.socket->close();
        EXPECT_EQ(messageOf([&] { server.socket->accept(); }), "accept when server socket is not open!");
        for (std::thread& thread : threads)
            thread.join();
    }
    EXPECT_EQ(left, 2);
}

TEST_F(Sockets, ClientThatSelectHasSeenIsAcceptedUnderClose)
{
    Server server;
    const Socket::Ptr client = Socket::create("127.0.0.1", server.port);
    Socket::Ptr accepted;
    std::thread closer;
    {
        // Behind `select`, another thread closes; only when it waits the accepting one goes on.
        const support::HookScope hook(accept4Fault, [&] {
            closer = std::thread([&] { server.socket->close(); });
            std::string refusal;
            arm(selectFault, EINTR, support::always);
            while (refusal != "accept interrupted by close")
                refusal = messageOf([&] { server.socket->accept(); });
            arm(selectFault, 0, 0);
        });
        accepted = server.socket->accept();
    }
    closer.join();
    EXPECT_EQ(messageOf([&] { server.socket->accept(); }), "accept when server socket is not open!");
    accepted->write(5);
    EXPECT_EQ(client->read(), 5);
}

TEST_F(Sockets, AcceptedSocketOutlivesItsServer)
{
    Server server;
    Connection first(server), second(server);
    const std::weak_ptr<ServerSocket> watched = server.socket;
    server.socket->close();
    server.socket.reset();
    EXPECT_FALSE(watched.expired()) << "accepted sockets hold it";
    for (Connection* const connection : {&first, &second}) {
        connection->client->write(7);
        EXPECT_EQ(connection->accepted->read(), 7);
    }
    first.accepted->close();
    EXPECT_FALSE(watched.expired());
    second.accepted.reset();
    EXPECT_TRUE(watched.expired());
}

TEST_F(Sockets, ServerOutlivesItsAcceptedSockets)
{
    Server server;
    for (int i = 0; i < 50; ++i) {
        Connection connection(server);
        connection.accepted->close();
        connection.client->close();
    }
    // The last reference closes.
}

TEST_F(Sockets, FailedCloseOfAServerIsToldOnceMoreByItsDestructor)
{
    const std::string message = withText("close failed", EIO);
    Server server;
    EXPECT_EQ(reportOf([&] {
                  const support::FaultScope fault(closeFault, -1, EIO, 1, 2);
                  EXPECT_EQ(messageOf([&] { server.socket->close(); }), message);
                  EXPECT_EQ(messageOf([&] { server.socket->accept(); }), "accept interrupted by close");
                  server.socket.reset();
              }),
              message + "\n");
    close(server.fd);
}

TEST_F(Sockets, FailedAcceptIsToldAndDoesNotHoldUpClose)
{
    struct
    {
        support::Fault& fault;
        int error;
        const char* text;
    } const rows[] = {{selectFault, EINTR, "select in accept failed"},
                      {selectFault, ENOMEM, "select in accept failed"},
                      {accept4Fault, EMFILE, "accept failed"}};
    for (const auto& row : rows) {
        Server server;
        const Socket::Ptr client = Socket::create("127.0.0.1", server.port);
        const support::FaultScope fault(row.fault, -1, row.error, 1, 1);
        EXPECT_EQ(messageOf([&] { server.socket->accept(); }), withText(row.text, row.error));
        const Socket::Ptr accepted = server.socket->accept();
        server.socket->close();
    }
}

TEST_F(Sockets, AcceptGoesOnAfterAnEmptySecondAndAfterAVanishedClient)
{
    Server server;
    const Socket::Ptr client = Socket::create("127.0.0.1", server.port);
    {
        const support::FaultScope nobody(selectFault, 0, 0, 1, 3);
        EXPECT_NE(server.socket->accept(), nullptr);
        EXPECT_EQ(selectFault.calls, 4);
    }
    for (const int error : {EAGAIN, ECONNABORTED, EPROTO, EINTR}) {
        const Socket::Ptr next = Socket::create("127.0.0.1", server.port);
        const support::FaultScope gone(accept4Fault, -1, error, 1, 1);
        EXPECT_NE(server.socket->accept(), nullptr);
        EXPECT_EQ(accept4Fault.calls, 2);
    }

    // For real: the first client is taken away between `select` and `accept4`, and a second one comes later.
    Socket::Ptr first = Socket::create("127.0.0.1", server.port);
    Socket::Ptr second;
    const support::HookScope thief(accept4Fault, [&] {
        if (first)
            close(accept(server.fd, nullptr, nullptr));
        first.reset();
    });
    const support::HookScope late(selectFault, [&] {
        if (!first)
            second = Socket::create("127.0.0.1", server.port);
    });
    const Socket::Ptr accepted = server.socket->accept();
    accepted->write(9);
    EXPECT_EQ(second->read(), 9);
}

TEST_F(Sockets, SignalEndsABlockedCall)
{
    struct sigaction action{}, before{};
    action.sa_handler = [](int) {};
    sigaction(SIGUSR1, &action, &before);
    Server server;
    Connection connection(server);
    constexpr int smallBuffer = 1;
    setsockopt(connection.clientFd, SOL_SOCKET, SO_SNDBUF, &smallBuffer, sizeof smallBuffer);
    setsockopt(connection.acceptedFd, SOL_SOCKET, SO_RCVBUF, &smallBuffer, sizeof smallBuffer);
    const std::pair<const char*, std::function<void()>> rows[] = {
        {"select in accept failed", [&] { server.socket->accept(); }},
        {"read failed", [&] { connection.client->read(); }},
        {"write filed", [&] {
             for (;;)
                 connection.client->write(0);
         }}};
    for (const auto& [text, call] : rows) {
        std::atomic<bool> ended = false;
        std::thread blocked([&] {
            EXPECT_EQ(messageOf(call), withText(text, EINTR));
            ended = true;
        });
        while (!ended) {
            pthread_kill(blocked.native_handle(), SIGUSR1);
            std::this_thread::yield();
        }
        blocked.join();
    }
    server.socket->close();
    sigaction(SIGUSR1, &before, nullptr);
}

TEST_F(Sockets, HundredServersAreClosedUnderTheirAcceptsSideBySide)
{
    for (int round = 0; round < support::stressFactor(); ++round) {
        std::vector<Server> servers(100);
        std::atomic<int> inside = 0;
        std::atomic<int> interrupted = 0;
        const support::HookScope hook(selectFault, [&] { ++inside; });
        std::vector<std::thread> threads;
        for (Server& server : servers)
            threads.emplace_back([&] {
                const std::string message = messageOf([&] { server.socket->accept(); });
                interrupted += message == "accept interrupted by close";
            });
        while (inside < 100)
            std::this_thread::yield();
        for (Server& server : servers)
            threads.emplace_back([&] { server.socket->close(); });
        for (std::thread& thread : threads)
            thread.join();
        EXPECT_EQ(interrupted, 100);
    }
}

TEST_F(Sockets, EachAllocationThatFailsLeavesNothingBehind)
{
    if (const char* const reason = support::AllocationFailure::hidden())
        GTEST_SKIP() << reason;
    Server server;
    const int before = nextDescriptor();
    bool reached = true;
    for (size_t k = 1; reached; ++k) {
        {
            const support::AllocationFailure failure(k);
            try {
                const Connection connection(server);
            } catch (const std::bad_alloc&) {
            } catch (const net::SocketException& e) {
                EXPECT_EQ(e.getMessage(), withText("gethostbyname failed", ENOMEM)) << "the system's own allocation";
            }
            reached = failure.reached();
        }
        EXPECT_EQ(nextDescriptor(), before) << "after the failure of allocation " << k;
        const Connection connection(server);
    }
}

TEST(SocketsDeathTest, SelectThatNamesAnotherDescriptorIsAssertedAgainst)
{
    EXPECT_DEATH(
        {
            const Server server;
            const support::FaultScope fault(selectFault, 1);
            server.socket->accept();
        },
        support::assertion("Quorvil/QuorvilSocket", "virtual net::Socket::Ptr net::ServerSocketImpl::accept()",
                           "FD_ISSET(fd1, &readfds)"));
}

} // namespace
