#include "Quorvil/QuorvilLimitedStateValueBuffer.h"

#include "Quorvil/QuorvilAssert.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <new>

namespace util {
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

/// The distance from `from` forward to `to` in a cycle, 1 to its length.
int forward(int from, int to, int cycleLen)
{
    return to > from ? to - from : to - from + cycleLen;
}

/// Whether `pos` lies in the stretch of a cycle that was just written: behind `begin`, up to and including `end`.
bool overwritten(int pos, int begin, int end, int cycleLen)
{
    constexpr const char* function = "bool util::overwritten(int, int, int, int)";
    require(0 <= pos && pos < cycleLen, "0 <= pos && pos < cycleLen", sourceText, __LINE__, function);
    require(0 <= begin && begin < cycleLen, "0 <= begin && begin < cycleLen", sourceText, __LINE__, function);
    require(0 <= end && end < cycleLen, "0 <= end && end < cycleLen", sourceText, __LINE__, function);
    return forward(begin, pos, cycleLen) <= forward(begin, end, cycleLen);
}

} // namespace

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
    , clearFrom(0)
    , clearBytes(0)
    , clearCycleLen(0)
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
    // A list at the place of the next text is overwritten last; any other has to be looked at.
    if (pos != clearFrom)
        clearCycleLen = 0;
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
    clearCycleLen = 0;
}

void LimitedStateValueBuffer::removeOverwritten(int begin, int end, int cycleLen)
{
    if (numEntries < 1)
        return;
    // Every text that is added comes here, and few reach a list: so the lists are looked at only when one may be
    // reached.
    if (begin == clearFrom && cycleLen == clearCycleLen && 0 <= end && end < cycleLen) {
        const int written = forward(begin, end, cycleLen);
        if (written < clearBytes) {
            clearFrom = end;
            clearBytes -= written;
            return;
        }
    }

    int* pos = nextPos;
    char* value = nextValue;
    // The first steps tell a cursor outside its ring, and an object that can hold no values; the others of the values
    // would only repeat it.
    posStepBack(&pos);
    valueStepBack(&value);
    int nearest = cycleLen;
    for (int i = 0; i < numEntries; ++i, pos = (pos == posBuf ? posBufEnd : pos) - 1) {
        if (overwritten(*pos, begin, end, cycleLen)) {
            numEntries = i;
            break;
        }
        nearest = std::min(nearest, forward(begin, *pos, cycleLen));
    }
    clearFrom = end;
    clearBytes = nearest - forward(begin, end, cycleLen);
    clearCycleLen = cycleLen;
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
