#include "Quorvil/QuorvilLimitedBuffer.h"

#include "Quorvil/QuorvilAssert.h"
#include "Quorvil/QuorvilLog.h"

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <exception>
#include <iostream>
#include <string>
#include <string_view>
#include <utility>

#include <cxxabi.h>

QUORVIL_LOG_GROUP("Quorvil");

namespace {

using quorvil::intern::require;

constexpr const char* sourceText = "Quorvil/QuorvilLimitedBuffer";

/// The library holds these, too, for callers that take no function from a header.
[[gnu::used]] constexpr auto emittedAdd = &util::LimitedBuffer::add;
[[gnu::used]] constexpr auto emittedIsActive = &util::LimitedBuffer::isBufferingActive;

/// The body of `checkInvariants`, which each text that is added passes twice.
void requireRing(const char* begin, const char* end, const char* next, std::size_t size)
{
    constexpr const char* function = "void util::LimitedBuffer::checkInvariants() const";
    require(begin < end, "begin < end", sourceText, __LINE__, function);
    require(begin <= next, "begin <= next", sourceText, __LINE__, function);
    require(next < end, "next < end", sourceText, __LINE__, function);
    require(size <= static_cast<std::size_t>(end - begin), "(ptrdiff_t)size <= (end - begin)", sourceText, __LINE__,
            function);
}

/// Writes without regard to the stream's width and fill, so that the texts come out letter for letter.
void write(std::ostream& out, std::string_view text)
{
    out.write(text.data(), static_cast<std::streamsize>(text.size()));
}

/// Writes the bytes between two places of a ring, in ring order.
///
/// @param whole  where both places are equal: the whole ring, instead of nothing
/// @return number of bytes written
std::size_t writeRun(std::ostream& out, std::string_view ring, std::size_t from, std::size_t to, bool whole)
{
    if (from == to && !whole)
        return 0;
    if (from < to) {
        write(out, ring.substr(from, to - from));
        return to - from;
    }
    write(out, ring.substr(from));
    write(out, ring.substr(0, to));
    return ring.size() - from + to;
}

/// Whether `step` came through. What it throws is reported on `std::cerr`: the console's thread must not end the
/// process because a stream or a formatter failed. A thread that is cancelled goes on unwinding.
template <class Step>
bool succeeds(Step step)
{
    const auto report = [](const char* reason) {
        // Not by the stream itself: it is tied to the console's output, which may just have thrown, and may throw too.
        std::ostream(std::cerr.rdbuf()) << "LBInteractiveDump: " << reason << '\n';
    };
    try {
        step();
        return true;
    } catch (const abi::__forced_unwind&) {
        throw;
    } catch (const std::exception& exception) {
        report(exception.what());
    } catch (...) {
        report("unknown exception");
    }
    return false;
}

/// One turn of the dialogue up to the echo. Whether the line asks for a print: it is neither the letter nor the last.
bool askForPrint()
{
    write(std::cout, "Enter: dump gl_trenvikLimitedBuffer\n"
                     "q (und Enter): Quit\n"
                     "(vor getline)\n");
    std::string line;
    // What the input throws ends the dialogue as any failure of it, behind the echo.
    succeeds([&] { std::getline(std::cin, line); });
    write(std::cout, "line: '" + line + "'\n");
    // A stream that failed without an end of file would never deliver anything else.
    return std::cin.good() && line != "q";
}

} // namespace

namespace util {

LimitedBuffer::LimitedBuffer(std::size_t capacity, int bytesPerValueList,
                             std::function<void(std::basic_ostream<char>&, const char*)> formatStateValueList_)
    : begin(nullptr)
    , end(nullptr)
    , next(nullptr)
    , size(0)
    , stateValues(bytesPerValueList)
    , formatStateValueList(std::move(formatStateValueList_))
{
    constexpr const char* function = "util::LimitedBuffer::LimitedBuffer(std::size_t, int, "
                                     "std::function<void(std::basic_ostream<char>&, const char*)>)";
    require(formatStateValueList != nullptr, "formatStateValueList", sourceText, __LINE__, function);
    // Positions are of type int.
    require(capacity <= INT_MAX, "capacity <= INT_MAX", sourceText, __LINE__, function);
    begin = new char[capacity];
    end = begin + capacity;
    next = begin;
    checkInvariants();
}

LimitedBuffer::~LimitedBuffer()
{
    delete[] begin;
}

constinit std::atomic<bool> LimitedBuffer::bufferingActive{false};

void LimitedBuffer::setBufferingActive(bool active)
{
    bufferingActive = active;
}

/// The common body of `add` and `addf`; `lock` is the caller's, on `mutex`.
inline void LimitedBuffer::internAdd(const char* text, std::size_t len, std::unique_lock<std::mutex>&)
{
    requireRing(begin, end, next, size);
    const auto capacity = static_cast<std::size_t>(end - begin);
    require(len < capacity, "(ptrdiff_t)len < (end - begin)", sourceText, __LINE__,
            "void util::LimitedBuffer::internAdd(const char*, size_t, L&)");
    const auto oldPosition = static_cast<int>(next - begin);
    const auto untilEnd = static_cast<std::size_t>(end - next);
    if (len < untilEnd) {
        std::copy_n(text, len, next);
        next += len;
    } else {
        std::copy_n(text, untilEnd, next);
        std::copy_n(text + untilEnd, len - untilEnd, begin);
        next = begin + (len - untilEnd);
    }
    size = std::min(size + len, capacity);
    stateValues.removeOverwritten(oldPosition, static_cast<int>(next - begin), static_cast<int>(capacity));
    requireRing(begin, end, next, size);
}

void LimitedBuffer::addActive(const char* text, std::size_t len)
{
    std::unique_lock lock(mutex);
    internAdd(text, len, lock);
}

void LimitedBuffer::addf(const char* format, ...)
{
    if (!bufferingActive)
        return;
    std::unique_lock lock(mutex);
    va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(formatBuf, sizeof formatBuf, format, arguments);
    va_end(arguments);
    // An error has no text, and an empty one would drop the lists.
    if (length < 0)
        return;
    internAdd(formatBuf, std::min(static_cast<std::size_t>(length), sizeof formatBuf - 1), lock);
}

void LimitedBuffer::addStateValueList(const char* values, int numBytes)
{
    if (!bufferingActive)
        return;
    const std::lock_guard lock(mutex);
    stateValues.add(static_cast<int>(next - begin), values, numBytes);
}

void LimitedBuffer::print(std::ostream& out)
{
    if (!bufferingActive)
        return;
    std::size_t capacity;
    int bytesPerValueList;
    {
        const std::lock_guard lock(mutex);
        capacity = static_cast<std::size_t>(end - begin);
        bytesPerValueList = stateValues.bytesPerValueList;
    }

    // Zeroed, so that the pages are there before the lock is taken: writers wait for the copying alone.
    const auto copy = std::make_unique<char[]>(capacity);
    LimitedStateValueBuffer copiedLists(bytesPerValueList);
    std::size_t copySize;
    std::size_t cursor;
    std::size_t copiedNext;
    {
        const std::lock_guard lock(mutex);
        std::copy_n(begin, capacity, copy.get());
        copySize = size;
        copiedLists.copyFrom(stateValues);
        cursor = static_cast<std::size_t>(walk(next, -static_cast<std::ptrdiff_t>(size)) - begin);
        copiedNext = static_cast<std::size_t>(next - begin);
    }

    const std::string_view ring(copy.get(), capacity);
    // A width that was set for this output would hit the first list that is formatted.
    out.width(0);
    write(out, "\n\n======== LIMITED BUFFER CONTENT ========\n\n");
    copiedLists.startIteration();
    int pos;
    char* values;
    while (copiedLists.iterate(pos, values)) {
        const auto place = static_cast<std::size_t>(pos);
        copySize -= writeRun(out, ring, cursor, place, copySize == capacity);
        cursor = place;
        formatStateValueList(out, values);
    }
    if (copySize != 0)
        copySize -= writeRun(out, ring, cursor, copiedNext, copySize == capacity);
    require(copySize == 0, "copySize == 0", sourceText, __LINE__, "void util::LimitedBuffer::print(std::ostream&)");
    write(out, "\n==============\n\n");
}

void LimitedBuffer::readPart(char* partBegin, std::size_t partSize, std::ostream& out)
{
    constexpr const char* function = "void util::LimitedBuffer::readPart(char*, std::size_t, std::ostream&)";
    require(begin <= partBegin && partBegin < end, "begin <= partBegin && partBegin < end", sourceText, __LINE__,
            function);
    require(partSize <= static_cast<std::size_t>(end - begin), "(ptrdiff_t)partSize <= (end - begin)", sourceText,
            __LINE__, function);
    const auto untilEnd = static_cast<std::size_t>(end - partBegin);
    write(out, {partBegin, std::min(partSize, untilEnd)});
    if (partSize > untilEnd)
        write(out, {begin, partSize - untilEnd});
}

void LimitedBuffer::checkInvariants() const
{
    requireRing(begin, end, next, size);
}

char* LimitedBuffer::walk(char* a, std::ptrdiff_t n) const
{
    constexpr const char* expression = "begin <= a && a < end";
    constexpr const char* function = "char* util::LimitedBuffer::walk(char*, ptrdiff_t) const";
    require(begin <= a && a < end, expression, sourceText, __LINE__, function);
    // The remainder first: the sum with the way from begin to a could overflow.
    const std::ptrdiff_t capacity = end - begin;
    std::ptrdiff_t forward = n % capacity;
    if (forward < 0)
        forward += capacity;
    const std::ptrdiff_t untilEnd = end - a;
    a = forward < untilEnd ? a + forward : begin + (forward - untilEnd);
    require(begin <= a && a < end, expression, sourceText, __LINE__, function);
    return a;
}

std::size_t LimitedBuffer::diff(char* a, char* b) const
{
    constexpr const char* function = "std::size_t util::LimitedBuffer::diff(char*, char*) const";
    require(begin <= a && a < end, "begin <= a && a < end", sourceText, __LINE__, function);
    require(begin <= b && b < end, "begin <= b && b < end", sourceText, __LINE__, function);
    return static_cast<std::size_t>(a < b ? b - a : (end - a) + (b - begin));
}

char* LimitedBuffer::ringBegin() const
{
    return begin;
}

char* LimitedBuffer::ringEnd() const
{
    return end;
}

char* LimitedBuffer::ringNext() const
{
    const std::lock_guard lock(mutex);
    return next;
}

std::ostream& operator<<(std::ostream& out, LimitedBuffer& buffer)
{
    buffer.print(out);
    return out;
}

LBInteractiveDump::LBInteractiveDump(LimitedBuffer& buffer_)
    : buffer(buffer_)
    , thread([this] { run(); })
{
}

LBInteractiveDump::~LBInteractiveDump()
{
    thread.join();
}

void LBInteractiveDump::run()
{
    bool wanted = true;
    while (wanted) {
        const bool talked = succeeds([&] { wanted = askForPrint(); });
        if (!talked)
            return;
        if (wanted)
            succeeds([this] { buffer.print(std::cout); });
    }
}

} // namespace util
