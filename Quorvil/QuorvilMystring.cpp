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
using EightBytes = unsigned char __attribute__((vector_size(8)));
using SixteenBytes = unsigned char __attribute__((vector_size(16)));
using FourCharacters = std::uint32_t __attribute__((vector_size(16)));
using EightCharacters = std::uint32_t __attribute__((vector_size(32)));
static_assert(sizeof(wchar_t) == 4);
static_assert(std::endian::native == std::endian::little, "the first byte of a word is its lowest");

// Text goes through a chunk on the stack that always has room for what a batch of the source becomes.
constexpr std::ptrdiff_t batch = 512;

/// Number of bytes below 0x80 at the front of the eight, which lie in `word` as in memory.
std::ptrdiff_t asciiInFront(std::uint64_t word)
{
    return std::countr_zero(word & 0x8080808080808080U) / CHAR_BIT;
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
    // The payload of a byte that continues a character; more than six bits if the byte is none.
    const auto payload = [bytes](int number) { return std::uint32_t{bytes[number]} ^ 0x80U; };
    constexpr std::uint32_t sixBits = 0x3F;
    const std::uint32_t lead = bytes[0];
    if (lead < 0x80) {
        character = lead;
        return 1;
    }
    if ((lead & 0xF0) == 0xE0) {
        if (available < 3 || (payload(1) | payload(2)) > sixBits)
            return 0;
        character = (lead & 0x0F) << 12 | payload(1) << 6 | payload(2);
        return character >= 0x800 && !isSurrogate(character) ? 3 : 0;
    }
    if ((lead & 0xE0) == 0xC0) {
        if (available < 2 || payload(1) > sixBits)
            return 0;
        character = (lead & 0x1F) << 6 | payload(1);
        return character >= 0x80 ? 2 : 0;
    }
    if ((lead & 0xF8) != 0xF0 || available < 4 || (payload(1) | payload(2) | payload(3)) > sixBits)
        return 0;
    character = (lead & 0x07) << 18 | payload(1) << 12 | payload(2) << 6 | payload(3);
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

/// Decodes well-formed text from `begin` until `batchEnd` is reached or passed, which no character but the last does.
///
/// @param end  of the whole text
/// @param out  moves behind the characters written; `stride` more may be overwritten
/// @return where it stopped; before `batchEnd`: at the first place that is not well-formed
const char* decodeBatch(const char* begin, const char* batchEnd, const char* end, wchar_t*& out)
{
    while (begin < batchEnd) {
        if (end - begin >= stride) {
            std::uint64_t word;
            EightBytes bytes;
            std::memcpy(&word, begin, sizeof word);
            std::memcpy(&bytes, begin, sizeof bytes);
            const EightCharacters wide = __builtin_convertvector(bytes, EightCharacters);
            std::memcpy(out, &wide, sizeof wide);
            const std::ptrdiff_t ascii = asciiInFront(word);
            out += ascii;
            begin += ascii;
            if (ascii == stride)
                continue;
        }
        // Other alphabets stay among themselves for a while.
        do {
            std::uint32_t character;
            const std::ptrdiff_t n = decode(reinterpret_cast<const unsigned char*>(begin), end - begin, character);
            if (n == 0)
                return begin;
            *out++ = static_cast<wchar_t>(character);
            begin += n;
        } while (begin < batchEnd && static_cast<unsigned char>(*begin) >= 0x80);
    }
    return begin;
}

/// Appends the decoded characters of the well-formed text from `begin`.
///
/// @return the end of that text: `end`, or the first place that is not well-formed
const char* appendWellFormed(const char* begin, const char* end, std::wstring& target)
{
    std::array<wchar_t, batch + stride> chunk;
    while (begin != end) {
        const char* const batchEnd = begin + std::min(end - begin, batch);
        wchar_t* out = chunk.data();
        begin = decodeBatch(begin, batchEnd, end, out);
        target.append(chunk.data(), static_cast<std::size_t>(out - chunk.data()));
        if (begin < batchEnd)
            break;
    }
    return begin;
}

/// The eight characters as a byte each: as they are below 0x80, and as anything from 0x80 otherwise.
std::uint64_t lowBytes(const wchar_t* characters)
{
    std::array<FourCharacters, 2> wide;
    std::memcpy(wide.data(), characters, sizeof wide);
    std::array<SixteenBytes, 2> flagged;
    for (std::size_t half = 0; half < 2; ++half) {
        const FourCharacters beyond = reinterpret_cast<FourCharacters>((wide[half] & ~0x7FU) != 0);
        flagged[half] = reinterpret_cast<SixteenBytes>((wide[half] & 0x7FU) | (beyond & 0x80U));
    }
    // The low byte of each character, by leaving out every second byte twice: machines have that in one instruction.
    const SixteenBytes pairs =
        __builtin_shufflevector(flagged[0], flagged[1], 0, 2, 4, 6, 8, 10, 12, 14, 16, 18, 20, 22, 24, 26, 28, 30);
    const SixteenBytes bytes =
        __builtin_shufflevector(pairs, pairs, 0, 2, 4, 6, 8, 10, 12, 14, 16, 18, 20, 22, 24, 26, 28, 30);
    std::uint64_t word;
    std::memcpy(&word, &bytes, sizeof word);
    return word;
}

/// Encodes the characters from `begin` to `end`.
///
/// @param out  moves behind the bytes written; `stride` more may be overwritten
/// @return `end`, or the first character that is not one of Unicode
const wchar_t* encodeBatch(const wchar_t* begin, const wchar_t* end, char*& out)
{
    while (begin != end) {
        if (end - begin >= stride) {
            const std::uint64_t word = lowBytes(begin);
            std::memcpy(out, &word, sizeof word);
            const std::ptrdiff_t ascii = asciiInFront(word);
            out += ascii;
            begin += ascii;
            if (ascii == stride)
                continue;
        }
        do {
            const std::ptrdiff_t n = encode(static_cast<std::uint32_t>(*begin), out);
            if (n == 0)
                return begin;
            out += n;
            ++begin;
        } while (begin != end && static_cast<std::uint32_t>(*begin) >= 0x80);
    }
    return begin;
}

/// Appends the bytes of the characters from `begin`.
///
/// @return `end`, or the first character that is not one of Unicode
const wchar_t* appendEncoded(const wchar_t* begin, const wchar_t* end, std::string& target)
{
    std::array<char, 4 * batch + stride> chunk;
    while (begin != end) {
        const wchar_t* const batchEnd = begin + std::min(end - begin, batch);
        char* out = chunk.data();
        begin = encodeBatch(begin, batchEnd, out);
        target.append(chunk.data(), static_cast<std::size_t>(out - chunk.data()));
        if (begin != batchEnd)
            break;
    }
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

mystring::mystring(std::string&& other) noexcept
    : std::string()
{
    swap(other);
    count(countMoveCast);
}

mystring::mystring(mystring&& other) noexcept
    : std::string()
{
    swap(other);
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

mystring& mystring::operator=(mystring&& other) noexcept
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

mywstring::mywstring(mywstring&& other) noexcept
    : std::wstring()
{
    swap(other);
}

mywstring::mywstring(std::wstring&& other) noexcept
    : std::wstring()
{
    swap(other);
}

mywstring::mywstring(const mystring& bytes)
    : std::wstring()
{
    *this = bytes;
}

mywstring::~mywstring() = default;

mywstring& mywstring::operator=(const mywstring& other) = default;

mywstring& mywstring::operator=(mywstring&& other) noexcept = default;

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
