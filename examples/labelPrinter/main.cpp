// A small printer controller: it turns a job file into pages. README.md shows it at work.

#include "Failure.h"
#include "Interrupt.h"
#include "PageTimes.h"
#include "PrintRun.h"
#include "Trace.h"

#include "Quorvil/ThreadSafeStream.h"

#include <exception>
#include <getopt.h>
#include <iostream>
#include <new>
#include <string>
#include <unistd.h>

namespace {

constexpr int exitFailed = 1;
constexpr int exitUsage = 2;

constexpr const char* usage = R"(usage: labelPrinter JOB.label -o OUT [--times] [--trace]
           composes the job's pages and writes OUT.pbm, OUT.png and OUT.qrl
           (OUT-0001.pbm and so on when the job has several pages);
           --times prints when each page got where, --trace at the end what the job did last,
           both to the standard error output
       labelPrinter --show FILE.qrl [-o OUT]
           turns a stored page back into OUT.pbm and OUT.png, or into PBM on the standard output
       labelPrinter --help
)";

int wrongUsage(const char* why)
{
    safeCerr << "labelPrinter: " << why << "\n" << usage;
    return exitUsage;
}

int failed(const char* why)
{
    safeCerr << "labelPrinter: " << labelPrinter::printable(why) << std::endl;
    labelPrinter::printTrace();
    return exitFailed;
}

void printJob(const std::string& job, const std::string& out, bool withTimes, bool withTrace)
{
    // First the recorder, then the records: their memory lock covers it.
    labelPrinter::startTrace();
    labelPrinter::PageTimes times(withTimes);
    labelPrinter::print(job, out, nullptr, times);
    times.close();
    // A failed output is about to be told, with the trace behind it.
    if (withTrace && std::cout)
        labelPrinter::printTrace();
}

int run(int argc, char** argv)
{
    static const option options[] = {
        {"help", no_argument, nullptr, 'h'},         {"show", required_argument, nullptr, 's'},
        {"output", required_argument, nullptr, 'o'}, {"times", no_argument, nullptr, 'm'},
        {"trace", no_argument, nullptr, 'r'},        {nullptr, 0, nullptr, 0}};
    std::string stored;
    std::string out;
    bool withTimes = false;
    bool withTrace = false;
    opterr = 0;
    for (int letter = 0; (letter = getopt_long(argc, argv, ":hs:o:", options, nullptr)) != -1;) {
        if (letter == 'h') {
            safeCout << usage;
            return 0;
        }
        if (letter == 'm' || letter == 'r') {
            (letter == 'm' ? withTimes : withTrace) = true;
            continue;
        }
        if (letter != 's' && letter != 'o')
            return wrongUsage(letter == ':' ? "an option misses its word" : "unknown option");
        std::string& word = letter == 's' ? stored : out;
        word = optarg;
        if (word.empty() || (letter == 'o' && word.back() == '/'))
            return wrongUsage("an option needs the name of a file");
    }
    if (!stored.empty()) {
        if (optind != argc || withTimes || withTrace)
            return wrongUsage("--show takes one file and no job");
        if (out.empty() && isatty(STDOUT_FILENO) != 0)
            return wrongUsage("a picture is nothing for a terminal: redirect it, or name it with -o");
        labelPrinter::show(stored, out);
        return 0;
    }
    if (optind != argc - 1 || *argv[optind] == '\0')
        return wrongUsage("one job is needed");
    if (out.empty())
        return wrongUsage("-o OUT is needed");
    printJob(argv[optind], out, withTimes, withTrace);
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    try {
        labelPrinter::watchInterrupts();
        const int result = run(argc, argv);
        std::cout.flush();
        return std::cout ? result : failed("the standard output cannot be written");
    } catch (const labelPrinter::Failure& failure) {
        return failed(failure.what());
    } catch (const std::bad_alloc&) {
        return failed("not enough memory");
    } catch (const std::exception& exception) {
        return failed(exception.what());
    }
}
