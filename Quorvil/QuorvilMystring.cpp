#include "Quorvil/QuorvilMystring.h"

#include "Quorvil/QuorvilAssert.h"
#include "Quorvil/ThreadSafeStream.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <cctype>
#include <cerrno>
#include <climits>
#include <clocale>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <cwctype>
#include <langinfo.h>
#include <ostream>
#include <set>
#include <stdexcept>
#include <utility>

// Text of a printer is UTF-8, nearly always, and the locale's functions take a call a character. Under a UTF-8 locale
// well-formed text is therefore decoded and encoded right here. Whatever is not well-formed, or lies outside Unicode,
// goes to the locale's function at that very place, under any other locale everything does: results, partial results
// and errors are those of the function alone.

namespace tolmen {

namespace {

constexpr const char* source = "Quorvil/QuorvilMystring";
constexpr const char* nullText = "basic_string::_M_construct null not valid";

/// Adds 1. No locked operation: counting must cost a string nothing, and is exact for one thread only anyway.
void count(int& counter) noexcept
{
    std::atomic_ref<int> shared(counter);
    const auto before = static_cast<unsigned>(shared.load(std::memory_order_relaxed));
    shared.store(static_cast<int>(before + 1), std::memory_order_relaxed);
}

std::string valueOf(int& counter)
{
    return std::to_string(std::atomic_ref<int>(counter).load(std::memory_order_relaxed));
}

template <typename Char>
const Char* notNull(const Char* text)
{
    if (text == nullptr)
        throw std::logic_error(nullText);
    return text;
}

/// The charset of the calling thread's locale, which is what `mbrtowc` and `wcrtomb` go by.
bool localeIsUtf8()
{
    return std::strcmp(nl_langinfo(CODESET), "UTF-8") == 0;
}

// Eight characters at a time, as vectors that the compiler maps to what the machine has.
constexpr std::ptrdiff_t stride = 8;
using Bytes = unsigned char __attribute__((vector_size(stride)));
using Characters = std::uint32_t __attribute__((vector_size(stride * 4)));
static_assert(sizeof(wchar_t) == 4);

/// Characters of either kind on their way into a string.
template <typename String>
class Chunk
{
public:
    using Char = typename String::value_type;

    explicit Chunk(String& target_)
        : target(target_)
    {
    }

    /// Where the next characters go; there is room for `stride` of them.
    Char* room()
    {
        if (used > length - stride)
            flush();
        return characters.data() + used;
    }

    /// Keeps the first `number` characters of the room.
    void keep(std::ptrdiff_t number)
    {
        used += number;
    }

    void flush()
    {
        target.append(characters.data(), static_cast<std::size_t>(used));
        used = 0;
    }

private:
    static constexpr std::ptrdiff_t length = 512;
    String& target;
    std::ptrdiff_t used = 0;
    std::array<Char, length> characters;
};

/// Number of bytes below 0x80 at the front of the eight, which lie in `word` as in memory.
std::ptrdiff_t asciiInFront(std::uint64_t word)
{
    const std::uint64_t high = word & 0x8080808080808080U;
    return (std::endian::native == std::endian::little ? std::countr_zero(high) : std::countl_zero(high)) / CHAR_BIT;
}

bool isContinuation(unsigned char byte)
{
    return (byte & 0xC0) == 0x80;
}

bool isSurrogate(std::uint32_t character)
{
    return character >= 0xD800 && character < 0xE000;
}

/// Decodes the character that the bytes begin with.
///
/// @return the number of its bytes, 0 unless it is well-formed
std::ptrdiff_t decode(const unsigned char* bytes, std::ptrdiff_t available, std::uint32_t& character)
{
    const std::uint32_t lead = bytes[0];
    if (lead < 0x80) {
        character = lead;
        return 1;
    }
    if (available < 2 || lead < 0xC2 || !isContinuation(bytes[1]))
        return 0;
    if (lead < 0xE0) {
        character = (lead & 0x1F) << 6 | (bytes[1] & 0x3FU);
        return 2;
    }
    if (available < 3 || !isContinuation(bytes[2]))
        return 0;
    if (lead < 0xF0) {
        character = (lead & 0x0F) << 12 | (bytes[1] & 0x3FU) << 6 | (bytes[2] & 0x3FU);
        return character >= 0x800 && !isSurrogate(character) ? 3 : 0;
    }
    if (available < 4 || lead > 0xF4 || !isContinuation(bytes[3]))
        return 0;
    character = (lead & 0x07) << 18 | (bytes[1] & 0x3FU) << 12 | (bytes[2] & 0x3FU) << 6 | (bytes[3] & 0x3FU);
    return character >= 0x10000 && character <= 0x10FFFF ? 4 : 0;
}

/// Encodes one character.
///
/// @return the number of its bytes, 0 if it is not a character of Unicode
std::ptrdiff_t encode(std::uint32_t character, char* bytes)
{
    const auto continuation = [character](int shift) { return static_cast<char>(0x80 | (character >> shift & 0x3F)); };
    if (character < 0x80) {
        bytes[0] = static_cast<char>(character);
        return 1;
    }
    if (character < 0x800) {
        bytes[0] = static_cast<char>(0xC0 | character >> 6);
        bytes[1] = continuation(0);
        return 2;
    }
    if (character < 0x10000) {
        bytes[0] = static_cast<char>(0xE0 | character >> 12);
        bytes[1] = continuation(6);
        bytes[2] = continuation(0);
        return isSurrogate(character) ? 0 : 3;
    }
    bytes[0] = static_cast<char>(0xF0 | character >> 18);
    bytes[1] = continuation(12);
    bytes[2] = continuation(6);
    bytes[3] = continuation(0);
    return character <= 0x10FFFF ? 4 : 0;
}

/// Appends the decoded characters of the well-formed text from `begin`.
///
/// @return the end of that text: `end`, or the first place that is not well-formed
const char* appendWellFormed(const char* begin, const char* end, std::wstring& target)
{
    Chunk<std::wstring> chunk(target);
    while (begin != end) {
        if (end - begin >= stride) {
            std::uint64_t word;
            Bytes bytes;
            std::memcpy(&word, begin, sizeof word);
            std::memcpy(&bytes, begin, sizeof bytes);
            const Characters wide = __builtin_convertvector(bytes, Characters);
            std::memcpy(chunk.room(), &wide, sizeof wide);
            const std::ptrdiff_t ascii = asciiInFront(word);
            chunk.keep(ascii);
            begin += ascii;
            if (ascii == stride)
                continue;
        }
        // Other alphabets stay among themselves for a while.
        do {
            std::uint32_t character;
            const std::ptrdiff_t n = decode(reinterpret_cast<const unsigned char*>(begin), end - begin, character);
            if (n == 0) {
                chunk.flush();
                return begin;
            }
            *chunk.room() = static_cast<wchar_t>(character);
            chunk.keep(1);
            begin += n;
        } while (begin != end && static_cast<unsigned char>(*begin) >= 0x80);
    }
    chunk.flush();
    return begin;
}

/// True if all eight characters are below 0x80.
bool allAscii(const wchar_t* characters)
{
    std::array<std::uint64_t, stride / 2> pairs;
    std::memcpy(pairs.data(), characters, sizeof pairs);
    return ((pairs[0] | pairs[1] | pairs[2] | pairs[3]) & 0xFFFFFF80FFFFFF80U) == 0;
}

/// Appends the bytes of the characters from `begin`.
///
/// @return `end`, or the first character that is not one of Unicode
const wchar_t* appendEncoded(const wchar_t* begin, const wchar_t* end, std::string& target)
{
    Chunk<std::string> chunk(target);
    while (begin != end) {
        if (end - begin >= stride && allAscii(begin)) {
            Characters wide;
            std::memcpy(&wide, begin, sizeof wide);
            const Bytes bytes = __builtin_convertvector(wide, Bytes);
            std::memcpy(chunk.room(), &bytes, sizeof bytes);
            chunk.keep(stride);
            begin += stride;
            continue;
        }
        const wchar_t* const blockEnd = begin + std::min(end - begin, stride);
        for (; begin != blockEnd; ++begin) {
            const std::ptrdiff_t n = encode(static_cast<std::uint32_t>(*begin), chunk.room());
            if (n == 0) {
                chunk.flush();
                return begin;
            }
            chunk.keep(n);
        }
    }
    chunk.flush();
    return begin;
}

/// Reports that `mbrtowc` returned -1 with `error`, and throws.
[[noreturn]] void throwInvalid(int error)
{
    char buffer[1024];
    const char* const text = strerror_r(error, buffer, sizeof buffer);
    safeCerr << "mbrtowc: " << text << std::endl;
    if (error != EILSEQ) {
        safeCerr << "mbrtowc: Unerwarteter Fehler: " << text << "\n"
                 << "  Maybe, no valid locale was set. Current locale for LC_CTYPE: "
                 << std::setlocale(LC_CTYPE, nullptr) << std::endl;
    }
    throw Utf8Exception();
}

/// Reports that the bytes end inside the character at `position`, and throws.
[[noreturn]] void throwCutOff(std::ptrdiff_t position)
{
    safeCerr << "utf8 string that shall be converted to utf32 does not contain a valid multibyte character at pos "
             << std::to_string(position) << std::endl;
    throw Utf8Exception();
}

} // namespace

int mystring::countDefaultConstr = 0;
int mystring::countCharConstr = 0;
int mystring::countCopyConstr = 0;
int mystring::countCopyCast = 0;
int mystring::countMoveConstr = 0;
int mystring::countMoveCast = 0;
int mystring::countConstAssign = 0;
int mystring::countMoveAssign = 0;

mystring::mystring()
{
    count(countDefaultConstr);
}

mystring::mystring(const char* s, bool)
    : std::string(notNull(s))
{
    count(countCharConstr);
}

mystring::mystring(const char* first, const char* last)
    : std::string(last == nullptr ? first : notNull(first), last)
{
}

mystring::mystring(std::string::const_iterator first, std::string::const_iterator last)
    : std::string(first, last)
{
}

mystring::mystring(const std::string& other)
    : std::string(other)
{
    count(countCopyCast);
}

mystring::mystring(const mystring& other)
    : std::string(other)
{
    count(countCopyConstr);
}

mystring::mystring(std::string&& other)
    : std::string(std::move(other))
{
    other.clear();
    count(countMoveCast);
}

mystring::mystring(mystring&& other)
    : std::string(std::move(other))
{
    other.clear();
    count(countMoveConstr);
}

mystring::mystring(const mywstring& wide)
    : std::string()
{
    *this = wide;
}

mystring::~mystring() = default;

mystring& mystring::operator=(const mystring& other)
{
    std::string::operator=(other);
    count(countConstAssign);
    return *this;
}

mystring& mystring::operator=(mystring&& other)
{
    std::string::operator=(std::move(other));
    count(countMoveAssign);
    return *this;
}

mystring& mystring::operator=(const mywstring& wide)
{
    clear();
    std::mbstate_t state{};
    char buffer[MB_LEN_MAX];
    const bool direct = localeIsUtf8();
    const wchar_t* character = wide.data();
    const wchar_t* const end = character + wide.size();
    while (true) {
        if (direct)
            character = appendEncoded(character, end, *this);
        if (character == end)
            return *this;
        const auto n = static_cast<std::ptrdiff_t>(std::wcrtomb(buffer, *character, &state));
        if (n > 0)
            append(buffer, static_cast<std::size_t>(n));
        ++character;
    }
}

mystring&& mystring::operator+(mystring&& other) &&
{
    append(other);
    return std::move(*this);
}

void mystring::toUpperCase()
{
    for (char& byte : *this)
        byte = static_cast<char>(std::toupper(static_cast<unsigned char>(byte)));
}

void mystring::toLowerCase()
{
    for (char& byte : *this)
        byte = static_cast<char>(std::tolower(static_cast<unsigned char>(byte)));
}

mystring mystring::trim(const char* s, const char* wsBytes)
{
    constexpr const char* function = "static tolmen::mystring tolmen::mystring::trim(const char*, const char*)";
    const std::set<char> ws(wsBytes, wsBytes + std::strlen(wsBytes));
    const char* start = s;
    while (*start && ws.find(*start) != ws.end())
        ++start;
    if (!*start)
        return mystring("", false);
    quorvil::intern::require(start >= s && !(*start && ws.find(*start) != ws.end()),
                             "start >= s && !(*start && ws.find(*start) != ws.end())", source, __LINE__, function);
    quorvil::intern::require(ws.find(*start) == ws.end(), "ws.find(*start) == ws.end()", source, __LINE__, function);
    const char* end = start + 1;
    while (*end)
        ++end;
    quorvil::intern::require(end > start && !*end && (*(end - 1)), "end > start && !*end && (*(end - 1))", source,
                             __LINE__, function);
    while (ws.find(*(end - 1)) != ws.end())
        --end;
    quorvil::intern::require(start < end && ws.find(*start) == ws.end() && ws.find(*(end - 1)) == ws.end(),
                             "start < end && ws.find(*start) == ws.end() && ws.find(*(end-1)) == ws.end()", source,
                             __LINE__, function);
    return mystring(start, end);
}

void mystring::dumpCounts()
{
    safeCerr << "Counts of mystring:\n"
             << "countDefaultConstr=" << valueOf(countDefaultConstr) << "\n"
             << "countCharConstr=" << valueOf(countCharConstr) << "\n"
             << "countCopyConstr=" << valueOf(countCopyConstr) << "\n"
             << "countCopyCast=" << valueOf(countCopyCast) << "\n"
             << "countMoveConstr=" << valueOf(countMoveConstr) << "\n"
             << "countMoveCast=" << valueOf(countMoveCast) << "\n"
             << "countConstAssign=" << valueOf(countConstAssign) << "\n"
             << "countMoveAssign=" << valueOf(countMoveAssign) << std::endl;
}

mywstring::mywstring() = default;

mywstring::mywstring(const wchar_t* s)
    : std::wstring(notNull(s))
{
}

mywstring::mywstring(const std::wstring& other)
    : std::wstring(other)
{
}

mywstring::mywstring(const mywstring& other)
    : std::wstring(other)
{
}

mywstring::mywstring(mywstring&& other)
    : std::wstring(std::move(other))
{
    other.clear();
}

mywstring::mywstring(std::wstring&& other)
    : std::wstring(std::move(other))
{
    other.clear();
}

mywstring::mywstring(const mystring& bytes)
    : std::wstring()
{
    *this = bytes;
}

mywstring::~mywstring() = default;

mywstring& mywstring::operator=(const mywstring& other) = default;

mywstring& mywstring::operator=(mywstring&& other) = default;

mywstring& mywstring::operator=(const mystring& bytes)
{
    constexpr const char* function = "tolmen::mywstring& tolmen::mywstring::operator=(const tolmen::mystring&)";
    clear();
    std::mbstate_t state{};
    const char* sourceBegin = bytes.data();
    auto sourceAvailable = static_cast<std::ptrdiff_t>(bytes.size());
    const char* const sourceEnd = sourceBegin + sourceAvailable;
    const bool direct = localeIsUtf8();
    while (true) {
        if (direct) {
            sourceBegin = appendWellFormed(sourceBegin, sourceEnd, *this);
            sourceAvailable = sourceEnd - sourceBegin;
        }
        if (sourceAvailable < 1)
            return *this;
        wchar_t character;
        auto n = static_cast<std::ptrdiff_t>(
            std::mbrtowc(&character, sourceBegin, static_cast<std::size_t>(sourceAvailable), &state));
        if (n == -1)
            throwInvalid(errno);
        if (n == -2)
            throwCutOff(sourceBegin - bytes.data());
        // The function gives 0 for the NUL character, which takes one byte.
        if (n == 0)
            n = 1;
        quorvil::intern::require(n <= sourceAvailable, "n <= sourceAvailable", source, __LINE__, function);
        quorvil::intern::require(n <= static_cast<std::ptrdiff_t>(MB_CUR_MAX),
                                 "n <= (ptrdiff_t) (__ctype_get_mb_cur_max ())", source, __LINE__, function);
        sourceAvailable -= n;
        sourceBegin += n;
        quorvil::intern::require(sourceAvailable >= 0, "sourceAvailable >= 0", source, __LINE__, function);
        quorvil::intern::require(sourceEnd == sourceBegin + sourceAvailable,
                                 "sourceEnd == sourceBegin + sourceAvailable", source, __LINE__, function);
        push_back(character);
    }
}

bool mywstring::equalsIgnoreCase(const mywstring& other) const
{
    return size() == other.size() && wcsncasecmp(c_str(), other.c_str(), size()) == 0;
}

void mywstring::toUpperCase()
{
    for (wchar_t& character : *this)
        character = static_cast<wchar_t>(std::towupper(static_cast<std::wint_t>(character)));
}

void mywstring::toLowerCase()
{
    for (wchar_t& character : *this)
        character = static_cast<wchar_t>(std::towlower(static_cast<std::wint_t>(character)));
}

} // namespace tolmen
