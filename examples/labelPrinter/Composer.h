// Composer.h: draws the pages of a job

#ifndef LABELPRINTER_COMPOSER_H
#define LABELPRINTER_COMPOSER_H

#include "Job.h"

#include "Quorvil/Bitmaps.h"

#include <cstdint>

namespace labelPrinter {

class Progress;

/// Draws one page after the other into the same memory, band by band: what is drawn on stays in the processor's
/// cache. The flight recorder gets the place of each band. The job must outlive it.
class Composer
{
public:
    /// @param progress  is told how far a page is that takes long
    Composer(Job& job, Progress& progress);
    Composer(const Composer&) = delete;
    Composer& operator=(const Composer&) = delete;

    /// Draws a page. The picture is valid until the next call.
    ///
    /// @param number  of the page, from 1
    /// @throws Failure  the user breaks off
    const Image& compose(int number);

private:
    /// Stands between two copies: stops where the user breaks off, and tells the progress.
    void copyDone();
    void drawCopies(const Clip& clip, const Repeat&);
    void drawCopies(const Unclip&, const Repeat&);
    template <typename Drawing>
    void drawCopies(const Drawing& drawing, const Repeat& repeat);
    void draw(const Fill& fill);
    void draw(const Invert& invert);
    void draw(const Picture& picture);
    void draw(const Serial& serial);

    Job& job;
    Progress& progress;
    Image page;
    bmp::Bitmap canvas;
    /// Black rows, as wide as the page.
    Image ink;
    /// The rows that are being drawn on.
    Rect band;
    /// The part of the band that is drawn on, perhaps empty; the canvas's clip rectangle where it is not.
    Rect clipped;
    int pageNumber = 0;
    /// Of all drawings in all bands of a page; those outside their band count as drawn.
    int64_t copies = 0, copiesDrawn = 0;
    int copiesUntold = 0;
    /// How far the copy being drawn stands from the first one.
    int shiftX = 0, shiftY = 0;
};

} // namespace labelPrinter

#endif
