// Timing records and their pool, the text ring, its lists and its console thread.

#include "Quorvil/QuorvilLimitedBuffer.h"
#include "Quorvil/QuorvilLimitedStateValueBuffer.h"
#include "Quorvil/QuorvilTimeCollector.h"
#include "tests/support/assertion.h"
#include "tests/support/environment.h"
#include "tests/support/pageFaults.h"
#include "tests/support/systemCalls.h"
#include "tests/support/threadCreation.h"

#include <gmock/gmock.h>

#include <climits>
#include <deque>
#include <iomanip>
#include <iostream>
#include <map>
#include <random>
#include <sstream>

using quorvil::TimeCollector;
using quorvil::TimeCollectorPool;
using std::chrono::system_clock;
using testing::ThrowsMessage;
using util::LimitedBuffer;
using util::LimitedStateValueBuffer;
using Handle = TimeCollectorPool::Handle;

namespace {

const auto refusesCapacity = ThrowsMessage<std::length_error>("vector::reserve");
const std::string exhausted = support::assertion(
    "Quorvil/QuorvilFastAllocator", "virtual void* quorvil::BaseHeap::alloc(size_t)", "nextMem + ceilSize <= memEnd");

std::string failure(const std::string& function, const std::string& expression)
{
    return support::assertion("Quorvil/QuorvilTimeCollector", "void quorvil::" + function, expression);
}

system_clock::time_point at(long long nanoseconds)
{
    return system_clock::time_point(std::chrono::nanoseconds(nanoseconds));
}

/// Where records are printed; a flush leaves a mark, behind the hook.
struct Paper : std::stringbuf
{
    std::function<void()> onFlush = [] {};

    int sync() override
    {
        onFlush();
        return sputc('~') == '~' ? 0 : -1;
    }
};

// ---- the record

struct TimeCollectorTest : testing::Test
{
    std::string dumped(int nameWidth, const std::locale& locale = std::locale::classic())
    {
        paper.str("");
        out.imbue(locale);
        record.dump(out, nameWidth);
        return paper.str();
    }

    static Handle filled(TimeCollectorPool& pool, const std::string& name)
    {
        Handle record = pool.get(1);
        record->add(name, at(0));
        return record;
    }

    /// A record of one entry, with the flush of its own and the one behind its return.
    static std::string printedRecord(const std::string& name, int time = 0)
    {
        return name + ": " + std::to_string(time) +
               " ns    (first +         0 ns)   (last +         0 ns)\n===== Insgesamt: 0 ns\n\n~~";
    }

    static size_t freeRecords(TimeCollectorPool& pool)
    {
        std::vector<Handle> records;
        while (Handle record = pool.tryGet(0))
            records.push_back(std::move(record));
        return records.size();
    }

    /// Bytes that the record has taken from its heap.
    ptrdiff_t used()
    {
        return static_cast<char*>(heap->alloc(0)) - start;
    }

    std::shared_ptr<quorvil::IHeap> heap = std::make_shared<quorvil::SimpleHeap>(65536);
    char* const start = static_cast<char*>(heap->alloc(0));
    TimeCollector record{quorvil::FastAllocator<TimeCollector::Entry>(heap)};
    Paper paper;
    std::ostream out{&paper};
};

TEST_F(TimeCollectorTest, DumpReadsAsPromisedAsOftenAsAsked)
{
    EXPECT_EQ(dumped(8), "TimeCollector: no entries\n");
    record.add("start", at(1000000000));
    record.add("parse", at(1000000500));
    record.add("print", at(1002000500));
    for (int use = 0; use < 2; ++use)
        EXPECT_EQ(dumped(8), "start   : 1000000000 ns    (first +         0 ns)   (last +         0 ns)\n"
                             "parse   : 1000000500 ns    (first +       500 ns)   (last +       500 ns)\n"
                             "print   : 1002000500 ns    (first +   2000500 ns)   (last +   2000000 ns)\n"
                             "=====> Achtung 1ms ueberschritten\n"
                             "===== Insgesamt: 2000500 ns\n\n~");
    record.reset(0);
    record.add("longer", at(1007));
    record.add("", at(1001007));
    record.add("late", at(1001008));
    record.add("back", at(-1));
    EXPECT_EQ(dumped(4, std::locale(std::locale::classic(), new quorvil::MyNumPunct)),
              "longer: 1 007 ns    (first +         0 ns)   (last +         0 ns)\n"
              "    : 1 001 007 ns    (first + 1 000 000 ns)   (last + 1 000 000 ns)\n"
              "late: 1 001 008 ns    (first + 1 000 001 ns)   (last +         1 ns)\n"
              "=====> Achtung 1ms ueberschritten\n"
              "back: -1 ns    (first +    -1 008 ns)   (last + -1 001 009 ns)\n"
              "===== Insgesamt: -1 008 ns\n\n~");
    EXPECT_EQ(dumped(INT_MIN), dumped(0));
    record.reset(1);
    const auto before = system_clock::now();
    record.add("now");
    const auto stamp = at(std::stoll(dumped(0).substr(5)));
    EXPECT_TRUE(before <= stamp && stamp <= system_clock::now());
}

TEST_F(TimeCollectorTest, TheHeapHoldsTheListAtItsStartLongNamesAndGivenTextsAndNothingElse)
{
    constexpr ptrdiff_t list = 6 * sizeof(TimeCollector::Entry);
    EXPECT_EQ(used(), 0);
    for (int use = 0; use < 2; ++use) {
        record.reset(6);
        record.add("fifteen letters");
        EXPECT_EQ(used(), list);
        record.add("sixteen letters.");
        EXPECT_EQ(used(), list + 24);
        dumped(40);
        const auto text = record.string("a text of 20 letters");
        EXPECT_EQ(*text + *record.string(nullptr) + *record.string2(size_t{3}, 'x'), "a text of 20 lettersxxx");
        for (int i = 0; i < 9; ++i)
            record.add(*text);
    }
    EXPECT_THAT([this] { record.reset(-1); }, refusesCapacity);
    EXPECT_THAT([] { TimeCollector{-1}; }, refusesCapacity);
    EXPECT_THROW(record.string2(SIZE_MAX, 'x'), std::length_error);
    EXPECT_EQ(used(), 0);
    const std::string reset = failure("TimeCollector::reset(int)", "allocator.getHeap()->allFree()");
    const auto text = record.string("");
    EXPECT_DEATH(record.reset(1), reset);
    TimeCollector homeless{quorvil::FastAllocator<TimeCollector::Entry>(std::shared_ptr<quorvil::IHeap>())};
    EXPECT_DEATH(homeless.reset(0), reset);
    EXPECT_DEATH(homeless.string("text"), support::assertion("Quorvil/QuorvilFastAllocator", "", "b.getHeap()"));
    EXPECT_DEATH(quorvil::StringDeleter()(nullptr),
                 failure("StringDeleter::operator()(quorvil::TimeCollector::MyString*)", "tc"));
    EXPECT_DEATH(quorvil::TimeCollectorDeleter()(&homeless),
                 failure("TimeCollectorDeleter::operator()(quorvil::TimeCollector*)", "tcp"));
    TimeCollector(0).string2(size_t{0x3ff00}, 'x');
    EXPECT_DEATH(TimeCollector(0).string2(size_t{0x40000}, 'x'), exhausted);
}

// ---- the pool

using TimeCollectorPoolTest = TimeCollectorTest;

TEST_F(TimeCollectorPoolTest, TheBlockFitsExactlyAndTheConsoleGroupsItsNumbers)
{
    for (const size_t count : {0U, 1U, 2U, 3U, 7U})
        for (const size_t bytes : {0U, 8U, 1024U}) {
            TimeCollectorPool pool(out, 0, bytes, count);
            EXPECT_EQ(freeRecords(pool), count);
        }
    std::ostringstream console;
    console.imbue(std::cout.getloc());
    console << 1234567;
    EXPECT_EQ(console.str(), "1 234 567") << "the console groups, whatever the pool prints to";
    EXPECT_DEATH(TimeCollectorPool(out, 0, 1023, 1), exhausted);
    EXPECT_THROW(TimeCollectorPool(out, 0, SIZE_MAX / 8, 8), std::bad_array_new_length);
    EXPECT_THROW(TimeCollectorPool(out, 0, 0, size_t{INT_MAX} + 1), std::bad_array_new_length);
}

TEST_F(TimeCollectorPoolTest, AConstructorThatIsCutShortTakesDownWhatStands)
{
    // Nothing is made yet, and then the records alone.
    struct : std::stringbuf
    {
        void imbue(const std::locale&) override
        {
            throw std::bad_cast();
        }
    } console;
    std::streambuf* const old = std::cout.rdbuf(&console);
    EXPECT_THROW(TimeCollectorPool(out, 0, 8, 2), std::bad_cast);
    std::cout.rdbuf(old);
    const support::FaultScope fault(pthread_mutex_lockFault, EAGAIN, 0, 1, 1);
    EXPECT_THROW(TimeCollectorPool(out, 0, 8, 2), std::system_error);
}

TEST_F(TimeCollectorPoolTest, ACancelledQueueEndsTheThreadAndReturnsItsRecords)
{
    using Queue = quorvil::BlockingQueue<Handle, quorvil::FastAllocator<Handle>>;
    TimeCollectorPool pool(out, 0, 1024, 2);
    Queue* queue; // only its owner can cancel it
    std::memcpy(&queue, reinterpret_cast<char*>(&pool) + 8 * sizeof queue, sizeof queue);
    queue->cancel();
    pool.dump(filled(pool, "unprinted"));
    pool.close();
    EXPECT_EQ(paper.str(), "~");
}

TEST_F(TimeCollectorPoolTest, TheRecordReturnedLastIsTheNextOneArrivesEmptyAndIsNeverLost)
{
    support::Gate joining;
    const support::HookScope hook(pthread_joinFault, [&joining] { joining.open(); });
    TimeCollectorPool pool(out, 7, 1024, 2);
    EXPECT_EQ(support::asked.stackBytes, 2048U * 1024);
    Handle second = pool.get(3);
    Handle first = filled(pool, "a name of more than 15 characters");
    EXPECT_THAT([&] { pool.get(0); }, ThrowsMessage<util::GeneralException>("Pool underflow"));
    EXPECT_EQ(pool.tryGet(0), nullptr);
    TimeCollector* const place = first.get();
    first.reset();
    EXPECT_THAT([&] { pool.get(size_t{INT_MAX} + 1); }, refusesCapacity);
    EXPECT_THAT([&] { pool.tryGet(SIZE_MAX); }, refusesCapacity);
    first = filled(pool, "only");
    EXPECT_EQ(first.get(), place);
    // The record's own flush, the one behind its return, and the one at the thread's end, all of them during a close.
    std::vector<bool> back;
    paper.onFlush = [&] {
        joining.await();
        EXPECT_THAT([&] { pool.close(); }, ThrowsMessage<std::system_error>(std::strerror(EDEADLK)));
        back.push_back(pool.tryGet(0) != nullptr);
    };
    pool.dump(std::move(first));
    pool.dump(std::move(first)); // an empty handle
    pool.close();
    EXPECT_EQ(paper.str(), printedRecord("only   ") + "~");
    EXPECT_EQ(back, (std::vector<bool>{false, true, true}));
    second.reset();
    EXPECT_THAT([&] { pool.put(place); }, ThrowsMessage<util::GeneralException>("Pool overflow"));
}

TEST_F(TimeCollectorPoolTest, TakesNothingOfTheSystemWhileTheDumpThreadIsAwakeAndPrintsWhatIsQueuedHoweverItEnds)
{
    const std::string longName = "a name of more than 15 characters";
    for (const bool closed : {false, true}) {
        paper.str("");
        {
            TimeCollectorPool pool(out, 0, 1024, 4);
            support::Gate held, go;
            paper.onFlush = [&] {
                held.open();
                go.await();
            };
            pool.dump(filled(pool, "first"));
            held.await();
            const auto use = [&] {
                pool.dump(filled(pool, "short"));
                Handle lent = pool.tryGet(1);
                lent->add(*lent->string(longName.c_str()), at(0));
                pool.dump(std::move(lent));
            };
            support::expectNothingOfTheSystem(use);
            Handle mine = filled(pool, "mine");
            go.open();
            if (closed) {
                pool.close();
                support::expectNothingOfTheSystem([&] { pool.dump(std::move(mine)); });
                EXPECT_EQ(freeRecords(pool), 4U) << "a closed pool returns the record unprinted";
            }
        }
        EXPECT_EQ(paper.str(), printedRecord("first") + printedRecord("short") + printedRecord(longName) + "~");
    }
}

TEST_F(TimeCollectorPoolTest, WhatSeveralProducersDumpComesOutWholeAndInOrderOrGoesBackWhereOthersClose)
{
    constexpr int records = 50;
    for (int round = 0; round < (support::sanitized || support::emulated ? 20 : 100); ++round) {
        paper.str("");
        TimeCollectorPool pool(out, 0, 256, 2);
        support::Gate dumped;
        const auto produce = [&](char name) {
            for (int number = 1; number <= records; ++number) {
                Handle lent;
                while (!(lent = pool.tryGet(1)))
                    std::this_thread::yield();
                lent->add({&name, 1}, at(number));
                pool.dump(std::move(lent));
                dumped.open();
            }
        };
        const auto close = [&] {
            dumped.await(records);
            pool.close();
        };
        std::thread threads[] = {std::thread(produce, 'a'), std::thread(produce, 'b'), std::thread(produce, 'c'),
                                 std::thread(close)};
        close();
        const std::string text = paper.str();
        for (std::thread& thread : threads)
            thread.join();
        EXPECT_EQ(paper.str(), text) << "nothing is printed behind a close";
        EXPECT_EQ(freeRecords(pool), 2U) << "none lies in the ring of a closed pool";
        std::map<char, int> last;
        for (size_t place = 0; place + 1 < text.size();) {
            const std::string expected = printedRecord({text[place]}, ++last[text[place]]);
            ASSERT_EQ(text.substr(place, expected.size()), expected);
            place += expected.size();
        }
    }
}

// ---- the text ring and its lists

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
    // Each writer adds texts and lists of one letter, whole multiples of which fill the ring. A formatter may use the
    // buffer itself.
    LimitedBuffer buffer(4096, 16, [&buffer](std::ostream& out, const char* values) {
        out.write(values, buffer.ringNext() < buffer.ringEnd() ? 16 : 0);
    });
    std::atomic<int> writing{3};
    const auto write = [&](char letter) {
        const std::string text(16, letter);
        for (int i = 0; i < 50000; ++i) {
            buffer.addf("%s", text.c_str());
            buffer.addStateValueList(text.data(), 16);
        }
        --writing;
    };
    std::thread threads[] = {std::thread(write, 'a'), std::thread(write, 'b'), std::thread(write, 'c')};
    while (writing > 0) {
        const std::string text = printed(buffer);
        for (size_t place = header.size(); place < text.size() - footer.size(); place += 16)
            EXPECT_EQ(std::string(16, text[place]), text.substr(place, 16));
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
    lists.removeOverwritten(59, 60, 99); // known from now on: a text of up to 88 bytes behind 60 reaches no list
    // Behind the ring of positions: its end, and the number of lists.
    constexpr size_t valueWord = 4 + 128 * sizeof(int) / sizeof(void*) + 2;
    int* behind = reinterpret_cast<int*>(reinterpret_cast<void**>(&lists) + valueWord - 2);
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
        {"", "begin <= a && a < end", [&] { buffer.walk(begin - 1, 1); }},
        {"std::size_t util::LimitedBuffer::diff(char*, char*) const", "begin <= a && a < end",
         [&] { (void)buffer.diff(begin - 1, begin); }},
        {"", "begin <= a && a < end", [&] { (void)buffer.diff(end, begin); }},
        {"", "begin <= b && b < end", [&] { (void)buffer.diff(begin, end); }},
        {"", "begin <= b && b < end", [&] { (void)buffer.diff(begin, begin - 1); }},
        {"void util::LimitedBuffer::readPart(char*, std::size_t, std::ostream&)",
         "begin <= partBegin && partBegin < end", [&] { buffer.readPart(end, 0, std::cerr); }},
        {"", "begin <= partBegin && partBegin < end", [&] { buffer.readPart(begin - 1, 0, std::cerr); }},
        {"", "(ptrdiff_t)partSize <= (end - begin)", [&] { buffer.readPart(begin, SIZE_MAX, std::cerr); }},
        {ofLists + "add(int, const char*, int)", "numBytes == bytesPerValueList", [&] { lists.add(1, "xxx", 3); }},
        {"", "nextValue >= valueBuf && nextValue + numBytes <= valueBufEnd",
         [&] { support::damage(lists, valueWord, first - 1), lists.add(1, "xx", 2); }},
        {"", "nextPos >= posBuf && nextPos < posBufEnd",
         [&] { support::damage(lists, valueWord + 1, &pos), lists.add(1, "xx", 2); }},
        {ofLists + "copyFrom(const util::LimitedStateValueBuffer&)", "src.bytesPerValueList == this->bytesPerValueList",
         [&] { lists.copyFrom(longer); }},
        {ofLists + "posStepBack(int**)", posInside, [&] { lists.posStepBack(&elsewhere); }},
        {"", posInside, [&] { lists.posStepBack(&behind); }},
        {ofLists + "posStepForward(int**)", posInside, [&] { lists.posStepForward(&behind); }},
        {"", posInside, [&] { lists.posStepForward(&(elsewhere = nullptr)); }},
        {ofLists + "valueStepBack(char**)", entering, [&] { empty.removeOverwritten(1, 2, 3); }},
        {"", entering, [&] { lists.valueStepBack(&(cursor = first - 1)); }},
        {"", leaving, [&] { lists.valueStepBack(&(cursor = first + 1)); }},
        {ofLists + "valueStepForward(char**)", entering, [&] { lists.valueStepForward(&(cursor = first + 256)); }},
        {"", entering, [&] { lists.valueStepForward(&(cursor = first - 1)); }},
        {"", leaving, [&] { lists.valueStepForward(&(cursor = first + 255)); }},
        {"bool util::overwritten(int, int, int, int)", "0 <= pos && pos < cycleLen",
         [&] { lists.removeOverwritten(-1, 50, 50); }},
        {"", "0 <= pos && pos < cycleLen", [&] { lists.add(-1, "xx", 2), lists.removeOverwritten(0, 1, 99); }},
        {"", "0 <= begin && begin < cycleLen", [&] { lists.removeOverwritten(99, -1, 99); }},
        {"", "0 <= begin && begin < cycleLen", [&] { lists.removeOverwritten(-1, 0, 99); }},
        {"", "0 <= end && end < cycleLen", [&] { lists.removeOverwritten(60, 99, 99); }},
        {"", "0 <= end && end < cycleLen", [&] { lists.removeOverwritten(60, -1, 99); }},
    };
    std::string function;
    for (const auto& [another, expression, misuse] : rows) {
        function = another.empty() ? function : another;
        const bool ofRing = function.find("util::LimitedBuffer::") != std::string::npos;
        EXPECT_DEATH(misuse(), support::assertion(ofRing ? "Quorvil/QuorvilLimitedBuffer"
                                                         : "Quorvil/QuorvilLimitedStateValueBuffer",
                                                  function, expression));
    }
    for (const int length : {-1, sizeof(void*) == 4 ? 1 << 24 : INT_MIN})
        EXPECT_THROW(LimitedStateValueBuffer{length}, std::bad_array_new_length) << length;
}

// ---- the console thread

TEST(LBInteractiveDump, PrintsOnEachLineUntilItReadsTheLetterOrTheEnd)
{
    std::function<void()> formatter = [] { throw std::runtime_error("formatter"); };
    LimitedBuffer buffer(20, 2, [&formatter](std::ostream&, const char*) { formatter(); });
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
    formatter = [] { throw 1; };
    EXPECT_EQ(dialogue("x\nq"), echo("x") + header + echo("q") + "LBInteractiveDump: unknown exception\n");
    formatter = [] { std::cout.exceptions(std::ios::badbit), std::cout.setstate(std::ios::badbit); };
    const std::string failed = "LBInteractiveDump: basic_ios::clear: iostream error\n";
    EXPECT_EQ(dialogue("x\nq"), echo("x") + header + failed + failed) << "an output that throws ends the dialogue";
    std::cout.exceptions(std::ios::goodbit), std::cout.clear();
    if (support::sanitized)
        GTEST_SKIP()
            << "the sanitizer takes the catch of an unwinding thread, which has no object, for a null reference";
    formatter = [] { pthread_exit(nullptr); };
    EXPECT_EQ(dialogue("x\nq"), echo("x") + header) << "a thread that is cancelled unwinds without a word";
}

} // namespace
