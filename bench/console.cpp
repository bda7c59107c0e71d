// Console: a chain on a safe stream beside the plain stream and std::osyncstream, safePrintf beside printf.

#include "Quorvil/ThreadSafeStream.h"
#include "bench/support.h"

#include <algorithm>
#include <cstdio>
#include <fcntl.h>
#include <iostream>
#include <string>
#include <syncstream>
#include <sys/mman.h>
#include <unistd.h>

namespace {

/// Sends standard output elsewhere while it lives; Google Benchmark's report comes afterwards.
class Redirection
{
public:
    explicit Redirection(int target)
        : console(dup(STDOUT_FILENO))
    {
        std::cout.flush();
        std::fflush(stdout);
        dup2(target, STDOUT_FILENO);
    }
    ~Redirection()
    {
        std::cout.flush();
        std::fflush(stdout);
        dup2(console, STDOUT_FILENO);
        close(console);
    }
    Redirection(const Redirection&) = delete;
    Redirection& operator=(const Redirection&) = delete;

private:
    int console;
};

/// Whether `write` writes the lines that every candidate has to.
template <typename Write>
bool writesTheLines(Write write)
{
    const int file = memfd_create("console", MFD_CLOEXEC);
    {
        const Redirection toFile(file);
        for (int band = 98; band <= 100; ++band)
            write(band);
    }
    std::string text(1000, '\0');
    text.resize(static_cast<size_t>(std::max<ssize_t>(pread(file, text.data(), text.size(), 0), 0)));
    close(file);
    return text == "page 12, band 98\npage 12, band 99\npage 12, band 100\n";
}

template <typename Write>
void measure(benchmark::State& state, Write write)
{
    if (!writesTheLines(write))
        return state.SkipWithError("other lines");
    const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
    const Redirection silence(nowhere);
    close(nowhere);
    int band = 0;
    for (auto _ : state)
        write(++band);
}

void safeChain(benchmark::State& state)
{
    measure(state, [](int band) { safeCout << "page " << 12 << ", band " << band << '\n'; });
}

void plainChain(benchmark::State& state)
{
    measure(state, [](int band) { std::cout << "page " << 12 << ", band " << band << '\n'; });
}

void syncChain(benchmark::State& state)
{
    measure(state, [](int band) { std::osyncstream(std::cout) << "page " << 12 << ", band " << band << '\n'; });
}

void safePrint(benchmark::State& state)
{
    measure(state, [](int band) { safePrintf("page %d, band %d\n", 12, band); });
}

void plainPrint(benchmark::State& state)
{
    measure(state, [](int band) { std::printf("page %d, band %d\n", 12, band); });
}

BENCHMARK(safeChain)->Name("console/chain/safeCout");
BENCHMARK(plainChain)->Name("console/chain/cout");
BENCHMARK(syncChain)->Name("console/chain/osyncstream");
BENCHMARK(safePrint)->Name("console/printf/safePrintf");
BENCHMARK(plainPrint)->Name("console/printf/printf");

} // namespace

int main(int argc, char** argv)
{
    return bench::run(argc, argv, true);
}
