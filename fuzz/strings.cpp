// Conversion between bytes and wide characters, beside the plain loop over the locale's functions; trimming.
// The first byte chooses locale and operation.

#include "Quorvil/QuorvilMystring.h"
#include "tests/support/plainConversion.h"

#include <clocale>
#include <cstdint>
#include <cstring>
#include <string>

namespace {

void convertBytes(const std::string& bytes)
{
    static support::CerrCapture cerr;
    if (support::libraryToWide(bytes, cerr) != support::plainToWide(bytes))
        __builtin_trap();
}

void convertWide(const std::string& bytes)
{
    tolmen::mywstring wide;
    for (size_t i = 0; i + sizeof(wchar_t) <= bytes.size(); i += sizeof(wchar_t)) {
        wchar_t character;
        std::memcpy(&character, &bytes[i], sizeof character);
        wide += character;
    }
    const tolmen::mystring result(wide);
    if (result != support::plainToBytes(wide))
        __builtin_trap();
    convertBytes(result);
}

void trim(const std::string& bytes)
{
    const std::string wsBytes = bytes.c_str();
    const std::string text = bytes.substr(std::min(wsBytes.size() + 1, bytes.size())).c_str();
    const size_t first = text.find_first_not_of(wsBytes);
    const size_t last = text.find_last_not_of(wsBytes);
    const std::string kept = first == std::string::npos ? "" : text.substr(first, last - first + 1);
    if (tolmen::mystring::trim(text.c_str(), wsBytes.c_str()) != kept)
        __builtin_trap();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0)
        return 0;
    if (!std::setlocale(LC_CTYPE, data[0] & 1 ? "C" : "C.UTF-8"))
        __builtin_trap();
    const std::string bytes(data + 1, data + size);
    switch (data[0] >> 1 & 3) {
    case 0:
        convertWide(bytes);
        break;
    case 1:
        trim(bytes);
        break;
    default:
        convertBytes(bytes);
    }
    return 0;
}
