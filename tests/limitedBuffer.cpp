#include "Quorvil/QuorvilFastAllocator.h"
#include "Quorvil/QuorvilLimitedBuffer.h"
#include "tests/support/allocationCount.h"
#include "tests/support/pageFaults.h"
#include "tests/support/systemCalls.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <deque>
#include <functional>
#include <iomanip>
#include <iostream>
#include <iterator>
#include <map>
#include <new>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

using util::LimitedBuffer;

namespace {

const bool activeAtLoad = LimitedBuffer::isBufferingActive();
const bool emptyAtLoad = util::gl_pTrenvikLimitedBuffer == nullptr;

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

/// A buffer beside its model: a text without end, of which the last bytes count, and lists at absolute places, each
/// gone when a ring of text has come behind it.
class Recorded
{
public:
    explicit Recorded(size_t capacity_)
        : buffer(capacity_, 2, formatPair)
        , capacity(capacity_)
    {
    }

    void add(const std::string& part)
    {
        buffer.add(part.data(), part.size());
        note(part);
    }

    void addf(const std::string& part)
    {
        buffer.addf("%s", part.c_str());
        note(part.substr(0, 511));
    }

    void addList()
    {
        const std::string bytes{static_cast<char>('A' + listCount / 26 % 26), static_cast<char>('A' + listCount % 26)};
        ++listCount;
        buffer.addStateValueList(bytes.data(), 2);
        lists.push_back({text.size(), bytes});
        if (lists.size() > 128)
            lists.pop_front();
    }

    /// The next `length` letters of the alphabet, round and round.
    std::string letters(size_t length)
    {
        std::string result;
        while (result.size() < length)
            result += static_cast<char>('a' + letterCount++ % 26);
        return result;
    }

    std::string expected() const
    {
        std::string result = header;
        size_t at = text.size() - std::min(text.size(), capacity);
        for (const auto& list : lists) {
            result += text.substr(at, list.place - at) + '<' + list.bytes + '>';
            at = list.place;
        }
        return result + text.substr(at) + footer;
    }

    LimitedBuffer buffer;

private:
    struct List
    {
        size_t place;
        std::string bytes;
    };

    void note(const std::string& part)
    {
        text += part;
        if (part.empty())
            lists.clear();
        while (!lists.empty() && text.size() - lists.front().place >= capacity)
            lists.pop_front();
    }

    size_t capacity;
    std::string text;
    std::deque<List> lists;
    int listCount = 0;
    int letterCount = 0;
};

/// What every test but those of the switch wants: buffers that record.
class LimitedBufferOn : public testing::Test
{
protected:
    LimitedBufferOn()
    {
        LimitedBuffer::setBufferingActive(true);
    }

    ~LimitedBufferOn() override
    {
        LimitedBuffer::setBufferingActive(false);
    }
};

using LimitedBufferDeathTest = LimitedBufferOn;
using LBInteractiveDump = LimitedBufferOn;

/// What a dialogue that reads `input` and writes to `console` writes to standard error. The console's streams may be
/// set to throw, and are as before behind it.
std::string dialogue(LimitedBuffer& buffer, std::streambuf& input, std::streambuf& console)
{
    std::stringbuf err;
    std::streambuf* const old[] = {std::cin.rdbuf(&input), std::cout.rdbuf(&console), std::cerr.rdbuf(&err)};
    {
        const util::LBInteractiveDump running(buffer);
    }
    std::cin.rdbuf(old[0]);
    std::cout.rdbuf(old[1]);
    std::cerr.rdbuf(old[2]);
    std::cin.exceptions(std::ios::goodbit);
    std::cout.exceptions(std::ios::goodbit);
    return err.str();
}

/// What a dialogue writes to standard output and standard error while it reads `input`.
std::pair<std::string, std::string> dialogue(LimitedBuffer& buffer, std::streambuf& input)
{
    std::stringbuf out;
    const std::string err = dialogue(buffer, input, out);
    return {out.str(), err};
}

} // namespace

TEST(LimitedBuffer, IsSilentUntilItIsSwitchedOn)
{
    EXPECT_FALSE(activeAtLoad);
    EXPECT_TRUE(emptyAtLoad);
    LimitedBuffer buffer(8, 2, formatPair);
    buffer.add("longer than the ring", 20);
    buffer.addf("%s", "longer than the ring");
    buffer.addStateValueList("of another length", 17);
    EXPECT_EQ("", printed(buffer));
    LimitedBuffer::setBufferingActive(true);
    EXPECT_TRUE(LimitedBuffer::isBufferingActive());
    EXPECT_EQ(header + footer, printed(buffer));
    LimitedBuffer::setBufferingActive(false);
    EXPECT_FALSE(LimitedBuffer::isBufferingActive());
    EXPECT_EQ("", printed(buffer));
}

TEST_F(LimitedBufferOn, PrintsWhatItsModelHoldsAfterEveryShortSequence)
{
    constexpr size_t longest[] = {0, 8, 7, 6, 6, 5};
    for (size_t capacity = 1; capacity < std::size(longest); ++capacity) {
        // Operation n adds n letters, the last one adds a list.
        std::vector<size_t> operations;
        const std::function<void()> visit = [&] {
            Recorded recorded(capacity);
            for (const size_t operation : operations)
                operation == capacity ? recorded.addList() : recorded.add(recorded.letters(operation));
            ASSERT_EQ(recorded.expected(), printed(recorded.buffer)) << capacity << testing::PrintToString(operations);
            for (size_t operation = 0; operation <= capacity && operations.size() < longest[capacity]; ++operation) {
                operations.push_back(operation);
                visit();
                operations.pop_back();
            }
        };
        visit();
    }
}

TEST_F(LimitedBufferOn, PrintsWhatItsModelHoldsOverLongRandomUse)
{
    std::mt19937 random(20260711);
    for (const size_t capacity : {1U, 2U, 7U, 10U, 64U, 300U, 512U, 1000U}) {
        Recorded recorded(capacity);
        for (int step = 0; step < 20000; ++step) {
            // Mostly lists and short texts, so that more than 128 lists come to stand in the longer rings.
            const auto kind = random() % 256;
            if (kind < 160)
                recorded.addList();
            else if (kind < 250)
                recorded.add(recorded.letters(capacity == 1 ? 0 : 1 + random() % std::min<size_t>(capacity - 1, 3)));
            else if (kind == 255 && capacity > 511)
                recorded.addf(recorded.letters(random() % 600));
            else
                recorded.add(recorded.letters(random() % capacity));
            if (step % 16 == 0) {
                ASSERT_EQ(recorded.expected(), printed(recorded.buffer)) << capacity << " " << step;
            }
        }
    }
}

TEST_F(LimitedBufferOn, KeepsListsUntilTheirPlaceIsWritten)
{
    Recorded recorded(10);
    recorded.add("abcdefg");
    recorded.addList();
    const struct
    {
        std::string added, ring, text;
        ptrdiff_t next;
    } rows[] = {
        {"hijk", "kbcdefghij", "bcdefg<AA>hijk", 1},
        {"lmnopq", "klmnopqhij", "hijklmnopq", 7},
        {"rst", "klmnopqrst", "klmnopqrst", 0},
    };
    for (const auto& row : rows) {
        recorded.add(row.added);
        EXPECT_EQ(row.ring, std::string(recorded.buffer.ringBegin(), recorded.buffer.ringEnd()));
        EXPECT_EQ(header + row.text + footer, printed(recorded.buffer));
        EXPECT_EQ(row.next, recorded.buffer.ringNext() - recorded.buffer.ringBegin());
    }
}

TEST_F(LimitedBufferOn, CutsFormattedTextAndAddsNothingOfFormattingErrors)
{
    for (const size_t length : {0U, 1U, 510U, 511U, 512U, 600U}) {
        Recorded recorded(512);
        recorded.addList();
        recorded.addf(std::string(length, 'x'));
        EXPECT_EQ(recorded.expected(), printed(recorded.buffer)) << length;
    }
    LimitedBuffer buffer(8, 2, formatPair);
    buffer.addf("%d|%s", 12, "abc");
    buffer.addStateValueList("zz", 2);
    const wchar_t noCharacter[] = {static_cast<wchar_t>(0x7FFFFFFF), 0};
    buffer.addf("ab%ls", noCharacter);
    EXPECT_EQ(header + "12|abc<zz>" + footer, printed(buffer));
}

TEST_F(LimitedBufferOn, MeasuresAndReadsInRingOrder)
{
    constexpr ptrdiff_t capacity = 7;
    Recorded recorded(capacity);
    LimitedBuffer& buffer = recorded.buffer;
    recorded.add("defabc");
    recorded.add("g");
    recorded.add("");
    char* const begin = buffer.ringBegin();
    EXPECT_EQ(begin + capacity, buffer.ringEnd());
    for (ptrdiff_t from = 0; from < capacity; ++from) {
        for (const ptrdiff_t origin : {PTRDIFF_MIN, ptrdiff_t{-50}, ptrdiff_t{0}, PTRDIFF_MAX - 50})
            for (ptrdiff_t n = origin; n < origin + 50; ++n)
                ASSERT_EQ(begin + ((n % capacity + capacity) % capacity + from) % capacity,
                          buffer.walk(begin + from, n));
        std::string content(begin, buffer.ringEnd());
        std::rotate(content.begin(), content.begin() + from, content.end());
        EXPECT_EQ(static_cast<size_t>(capacity), buffer.diff(begin + from, begin + from));
        for (size_t length = 0; length <= capacity; ++length) {
            std::ostringstream out;
            buffer.readPart(begin + from, length, out);
            ASSERT_EQ(content.substr(0, length), out.str());
            char* const to = buffer.walk(begin + from, static_cast<ptrdiff_t>(length));
            ASSERT_EQ(length == 0 ? capacity : length, buffer.diff(begin + from, to));
        }
    }
}

TEST_F(LimitedBufferOn, PrintsACopyWhileOthersWrite)
{
    LimitedBuffer* printing = nullptr;
    bool fails = true;
    LimitedBuffer buffer(10, 2, [&](std::ostream& out, const char* values) {
        std::thread([&] { printing->add("later", 5); }).join();
        printing->addf("%d", 7);
        formatPair(out, values);
        if (fails)
            throw std::runtime_error("formatter");
    });
    printing = &buffer;
    buffer.addStateValueList("zz", 2);
    buffer.add("abc", 3);
    std::ostringstream out;
    EXPECT_THROW(buffer.print(out), std::runtime_error);
    EXPECT_EQ(header + "<zz>", out.str());
    fails = false;
    EXPECT_EQ(header + "<zz>abclater7" + footer, printed(buffer));
    EXPECT_EQ(header + "ter7later7" + footer, printed(buffer));
}

TEST_F(LimitedBufferOn, LeavesNothingBehindWhenMemoryEnds)
{
    if (const char* const reason = support::AllocationFailure::hidden())
        GTEST_SKIP() << reason;
    const auto failEach = [](const std::function<void()>& operation) {
        size_t failures = 0;
        for (bool reached = true; reached;) {
            const support::AllocationFailure failure(failures + 1);
            try {
                operation();
            } catch (const std::bad_alloc&) {
                ++failures;
            }
            reached = failure.reached();
        }
        return failures;
    };
    EXPECT_EQ(2U, failEach([] { const LimitedBuffer made(10, 2, formatPair); }));
    Recorded recorded(10);
    recorded.add("abc");
    recorded.addList();
    std::ostream nowhere(nullptr);
    EXPECT_EQ(2U, failEach([&] { recorded.buffer.print(nowhere); }));
    EXPECT_EQ(recorded.expected(), printed(recorded.buffer));
}

TEST_F(LimitedBufferOn, RecordsWithoutMemoryAndWithoutSystemCalls)
{
    LimitedBuffer buffer(600, 2, formatPair);
    const std::string text(599, 'x');
    const auto record = [&] {
        for (int i = 0; i < 200; ++i) {
            buffer.add(text.data(), static_cast<size_t>(3 * i));
            buffer.addf("%d %s %.3f\n", i, text.c_str(), 0.5 * i);
            buffer.addStateValueList("ab", 2);
        }
    };
    const support::AllocationCount count;
    record();
    EXPECT_EQ(0U, count.allocations());
    EXPECT_EQ(0U, count.releases());
    // The allocations are counted everywhere, the system calls where they can be.
    if (!support::systemCallsHidden()) {
        EXPECT_EQ(std::vector<int>(), support::systemCallsOf(record));
    }
}

TEST_F(LimitedBufferOn, FaultsNoPageInOnceAHeapWasMade)
{
    if (const char* const reason = support::PageFaults::hidden())
        GTEST_SKIP() << reason;
    LimitedBuffer buffer(1 << 20, 4096, formatPair);
    const std::string text(4095, 'x');
    const std::string list(4096, 'y');
    const quorvil::SimpleHeap heap(8);
    const support::PageFaults faults;
    for (int i = 0; i < 300; ++i) {
        buffer.add(text.data(), text.size());
        buffer.addf("%d\n", i);
        buffer.addStateValueList(list.data(), 4096);
    }
    EXPECT_EQ(0, faults.count());
}

TEST_F(LimitedBufferOn, KeepsWritersAndPrintersApart)
{
    constexpr int writers = 3;
    constexpr int textsOfEach = 160000;
    struct State
    {
        int writer;
        int text;
    };
    // Each writer adds the line of its next text, and a list that says so: a list stands behind its writer's line of
    // that number and before the next one.
    LimitedBuffer buffer(4096, sizeof(State), [](std::ostream& out, const char* values) {
        State state;
        std::memcpy(&state, values, sizeof state);
        out << '[' << state.writer << ' ' << state.text << "\n";
    });
    const auto checkPrint = [&] {
        std::istringstream lines(printed(buffer));
        std::string line;
        for (int i = 0; i < 4; ++i)
            std::getline(lines, line);
        const char* const next = buffer.ringNext();
        ASSERT_TRUE(buffer.ringBegin() <= next && next < buffer.ringEnd());
        std::map<int, int> last;
        // The oldest line is cut.
        std::getline(lines, line);
        while (std::getline(lines, line) && line != "==============" && !line.empty()) {
            const bool isList = line[0] == '[';
            std::istringstream numbers(line.substr(isList ? 1 : 0));
            int writer = -1;
            int text = -1;
            numbers >> writer >> text;
            const auto known = last.try_emplace(writer, text - (isList ? 0 : 1)).first;
            ASSERT_EQ(known->second + (isList ? 0 : 1), text) << line;
            known->second = text;
        }
    };
    std::atomic<int> writing{writers};
    std::vector<std::thread> threads;
    for (int writer = 0; writer < writers; ++writer)
        threads.emplace_back([&, writer] {
            for (int text = 0; text < textsOfEach; ++text) {
                buffer.addf("%d %d\n", writer, text);
                const State state{writer, text};
                buffer.addStateValueList(reinterpret_cast<const char*>(&state), sizeof state);
            }
            --writing;
        });
    for (int printer = 0; printer < 2; ++printer)
        threads.emplace_back([&] {
            do
                checkPrint();
            while (writing > 0);
        });
    for (auto& thread : threads)
        thread.join();
    EXPECT_THAT(printed(buffer), testing::HasSubstr(" " + std::to_string(textsOfEach - 1) + "\n"));
}

TEST_F(LimitedBufferDeathTest, MisuseFailsTheAssertionOfItsPlace)
{
    Recorded recorded(10);
    recorded.add("abcdef");
    recorded.addList();
    recorded.add("gh");
    LimitedBuffer& buffer = recorded.buffer;
    char* const begin = buffer.ringBegin();
    char* const end = buffer.ringEnd();
    // The fields in their order, to be damaged as by a stray write.
    struct Fields
    {
        void* virtualTable;
        char *begin, *end, *next;
        size_t size;
    };
    const auto damage = [&](size_t field, auto value) {
        std::memcpy(reinterpret_cast<char*>(&buffer) + field, &value, sizeof value);
    };

    const std::string constructor = "util::LimitedBuffer::LimitedBuffer(std::size_t, int, "
                                    "std::function<void(std::basic_ostream<char>&, const char*)>)";
    const std::string invariants = "void util::LimitedBuffer::checkInvariants() const";
    const std::string internAdd = "void util::LimitedBuffer::internAdd(const char*, size_t, L&)";
    const std::string walk = "char* util::LimitedBuffer::walk(char*, ptrdiff_t) const";
    const std::string diff = "std::size_t util::LimitedBuffer::diff(char*, char*) const";
    const std::string readPart = "void util::LimitedBuffer::readPart(char*, std::size_t, std::ostream&)";
    const std::string tooLong = "(ptrdiff_t)len < (end - begin)";
    const std::string partTooLong = "(ptrdiff_t)partSize <= (end - begin)";
    const std::string aInside = "begin <= a && a < end";
    const std::string bInside = "begin <= b && b < end";
    const std::string partInside = "begin <= partBegin && partBegin < end";
    const auto tooMuch = static_cast<size_t>(PTRDIFF_MAX) + 1;
    const struct
    {
        std::string function, expression;
        std::function<void()> misuse;
    } rows[] = {
        {constructor, "formatStateValueList", [] { LimitedBuffer(0, 1, nullptr); }},
        {constructor, "capacity <= INT_MAX", [] { LimitedBuffer(size_t{INT_MAX} + 1, 1, formatPair); }},
        {invariants, "begin < end", [] { LimitedBuffer(0, 1, formatPair); }},
        {invariants, "begin <= next", [&] { damage(offsetof(Fields, next), begin - 1), buffer.checkInvariants(); }},
        {invariants, "next < end", [&] { damage(offsetof(Fields, next), end), buffer.add("a", 1); }},
        {invariants, "(ptrdiff_t)size <= (end - begin)",
         [&] { damage(offsetof(Fields, size), size_t{11}), buffer.add("a", 1); }},
        {invariants, "(ptrdiff_t)size <= (end - begin)",
         [&] { damage(offsetof(Fields, size), tooMuch), buffer.checkInvariants(); }},
        {internAdd, tooLong, [&] { buffer.add("0123456789", 10); }},
        {internAdd, tooLong, [&] { buffer.add("", tooMuch); }},
        {internAdd, tooLong, [&] { buffer.add("", SIZE_MAX); }},
        {internAdd, tooLong, [&] { buffer.addf("%d", 1234567890); }},
        {walk, aInside, [&] { buffer.walk(begin - 1, 1); }},
        {walk, aInside, [&] { buffer.walk(end, -1); }},
        {diff, aInside, [&] { (void)buffer.diff(begin - 1, begin); }},
        {diff, aInside, [&] { (void)buffer.diff(end, begin); }},
        {diff, bInside, [&] { (void)buffer.diff(begin, begin - 1); }},
        {diff, bInside, [&] { (void)buffer.diff(begin, end); }},
        {readPart, partInside, [&] { buffer.readPart(begin - 1, 1, std::cerr); }},
        {readPart, partInside, [&] { buffer.readPart(end, 0, std::cerr); }},
        {readPart, partTooLong, [&] { buffer.readPart(begin, 11, std::cerr); }},
        {readPart, partTooLong, [&] { buffer.readPart(begin, tooMuch, std::cerr); }},
        {"void util::LimitedBuffer::print(std::ostream&)", "copySize == 0",
         [&] { damage(offsetof(Fields, size), size_t{1}), buffer.print(std::cerr); }},
    };
    for (const auto& row : rows) {
        const std::string words = ": " + row.function + ": Assertion `" + row.expression + "' failed.";
        EXPECT_DEATH(row.misuse(),
                     testing::AllOf(testing::HasSubstr("Quorvil/QuorvilLimitedBuffer:"), testing::HasSubstr(words)));
    }
    EXPECT_DEATH(buffer.addStateValueList("abc", 3), "Assertion `numBytes == bytesPerValueList' failed");
}

TEST_F(LBInteractiveDump, PrintsOnEachLineUntilItReadsTheLetterOrTheEnd)
{
    LimitedBuffer buffer(20, 2, formatPair);
    buffer.add("trace", 5);
    const std::string prompt = "Enter: dump gl_trenvikLimitedBuffer\n"
                               "q (und Enter): Quit\n"
                               "(vor getline)\n";
    const auto echo = [&](const std::string& line) { return prompt + "line: '" + line + "'\n"; };
    const std::string dump = header + "trace" + footer;
    const struct
    {
        std::string input, output;
    } rows[] = {
        {"x\nq\n", echo("x") + dump + echo("q")},
        {"\nqq\nq", echo("") + dump + echo("qq") + dump + echo("q")},
        {"q\nleft", echo("q")},
        {"", echo("")},
        {"x\n", echo("x") + dump + echo("")},
        {"x", echo("x")},
    };
    for (const auto& row : rows) {
        std::stringbuf input(row.input);
        EXPECT_EQ(std::pair(row.output, std::string()), dialogue(buffer, input));
    }
}

TEST_F(LBInteractiveDump, StopsWhenTheConsoleFailsAndGoesOnWhenThePrintDoes)
{
    struct Broken : std::streambuf
    {
        int underflow() override
        {
            throw std::runtime_error("console");
        }
    } broken;
    bool known = true;
    LimitedBuffer buffer(20, 2, [&](std::ostream&, const char*) {
        if (std::exchange(known, false))
            throw std::runtime_error("formatter");
        throw 1;
    });
    buffer.addStateValueList("zz", 2);
    EXPECT_THAT(dialogue(buffer, broken).first, testing::EndsWith("line: ''\n"));
    std::stringbuf input("x\nx\nq\n");
    const auto [out, err] = dialogue(buffer, input);
    EXPECT_EQ("LBInteractiveDump: formatter\nLBInteractiveDump: unknown exception\n", err);
    EXPECT_THAT(out, testing::EndsWith("line: 'q'\n"));
}

TEST_F(LBInteractiveDump, EndsWithoutTheProcessWhenAStreamThrows)
{
    struct Failing : std::stringbuf
    {
        std::streamsize xsputn(const char* text, std::streamsize length) override
        {
            return --left < 0 ? 0 : std::stringbuf::xsputn(text, length);
        }

        int left = 0;
    };
    LimitedBuffer buffer(20, 2, formatPair);
    std::cin.exceptions(std::ios::eofbit);
    std::stringbuf input("x\nlast");
    const auto [out, err] = dialogue(buffer, input);
    EXPECT_THAT(out, testing::EndsWith("line: 'last'\n"));
    EXPECT_THAT(err, testing::StartsWith("LBInteractiveDump: "));
    // The prompt fails, the echo, or the print and then the next prompt.
    const std::string prompt = "Enter: dump gl_trenvikLimitedBuffer\nq (und Enter): Quit\n(vor getline)\n";
    const std::string written[] = {"", prompt, prompt + "line: 'x'\n"};
    for (int writes = 0; writes < 3; ++writes) {
        Failing console;
        console.left = writes;
        std::stringbuf lines("x\nx\nq\n");
        std::cout.exceptions(std::ios::badbit);
        EXPECT_THAT(dialogue(buffer, lines, console), testing::StartsWith("LBInteractiveDump: "));
        EXPECT_EQ(written[writes], console.str());
    }
}
