#include "PngFile.h"

#include "Failure.h"
#include "ResultFiles.h"

#include <csetjmp>
#include <cstring>
#include <exception>
#include <png.h>

namespace labelPrinter {

namespace {

/// What the callbacks of libpng reach. libpng is C: no exception may cross it, so the callbacks keep the exception
/// here, leave by libpng's own jump, and `writePng` throws it on.
struct Sink
{
    ResultFile& file;
    std::exception_ptr failure;
    char words[128];
};

Sink& sinkOf(png_structp png)
{
    return *static_cast<Sink*>(png_get_error_ptr(png));
}

void writeBytes(png_structp png, png_bytep bytes, png_size_t count)
{
    Sink& sink = sinkOf(png);
    try {
        sink.file.write(bytes, count);
    } catch (...) {
        sink.failure = std::current_exception();
    }
    if (sink.failure != nullptr)
        png_longjmp(png, 1);
}

void flushNothing(png_structp) {}

void keepError(png_structp png, png_const_charp words)
{
    Sink& sink = sinkOf(png);
    std::strncpy(sink.words, words, sizeof sink.words - 1);
    png_longjmp(png, 1);
}

void ignoreWarning(png_structp, png_const_charp) {}

/// Writes the file unless a callback jumps out. Nothing in here has a destructor that the jump could pass over.
bool writeAll(png_structp png, png_infop info, const Image& image, int dotsPerInch, char* title)
{
    if (setjmp(png_jmpbuf(png)) != 0)
        return false;
    png_set_write_fn(png, png_get_error_ptr(png), writeBytes, flushNothing);
    png_set_IHDR(png, info, static_cast<png_uint_32>(image.width()), static_cast<png_uint_32>(image.height()), 1,
                 PNG_COLOR_TYPE_GRAY, PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    const auto dotsPerMetre = static_cast<png_uint_32>((dotsPerInch * 10000 + 127) / 254);
    png_set_pHYs(png, info, dotsPerMetre, dotsPerMetre, PNG_RESOLUTION_METER);
    if (*title != '\0') {
        char keyword[] = "Title";
        png_text text = {};
        text.compression = PNG_ITXT_COMPRESSION_NONE;
        text.key = keyword;
        text.text = title;
        png_set_text(png, info, &text, 1);
    }
    png_write_info(png, info);
    // In PNG 1 is white.
    png_set_invert_mono(png);
    for (int y = 0; y < image.height(); ++y)
        png_write_row(png, image.row(y));
    png_write_end(png, nullptr);
    return true;
}

} // namespace

void writePng(const Image& image, int dotsPerInch, const std::string& title, ResultFile& file)
{
    Sink sink{file, nullptr, "no memory"};
    std::string text = title;
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, &sink, keepError, ignoreWarning);
    png_infop info = png == nullptr ? nullptr : png_create_info_struct(png);
    const bool written = info != nullptr && writeAll(png, info, image, dotsPerInch, text.data());
    png_destroy_write_struct(&png, &info);
    if (sink.failure != nullptr)
        std::rethrow_exception(sink.failure);
    if (!written)
        throw Failure(std::string("the PNG file cannot be made: ") + sink.words);
}

} // namespace labelPrinter
