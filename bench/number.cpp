// Texts of numbers turned into values: parseNum beside std::from_chars and strtoll.

#include "Quorvil/QuorvilParseNum.h"
#include "bench/support.h"

#include <charconv>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace {

constexpr size_t textCount = 1024;

/// Numbers of every length up to the longest that all candidates can take; the decimal ones with and without a sign.
std::vector<std::string> makeTexts(bool hexadecimal)
{
    std::mt19937_64 random(bench::seed);
    std::vector<std::string> texts;
    for (size_t index = 0; index < textCount; ++index) {
        const uint64_t value = random() >> (1 + random() % 60);
        char text[24] = "";
        std::snprintf(text, sizeof text,
                      hexadecimal         ? "0x%" PRIx64
                      : random() % 2 == 0 ? "-%" PRIu64
                                          : "%" PRIu64,
                      value);
        texts.push_back(text);
    }
    return texts;
}

const std::vector<std::string> decimalTexts = makeTexts(false);
const std::vector<std::string> hexadecimalTexts = makeTexts(true);

/// The caller has a text that ends in NUL, so the length is the peer's to find.
template <int base>
int64_t fromChars(const char* text)
{
    int64_t value = 0;
    const char* const begin = base == 16 ? text + 2 : text;
    std::from_chars(begin, begin + std::strlen(begin), value, base);
    return value;
}

template <int base>
int64_t strToLl(const char* text)
{
    return std::strtoll(text, nullptr, base);
}

template <int64_t (*parse)(const char*)>
void parseAll(benchmark::State& state, const std::vector<std::string>& texts)
{
    for (const std::string& text : texts)
        if (parse(text.c_str()) != parseNum(text.c_str()))
            return state.SkipWithError("the candidates disagree");
    for (auto _ : state) {
        int64_t sum = 0;
        for (const std::string& text : texts)
            sum ^= parse(text.c_str());
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(texts.size()));
}

void registerAll()
{
    const auto add = [](const char* name, auto function, const std::vector<std::string>& texts) {
        benchmark::RegisterBenchmark(name, [=, &texts](benchmark::State& state) { function(state, texts); });
    };
    add("number/decimal/parseNum", parseAll<parseNum>, decimalTexts);
    add("number/decimal/fromChars", parseAll<fromChars<10>>, decimalTexts);
    add("number/decimal/strtoll", parseAll<strToLl<10>>, decimalTexts);
    add("number/hexadecimal/parseNum", parseAll<parseNum>, hexadecimalTexts);
    add("number/hexadecimal/fromChars", parseAll<fromChars<16>>, hexadecimalTexts);
    add("number/hexadecimal/strtoll", parseAll<strToLl<16>>, hexadecimalTexts);
}

} // namespace

int main(int argc, char** argv)
{
    registerAll();
    return bench::run(argc, argv, true);
}
