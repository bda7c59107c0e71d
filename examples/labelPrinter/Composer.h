// Composer.h: draws the pages of a job

#ifndef LABELPRINTER_COMPOSER_H
#define LABELPRINTER_COMPOSER_H

#include "Job.h"

#include "Quorvil/Bitmaps.h"

#include <cstdint>

namespace labelPrinter {

class Progress;

/// Draws one page after the other into the same memory. The job must outlive it.
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
    void draw(const Clip& clip);
    void draw(const Unclip&);
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
    /// The canvas's clip rectangle.
    Rect clipped;
    int pageNumber = 0;
    /// Of all statements of a page.
    int64_t copies = 0, copiesDrawn = 0;
    /// How far the copy being drawn stands from the first one.
    int shiftX = 0, shiftY = 0;
};

} // namespace labelPrinter

#endif
