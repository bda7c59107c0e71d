// The input is a text, as it stands and in digits alone, parsed as a number beside a model of the parser.

#include "Quorvil/QuorvilParseNum.h"
#include "fuzz/input.h"

#include <algorithm>
#include <cctype>
#include <optional>
#include <string>

namespace {

/// The value of `text`, nothing if it is none. 64 bits are the last 16 digits in base 16; in base 10 each digit counts
/// its power of ten, from the last one on.
std::optional<int64_t> valueOf(std::string text)
{
    if (text.size() >= 3 && (text.starts_with("0x") || text.starts_with("0X"))) {
        std::erase_if(text, [](unsigned char c) { return !std::isxdigit(c); });
        text.erase(0, text.size() - std::min(text.size(), size_t{16}));
        return static_cast<int64_t>(std::strtoull(text.c_str(), nullptr, 16));
    }
    const size_t begin = text.starts_with('-') ? 1 : 0;
    if (text.find_first_not_of("0123456789", begin) != std::string::npos)
        return std::nullopt;
    uint64_t value = 0;
    uint64_t power = begin == 1 ? ~uint64_t{0} : 1;
    for (size_t at = text.size(); at > begin; --at, power *= 10)
        value += power * static_cast<uint64_t>(text[at - 1] - '0');
    return static_cast<int64_t>(value);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    // The parser's text ends at the first NUL, and so has the model's to.
    const std::string text = std::string(data, data + std::min(size, size_t{64})).c_str();
    std::string digits = text;
    std::ranges::transform(digits, digits.begin(), [](unsigned char c) { return "0123456789"[c % 10]; });
    for (const std::string& tried : {text, digits, "-" + digits, "0x" + text}) {
        std::optional<int64_t> value;
        try {
            value = parseNum(tried.c_str());
        } catch (const ParseException&) {
        }
        fuzz::require(value == valueOf(tried), "the parser and its model differ");
    }
    return 0;
}
