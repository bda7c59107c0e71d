// Composer.h: draws the pages of a job

#ifndef LABELPRINTER_COMPOSER_H
#define LABELPRINTER_COMPOSER_H

#include "Job.h"

#include "Quorvil/Bitmaps.h"

namespace labelPrinter {

/// Draws one page after the other into the same memory. The job must outlive it.
class Composer
{
public:
    explicit Composer(Job& job);
    Composer(const Composer&) = delete;
    Composer& operator=(const Composer&) = delete;

    /// Draws a page. The picture is valid until the next call.
    ///
    /// @param number  of the page, from 1
    /// @throws Failure  the user breaks off
    const Image& compose(int number);

private:
    void draw(const Clip& clip);
    void draw(const Unclip&);
    void draw(const Fill& fill);
    void draw(const Invert& invert);
    void draw(const Picture& picture);
    void draw(const Serial& serial);

    Job& job;
    Image page;
    bmp::Bitmap canvas;
    /// Black rows, as wide as the page.
    Image ink;
    /// The canvas's clip rectangle.
    Rect clipped;
    int pageNumber = 0;
    /// How far the copy being drawn stands from the first one.
    int shiftX = 0, shiftY = 0;
};

} // namespace labelPrinter

#endif
