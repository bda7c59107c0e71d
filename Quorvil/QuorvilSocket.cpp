#include "Quorvil/QuorvilSocket.h"

#include "Quorvil/QuorvilAssert.h"
#include "Quorvil/QuorvilLog.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <exception>
#include <iostream>
#include <iterator>
#include <list>
#include <mutex>
#include <system_error>
#include <utility>
#include <vector>

#include <arpa/inet.h>
#include <error.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

QUORVIL_LOG_GROUP("Noname");

namespace net {

class SocketImpl;
class ServerSocketImpl;
using ServerSocketImplPtr = std::shared_ptr<ServerSocketImpl>;
using SocketList = std::list<std::weak_ptr<SocketImpl>>;

namespace {

constexpr const char* source = "Quorvil/QuorvilSocket";

[[noreturn]] void throwSocketError(const char* text, int errorNumber)
{
    char buffer[256];
    throw SocketException(std::string(text) + ": " + strerror_r(errorNumber, buffer, sizeof buffer));
}

[[noreturn]] void fail(const char* text)
{
    throwSocketError(text, errno);
}

/// The line of a destructor that could not do all of its work.
void report(const char* text, int errorNumber)
{
    char buffer[256];
    std::cerr << text << ": " << strerror_r(errorNumber, buffer, sizeof buffer) << "\n";
}

sockaddr_in address(int port)
{
    sockaddr_in result{};
    result.sin_family = AF_INET;
    result.sin_port = htons(static_cast<std::uint16_t>(port));
    return result;
}

/// The first IPv4 address of `host`.
in_addr lookUp(const std::string& host)
{
    constexpr size_t largest = 1 << 20;
    std::vector<char> buffer(1024);
    hostent entry{};
    hostent* found = nullptr;
    int reason = 0;
    int error = gethostbyname_r(host.c_str(), &entry, buffer.data(), buffer.size(), &found, &reason);
    while (error == ERANGE && buffer.size() < largest) {
        buffer.resize(buffer.size() * 2);
        error = gethostbyname_r(host.c_str(), &entry, buffer.data(), buffer.size(), &found, &reason);
    }
    // A host that nobody knows comes without an error number.
    if (!found)
        throwSocketError("gethostbyname failed", error != 0 ? error : ENOENT);
    in_addr result{};
    std::memcpy(&result, found->h_addr_list[0], std::min(sizeof result, static_cast<size_t>(found->h_length)));
    return result;
}

int openClientSocket()
{
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        fail("socket failed");
    return fd;
}

/// A descriptor that nobody else owns yet.
class Descriptor
{
public:
    explicit Descriptor(int fd_)
        : fd(fd_)
    {
    }

    ~Descriptor()
    {
        if (fd >= 0)
            ::close(fd);
    }

    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    int get() const
    {
        return fd;
    }

    void release()
    {
        fd = -1;
    }

private:
    int fd;
};

} // namespace

SocketException::SocketException(const std::string& message_)
    : message(message_)
{
}

SocketException::~SocketException() = default;

const std::string& SocketException::getMessage() const
{
    return message;
}

Socket::~Socket() = default;
ServerSocket::~ServerSocket() = default;

class SocketImpl : public Socket
{
public:
    SocketImpl(const std::string& host, int port);
    explicit SocketImpl(int fd);

    int read() override;
    void write(int value) override;
    void close() override;
    ~SocketImpl() override;

    virtual void attachToServerSocket(ServerSocketImplPtr server, SocketList::iterator it);

private:
    /// A thread inside `read` or `write`. As long as one is, the descriptor is not given back to the system, so that
    /// its number cannot come to mean another file under the call.
    class Use
    {
    public:
        explicit Use(SocketImpl& socket_)
            : socket(socket_)
        {
            ++socket.inCall;
        }

        ~Use()
        {
            if (--socket.inCall == 0)
                socket.inCall.notify_all();
        }

        Use(const Use&) = delete;
        Use& operator=(const Use&) = delete;

    private:
        SocketImpl& socket;
    };

    void leaveServerSocket();

    ServerSocketImplPtr serverSocket;
    SocketList::iterator listEntry;
    std::atomic<int> fd;        // a closing thread sets it beside a reader
    std::atomic<int> inCall{0}; // threads that may be about to use the descriptor
};

class ServerSocketImpl : public ServerSocket
{
public:
    explicit ServerSocketImpl(int port);
    ~ServerSocketImpl() override;

    Socket::Ptr accept() override;
    void close() override;

    virtual void detach(SocketList::iterator it);

    void decrementAcceptCount();

private:
    friend class ServerSocket;

    [[noreturn]] void failConstruction(const char* text, int errorNumber, int line, const char* closeText);
    int enterAccept();
    Socket::Ptr acceptClient(int fd1);
    bool waitForClient(int fd1);

    SocketList sockets;
    int fd = -1;
    std::weak_ptr<ServerSocketImpl> self;
    std::mutex mutex;
    std::condition_variable acceptCondition;
    int acceptCount = 0;
    bool closing = false;
};

Socket::Ptr Socket::create(const std::string& host, int port)
{
    return std::make_shared<SocketImpl>(host, port);
}

std::shared_ptr<ServerSocket> ServerSocket::create(int port)
{
    auto server = std::make_shared<ServerSocketImpl>(port);
    server->self = server;
    return server;
}

// The object counts as made once it has its descriptor, so that its destructor closes it if the rest fails.
SocketImpl::SocketImpl(const std::string& host, int port)
    : SocketImpl(openClientSocket())
{
    sockaddr_in peer = address(port);
    peer.sin_addr = lookUp(host);
    if (connect(fd, reinterpret_cast<const sockaddr*>(&peer), sizeof peer) < 0)
        fail("connect failed");
}

SocketImpl::SocketImpl(int fd_)
    : fd(fd_)
{
}

int SocketImpl::read()
{
    const Use use(*this);
    const int fd1 = fd;
    if (fd1 == -1)
        throw SocketException("read when socket is not open");
    unsigned char byte = 0;
    const ssize_t length = ::read(fd1, &byte, 1);
    if (length == -1)
        fail("read failed");
    if (length == 0)
        fail("EOF");
    return byte;
}

void SocketImpl::write(int value)
{
    const Use use(*this);
    const int fd1 = fd;
    if (fd1 == -1)
        throw SocketException("write when socket is not open");
    const auto byte = static_cast<unsigned char>(value);
    if (::write(fd1, &byte, 1) != 1)
        fail("write filed");
}

void SocketImpl::close()
{
    if (fd == -1)
        return;
    // First of all it wakes who is blocked in a read.
    if (shutdown(fd, SHUT_RDWR) == -1)
        fail("shutdown failed");
    // Who comes now finds the socket closed; who is inside was woken and leaves.
    const int fd1 = fd.exchange(-1);
    for (int users = inCall; users != 0; users = inCall)
        inCall.wait(users);
    if (::close(fd1) == -1) {
        fd = fd1;
        fail("close failed");
    }
    leaveServerSocket();
}

SocketImpl::~SocketImpl()
{
    if (fd != -1) {
        // Of several failures the first is told, as by `close`; that the peer has reset the connection is none.
        bool told = false;
        if (shutdown(fd, SHUT_RDWR) == -1 && errno != ENOTCONN) {
            report("shutdown failed", errno);
            told = true;
        }
        if (::close(fd) == -1 && !told)
            report("close failed", errno);
    }
    try {
        leaveServerSocket();
    } catch (const std::exception& e) {
        std::cerr << e.what() << "\n";
    }
}

void SocketImpl::attachToServerSocket(ServerSocketImplPtr server, SocketList::iterator it)
{
    quorvil::intern::require(it->lock().get() == this, "it->lock().get() == this", source, __LINE__,
                             "virtual void net::SocketImpl::attachToServerSocket(net::ServerSocketImplPtr, "
                             "std::__cxx11::list<std::weak_ptr<net::SocketImpl> >::iterator)");
    serverSocket = std::move(server);
    listEntry = it;
}

/// Leaves the server socket's list. The server socket may end here.
void SocketImpl::leaveServerSocket()
{
    if (!serverSocket)
        return;
    serverSocket->detach(listEntry);
    serverSocket.reset();
}

ServerSocketImpl::ServerSocketImpl(int port)
{
    // It does not block: a client can be gone again between `select` and `accept`.
    fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd == -1)
        fail("socket failed");
    const sockaddr_in local = address(port); // INADDR_ANY is 0
    if (bind(fd, reinterpret_cast<const sockaddr*>(&local), sizeof local) == -1)
        failConstruction("bind failed", errno, __LINE__, "close after bind error failed");
    if (fd >= FD_SETSIZE)
        failConstruction("listen failed", EMFILE, __LINE__, "close after listen error failed");
    constexpr int backlog = 128;
    if (listen(fd, backlog) == -1)
        failConstruction("listen failed", errno, __LINE__, "close after listen error failed");
}

void ServerSocketImpl::failConstruction(const char* text, int errorNumber, int line, const char* closeText)
{
    if (::close(fd) == -1)
        error_at_line(0, errno, source, static_cast<unsigned>(line), "%s", closeText);
    throwSocketError(text, errorNumber);
}

ServerSocketImpl::~ServerSocketImpl()
{
    try {
        ServerSocketImpl::close();
    } catch (const SocketException& e) {
        std::cerr << e.getMessage() << "\n";
    } catch (const std::system_error& e) {
        // No lock; but nobody is in `accept`, who would hold a reference. A closed one's -1 closes nothing.
        std::cerr << e.what() << "\n";
        ::close(fd);
    } catch (const std::exception& e) {
        std::cerr << e.what() << "\n";
    }
}

Socket::Ptr ServerSocketImpl::accept()
{
    const int fd1 = enterAccept();
    Socket::Ptr client;
    try {
        client = acceptClient(fd1);
    } catch (...) {
        decrementAcceptCount();
        throw;
    }
    decrementAcceptCount();
    return client;
}

/// Counts the calling thread in, and gives the listening descriptor, which stays open as long as it is counted.
int ServerSocketImpl::enterAccept()
{
    const std::lock_guard lock(mutex);
    if (fd == -1)
        throw SocketException("accept when server socket is not open!");
    // A thread that came in now would keep the one waiting that closes.
    if (closing)
        throw SocketException("accept interrupted by close");
    ++acceptCount;
    return fd;
}

Socket::Ptr ServerSocketImpl::acceptClient(int fd1)
{
    for (;;) {
        if (!waitForClient(fd1))
            continue;
        sockaddr_in peer{};
        socklen_t length = sizeof peer;
        Descriptor accepted(accept4(fd1, reinterpret_cast<sockaddr*>(&peer), &length, SOCK_CLOEXEC));
        if (accepted.get() < 0) {
            // The client is gone again, another thread has it, or a signal came in between.
            if (errno == EAGAIN || errno == ECONNABORTED || errno == EPROTO || errno == EINTR)
                continue;
            fail("accept failed");
        }
        const auto client = std::make_shared<SocketImpl>(accepted.get());
        accepted.release();
        const std::lock_guard lock(mutex);
        sockets.push_back(client);
        client->attachToServerSocket(self.lock(), std::prev(sockets.end()));
        return client;
    }
}

/// Waits up to a second; true if a client is there.
bool ServerSocketImpl::waitForClient(int fd1)
{
    {
        const std::lock_guard lock(mutex);
        if (closing)
            throw SocketException("accept interrupted by close");
    }
    fd_set readfds;
    FD_ZERO(&readfds);
    FD_SET(fd1, &readfds);
    timeval timeout{1, 0};
    const int ready = select(fd1 + 1, &readfds, nullptr, nullptr, &timeout);
    if (ready == -1)
        fail("select in accept failed");
    if (ready != 1)
        return false;
    quorvil::intern::require(FD_ISSET(fd1, &readfds), "FD_ISSET(fd1, &readfds)", source, __LINE__,
                             "virtual net::Socket::Ptr net::ServerSocketImpl::accept()");
    return true;
}

void ServerSocketImpl::close()
{
    std::unique_lock lock(mutex);
    closing = true;
    while (acceptCount > 0)
        acceptCondition.wait(lock);
    if (fd == -1)
        return;
    if (::close(fd) == -1)
        fail("close failed");
    fd = -1;
}

void ServerSocketImpl::detach(SocketList::iterator it)
{
    const std::lock_guard lock(mutex);
    sockets.erase(it);
}

/// Counts the calling thread out of `accept`.
void ServerSocketImpl::decrementAcceptCount()
{
    const std::lock_guard lock(mutex);
    quorvil::intern::require(acceptCount > 0, "acceptCount > 0", source, __LINE__,
                             "void net::ServerSocketImpl::decrementAcceptCount()");
    if (--acceptCount == 0)
        acceptCondition.notify_all();
}

} // namespace net
