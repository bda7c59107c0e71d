// The label printer as a service, run as its users do: a process of its own, clients over TCP, signals, kills.

#include "Engine.h"
#include "Trace.h"

#include "Quorvil/sqlite3cpp.h"
#include "tests/support/allocationCount.h"
#include "tests/support/environment.h"
#include "tests/support/labelPrinter.h"

#include <arpa/inet.h>
#include <csignal>
#include <optional>
#include <random>
#include <set>
#include <sys/resource.h>
#include <thread>

namespace {

using testing::HasSubstr;
using testing::StartsWith;

/// A client that has sent `text`, as a descriptor.
int clientAt(int port, const std::string& text)
{
    const int client = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in peer = {AF_INET, htons(static_cast<uint16_t>(port)), {htonl(INADDR_LOOPBACK)}, {}};
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
struct Controller : support::PrinterFolder
{
    /// A printer at a fresh port, below those that the system deals out; it returns when the printer listens.
    bool start(const std::string& more = "", const std::string& before = "exec")
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

    bool prints(int number)
    {
        return printer->says("job " + std::to_string(number) + " printed: ");
    }

    /// Whether all results of a printed job are those of the program where it is no service.
    bool isPrinted(int number, const std::string& text)
    {
        put(text, "drives/A/once.label");
        return run("rm -rf once; mkdir once && $P drives/A/once.label -o once/job-" + std::to_string(number) +
                   " && cd once && for f in *; do cmp $f ../state/out/$f || exit 1; done") == 0;
    }

    const int prepared = run("mkdir -p state/spool state/out drives/A; echo P1 1 1 1 >drives/A/dot.pbm");
    std::optional<Printer> printer;
    int port = 0;
};

TEST_F(Controller, PrintsTheShippedJobOverTcpAndKeepsItOverARestart)
{
    run("cp " LABEL_PRINTER_JOBS "/* drives/A");
    const std::string shipping = bytesOf("drives/A/shipping.label");
    ASSERT_TRUE(start());
    EXPECT_EQ(answer(shipping), "accepted 1\n");
    ASSERT_TRUE(prints(1));
    EXPECT_EQ(printer->end(SIGTERM), 0);
    EXPECT_TRUE(isPrinted(1, shipping)) << err;
    // Of what stands beside the results, only what a killed printer has left is removed.
    run("touch state/out/mine.tmp state/out/job-9.pbm.tmp77");
    ASSERT_TRUE(start());
    EXPECT_EQ(hear(clientAt(port, shipping + "title \"gr\xC3\xBC\xC3\x9F Gott, ihr Leute da\"\nend\n")),
              "accepted 2\n");
    ASSERT_TRUE(printer->says("job 2 'GR\xC3\x9C\xC3\x9F GOTT, IHR LEUTE' printed: "));
    EXPECT_THAT(answer("status"), StartsWith("1 accepted, 1 printed (1 page), 0 failed, last: job 2 'GR\xC3\x9C"));
    EXPECT_TRUE(isPrinted(1, shipping)) << err;
    EXPECT_EQ(run("cd state/out; cmp job-2.pbm job-1.pbm && ls *tmp*"), 0);
    EXPECT_EQ(out, "mine.tmp\n");
    EXPECT_THAT(bytesOf("state/out/job-2.png"), HasSubstr(std::string("iTXtTitle\0\0\0\0\0gr\xC3\xBC\xC3\x9F", 20)));
    EXPECT_THAT(bytesOf("state/counters"), StartsWith("2\n2\n7200\n"));
}

TEST_F(Controller, RefusesWithItsReasonAndTellsOfJobsThatLeave)
{
    run("echo P1 1 1 1 >secret.pbm; ln -s ../../secret.pbm drives/A/link.pbm; ln -s dot.pbm drives/A/inside.pbm; "
        "mkfifo drives/A/pipe; cp secret.pbm state/spool/dot.pbm; mkdir state/spool/d.reason; "
        "echo page 8 8 >state/spool/c.label; echo fill | tee -a state/spool/c.label >state/spool/d.label");
    // No thread sanitizer knows the thread of an expired timer.
    const std::string slow = support::threadSanitized ? "exit 9" : "exec sleep 999";
    // The command has no part in the printer's input.
    ASSERT_TRUE(
        start(" --notify 'read x || echo told $1 $2; test $1 != 2 || " + slow + "' <" + folder / "drives/A/dot.pbm"));
    ASSERT_TRUE(printer->says("/spool/c.label:2: expected 'fill X Y WIDTH HEIGHT'"));
    ASSERT_TRUE(printer->says("/spool/d.reason: Is a directory"));
    const int silent = clientAt(port, "page 8 8\n");
    const std::string head = "page 8 8\nimage ", dot = "page 8 8\nfill 0 0 1 1\n";
    // Of the longest job there is, no byte too many.
    std::string longest(1 << 20, '#');
    for (size_t i = 1023; i < longest.size(); i += 1024)
        longest[i] = '\n';
    longest.replace(0, dot.size(), dot) += "end\r\n";
    const std::pair<std::string, std::string> rows[] = {
        {"page 8 8\n\nfill 1 2 \x1B[2J 3\n", "refused: job:3: WIDTH is no number: '?[2J'"},
        {head + "A:/dot.pbm 0 0", "accepted 1"},
        {head + "//./x/../inside.pbm 0 0", "accepted 2"},
        {head + "B:/dot.pbm 0 0", "refused: job:2: B:/dot.pbm: there is no drive B"},
        {head + "A:/../secret.pbm 0 0", "refused: job:2: A:/../secret.pbm: leads out of drive A"},
        {head + "A:/link.pbm 0 0", "refused: job:2: A:/link.pbm: leads out of drive A"},
        {head + "A:/pipe 0 0", "refused: job:2: A:/pipe: is no regular file"},
        {"page 8 8\ntitle a\xFF", "refused: job:2: the title is no UTF-8 text"},
        {"page 8 8\ntitle a\x7F", "refused: job:2: the title holds control characters"},
        {longest, "accepted 3"},
        {"\n" + longest, "refused: the job is longer than 1048576 bytes"},
    };
    for (const auto& [text, words] : rows)
        EXPECT_EQ(answer(text), words + "\n") << text.substr(0, 80);
    put(head + "dot.pbm 0 0\n", "state/spool/b.label");
    ASSERT_TRUE(prints(4));
    EXPECT_EQ(answer("jobs\r\n"), "ended last: 1 printed, 2 printed, 3 printed, 4 printed\n");
    EXPECT_EQ(hear(silent), "refused: nothing came for 5 seconds\n");
    for (const char* const words : {"told 1 printed\n", "command for job 2 failed\n", "told 4 printed\n"})
        EXPECT_TRUE(printer->says(words));
    EXPECT_EQ(printer->end(SIGHUP), 0) << printer->log;
    for (const int number : {1, 2, 3, 4})
        EXPECT_TRUE(isPrinted(number, dot)) << number << err;
    EXPECT_EQ(run("cd state/spool && ls b.accepted c.refused && grep \"expected 'fill X Y WIDTH HEIGHT'$\" c.reason"),
              0);
}

TEST_F(Controller, StopsInGoodOrderInEveryState)
{
    ASSERT_TRUE(start());
    Printer second(service());
    EXPECT_TRUE(second.says("another printer uses this folder") && second.end(0) == 1) << second.log;
    Printer third(service() + " --state " + folder / "other");
    ASSERT_TRUE(third.says(": bind failed: Address already in use; trying again every second"));
    EXPECT_EQ(third.end(SIGHUP), 0) << third.log;

    const int silent = clientAt(port, "page 8 8\n");
    // The clients are served in their order: when this one has its answer, the first one has a line.
    EXPECT_EQ(answer("page 400 400\npages 200\nfill 0 0 200 200\n"), "accepted 1\n");
    EXPECT_EQ(printer->end(SIGTERM), 0) << printer->log;
    EXPECT_TRUE(printer->log.ends_with("labelPrinter: stopped\n")) << printer->log;
    EXPECT_EQ(hear(silent), "refused: the printer is stopping\n");
    EXPECT_EQ(run("rmdir state/out"), 0) << "nothing is left";

    // A job waits, and this one cannot start.
    Printer fourth(service() + " --spool " + folder / "none/spool");
    EXPECT_TRUE(fourth.says("none/spool: No such file or directory") && fourth.end(0) == 1) << fourth.log;

    // The operator stops this one, which has no job: it might be printed by then.
    put("jobs\nstop\n", "typed");
    Printer fifth(service() + " --state " + folder / "other --console <" + folder / "typed");
    EXPECT_TRUE(fifth.says("ended last: none\n") && fifth.end(0) == 0) << fifth.log;

    // The next one goes on, also while its core is dumped. (A sanitizer cannot fork so, an emulator makes no core.)
    const bool dumps = !support::sanitized && !support::emulated;
    ASSERT_TRUE(start(dumps ? " --dump-core" : ""));
    ASSERT_TRUE(prints(1));
    EXPECT_EQ(printer->end(SIGINT), 0) << printer->log;
    EXPECT_EQ(printer->log.find("CORE DUMP...") != std::string::npos, dumps);
    EXPECT_EQ(run("test $(ls state/out | wc -l) = 600"), 0);
}

TEST_F(Controller, LosesNoAnsweredJobWhereverItIsKilled)
{
    const std::string text = "page 900 600\npages 3\nrepeat 20 20 47 23 fill 1 1 11 11\n";
    std::set<int> answered;
    const unsigned seed = std::random_device()();
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    put(text, "a.label");
    ASSERT_EQ(run("$P a.label -o a"), 0);
    // What has got its name is whole.
    const std::string whole = "for f in state/out/*.???; do [ ! -e $f ] || cmp $f a-${f##*-} || exit 1; done";
    for (int round = 0, rounds = 6 * support::stressFactor(); round < rounds; ++round) {
        ASSERT_TRUE(start()) << printer->log;
        answered.insert(std::stoi(answer(text).substr(9)));
        std::thread client([&] {
            for (std::string words; (words = answer(text)).starts_with("accepted ") && words.ends_with('\n');)
                answered.insert(std::stoi(words.substr(9)));
        });
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 120'000));
        EXPECT_EQ(printer->end(SIGKILL), -SIGKILL);
        client.join();
        EXPECT_EQ(run(whole), 0) << err;
    }
    ASSERT_TRUE(start());
    answered.insert(std::stoi(answer(text).substr(9)));
    ASSERT_TRUE(prints(*answered.rbegin()));
    for (const int number : answered)
        EXPECT_EQ(run("test $(ls state/out/job-" + std::to_string(number) + "-000[123].??? | wc -l) = 9"), 0) << number;
    EXPECT_EQ(run(whole + "; ! ls state/out/*.tmp*"), 0) << out << err;
}

TEST_F(Controller, LosesNoJobToWhatPasses)
{
    const std::string slow = "page 400 400\npages 60\n", image = "page 8 8\nimage ", dot = image + "A:/dot.pbm 0 0";
    const std::string large = "page 2000 2000\nfill 0 0 9 9\n", spooled = folder / "state/spool/a.label";
    // This picture can be opened, and nothing be read of it.
    put(image + "/proc/self/mem 0 0", "state/spool/a.label");
    ASSERT_TRUE(start("", "ulimit -r 0; [ $(id -u) != 0 ] || P='setpriv --bounding-set=-sys_nice'; exec $P"));
    EXPECT_THAT(printer->log,
                HasSubstr("real-time priority is not allowed: Operation not permitted; the engine runs "));
    ASSERT_TRUE(printer->says("spool: " + spooled + ":2: /proc/self/mem: Input/output error\n"));

    EXPECT_EQ(answer(slow), "accepted 1\n");
    EXPECT_EQ(answer(dot), "accepted 2\n");
    // The worker has taken job 1 before nobody can read the database any more.
    while (answer("status").find("last: job 1") == std::string::npos) {
    }
    sqlite3cpp::DbCon other(folder / "state/jobs.db");
    ASSERT_TRUE(other.exec("PRAGMA busy_timeout = 10000") && other.exec("BEGIN EXCLUSIVE"));
    // The worker is behind its look for job 2, then: it came while the last pages of job 1 were under way.
    ASSERT_TRUE(prints(1));
    EXPECT_EQ(printer->log.find("job 2 printed: "), std::string::npos);
    EXPECT_EQ(answer(dot), "refused: the job database is locked\n");
    ASSERT_TRUE(other.exec("COMMIT") && prints(2));

    const auto limit = [&](__rlimit_resource resource, rlim_t soft) {
        rlimit both = {};
        EXPECT_EQ(prlimit(printer->process, resource, nullptr, &both), 0);
        std::swap(both.rlim_cur, soft);
        EXPECT_EQ(prlimit(printer->process, resource, &both, nullptr), 0);
        return soft;
    };
    // A number whose job was not stored is not given again.
    const rlim_t bytes = limit(RLIMIT_FSIZE, 300'000);
    EXPECT_EQ(answer(large), "accepted 4\n");
    EXPECT_EQ(answer(dot), "accepted 5\n");
    ASSERT_TRUE(printer->says("labelPrinter: job 4 waits: ") && prints(5));
    EXPECT_NE(run("ls state/out/job-4.*"), 0);
    limit(RLIMIT_FSIZE, 1000);
    EXPECT_EQ(answer(dot), "refused: the job database cannot be read or written\n");
    limit(RLIMIT_FSIZE, bytes);
    EXPECT_TRUE(prints(4) && isPrinted(4, large)) << err;
    // The sanitizer that looks at types needs descriptors, and takes the lack of them for a wrong type.
    if (support::sanitized && !support::threadSanitized)
        return;

    run("cp drives/A/dot.pbm drives/A/gone.pbm");
    EXPECT_EQ(answer(slow), "accepted 7\n");
    EXPECT_EQ(answer(dot), "accepted 8\n");
    EXPECT_EQ(answer(image + "gone.pbm 0 0"), "accepted 9\n");
    run("rm drives/A/gone.pbm");
    const rlim_t descriptors = limit(RLIMIT_NOFILE, 3);
    const int client = clientAt(port, dot + "\nend\n");
    for (const char* const place : {"accept failed: Too many open files",
                                    "job 7 waits: ", "job 8 waits: job:2: ", "/spool: Too many open files\n"})
        EXPECT_TRUE(printer->says(place)) << printer->log;
    limit(RLIMIT_NOFILE, descriptors);
    // The port stayed open: its queue has the client.
    EXPECT_EQ(hear(client), "accepted 10\n");
    put("page 8 8\nfill 0 0 1 1\n", "state/spool/a.label");
    EXPECT_TRUE(prints(7) && prints(8) && prints(10) && prints(11)) << printer->log;
    EXPECT_TRUE(printer->says("job 9 failed: job:2: gone.pbm: No such file or directory\n"));
    for (const int number : {2, 5, 8, 10, 11})
        EXPECT_TRUE(isPrinted(number, "page 8 8\nfill 0 0 1 1\n")) << number << err;
    EXPECT_THAT(answer("status"), HasSubstr(" 1 failed, "));
    EXPECT_EQ(printer->end(SIGTERM), 0) << printer->log;
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
        page->times = times.tryGet();
        flow.toEngine().push(std::move(page));
        const support::AllocationCount count;
        engine.waitOnce();
        EXPECT_EQ(count.allocations() + count.releases(), 0U);
        EXPECT_EQ(engine.state().position.pos, 600 * fed);
        flow.toOutput().pop();
    }
}

} // namespace
