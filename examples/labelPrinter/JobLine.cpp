#include "JobLine.h"

#include "Quorvil/QuorvilParseNum.h"

#include <algorithm>
#include <utility>

namespace labelPrinter {

namespace {

constexpr size_t longestQuote = 60;
constexpr size_t mostHexadecimalDigits = 15;

/// Whether `word` is a number in full. parseNum itself takes "" and "-" for 0, skips what is no digit behind "0x", and
/// wraps where a number is too long; none of that can be meant in a job.
bool isNumber(const std::string& word, int64_t& value)
{
    const bool hexadecimal = word.size() > 2 && word[0] == '0' && (word[1] == 'x' || word[1] == 'X');
    if (word.empty() || word == "-")
        return false;
    if (hexadecimal && word.find_first_not_of("0123456789abcdefABCDEF", 2) != std::string::npos)
        return false;
    try {
        value = parseNum(word.c_str());
    } catch (const ParseException&) {
        return false;
    }
    const size_t significant = std::min(word.find_first_not_of('0', hexadecimal ? 2 : word[0] == '-'), word.size());
    if (word.size() - significant > (hexadecimal ? mostHexadecimalDigits : mostDigits))
        value = word[0] == '-' ? INT64_MIN : INT64_MAX;
    return true;
}

} // namespace

int64_t tenToThe(int exponent)
{
    int64_t power = 1;
    for (; exponent > 0; --exponent)
        power *= 10;
    return power;
}

JobLine::JobLine(std::string path, int number, const std::string& text)
    : jobPath(std::move(path))
    , ownNumber(number)
{
    for (size_t begin = 0;;) {
        begin = text.find_first_not_of(" \t\r", begin);
        if (begin == std::string::npos || text[begin] == '#')
            return;
        const bool inQuotes = text[begin] == '"';
        size_t end = inQuotes ? text.find('"', ++begin) : text.find_first_of(" \t\r#", begin);
        if (inQuotes && end == std::string::npos)
            throw failure("a quote is not closed");
        end = std::min(end, text.size());
        words.push_back(text.substr(begin, end - begin));
        begin = inQuotes ? end + 1 : end;
    }
}

size_t JobLine::wordsLeft() const
{
    return words.size() - next;
}

std::string JobLine::word()
{
    return words[next++];
}

int64_t JobLine::number(const char* name, int64_t smallest, int64_t largest)
{
    const std::string text = word();
    int64_t value = 0;
    if (!isNumber(text, value))
        throw failure(std::string(name) + " is no number: " + quoted(text));
    if (value < smallest || value > largest)
        throw failure(std::string(name) + " is not between " + std::to_string(smallest) + " and " +
                      std::to_string(largest) + ": " + quoted(text));
    return value;
}

int JobLine::coordinate(const char* name)
{
    return static_cast<int>(number(name, -longestSide, longestSide));
}

Rect JobLine::area()
{
    const int x = coordinate("X");
    const int y = coordinate("Y");
    const auto width = static_cast<int>(number("WIDTH", 1, longestSide));
    return {x, y, width, static_cast<int>(number("HEIGHT", 1, longestSide))};
}

int JobLine::lineNumber() const
{
    return ownNumber;
}

Failure JobLine::failure(const std::string& text) const
{
    return Failure(jobPath + ":" + std::to_string(ownNumber) + ": " + text);
}

Failure JobLine::failure(const Failure& reason) const
{
    const Failure whole = failure(std::string(reason.what()));
    return reason.passes() ? Failure::passing(whole.what()) : whole;
}

std::string JobLine::quoted(const std::string& word)
{
    return "'" + (word.size() > longestQuote ? word.substr(0, longestQuote) + "..." : word) + "'";
}

} // namespace labelPrinter
