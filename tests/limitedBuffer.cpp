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
#include <random>
#include <sstream>

using util::LimitedBuffer;
using util::LimitedStateValueBuffer;

namespace {

/// Buffers record in all tests.
const bool activeAtLoad = [] {
    const bool active = LimitedBuffer::isBufferingActive();
    LimitedBuffer::setBufferingActive(true);
    return active;
}();

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
    std::string alphabet;
    while (alphabet.size() < 1000)
        alphabet += static_cast<char>('a' + random() % 26);
    const auto letters = [&](size_t count) { return alphabet.substr(random() % 700, count); };
    for (const size_t capacity : {1U, 2U, 3U, 7U, 10U, 300U}) {
        LimitedBuffer buffer(capacity, 2, formatPair);
        // The model is a text without end, of which the last bytes count, and lists at absolute places, each gone when
        // a ring of text has come behind it.
        std::string text;
        std::deque<std::pair<size_t, std::string>> lists;
        for (int step = 0; step < 20000; ++step) {
            // Mostly lists and short texts, so that more than 128 lists come to stand in the longest ring.
            const auto kind = random() % 256;
            if (kind < 150) {
                lists.emplace_back(text.size(), letters(2));
                buffer.addStateValueList(lists.back().second.data(), 2);
            } else {
                const std::string part =
                    letters((kind == 255 ? 0 : 1 + random() % (kind < 250 ? 3 : capacity)) % capacity);
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

TEST(LimitedBuffer, KeepsListsUntilTheirPlaceIsWrittenAndMeasuresInRingOrder)
{
    LimitedBuffer buffer(10, 2, formatPair);
    buffer.add("abcdefg", 7);
    buffer.addStateValueList("AA", 2);
    buffer.add("hijk", 4);
    EXPECT_EQ(header + "bcdefg<AA>hijk" + footer, printed(buffer));
    buffer.add("lmnopq", 6);
    EXPECT_EQ(header + "hijklmnopq" + footer, printed(buffer));
    EXPECT_EQ(7, buffer.ringNext() - buffer.ringBegin());
    char* const begin = buffer.ringBegin();
    const std::string ring(begin, buffer.ringEnd());
    EXPECT_EQ("klmnopqhij", ring);
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

TEST(LimitedBuffer, PrintsACopyWhileOthersWrite)
{
    LimitedBuffer* printing = nullptr;
    LimitedBuffer buffer(10, 2, [&printing](std::ostream& out, const char* values) {
        std::thread([printing] { printing->add("later", 5); }).join();
        formatPair(out, values);
    });
    printing = &buffer;
    buffer.addStateValueList("zz", 2);
    buffer.add("abc", 3);
    EXPECT_EQ(header + "<zz>abc" + footer, printed(buffer));
    EXPECT_EQ(header + "<zz>abclater" + footer, printed(buffer));
    EXPECT_EQ(header + "laterlater" + footer, printed(buffer));
}

TEST(LimitedBuffer, RecordsAndTakesNothingOfTheSystem)
{
    LimitedBuffer buffer(1 << 20, 4096, formatPair);
    LimitedStateValueBuffer lists(2);
    LimitedStateValueBuffer copy(2);
    const std::string text(4096, 'x');
    const quorvil::SimpleHeap heap(8);
    int pos = 0;
    const auto record = [&] {
        for (int i = 0; i < 300; ++i) {
            buffer.add(text.data(), text.size());
            buffer.addf("%d %s %.3f\n", i, text.c_str(), 0.5 * i);
            buffer.addStateValueList(text.data(), 4096);
        }
        // A list away from the next text is looked at too.
        lists.add(5, "ab", 2);
        lists.removeOverwritten(5, 6, 10);
        lists.add(8, "cd", 2);
        lists.removeOverwritten(6, 9, 10);
        lists.add(7, "ef", 2);
        copy.startIteration();
        copy.copyFrom(lists);
        char* values;
        EXPECT_FALSE(copy.iterate(pos, values)) << "an iteration ends with what it went through";
        copy.startIteration();
        EXPECT_TRUE(copy.iterate(pos, values));
    };
    const long faults = support::pageFaults();
    record();
    EXPECT_EQ(support::pageFaults(), faults);
    EXPECT_EQ(pos, 7);
    support::expectNothingOfTheSystem(record);
}

TEST(LimitedBuffer, KeepsWritersAndPrintersApart)
{
    constexpr size_t writers = 3;
    constexpr int textsOfEach = 50000;
    // Each writer adds a line with its next number and then a list of the same text: so the list stands behind that
    // line and before its writer's next one.
    LimitedBuffer buffer(4096, 16, [](std::ostream& out, const char* values) { out << '[' << values; });
    std::atomic<size_t> writing{writers};
    std::vector<std::thread> threads;
    for (size_t writer = 0; writer < writers; ++writer)
        threads.emplace_back([&, writer] {
            for (int number = 1; number <= textsOfEach; ++number) {
                char text[16] = "";
                std::snprintf(text, sizeof text, "%zu %d\n", writer, number);
                buffer.addf("%s", text);
                buffer.addStateValueList(text, sizeof text);
            }
            --writing;
        });
    while (writing > 0) {
        std::istringstream lines(printed(buffer).substr(header.size()));
        // The oldest line is cut.
        lines.ignore(4096, '\n');
        int last[writers] = {};
        std::string writer;
        for (int number; lines >> writer >> number;) {
            int& known = last[static_cast<size_t>(writer.back() - '0') % writers];
            EXPECT_TRUE(known == 0 || number == known + (writer[0] != '[')) << writer << ' ' << number;
            known = number;
        }
        EXPECT_EQ("==============", writer);
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_THAT(printed(buffer), testing::HasSubstr(" " + std::to_string(textsOfEach) + "\n"));
}

TEST(LimitedBufferDeathTest, MisuseFailsTheAssertionOfItsPlace)
{
    LimitedBuffer buffer(10, 2, formatPair);
    char* const begin = buffer.ringBegin();
    char* const end = buffer.ringEnd();
    LimitedStateValueBuffer lists(2);
    LimitedStateValueBuffer longer(3);
    lists.add(50, "xx", 2);
    int pos;
    int* elsewhere = &pos;
    char* first;
    char* cursor;
    lists.startIteration();
    lists.iterate(pos, first);
    const std::string constructor = "util::LimitedBuffer::LimitedBuffer(std::size_t, int, "
                                    "std::function<void(std::basic_ostream<char>&, const char*)>)";
    const std::string invariants = "void util::LimitedBuffer::checkInvariants() const";
    const std::string internAdd = "void util::LimitedBuffer::internAdd(const char*, size_t, L&)";
    const std::string diff = "std::size_t util::LimitedBuffer::diff(char*, char*) const";
    const std::string readPart = "void util::LimitedBuffer::readPart(char*, std::size_t, std::ostream&)";
    const std::string members = "void util::LimitedStateValueBuffer::";
    const std::string overwritten = "bool util::overwritten(int, int, int, int)";
    const std::string tooLong = "(ptrdiff_t)len < (end - begin)";
    // Behind the ring of positions: its end, and the number of lists.
    constexpr size_t valueWord = 4 + 128 * sizeof(int) / sizeof(void*) + 2;
    const std::string aInside = "begin <= a && a < end";
    const std::string posInside = "posBuf <= *ppos && *ppos < posBufEnd";
    const std::string entry = "valueBuf <= *pvalue && *pvalue < valueBufEnd";
    const std::string leaving = "valueBuf <= *pvalue && *pvalue <valueBufEnd";
    const std::tuple<std::string, std::string, std::function<void()>> rows[] = {
        {constructor, "formatStateValueList", [] { LimitedBuffer(1, 1, nullptr); }},
        {constructor, "capacity <= INT_MAX", [] { LimitedBuffer(size_t{INT_MAX} + 1, 1, formatPair); }},
        {invariants, "begin < end", [] { LimitedBuffer(0, 1, formatPair); }},
        {invariants, "begin <= next", [&] { support::damage(buffer, 3, begin - 1), buffer.checkInvariants(); }},
        {invariants, "next < end", [&] { support::damage(buffer, 3, end), buffer.checkInvariants(); }},
        {invariants, "(ptrdiff_t)size <= (end - begin)", [&] { support::damage(buffer, 4, end), buffer.add("", 0); }},
        {"void util::LimitedBuffer::print(std::ostream&)", "copySize == 0",
         [&] { support::damage(buffer, 4, reinterpret_cast<void*>(25)), printed(buffer); }},
        {internAdd, tooLong, [&] { buffer.add("0123456789", 10); }},
        {internAdd, tooLong, [&] { buffer.add("", SIZE_MAX); }},
        {internAdd, tooLong, [&] { buffer.addf("%d", 1234567890); }},
        {"char* util::LimitedBuffer::walk(char*, ptrdiff_t) const", aInside, [&] { buffer.walk(end, -1); }},
        {diff, aInside, [&] { (void)buffer.diff(begin - 1, begin); }},
        {diff, "begin <= b && b < end", [&] { (void)buffer.diff(begin, end); }},
        {readPart, "begin <= partBegin && partBegin < end", [&] { buffer.readPart(end, 0, std::cerr); }},
        {readPart, "(ptrdiff_t)partSize <= (end - begin)", [&] { buffer.readPart(begin, SIZE_MAX, std::cerr); }},
        {members + "add(int, const char*, int)", "numBytes == bytesPerValueList", [&] { lists.add(1, "xxx", 3); }},
        {members + "add(int, const char*, int)", "nextValue >= valueBuf && nextValue + numBytes <= valueBufEnd",
         [&] { support::damage(lists, valueWord, first - 1), lists.add(1, "xx", 2); }},
        {members + "add(int, const char*, int)", "nextPos >= posBuf && nextPos < posBufEnd",
         [&] { support::damage(lists, valueWord + 1, &pos), lists.add(1, "xx", 2); }},
        {members + "valueStepBack(char**)", entry,
         [] {
             LimitedBuffer withoutValues(10, 0, formatPair);
             withoutValues.add("text", 4);
             withoutValues.addStateValueList("", 0);
             withoutValues.add("text", 4);
         }},
        {members + "copyFrom(const util::LimitedStateValueBuffer&)", "src.bytesPerValueList == this->bytesPerValueList",
         [&] { lists.copyFrom(longer); }},
        {members + "posStepBack(int**)", posInside, [&] { lists.posStepBack(&elsewhere); }},
        {members + "posStepForward(int**)", posInside, [&] { lists.posStepForward(&elsewhere); }},
        {members + "valueStepBack(char**)", entry, [&] { lists.valueStepBack(&(cursor = first - 1)); }},
        {members + "valueStepBack(char**)", leaving, [&] { lists.valueStepBack(&(cursor = first + 1)); }},
        {members + "valueStepForward(char**)", entry, [&] { lists.valueStepForward(&(cursor = first + 256)); }},
        {members + "valueStepForward(char**)", leaving, [&] { lists.valueStepForward(&(cursor = first + 255)); }},
        {overwritten, "0 <= pos && pos < cycleLen", [&] { lists.removeOverwritten(-1, 50, 50); }},
        {overwritten, "0 <= begin && begin < cycleLen", [&] { lists.removeOverwritten(99, -1, 99); }},
        {overwritten, "0 <= end && end < cycleLen", [&] { lists.removeOverwritten(0, 99, 99); }},
    };
    for (const auto& [function, expression, misuse] : rows) {
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
    const auto expectDialogue = [&buffer](const std::string& input, const std::string& output,
                                          const std::string& errors) {
        std::stringbuf in(input);
        std::streambuf* const old = std::cin.rdbuf(&in);
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        std::make_unique<util::LBInteractiveDump>(buffer).reset();
        std::cin.rdbuf(old);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), output);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), errors);
    };
    const std::string dump = header + footer;
    expectDialogue("x\n\nqq\nq\n", echo("x") + dump + echo("") + dump + echo("qq") + dump + echo("q"), "");
    expectDialogue("", echo(""), "");
    expectDialogue("x\nlast", echo("x") + dump + echo("last"), "");
    buffer.addStateValueList("zz", 2);
    expectDialogue("x\nq", echo("x") + header + echo("q"), "LBInteractiveDump: formatter\n");
}

} // namespace
