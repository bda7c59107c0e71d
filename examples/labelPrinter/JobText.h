// JobText.h: the lines of a job, from a file or from memory

#ifndef LABELPRINTER_JOBTEXT_H
#define LABELPRINTER_JOBTEXT_H

#include "InputFile.h"

#include <cstddef>
#include <optional>
#include <string>

namespace labelPrinter {

/// Reads a job line by line.
class JobText
{
public:
    /// The lines of a file.
    ///
    /// @throws Failure  it cannot be opened
    explicit JobText(const std::string& path);

    /// The lines of a text, which has to outlive this object.
    ///
    /// @param name  of the job, for messages
    JobText(const std::string& name, const std::string& text);

    /// Moves on to the next line. What stands behind the last newline is a line, too.
    ///
    /// @return whether there is one
    /// @throws Failure  the job or the line is too long, the file cannot be read
    bool next();

    /// The current line, without its end and without a byte order mark.
    const std::string& line() const;

    /// The current line's number, from 1.
    int number() const;

private:
    int nextByte();

    std::string name;
    std::optional<InputFile> file;
    const std::string* text = nullptr;
    size_t position = 0;
    std::string current;
    int lineNumber = 0;
    bool more = true;
};

} // namespace labelPrinter

#endif
