// Sockets, pipes, the database, directory scans and drives; and what of them a real-time thread may call. Connections,
// children and files are real; what the kernel will not do by itself is done to single calls.

#include "Quorvil/LinuxPipe.h"
#include "Quorvil/OvxFs.h"
#include "Quorvil/QuorvilSocket.h"
#include "Quorvil/ScanDir.h"
#include "Quorvil/sqlite3cpp.h"

#define QUORVIL_ASSERTION_TRAP
#include "tests/support/allocationCount.h"
#include "tests/support/assertion.h"
#include "tests/support/assertionTrap.h"
#include "tests/support/child.h"
#include "tests/support/interpose.h"
#include "tests/support/temporaryFolder.h"

#include <arpa/inet.h>
#include <atomic>
#include <climits>
#include <csignal>
#include <dirent.h>
#include <fcntl.h>
#include <fstream>
#include <gmock/gmock.h>
#include <iostream>
#include <netdb.h>
#include <optional>
#include <set>
#include <sqlite3.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <thread>
#include <vector>

SUPPORT_INTERPOSE(int, pthread_mutex_lock, (pthread_mutex_t * mutex), (mutex), noexcept)
SUPPORT_INTERPOSE(int, socket, (int domain, int type, int protocol), (domain, type, protocol), noexcept)
SUPPORT_INTERPOSE(int, bind, (int fd, const sockaddr* address, socklen_t length), (fd, address, length), noexcept)
SUPPORT_INTERPOSE(int, listen, (int fd, int backlog), (fd, backlog), noexcept)
SUPPORT_INTERPOSE(int, select, (int count, fd_set* in, fd_set* out, fd_set* except, timeval* timeout),
                  (count, in, out, except, timeout), )
SUPPORT_INTERPOSE(int, accept4, (int fd, sockaddr* peer, socklen_t* length, int flags), (fd, peer, length, flags), )
SUPPORT_INTERPOSE(ssize_t, read, (int fd, void* bytes, size_t size), (fd, bytes, size), )
SUPPORT_INTERPOSE(int, shutdown, (int fd, int how), (fd, how), noexcept)
SUPPORT_INTERPOSE(int, close, (int fd), (fd), )
SUPPORT_INTERPOSE(int, gethostbyname_r,
                  (const char* name, hostent* entry, char* buffer, size_t size, hostent** found, int* error),
                  (name, entry, buffer, size, found, error), )
SUPPORT_INTERPOSE(int, pipe2, (int* ends, int flags), (ends, flags), noexcept)
SUPPORT_INTERPOSE(pid_t, fork, (), (), noexcept)
SUPPORT_INTERPOSE(FILE*, popen, (const char* command, const char* mode), (command, mode), )
SUPPORT_INTERPOSE(pid_t, waitpid, (pid_t child, int* status, int options), (child, status, options), )
SUPPORT_INTERPOSE(int, sqlite3_open_v2, (const char* name, sqlite3** sql, int flags, const char* vfs),
                  (name, sql, flags, vfs), )
SUPPORT_INTERPOSE(int, sqlite3_finalize, (sqlite3_stmt * stmt), (stmt), )
SUPPORT_INTERPOSE(int, sqlite3_reset, (sqlite3_stmt * stmt), (stmt), )
// With 64-bit file offsets this is what the plain name stands for.
SUPPORT_INTERPOSE(struct dirent64*, readdir64, (DIR * dir), (dir), )

namespace {

using net::ServerSocket;
using net::Socket;
using ovxfs::Drive;
using sqlite3cpp::DbCon;
using sqlite3cpp::PrepStat;
using support::FaultScope;
using util::MyPipe;
using Action = std::function<void()>;

/// The message that `action` throws, or nothing.
std::string messageOf(const Action& action)
{
    try {
        action();
        return "";
    } catch (const net::SocketException& e) {
        return e.getMessage();
    }
}

/// The same where one call goes wrong.
std::string messageAt(support::Fault& fault, long result, int error, const Action& action)
{
    const FaultScope scope(fault, result, error, 1, 1);
    return messageOf(action);
}

/// What `action` writes on standard error, and behind it the assertion that it fails.
std::string reportOf(const Action& action)
{
    testing::internal::CaptureStderr();
    const std::string failure = assertionTrap::failureOf(action), file = "Quorvil/sqlite3cpp: ";
    return testing::internal::GetCapturedStderr() + failure.substr(failure.starts_with(file) ? file.size() : 0);
}

/// The descriptor that the next open gets.
int nextDescriptor()
{
    const int fd = open("/dev/null", O_RDONLY);
    close(fd);
    return fd;
}

/// Each test has a server and a connection, and ends with the descriptors that it began with.
struct Sockets : testing::Test
{
    ~Sockets() override
    {
        client.reset(), accepted.reset(), server.reset();
        EXPECT_EQ(nextDescriptor(), serverFd);
    }

    const int serverFd = nextDescriptor();
    std::shared_ptr<ServerSocket> server = ServerSocket::create(0);
    sockaddr_in address{};
    socklen_t length = sizeof address;
    const int named = getsockname(serverFd, reinterpret_cast<sockaddr*>(&address), &length);
    const int port = ntohs(address.sin_port), clientFd = nextDescriptor();
    Socket::Ptr client = Socket::create("127.0.0.1", port);
    const int acceptedFd = nextDescriptor();
    Socket::Ptr accepted = server->accept();
    const Action createServer = [] { ServerSocket::create(0); };
    const Action connectOne = [this] { Socket::create("127.0.0.1", port); };
    const Action acceptOne = [this] { server->accept(); };
};

TEST_F(Sockets, CarryEveryByteBothWaysWhateverBecomesOfTheirServer)
{
    for (const int fd : {serverFd, clientFd, acceptedFd})
        EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
    const std::weak_ptr<ServerSocket> watched = server;
    server->close();
    server->close();
    EXPECT_EQ(messageOf(acceptOne), "accept when server socket is not open!");
    server.reset();
    for (int value = -256; value < 512; ++value) {
        client->write(value);
        EXPECT_EQ(accepted->read(), value & 255);
        accepted->write(value);
        EXPECT_EQ(client->read(), value & 255);
    }
    client->close();
    client->close();
    EXPECT_EQ(messageOf([&] { client->read(); }), "read when socket is not open");
    EXPECT_EQ(messageOf([&] { client->write(1); }), "write when socket is not open");
    errno = EXDEV;
    EXPECT_EQ(messageOf([&] { accepted->read(); }), "EOF: Invalid cross-device link");
    EXPECT_FALSE(watched.expired());
    accepted->close();
    EXPECT_TRUE(watched.expired());
}

TEST_F(Sockets, TellAResetByThePeerAndLeaveNothingBehind)
{
    std::signal(SIGPIPE, SIG_IGN);
    const linger atOnce{1, 0};
    EXPECT_EQ(setsockopt(clientFd, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce), 0);
    EXPECT_EQ(messageAt(shutdownFault, 0, 0, [&] { client->close(); }), "") << "without a good-bye";
    EXPECT_EQ(messageOf([&] { accepted->read(); }), "read failed: Connection reset by peer");
    EXPECT_EQ(messageOf([&] { accepted->write(1); }), "write filed: Broken pipe") << "it stays open";
    EXPECT_EQ(messageOf([&] { accepted->close(); }), "shutdown failed: Transport endpoint is not connected");
    EXPECT_EQ(reportOf([&] { accepted.reset(); }), "");
    std::signal(SIGPIPE, SIG_DFL);
}

TEST_F(Sockets, EndAReadByASignalAndByCloseWhichWaitsUntilItHasLeft)
{
    struct sigaction action{};
    action.sa_handler = [](int) {};
    sigaction(SIGUSR1, &action, nullptr);
    std::atomic<bool> interrupted = false, closed = false;
    const support::HookScope lateLeave(readFault, {}, [&] {
        for (int i = 0; i < 1000; ++i)
            std::this_thread::yield();
        EXPECT_FALSE(closed);
    });
    std::thread reader([&] {
        std::string message;
        while ((message = messageOf([&] { accepted->read(); })) == "read failed: Interrupted system call")
            interrupted = true;
        EXPECT_THAT(message, testing::MatchesRegex("EOF: .*|read when socket is not open"));
    });
    while (!interrupted)
        pthread_kill(reader.native_handle(), SIGUSR1);
    accepted->close();
    closed = true;
    reader.join();
    std::signal(SIGUSR1, SIG_DFL);
}

TEST_F(Sockets, StayOpenAfterAFailedCloseAndTheirDestructorsReport)
{
    const Action close = [&] { client->close(); };
    EXPECT_EQ(messageAt(shutdownFault, -1, EIO, close), "shutdown failed: Input/output error");
    EXPECT_EQ(messageAt(closeFault, -1, EIO, close), "close failed: Input/output error");
    EXPECT_EQ(reportOf([&] {
                  const FaultScope closing(closeFault, -1, EIO, 1, 4);
                  client.reset();
                  EXPECT_EQ(messageAt(shutdownFault, -1, EIO, [&] { accepted.reset(); }), "");
                  EXPECT_EQ(messageOf([&] { server->close(); }), "close failed: Input/output error");
                  EXPECT_EQ(messageOf(acceptOne), "accept interrupted by close");
                  server.reset();
              }),
              "close failed: Input/output error\nshutdown failed: Input/output error\n"
              "close failed: Input/output error\n");
    for (const int fd : {serverFd, clientFd, acceptedFd})
        EXPECT_EQ(::close(fd), 0);
}

TEST_F(Sockets, AreNotMadeByHalves)
{
    EXPECT_EQ(messageAt(socketFault, -1, EMFILE, createServer), "socket failed: Too many open files");
    EXPECT_EQ(messageOf([&] { ServerSocket::create(port); }), "bind failed: Address already in use");
    for (support::Fault* const fault : {&bindFault, &listenFault}) {
        const std::string name = fault->name;
        const int fd = nextDescriptor();
        const std::string report = reportOf([&] {
            const FaultScope closing(closeFault, -1, EIO, 1, 1);
            EXPECT_EQ(messageAt(*fault, -1, EACCES, createServer), name + " failed: Permission denied");
        });
        close(fd);
        EXPECT_THAT(report, testing::ContainsRegex(":Quorvil/QuorvilSocket:[0-9]+: close after " + name +
                                                   " error failed: Input/output error\n$"));
    }
    EXPECT_EQ(messageAt(socketFault, -1, EMFILE, connectOne), "socket failed: Too many open files");
    EXPECT_EQ(messageAt(gethostbyname_rFault, EIO, 0, connectOne), "gethostbyname failed: Input/output error");
    EXPECT_EQ(messageOf([] { Socket::create("::1", 0); }), "gethostbyname failed: No such file or directory");
    EXPECT_EQ(messageAt(gethostbyname_rFault, ERANGE, 0, [&] { Socket::create("localhost", port + 0x10000); }), "");
    server->close();
    for (int i = 0; i < 300; ++i)
        EXPECT_EQ(messageOf(connectOne), "connect failed: Connection refused");

    // No such descriptor is open: the end of the report says that it would have been closed.
    const FaultScope unwatchable(socketFault, FD_SETSIZE), bound(bindFault, 0);
    const Action createHigh = [&] { EXPECT_EQ(messageOf(createServer), "listen failed: Too many open files"); };
    EXPECT_THAT(reportOf(createHigh), testing::EndsWith("close after listen error failed: Bad file descriptor\n"));
}

TEST_F(Sockets, TellAFailedAcceptAndGoOnWhereAClientVanishes)
{
    for (int i = 0; i < 4; ++i)
        connectOne();
    EXPECT_EQ(messageAt(selectFault, -1, EINTR, acceptOne), "select in accept failed: Interrupted system call");
    EXPECT_EQ(messageAt(accept4Fault, -1, EMFILE, acceptOne), "accept failed: Too many open files");
    EXPECT_EQ(messageAt(selectFault, 0, 0, acceptOne), "");
    for (const int error : {ECONNABORTED, EPROTO, EINTR})
        EXPECT_EQ(messageAt(accept4Fault, -1, error, acceptOne), "");

    std::vector<Socket::Ptr> clients;
    const support::HookScope arrival(selectFault, [&] { clients.push_back(Socket::create("127.0.0.1", port)); });
    const support::HookScope departure(accept4Fault, [&] {
        if (clients.size() == 1)
            close(accept(serverFd, nullptr, nullptr));
    });
    server->accept()->write(9);
    EXPECT_EQ(clients.at(1)->read(), 9);
    server->close();
}

TEST(ServerSocket, HundredAreClosedUnderTheirAcceptsSideBySide)
{
    std::vector<std::shared_ptr<ServerSocket>> servers;
    std::vector<std::thread> threads;
    std::atomic<int> inside = 0;
    const support::HookScope hook(selectFault, [&] { ++inside; }, [&] { --inside; });
    for (int i = 0; i < 101; ++i) {
        servers.push_back(i < 100 ? ServerSocket::create(0) : servers[0]);
        threads.emplace_back([server = servers.back()] {
            EXPECT_EQ(messageOf([&] { server->accept(); }), "accept interrupted by close");
        });
    }
    while (inside < 101)
        std::this_thread::yield();
    servers[0]->close();
    EXPECT_LE(inside, 99) << "it waits for both of its threads";
    for (const auto& server : servers)
        threads.emplace_back([&] { server->close(); });
    for (std::thread& thread : threads)
        thread.join();
}

std::string readAll(int fd)
{
    std::string text;
    for (char c = 0; read(fd, &c, 1) == 1;)
        text += c;
    return text;
}

/// The lines of `safe` and its assertion.
std::string fatal(const std::string& function, int error)
{
    return support::literal(function) + " failed in Quorvil/LinuxPipe:[0-9]+ - \\(" + std::to_string(error) + "\\) " +
           strerrordesc_np(error) + "\n[^\n]*" +
           support::assertion("Quorvil/SafeLinuxCalls", "int util::safe(const char*, const char*, int, int, bool)",
                              "linuxFuncResult != -1");
}

const std::string constructor = "util::MyPipe::MyPipe(const string&)";

TEST(MyPipe, RunsACommandBetweenThreeStreamsAndTracesIt)
{
    // Whichever of its own streams the process has closed.
    for (int mask = 0; mask < 8; ++mask) {
        const support::ChildResult child = support::runInChild([mask] {
            const int out = dup(STDOUT_FILENO);
            for (int fd = 0; fd < 3; ++fd)
                if ((mask & 1 << fd) != 0)
                    close(fd);
            const int before = nextDescriptor();
            {
                MyPipe pipe("read line; echo \"got $line\"; echo problem >&2; exit 3");
                dprintf(pipe.childStdin(), "paper\n");
                const int in = pipe.childStdin(), output = pipe.childStdout(), error = pipe.childStderr();
                dprintf(out, "%d%d%d ", fcntl(in, F_GETFD), fcntl(output, F_GETFD), fcntl(error, F_GETFD));
                const std::string text = readAll(output) + readAll(error);
                dprintf(out, "%s%d %d ", text.c_str(), pipe.waitForChild(), pipe.waitForChild());
            }
            dprintf(out, "%d", nextDescriptor() - before);
        });
        EXPECT_EQ(child.out, "111 got paper\nproblem\n768 768 0") << mask;
        const std::string trace =
            "stdinFd\\[0\\]=[0-9]+, stdinFd\\[1\\]=[0-9]+, stdoutFd\\[0\\]=[0-9]+, stdoutFd\\[1\\]=[0-9]+, "
            "stderrFd\\[0\\]=[0-9]+, stderrFd\\[1\\]=[0-9]+\n(pid=0\npid=[1-9][0-9]*|pid=[1-9][0-9]*\npid=0)\n"
            "before waitpid\nafter waitpid\n~MyPipe\\(\\) in process[0-9]+\n";
        EXPECT_THAT(child.err, testing::MatchesRegex(mask < 4 ? trace : ""));
    }
}

TEST(MyPipe, DumpsAtMost255BytesAndGivesTheRawStatus)
{
    const std::string cut = "OUTPUT WAS CUT TO 256 CHARACTERS:\n'";
    // The command; what is shown of its output, with what the dump leaves in the stream, and the status.
    const std::pair<std::string, std::string> rows[] = {
        {"exec >&-; exit", "''\n0"},
        {"kill -9 $$", "''\n9"},
        {"nonsuch.command", "''\n32512"},
        {"printf 'a\\0b'", "'a'\n0"},
        {"printf %0254d 7", "'" + std::string(253, '0') + "7'\n0"},
        {"printf %0255d 7", cut + std::string(254, '0') + "7'\n0"},
        {"printf %0200d; sleep 0; printf %056d 7", cut + std::string(255, '0') + "'\n70"},
    };
    for (const auto& [command, text] : rows) {
        testing::internal::CaptureStdout();
        MyPipe pipe(command);
        pipe.dumpStdout();
        std::cout << readAll(pipe.childStdout()) << pipe.waitForChild() << "\n";
        pipe.dumpStderr();
        EXPECT_THAT(testing::internal::GetCapturedStdout(),
                    testing::StartsWith("DUMP stdout von MyPipe:\n" + text + "\nDUMP stderr von MyPipe:\n'"));
    }
}

TEST(MyPipeDeathTest, FailedCallsEndTheProcess)
{
    const auto runWith = [](support::Fault& fault) {
        const FaultScope scope(fault, -1, EINTR);
        MyPipe pipe("exit 0");
        readAll(pipe.childStdout()); // its own line is out then
    };
    EXPECT_DEATH(runWith(pipe2Fault), fatal(constructor, EINTR));
    EXPECT_DEATH(runWith(forkFault), fatal(constructor, EINTR));
    EXPECT_DEATH(runWith(closeFault), fatal(constructor, EINTR));
    EXPECT_DEATH(runWith(waitpidFault), fatal("int util::MyPipe::waitForChild()", EINTR));
    EXPECT_DEATH(util::dumpStream("heading", -1), fatal("void util::dumpStream(const string&, int)", EBADF));
    EXPECT_DEATH(close(MyPipe("exit 0").childStdout()), fatal("virtual util::MyPipe::~MyPipe()", EBADF));
}

TEST(MyPipe, FailedCallsInTheChildEndTheChildAlone)
{
    // The descriptor from which on the child may have none; with all of them it cannot start what is too long.
    for (const rlim_t forbidden : {0U, 1U, 2U, 1000U}) {
        const support::ChildResult child = support::runInChild([forbidden] {
            const rlimit limit{forbidden, forbidden};
            const support::HookScope hook(forkFault, [&limit] { setrlimit(RLIMIT_NOFILE, &limit); });
            MyPipe pipe(std::string(200000, ' '));
            // Without a stream's virtual calls: a sanitizer needs descriptors to check them.
            std::fputs(readAll(pipe.childStderr()).c_str(), stderr);
            std::printf("%d", pipe.waitForChild() % 128);
        });
        EXPECT_EQ(child.out, std::to_string(SIGABRT));
        EXPECT_THAT(child.err,
                    testing::ContainsRegex("pid=0\n(.*\n)*" + fatal(constructor, forbidden < 3 ? EBADF : E2BIG)));
    }
}

TEST(MyPipe, LeavesNothingBehindWhereItsTraceCannotBeWritten)
{
    const support::ChildResult child = support::runInChild([] {
        std::setvbuf(stdout, nullptr, _IONBF, 0);
        std::cerr.exceptions(std::ios::badbit), std::cout.exceptions(std::ios::badbit);
        const int before = nextDescriptor();
        const support::HookScope hook(forkFault, [] { close(STDERR_FILENO), close(STDOUT_FILENO); });
        EXPECT_THROW(MyPipe("exit 0"), std::ios::failure) << "behind the fork";
        EXPECT_THROW(MyPipe("exit 0"), std::ios::failure) << "before it";
        EXPECT_THROW(util::LinuxPipe("exit 0", true), std::ios::failure);
        _exit(testing::Test::HasFailure() || fcntl(before, F_GETFD) != -1 || wait(nullptr) != -1 ? 1 : 0);
    });
    EXPECT_EQ(child.status, 0);
}

TEST(LinuxPipe, ReadsFromOrWritesToACommandAndGoesOnAfterAFailure)
{
    const support::ChildResult child = support::runInChild([] {
        std::fputs("jam\n", util::LinuxPipe("read line; test \"$line\" = jam && exit 2", false).go());
        {
            util::LinuxPipe pipe("echo paper", true);
            std::cout << readAll(fileno(pipe.go())) << fcntl(fileno(pipe.go()), F_GETFD) << "\n";
            wait(nullptr);
        }
        const FaultScope fault(popenFault, 0, EMFILE);
        std::cout << util::LinuxPipe("echo never", true).go() << "\n";
    });
    EXPECT_THAT(child.out, testing::MatchesRegex("f=0x[0-9a-f]+\nf=0x[0-9a-f]+\npaper\n1\nf=0\n0\n"));
    EXPECT_EQ(child.err, "res of pclose: 512\nres of pclose: -1\npclose failed: No child processes\n");
}

const std::string stepFunction = "bool sqlite3cpp::PrepStat::step()";
const std::string readOnly = stepFunction + ": Attempt to write a readonly database\n";
const std::string text = "\xC3\xA4" + std::string("\0x", 2);

struct Database : testing::Test
{
    const support::TemporaryFolder folder;
    const std::string file = folder / "jobs.db";
    DbCon con{file};
    const bool filled = con.exec("CREATE TABLE job(id INTEGER PRIMARY KEY, name); INSERT INTO job VALUES(1, 'one')");
};

TEST_F(Database, BindsStepsAndReadsThroughManyRounds)
{
    PrepStat query(con, "SELECT ? || '|' || ? || '|' || ? || '|' || ?, ?4");
    query.bindText(1, text);
    query.bindText(2, "cut here", 3);
    query.bindText(3, "text", 0);
    query.bindInt(4, INT_MIN);
    for (int round = 0; round < 2; ++round) {
        EXPECT_TRUE(query.step());
        EXPECT_EQ(query.columnType(0), SQLITE_TEXT);
        EXPECT_STREQ(reinterpret_cast<const char*>(query.columnText(0)), "\xC3\xA4|cut||-2147483648");
        EXPECT_EQ(query.columnInt(1), INT_MIN);
        query.reset();
    }
    EXPECT_EQ(sqlite3_bind_parameter_count(query), 4);
}

TEST_F(Database, StopsEachOperationInEachStateThatDoesNotAllowIt)
{
    // Result, word and parameters; the numbers of the states that allow it.
    const std::tuple<std::string, std::string, std::string, void (*)(PrepStat&), std::string> operations[] = {
        {"void ", "bindText", "(int, const string&)", [](PrepStat& s) { s.bindText(1, text); }, "1"},
        {"void ", "bindText", "(int, const char*, size_t)", [](PrepStat& s) { s.bindText(1, "text", 4); }, "1"},
        {"void ", "bindInt", "(int, int)", [](PrepStat& s) { s.bindInt(1, 1); }, "1"},
        {"bool ", "step", "()", [](PrepStat& s) { s.step(); }, "123"},
        {"int ", "columnType", "(int)", [](PrepStat& s) { s.columnType(0); }, "3"},
        {"int ", "columnInt", "(int)", [](PrepStat& s) { s.columnInt(0); }, "3"},
        {"const unsigned char* ", "columnText", "(int)", [](PrepStat& s) { s.columnText(0); }, "3"},
        {"void ", "reset", "()", [](PrepStat& s) { s.reset(); }, "134"},
    };
    for (int state = PrepStat::BINDING; state <= PrepStat::DONE; ++state)
        for (const auto& [result, word, parameters, run, allowed] : operations) {
            const bool invalid = state == PrepStat::INVALID;
            con.exec(invalid ? "PRAGMA query_only = 1" : "PRAGMA query_only = 0");
            PrepStat statement(con, invalid ? "DELETE FROM job WHERE id = ?" : "SELECT 1 WHERE ? IS NULL");
            while (statement.getState() != state)
                statement.step();
            const std::string report = word + " in invalid state: " + std::to_string(state) + "\n" + result +
                                       "sqlite3cpp::PrepStat::" + word + parameters + ": false";
            const bool stops = allowed.find(std::to_string(state)) == std::string::npos;
            EXPECT_EQ(reportOf([&] { run(statement); }), stops ? report : "");
        }
}

TEST_F(Database, GoesOnAfterEachFailureThatMayPass)
{
    DbCon other(file);
    const std::tuple<DbCon&, std::string, std::string, std::string, int, std::string> rows[] = {
        {other, "BEGIN EXCLUSIVE", "COMMIT", "DELETE FROM job WHERE id = ?", SQLITE_BUSY, "database is locked"},
        {con, "INSERT INTO job VALUES(5, 'five')", "DELETE FROM job", "INSERT INTO job VALUES(5, ?)", SQLITE_CONSTRAINT,
         "UNIQUE constraint failed: job.id"},
        {con, "PRAGMA max_page_count = 1", "PRAGMA max_page_count = 99",
         "INSERT INTO job(name) VALUES(printf('%099999d', ?))", SQLITE_FULL, "database or disk is full"},
    };
    for (const auto& [by, begin, end, sql, result, message] : rows) {
        PrepStat statement(con, sql);
        const Action stepInVain = [&] { EXPECT_FALSE(statement.step()); };
        EXPECT_TRUE(by.exec(begin));
        EXPECT_EQ(reportOf(stepInVain), stepFunction + ": Unexpected stepResult: " + std::to_string(result) + "\n");
        EXPECT_EQ(statement.lastResult(), result);
        EXPECT_EQ(reportOf([&] { EXPECT_FALSE(con.exec(sql)); }),
                  "sqlite3_exec failed for \"" + sql + "\": " + message + "\n");
        EXPECT_TRUE(by.exec(end));
        statement.bindInt(1, 5);
        EXPECT_EQ(reportOf(stepInVain), "");
        EXPECT_EQ(statement.getState(), PrepStat::DONE);
    }
}

TEST_F(Database, ReadsAWriteProtectedFileForAUserWithoutRoot)
{
    const support::ChildResult child = support::runInChild([&] {
        chmod(folder.path.c_str(), 0755);
        if (chdir(folder.path.c_str()) != 0 || !DbCon().exec("CREATE TABLE job(id)") ||
            chmod("sqLiteTest.db", 0444) != 0 || (getuid() == 0 && setuid(65534) != 0))
            _exit(1);
        DbCon locked;
        PrepStat write(locked, "INSERT INTO job VALUES(3)"), query(locked, "SELECT count(*) FROM job");
        _exit(write.step() || write.step() || !query.step() ? 2 : 0);
    });
    EXPECT_EQ(child.status, 0);
    EXPECT_EQ(child.err, readOnly);
}

TEST_F(Database, ReportsWhatSqliteRefuses)
{
    std::optional<PrepStat> statement;
    std::optional<DbCon> never;
    const std::string piece = "void sqlite3cpp::PrepStat::bindText(int, const char*, size_t): SQLITE_OK == "
                              "sqlite3_bind_text(stmt, idx, textBegin, textBytes, SQLITE_TRANSIENT)";
    const std::pair<Action, std::string> rows[] = {
        {[&] { statement.emplace(con, "nonsense"); }, "sqlite3_prepare_v2 failed: SQL logic error\n"},
        {[&] { EXPECT_FALSE(statement->step() || statement->lastResult() != SQLITE_ERROR); }, ""},
        {[&] { (void)static_cast<sqlite3_stmt*>(*statement); },
         "sqlite3cpp::PrepStat::operator sqlite3_stmt*(): state != INVALID && state != CONSTRUCTING && state != "
         "DESTROYED"},
        {[&] { statement.emplace(con, "SELECT ?"); }, ""},
        {[&] { statement->bindText(0, "text", 4); }, piece},
        {[&] { statement->bindText(1, "text", size_t{INT_MAX} + 1); }, piece},
        {[&] { statement->bindText(2, text); }, "void sqlite3cpp::PrepStat::bindText(int, const string&): SQLITE_OK == "
                                                "sqlite3_bind_text(stmt, idx, text.c_str(), -1, SQLITE_TRANSIENT)"},
        {[&] { statement->bindInt(2, 1); },
         "void sqlite3cpp::PrepStat::bindInt(int, int): SQLITE_OK == sqlite3_bind_int(stmt, idx, val)"},
        {[&] { statement->reset(); }, "void sqlite3cpp::PrepStat::reset(): SQLITE_OK == sqlite3_reset(stmt)"},
        {[&] { con.open("x"); }, "void sqlite3cpp::DbCon::open(const char*): SQLITE_OK == sqlite3_close(sql)"},
        {[&] { EXPECT_TRUE(statement->step()); }, ""},
        {[&] { statement.reset(); }, ""},
        {[&] { con.open("/"); }, "sqlite3_open failed: unable to open database file\n"},
        {[&] { EXPECT_FALSE(con.isValid() || con.exec(text)); }, ""},
        {[&] { statement.emplace(con, text); }, "sqlite3cpp::DbCon::operator sqlite3*(): valid"},
        {[&] { con.open(file.c_str()); }, ""},
        {[&] { EXPECT_TRUE(con.isValid() && con.exec("SELECT name FROM job")); }, ""},
        {[&] { never.emplace("never"); }, "sqlite3_open failed: out of memory\n"},
        {[&] { never->exec(text); }, "void sqlite3cpp::DbCon::exec(const string&): sql"},
        {[&] { never.reset(); }, "sql == NULL in ~DbCon\n"},
    };
    const FaultScope resetting(sqlite3_resetFault, SQLITE_IOERR, 0, 1, 1);
    const FaultScope opening(sqlite3_open_v2Fault, SQLITE_NOMEM, 0, 3, 1);
    for (const auto& [action, report] : rows)
        EXPECT_EQ(reportOf(action), report);

    statement.emplace(con, "SELECT 1");
    EXPECT_DEATH(con.~DbCon(), support::assertion("Quorvil/sqlite3cpp", "virtual sqlite3cpp::DbCon::~DbCon()",
                                                  "SQLITE_OK == sqlite3_close(sql)"));
    EXPECT_DEATH(
        {
            const FaultScope fault(sqlite3_finalizeFault, SQLITE_IOERR);
            statement.reset();
        },
        support::assertion("Quorvil/sqlite3cpp", "virtual sqlite3cpp::PrepStat::~PrepStat()",
                           "state == INVALID || finalizeResult == SQLITE_OK"));
}

TEST(Drive, KeepsWhatInitWasGivenAndHasAFolderForUpperCaseLettersAlone)
{
    ovxfs::CurDrive current;
    EXPECT_EQ(current.getStdDrive(), 'A');
    current.setStdDrive('B');
    EXPECT_EQ(current.getStdDrive(), 'B');
    const std::unique_ptr<Drive> drive(ovxfs::OVXFSFactory::I->drive());
    EXPECT_TRUE(drive->isMounted() && drive->isFormatted() && drive->getVolumeName().empty());
    EXPECT_EQ(drive->getLetter() | drive->getType() | drive->getStatus() | drive->getUseFlags(), 0);
    drive->setCurDir("/jobs");
    drive->init('\x80', Drive::usbStick, Drive::Status(-1), "LABELS", 7);
    std::string dir;
    drive->getCurDir(dir);
    EXPECT_EQ(dir + drive->getVolumeName(), "/jobsLABELS");
    EXPECT_TRUE(drive->getType() == 3 && drive->getStatus() == -1 && drive->getUseFlags() == 7);
    for (int letter = 0; letter < 256; ++letter) {
        ovxfs::DriveVm one;
        one.init(static_cast<char>(letter), Drive::hardDisk, Drive::ready, "", 0);
        EXPECT_EQ(std::pair(one < *drive, *drive < one), std::pair(letter < 0x80, letter > 0x80));
        if (letter >= 'A' && letter <= 'Z')
            EXPECT_EQ(one.getRootPath(), std::string("/home/user/simulatedPrinter/drives/") + one.getLetter() + "/");
        else
            EXPECT_THROW(one.getRootPath(), std::out_of_range) << letter;
    }
}

TEST(SystemInterfaces, ThrowWhereTheirMutexCannotBeLocked)
{
    ovxfs::DriveVm drive;
    ovxfs::CurDrive current;
    std::string dir = "as before";
    const auto server = ServerSocket::create(0);
    const Action calls[] = {[&] { drive.setCurDir("x"); },     [&] { drive.getCurDir(dir); },
                            [&] { current.setStdDrive('B'); }, [&] { current.getStdDrive(); },
                            [&] { server->accept(); },         [&] { server->close(); }};
    for (const Action& call : calls) {
        const FaultScope fault(pthread_mutex_lockFault, EAGAIN, 0, 1, 1);
        EXPECT_THROW(call(), std::system_error);
    }
    EXPECT_EQ(dir + current.getStdDrive(), "as beforeA");
    drive.getCurDir(dir);
    EXPECT_EQ(dir, "");
    server->close();
}

std::multiset<std::string> namesIn(const std::string& path)
{
    std::multiset<std::string> names;
    util::ScanDir scan(path);
    while (scan.next())
        names.insert(scan.getLongName());
    EXPECT_TRUE(!scan.next() && scan.getLongName().empty());
    return names;
}

TEST(ScanDir, GivesEachEntryOnceAndTheTwoOfTheSystem)
{
    const support::TemporaryFolder folder;
    const int descriptor = nextDescriptor();
    std::multiset<std::string> names{".", "..", ".hidden", "with blank\n", "\xC3\xA4\xFF", std::string(255, 'n')};
    for (int i = 0; i < 500; ++i)
        names.insert(std::to_string(i));
    for (const std::string& name : names)
        std::ofstream(folder / name) << "content";
    EXPECT_EQ(namesIn(folder.path), names);
    for (const char* const path : {"/nowhere", "/dev/null", ""})
        EXPECT_TRUE(namesIn(path).empty() && !util::ScanDir(path).isOpen()) << path;
    EXPECT_EQ(nextDescriptor(), descriptor);

    util::ScanDir one(folder.path), other(folder.path);
    const std::string& name = one.getLongName();
    EXPECT_TRUE(one.isOpen() && name.empty() && one.next());
    const std::string first = name;
    EXPECT_TRUE(other.next() && other.next() && name == first) << "scans do not disturb each other";
    const FaultScope fault(readdir64Fault, 0, EIO, 1, 1);
    EXPECT_TRUE(!one.next() && name.empty()) << "an error reads like the end";
    EXPECT_TRUE(one.next() && !name.empty() && name != first) << "and the scan goes on";
}

TEST(SystemInterfaces, TakeNoMemoryWhereARealTimeThreadMayCallThem)
{
    ovxfs::DriveVm drive;
    drive.init('A', Drive::hardDisk, Drive::ready, "a volume of the printer", 1);
    const ovxfsvm::DrivePathManager paths;
    const net::SocketException exception("a message that is long enough for the heap");
    util::ScanDir scan("/");
    util::MyPipe pipe("true");
    util::LinuxPipe stream("true", true);
    sqlite3cpp::DbCon connection(":memory:");
    sqlite3cpp::PrepStat statement(connection, "SELECT ?");

    const support::AllocationCount count;
    const ovxfs::DriveVm made;
    ovxfs::CurDrive current;
    static_cast<void>(made < drive), drive.getLetter(), drive.getType(), drive.getStatus(), drive.getVolumeName();
    drive.getRootPath(), drive.getUseFlags(), drive.isMounted(), drive.isFormatted(), paths.path('C');
    current.setStdDrive('B'), current.getStdDrive(), exception.getMessage(), scan.getLongName(), scan.isOpen();
    pipe.childStdin(), pipe.childStdout(), pipe.childStderr(), stream.go(), connection.isValid();
    statement.bindInt(1, 5), statement.lastResult(), statement.getState();
    EXPECT_TRUE(static_cast<sqlite3*>(connection) && static_cast<sqlite3_stmt*>(statement));
    EXPECT_EQ(count.allocations(), 0U);
}

} // namespace
