// JobReader.h: turns a job file into a job

#ifndef LABELPRINTER_JOBREADER_H
#define LABELPRINTER_JOBREADER_H

#include "Job.h"
#include "JobLine.h"
#include "JobText.h"
#include "PicturePlaces.h"

#include <cstddef>
#include <set>
#include <string>

namespace labelPrinter {

/// Reads the text form of a job: the first word of a line tells what to do. README.md describes it.
class JobReader
{
public:
    /// @param name    of the job, for messages: the path of its file, where it has one
    /// @param places  where its pictures are
    JobReader(std::string name, PicturePlaces places);

    /// A reader of a job file, whose pictures' paths are looked up from its folder.
    explicit JobReader(const std::string& path);

    /// Notes the words that this reader implements, as every constructor does.
    static void noteWords();

    /// Reads the job from the file that its name is, and its pictures. One call a reader.
    ///
    /// @throws Failure  with file and line: a file cannot be read, a line cannot be understood, a number is out of
    ///                  range
    Job read();

    /// Reads the job from its text, and its pictures. One call a reader.
    ///
    /// @throws Failure  as above
    Job read(const std::string& text);

private:
    /// How often a job may have a word; what is repeatable may stand behind `repeat` as well.
    enum class Use
    {
        once,
        often,
        repeatable
    };

    /// One of the words that a line begins with, and how many words may follow it.
    struct Word
    {
        const char* name;
        const char* usage;
        size_t fewest, most;
        Use use;
        void (JobReader::*read)(JobLine&);
    };
    static const Word wordTable[];

    Job readLines(JobText& text);
    void readWord(JobLine& line, bool repeated);
    void readPage(JobLine& line);
    void readDotsPerInch(JobLine& line);
    void readPages(JobLine& line);
    void readTitle(JobLine& line);
    void readRepeat(JobLine& line);
    void readClip(JobLine& line);
    void readUnclip(JobLine& line);
    void readFill(JobLine& line);
    void readInvert(JobLine& line);
    void readPicture(JobLine& line);
    void readSerial(JobLine& line);
    void readSerialPairs(JobLine& line);
    void readNotYet(JobLine& line);

    void addSerial(JobLine& line, int digitsPerCell);
    void add(const JobLine& line, decltype(Statement::drawing) drawing);
    void checkSerials() const;
    Image* image(JobLine& line);

    std::string jobName;
    PicturePlaces places;
    Job job;
    /// The words that may come once and came.
    std::set<const Word*> told;
    Repeat repeat;
    size_t imageBytes = 0;
};

} // namespace labelPrinter

#endif
