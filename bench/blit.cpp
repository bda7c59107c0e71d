// Blit: one image ORed into another, at page, label and glyph size, beside Leptonica's and beside a plain copy.

#include "bench/support.h"
#include "tests/support/portableBitmaps.h"

#ifdef QUORVIL_PEER_leptonica
#include "bench/peers/leptonica.h"
#endif

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace {

/// What one iteration of a case does: `source` ORed whole into the destination, once at each of `places`.
struct Case
{
    const char* name;
    int srcWidth;
    int srcHeight;
    int dstWidth;
    int dstHeight;
    std::vector<std::pair<int, int>> places;
};

int bytesOf(int widthPixels)
{
    return (widthPixels + 7) / 8;
}

std::vector<uint8_t> randomRows(int widthPixels, int heightPixels)
{
    std::vector<uint8_t> rows(static_cast<size_t>(bytesOf(widthPixels)) * static_cast<size_t>(heightPixels));
    std::mt19937 random(bench::seed);
    for (uint8_t& byte : rows)
        byte = static_cast<uint8_t>(random() & random());
    return rows;
}

/// Memory of a case. The destination starts empty.
struct Images
{
    explicit Images(const Case& c)
        : srcBytesPerRow(bytesOf(c.srcWidth))
        , dstBytesPerRow(bytesOf(c.dstWidth))
        , src(randomRows(c.srcWidth, c.srcHeight))
        , dst(static_cast<size_t>(dstBytesPerRow) * static_cast<size_t>(c.dstHeight))
    {
    }

    int srcBytesPerRow;
    int dstBytesPerRow;
    std::vector<uint8_t> src;
    std::vector<uint8_t> dst;
};

/// Candidate: `Bitmap::insert`, as the library has it or in its portable form.
template <typename Bitmap>
struct Ours
{
    explicit Ours(const Case& c)
        : images(c)
        , source(images.src.data(), c.srcWidth, c.srcHeight, images.srcBytesPerRow)
        , target(images.dst.data(), c.dstWidth, c.dstHeight, images.dstBytesPerRow)
    {
    }

    void insert(const Case& c, int x, int y)
    {
        target.insert(source, 0, 0, c.srcWidth, c.srcHeight, x, y);
        benchmark::ClobberMemory();
    }

    bool shows(const std::vector<uint8_t>& rows) const
    {
        return images.dst == rows;
    }

    Images images;
    Bitmap source;
    Bitmap target;
};

/// Candidate: the limit, a plain copy of the bytes row by row. It makes no shift and keeps nothing of the destination,
/// so its picture is its own.
struct Copy
{
    explicit Copy(const Case& c)
        : images(c)
    {
    }

    void insert(const Case& c, int x, int y)
    {
        const auto bytes = static_cast<size_t>(bytesOf(std::min(c.srcWidth, c.dstWidth - x)));
        for (int row = 0; row < std::min(c.srcHeight, c.dstHeight - y); ++row)
            std::memcpy(images.dst.data() + (y + row) * images.dstBytesPerRow + x / 8,
                        images.src.data() + row * images.srcBytesPerRow, bytes);
        benchmark::ClobberMemory();
    }

    Images images;
};

#ifdef QUORVIL_PEER_leptonica
/// Candidate: the same operation in Leptonica.
struct Leptonica
{
    explicit Leptonica(const Case& c)
        : dstBytesPerRow(bytesOf(c.dstWidth))
        , source(c.srcWidth, c.srcHeight)
        , target(c.dstWidth, c.dstHeight)
    {
        source.setRows(randomRows(c.srcWidth, c.srcHeight), bytesOf(c.srcWidth));
    }

    void insert(const Case& c, int x, int y)
    {
        target.insert(source, 0, 0, c.srcWidth, c.srcHeight, x, y);
        benchmark::ClobberMemory();
    }

    bool shows(const std::vector<uint8_t>& rows) const
    {
        return target.hasRows(rows, dstBytesPerRow);
    }

    int dstBytesPerRow;
    bench::LeptonicaImage source;
    bench::LeptonicaImage target;
};
#endif

template <typename Candidate>
void insertAll(Candidate& candidate, const Case& c)
{
    for (const auto& [x, y] : c.places)
        candidate.insert(c, x, y);
}

/// Times a candidate once its picture is the library's, where it makes the same one at all.
template <typename Candidate>
void time(benchmark::State& state, const Case& c)
{
    Ours<bmp::Bitmap> expected(c);
    insertAll(expected, c);
    Candidate candidate(c);
    insertAll(candidate, c);
    if constexpr (requires { candidate.shows(expected.images.dst); })
        if (!candidate.shows(expected.images.dst)) {
            state.SkipWithError("another picture than the library's");
            return;
        }
    for (auto _ : state)
        insertAll(candidate, c);
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(c.places.size()));
}

/// Shortest time of one insert at `shift`, out of many.
double shortest(const Case& c, int shift)
{
    Ours<bmp::Bitmap> candidate(c);
    double best = 1e9;
    for (int round = 0; round < 200; ++round) {
        const auto start = std::chrono::steady_clock::now();
        candidate.insert(c, shift, 0);
        best = std::min(best, std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
    }
    return best;
}

/// Times the slowest or the fastest of the shifts, found by a round beforehand.
void timeOneShift(benchmark::State& state, Case c, bool slowest)
{
    std::vector<std::pair<double, int>> shifts;
    for (const auto& [shift, y] : c.places)
        shifts.emplace_back(shortest(c, shift), shift);
    const int chosen = (slowest ? *std::ranges::max_element(shifts) : *std::ranges::min_element(shifts)).second;
    c.places = {{chosen, 0}};
    state.SetLabel("shift " + std::to_string(chosen));
    time<Ours<bmp::Bitmap>>(state, c);
}

std::vector<std::pair<int, int>> shifts()
{
    std::vector<std::pair<int, int>> places;
    for (int shift = 1; shift <= 7; ++shift)
        places.emplace_back(shift, 0);
    return places;
}

/// A line of text across a label, each glyph in a word of its own: at its start, or 1 to 7 pixels behind.
std::vector<std::pair<int, int>> textLine(bool shifted)
{
    std::vector<std::pair<int, int>> places;
    for (int i = 0; i < 36; ++i)
        places.emplace_back(i * 32 + (shifted ? 1 + i % 7 : 0), 600);
    return places;
}

} // namespace

int main(int argc, char** argv)
{
    const std::vector<Case> cases = {
        {"page-aligned", 4960, 7016, 4960, 7016, {{0, 0}}},     {"page-shifted", 4960, 7016, 4960, 7016, shifts()},
        {"label-aligned", 1200, 1200, 1200, 1200, {{0, 0}}},    {"label-shifted", 1200, 1200, 1200, 1200, shifts()},
        {"glyph-aligned", 32, 48, 1200, 1200, textLine(false)}, {"glyph-shifted", 32, 48, 1200, 1200, textLine(true)},
    };
    for (const Case& c : cases) {
        const std::string name = std::string("blit/") + c.name + '/';
        benchmark::RegisterBenchmark((name + "insert").c_str(), time<Ours<bmp::Bitmap>>, c);
        benchmark::RegisterBenchmark((name + "insert-portable").c_str(), time<Ours<portable::Bitmap>>, c);
#ifdef QUORVIL_PEER_leptonica
        benchmark::RegisterBenchmark((name + "pixRasterop").c_str(), time<Leptonica>, c);
#endif
        benchmark::RegisterBenchmark((name + "memcpy").c_str(), time<Copy>, c);
    }
    benchmark::RegisterBenchmark("blit/label-shifts/slowest", timeOneShift, cases[3], true);
    benchmark::RegisterBenchmark("blit/label-shifts/fastest", timeOneShift, cases[3], false);
    return bench::run(argc, argv, true);
}
