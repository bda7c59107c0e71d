// The input is a text, parsed as a number beside a model of the parser.

#include "tests/support/numberModel.h"

#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    // The parser's text ends at the first NUL, and so has the model's to.
    const std::string text = std::string(data, data + size).c_str();
    if (numberModel::parsed(text) != numberModel::valueOf(text))
        std::abort();
    return 0;
}
