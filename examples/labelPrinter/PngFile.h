// PngFile.h: pictures in the PNG format, for screens and people

#ifndef LABELPRINTER_PNGFILE_H
#define LABELPRINTER_PNGFILE_H

#include "Image.h"

namespace labelPrinter {

class ResultFile;

/// Writes the picture with one bit a pixel.
///
/// @param dotsPerInch  stands in the file, so that a viewer knows the size on paper
/// @throws Failure  the file cannot be written
void writePng(const Image& image, int dotsPerInch, ResultFile& file);

} // namespace labelPrinter

#endif
