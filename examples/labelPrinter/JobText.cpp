#include "JobText.h"

#include "JobLine.h"

#include <string_view>

namespace labelPrinter {

namespace {

constexpr size_t longestLine = 4096;
constexpr int mostLines = 100000;
/// What some editors put before the text of a UTF-8 file.
constexpr std::string_view byteOrderMark = "\xEF\xBB\xBF";

} // namespace

JobText::JobText(const std::string& path)
    : name(path)
    , file(std::in_place, path)
{
}

JobText::JobText(const std::string& theName, const std::string& theText)
    : name(theName)
    , text(&theText)
{
}

bool JobText::next()
{
    if (!more)
        return false;
    if (++lineNumber > mostLines)
        throw JobLine(name, lineNumber, "").failure("the job is too long");
    current.clear();
    int byte = 0;
    while ((byte = nextByte()) >= 0 && byte != '\n') {
        current.push_back(static_cast<char>(byte));
        if (current.size() > longestLine)
            throw JobLine(name, lineNumber, "").failure("the line is too long");
    }
    more = byte >= 0;
    if (lineNumber == 1 && current.starts_with(byteOrderMark))
        current.erase(0, byteOrderMark.size());
    return true;
}

int JobText::nextByte()
{
    if (file)
        return file->next();
    return position < text->size() ? static_cast<unsigned char>((*text)[position++]) : -1;
}

const std::string& JobText::line() const
{
    return current;
}

int JobText::number() const
{
    return lineNumber;
}

} // namespace labelPrinter
