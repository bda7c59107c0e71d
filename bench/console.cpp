// Console: a chain on a safe stream beside the plain stream and std::osyncstream, safePrintf beside printf.

#include "Quorvil/ThreadSafeStream.h"
#include "bench/support.h"

#include <cstdio>
#include <fcntl.h>
#include <iostream>
#include <syncstream>
#include <unistd.h>

namespace {

/// Sends standard output to nowhere while a case is measured; the report comes afterwards.
class Silence
{
public:
    Silence()
        : console(dup(STDOUT_FILENO))
    {
        std::cout.flush();
        std::fflush(stdout);
        const int nowhere = open("/dev/null", O_WRONLY);
        dup2(nowhere, STDOUT_FILENO);
        close(nowhere);
    }
    ~Silence()
    {
        std::cout.flush();
        std::fflush(stdout);
        dup2(console, STDOUT_FILENO);
        close(console);
    }
    Silence(const Silence&) = delete;
    Silence& operator=(const Silence&) = delete;

private:
    int console;
};

template <typename Write>
void measure(benchmark::State& state, Write write)
{
    const Silence silence;
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
