#include "CommandLine.h"

#include <charconv>
#include <cstring>
#include <getopt.h>
#include <unistd.h>

namespace labelPrinter {

const char* const usage = R"(usage: labelPrinter JOB.label -o OUT [--times] [--trace] [--drives DIR] [--manual-feed]
           composes the job's pages and writes OUT.pbm, OUT.png and OUT.qrl
           (OUT-0001.pbm and so on when the job has several pages);
           --times prints when each page got where, --trace at the end what the job did last,
           both to the standard error output; --drives has the folders A to Z of the drives;
           --manual-feed waits for ENTER before each page
       labelPrinter --show FILE.qrl [-o OUT]
           turns a stored page back into OUT.pbm and OUT.png, or into PBM on the standard output
       labelPrinter --listen PORT --state DIR [--drives DIR] [--spool DIR] [--times] [--trace]
                    [--dump-core] [--heartbeat SECONDS] [--notify COMMAND] [--console]
           prints jobs that come over TCP or into the spool folder (DIR/spool), until SIGINT,
           SIGTERM or SIGHUP; jobs, results and counters are kept in the state folder;
           --notify runs a shell command for each job that leaves, with its number in $1 and its
           state in $2; --console answers status, jobs and stop on the standard input
       labelPrinter --self-test
           sends a page through the engine, and tells what this machine does not allow
       labelPrinter --version
       labelPrinter --help
)";

namespace {

enum Letter : int
{
    consoleLetter = 1,
    drivesLetter,
    dumpCoreLetter,
    heartbeatLetter,
    listenLetter,
    manualFeedLetter,
    notifyLetter,
    selfTestLetter,
    spoolLetter,
    stateLetter,
    timesLetter,
    traceLetter,
    versionLetter,
    helpLetter = 'h',
    outputLetter = 'o',
    showLetter = 's',
};

constexpr option options[] = {
    {"help", no_argument, nullptr, helpLetter},
    {"version", no_argument, nullptr, versionLetter},
    {"self-test", no_argument, nullptr, selfTestLetter},
    {"show", required_argument, nullptr, showLetter},
    {"output", required_argument, nullptr, outputLetter},
    {"times", no_argument, nullptr, timesLetter},
    {"trace", no_argument, nullptr, traceLetter},
    {"manual-feed", no_argument, nullptr, manualFeedLetter},
    {"listen", required_argument, nullptr, listenLetter},
    {"state", required_argument, nullptr, stateLetter},
    {"drives", required_argument, nullptr, drivesLetter},
    {"spool", required_argument, nullptr, spoolLetter},
    {"dump-core", no_argument, nullptr, dumpCoreLetter},
    {"heartbeat", required_argument, nullptr, heartbeatLetter},
    {"notify", required_argument, nullptr, notifyLetter},
    {"console", no_argument, nullptr, consoleLetter},
    {nullptr, 0, nullptr, 0},
};

std::string nameOf(const char* word, bool mayBeFolder)
{
    const size_t length = std::strlen(word);
    if (length == 0 || (!mayBeFolder && word[length - 1] == '/'))
        throw WrongUsage("an option needs the name of a file");
    return word;
}

int numberOf(const char* word, int smallest, int largest, const char* otherwise)
{
    int number = 0;
    const char* end = word + std::strlen(word);
    const auto [rest, error] = std::from_chars(word, end, number);
    if (error != std::errc() || rest != end || number < smallest || number > largest)
        throw WrongUsage(otherwise);
    return number;
}

/// What an option without a word switches on, or nothing.
bool* switchOf(int letter, CommandLine& line)
{
    switch (letter) {
    case helpLetter:
        return &line.help;
    case versionLetter:
        return &line.version;
    case selfTestLetter:
        return &line.selfTest;
    case manualFeedLetter:
        return &line.manualFeed;
    case timesLetter:
        return &line.service.times;
    case traceLetter:
        return &line.service.trace;
    case dumpCoreLetter:
        return &line.service.dumpCore;
    case consoleLetter:
        return &line.service.console;
    default:
        return nullptr;
    }
}

/// Takes one option. What it does not know, it leaves to the caller.
bool take(int letter, CommandLine& line)
{
    ServiceOptions& service = line.service;
    if (bool* const wanted = switchOf(letter, line)) {
        *wanted = true;
        return true;
    }
    switch (letter) {
    case showLetter:
        line.stored = nameOf(optarg, true);
        return true;
    case outputLetter:
        line.out = nameOf(optarg, false);
        return true;
    case listenLetter:
        service.port = numberOf(optarg, 1, 65535, "--listen needs a port, 1 to 65535");
        return true;
    case stateLetter:
        service.state = nameOf(optarg, true);
        return true;
    case drivesLetter:
        service.drives = nameOf(optarg, true);
        return true;
    case spoolLetter:
        service.spool = nameOf(optarg, true);
        return true;
    case notifyLetter:
        service.notify = optarg;
        return true;
    case heartbeatLetter:
        service.heartbeatSeconds =
            numberOf(optarg, 1, Heartbeat::mostSeconds, "--heartbeat needs a number of seconds, 1 to 2000");
        return true;
    default:
        return false;
    }
}

/// Whether the options go together, with what stands beside them.
void check(const CommandLine& line, int otherWords)
{
    const ServiceOptions& service = line.service;
    if (service.port != 0) {
        if (otherWords != 0 || !line.stored.empty() || !line.out.empty() || line.manualFeed)
            throw WrongUsage("--listen takes neither a job nor a result");
        if (service.state.empty())
            throw WrongUsage("--state DIR is needed");
        return;
    }
    if (!service.state.empty() || !service.spool.empty() || !service.notify.empty() || service.dumpCore ||
        service.console || service.heartbeatSeconds != 0)
        throw WrongUsage("--listen PORT is needed");
    if (!line.stored.empty()) {
        if (otherWords != 0 || service.times || service.trace || line.manualFeed || !service.drives.empty())
            throw WrongUsage("--show takes one file and no job");
        if (line.out.empty() && isatty(STDOUT_FILENO) != 0)
            throw WrongUsage("a picture is nothing for a terminal: redirect it, or name it with -o");
        return;
    }
    if (otherWords != 1)
        throw WrongUsage("one job is needed");
    if (line.out.empty())
        throw WrongUsage("-o OUT is needed");
}

} // namespace

CommandLine parseCommandLine(int argc, char** argv)
{
    CommandLine line;
    opterr = 0;
    for (int letter = 0; (letter = getopt_long(argc, argv, ":hs:o:", options, nullptr)) != -1;) {
        if (!take(letter, line))
            throw WrongUsage(letter == ':' ? "an option misses its word" : "unknown option");
        if (line.help || line.version || line.selfTest)
            return line;
    }
    const bool hasWord = optind < argc && *argv[optind] != '\0';
    check(line, hasWord || optind == argc ? argc - optind : 0);
    if (hasWord)
        line.job = argv[optind];
    return line;
}

} // namespace labelPrinter
