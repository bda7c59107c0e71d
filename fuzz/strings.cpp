// Conversion between bytes and wide characters, beside the plain loop over the locale's functions, a call a character.
// The first byte chooses the locale.

#include "Quorvil/QuorvilMystring.h"
#include "fuzz/input.h"

#include <algorithm>
#include <climits>
#include <clocale>
#include <cwchar>
#include <iostream>
#include <string>

namespace {

/// Characters of each length, those that only old UTF-8 knows, and behind them each kind of bad byte.
const char* const pieces[] = {"a", "eight ch", "\xC3\xA4", "\xE2\x82\xAC", "\xF0\x9F\x96\xA8", "\xEF\xBF\xBF",
                              "\xF4\x90\x80\x80", "\xF8\x88\x80\x80\x80", "\xFC\x84\x80\x80\x80\x80",
                              // bad
                              "\x80", "\xC3", "\xE2\x82", "\xF0\x9F\x96", "\xED\xA0\x80", "\xC0\x80", "\xFF"};
constexpr size_t goodPieces = 9;

/// Both ends of each range of bytes that UTF-8, in any of its ages, tells apart.
constexpr char edges[] =
    "\0a\x7F\x80\x8F\x90\x9F\xA0\xBF\xC0\xC1\xC2\xDF\xE0\xE1\xED\xEE\xEF\xF0\xF1\xF4\xF5\xF7\xF8\xFB\xFC\xFD\xFE\xFF";

/// Where the number of bytes changes, and what is no character.
constexpr uint32_t characters[] = {1,      'a',     0x80,     0x800,    0xD800,    0xE000,
                                   0xFFFF, 0x10000, 0x110000, 0x200000, 0x4000000, 0x80000000};

void convertBytes(const std::string& bytes)
{
    std::wstring expected;
    bool good = true;
    std::mbstate_t state{};
    for (size_t at = 0; at < bytes.size() && good;) {
        wchar_t character = L'?';
        const size_t n = std::mbrtowc(&character, bytes.data() + at, bytes.size() - at, &state);
        good = n <= bytes.size();
        if (good)
            expected += character;
        at += std::max(n, size_t{1});
    }
    tolmen::mywstring wide(L"rest of before");
    try {
        wide = tolmen::mystring(bytes);
        fuzz::require(good, "a bad character passed");
    } catch (const tolmen::Utf8Exception&) {
        fuzz::require(!good, "a good character refused");
    }
    fuzz::require(wide == expected, "other characters");
}

void convertWide(const tolmen::mywstring& wide)
{
    std::string expected;
    std::mbstate_t state{};
    for (const wchar_t character : wide) {
        char buffer[MB_LEN_MAX];
        const size_t n = std::wcrtomb(buffer, character, &state);
        expected.append(buffer, n == static_cast<size_t>(-1) ? 0 : n);
    }
    fuzz::require(tolmen::mystring(wide) == expected, "other bytes");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0)
        return 0;
    // A switch of the process's locale would load and unload its files.
    static const locale_t locales[] = {newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr),
                                       newlocale(LC_CTYPE_MASK, "C", nullptr)};
    fuzz::require(uselocale(locales[data[0] % 2]) != nullptr, "no locale");
    std::cerr.setstate(std::ios::failbit); // the reports
    // A start that brings the ends of the batches, where a character could come apart, into reach.
    const size_t start = data[0] / 8 * size_t{17};
    std::string text(start, 'x'), spread;
    tolmen::mywstring wide(std::wstring(start, L'x'));
    for (size_t i = 1; i < std::min(size, size_t{16}); ++i) {
        text += pieces[data[i] < std::size(pieces) ? data[i] : data[i] % goodPieces];
        spread += edges[data[i] % (std::size(edges) - 1)];
        wide.append(data[i] % 5, static_cast<wchar_t>(characters[data[i] % std::size(characters)] + data[i] % 7 - 2));
    }
    convertBytes(text);
    for (const size_t at : {size_t{0}, spread.size() / 2})
        convertBytes(spread.substr(at));
    convertWide(wide);
    return 0;
}
