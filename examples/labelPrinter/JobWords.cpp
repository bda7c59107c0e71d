// What the words of a job mean.

#include "JobReader.h"

#include "PbmFile.h"
#include "Title.h"

#include "Quorvil/NotYetImplemented.h"

namespace labelPrinter {

namespace {

constexpr int mostPages = 9999;
constexpr int mostCopies = 1000;
constexpr int mostDotsPerInch = 10000;
constexpr int64_t largestStep = 1000000;
constexpr size_t mostImageBytes = size_t{256} << 20;

} // namespace

void JobReader::readPage(JobLine& line)
{
    job.width = static_cast<int>(line.number("WIDTH", 1, longestSide));
    job.height = static_cast<int>(line.number("HEIGHT", 1, longestSide));
}

void JobReader::readDotsPerInch(JobLine& line)
{
    job.dotsPerInch = static_cast<int>(line.number("DOTS", 1, mostDotsPerInch));
}

void JobReader::readPages(JobLine& line)
{
    job.pages = static_cast<int>(line.number("COUNT", 1, mostPages));
}

void JobReader::readTitle(JobLine& line)
{
    job.title = line.word();
    try {
        checkTitle(job.title);
    } catch (const Failure& reason) {
        throw line.failure(reason);
    }
}

void JobReader::readRepeat(JobLine& line)
{
    repeat.columns = static_cast<int>(line.number("COLUMNS", 1, mostCopies));
    repeat.rows = static_cast<int>(line.number("ROWS", 1, mostCopies));
    repeat.stepX = line.coordinate("DX");
    repeat.stepY = line.coordinate("DY");
    readWord(line, true);
}

void JobReader::readClip(JobLine& line)
{
    const Clip clip{line.area()};
    const Rect seen = intersection(clip.area, {0, 0, job.width, job.height});
    if (seen.width <= 0 || seen.height <= 0)
        throw line.failure("nothing of the clip rectangle lies on the page");
    add(line, clip);
}

void JobReader::readUnclip(JobLine& line)
{
    add(line, Unclip());
}

void JobReader::readFill(JobLine& line)
{
    add(line, Fill{line.area()});
}

void JobReader::readInvert(JobLine& line)
{
    add(line, Invert{line.area()});
}

void JobReader::readPicture(JobLine& line)
{
    Picture picture{image(line), {}, line.coordinate("X"), line.coordinate("Y")};
    const Rect whole{0, 0, picture.image->width(), picture.image->height()};
    picture.part = whole;
    if (line.wordsLeft() > 0) {
        if (line.wordsLeft() != 4)
            throw line.failure("a part of a picture needs 'PARTX PARTY WIDTH HEIGHT'");
        picture.part = line.area();
    }
    const Rect inside = intersection(picture.part, whole);
    if (inside.width != picture.part.width || inside.height != picture.part.height)
        throw line.failure("the part does not lie inside the picture of " + std::to_string(whole.width) + " x " +
                           std::to_string(whole.height) + " pixels");
    add(line, picture);
}

void JobReader::readSerial(JobLine& line)
{
    addSerial(line, 1);
}

void JobReader::readSerialPairs(JobLine& line)
{
    addSerial(line, 2);
}

void JobReader::readNotYet(JobLine&)
{
    // Whoever lets such a word be implemented writes its function first.
    nyi::nyi("a word of a job");
}

void JobReader::addSerial(JobLine& line, int digitsPerCell)
{
    Serial serial{image(line), digitsPerCell, line.coordinate("X"), line.coordinate("Y"), 0, 1, 1};
    serial.digits = static_cast<int>(line.number("DIGITS", 1, mostDigits));
    if (line.wordsLeft() > 0)
        serial.first = line.number("FIRST", 0, tenToThe(mostDigits) - 1);
    if (line.wordsLeft() > 0)
        serial.step = line.number("STEP", -largestStep, largestStep);
    const auto cells = static_cast<int>(tenToThe(digitsPerCell));
    if (serial.strip->width() % cells != 0)
        throw line.failure("a strip of " + std::to_string(cells) + " cells cannot be " +
                           std::to_string(serial.strip->width()) + " pixels wide");
    if (serial.digits % digitsPerCell != 0)
        throw line.failure("pairs need an even number of digits");
    add(line, serial);
}

void JobReader::add(const JobLine& line, decltype(Statement::drawing) drawing)
{
    job.statements.push_back({line.lineNumber(), repeat, drawing});
}

void JobReader::checkSerials() const
{
    for (const Statement& statement : job.statements) {
        const auto* serial = std::get_if<Serial>(&statement.drawing);
        if (serial == nullptr)
            continue;
        for (int64_t value : {serial->on(1), serial->on(job.pages)})
            if (value < 0 || value >= tenToThe(serial->digits))
                throw JobLine(jobName, statement.line, "")
                    .failure("the serial number " + std::to_string(value) + " does not fit " +
                             std::to_string(serial->digits) + " digits");
    }
}

Image* JobReader::image(JobLine& line)
{
    try {
        const std::string path = places.path(line.word());
        auto found = job.images.find(path);
        if (found == job.images.end()) {
            found = job.images.emplace(path, readPbm(path)).first;
            imageBytes += found->second.bytes().size();
            if (imageBytes > mostImageBytes)
                throw Failure("the pictures of the job take more than 256 MB");
        }
        return &found->second;
    } catch (const Failure& reason) {
        throw line.failure(reason);
    }
}

} // namespace labelPrinter
