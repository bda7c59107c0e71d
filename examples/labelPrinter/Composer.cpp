#include "Composer.h"

#include "Interrupt.h"
#include "Progress.h"
#include "Trace.h"

#include <algorithm>

namespace labelPrinter {

namespace {

constexpr int inkRows = 64;
/// All bands of the longest page fit into the flight recorder.
constexpr int bandRows = 256;

/// The rows of a drawing that is not shifted.
struct Rows
{
    int first, count;
};

Rows rowsOf(const Fill& fill)
{
    return {fill.area.y, fill.area.height};
}

Rows rowsOf(const Invert& invert)
{
    return {invert.area.y, invert.area.height};
}

Rows rowsOf(const Picture& picture)
{
    return {picture.y, picture.part.height};
}

Rows rowsOf(const Serial& serial)
{
    return {serial.y, serial.strip->height()};
}

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
    , band{}
    , clipped{}
{
    ink.invert({0, 0, job.width, inkRows});
    for (const Statement& statement : job.statements)
        if (!std::holds_alternative<Clip>(statement.drawing) && !std::holds_alternative<Unclip>(statement.drawing))
            copies += int64_t{statement.repeat.rows} * statement.repeat.columns;
    copies *= (job.height + bandRows - 1) / bandRows;
}

const Image& Composer::compose(int number)
{
    pageNumber = number;
    copiesDrawn = 0;
    page.clear();
    for (int y = 0; y < job.height; y += bandRows) {
        traceBand(number, y / bandRows + 1, y);
        band = {0, y, job.width, std::min(bandRows, job.height - y)};
        drawCopies(Unclip(), Repeat());
        for (const Statement& statement : job.statements)
            std::visit([&](const auto& drawing) { drawCopies(drawing, statement.repeat); }, statement.drawing);
    }
    return page;
}

void Composer::copyDone()
{
    stopIfInterrupted();
    ++copiesDrawn;
    // The clock takes as long as a small copy does; even the largest take less than a second together.
    if (++copiesUntold == 16) {
        copiesUntold = 0;
        progress.copiesDone(pageNumber, copiesDrawn, copies);
    }
}

void Composer::drawCopies(const Clip& clip, const Repeat&)
{
    clipped = intersection(clip.area, band);
    if (clipped.height > 0)
        canvas.clip(clipped.x, clipped.y, clipped.width, clipped.height);
}

void Composer::drawCopies(const Unclip&, const Repeat&)
{
    clipped = band;
    canvas.clip(band.x, band.y, band.width, band.height);
}

template <typename Drawing>
void Composer::drawCopies(const Drawing& drawing, const Repeat& repeat)
{
    const Rows rows = rowsOf(drawing);
    for (int row = 0; row < repeat.rows; ++row) {
        stopIfInterrupted();
        shiftY = row * repeat.stepY;
        const int first = rows.first + shiftY;
        if (std::max(first, clipped.y) >= std::min(first + rows.count, clipped.y + clipped.height)) {
            copiesDrawn += repeat.columns;
            continue;
        }
        for (int column = 0; column < repeat.columns; ++column) {
            shiftX = column * repeat.stepX;
            draw(drawing);
            copyDone();
        }
    }
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
