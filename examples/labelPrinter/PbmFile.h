// PbmFile.h: pictures in the portable bitmap format

#ifndef LABELPRINTER_PBMFILE_H
#define LABELPRINTER_PBMFILE_H

#include "Image.h"

#include <string>

namespace labelPrinter {

/// Reads a PBM file, plain (P1) or raw (P4), with comments in its header. Of several raw pictures in one file it takes
/// the first; the padding bits of raw rows are ignored. Behind a plain picture anything may stand after a blank or
/// newline.
///
/// @throws Failure  the file cannot be read, is no PBM file, ends too early, or is larger than `longestSide`
Image readPbm(const std::string& path);

/// The first lines of a raw (P4) file; the picture's bytes follow as they are.
std::string pbmHeader(const Image& image);

} // namespace labelPrinter

#endif
