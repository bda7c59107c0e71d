#include "Composer.h"

#include "Interrupt.h"
#include "Progress.h"

#include <algorithm>

namespace labelPrinter {

namespace {

constexpr int inkRows = 64;

Rect shifted(const Rect& area, int x, int y)
{
    return {area.x + x, area.y + y, area.width, area.height};
}

} // namespace

Composer::Composer(Job& theJob, Progress& theProgress)
    : job(theJob)
    , progress(theProgress)
    , page(job.width, job.height)
    , canvas(page.bitmap())
    , ink(job.width, inkRows)
    , clipped{0, 0, job.width, job.height}
{
    ink.invert({0, 0, job.width, inkRows});
    for (const Statement& statement : job.statements)
        copies += int64_t{statement.repeat.rows} * statement.repeat.columns;
}

const Image& Composer::compose(int number)
{
    pageNumber = number;
    copiesDrawn = 0;
    page.clear();
    draw(Unclip());
    for (const Statement& statement : job.statements)
        for (int row = 0; row < statement.repeat.rows; ++row)
            for (int column = 0; column < statement.repeat.columns; ++column) {
                shiftX = column * statement.repeat.stepX;
                shiftY = row * statement.repeat.stepY;
                std::visit([this](const auto& drawing) { draw(drawing); }, statement.drawing);
                copyDone();
            }
    return page;
}

void Composer::copyDone()
{
    stopIfInterrupted();
    // The clock takes as long as a small copy does; even the largest take less than a second together.
    if (++copiesDrawn % 16 == 0)
        progress.copiesDone(pageNumber, copiesDrawn, copies);
}

void Composer::draw(const Clip& clip)
{
    clipped = intersection(clip.area, {0, 0, job.width, job.height});
    canvas.clip(clipped.x, clipped.y, clipped.width, clipped.height);
}

void Composer::draw(const Unclip&)
{
    clipped = {0, 0, job.width, job.height};
    canvas.unclip();
}

void Composer::draw(const Fill& fill)
{
    const Rect seen = intersection(shifted(fill.area, shiftX, shiftY), clipped);
    const bmp::Bitmap black = ink.bitmap();
    for (int done = 0; done < seen.height; done += inkRows)
        canvas.insert(black, 0, 0, seen.width, std::min(inkRows, seen.height - done), seen.x, seen.y + done);
}

void Composer::draw(const Invert& invert)
{
    page.invert(intersection(shifted(invert.area, shiftX, shiftY), clipped));
}

void Composer::draw(const Picture& picture)
{
    canvas.insert(picture.image->bitmap(), picture.part.x, picture.part.y, picture.part.width, picture.part.height,
                  picture.x + shiftX, picture.y + shiftY);
}

void Composer::draw(const Serial& serial)
{
    const int cells = serial.digitsPerCell == 1 ? 10 : 100;
    const int cellWidth = serial.strip->width() / cells;
    const bmp::Bitmap strip = serial.strip->bitmap();
    int64_t rest = serial.on(pageNumber);
    for (int place = serial.digits / serial.digitsPerCell - 1; place >= 0; --place, rest /= cells)
        canvas.insert(strip, static_cast<int>(rest % cells) * cellWidth, 0, cellWidth, serial.strip->height(),
                      serial.x + shiftX + place * cellWidth, serial.y + shiftY);
}

} // namespace labelPrinter
