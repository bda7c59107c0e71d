// RunLengthFile.h: the printer's own form of a page, run lengths in a bit stream

#ifndef LABELPRINTER_RUNLENGTHFILE_H
#define LABELPRINTER_RUNLENGTHFILE_H

#include "Image.h"

#include <string>

namespace labelPrinter {

class ResultFile;

/// A page as it comes out of a file.
struct Page
{
    Image image;
    int dotsPerInch;
};

/// Writes the page as a bit stream, each field from its lowest bit up:
///
/// | bits | field |
/// |---|---|
/// | 32 | the letters QRL and the version, 1, one byte each |
/// | 16, 16, 16 | width, height, dots per inch |
/// | 32 | CRC-32 of the three fields before it and of the picture's bytes: rows of whole bytes, first pixel highest |
/// | | until `height` rows are there: the runs of a row, then the number of equal rows that follow it |
///
/// The runs of a row are white and black in turn, white first, and end where the row is full; only the first run of a
/// row may be empty. A number is 4 bits with the count of its significant bits, then those bits without the highest
/// one, which is always 1: 0 takes 4 bits, 1 takes 4, 600 takes 13. The last byte is filled with zeros.
///
/// @throws Failure  the file cannot be written
void writeRunLengths(const Image& image, int dotsPerInch, ResultFile& file);

/// Reads such a file, and nothing but such a file.
///
/// @throws Failure  it cannot be read, is of another kind, damaged, or too short or too long
Page readRunLengths(const std::string& path);

} // namespace labelPrinter

#endif
