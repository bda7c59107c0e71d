// Job.h: what a job file asks for

#ifndef LABELPRINTER_JOB_H
#define LABELPRINTER_JOB_H

#include "Image.h"

#include <cstdint>
#include <map>
#include <string>
#include <variant>
#include <vector>

namespace labelPrinter {

/// From here on only this part of the page is drawn on.
struct Clip
{
    Rect area;
};

/// The whole page is drawn on again.
struct Unclip
{
};

/// Black, wherever it was not.
struct Fill
{
    Rect area;
};

/// Black to white and white to black.
struct Invert
{
    Rect area;
};

/// A part of a picture, its corner at (x, y).
struct Picture
{
    Image* image;
    Rect part;
    int x, y;
};

/// The page's own number, drawn with the cells of a strip: 10 cells for the digits, or 100 for pairs of them.
struct Serial
{
    Image* strip;
    int digitsPerCell;
    int x, y;
    int digits;
    int64_t first;
    int64_t step;

    /// The number on a page; pages count from 1.
    int64_t on(int page) const
    {
        return first + step * (page - 1);
    }
};

/// How often something is drawn, and how far the copies stand from each other.
struct Repeat
{
    int columns = 1, rows = 1;
    int stepX = 0, stepY = 0;
};

/// One thing to draw, with the line of the job that asks for it.
struct Statement
{
    int line;
    Repeat repeat;
    std::variant<Clip, Unclip, Fill, Invert, Picture, Serial> drawing;
};

/// A whole job, checked: every number is in its range and every picture is there.
struct Job
{
    int width = 0;
    int height = 0;
    int dotsPerInch = 600;
    int pages = 1;
    /// UTF-8, or empty.
    std::string title;
    /// The pictures by the path of their file; the statements point to them.
    std::map<std::string, Image> images;
    std::vector<Statement> statements;
};

} // namespace labelPrinter

#endif
