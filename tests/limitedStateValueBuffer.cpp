#include "Quorvil/QuorvilLimitedStateValueBuffer.h"
#include "tests/support/allocationCount.h"

#include <gmock/gmock.h>

#include <climits>
#include <cstddef>
#include <cstring>
#include <deque>
#include <functional>
#include <new>
#include <random>
#include <string>
#include <vector>

using util::LimitedStateValueBuffer;

namespace {

struct List
{
    int pos;
    std::string bytes;
    bool operator==(const List&) const = default;
};

/// What the buffer does, in the simplest terms: the written stretch is walked byte by byte.
struct Model
{
    std::deque<List> lists;

    void add(const List& list)
    {
        lists.push_back(list);
        if (lists.size() > 128)
            lists.pop_front();
    }

    void removeOverwritten(int begin, int end, int cycleLen)
    {
        std::vector<bool> written(static_cast<size_t>(cycleLen));
        int at = begin;
        do {
            at = (at + 1) % cycleLen;
            written[static_cast<size_t>(at)] = true;
        } while (at != end);
        for (size_t i = lists.size(); i > 0; --i)
            if (written[static_cast<size_t>(lists[i - 1].pos)]) {
                lists.erase(lists.begin(), lists.begin() + static_cast<ptrdiff_t>(i));
                return;
            }
    }
};

/// All lists by iteration, whose cursors must go through one ring in both directions.
std::deque<List> listsOf(LimitedStateValueBuffer& buffer, size_t bytesPerValueList)
{
    std::deque<List> lists;
    int pos = 0;
    char* values = nullptr;
    char* expected = nullptr;
    for (buffer.startIteration(); buffer.iterate(pos, values);) {
        EXPECT_TRUE(lists.empty() || values == expected);
        lists.push_back({pos, std::string(values, bytesPerValueList)});
        expected = values;
        buffer.valueStepForward(&expected);
        char* back = expected;
        buffer.valueStepBack(&back);
        EXPECT_EQ(values, back);
    }
    const int lastPos = pos;
    char* const lastValues = values;
    EXPECT_FALSE(buffer.iterate(pos, values));
    EXPECT_EQ(lastPos, pos);
    EXPECT_EQ(lastValues, values);
    return lists;
}

} // namespace

TEST(LimitedStateValueBuffer, DropsWhatLiesBehindTheOldPlaceUpToTheNewOne)
{
    for (int cycleLen = 1; cycleLen < 10; ++cycleLen)
        for (int begin = 0; begin < cycleLen; ++begin)
            for (int end = 0; end < cycleLen; ++end)
                for (int pos = 0; pos < cycleLen; ++pos) {
                    LimitedStateValueBuffer buffer(1);
                    Model model;
                    buffer.add(pos, "x", 1);
                    model.add({pos, "x"});
                    buffer.removeOverwritten(begin, end, cycleLen);
                    model.removeOverwritten(begin, end, cycleLen);
                    ASSERT_EQ(model.lists, listsOf(buffer, 1)) << pos << " " << begin << " " << end << " " << cycleLen;
                }
}

TEST(LimitedStateValueBuffer, TakesNoMemoryOnceItIsMade)
{
    LimitedStateValueBuffer buffer(1);
    LimitedStateValueBuffer copy(1);
    int lists = 0;
    const support::AllocationCount count;
    for (int i = 0; i < 300; ++i)
        buffer.add(i, "x", 1);
    buffer.removeOverwritten(170, 180, 300);
    copy.copyFrom(buffer);
    copy.startIteration();
    int pos = 0;
    for (char* values = nullptr; copy.iterate(pos, values); ++lists) {
        copy.valueStepForward(&values);
        copy.valueStepBack(&values);
    }
    EXPECT_EQ(count.allocations(), 0U);
    EXPECT_EQ(lists, 119);
}

TEST(LimitedStateValueBuffer, BehavesAsItsModelOverLongRandomUse)
{
    std::mt19937 random(20260711);
    const auto number = [&](int below) { return static_cast<int>(random() % static_cast<unsigned>(below)); };
    for (const int bytes : {1, 3, 8}) {
        LimitedStateValueBuffer buffer(bytes);
        Model model;
        int place = 0;
        for (int step = 0; step < 10000; ++step) {
            // Mostly as a ring of text does it: lists at the place of the next text, which goes on where the last one
            // ended. The long stretches of adding fill all 128 places, from every one on.
            for (int n = number(40) == 0 ? number(200) : number(3); n > 0; --n) {
                const List list{number(50) == 0 ? number(900) : place,
                                std::string(static_cast<size_t>(bytes), static_cast<char>('a' + number(26)))};
                buffer.add(list.pos, list.bytes.data(), bytes);
                model.add(list);
            }
            const int cycleLen = number(50) == 0 ? 1200 : 900;
            const int begin = number(50) == 0 ? number(900) : place;
            const int end = (begin + number(number(50) == 0 ? cycleLen : 9)) % cycleLen;
            buffer.removeOverwritten(begin, end, cycleLen);
            model.removeOverwritten(begin, end, cycleLen);
            place = end % 900;
            if (number(50) == 0) {
                // Away from these lists to a single one, and back to them.
                LimitedStateValueBuffer other(bytes);
                other.copyFrom(buffer);
                const int skipped = number(900);
                buffer.removeOverwritten(place, place, 900);
                buffer.add(place, "12345678", bytes);
                buffer.removeOverwritten(place, skipped, 900);
                buffer.copyFrom(other);
                place = skipped;
            }
            ASSERT_EQ(model.lists, listsOf(buffer, static_cast<size_t>(bytes))) << step;
        }
    }
}

TEST(LimitedStateValueBuffer, CopiesListsIntoRingsOfItsOwn)
{
    for (const int count : {0, 1, 127, 128, 130, 300}) {
        LimitedStateValueBuffer source(2);
        LimitedStateValueBuffer copy(2);
        for (int i = 0; i < count; ++i)
            source.add(i, std::to_string(100 + i).c_str(), 2);
        const auto lists = listsOf(source, 2);
        copy.add(7, "no", 2);
        copy.startIteration();
        copy.copyFrom(source);
        int pos;
        char* values;
        EXPECT_FALSE(copy.iterate(pos, values));
        for (int i = 0; i < 200; ++i)
            source.add(1, "..", 2);
        copy.copyFrom(copy);
        EXPECT_EQ(lists, listsOf(copy, 2));
    }
}

TEST(LimitedStateValueBuffer, WithoutListsLooksAtNoArgument)
{
    LimitedStateValueBuffer buffer(4);
    buffer.removeOverwritten(-1, 99, 0);
    EXPECT_TRUE(listsOf(buffer, 4).empty());
    LimitedStateValueBuffer withoutBytes(0);
    withoutBytes.removeOverwritten(0, 1, 9);
    EXPECT_THROW(LimitedStateValueBuffer(-1), std::bad_array_new_length);
    if constexpr (sizeof(size_t) == 4) {
        EXPECT_THROW(LimitedStateValueBuffer(INT_MAX), std::bad_array_new_length);
    }
}

TEST(LimitedStateValueBufferDeathTest, MisuseFailsTheAssertionOfItsPlace)
{
    LimitedStateValueBuffer buffer(4);
    LimitedStateValueBuffer other(5);
    LimitedStateValueBuffer withoutBytes(0);
    for (int i = 0; i < 128; ++i)
        buffer.add(i == 100 ? 1000 : 50, "abcd", 4);
    other.add(50, "abcde", 5);
    withoutBytes.add(1, nullptr, 0);
    buffer.startIteration();
    int pos;
    char* first;
    buffer.iterate(pos, first);
    char* const last = first + 127 * 4;
    int elsewhere = 0;
    const auto step = [&](void (LimitedStateValueBuffer::*move)(char**), char* from) {
        return [&buffer, move, from] {
            char* cursor = from;
            (buffer.*move)(&cursor);
        };
    };
    const auto stepPos = [&](void (LimitedStateValueBuffer::*move)(int**)) {
        return [&buffer, &elsewhere, move] {
            int* cursor = &elsewhere;
            (buffer.*move)(&cursor);
        };
    };
    // The fields in their order, to be damaged as by a stray write.
    struct Fields
    {
        void* virtualTable;
        int bytesPerValueList;
        char *valueBuf, *valueBufEnd;
        int posBuf[128], *posBufEnd;
        int numEntries;
        char* nextValue;
        int* nextPos;
    } fields;
    std::memcpy(&fields, static_cast<void*>(&buffer), sizeof fields);
    const auto damage = [&](size_t field, auto value) {
        std::memcpy(reinterpret_cast<char*>(&buffer) + field, &value, sizeof value);
    };

    const std::string members = "util::LimitedStateValueBuffer::";
    const std::string add = "void " + members + "add(int, const char*, int)";
    const std::string nextValueInside = "nextValue >= valueBuf && nextValue + numBytes <= valueBufEnd";
    const std::string nextPosInside = "nextPos >= posBuf && nextPos < posBufEnd";
    const std::string entry = "valueBuf <= *pvalue && *pvalue < valueBufEnd";
    const std::string leaving = "valueBuf <= *pvalue && *pvalue <valueBufEnd";
    const std::string back = "void " + members + "valueStepBack(char**)";
    const std::string forward = "void " + members + "valueStepForward(char**)";
    const std::string posInside = "posBuf <= *ppos && *ppos < posBufEnd";
    const std::string overwritten = "bool util::overwritten(int, int, int, int)";
    const struct
    {
        std::string function, expression;
        std::function<void()> misuse;
    } rows[] = {
        {add, "numBytes == bytesPerValueList", [&] { buffer.add(1, "abcde", 5); }},
        {add, nextValueInside, [&] { damage(offsetof(Fields, nextValue), first - 1), buffer.add(1, "abcd", 4); }},
        {add, nextValueInside, [&] { damage(offsetof(Fields, nextValue), last + 1), buffer.add(1, "abcd", 4); }},
        {add, nextPosInside, [&] { damage(offsetof(Fields, nextPos), fields.posBuf - 1), buffer.add(1, "abcd", 4); }},
        {add, nextPosInside, [&] { damage(offsetof(Fields, nextPos), fields.posBufEnd), buffer.add(1, "abcd", 4); }},
        {"void " + members + "copyFrom(const util::LimitedStateValueBuffer&)",
         "src.bytesPerValueList == this->bytesPerValueList", [&] { buffer.copyFrom(other); }},
        {"void " + members + "posStepBack(int**)", posInside, stepPos(&LimitedStateValueBuffer::posStepBack)},
        {"void " + members + "posStepForward(int**)", posInside, stepPos(&LimitedStateValueBuffer::posStepForward)},
        {back, entry, step(&LimitedStateValueBuffer::valueStepBack, first - 1)},
        {back, entry, step(&LimitedStateValueBuffer::valueStepBack, last + 4)},
        {back, leaving, step(&LimitedStateValueBuffer::valueStepBack, first + 1)},
        {forward, entry, step(&LimitedStateValueBuffer::valueStepForward, first - 1)},
        {forward, entry, step(&LimitedStateValueBuffer::valueStepForward, last + 4)},
        {forward, leaving, step(&LimitedStateValueBuffer::valueStepForward, last + 1)},
        {back, entry, [&] { withoutBytes.removeOverwritten(0, 1, 9); }},
        {back, entry, [&] { withoutBytes.startIteration(); }},
        {overwritten, "0 <= pos && pos < cycleLen", [&] { buffer.removeOverwritten(-1, 50, 50); }},
        {overwritten, "0 <= begin && begin < cycleLen", [&] { buffer.removeOverwritten(-1, 99, 99); }},
        {overwritten, "0 <= begin && begin < cycleLen", [&] { buffer.removeOverwritten(99, 99, 99); }},
        {overwritten, "0 <= end && end < cycleLen", [&] { buffer.removeOverwritten(0, -1, 99); }},
        {overwritten, "0 <= end && end < cycleLen", [&] { buffer.removeOverwritten(0, 99, 99); }},
        {overwritten, "0 <= end && end < cycleLen",
         [&] { other.removeOverwritten(50, 51, 99), other.removeOverwritten(51, 99, 99); }},
        {overwritten, "0 <= end && end < cycleLen",
         [&] { other.removeOverwritten(50, 51, 99), other.removeOverwritten(51, -1, 99); }},
        // An older list that is no position fails both with a stretch that wraps and with one that does not.
        {overwritten, "0 <= pos && pos < cycleLen", [&] { buffer.removeOverwritten(10, 20, 99); }},
        {overwritten, "0 <= pos && pos < cycleLen", [&] { buffer.removeOverwritten(90, 10, 99); }},
    };
    for (const auto& row : rows) {
        const std::string words = ": " + row.function + ": Assertion `" + row.expression + "' failed.";
        EXPECT_DEATH(row.misuse(), testing::AllOf(testing::HasSubstr("Quorvil/QuorvilLimitedStateValueBuffer:"),
                                                  testing::HasSubstr(words)));
    }
}
