// Failure.h: the one exception of the label printer, whose text is what the user reads

#ifndef LABELPRINTER_FAILURE_H
#define LABELPRINTER_FAILURE_H

#include <cerrno>
#include <cstddef>
#include <stdexcept>
#include <string>
#include <system_error>

namespace labelPrinter {

/// What cannot be done and why, in one line that names the file, and the line of the job where there is one.
class Failure : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;

    /// A failure that says nothing against the job: later, the same may succeed.
    static Failure passing(const std::string& text)
    {
        Failure failure(text);
        failure.mayPass = true;
        return failure;
    }

    /// Whether it is such a one.
    bool passes() const
    {
        return mayPass;
    }

private:
    bool mayPass = false;
};

/// The text with a question mark for each control character: names of files may hold what drives a terminal.
inline std::string printable(std::string text)
{
    for (size_t i = 0; i < text.size(); ++i) {
        // Beside those of ASCII there are 32 that UTF-8 writes in two bytes.
        const bool pair = text[i] == '\xC2' && i + 1 < text.size() && (text[i + 1] & 0xE0) == 0x80;
        if (pair || static_cast<unsigned char>(text[i]) < ' ' || text[i] == '\x7F')
            text.replace(i, pair ? 2 : 1, 1, '?');
    }
    return text;
}

/// A failed call of the system: the file's name and the system's words for `errorNumber`. A lack of descriptors or
/// memory and a device that does not answer pass.
inline Failure systemFailure(const std::string& path, int errorNumber)
{
    const std::string text = path + ": " + std::generic_category().message(errorNumber);
    const bool passes = errorNumber == EMFILE || errorNumber == ENFILE || errorNumber == ENOMEM || errorNumber == EIO;
    return passes ? Failure::passing(text) : Failure(text);
}

} // namespace labelPrinter

#endif
