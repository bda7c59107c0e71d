// The conversion between bytes and wide characters as the locale's functions alone do it, a call a character: what the
// library's conversion has to equal, reports included.

#ifndef QUORVIL_TESTS_PLAINCONVERSION_H
#define QUORVIL_TESTS_PLAINCONVERSION_H

#include "Quorvil/QuorvilMystring.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <clocale>
#include <cstring>
#include <cwchar>
#include <iostream>
#include <sstream>
#include <string>

namespace support {

/// Keeps what goes to `std::cerr` for as long as it lives.
class CerrCapture
{
public:
    CerrCapture()
        : before(std::cerr.rdbuf(text.rdbuf()))
    {
    }
    ~CerrCapture()
    {
        std::cerr.rdbuf(before);
    }
    CerrCapture(const CerrCapture&) = delete;
    CerrCapture& operator=(const CerrCapture&) = delete;

    /// What has come since the last call.
    std::string take()
    {
        std::string result = text.str();
        if (!result.empty())
            text.str("");
        return result;
    }

private:
    std::ostringstream text;
    std::streambuf* before;
};

struct Converted
{
    std::wstring text;
    std::string report;
    bool thrown = false;

    bool operator==(const Converted&) const = default;
};

inline Converted plainToWide(const std::string& bytes)
{
    Converted result;
    std::mbstate_t state{};
    for (size_t position = 0; position < bytes.size();) {
        wchar_t character = L'?';
        errno = 0;
        const size_t n = std::mbrtowc(&character, bytes.data() + position, bytes.size() - position, &state);
        const std::string error = std::strerror(errno);
        if (n == static_cast<size_t>(-1)) {
            result.report = "mbrtowc: " + error + "\n";
            if (errno != EILSEQ)
                result.report += "mbrtowc: Unerwarteter Fehler: " + error +
                                 "\n  Maybe, no valid locale was set. Current locale for LC_CTYPE: " +
                                 std::setlocale(LC_CTYPE, nullptr) + "\n";
        }
        if (n == static_cast<size_t>(-2))
            result.report = "utf8 string that shall be converted to utf32 does not contain a valid multibyte character "
                            "at pos " +
                            std::to_string(position) + "\n";
        result.thrown = n > bytes.size();
        if (result.thrown)
            break;
        result.text += character;
        position += std::max<size_t>(n, 1);
    }
    return result;
}

inline std::string plainToBytes(const std::wstring& wide)
{
    std::string result;
    std::mbstate_t state{};
    for (const wchar_t character : wide) {
        char buffer[MB_LEN_MAX];
        const size_t n = std::wcrtomb(buffer, character, &state);
        if (n != static_cast<size_t>(-1))
            result.append(buffer, n);
    }
    return result;
}

/// The library's conversion, by assignment to a string that holds something else.
inline Converted libraryToWide(const std::string& bytes, CerrCapture& cerr)
{
    Converted result;
    tolmen::mywstring wide(L"rest of before");
    try {
        wide = tolmen::mystring(bytes);
    } catch (const tolmen::Utf8Exception&) {
        result.thrown = true;
    }
    result.text = wide;
    result.report = cerr.take();
    return result;
}

} // namespace support

#endif
