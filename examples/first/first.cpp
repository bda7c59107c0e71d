#include "Quorvil/Bitmaps.h"
#include "Quorvil/ThreadSafeStream.h"

#include <vector>

int main()
{
    std::vector<uint8_t> dot{0xC0, 0xC0}; // two pixels by two, one byte a row
    std::vector<uint8_t> page(1300);      // 100 pixels by 100, 13 bytes a row
    bmp::Bitmap(page.data(), 100, 100, 13).insert(bmp::Bitmap(dot.data(), 2, 2, 1), 0, 0, 2, 2, 49, 49);
    safeCout << "pixel byte: " << int(page[643]) << '\n';
}
