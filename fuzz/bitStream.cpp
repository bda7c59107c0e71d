// The input is a program of operations on a bit stream of each direction, checked against their models, and then a row
// of fields, written and read back.

#define QUORVIL_ASSERTION_TRAP
#include "tests/support/bitStreamModel.h"

#include <cstdio>
#include <cstdlib>

namespace {

void require(bool condition, const char* text)
{
    if (!condition) {
        std::fprintf(stderr, "%s\n", text);
        std::abort();
    }
}

/// Writes each byte as a field of its own width and reads the fields back.
void roundTrip(std::basic_string_view<uint8_t> data)
{
    VecByteOutputStream sink;
    const auto output = BitOutputStream::create(sink);
    size_t count = 0;
    for (const unsigned byte : data) {
        output->write(0, static_cast<int>(byte % 32 + 1), byte * 0x9E3779B9);
        count += byte % 32 + 1;
    }
    output->flush();
    require(sink.bytes().size() == (count + 7) / 8, "another number of bytes");
    VecByteInputStream source(sink.bytes());
    const auto input = BitInputStream::create(source);
    for (const unsigned byte : data) {
        const int numBits = static_cast<int>(byte % 32 + 1);
        require(input->read(numBits) == byte * 0x9E3779B9 << (32 - numBits) >> (32 - numBits), "another value");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string difference = bitStreamModel::runProgram({data, size});
    require(difference.empty(), difference.c_str());
    roundTrip({data, size});
    return 0;
}
