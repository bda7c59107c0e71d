// Text data files: a file read by any order of types, beside a string stream. Of each byte of the input the low half
// makes a character of the file, the high half a type.

#include "Quorvil/GeneralException.h"
#include "Quorvil/QuorvilDataIO.h"
#include "fuzz/input.h"

#include <algorithm>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <sys/mman.h>

namespace {

/// Reads one value both ways, `Carrier` being the type that the file is read as; false if there is none.
template <typename Value, typename Carrier>
bool pass(quorvil::IDataIO& reader, std::istream& model)
{
    Value value = 1;
    bool read = true;
    try {
        reader.r(value);
    } catch (const util::GeneralException&) {
        read = false;
    }
    Carrier carrier = 0;
    model >> carrier;
    const bool modelRead = model.rdstate() == std::ios::goodbit;
    fuzz::require(read == modelRead && value == (read ? static_cast<Value>(carrier) : Value(1)), "another value");
    return read;
}

constexpr bool (*passes[])(quorvil::IDataIO&, std::istream&) = {
    pass<bool, int>,        pass<char, int>,
    pass<signed char, int>, pass<unsigned char, unsigned int>,
    pass<short, short>,     pass<unsigned short, unsigned int>,
    pass<int, int>,         pass<unsigned int, unsigned int>,
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const std::string file = "/proc/self/fd/" + std::to_string(memfd_create("data", MFD_CLOEXEC));
    util::GeneralException::defaultSilent = true;
    std::string content(data, data + std::min(size, size_t{64}));
    std::ranges::transform(content, content.begin(), [](char c) { return "0123456789-+ \n\nx"[c & 0xF]; });
    std::ofstream(file) << content;
    const std::unique_ptr<quorvil::IDataIO> reader(quorvil::TextFileDataIO::forRead(file));
    std::istringstream model(content);
    // Behind the first failure comes the next one, whatever is left of the file.
    for (size_t i = 0, failures = 0; i < content.size() && failures < 2; ++i)
        failures += passes[data[i] >> 4 & 7](*reader, model) ? 0U : 1U;
    return 0;
}
