#include "Quorvil/QuorvilBitStream.h"

#include <iomanip>
#include <iostream>

int main()
{
    VecByteOutputStream bytes;
    const auto out = BitOutputStream::create(bytes);
    out->write(0, 5, 19);      // the lowest 5 bits of 19
    out->writeBit(true);       // one bit
    out->write(4, 12, 0xABC0); // bits 4 to 15
    out->flush();              // nothing is written before, and the destructor does not do it

    std::cout << bytes.bytes().size() << " bytes:" << std::hex << std::setfill('0');
    for (const unsigned byte : bytes.bytes())
        std::cout << ' ' << std::setw(2) << byte;
    std::cout << '\n';

    VecByteInputStream source(bytes.bytes());
    const auto in = BitInputStream::create(source);
    const uint32_t format = in->read(5);
    const uint32_t colour = in->read();
    std::cout << std::dec << "format " << format << ", colour " << colour << std::hex << ", mask " << in->read(12)
              << '\n';
}
