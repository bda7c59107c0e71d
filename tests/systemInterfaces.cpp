// Sockets, pipes, the database, directory scans and drives; and what of them a real-time thread may call. Connections,
// children and files are real; what the kernel will not do by itself is done to single calls.

#include "Quorvil/LinuxPipe.h"
#include "Quorvil/OvxFs.h"
#include "Quorvil/QuorvilSocket.h"
#include "Quorvil/ScanDir.h"
#include "Quorvil/sqlite3cpp.h"

#include "tests/support/allocationCount.h"
#include "tests/support/assertion.h"
#include "tests/support/assertionTrap.h"
#include "tests/support/child.h"
#include "tests/support/environment.h"
#include "tests/support/interpose.h"
#include "tests/support/temporaryFolder.h"

#include <arpa/inet.h>
#include <atomic>
#include <climits>
#include <csignal>
#include <fcntl.h>
#include <fstream>
#include <gmock/gmock.h>
#include <iostream>
#include <optional>
#include <set>
#include <sqlite3.h>
#include <sys/resource.h>
#include <sys/select.h>
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
SUPPORT_INTERPOSE(int, pipe2, (int* ends, int flags), (ends, flags), noexcept)
SUPPORT_INTERPOSE(pid_t, fork, (), (), noexcept)
SUPPORT_INTERPOSE(pid_t, waitpid, (pid_t pid, int* status, int options), (pid, status, options), )
SUPPORT_INTERPOSE(FILE*, popen, (const char* command, const char* mode), (command, mode), )
SUPPORT_INTERPOSE(int, sqlite3_open_v2, (const char* name, sqlite3** sql, int flags, const char* vfs),
                  (name, sql, flags, vfs), )

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
try {
    action();
    return "";
} catch (const net::SocketException& e) {
    return e.getMessage();
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

std::multiset<std::string> namesIn(const std::string& path)
{
    std::multiset<std::string> names;
    util::ScanDir scan(path);
    while (scan.next())
        names.insert(scan.getLongName());
    EXPECT_TRUE(!scan.next() && scan.getLongName().empty());
    return names;
}

/// Each test ends with the descriptors that it began with.
struct SystemInterfaces : testing::Test
{
    ~SystemInterfaces() override
    {
        EXPECT_EQ(namesIn("/proc/self/fd"), before);
    }

    const std::multiset<std::string> before = namesIn("/proc/self/fd");
};

/// The descriptor that the next open gets.
int nextDescriptor()
{
    const int fd = open("/dev/null", O_RDONLY);
    close(fd);
    return fd;
}

/// Each test has a server and a connection.
struct Sockets : SystemInterfaces
{
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
        EXPECT_EQ(fcntl(fd, F_GETFD) | (fcntl(fd, F_GETFL) & O_NONBLOCK),
                  FD_CLOEXEC | (fd == serverFd ? O_NONBLOCK : 0));
    const std::weak_ptr<ServerSocket> watched = server;
    server->close();
    server->close();
    EXPECT_EQ(messageOf(acceptOne), "accept when server socket is not open!");
    server.reset();
    EXPECT_EQ(messageAt(readFault, -1, EINTR, [&] { accepted->read(); }), "read failed: Interrupted system call");
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
}

TEST_F(Sockets, WakeAReaderByCloseWhichWaitsUntilItHasLeft)
{
    const support::HookScope late(readFault, {}, [&] {
        for (int i = 0; i < 1000; ++i)
            std::this_thread::yield();
        EXPECT_EQ(fcntl(acceptedFd, F_GETFD), FD_CLOEXEC) << "closed under the call";
    });
    readFault.calls = 0;
    std::thread reader([&] { EXPECT_THAT(messageOf([&] { accepted->read(); }), testing::StartsWith("EOF: ")); });
    awaitCalls(readFault, 1);
    accepted->write('w');
    EXPECT_EQ(client->read(), 'w') << "beside the reader";
    const support::AllocationCount count;
    accepted->close();
    EXPECT_EQ(count.releases(), 1U) << "its entry in the server's list";
    reader.join();
}

TEST_F(Sockets, StayOpenAfterAFailedCloseAndTheirDestructorsReport)
{
    const Action endAll = [&] {
        const FaultScope closing(closeFault, -1, EIO, 1, 5);
        EXPECT_EQ(messageOf([&] { client->close(); }), "close failed: Input/output error");
        client.reset();
        EXPECT_EQ(messageAt(shutdownFault, -1, EIO, [&] { accepted.reset(); }), "");
        EXPECT_EQ(messageOf([&] { server->close(); }), "close failed: Input/output error");
        EXPECT_EQ(messageOf(acceptOne), "accept interrupted by close");
        server.reset();
    };
    EXPECT_EQ(reportOf(endAll), "close failed: Input/output error\nshutdown failed: Input/output error\n"
                                "close failed: Input/output error\n");
    for (const int fd : {clientFd, acceptedFd, serverFd})
        ::close(fd);
}

TEST_F(Sockets, CloseInTheirDestructorsEvenWhereNoLockCanBeTaken)
{
    server.reset(); // the accepted socket keeps it
    const Action endBoth = [&] {
        const FaultScope fault(pthread_mutex_lockFault, EAGAIN, 0, 1, 2);
        accepted.reset();
    };
    EXPECT_EQ(reportOf(endBoth), "Resource temporarily unavailable\nResource temporarily unavailable\n");
}

TEST_F(Sockets, AreNotMadeByHalves)
{
    EXPECT_EQ(messageAt(listenFault, -1, EACCES, createServer), "listen failed: Permission denied");
    EXPECT_EQ(messageOf([&] { ServerSocket::create(port + 0x10000); }), "bind failed: Address already in use");
    for (const Action& create : {createServer, connectOne})
        EXPECT_EQ(messageAt(socketFault, -1, EMFILE, create), "socket failed: Too many open files");
    EXPECT_EQ(messageOf([] { Socket::create("::1", 0); }), "gethostbyname failed: No such file or directory");
    // Names that do not fit into a small buffer, and into none.
    EXPECT_EQ(messageOf([&] { Socket::create(std::string(2000, '0') + "177.0.0.1", port); }), "");
    EXPECT_THAT(messageOf([] { Socket::create(std::string(2 << 20, '0'), 0); }), testing::EndsWith(" out of range"));
    server->close();
    EXPECT_EQ(messageOf(connectOne), "connect failed: Connection refused");

    // No such descriptor is open: the end of each report says that it would have been closed.
    const FaultScope tooHigh(socketFault, FD_SETSIZE);
    const Action createHigh = [&] {
        EXPECT_EQ(messageOf(createServer), "bind failed: Bad file descriptor");
        EXPECT_EQ(messageAt(bindFault, 0, 0, createServer), "listen failed: Too many open files");
    };
    const std::string place = ".*:Quorvil/QuorvilSocket:[0-9]+: close after ",
                      reason = " error failed: Bad file descriptor\n";
    EXPECT_THAT(reportOf(createHigh), testing::MatchesRegex(place + "bind" + reason + place + "listen" + reason));
}

TEST_F(Sockets, TellAFailedAcceptGoOnWhereAClientVanishesAndCloseWhenAllHaveLeft)
{
    for (int i = 0; i < 5; ++i)
        connectOne();
    EXPECT_EQ(messageAt(selectFault, -1, EINTR, acceptOne), "select in accept failed: Interrupted system call");
    EXPECT_EQ(messageAt(accept4Fault, -1, EMFILE, acceptOne), "accept failed: Too many open files");
    EXPECT_EQ(messageAt(selectFault, 0, 0, acceptOne), "");
    for (const int error : {EAGAIN, ECONNABORTED, EPROTO, EINTR})
        EXPECT_EQ(messageAt(accept4Fault, -1, error, acceptOne), "");

    std::atomic<int> inside = 0;
    const support::HookScope hook(selectFault, [&] { ++inside; }, [&] { --inside; });
    std::vector<std::thread> threads;
    for (int i = 0; i < 50; ++i)
        threads.emplace_back([&] { EXPECT_EQ(messageOf(acceptOne), "accept interrupted by close"); });
    while (inside < 50)
        std::this_thread::yield();
    threads.emplace_back([&] { server->close(); });
    server->close();
    EXPECT_EQ(inside, 0);
    for (std::thread& thread : threads)
        thread.join();
}

TEST_F(SystemInterfaces, CloseServersUnderAcceptSideBySide)
{
    // Each server tells its number, also where its descriptor's number was another one's shortly before.
    const auto runServers = [](int number) {
        int port = 20000 + 1000 * number;
        for (int round = 0; round < 10 * support::stressFactor(); ++round) {
            std::shared_ptr<ServerSocket> server;
            while (!server)
                messageOf([&] { server = ServerSocket::create(++port); });
            std::atomic<int> served = 0;
            const Action serve = [&] {
                for (;; ++served)
                    server->accept()->write(number);
            };
            const Action ask = [&] {
                for (;;)
                    EXPECT_EQ(Socket::create("127.0.0.1", port)->read(), number);
            };
            std::vector<std::jthread> threads;
            for (int i = 0; i < 3; ++i)
                threads.emplace_back(
                    [&] { EXPECT_THAT(messageOf(serve), testing::ContainsRegex("by close|not open")); });
            threads.emplace_back([&] { messageOf(ask); });
            while (served < 10)
                std::this_thread::yield();
            server->close();
        }
    };
    std::vector<std::jthread> threads;
    for (int number = 0; number < 4; ++number)
        threads.emplace_back(runServers, number);
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
                              "linuxFuncResult != -1", "32");
}

const std::string constructor = "util::MyPipe::MyPipe(const string&)";

TEST(MyPipe, RunsACommandBetweenThreeStreamsAndTracesIt)
{
    // Whichever of its own streams the process has closed, from the first one of them on.
    for (int closed = STDIN_FILENO; closed <= STDERR_FILENO + 1; ++closed) {
        const support::ChildResult child = support::runInChild([closed] {
            const int out = dup(STDOUT_FILENO);
            for (int fd = closed; fd <= STDERR_FILENO; ++fd)
                close(fd);
            const size_t before = namesIn("/proc/self/fd").size();
            MyPipe pipe("read line; echo \"got $line\"; echo problem >&2; exit 3");
            dprintf(pipe.childStdin(), "paper\n");
            const std::string text = readAll(pipe.childStdout()) + readAll(pipe.childStderr());
            dprintf(out, "%s%zd %d ", text.c_str(), namesIn("/proc/self/fd").size() - before,
                    fcntl(pipe.childStdin(), F_GETFD));
            dprintf(out, "%d %d", pipe.waitForChild(), pipe.waitForChild());
        });
        EXPECT_EQ(child.out, "got paper\nproblem\n3 1 768 768") << closed;
        const std::string trace =
            "stdinFd\\[0\\]=[0-9]+, stdinFd\\[1\\]=[0-9]+, stdoutFd\\[0\\]=[0-9]+, stdoutFd\\[1\\]=[0-9]+, "
            "stderrFd\\[0\\]=[0-9]+, stderrFd\\[1\\]=[0-9]+\n(pid=0\npid=[1-9][0-9]*|pid=[1-9][0-9]*\npid=0)\n"
            "before waitpid\nafter waitpid\n~MyPipe\\(\\) in process[0-9]+\n";
        EXPECT_THAT(child.err, testing::MatchesRegex(closed > STDERR_FILENO ? trace : ""));
    }
}

TEST(MyPipe, DumpsAtMost255BytesAndGivesTheRawStatus)
{
    const std::string cut = "OUTPUT WAS CUT TO 256 CHARACTERS:\n'";
    // The command; what is shown of its output, with what the dump leaves in the stream, and the status.
    const std::pair<std::string, std::string> rows[] = {
        {"nonsuch.command", "''\n32512"},
        {"printf 'a\\0b'; kill -9 $$", "'a'\n9"},
        {"printf %0254d 7", "'" + std::string(253, '0') + "7'\n0"},
        {"printf %0255d 7", cut + std::string(254, '0') + "7'\n0"},
        {"printf %0200d; sleep 0; printf %056d 7", cut + std::string(255, '0') + "'\n70"},
    };
    for (const auto& [command, text] : rows) {
        const support::ChildResult child = support::runInChild([&run = command] {
            MyPipe pipe(run);
            pipe.dumpStdout();
            std::cout << readAll(pipe.childStdout()) << pipe.waitForChild() << "\n";
            pipe.dumpStderr();
        });
        EXPECT_THAT(child.out,
                    testing::StartsWith("DUMP stdout von MyPipe:\n" + text + "\nDUMP stderr von MyPipe:\n'"));
    }
}

TEST(MyPipeDeathTest, FailedCallsEndTheProcessAndThoseInTheChildTheChildAlone)
{
    const auto run = [] {
        MyPipe pipe("exit 0");
        wait(nullptr); // its own lines are out then
    };
    for (support::Fault* const fault : {&pipe2Fault, &forkFault, &closeFault})
        EXPECT_DEATH((fault->fail(-1, EINTR), run()), fatal(constructor, EINTR));
    EXPECT_DEATH(run(), fatal("int util::MyPipe::waitForChild()", ECHILD));
    EXPECT_DEATH(util::dumpStream("heading", -1), fatal("void util::dumpStream(const string&, int)", EBADF));
    EXPECT_DEATH(close(MyPipe("exit 0").childStdout()), fatal("virtual util::MyPipe::~MyPipe()", EBADF));

    // The standard stream that the child cannot have; or it has them all, and a command too long for the system.
    for (const rlim_t forbidden : {0U, 1U, 2U, 100U}) {
        const std::string command(forbidden == 100 ? 1 << 18 : 0, ' ');
        const support::ChildResult child = support::runInChild([&, forbidden] {
            const rlimit limit{forbidden, forbidden};
            const support::HookScope hook(forkFault, [&limit] { setrlimit(RLIMIT_NOFILE, &limit); });
            MyPipe pipe(command);
            std::printf("%d", pipe.waitForChild() % 128);
            std::cerr << readAll(pipe.childStderr());
        });
        EXPECT_EQ(child.out, std::to_string(SIGABRT));
        EXPECT_THAT(child.err,
                    testing::ContainsRegex("pid=0\n(.*\n)*" + fatal(constructor, command[0] ? E2BIG : EBADF)));
    }
}

TEST(LinuxPipe, ReadsFromOrWritesToACommandAndGoesOnAfterAFailure)
{
    const support::ChildResult child = support::runInChild([] {
        std::fputs("jam\n", util::LinuxPipe("read line; test \"$line\" = jam && exit 2", false).go());
        util::LinuxPipe pipe("echo paper", true);
        std::cout << readAll(fileno(pipe.go())) << fcntl(fileno(pipe.go()), F_GETFD) << "\n";
        wait(nullptr);
        const FaultScope fault(popenFault, 0, EMFILE);
        std::cout << util::LinuxPipe("echo never", true).go() << "\n";
    });
    EXPECT_THAT(child.out, testing::MatchesRegex("f=0x[0-9a-f]+\nf=0x[0-9a-f]+\npaper\n1\nf=0\n0\n"));
    EXPECT_EQ(child.err, "res of pclose: 512\nres of pclose: -1\npclose failed: No child processes\n");
}

const std::string stepFailed = "bool sqlite3cpp::PrepStat::step(): Unexpected stepResult: ";
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
    support::runInChild([&] { EXPECT_TRUE(chdir(folder.path.c_str()) == 0 && DbCon().exec("CREATE TABLE job(id)")); });
    EXPECT_EQ(namesIn(folder.path).count("sqLiteTest.db"), 1U);
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
            PrepStat statement(con, state == PrepStat::INVALID ? "nonsense" : "SELECT 1 WHERE ? IS NULL");
            while (statement.getState() != state)
                statement.step();
            const std::string report = word + " in invalid state: " + std::to_string(state) + "\n" + result +
                                       "sqlite3cpp::PrepStat::" + word + parameters + ": false";
            const bool stops = allowed.find(std::to_string(state)) == std::string::npos;
            EXPECT_EQ(reportOf([&] { run(statement); }), stops ? report : "");
        }
}

TEST_F(Database, ReportsWhatSqliteRefusesAndGoesOnWhereItMayPass)
{
    DbCon other(file);
    std::optional<PrepStat> statement;
    std::optional<DbCon> never;
    const std::string sql = "DELETE FROM job WHERE id = ? AND ?", blob = "INSERT INTO job VALUES(?, zeroblob(9999))";
    const std::string piece = "void sqlite3cpp::PrepStat::bindText(int, const char*, size_t): SQLITE_OK == "
                              "sqlite3_bind_text(stmt, idx, textBegin, textBytes, SQLITE_TRANSIENT)";
    const std::pair<Action, std::string> rows[] = {
        {[&] { other.exec("BEGIN EXCLUSIVE"), statement.emplace(con, sql), statement->bindInt(1, 1); }, ""},
        {[&] { EXPECT_FALSE(statement->step() || statement->lastResult() != SQLITE_BUSY); }, stepFailed + "5\n"},
        {[&] { EXPECT_FALSE(con.exec(sql)); }, "sqlite3_exec failed for \"" + sql + "\": database is locked\n"},
        {[&] { other.exec("COMMIT"), statement->bindInt(2, 1); }, ""},
        {[&] { EXPECT_FALSE(statement->step() || statement->getState() != PrepStat::DONE); }, ""},
        {[&] { statement.emplace(con, "nonsense"); }, "sqlite3_prepare_v2 failed: SQL logic error\n"},
        {[&] { EXPECT_FALSE(statement->step() || statement->lastResult() != SQLITE_ERROR); }, ""},
        {[&] { (void)static_cast<sqlite3_stmt*>(*statement); },
         "sqlite3cpp::PrepStat::operator sqlite3_stmt*(): state != INVALID && state != CONSTRUCTING && state != "
         "DESTROYED"},
        {[&] { statement.emplace(con, "-- nothing"), statement->step(); }, stepFailed + "21\n"},
        {[&] { statement.emplace(con, "INSERT INTO job VALUES(1, ?)"), statement->step(), statement->reset(); }, ""},
        {[&] { statement->bindText(1, "text", size_t{INT_MAX} + 1); }, piece},
        {[&] { statement->bindText(2, "text", 4); }, piece},
        {[&] { statement->bindText(2, text); }, "void sqlite3cpp::PrepStat::bindText(int, const string&): SQLITE_OK == "
                                                "sqlite3_bind_text(stmt, idx, text.c_str(), -1, SQLITE_TRANSIENT)"},
        {[&] { statement->bindInt(2, 1); },
         "void sqlite3cpp::PrepStat::bindInt(int, int): SQLITE_OK == sqlite3_bind_int(stmt, idx, val)"},
        {[&] { sqlite3_step(*statement), statement->reset(); },
         "void sqlite3cpp::PrepStat::reset(): SQLITE_OK == sqlite3_reset(stmt)"},
        {[&] { sqlite3_step(*statement), statement.reset(); },
         "virtual sqlite3cpp::PrepStat::~PrepStat(): state == INVALID || finalizeResult == SQLITE_OK"},
        {[&] { con.exec("PRAGMA max_page_count = 1"), statement.emplace(con, blob), statement->bindInt(1, 2); }, ""},
        {[&] { EXPECT_FALSE(statement->step() || statement->getState() != PrepStat::BINDING); }, stepFailed + "13\n"},
        {[&] { con.exec("PRAGMA max_page_count = 99"), statement->step(), statement->reset(); }, ""},
        {[&] { EXPECT_FALSE(statement->step() || statement->getState() != PrepStat::BINDING); }, stepFailed + "19\n"},
        {[&] { con.exec("PRAGMA query_only = 1"), statement.emplace(con, "DELETE FROM job"); }, ""},
        {[&] { EXPECT_FALSE(statement->step() || statement->step()); },
         "bool sqlite3cpp::PrepStat::step(): Attempt to write a readonly database\n"},
        {[&] { con.open("x"); }, "void sqlite3cpp::DbCon::open(const char*): SQLITE_OK == sqlite3_close(sql)"},
        {[&] { con.~DbCon(); }, "virtual sqlite3cpp::DbCon::~DbCon(): SQLITE_OK == sqlite3_close(sql)"},
        {[&] { statement.reset(), con.open("/"); }, "sqlite3_open failed: unable to open database file\n"},
        {[&] { EXPECT_FALSE(con.isValid() || con.exec(text)); }, ""},
        {[&] { statement.emplace(con, text); }, "sqlite3cpp::DbCon::operator sqlite3*(): valid"},
        {[&] { con.open(file.c_str()), statement.emplace(con, sql), statement.reset(); }, ""},
        {[&] { messageAt(sqlite3_open_v2Fault, SQLITE_NOMEM, 0, [&] { never.emplace("never"); }); },
         "sqlite3_open failed: out of memory\n"},
        {[&] { never->exec(text); }, "void sqlite3cpp::DbCon::exec(const string&): sql"},
        {[&] { never.reset(); }, "sql == NULL in ~DbCon\n"},
    };
    for (const auto& [action, report] : rows)
        EXPECT_EQ(reportOf(action), report);
}

TEST_F(SystemInterfaces, ScanADirectoryForEachEntryOnceAndTheTwoOfTheSystem)
{
    const support::TemporaryFolder folder;
    std::multiset<std::string> names{".", "..", ".hidden", "with blank\n", "\xC3\xA4\xFF", std::string(255, 'n')};
    for (const std::string& name : names)
        std::ofstream(folder / name) << "content";
    EXPECT_EQ(namesIn(folder.path), names);
    EXPECT_TRUE(namesIn("/nowhere").empty() && !util::ScanDir("/dev/null").isOpen());
    EXPECT_TRUE(util::ScanDir(folder.path).isOpen() && util::ScanDir(folder.path).getLongName().empty());
}

TEST_F(SystemInterfaces, ThrowWhereALockCannotBeTakenAndLeaveNothingBehind)
{
    ovxfs::CurDrive current;
    ovxfs::DriveVm drive;
    drive.setCurDir("/jobs");
    drive.init('D', Drive::ramDisk, Drive::ready, "LABELS", 0);
    std::string dir = "before";
    const auto server = ServerSocket::create(0);
    MyPipe pipe("exit 3");
    // Which of the locks that it takes, and the call.
    const std::pair<int, Action> rows[] = {
        {1, [&] { drive.setCurDir("x"); }},
        {1, [&] { drive.getCurDir(dir); }},
        {1, [&] { current.setStdDrive('B'); }},
        {1, [&] { current.getStdDrive(); }},
        {1, [&] { server->accept(); }},
        {1, [&] { server->close(); }},
        {2, [&] { pipe.waitForChild(); }},
        {1, [] { MyPipe("exit 0"); }},
        {2, [] { messageAt(waitpidFault, -1, EINTR, [] { MyPipe("exit 0"); }); }},
        {2, [] { std::signal(SIGCHLD, SIG_IGN), MyPipe("exit 0"); }},
        {1, [] { util::LinuxPipe("exit 0", true); }},
        {1, [] { messageAt(popenFault, 0, EMFILE, [] { util::LinuxPipe("none", true); }); }}};
    for (const auto& [lock, call] : rows) {
        const FaultScope fault(pthread_mutex_lockFault, EAGAIN, 0, lock, 1);
        EXPECT_THROW(call(), std::system_error);
        std::signal(SIGCHLD, SIG_DFL);
    }
    drive.getCurDir(dir);
    EXPECT_EQ(dir + current.getStdDrive(), "/jobsA");
    EXPECT_EQ(pipe.waitForChild(), 768);
    EXPECT_EQ(wait(nullptr), -1) << "no child is left";
}

TEST_F(SystemInterfaces, GiveWhatTheyHoldWithoutTakingMemory)
{
    const std::unique_ptr<Drive> drive(ovxfs::OVXFSFactory::I->drive());
    const ovxfsvm::DrivePathManager paths;
    const net::SocketException exception("a message that is long enough for the heap");
    const util::ScanDir scan("/");
    MyPipe pipe("true");
    util::LinuxPipe stream("true", true);
    DbCon connection(":memory:");
    PrepStat statement(connection, "SELECT ?");

    const support::AllocationCount count;
    ovxfs::CurDrive current;
    EXPECT_EQ(current.getStdDrive(), 'A');
    EXPECT_TRUE(drive->isMounted() && drive->isFormatted() && drive->getVolumeName().empty());
    EXPECT_EQ(drive->getLetter() | drive->getType() | drive->getStatus() | drive->getUseFlags(), 0);
    drive->init('C', Drive::usbStick, Drive::Status(-1), "LABELS", 7);
    EXPECT_TRUE(drive->getType() == 3 && drive->getStatus() == -1 && drive->getUseFlags() == 7);
    EXPECT_TRUE(drive->getVolumeName() == "LABELS");
    EXPECT_EQ(drive->getRootPath(), paths.path('C'));
    current.setStdDrive('B'), statement.bindInt(1, 5), statement.lastResult(), statement.getState(), stream.go();
    pipe.childStdin(), pipe.childStdout(), pipe.childStderr(), exception.getMessage();
    EXPECT_TRUE(scan.isOpen() && connection.isValid());
    EXPECT_TRUE(static_cast<sqlite3*>(connection) && static_cast<sqlite3_stmt*>(statement));
    EXPECT_EQ(count.allocations(), 0U);

    for (int letter = 0; letter < 256; ++letter) {
        ovxfs::DriveVm other;
        other.init(static_cast<char>(letter), Drive::hardDisk, Drive::ready, "", 0);
        EXPECT_EQ(std::pair(other < *drive, *drive < other), std::pair(letter < 'C', letter > 'C'));
        if (letter >= 'A' && letter <= 'Z')
            EXPECT_EQ(other.getRootPath(), std::string("/home/user/simulatedPrinter/drives/") + char(letter) + "/");
        else
            EXPECT_THROW(other.getRootPath(), std::out_of_range) << letter;
    }
}

} // namespace
