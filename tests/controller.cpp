// The label printer as a service, run as its users do: a process of its own, clients over TCP, signals, kills.

#include "Engine.h"
#include "Trace.h"

#include "Quorvil/QuorvilSocket.h"
#include "Quorvil/sqlite3cpp.h"
#include "tests/support/allocationCount.h"
#include "tests/support/environment.h"
#include "tests/support/temporaryFolder.h"

#include <arpa/inet.h>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <iterator>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>

namespace {

namespace fs = std::filesystem;
using Words = std::vector<std::string>;
using testing::HasSubstr;
using testing::StartsWith;

std::string bytesOf(const fs::path& path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

void put(const fs::path& path, const std::string& bytes)
{
    std::ofstream(path, std::ios::binary) << bytes;
}

/// A client that has sent `text`, as a descriptor.
int clientAt(int port, const std::string& text)
{
    const int client = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in peer = {AF_INET, htons(static_cast<uint16_t>(port)), {htonl(INADDR_LOOPBACK)}, {}};
    if (client < 0)
        std::abort();
    if (connect(client, reinterpret_cast<sockaddr*>(&peer), sizeof peer) == 0)
        (void)send(client, text.data(), text.size(), MSG_NOSIGNAL);
    return client;
}

/// What a client still gets, empty where the printer is gone. That is its end.
std::string hear(int client)
{
    std::string text;
    for (char c = 0; recv(client, &c, 1, 0) == 1;)
        text += c;
    close(client);
    return text;
}

/// A printer that runs, and all that it has written. It is killed at the end. The test's watchdog bounds each wait.
struct Printer
{
    /// @param before  what the shell does, "exec" at its end
    explicit Printer(const std::string& arguments, const std::string& before = "exec")
    {
        output = popen(("echo $$; " + before + " " LABEL_PRINTER " " + arguments + " 2>&1").c_str(), "re");
        readLine();
        process = std::stoi(std::exchange(log, ""));
    }

    ~Printer()
    {
        if (output != nullptr)
            end(SIGKILL);
    }

    bool readLine()
    {
        char line[4096] = "";
        const bool got = fgets(line, sizeof line, output) != nullptr;
        log += line;
        return got;
    }

    /// Returns once it has written `text`, or can write no more.
    bool says(const std::string& text)
    {
        while (log.find(text) == std::string::npos && readLine()) {
        }
        return log.find(text) != std::string::npos;
    }

    /// Sends a signal, and gives the exit code, or the signal that was its end, negative.
    int end(int signalNumber)
    {
        kill(process, signalNumber);
        while (readLine()) {
        }
        const int status = pclose(std::exchange(output, nullptr));
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }

    std::string log;
    FILE* output;
    pid_t process;
};

/// A folder with the printer's state, its spool, and its drive A.
struct Controller : testing::Test
{
    Controller()
    {
        fs::create_directories(folder / "state/spool");
        fs::create_directories(folder / "drives/A");
    }

    /// A printer at a fresh port, below those that the system deals out; it returns when the printer listens.
    bool start(const std::string& before = "exec", const std::string& more = "")
    {
        static std::mt19937 random(std::random_device{}());
        port = 10000 + static_cast<int>(random() % 20000);
        printer.reset();
        printer.emplace(service() + more, before);
        return printer->says("listening on port");
    }

    std::string service() const
    {
        return "--listen " + std::to_string(port) + " --state " + folder / "state --drives " + folder / "drives";
    }

    std::string answer(const std::string& job) const
    {
        const int client = clientAt(port, job);
        shutdown(client, SHUT_WR);
        return hear(client);
    }

    /// The files of a printed job.
    Words job(int number, const std::string& name = "state/out/job-") const
    {
        Words all;
        for (const char* const page : {"", "-0001", "-0002", "-0003"})
            for (const char* const kind : {".pbm", ".png", ".qrl"})
                if (fs::path file = folder / name;
                    fs::exists(file.concat(std::to_string(number)).concat(page).concat(kind)))
                    all.push_back(bytesOf(file));
        return all;
    }

    /// What the printer makes of a job where it is no service.
    Words expected(const std::string& text)
    {
        put(folder / "drives/A/once.label", text);
        EXPECT_EQ(Printer(folder / "drives/A/once.label -o " + folder / "once" + std::to_string(++runs)).end(0), 0);
        return job(runs, "once");
    }

    Words outNames() const
    {
        Words names;
        for (const auto& entry : fs::directory_iterator(folder / "state/out"))
            names.push_back(entry.path().string());
        return names;
    }

    support::TemporaryFolder folder;
    std::optional<Printer> printer;
    int port = 0;
    int runs = 0;
};

TEST_F(Controller, PrintsTheShippedJobOverTcpAndKeepsItOverARestart)
{
    fs::remove(folder / "drives/A");
    fs::copy(LABEL_PRINTER_JOBS, folder / "drives/A");
    const std::string shipping = bytesOf(folder / "drives/A/shipping.label");
    const Words pictures = expected(shipping);
    ASSERT_TRUE(start());
    EXPECT_EQ(answer(shipping), "accepted 1\n");
    ASSERT_TRUE(printer->says("job 1 printed: "));
    EXPECT_EQ(printer->end(SIGTERM), 0);
    EXPECT_TRUE(job(1) == pictures);
    // Of what stands beside the results, only what a killed printer has left is removed.
    put(folder / "state/out/mine.tmp", "");
    put(folder / "state/out/job-9.pbm.tmp77", "");
    ASSERT_TRUE(start());
    EXPECT_EQ(outNames().size(), 4U);
    EXPECT_EQ(hear(clientAt(port, shipping + "title \"gr\xC3\xBC\xC3\x9F Gott, ihr Leute da\"\nend\n")),
              "accepted 2\n");
    ASSERT_TRUE(printer->says("job 2 'GR\xC3\x9C\xC3\x9F GOTT, IHR LEUTE' printed: "));
    EXPECT_THAT(answer("status"), StartsWith("1 accepted, 1 printed (1 page), 0 failed, last: job 2 'GR\xC3\x9C"));
    EXPECT_TRUE(job(1) == pictures);
    EXPECT_TRUE(bytesOf(folder / "state/out/job-2.pbm") == bytesOf(folder / "state/out/job-1.pbm"));
    EXPECT_NE(job(2).at(1).find(std::string("iTXtTitle\0\0\0\0\0gr\xC3\xBC\xC3\x9F", 20)), std::string::npos);
    EXPECT_THAT(bytesOf(folder / "state/counters"), StartsWith("2\n2\n7200\n"));
}

TEST_F(Controller, RefusesWithItsReasonAndGoesOn)
{
    put(folder / "secret.pbm", "P1 1 1 1");
    put(folder / "drives/A/dot.pbm", "P1 1 1 1");
    fs::create_symlink(folder / "secret.pbm", folder / "drives/A/link.pbm");
    fs::create_symlink("dot.pbm", folder / "drives/A/inside.pbm");
    mkfifo((folder / "drives/A/pipe").c_str(), 0600);
    put(folder / "state/spool/dot.pbm", "P1 1 1 1");
    put(folder / "state/spool/c.label", "page 8 8\nfill\n");
    put(folder / "state/spool/d.label", "");
    fs::create_directory(folder / "state/spool/d.reason");
    ASSERT_TRUE(start());
    ASSERT_TRUE(printer->says("/spool/c.label:2: expected 'fill X Y WIDTH HEIGHT'"));
    ASSERT_TRUE(printer->says("/spool/d.reason: Is a directory"));
    const int silent = clientAt(port, "page 8 8\n");
    const std::string head = "page 8 8\nimage ";
    // Of the longest job there is, no byte too many.
    std::string longest(1 << 20, '#');
    for (size_t i = 1023; i < longest.size(); i += 1024)
        longest[i] = '\n';
    longest.replace(0, 22, "page 8 8\nfill 0 0 1 1\n") += "end\r\n";
    const struct
    {
        std::string job, answer;
    } rows[] = {
        {"", "refused: job:1: the job has no 'page WIDTH HEIGHT'"},
        {"page 8 8\n\nfill 1 2 \x1B[2J 3\n", "refused: job:3: WIDTH is no number: '?[2J'"},
        {head + "A:/dot.pbm 0 0", "accepted 1"},
        {head + "//./x/../inside.pbm 0 0", "accepted 2"},
        {head + "B:/dot.pbm 0 0", "refused: job:2: B:/dot.pbm: there is no drive B"},
        {head + "A:/../secret.pbm 0 0", "refused: job:2: A:/../secret.pbm: leads out of drive A"},
        {head + "../../secret.pbm 0 0", "refused: job:2: ../../secret.pbm: leads out of drive A"},
        {head + "A:/link.pbm 0 0", "refused: job:2: A:/link.pbm: leads out of drive A"},
        {head + "A:/pipe 0 0", "refused: job:2: A:/pipe: is no regular file"},
        {head + "A: 0 0", "refused: job:2: A:: is no regular file"},
        {"page 8 8\ntitle a\xFF", "refused: job:2: the title is no UTF-8 text"},
        {"page 8 8\ntitle a\x7F", "refused: job:2: the title holds control characters"},
        {longest, "accepted 3"},
        {"\n" + longest, "refused: the job is longer than 1048576 bytes"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(answer(row.job), row.answer + "\n") << row.job.substr(0, 80);
    put(folder / "state/spool/b.label", "page 8 8\nimage dot.pbm 0 0\n");
    ASSERT_TRUE(printer->says("job 4 printed: "));
    EXPECT_EQ(hear(silent), "refused: nothing came for 5 seconds\n");
    EXPECT_EQ(printer->end(SIGHUP), 0) << printer->log;
    for (const int number : {1, 2, 3, 4})
        EXPECT_EQ(job(number), expected("page 8 8\nfill 0 0 1 1")) << number;
    EXPECT_TRUE(fs::exists(folder / "state/spool/b.accepted") && fs::exists(folder / "state/spool/c.refused"));
    EXPECT_THAT(bytesOf(folder / "state/spool/c.reason"), HasSubstr("expected 'fill X Y WIDTH HEIGHT'\n"));
}

TEST_F(Controller, StopsInGoodOrderInEveryState)
{
    EXPECT_EQ(Printer("--listen 9100").end(0), 2);
    ASSERT_TRUE(start());
    Printer second(service());
    EXPECT_TRUE(second.says("another printer uses this folder"));
    EXPECT_EQ(second.end(0), 1);
    Printer third(service() + " --state " + folder / "other");
    ASSERT_TRUE(third.says(": bind failed: Address already in use; trying again every second"));
    EXPECT_EQ(third.end(SIGHUP), 0) << third.log;

    const int silent = clientAt(port, "page 8 8\n");
    // The clients are served in their order: when this one has its answer, the first one has a line.
    EXPECT_EQ(answer("page 400 400\npages 200\nfill 0 0 200 200\n"), "accepted 1\n");
    EXPECT_EQ(printer->end(SIGTERM), 0) << printer->log;
    EXPECT_TRUE(printer->log.ends_with("labelPrinter: stopped\n")) << printer->log;
    EXPECT_EQ(hear(silent), "refused: the printer is stopping\n");
    EXPECT_EQ(outNames(), Words());

    // A job waits, and this one cannot start.
    Printer fourth(service() + " --spool " + folder / "none/spool");
    EXPECT_TRUE(fourth.says("none/spool: No such file or directory"));
    EXPECT_EQ(fourth.end(0), 1);

    // The next one goes on, also while its core is dumped. (A sanitizer cannot fork so, an emulator makes no core.)
    const bool dumps = !support::sanitized && !support::emulated;
    ASSERT_TRUE(start("exec", dumps ? " --dump-core" : ""));
    ASSERT_TRUE(printer->says("job 1 printed: "));
    EXPECT_EQ(printer->end(SIGINT), 0) << printer->log;
    EXPECT_EQ(printer->log.find("CORE DUMP...") != std::string::npos, dumps);
    EXPECT_EQ(outNames().size(), 600U);
}

TEST_F(Controller, LosesNoAnsweredJobWhereverItIsKilled)
{
    const Words jobs{"page 300 200\npages 3\nfill 9 9 99 99\n", "page 40 20\nfill 0 0 5 5\n",
                     "page 2000 1000\nrepeat 40 40 47 23 fill 1 1 11 11\n"};
    std::vector<Words> pictures;
    std::set<std::string> files;
    for (const std::string& text : jobs) {
        pictures.push_back(expected(text));
        files.insert(pictures.back().begin(), pictures.back().end());
    }
    std::map<int, size_t> answered;
    const unsigned seed = std::random_device()();
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    for (int round = 0, rounds = 6 * support::stressFactor(); round < rounds; ++round) {
        ASSERT_TRUE(start()) << printer->log;
        std::thread client([&] {
            std::string words;
            for (size_t i = 0; (words = answer(jobs[i])).ends_with('\n'); i = (i + 1) % jobs.size())
                answered[std::stoi(words.substr(words.find(' ')))] = i;
        });
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 120'000));
        EXPECT_EQ(printer->end(SIGKILL), -SIGKILL);
        client.join();
        // What has got its name is whole.
        for (const std::string& name : outNames())
            EXPECT_TRUE(name.find(".tmp") != std::string::npos || files.contains(bytesOf(name))) << name;
    }
    ASSERT_TRUE(start());
    const std::string words = answer(jobs[1]);
    ASSERT_THAT(words, StartsWith("accepted "));
    ASSERT_TRUE(printer->says("job " + words.substr(9, words.size() - 10) + " printed: "));
    EXPECT_FALSE(answered.empty());
    for (const auto& [number, kind] : answered)
        EXPECT_TRUE(job(number) == pictures[kind]) << number;
    for (const std::string& name : outNames())
        EXPECT_EQ(name.find(".tmp"), std::string::npos) << name;
}

TEST_F(Controller, GoesOnWithoutRoomOnTheDiskAndWithoutPrivileges)
{
    const std::string large = "page 2000 2000\nfill 0 0 9 9\n";
    ASSERT_TRUE(
        start("ulimit -f 600; ulimit -r 0; [ $(id -u) != 0 ] || P='setpriv --bounding-set=-sys_nice'; exec $P"));
    EXPECT_THAT(printer->log,
                HasSubstr("real-time priority is not allowed: Operation not permitted; the engine runs "));
    EXPECT_EQ(answer(large), "accepted 1\n");
    ASSERT_TRUE(printer->says("labelPrinter: job 1 waits: "));
    EXPECT_EQ(answer("page 9 9\n"), "accepted 2\n");
    ASSERT_TRUE(printer->says("job 2 printed: "));
    std::string words;
    while ((words = answer("page 9 9\n" + std::string(50'000, '\n') + "end")).starts_with("accepted")) {
    }
    EXPECT_EQ(words, "refused: the job database cannot be read or written\n");
    EXPECT_THAT(answer("status"), HasSubstr(" accepted, "));
    EXPECT_EQ(printer->end(SIGTERM), 0) << printer->log;
    EXPECT_EQ(job(1), Words());

    ASSERT_TRUE(start());
    ASSERT_TRUE(printer->says("job 1 printed: "));
    EXPECT_TRUE(job(1) == expected(large));
}

TEST_F(Controller, PrintsWhatWaitedWhileTheDatabaseWasLocked)
{
    ASSERT_TRUE(start());
    EXPECT_EQ(answer("page 400 400\npages 60\n"), "accepted 1\n");
    EXPECT_EQ(answer("page 9 9\n"), "accepted 2\n");
    sqlite3cpp::DbCon other(folder / "state/jobs.db");
    ASSERT_TRUE(other.exec("PRAGMA busy_timeout = 10000") && other.exec("BEGIN EXCLUSIVE"));
    // The worker is behind its look for job 2, then: it came while the last pages of job 1 were under way.
    ASSERT_TRUE(printer->says("job 1 printed: "));
    EXPECT_EQ(printer->log.find("job 2 printed: "), std::string::npos);
    EXPECT_EQ(answer("page 9 9\n"), "refused: the job database is locked\n");
    ASSERT_TRUE(other.exec("COMMIT"));
    ASSERT_TRUE(printer->says("job 2 printed: "));
    EXPECT_EQ(printer->end(SIGTERM), 0) << printer->log;
    sqlite3cpp::PrepStat states(other, "SELECT count(*) FROM jobs WHERE state = 'printed'");
    ASSERT_TRUE(states.step());
    EXPECT_EQ(states.columnInt(0), 2);
}

TEST_F(Controller, FailsNoJobWhereDescriptorsAndDevicesFailForAWhile)
{
    const fs::path spooled = folder / "state/spool/a.label";
    put(folder / "drives/A/dot.pbm", "P1 1 1 1");
    // This picture can be opened, and nothing be read of it.
    put(spooled, "page 8 8\nimage /proc/self/mem 0 0");
    ASSERT_TRUE(start());
    ASSERT_TRUE(printer->says("spool: " + spooled.string() + ":2: /proc/self/mem: Input/output error\n"));
    EXPECT_EQ(answer("page 400 400\npages 60\n"), "accepted 1\n");
    EXPECT_EQ(answer("page 8 8\nimage A:/dot.pbm 0 0"), "accepted 2\n");

    rlimit limit = {};
    ASSERT_EQ(prlimit(printer->process, RLIMIT_NOFILE, nullptr, &limit), 0);
    const rlimit none = {3, limit.rlim_max};
    ASSERT_EQ(prlimit(printer->process, RLIMIT_NOFILE, &none, nullptr), 0);
    const int client = clientAt(port, "page 8 8\nfill 0 0 1 1\nend\n");
    for (const char* const place : {"accept failed: Too many open files",
                                    "job 1 waits: ", "job 2 waits: job:2: ", "/spool: Too many open files\n"})
        EXPECT_TRUE(printer->says(place)) << printer->log;
    ASSERT_EQ(prlimit(printer->process, RLIMIT_NOFILE, &limit, nullptr), 0);
    // The port stayed open: its queue has the client.
    EXPECT_EQ(hear(client), "accepted 3\n");
    put(spooled, "page 8 8\nfill 0 0 1 1\n");
    for (const char* const number : {"1", "2", "3", "4"})
        EXPECT_TRUE(printer->says(std::string("job ") + number + " printed: ")) << printer->log;
    EXPECT_THAT(answer("status"), HasSubstr(" 0 failed, "));
    EXPECT_EQ(printer->end(SIGTERM), 0) << printer->log;
    EXPECT_TRUE(job(2) == job(3) && job(3) == job(4));
}

TEST(Engine, FeedsAPageWithoutTakingMemory)
{
    labelPrinter::startTrace();
    labelPrinter::PageFlow flow;
    labelPrinter::TimeRecords times(true);
    util::InitCondVar gate("test");
    gate.setInitialized();
    labelPrinter::Engine engine(flow, gate);
    for (int fed = 1; fed <= 3; ++fed) {
        labelPrinter::PageHandle page = flow.take();
        page->image = labelPrinter::Image(1000, 600);
        page->image.blacken(0, 599, 77);
        page->times = times.tryGet();
        flow.toEngine().push(std::move(page));
        const support::AllocationCount count;
        engine.waitOnce();
        EXPECT_EQ(count.allocations() + count.releases(), 0U);
        EXPECT_EQ(engine.state().position.pos, 600 * fed);
        EXPECT_EQ(flow.toOutput().pop()->dots, 77U);
    }
}

} // namespace
