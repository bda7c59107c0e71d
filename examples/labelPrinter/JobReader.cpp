#include "JobReader.h"

#include "Implemented.h"
#include "Trace.h"

#include <mutex>
#include <utility>

namespace labelPrinter {

constexpr JobReader::Word JobReader::wordTable[] = {
    {"page", "page WIDTH HEIGHT", 2, 2, Use::once, &JobReader::readPage},
    {"dpi", "dpi DOTS", 1, 1, Use::once, &JobReader::readDotsPerInch},
    {"pages", "pages COUNT", 1, 1, Use::once, &JobReader::readPages},
    {"title", "title TEXT", 1, 1, Use::once, &JobReader::readTitle},
    {"repeat", "repeat COLUMNS ROWS DX DY STATEMENT", 5, SIZE_MAX, Use::often, &JobReader::readRepeat},
    {"clip", "clip X Y WIDTH HEIGHT", 4, 4, Use::often, &JobReader::readClip},
    {"unclip", "unclip", 0, 0, Use::often, &JobReader::readUnclip},
    {"fill", "fill X Y WIDTH HEIGHT", 4, 4, Use::repeatable, &JobReader::readFill},
    {"invert", "invert X Y WIDTH HEIGHT", 4, 4, Use::repeatable, &JobReader::readInvert},
    {"image", "image FILE X Y [PARTX PARTY WIDTH HEIGHT]", 3, 7, Use::repeatable, &JobReader::readPicture},
    {"serial", "serial STRIP X Y DIGITS [FIRST [STEP]]", 4, 6, Use::repeatable, &JobReader::readSerial},
    {"serialPairs", "serialPairs STRIP X Y DIGITS [FIRST [STEP]]", 4, 6, Use::repeatable, &JobReader::readSerialPairs},
    // What other printers of ours can do, and this one cannot yet.
    {"cut", "cut", 0, 0, Use::once, &JobReader::readNotYet},
    {"copies", "copies COUNT", 1, 1, Use::once, &JobReader::readNotYet},
};

JobReader::JobReader(std::string name, PicturePlaces thePlaces)
    : jobName(std::move(name))
    , places(std::move(thePlaces))
{
    noteWords();
}

JobReader::JobReader(const std::string& path)
    : JobReader(path, PicturePlaces::besideFile(path, nullptr))
{
}

void JobReader::noteWords()
{
    static std::once_flag noted;
    std::call_once(noted, [] {
        for (const Word& word : wordTable)
            if (word.read != &JobReader::readNotYet)
                implement(word.name);
    });
}

Job JobReader::read()
{
    JobText lines(jobName);
    return readLines(lines);
}

Job JobReader::read(const std::string& text)
{
    JobText lines(jobName, text);
    return readLines(lines);
}

Job JobReader::readLines(JobText& text)
{
    while (text.next()) {
        if (!text.line().empty())
            traceJobLine(text.number(), text.line());
        // In a file's name it would end the name.
        if (text.line().find('\0') != std::string::npos)
            throw JobLine(jobName, text.number(), "").failure("the line holds a NUL byte");
        JobLine line(jobName, text.number(), text.line());
        repeat = Repeat();
        if (line.wordsLeft() > 0)
            readWord(line, false);
    }
    if (job.width == 0)
        throw JobLine(jobName, text.number(), "").failure("the job has no 'page WIDTH HEIGHT'");
    checkSerials();
    // The pictures of a moved map stay where the statements point to.
    return std::move(job);
}

void JobReader::readWord(JobLine& line, bool repeated)
{
    const std::string name = line.word();
    for (const Word& word : wordTable) {
        if (name != word.name)
            continue;
        if (!isImplemented(name))
            throw line.failure(JobLine::quoted(name) + " is not implemented yet");
        if (job.width == 0 && word.read != &JobReader::readPage)
            throw line.failure("'page WIDTH HEIGHT' must come first");
        if (repeated && word.use != Use::repeatable)
            throw line.failure(JobLine::quoted(name) + " cannot be repeated");
        if (word.use == Use::once && !told.insert(&word).second)
            throw line.failure("a second " + JobLine::quoted(name));
        if (line.wordsLeft() < word.fewest || line.wordsLeft() > word.most)
            throw line.failure(std::string("expected '") + word.usage + "'");
        (this->*word.read)(line);
        return;
    }
    throw line.failure("unknown word " + JobLine::quoted(name));
}

} // namespace labelPrinter
