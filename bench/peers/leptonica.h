// The blit of Leptonica: `pixRasterop` on images of one bit a pixel.

#ifndef QUORVIL_BENCH_PEERS_LEPTONICA_H
#define QUORVIL_BENCH_PEERS_LEPTONICA_H

#include <leptonica/allheaders.h>

#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <vector>

namespace bench {

/// An image of Leptonica's with rows of 32-bit words, the first pixel in the uppermost bit of each word.
class LeptonicaImage
{
public:
    LeptonicaImage(int widthPixels, int heightPixels)
        : pix(pixCreate(widthPixels, heightPixels, 1))
    {
        if (!pix)
            throw std::runtime_error("pixCreate failed");
    }

    ~LeptonicaImage()
    {
        pixDestroy(&pix);
    }

    LeptonicaImage(const LeptonicaImage&) = delete;
    LeptonicaImage& operator=(const LeptonicaImage&) = delete;

    /// Takes rows of bytes, the first pixel in 0x80.
    void setRows(const std::vector<uint8_t>& bytes, int bytesPerRow)
    {
        for (int y = 0; y < pixGetHeight(pix); ++y)
            for (int x = 0; x < bytesPerRow; ++x)
                SET_DATA_BYTE(
                    row(y), x,
                    bytes[static_cast<size_t>(y) * static_cast<size_t>(bytesPerRow) + static_cast<size_t>(x)]);
    }

    /// Whether the rows are these.
    bool hasRows(const std::vector<uint8_t>& bytes, int bytesPerRow) const
    {
        for (int y = 0; y < pixGetHeight(pix); ++y)
            for (int x = 0; x < bytesPerRow; ++x)
                if (GET_DATA_BYTE(row(y), x) !=
                    bytes[static_cast<size_t>(y) * static_cast<size_t>(bytesPerRow) + static_cast<size_t>(x)])
                    return false;
        return true;
    }

    /// ORs a rectangle of `source` into this image, in the order of `Bitmap::insert`.
    void insert(const LeptonicaImage& source, int srcX, int srcY, int srcW, int srcH, int dstX, int dstY)
    {
        pixRasterop(pix, dstX, dstY, srcW, srcH, PIX_SRC | PIX_DST, source.pix, srcX, srcY);
    }

private:
    l_uint32* row(int y) const
    {
        return pixGetData(pix) + y * pixGetWpl(pix);
    }

    PIX* pix;
};

} // namespace bench

#endif
