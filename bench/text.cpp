// Text: conversion between bytes and wide characters beside the system library's, 64 KiB of text a pass.

#include "Quorvil/QuorvilMystring.h"
#include "bench/support.h"

#include <clocale>
#include <cstddef>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

namespace {

constexpr std::size_t textBytes = 65536;

/// 64 KiB of words from the list, in random order.
tolmen::mystring textOf(const std::vector<std::string>& words)
{
    std::mt19937 random(bench::seed);
    std::string text;
    while (text.size() < textBytes)
        text += words[random() % words.size()];
    return tolmen::mystring(text);
}

const tolmen::mystring& text(int number)
{
    static const tolmen::mystring texts[] = {
        textOf({"the ", "label ", "is ", "printed ", "at 300 dpi, ", "page ", "of ", "queue ", "ready. "}),
        textOf({"der ", "Auftrag ", "für ", "das ", "Etikett ", "wird ", "geprüft, ", "Größe ", "100 mm, ", "Seite ",
                "und ", "Wärme ", "bereit. ", "nicht "}),
        textOf({"打印机", "标签", "纸张", "尺寸", "队列", "准备就绪", "。"}),
    };
    return texts[number];
}

constexpr const char* const cases[] = {"ascii", "latin", "cjk"};

void toWide(benchmark::State& state, int number)
{
    const tolmen::mystring& bytes = text(number);
    tolmen::mywstring wide;
    for (auto _ : state) {
        wide = bytes;
        benchmark::DoNotOptimize(wide.data());
    }
}

void peerToWide(benchmark::State& state, int number)
{
    const tolmen::mystring& bytes = text(number);
    std::vector<wchar_t> wide(bytes.size() + 1);
    const std::size_t length = std::mbstowcs(wide.data(), bytes.c_str(), wide.size());
    if (tolmen::mywstring(bytes) != std::wstring(wide.data(), length)) {
        state.SkipWithError("mbstowcs has another result");
        return;
    }
    for (auto _ : state)
        benchmark::DoNotOptimize(std::mbstowcs(wide.data(), bytes.c_str(), wide.size()));
}

void toBytes(benchmark::State& state, int number)
{
    const tolmen::mywstring wide(text(number));
    tolmen::mystring bytes;
    for (auto _ : state) {
        bytes = wide;
        benchmark::DoNotOptimize(bytes.data());
    }
}

void peerToBytes(benchmark::State& state, int number)
{
    const tolmen::mywstring wide(text(number));
    std::vector<char> bytes(text(number).size() + 1);
    const std::size_t length = std::wcstombs(bytes.data(), wide.c_str(), bytes.size());
    if (tolmen::mystring(wide) != std::string(bytes.data(), length)) {
        state.SkipWithError("wcstombs has another result");
        return;
    }
    for (auto _ : state)
        benchmark::DoNotOptimize(std::wcstombs(bytes.data(), wide.c_str(), bytes.size()));
}

} // namespace

int main(int argc, char** argv)
{
    if (!std::setlocale(LC_CTYPE, "C.UTF-8"))
        return 1;
    for (int number = 0; number < 3; ++number) {
        const std::string name = cases[number];
        benchmark::RegisterBenchmark(("text/to-wide-" + name + "/mywstring").c_str(), toWide, number);
        benchmark::RegisterBenchmark(("text/to-wide-" + name + "/mbstowcs").c_str(), peerToWide, number);
        benchmark::RegisterBenchmark(("text/to-bytes-" + name + "/mystring").c_str(), toBytes, number);
        benchmark::RegisterBenchmark(("text/to-bytes-" + name + "/wcstombs").c_str(), peerToBytes, number);
    }
    return bench::run(argc, argv, true);
}
