// Path: removal of the dot segments beside std::filesystem's and Boost's normal form. The peers start with a path
// object that is there already, ours with the text.

#include "Quorvil/QuorvilRemovePathDots.h"
#include "bench/support.h"
#ifdef QUORVIL_PEER_BOOST
#include "bench/peers/boostPath.h"
#endif

#include <filesystem>
#include <string>

namespace {

struct Case
{
    const char* name;
    const char* path;
    const char* result;
};

constexpr Case cases[] = {
    {"dotted", "/home/printer/./drives/ramDisk/../hardDisk/jobs/./2026/../queue/label.prn",
     "/home/printer/drives/hardDisk/jobs/queue/label.prn"},
    {"relative", "../../fonts/latin/../cjk/./regular/../bold/sans.fnt", "../../fonts/cjk/bold/sans.fnt"},
    {"clean", "/home/printer/drives/hardDisk/jobs/2026/queue/label.prn",
     "/home/printer/drives/hardDisk/jobs/2026/queue/label.prn"},
};

void ours(benchmark::State& state, const Case& row)
{
    const std::string path = row.path;
    std::string s;
    for (auto _ : state) {
        s = path;
        benchmark::DoNotOptimize(quorvilRemovePathDots::removePathDots(s));
        benchmark::DoNotOptimize(s.data());
    }
    if (s != row.result)
        state.SkipWithError("another result");
}

template <typename Path, typename Normal>
void peer(benchmark::State& state, const Case& row, Normal normal)
{
    const Path path(row.path);
    if (normal(path) != row.result) {
        state.SkipWithError("the peer has another result");
        return;
    }
    for (auto _ : state)
        benchmark::DoNotOptimize(normal(path));
}

void standard(benchmark::State& state, const Case& row)
{
    peer<std::filesystem::path>(state, row,
                                [](const std::filesystem::path& path) { return path.lexically_normal().native(); });
}

#ifdef QUORVIL_PEER_BOOST
void boostPath(benchmark::State& state, const Case& row)
{
    peer<bench::BoostPath>(state, row, bench::normal);
}
#endif

} // namespace

int main(int argc, char** argv)
{
    for (const Case& row : cases) {
        const std::string prefix = std::string("path/") + row.name + "/";
        benchmark::RegisterBenchmark((prefix + "removePathDots").c_str(), ours, row);
        benchmark::RegisterBenchmark((prefix + "lexicallyNormal").c_str(), standard, row);
#ifdef QUORVIL_PEER_BOOST
        benchmark::RegisterBenchmark((prefix + "boost").c_str(), boostPath, row);
#endif
    }
    return bench::run(argc, argv, true);
}
