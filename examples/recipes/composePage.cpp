#include "Quorvil/Bitmaps.h"

#include <cstddef>
#include <iostream>
#include <vector>

int main()
{
    std::vector<uint8_t> rows{0x7E, 0x60, 0x7C, 0x60, 0x60}; // the letter F, a byte a row; its left pixel is 0x80
    const bmp::Bitmap letter(rows.data(), 8, 5, 1);

    constexpr int width = 44;
    constexpr int height = 7;
    constexpr int bytesPerRow = (width + 7) / 8;
    std::vector<uint8_t> memory(size_t{bytesPerRow} * height); // white
    bmp::Bitmap page(memory.data(), width, height, bytesPerRow);

    page.clip(3, 0, 38, height); // a margin on both sides
    for (int x = 0; x < width; x += 9)
        page.insert(letter, 0, 0, 8, 5, x, 1);

    for (size_t y = 0; y < height; ++y) {
        for (size_t x = 0; x < width; ++x)
            std::cout << ((memory[y * bytesPerRow + x / 8] >> (7 - x % 8) & 1) != 0 ? '#' : '.');
        std::cout << '\n';
    }
}
