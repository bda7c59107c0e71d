#include "PbmFile.h"

#include "Failure.h"
#include "InputFile.h"

namespace labelPrinter {

namespace {

bool isBlank(int byte)
{
    return byte == ' ' || (byte >= '\t' && byte <= '\r');
}

/// The next byte of a header or a plain raster. A comment counts as the end of line that it runs up to, as the public
/// tools have it.
int nextOutsideComments(InputFile& file)
{
    int byte = file.next();
    if (byte == '#')
        do
            byte = file.next();
        while (byte >= 0 && byte != '\n' && byte != '\r');
    return byte;
}

/// Reads width or height, with the one blank behind it.
int readSide(InputFile& file, const char* name)
{
    int byte = nextOutsideComments(file);
    while (isBlank(byte))
        byte = nextOutsideComments(file);
    if (byte < 0)
        throw Failure(file.path() + ": the file ends before its " + name);
    int side = 0;
    for (; byte >= '0' && byte <= '9'; byte = nextOutsideComments(file)) {
        side = side * 10 + (byte - '0');
        if (side > longestSide)
            throw Failure(file.path() + ": the " + name + " is above " + std::to_string(longestSide) + " pixels");
    }
    if (byte >= 0 && !isBlank(byte))
        throw Failure(file.path() + ": the " + name + " is no number");
    if (side == 0)
        throw Failure(file.path() + ": the " + name + " is 0 pixels");
    return side;
}

Failure endsEarly(const InputFile& file, int y, const Image& image)
{
    return Failure(file.path() + ": the file ends in row " + std::to_string(y + 1) + " of " +
                   std::to_string(image.height()));
}

void readPlainRows(InputFile& file, Image& image)
{
    for (int y = 0; y < image.height(); ++y)
        for (int x = 0; x < image.width(); ++x) {
            int byte = nextOutsideComments(file);
            while (isBlank(byte))
                byte = nextOutsideComments(file);
            if (byte < 0)
                throw endsEarly(file, y, image);
            if (byte != '0' && byte != '1')
                throw Failure(file.path() + ": row " + std::to_string(y + 1) + " holds something else than 0 and 1");
            if (byte == '1')
                image.blacken(x, y, 1);
        }
    const int behind = file.next();
    if (behind >= 0 && !isBlank(behind))
        throw Failure(file.path() + ": the picture goes on behind its last row");
}

void readRawRows(InputFile& file, Image& image)
{
    const int paddingBits = image.bytesPerRow() * 8 - image.width();
    for (int y = 0; y < image.height(); ++y) {
        uint8_t* row = image.row(y);
        for (int i = 0; i < image.bytesPerRow(); ++i) {
            const int byte = file.next();
            if (byte < 0)
                throw endsEarly(file, y, image);
            row[i] = static_cast<uint8_t>(byte);
        }
        uint8_t& last = row[image.bytesPerRow() - 1];
        last = static_cast<uint8_t>(last & (0xFF << paddingBits));
    }
    const int behind = file.next();
    if (behind >= 0 && (behind != 'P' || file.next() != '4'))
        throw Failure(file.path() + ": what stands behind the picture is no further picture");
}

} // namespace

Image readPbm(const std::string& path)
{
    InputFile file(path);
    const int letter = file.next();
    const int kind = file.next();
    if (letter != 'P' || (kind != '1' && kind != '4'))
        throw Failure(path + ": no PBM picture (it does not begin with P1 or P4)");
    const int width = readSide(file, "width");
    const int height = readSide(file, "height");
    Image image(width, height);
    if (kind == '1')
        readPlainRows(file, image);
    else
        readRawRows(file, image);
    return image;
}

std::string pbmHeader(const Image& image)
{
    return "P4\n" + std::to_string(image.width()) + " " + std::to_string(image.height()) + "\n";
}

} // namespace labelPrinter
