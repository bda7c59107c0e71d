// PngFile.h: pictures in the PNG format, for screens and people

#ifndef LABELPRINTER_PNGFILE_H
#define LABELPRINTER_PNGFILE_H

#include "Image.h"

#include <string>

namespace labelPrinter {

class ResultFile;

/// Writes the picture with one bit a pixel.
///
/// @param dotsPerInch  stands in the file, so that a viewer knows the size on paper
/// @param title        stands in the file, too, unless it is empty; UTF-8
/// @throws Failure  the file cannot be written
void writePng(const Image& image, int dotsPerInch, const std::string& title, ResultFile& file);

} // namespace labelPrinter

#endif
