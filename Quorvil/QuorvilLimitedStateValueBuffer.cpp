#include "Quorvil/QuorvilLimitedStateValueBuffer.h"

#include "Quorvil/QuorvilAssert.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <new>

namespace {

using quorvil::intern::require;

constexpr const char* sourceText = "Quorvil/QuorvilLimitedStateValueBuffer";

/// Size of the value ring, checked here because compilers differ in what they make of an impossible one.
std::size_t valueRingSize(int bytesPerValueList, int entries)
{
    if (bytesPerValueList < 0 || bytesPerValueList > PTRDIFF_MAX / entries)
        throw std::bad_array_new_length();
    return static_cast<std::size_t>(bytesPerValueList) * static_cast<std::size_t>(entries);
}

/// Whether `pos` lies in the stretch of a cycle that was just written: behind `begin`, up to and including `end`.
bool overwritten(int pos, int begin, int end, int cycleLen)
{
    constexpr const char* function = "bool util::overwritten(int, int, int, int)";
    require(0 <= pos && pos < cycleLen, "0 <= pos && pos < cycleLen", sourceText, __LINE__, function);
    require(0 <= begin && begin < cycleLen, "0 <= begin && begin < cycleLen", sourceText, __LINE__, function);
    require(0 <= end && end < cycleLen, "0 <= end && end < cycleLen", sourceText, __LINE__, function);
    if (begin < end)
        return pos > begin && pos <= end;
    return pos > begin || pos <= end;
}

/// The positions that a write leaves standing, as two ranges: behind `end` up to and including `begin`, cut in two at
/// the border of the cycle. What is no position of the cycle does not stand either.
///
/// Every text that is added asks this of up to 128 positions, nearly always with the answer that all stand. So they are
/// looked at in flat blocks, without a jump, which the compiler turns into vector instructions.
class Standing
{
public:
    Standing(int begin, int end, int cycleLen)
        : behindLow(begin < end ? -1 : end)
        , low(begin)
        , behindHigh(end)
        , high(begin < end ? cycleLen - 1 : begin)
    {
    }

    /// Number of positions directly before `last`, from `first` on, that stand without a gap.
    int countBefore(const int* first, const int* last) const
    {
        const int* position = last;
        while (position - first >= blockLength && blockStands(position - blockLength))
            position -= blockLength;
        while (position != first && stands(position[-1]))
            --position;
        return static_cast<int>(last - position);
    }

private:
    static constexpr std::ptrdiff_t blockLength = 16;

    bool stands(int pos) const
    {
        // No short-circuit: each would be a jump.
        return ((pos > behindLow) & (pos <= low)) | ((pos > behindHigh) & (pos <= high));
    }

    bool blockStands(const int* block) const
    {
        int standing = 1;
        for (std::ptrdiff_t i = 0; i < blockLength; ++i)
            standing &= static_cast<int>(stands(block[i]));
        return standing != 0;
    }

    int behindLow;
    int low;
    int behindHigh;
    int high;
};

} // namespace

namespace util {

LimitedStateValueBuffer::LimitedStateValueBuffer(int bytesPerValueList_)
    : bytesPerValueList(bytesPerValueList_)
    , valueBuf(new char[valueRingSize(bytesPerValueList_, maxEntries)])
    , valueBufEnd(valueBuf + valueRingSize(bytesPerValueList_, maxEntries))
    , posBuf{}
    , posBufEnd(std::end(posBuf))
    , numEntries(0)
    , nextValue(valueBuf)
    , nextPos(posBuf)
    , iterValue(nullptr)
    , iterPos(nullptr)
    , iterLeft(0)
{
}

LimitedStateValueBuffer::~LimitedStateValueBuffer()
{
    delete[] valueBuf;
}

void LimitedStateValueBuffer::add(int pos, const char* values, int numBytes)
{
    constexpr const char* function = "void util::LimitedStateValueBuffer::add(int, const char*, int)";
    require(numBytes == bytesPerValueList, "numBytes == bytesPerValueList", sourceText, __LINE__, function);
    require(nextValue >= valueBuf && nextValue + numBytes <= valueBufEnd,
            "nextValue >= valueBuf && nextValue + numBytes <= valueBufEnd", sourceText, __LINE__, function);
    std::copy_n(values, numBytes, nextValue);
    nextValue += bytesPerValueList;
    require(nextValue <= valueBufEnd, "nextValue <= valueBufEnd", sourceText, __LINE__, function);
    if (nextValue == valueBufEnd)
        nextValue = valueBuf;

    require(nextPos >= posBuf && nextPos < posBufEnd, "nextPos >= posBuf && nextPos < posBufEnd", sourceText, __LINE__,
            function);
    *nextPos = pos;
    ++nextPos;
    if (nextPos == posBufEnd)
        nextPos = posBuf;

    if (numEntries < maxEntries)
        ++numEntries;
}

void LimitedStateValueBuffer::copyFrom(const LimitedStateValueBuffer& src)
{
    require(src.bytesPerValueList == this->bytesPerValueList, "src.bytesPerValueList == this->bytesPerValueList",
            sourceText, __LINE__, "void util::LimitedStateValueBuffer::copyFrom(const util::LimitedStateValueBuffer&)");
    // Moves, since an object may be copied onto itself.
    std::memmove(valueBuf, src.valueBuf, static_cast<std::size_t>(src.valueBufEnd - src.valueBuf));
    std::memmove(posBuf, src.posBuf, sizeof posBuf);
    numEntries = src.numEntries;
    nextValue = valueBuf + (src.nextValue - src.valueBuf);
    nextPos = posBuf + (src.nextPos - src.posBuf);
    iterValue = nullptr;
    iterPos = nullptr;
    iterLeft = 0;
}

void LimitedStateValueBuffer::removeOverwritten(int begin, int end, int cycleLen)
{
    if (numEntries < 1)
        return;
    // The newest list is asked by itself: the answer also settles that the three arguments fit together.
    int* newestPos = nextPos;
    char* newestValue = nextValue;
    posStepBack(&newestPos);
    valueStepBack(&newestValue);
    if (overwritten(*newestPos, begin, end, cycleLen)) {
        numEntries = 0;
        return;
    }

    // The lists lie in two runs, the newer one before nextPos, the older one before the end of the ring.
    const Standing standing(begin, end, cycleLen);
    const int newer = std::min(numEntries, static_cast<int>(nextPos - posBuf));
    const int older = numEntries - newer;
    int kept = standing.countBefore(nextPos - newer, nextPos);
    const int* oldestKept = nextPos - kept;
    if (kept == newer && older > 0) {
        const int keptOlder = standing.countBefore(posBufEnd - older, posBufEnd);
        kept += keptOlder;
        oldestKept = posBufEnd - keptOlder;
    }
    if (kept == numEntries)
        return;
    // What does not stand is overwritten, or no position of this cycle, which is an error.
    (void)overwritten(oldestKept[-1], begin, end, cycleLen);
    numEntries = kept;
}

void LimitedStateValueBuffer::startIteration()
{
    iterLeft = numEntries;
    iterValue = nextValue;
    iterPos = nextPos;
    for (int i = 0; i < numEntries; ++i) {
        posStepBack(&iterPos);
        valueStepBack(&iterValue);
    }
}

bool LimitedStateValueBuffer::iterate(int& pos, char*& values)
{
    if (iterLeft < 1)
        return false;
    pos = *iterPos;
    values = iterValue;
    --iterLeft;
    posStepForward(&iterPos);
    valueStepForward(&iterValue);
    return true;
}

void LimitedStateValueBuffer::posStepBack(int** ppos)
{
    constexpr const char* expression = "posBuf <= *ppos && *ppos < posBufEnd";
    constexpr const char* function = "void util::LimitedStateValueBuffer::posStepBack(int**)";
    require(posBuf <= *ppos && *ppos < posBufEnd, expression, sourceText, __LINE__, function);
    *ppos = (*ppos == posBuf ? posBufEnd : *ppos) - 1;
    require(posBuf <= *ppos && *ppos < posBufEnd, expression, sourceText, __LINE__, function);
}

void LimitedStateValueBuffer::posStepForward(int** ppos)
{
    constexpr const char* expression = "posBuf <= *ppos && *ppos < posBufEnd";
    constexpr const char* function = "void util::LimitedStateValueBuffer::posStepForward(int**)";
    require(posBuf <= *ppos && *ppos < posBufEnd, expression, sourceText, __LINE__, function);
    ++*ppos;
    if (*ppos == posBufEnd)
        *ppos = posBuf;
    require(posBuf <= *ppos && *ppos < posBufEnd, expression, sourceText, __LINE__, function);
}

void LimitedStateValueBuffer::valueStepBack(char** pvalue)
{
    constexpr const char* function = "void util::LimitedStateValueBuffer::valueStepBack(char**)";
    require(valueBuf <= *pvalue && *pvalue < valueBufEnd, "valueBuf <= *pvalue && *pvalue < valueBufEnd", sourceText,
            __LINE__, function);
    *pvalue = (*pvalue == valueBuf ? valueBufEnd : *pvalue) - bytesPerValueList;
    require(valueBuf <= *pvalue && *pvalue < valueBufEnd, "valueBuf <= *pvalue && *pvalue <valueBufEnd", sourceText,
            __LINE__, function);
}

void LimitedStateValueBuffer::valueStepForward(char** pvalue)
{
    constexpr const char* function = "void util::LimitedStateValueBuffer::valueStepForward(char**)";
    require(valueBuf <= *pvalue && *pvalue < valueBufEnd, "valueBuf <= *pvalue && *pvalue < valueBufEnd", sourceText,
            __LINE__, function);
    *pvalue += bytesPerValueList;
    if (*pvalue == valueBufEnd)
        *pvalue = valueBuf;
    require(valueBuf <= *pvalue && *pvalue < valueBufEnd, "valueBuf <= *pvalue && *pvalue <valueBufEnd", sourceText,
            __LINE__, function);
}

} // namespace util
