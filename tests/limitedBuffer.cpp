// The text ring, its lists and its console thread.

#include "Quorvil/QuorvilFastAllocator.h"
#include "Quorvil/QuorvilLimitedBuffer.h"
#include "Quorvil/QuorvilLimitedStateValueBuffer.h"
#include "tests/support/assertion.h"
#include "tests/support/pageFaults.h"
#include "tests/support/systemCalls.h"

#include <gmock/gmock.h>

#include <atomic>
#include <climits>
#include <cstdio>
#include <deque>
#include <iomanip>
#include <iostream>
#include <map>
#include <random>
#include <sstream>

using util::LimitedBuffer;
using util::LimitedStateValueBuffer;

namespace {

/// Buffers record in all tests.
const bool activeAtLoad = LimitedBuffer::isBufferingActive() || (LimitedBuffer::setBufferingActive(true), false);

const std::string header = "\n\n======== LIMITED BUFFER CONTENT ========\n\n";
const std::string footer = "\n==============\n\n";

/// Prints a list of two letters.
void formatPair(std::ostream& out, const char* values)
{
    out << '<' << values[0] << values[1] << '>';
}

std::string printed(LimitedBuffer& buffer)
{
    std::ostringstream out;
    // The texts come out the same whatever width the stream is set to.
    out << std::setw(80) << buffer;
    return out.str();
}

TEST(LimitedBuffer, IsSilentUntilItIsSwitchedOn)
{
    EXPECT_FALSE(activeAtLoad);
    EXPECT_EQ(util::gl_pTrenvikLimitedBuffer, nullptr);
    LimitedBuffer buffer(8, 2, formatPair);
    LimitedBuffer::setBufferingActive(false);
    buffer.add("longer than the ring", 20);
    buffer.addf("%s", "longer than the ring");
    buffer.addStateValueList("of another length", 17);
    EXPECT_EQ(printed(buffer), "");
    LimitedBuffer::setBufferingActive(true);
    EXPECT_EQ(printed(buffer), header + footer);
}

TEST(LimitedBuffer, PrintsWhatItsModelHoldsWhereverTextsAndListsFall)
{
    std::mt19937 random(20260711);
    for (const size_t capacity : {1U, 2U, 3U, 7U, 10U, 300U}) {
        LimitedBuffer buffer(capacity, 2, formatPair);
        // The model is a text without end, of which the last bytes count, and lists at absolute places, each gone when
        // a ring of text has come behind it.
        std::string text;
        std::deque<std::pair<size_t, std::string>> lists;
        for (int step = 0; step < 20000; ++step) {
            // Mostly lists and short texts, so that more than 128 lists come to stand in the longest ring.
            const auto kind = random() % 256;
            const auto letters = [step](size_t count) {
                return std::string(count, static_cast<char>('a' + step % 26));
            };
            if (kind < 150) {
                lists.emplace_back(text.size(), letters(2));
                buffer.addStateValueList(lists.back().second.data(), 2);
            } else {
                const size_t length = kind == 255 ? 0 : 1 + random() % (kind < 250 ? 3 : capacity);
                const std::string part = letters(length % capacity);
                buffer.add(part.data(), part.size());
                text += part;
                if (part.empty())
                    lists.clear();
            }
            while (lists.size() > 128 || (!lists.empty() && text.size() - lists.front().first >= capacity))
                lists.pop_front();
            std::string expected = header;
            size_t at = text.size() - std::min(text.size(), capacity);
            for (const auto& [place, bytes] : lists) {
                expected += text.substr(at, place - at) + '<' + bytes + '>';
                at = place;
            }
            ASSERT_EQ(expected + text.substr(at) + footer, printed(buffer)) << capacity << ' ' << step;
        }
    }
}

TEST(LimitedBuffer, MeasuresAndReadsInRingOrder)
{
    LimitedBuffer buffer(10, 2, formatPair);
    buffer.add("abcdefg", 7);
    buffer.add("hijklmn", 7);
    EXPECT_EQ(4, buffer.ringNext() - buffer.ringBegin());
    char* const begin = buffer.ringBegin();
    const std::string ring(begin, buffer.ringEnd());
    EXPECT_EQ("klmnefghij", ring);
    for (size_t from = 0; from < 10; ++from)
        for (size_t length = 0; length <= 10; ++length) {
            char* const to = begin + (from + length) % 10;
            std::ostringstream out;
            buffer.readPart(begin + from, length, out);
            EXPECT_EQ((ring + ring).substr(from, length), out.str());
            EXPECT_EQ(length == 0 ? 10 : length, buffer.diff(begin + from, to));
            for (const ptrdiff_t turns : {ptrdiff_t{-10}, ptrdiff_t{0}, PTRDIFF_MAX / 10 * 10 - 20})
                EXPECT_EQ(to, buffer.walk(begin + from, static_cast<ptrdiff_t>(length) + turns));
        }
}

TEST(LimitedBuffer, CutsFormattedTextAndAddsNothingOfFormattingErrors)
{
    LimitedBuffer buffer(700, 2, formatPair);
    buffer.addf("%d|%s", 12, std::string(600, 'x').c_str());
    buffer.addStateValueList("zz", 2);
    const wchar_t noCharacter[] = {static_cast<wchar_t>(0x7FFFFFFF), 0};
    buffer.addf("ab%ls", noCharacter);
    EXPECT_EQ(header + "12|" + std::string(508, 'x') + "<zz>" + footer, printed(buffer));
}

TEST(LimitedBuffer, RecordsAndTakesNothingOfTheSystem)
{
    LimitedBuffer buffer(1 << 20, 4096, formatPair);
    const std::string text(4096, 'x');
    const quorvil::SimpleHeap heap(8);
    const auto record = [&] {
        for (int i = 0; i < 300; ++i) {
            buffer.add(text.data(), text.size());
            buffer.addf("%d %s %.3f\n", i, text.c_str(), 0.5 * i);
            buffer.addStateValueList(text.data(), 4096);
        }
    };
    const long faults = support::pageFaults();
    record();
    EXPECT_EQ(support::pageFaults(), faults);
    support::expectNothingOfTheSystem(record);
}

TEST(LimitedStateValueBuffer, DropsListsAwayFromTheNextTextTooAndEndsAnIterationByACopy)
{
    LimitedStateValueBuffer lists(2);
    lists.add(5, "ab", 2);
    lists.removeOverwritten(5, 6, 10);
    lists.add(8, "cd", 2);
    lists.removeOverwritten(6, 9, 10);
    lists.add(7, "ef", 2);
    lists.startIteration();
    lists.copyFrom(lists);
    int pos = 0;
    char* values;
    EXPECT_FALSE(lists.iterate(pos, values));
    lists.startIteration();
    EXPECT_TRUE(lists.iterate(pos, values) && pos == 7);
}

TEST(LimitedBuffer, KeepsWritersAndPrintersApart)
{
    constexpr int textsOfEach = 50000;
    // Each writer adds a line with its next number and then a list of the same text: so the list stands behind that
    // line and before its writer's next one. A formatter may use the buffer itself.
    LimitedBuffer* ring = nullptr;
    LimitedBuffer buffer(4096, 16, [&ring](std::ostream& out, const char* values) {
        out << (ring->ringNext() < ring->ringEnd() ? "[" : "outside ") << values;
    });
    ring = &buffer;
    std::atomic<int> writing{3};
    const auto write = [&](int writer) {
        for (int number = 1; number <= textsOfEach; ++number) {
            char text[16] = "";
            std::snprintf(text, sizeof text, "%d %d\n", writer, number);
            buffer.addf("%s", text);
            buffer.addStateValueList(text, sizeof text);
        }
        --writing;
    };
    std::thread threads[] = {std::thread(write, 0), std::thread(write, 1), std::thread(write, 2)};
    while (writing > 0) {
        std::istringstream lines(printed(buffer).substr(header.size()));
        // The oldest line is cut.
        lines.ignore(4096, '\n');
        std::map<char, int> last;
        std::string writer;
        for (int number; lines >> writer >> number;) {
            int& known = last[writer.back()];
            EXPECT_TRUE(known == 0 || number == known + (writer[0] != '[')) << writer << ' ' << number;
            known = number;
        }
        EXPECT_EQ("==============", writer);
    }
    for (std::thread& thread : threads)
        thread.join();
}

TEST(LimitedBufferDeathTest, MisuseFailsTheAssertionOfItsPlace)
{
    LimitedBuffer buffer(10, 2, formatPair);
    char* const begin = buffer.ringBegin();
    char* const end = buffer.ringEnd();
    LimitedStateValueBuffer lists(2), longer(3), empty(0);
    lists.add(50, "xx", 2);
    empty.add(0, "", 0);
    int pos;
    int* elsewhere = &pos;
    char *first, *cursor;
    lists.startIteration();
    lists.iterate(pos, first);
    // Behind the ring of positions: its end, and the number of lists.
    constexpr size_t valueWord = 4 + 128 * sizeof(int) / sizeof(void*) + 2;
    const auto damaged = [&](size_t word, const void* value) -> LimitedBuffer& {
        support::damage(buffer, word, value);
        return buffer;
    };
    const std::string ofLists = "void util::LimitedStateValueBuffer::";
    const std::string posInside = "posBuf <= *ppos && *ppos < posBufEnd";
    const std::string entering = "valueBuf <= *pvalue && *pvalue < valueBufEnd";
    const std::string leaving = "valueBuf <= *pvalue && *pvalue <valueBufEnd";
    // Function, unless it is that of the row before, expression and misuse.
    const std::tuple<std::string, std::string, std::function<void()>> rows[] = {
        {"util::LimitedBuffer::LimitedBuffer(std::size_t, int, "
         "std::function<void(std::basic_ostream<char>&, const char*)>)",
         "formatStateValueList", [] { LimitedBuffer(1, 1, nullptr); }},
        {"", "capacity <= INT_MAX", [] { LimitedBuffer(size_t{INT_MAX} + 1, 1, formatPair); }},
        {"void util::LimitedBuffer::checkInvariants() const", "begin < end", [] { LimitedBuffer(0, 1, formatPair); }},
        {"", "begin <= next", [&] { damaged(3, begin - 1).checkInvariants(); }},
        {"", "next < end", [&] { damaged(3, end).checkInvariants(); }},
        {"", "(ptrdiff_t)size <= (end - begin)", [&] { damaged(4, end).add("", 0); }},
        {"void util::LimitedBuffer::print(std::ostream&)", "copySize == 0", [&] { printed(damaged(4, end)); }},
        {"void util::LimitedBuffer::internAdd(const char*, size_t, L&)", "(ptrdiff_t)len < (end - begin)",
         [&] { buffer.add("0123456789", 10); }},
        {"", "(ptrdiff_t)len < (end - begin)", [&] { buffer.add("", SIZE_MAX); }},
        {"char* util::LimitedBuffer::walk(char*, ptrdiff_t) const", "begin <= a && a < end",
         [&] { buffer.walk(end, -1); }},
        {"std::size_t util::LimitedBuffer::diff(char*, char*) const", "begin <= a && a < end",
         [&] { (void)buffer.diff(begin - 1, begin); }},
        {"", "begin <= b && b < end", [&] { (void)buffer.diff(begin, end); }},
        {"void util::LimitedBuffer::readPart(char*, std::size_t, std::ostream&)",
         "begin <= partBegin && partBegin < end", [&] { buffer.readPart(end, 0, std::cerr); }},
        {"", "(ptrdiff_t)partSize <= (end - begin)", [&] { buffer.readPart(begin, SIZE_MAX, std::cerr); }},
        {ofLists + "add(int, const char*, int)", "numBytes == bytesPerValueList", [&] { lists.add(1, "xxx", 3); }},
        {"", "nextValue >= valueBuf && nextValue + numBytes <= valueBufEnd",
         [&] { support::damage(lists, valueWord, first - 1), lists.add(1, "xx", 2); }},
        {"", "nextPos >= posBuf && nextPos < posBufEnd",
         [&] { support::damage(lists, valueWord + 1, &pos), lists.add(1, "xx", 2); }},
        {ofLists + "copyFrom(const util::LimitedStateValueBuffer&)", "src.bytesPerValueList == this->bytesPerValueList",
         [&] { lists.copyFrom(longer); }},
        {ofLists + "posStepBack(int**)", posInside, [&] { lists.posStepBack(&elsewhere); }},
        {ofLists + "posStepForward(int**)", posInside, [&] { lists.posStepForward(&elsewhere); }},
        {ofLists + "valueStepBack(char**)", entering, [&] { empty.removeOverwritten(1, 2, 3); }},
        {"", leaving, [&] { lists.valueStepBack(&(cursor = first + 1)); }},
        {ofLists + "valueStepForward(char**)", entering, [&] { lists.valueStepForward(&(cursor = first + 256)); }},
        {"", leaving, [&] { lists.valueStepForward(&(cursor = first + 255)); }},
        {"bool util::overwritten(int, int, int, int)", "0 <= pos && pos < cycleLen",
         [&] { lists.removeOverwritten(-1, 50, 50); }},
        {"", "0 <= begin && begin < cycleLen", [&] { lists.removeOverwritten(99, -1, 99); }},
        {"", "0 <= end && end < cycleLen", [&] { lists.removeOverwritten(0, 99, 99); }},
    };
    std::string function;
    for (const auto& [another, expression, misuse] : rows) {
        function = another.empty() ? function : another;
        const bool ofRing = function.find("util::LimitedBuffer::") != std::string::npos;
        EXPECT_DEATH(misuse(), support::assertion(ofRing ? "Quorvil/QuorvilLimitedBuffer"
                                                         : "Quorvil/QuorvilLimitedStateValueBuffer",
                                                  function, expression));
    }
    EXPECT_THROW(LimitedStateValueBuffer(-1), std::bad_array_new_length);
}

// ---- the console thread

TEST(LBInteractiveDump, PrintsOnEachLineUntilItReadsTheLetterOrTheEnd)
{
    LimitedBuffer buffer(20, 2, [](std::ostream&, const char*) { throw std::runtime_error("formatter"); });
    const auto echo = [](const std::string& line) {
        return "Enter: dump gl_trenvikLimitedBuffer\nq (und Enter): Quit\n(vor getline)\nline: '" + line + "'\n";
    };
    const auto dialogue = [&buffer](const std::string& input, bool fails = false) {
        std::stringbuf lines(input);
        std::streambuf* const old = std::cin.rdbuf(fails ? nullptr : &lines);
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        std::make_unique<util::LBInteractiveDump>(buffer).reset();
        std::cin.rdbuf(old);
        return testing::internal::GetCapturedStdout() + testing::internal::GetCapturedStderr();
    };
    const std::string dump = header + footer;
    EXPECT_EQ(dialogue("x\n\nqq\nq\n"), echo("x") + dump + echo("") + dump + echo("qq") + dump + echo("q"));
    EXPECT_EQ(dialogue(""), echo(""));
    EXPECT_EQ(dialogue("x\nlast"), echo("x") + dump + echo("last"));
    EXPECT_EQ(dialogue("", true), echo("")) << "an input that fails without an end";
    buffer.addStateValueList("zz", 2);
    EXPECT_EQ(dialogue("x\nq"), echo("x") + header + echo("q") + "LBInteractiveDump: formatter\n");
}

} // namespace
