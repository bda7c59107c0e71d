// JobLine.h: one line of a job file, its words and its numbers

#ifndef LABELPRINTER_JOBLINE_H
#define LABELPRINTER_JOBLINE_H

#include "Failure.h"
#include "Image.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace labelPrinter {

/// The longest serial number, in digits; numbers of a job have no more.
constexpr int mostDigits = 18;

/// 10 to the power of `exponent`, which is 0 to `mostDigits`.
int64_t tenToThe(int exponent);

/// The words of a line, read from left to right. Words stand between blanks, or between quotes when they hold blanks;
/// `#` begins a comment.
class JobLine
{
public:
    /// @param path    the job file, for messages
    /// @param number  the line's, from 1
    /// @throws Failure  a quote is not closed
    JobLine(std::string path, int number, const std::string& text);

    /// How many words are not read yet.
    size_t wordsLeft() const;

    /// The next word; there must be one.
    std::string word();

    /// The next word as a number, decimal or hexadecimal ("0x").
    ///
    /// @param name  of the number, for messages
    /// @throws Failure  it is no number, or out of range
    int64_t number(const char* name, int64_t smallest, int64_t largest);

    /// A place or distance on the page, also to the left of it or above it.
    int coordinate(const char* name);

    /// Four numbers: place and size.
    Rect area();

    int lineNumber() const;

    /// What is wrong, with file and line before it.
    Failure failure(const std::string& text) const;

    /// The same for what something that the line names failed with. It passes if `reason` does.
    Failure failure(const Failure& reason) const;

    /// A word of the job, fit for a message: short, between quotes.
    static std::string quoted(const std::string& word);

private:
    std::string jobPath;
    int ownNumber;
    std::vector<std::string> words;
    size_t next = 0;
};

} // namespace labelPrinter

#endif
